// What all programs of the benchmark agree on: the addresses of the servers and the one request.
#pragma once

#include "trans.h"

#include <cstddef>
#include <cstdio>

inline constexpr std::size_t targets_max = 1024;
inline constexpr char bench_script[] = "run.sh";
inline constexpr int bench_timeout = 30;     // seconds, above the longest delay of the peer
inline constexpr unsigned client_limit = 60; // seconds; a client that hangs is ended then

struct TargetText {
    explicit TargetText(std::size_t index) {
        std::snprintf(text, sizeof(text), "127.77.%zu.%zu", 1 + index / 250, 1 + index % 250);
    }
    char text[TRANS_IP_LEN];
};
