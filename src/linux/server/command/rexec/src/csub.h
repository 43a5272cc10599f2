// Small utilities that the transfer client shares with other modules of the cluster.
#pragma once

#include "log.h"

#include <cstdint>

enum : std::int32_t {
    CSUB_OK = 0,
    CSUB_FAIL = 6,
};

// Reads the local host name into `buffer` of `length` bytes, cleared first. With `suffix` 1 the name
// is cut at its first "." (not when the dot comes first), with 0 it is whole. Traces through
// `log_handle`, which may be null. Returns CSUB_OK, or CSUB_FAIL for a bad argument or a failing call.
std::int32_t cs_gethostname(char *buffer, std::int32_t length, std::int32_t suffix, void *log_handle);

// Writes the decimal text of `value` into `buffer` of `length` bytes, cleared first. Returns CSUB_OK,
// or CSUB_FAIL when sign, digits and the terminating NUL do not fit. Traces as cs_gethostname does.
std::int32_t cs_itoasc(std::int32_t value, std::int32_t length, char *buffer, void *log_handle);

// Writes one line through the variable `log_handle` of the calling function, under the name of the
// utility. Only a handle that is open costs the arguments their formatting.
#define CS_TRACE(name, level, ...)                                                                           \
    do {                                                                                                     \
        if (log_handle != nullptr)                                                                           \
            log_write(log_handle, (level), 0, "src/" name, __LINE__, name, __VA_ARGS__);                     \
    } while (false)
