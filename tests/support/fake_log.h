// Stands in for the log library in a test program: keeps what it is given. Like the library it opens and
// closes with calls that a cancelled thread ends in, and its handles live until they are closed. Included by
// one source.
#pragma once

#include "log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include <pthread.h>

// "open type level size", "level|indented text" and "close", as the log library was called.
inline std::vector<std::string> traced;
inline std::mutex traced_mutex;

std::recursive_mutex loglibmutex;

inline void keep(const std::string &line) {
    const std::lock_guard lock(traced_mutex);
    traced.push_back(line);
}

std::int32_t log_init(const char *modtype, void **handle, std::int32_t level, std::int32_t size,
                      const char *) {
    pthread_testcancel();
    const std::lock_guard library(loglibmutex);
    keep(std::string("open ") + modtype + " " + std::to_string(level) + " " + std::to_string(size));
    *handle = new std::int32_t{LOG_OK};
    return LOG_OK;
}
std::int32_t log_term(void *handle) {
    pthread_testcancel();
    delete static_cast<std::int32_t *>(handle);
    const std::lock_guard library(loglibmutex);
    keep("close");
    return LOG_OK;
}
std::int32_t log_write(void *handle, std::int32_t level, std::int32_t, const char *, std::int32_t,
                       const char *, const char *format, ...) {
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    keep(std::to_string(level) + "|" + text);
    return *static_cast<std::int32_t *>(handle);
}

inline long count_traced(const std::string &line) {
    return std::count(traced.begin(), traced.end(), line);
}
inline long count_traced_starting(const std::string &start) {
    return std::count_if(traced.begin(), traced.end(),
                         [&](const std::string &line) { return line.starts_with(start); });
}
