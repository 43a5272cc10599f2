// The groups of rows, each measured by a function of its own. They throw std::runtime_error when a
// client did not do its work, for then its figures mean nothing.
#pragma once

#include "peer.h"
#include "process.h"
#include "table.h"

#include <chrono>

using Rows = std::vector<Row>;

// One run of a client against the peer.
struct Run {
    Cost cost;
    double span_ms = 0;    // from the peer's first accept to its last farewell answered
    long resident_kib = 0; // peak until all servers were waiting; 0 without a delay
};

// Runs `words`, which has to carry its request to `width` servers that each answer after `delay`.
// A client that prints has to print as many successes.
Run visit(Peer &peer, const std::vector<std::string> &words, std::size_t width,
          std::chrono::milliseconds delay = std::chrono::milliseconds{0});

std::vector<std::string> command(const Peer &peer, std::size_t width);
std::vector<std::string> installed_command(const Peer &peer, std::size_t width);
std::vector<std::string> fanout(const Peer &peer, std::size_t width);
std::vector<std::string> bare_client(const Peer &peer, std::size_t width);

// Calls one of two after the other, each first in every second round, so that a drift of the machine
// weighs on both.
template <typename First, typename Second>
void alternate(int rounds, First first, Second second) {
    for (int i = 0; i < rounds; ++i) {
        if (i % 2 == 0)
            first();
        second();
        if (i % 2 != 0)
            first();
    }
}

void add_start_rows(Rows &rows, Peer &peer);   // the program's start, one request, one pass
void add_fanout_rows(Rows &rows, Peer &peer);  // many servers at once
void add_waiting_rows(Rows &rows, Peer &peer); // processor time and memory while servers are slow
void add_log_rows(Rows &rows, Peer &peer);     // the log library and its daemon
void add_micro_rows(Rows &rows);               // single functions
