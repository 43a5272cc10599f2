// zynbench: measures the command and prints one table. Takes no argument; a missed target is a row of
// the table and no failure of the program.
#include "rows.h"

#include "targets.h"

#include <cstdio>
#include <cstdlib>
#include <exception>

#include <sys/resource.h>
#include <unistd.h>

namespace {

// A listener and a connection a server here, a connection a server in the clients, which inherit it.
constexpr rlim_t descriptors_needed = 2 * targets_max + 100;

bool raise_descriptor_limit() {
    struct rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return false;
    limit.rlim_cur = limit.rlim_max;
    return setrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur >= descriptors_needed;
}

double load() {
    double average = -1;
    return getloadavg(&average, 1) == 1 ? average : -1;
}

void measure() {
    Rows rows;
    Peer peer(targets_max);
    const double load_before = load();
    std::fprintf(stderr, "Start and single requests\n");
    add_start_rows(rows, peer);
    std::fprintf(stderr, "Fan-out\n");
    add_fanout_rows(rows, peer);
    std::fprintf(stderr, "Slow servers\n");
    add_waiting_rows(rows, peer);
    std::fprintf(stderr, "Log\n");
    add_log_rows(rows, peer);
    std::fprintf(stderr, "Single functions\n");
    add_micro_rows(rows);
    std::fprintf(stderr, "\n");
    print(rows);
    std::printf("%ld processors, load average %.2f before\n", sysconf(_SC_NPROCESSORS_ONLN), load_before);
}

} // namespace

int main() {
    if (!raise_descriptor_limit()) {
        std::fprintf(stderr, "zynbench needs %lu open descriptors\n",
                     static_cast<unsigned long>(descriptors_needed));
        return 1;
    }
    try {
        measure();
    } catch (const std::exception &error) {
        std::fprintf(stderr, "zynbench: %s\n", error.what());
        return 1;
    }
    return 0;
}
