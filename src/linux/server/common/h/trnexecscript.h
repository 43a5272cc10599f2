// Payloads of the script request and of its response.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr char ZYNEXECSCRIPT_EX_ID[] = "zynexecscript_ex";

struct ZYNEXECSCRIPT_EX_IN_PARAM {
    char script[256];     // a bare file name
    std::int32_t timeout; // seconds
    std::int32_t reserve1;
    char reserve[256];
};
static_assert(sizeof(ZYNEXECSCRIPT_EX_IN_PARAM) == 520);
static_assert(offsetof(ZYNEXECSCRIPT_EX_IN_PARAM, timeout) == 256);
static_assert(offsetof(ZYNEXECSCRIPT_EX_IN_PARAM, reserve1) == 260);
static_assert(offsetof(ZYNEXECSCRIPT_EX_IN_PARAM, reserve) == 264);

struct ZYNEXECSCRIPT_EX_OUT_PARAM {
    std::int32_t sreturn; // the script's exit code
    std::int32_t reserv1;
    char reserv[256];
};
static_assert(sizeof(ZYNEXECSCRIPT_EX_OUT_PARAM) == 264);
static_assert(offsetof(ZYNEXECSCRIPT_EX_OUT_PARAM, reserv) == 8);
