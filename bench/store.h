// Look-ups in a configuration of 1,000 elements, in 200 sections; the key lies four steps deep.
#pragma once

#include <benchmark/benchmark.h>

void query_first(benchmark::State &state); // in the first section
void query(benchmark::State &state);       // in the middle one
void query_last(benchmark::State &state);
void query_xpath(benchmark::State &state); // compiled, in the middle section
void query_bare(benchmark::State &state);  // the least walk under a lock, in the middle section

// Heap allocations of one query.
int query_allocations();
