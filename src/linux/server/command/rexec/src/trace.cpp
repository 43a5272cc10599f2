// The configuration store's own trace.
#include "trace.h"

#include "cancel.h"
#include "log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <shared_mutex>

std::atomic<void *> _tracehandle{nullptr};

namespace {

constexpr std::size_t line_size = 1024;

std::atomic<int> _traceinit{0}; // calls of traceopen since the trace was opened
std::shared_mutex writers;      // shared while a line is written, so that no handle is freed under its writer

void format_line(std::int32_t level, const char *file, std::int32_t line, const char *function, int indent,
                 const char *format, va_list arguments) {
    char message[line_size];
    std::vsnprintf(message, sizeof(message), format, arguments);
    traceex(level, file, line, function, indent, message);
}

} // namespace

void traceopen(const char *name, std::int32_t level, std::int32_t size, const char *path) {
    if (!trace_is_open()) {
        void *handle = nullptr;
        log_init(name, &handle, level, size, path);
        _tracehandle = handle;
    }
    ++_traceinit;
}

void traceclose() {
    std::unique_lock lock(writers);
    void *handle = _tracehandle.exchange(nullptr);
    lock.unlock();
    if (handle == nullptr)
        return;
    log_term(handle);
    _traceinit = 0;
}

void traceex(std::int32_t level, const char *file, std::int32_t line, const char *function, int indent,
             const char *message) {
    if (!trace_is_open())
        return;
    const CancelDisabled whole; // a line is whole or absent
    const std::shared_lock lock(writers);
    void *handle = _tracehandle;
    if (handle == nullptr)
        return;
    char text[line_size + 1];
    std::memset(text, ' ', line_size);
    const auto start = static_cast<std::size_t>(std::max(indent - 1, 0));
    const std::size_t room = line_size - static_cast<std::size_t>(std::max(indent, 0));
    const std::size_t length = strnlen(message, room);
    std::memcpy(text + start, message, length);
    text[start + length] = '\0';
    log_write_text(handle, level, file, line, function, text);
}

void trace(std::int32_t level, const char *file, std::int32_t line, const char *function, const char *format,
           ...) {
    if (!trace_is_open())
        return;
    va_list arguments;
    va_start(arguments, format);
    format_line(level, file, line, function, 0, format, arguments);
    va_end(arguments);
}

void trace2(std::int32_t level, const char *file, std::int32_t line, const char *function, const char *format,
            ...) {
    if (!trace_is_open())
        return;
    va_list arguments;
    va_start(arguments, format);
    format_line(level, file, line, function, 2, format, arguments);
    va_end(arguments);
}

void trace4(std::int32_t level, const char *file, std::int32_t line, const char *function, const char *format,
            ...) {
    if (!trace_is_open())
        return;
    va_list arguments;
    va_start(arguments, format);
    format_line(level, file, line, function, 4, format, arguments);
    va_end(arguments);
}
