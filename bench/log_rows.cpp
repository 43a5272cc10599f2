// The log library under load, and a run of the command whose event daemon does not read.
#include "rows.h"

#include "event_socket.h"
#include "log_bench.h"

#include <atomic>
#include <thread>

namespace {

constexpr int thread_rounds = 10;
constexpr int messages = 2000; // of each thread
constexpr int stuck_rounds = 10;

void add_threads(Rows &rows) {
    Comparison time = {
        .name = "8 threads, 2000 messages each", .unit = "ms", .other = "bare sendto", .limit = 1 / 0.8};
    alternate(
        thread_rounds, [&] { time.ours.push_back(log_threads_ms(messages)); },
        [&] { time.others.push_back(log_threads_bare_ms(messages)); });
    rows.push_back(row_of(time));
}

double run_installed(Peer &peer, const EventSocket &daemon, bool reads) {
    std::atomic<bool> over{false};
    std::jthread reader;
    if (reads)
        reader = std::jthread([&] {
            while (!over)
                daemon.take();
        });
    else
        daemon.fill();
    const double wall = visit(peer, installed_command(peer, 1), 1).cost.wall_ms;
    over = true;
    if (reads)
        daemon.wake();
    return wall;
}

void add_stuck_daemon(Rows &rows, Peer &peer) {
    Bound added = {.name = "1 request, what a daemon adds that does not read", .unit = "ms", .limit = 250};
    Samples reading;
    alternate(
        stuck_rounds,
        [&] {
            const EventSocket daemon;
            added.ours.push_back(run_installed(peer, daemon, false));
        },
        [&] {
            const EventSocket daemon;
            reading.push_back(run_installed(peer, daemon, true));
        });
    for (std::size_t i = 0; i < reading.size(); ++i)
        added.ours[i] -= reading[i];
    rows.push_back(row_of(added));
}

} // namespace

void add_log_rows(Rows &rows, Peer &peer) {
    add_threads(rows);
    add_stuck_daemon(rows, peer);
}
