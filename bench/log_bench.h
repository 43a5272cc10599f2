// Messages to an event daemon that reads, in place of which a thread takes them off the installation's
// socket.
#pragma once

#include <benchmark/benchmark.h>

void log_kept(benchmark::State &state);
void log_kept_bare(benchmark::State &state);  // sendto of a record to the same socket
void log_suppressed(benchmark::State &state); // above the level, with every entry of the level table used

// Milliseconds that 8 threads need for so many messages each, through log_write or bare.
double log_threads_ms(int messages);
double log_threads_bare_ms(int messages);
