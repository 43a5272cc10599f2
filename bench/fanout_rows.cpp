// Many servers at once: the command's driver and the bare client at the same widths.
#include "rows.h"

#include "targets.h"

#include <array>
#include <stdexcept>

namespace {

using std::chrono::milliseconds;

struct Width {
    std::size_t targets;
    int every; // measured in each so many-th round
};
constexpr int rounds = 100;
constexpr auto widths = std::to_array<Width>({{1, 1}, {32, 2}, {256, 5}, {1024, 8}});

constexpr milliseconds settle_time{100}; // until the last threads of a client sleep
constexpr milliseconds exchange_limit{30000};

// The figures of one width.
struct Figures {
    std::size_t targets;
    Comparison span;
    Comparison cpu;
};

std::size_t count_of(const std::string &text, const std::string &word) {
    std::size_t count = 0;
    for (std::size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + word.size()))
        ++count;
    return count;
}

void check(const std::string &what, const Cost &cost, const Visit &seen, std::size_t width) {
    if (cost.exit != 0)
        throw std::runtime_error(what + " ended with status " + std::to_string(cost.exit));
    if (seen.accepted != width || seen.terminated != width)
        throw std::runtime_error(what + " carried out " + std::to_string(seen.terminated) + " of " +
                                 std::to_string(width) + " requests");
    if (seen.wrong != 0)
        throw std::runtime_error(what + " sent other bytes than the clients before");
    if (what != ZYN_BARE_CLIENT && count_of(cost.output, "Success") != width)
        throw std::runtime_error(what + " does not tell of as many successes as there are servers");
}

Figures prepare(std::size_t targets) {
    const std::string name = "fan-out to " + std::to_string(targets);
    return {
        .targets = targets,
        .span = {.name = name + ", accept to terminate", .unit = "ms", .other = "bare client", .limit = 2},
        .cpu = {.name = name + ", processor time", .unit = "ms", .other = "bare client", .limit = 2}};
}

void measure(Peer &peer, bool ours_first, Figures &at) {
    const auto ours = [&] {
        const Run run = visit(peer, fanout(peer, at.targets), at.targets);
        at.span.ours.push_back(run.span_ms);
        at.cpu.ours.push_back(run.cost.cpu_ms);
    };
    const auto bare = [&] {
        const Run run = visit(peer, bare_client(peer, at.targets), at.targets);
        at.span.others.push_back(run.span_ms);
        at.cpu.others.push_back(run.cost.cpu_ms);
    };
    if (ours_first)
        ours();
    bare();
    if (!ours_first)
        ours();
}

// How much more the wider run takes, against how many more servers it has. The bare client's growth
// stands beside it: that part of it is the machine's.
Row growth_row(const std::string &what, const Figures &from, const Figures &to,
               Comparison Figures::*figures) {
    const auto growth = [](const Samples &before, const Samples &after) {
        return spread_of(after).median / spread_of(before).median;
    };
    const double servers = static_cast<double>(to.targets) / static_cast<double>(from.targets);
    const double before = spread_of((from.*figures).ours).median;
    Samples ratios;
    for (const double after : (to.*figures).ours)
        ratios.push_back(after / before / servers);
    const Spread ratio = spread_of(ratios);
    const double bare = growth((from.*figures).others, (to.*figures).others);
    return {.name = "growth of " + what + ", " + std::to_string(from.targets) + " to " +
                    std::to_string(to.targets),
            .ours = figure(ratio.median * servers, "times"),
            .other = "servers: " + figure(servers, "times") + " (bare client: " + figure(bare, "") + ")",
            .ratio = figure(ratio, ""),
            .target = "at most 1: " + verdict(ratio.median <= 1)};
}

} // namespace

std::vector<std::string> command(const Peer &peer, std::size_t width) {
    std::string addresses;
    for (std::size_t i = 0; i < width; ++i)
        addresses += (i == 0 ? "" : ",") + std::string(TargetText(i).text);
    return {ZYN_COMMAND,
            "--script",
            bench_script,
            "-h",
            addresses,
            "-p",
            std::to_string(peer.port()),
            "-w",
            std::to_string(bench_timeout)};
}

std::vector<std::string> installed_command(const Peer &peer, std::size_t width) {
    std::vector<std::string> words = command(peer, width);
    words[0] = ZYN_INSTALLED;
    return words;
}

std::vector<std::string> fanout(const Peer &peer, std::size_t width) {
    return {ZYN_FANOUT, std::to_string(width), std::to_string(peer.port())};
}

std::vector<std::string> bare_client(const Peer &peer, std::size_t width) {
    return {ZYN_BARE_CLIENT, std::to_string(width), std::to_string(peer.port())};
}

Run visit(Peer &peer, const std::vector<std::string> &words, std::size_t width, milliseconds delay) {
    Run run;
    peer.begin_visit(delay);
    Program program(words);
    if (delay.count() > 0) {
        // Only a moment at which all of them wait tells what that takes.
        if (!peer.wait_for_requests(width, delay - settle_time))
            throw std::runtime_error(words.front() + " took too long to send its requests");
        std::this_thread::sleep_for(settle_time);
        run.resident_kib = program.peak_resident_kib();
    }
    run.cost = program.finish();
    const auto seen = peer.wait_for_end(width, exchange_limit);
    if (!seen)
        throw std::runtime_error(words.front() + " left connections open or unmade");
    check(words.front(), run.cost, *seen, width);
    run.span_ms =
        std::chrono::duration<double, std::milli>(seen->last_terminate - seen->first_accept).count();
    return run;
}

void add_fanout_rows(Rows &rows, Peer &peer) {
    std::vector<Figures> all;
    for (const Width &width : widths)
        all.push_back(prepare(width.targets));
    // All widths take turns, so that growth is not told from a drift of the machine.
    for (int round = 0; round < rounds; ++round)
        for (std::size_t i = 0; i < widths.size(); ++i)
            if (round % widths[i].every == 0)
                measure(peer, round / widths[i].every % 2 == 0, all[i]);
    for (const Figures &one : all) {
        rows.push_back(row_of(one.span));
        rows.push_back(row_of(one.cpu));
    }
    for (std::size_t i = 1; i < all.size(); ++i)
        rows.push_back(growth_row("time", all[i - 1], all[i], &Figures::span));
    for (std::size_t i = 1; i < all.size(); ++i)
        rows.push_back(growth_row("processor time", all[i - 1], all[i], &Figures::cpu));
}
