// Stands in for the log library in a test program: keeps what it is given. Included by one source.
#pragma once

#include "log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

// "level|indented text" of each line the log library was given.
inline std::vector<std::string> traced;

std::recursive_mutex loglibmutex;

std::int32_t log_init(const char *, void **handle, std::int32_t, std::int32_t, const char *) {
    *handle = &traced;
    return LOG_OK;
}
std::int32_t log_term(void *) {
    return LOG_OK;
}
std::int32_t log_write(void *, std::int32_t level, std::int32_t, const char *, std::int32_t, const char *,
                       const char *format, ...) {
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    traced.push_back(std::to_string(level) + "|" + text);
    return LOG_OK;
}

inline long count_traced(const std::string &line) {
    return std::count(traced.begin(), traced.end(), line);
}
