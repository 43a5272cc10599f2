// The configuration store's own trace, written through the log library.
#pragma once

#include <cstdint>

// Opens the trace under a name unless it is open; counts every call. `path` is the log directory or null.
void traceopen(const char *name, std::int32_t level, std::int32_t size, const char *path);

// Closes the trace whatever the count; nothing while it is closed. Waits for lines that are being written.
void traceclose();

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

// The engine's lines: messages, and entry and exit of a function.
#define XMLIN_TRACE(level, ...) trace4((level), "src/xmlin", __LINE__, __func__, __VA_ARGS__)
#define XMLIN_ENTER() trace2(16, "src/xmlin", __LINE__, __func__, "=> %s() start", __func__)
#define XMLIN_EXIT() trace2(16, "src/xmlin", __LINE__, __func__, "<= %s() end", __func__)
