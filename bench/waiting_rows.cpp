// What it costs to wait for servers that take their time.
#include "rows.h"

namespace {

using std::chrono::milliseconds;

constexpr int rounds = 3;
constexpr std::size_t slow_servers = 256;
constexpr milliseconds slow_answer{5000};
constexpr milliseconds memory_answer{2500};

// KiB for each server above the first.
Samples per_server(const Samples &narrow, const Samples &wide, std::size_t width) {
    Samples result;
    for (std::size_t i = 0; i < wide.size(); ++i)
        result.push_back((wide[i] - narrow.at(i)) / static_cast<double>(width - 1));
    return result;
}

} // namespace

void add_waiting_rows(Rows &rows, Peer &peer) {
    Bound cpu = {.name = "256 servers, answers after 5 s, processor time", .unit = "ms", .limit = 250};
    Comparison against = {
        .name = "the same against the bare client", .unit = "ms", .other = "bare client", .limit = 0};
    Samples narrow;
    Samples wide;
    Samples widest;
    alternate(
        rounds,
        [&] {
            const Run run = visit(peer, fanout(peer, slow_servers), slow_servers, slow_answer);
            cpu.ours.push_back(run.cost.cpu_ms);
            wide.push_back(static_cast<double>(run.resident_kib));
        },
        [&] {
            const Run run = visit(peer, bare_client(peer, slow_servers), slow_servers, slow_answer);
            against.others.push_back(run.cost.cpu_ms);
        });
    for (int i = 0; i < rounds; ++i) {
        narrow.push_back(static_cast<double>(visit(peer, fanout(peer, 1), 1, memory_answer).resident_kib));
        widest.push_back(
            static_cast<double>(visit(peer, fanout(peer, 1024), 1024, memory_answer).resident_kib));
    }
    against.ours = cpu.ours;
    rows.push_back(row_of(cpu));
    rows.push_back(row_of(against));
    rows.push_back(row_of(Bound{.name = "resident memory for each server above 1, of 256",
                                .unit = "KiB",
                                .ours = per_server(narrow, wide, slow_servers),
                                .limit = 100}));
    rows.push_back(row_of(Bound{.name = "resident memory for each server above 1, of 1024",
                                .unit = "KiB",
                                .ours = per_server(narrow, widest, 1024),
                                .limit = 100}));
}
