// Measured values to a collector that reads, in place of which a thread takes them off a port of this host.
#pragma once

#include <benchmark/benchmark.h>

void statsd_plain(benchmark::State &state);      // without tags
void statsd_plain_bare(benchmark::State &state); // sendto of the same datagram to the same port
void statsd_tags(benchmark::State &state);       // with four tags
void statsd_tags_bare(benchmark::State &state);
void statsd_suppressed(benchmark::State &state); // left out by its sampling rate of 0
void statsd_off(benchmark::State &state);        // with metrics switched off
