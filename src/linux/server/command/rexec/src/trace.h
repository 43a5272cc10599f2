// The configuration store's own trace, written through the log library.
#pragma once

#include <atomic>
#include <cstdint>

// Opens the trace under a name unless it is open; counts every call. `path` is the log directory or null.
void traceopen(const char *name, std::int32_t level, std::int32_t size, const char *path);

// Closes the trace whatever the count; nothing while it is closed. Waits for lines that are being written.
void traceclose();

// The log handle of the trace, null while it is closed.
extern std::atomic<void *> _tracehandle;
inline bool trace_is_open() {
    return _tracehandle.load(std::memory_order_relaxed) != nullptr;
}

// Write one line at a level, indented by 0, 2 or 4; a message is cut at 1023 bytes. While the trace is
// closed nothing is formatted. Any thread may call them.
void trace(std::int32_t level, const char *file, std::int32_t line, const char *function, const char *format,
           ...) __attribute__((format(printf, 5, 6)));
void trace2(std::int32_t level, const char *file, std::int32_t line, const char *function, const char *format,
            ...) __attribute__((format(printf, 5, 6)));
void trace4(std::int32_t level, const char *file, std::int32_t line, const char *function, const char *format,
            ...) __attribute__((format(printf, 5, 6)));

// Writes one finished message: blanks up to its indent, then as much of it as fits 1024 bytes.
void traceex(std::int32_t level, const char *file, std::int32_t line, const char *function, int indent,
             const char *message);

// Calls one of them, and evaluates its arguments, only while the trace is open: a query has many lines.
#define XML_WRITE(function, ...) (trace_is_open() ? function(__VA_ARGS__) : void())

// The engine's lines: messages, and entry and exit of a function.
#define XMLIN_TRACE(level, ...) XML_WRITE(trace4, (level), "src/xmlin", __LINE__, __func__, __VA_ARGS__)
#define XMLIN_ENTER() XML_WRITE(trace2, 16, "src/xmlin", __LINE__, __func__, "=> %s() start", __func__)
#define XMLIN_EXIT() XML_WRITE(trace2, 16, "src/xmlin", __LINE__, __func__, "<= %s() end", __func__)

// The interface's lines.
#define XML_TRACE(level, ...) XML_WRITE(trace2, (level), "src/xml", __LINE__, __func__, __VA_ARGS__)
#define XML_ENTER() XML_WRITE(trace, 8, "src/xml", __LINE__, __func__, "=> %s() start", __func__)
#define XML_EXIT() XML_WRITE(trace, 8, "src/xml", __LINE__, __func__, "<= %s() end", __func__)
