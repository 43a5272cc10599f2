// What the command itself costs around its exchanges.
#include "rows.h"

#include <algorithm>
#include <stdexcept>

namespace {

constexpr double pass_ms = 100; // the driver looks that often whether its workers have finished
constexpr int start_rounds = 200;
constexpr int request_rounds = 100;
constexpr int pass_rounds = 20;
constexpr std::size_t address_limit = 32; // of the command's option

Cost run_help(const char *program) {
    const Cost cost = run({program, "--help"});
    if (cost.exit != 0 || cost.output.find("Usage") == std::string::npos)
        throw std::runtime_error(std::string(program) + " --help failed");
    return cost;
}

void add_installed_help(Rows &rows) {
    Bound beyond = {.name = "--help, installed beyond standalone", .unit = "ms", .limit = 5};
    Samples installed;
    alternate(
        start_rounds, [&] { installed.push_back(run_help(ZYN_INSTALLED).wall_ms); },
        [&] { beyond.ours.push_back(-run_help(ZYN_COMMAND).wall_ms); });
    for (std::size_t i = 0; i < installed.size(); ++i)
        beyond.ours[i] += installed[i];
    rows.push_back(row_of(beyond));
}

void add_help(Rows &rows) {
    Comparison wall = {.name = "--help, start to exit", .unit = "ms", .other = "empty program", .limit = 3};
    Samples ours_waits;
    Samples other_waits;
    alternate(
        start_rounds,
        [&] {
            const Cost cost = run_help(ZYN_COMMAND);
            wall.ours.push_back(cost.wall_ms);
            ours_waits.push_back(static_cast<double>(cost.waits));
        },
        [&] {
            const Cost cost = run({ZYN_EMPTY});
            if (cost.exit != 0)
                throw std::runtime_error("the empty program failed");
            wall.others.push_back(cost.wall_ms);
            other_waits.push_back(static_cast<double>(cost.waits));
        });
    rows.push_back(row_of(wall));
    const Spread ours = spread_of(ours_waits);
    const Spread other = spread_of(other_waits);
    rows.push_back({.name = "--help, times it gave up the processor",
                    .ours = figure(ours, ""),
                    .other = "empty program: " + figure(other, ""),
                    .ratio = "",
                    .target = "no more: " + verdict(ours.median <= other.median)});
}

void add_one_request(Rows &rows, Peer &peer) {
    Bound beyond = {.name = "1 request, whole process beyond the first pass", .unit = "ms", .limit = 15};
    Comparison span = {
        .name = "1 request, four steps at the peer", .unit = "ms", .other = "bare client", .limit = 2};
    alternate(
        request_rounds,
        [&] {
            const Run ours = visit(peer, command(peer, 1), 1);
            beyond.ours.push_back(ours.cost.wall_ms - pass_ms);
            span.ours.push_back(ours.span_ms);
        },
        [&] { span.others.push_back(visit(peer, bare_client(peer, 1), 1).span_ms); });
    rows.push_back(row_of(beyond));
    rows.push_back(row_of(span));
}

// The process lasts as many passes as whole periods of the driver fit into it: what it does besides
// is far shorter than a period, and more of it would count against the command.
void add_passes(Rows &rows, Peer &peer) {
    int first = 0;
    int second = 0;
    Samples wall;
    for (int i = 0; i < pass_rounds; ++i) {
        wall.push_back(visit(peer, command(peer, address_limit), address_limit).cost.wall_ms);
        first += wall.back() < 2 * pass_ms ? 1 : 0;
        second += wall.back() >= 2 * pass_ms && wall.back() < 3 * pass_ms ? 1 : 0;
    }
    const int later = pass_rounds - first - second;
    rows.push_back({.name = "32 servers, whole process",
                    .ours = figure(spread_of(wall), "ms"),
                    .other = "",
                    .ratio = "",
                    .target = "first or second pass: " + std::to_string(first) + " first, " +
                              std::to_string(second) + " second, " + std::to_string(later) +
                              " later: " + verdict(later == 0)});
}

} // namespace

void add_start_rows(Rows &rows, Peer &peer) {
    add_help(rows);
    add_installed_help(rows);
    add_one_request(rows, peer);
    add_passes(rows, peer);
}
