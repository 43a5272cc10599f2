// The trace of the command and of its transfer client: one line to the log library and, when the
// user asked for it, to the user log file.
#pragma once

#include "log.h"
#include "rexec.h"

#include <cstdint>

// Writes one line to _rexec_ploghandle and to _rexec_pusrlogfd, whichever is set; nothing when
// neither is. A message is cut at 4095 bytes. `level` is 1 error, 2 warning, 4 information, 8 trace
// or 16 detail; every level reaches the user log file. Never a cancellation point: a line is whole
// or absent, and its locks are given back. Any thread may call it.
void rexeccllog(std::int32_t level, const char *source_file, std::int32_t line, const char *function,
                const char *format, ...) __attribute__((format(printf, 5, 6)));

// Whether a trace line would be written anywhere; for arguments that cost something to make.
bool rexeccl_tracing();

// The macros know file, line and function of their caller; each source names itself by its module.
#define REXECCL_TRACE(level, ...) rexeccllog((level), "src/rexeccl", __LINE__, __func__, __VA_ARGS__)
#define REXEC_TRACE(level, ...) rexeccllog((level), "src/rexec", __LINE__, __func__, __VA_ARGS__)

// Entry and exit of a function of the command.
#define REXEC_ENTER() REXEC_TRACE(8, "<<< ENTER >>>")
#define REXEC_EXIT(result) REXEC_TRACE(8, "<<< EXIT >>> : %d", (result))
