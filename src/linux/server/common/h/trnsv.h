// Records of the data transfer server that several requests share: one monitor of a notice or
// clear request, and what the server did about it.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr std::size_t TRNSV_NAME_LEN = 32; // group, resource and monitor names, with NUL

// How a monitor recovers.
enum : std::int32_t {
    TRANS_ACTTYPE_RESTART = 0,
    TRANS_ACTTYPE_FAILOVER = 1,
    TRANS_ACTTYPE_OTHER = 2, // the final action that `action` names
    TRANS_ACTTYPE_SCRIPT = 3,
};

// One monitor named in a request; this command sends none.
struct TRNSV_MRW_IN_INFO {
    char name[TRNSV_NAME_LEN];
    char reserve[256];
};
static_assert(sizeof(TRNSV_MRW_IN_INFO) == 288);

// One monitor acted on, in a response.
struct TRNSV_MRW_OUT_INFO {
    char name[TRNSV_NAME_LEN];
    std::int32_t acttype; // TRANS_ACTTYPE_*
    std::int32_t action;  // which final action, for TRANS_ACTTYPE_OTHER
    std::int32_t result;  // TRANS_RES_STAT_* of the recovery action
    std::int32_t sresult; // TRANS_RES_STAT_* of the script that runs before it
    std::int32_t sreturn; // exit code of that script
    std::int32_t reserve1;
    char reserve[256];
};
static_assert(sizeof(TRNSV_MRW_OUT_INFO) == 312);
static_assert(offsetof(TRNSV_MRW_OUT_INFO, acttype) == 32);
static_assert(offsetof(TRNSV_MRW_OUT_INFO, action) == 36);
static_assert(offsetof(TRNSV_MRW_OUT_INFO, result) == 40);
static_assert(offsetof(TRNSV_MRW_OUT_INFO, sresult) == 44);
static_assert(offsetof(TRNSV_MRW_OUT_INFO, sreturn) == 48);
static_assert(offsetof(TRNSV_MRW_OUT_INFO, reserve) == 56);
