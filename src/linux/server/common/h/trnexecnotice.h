// Payloads of the notice and clear requests, which share one layout, and of their responses.
#pragma once

#include "trnsv.h"

inline constexpr char ZYNEXECNOTICE_ID[] = "zynexecnotice";
inline constexpr char ZYNEXECCLEAR_ID[] = "zynexecclear";

// The request; TRNSV_MRW_IN_INFO records may follow it, but this command sends none.
struct ZYNEXEC_EXNOTICE_IN_PARAM {
    char monname[TRNSV_NAME_LEN]; // one monitor by name, or
    char target[1024];            // the keyword and
    char type[128];               // the category that select monitors
    std::int32_t monnum;          // 0 for notice, 1 for clear
    std::int32_t reserve1;
    char reserve[256];
};
static_assert(sizeof(ZYNEXEC_EXNOTICE_IN_PARAM) == 1448);
static_assert(offsetof(ZYNEXEC_EXNOTICE_IN_PARAM, target) == 32);
static_assert(offsetof(ZYNEXEC_EXNOTICE_IN_PARAM, type) == 1056);
static_assert(offsetof(ZYNEXEC_EXNOTICE_IN_PARAM, monnum) == 1184);
static_assert(offsetof(ZYNEXEC_EXNOTICE_IN_PARAM, reserve1) == 1188);
static_assert(offsetof(ZYNEXEC_EXNOTICE_IN_PARAM, reserve) == 1192);

// The response: this record, then `monnum` monitors.
struct ZYNEXEC_EXNOTICE_OUT_PARAM {
    std::int32_t monnum;
    std::int32_t reserve1;
    char reserve[256];
    TRNSV_MRW_OUT_INFO mrwres[]; // NOLINT: the monitors
};
static_assert(sizeof(ZYNEXEC_EXNOTICE_OUT_PARAM) == 264);
static_assert(offsetof(ZYNEXEC_EXNOTICE_OUT_PARAM, reserve) == 8);
static_assert(offsetof(ZYNEXEC_EXNOTICE_OUT_PARAM, mrwres) == 264);
