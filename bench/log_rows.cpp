// The log library under load, and runs of the command whose event daemon does not read, or slowly.
#include "rows.h"

#include "event_socket.h"
#include "log_bench.h"

#include <atomic>
#include <thread>

#include <sys/socket.h>

namespace {

using std::chrono::milliseconds;

constexpr int thread_rounds = 10;
constexpr int messages = 2000; // of each thread
constexpr int stuck_rounds = 10;

constexpr std::size_t slow_targets = 32;
constexpr int slow_rounds = 5;
// Half a second of waits, a last one that began within it (at most 200 ms), and one pass of the driver.
constexpr double slow_limit_ms = 500 + 200 + 100;

void add_threads(Rows &rows) {
    Comparison time = {
        .name = "8 threads, 2000 messages each", .unit = "ms", .other = "bare sendto", .limit = 1 / 0.8};
    alternate(
        thread_rounds, [&] { time.ours.push_back(log_threads_ms(messages)); },
        [&] { time.others.push_back(log_threads_bare_ms(messages)); });
    rows.push_back(row_of(time));
}

double run_installed(Peer &peer, std::size_t targets) {
    return visit(peer, installed_command(peer, targets), targets).cost.wall_ms;
}

// The same beside a daemon that pauses after each record.
double run_beside(Peer &peer, std::size_t targets, milliseconds pause) {
    const EventSocket daemon;
    std::atomic<bool> over{false};
    const std::jthread reader([&] {
        while (!over) {
            daemon.take();
            std::this_thread::sleep_for(pause);
        }
    });
    const double wall = run_installed(peer, targets);
    over = true;
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
            daemon.fill();
            added.ours.push_back(run_installed(peer, 1));
        },
        [&] { reading.push_back(run_beside(peer, 1, milliseconds{0})); });
    for (std::size_t i = 0; i < reading.size(); ++i)
        added.ours[i] -= reading[i];
    rows.push_back(row_of(added));
}

void add_slow_daemon(Rows &rows, Peer &peer, milliseconds pause) {
    Bound added = {.name =
                       "32 servers, what a daemon adds at " + std::to_string(pause.count()) + " ms a record",
                   .unit = "ms",
                   .limit = slow_limit_ms};
    Samples alone;
    alternate(
        slow_rounds, [&] { added.ours.push_back(run_beside(peer, slow_targets, pause)); },
        [&] { alone.push_back(run_installed(peer, slow_targets)); });
    for (std::size_t i = 0; i < alone.size(); ++i)
        added.ours[i] -= alone[i];
    rows.push_back(row_of(added));
}

} // namespace

void add_log_rows(Rows &rows, Peer &peer) {
    add_threads(rows);
    add_stuck_daemon(rows, peer);
    add_slow_daemon(rows, peer, milliseconds{20});
    add_slow_daemon(rows, peer, milliseconds{150});
}
