// Payload of the failover request. Its response has no payload.
#pragma once

#include "trnsv.h"

inline constexpr char ZYNEXECGRPFO_EX_ID[] = "zynexecgrpfo_ex";

struct ZYNEXECGRPFO_EX_IN_PARAM {
    char rscname[TRNSV_NAME_LEN]; // fail over the group that holds this resource, or
    char grpname[TRNSV_NAME_LEN]; // fail over this group; the other of the two is empty
    std::int32_t timeout;         // seconds
    std::int32_t reserv1;
    char reserv[256];
};
static_assert(sizeof(ZYNEXECGRPFO_EX_IN_PARAM) == 328);
static_assert(offsetof(ZYNEXECGRPFO_EX_IN_PARAM, grpname) == 32);
static_assert(offsetof(ZYNEXECGRPFO_EX_IN_PARAM, timeout) == 64);
static_assert(offsetof(ZYNEXECGRPFO_EX_IN_PARAM, reserv1) == 68);
static_assert(offsetof(ZYNEXECGRPFO_EX_IN_PARAM, reserv) == 72);
