// Handles of the log library, from their opening to their end. Codes are those of log.h.
#pragma once

#include "log_local.h"

#include <memory>

// Gives the socket of a handle back, too.
struct LogHandleClose {
    void operator()(LOGLIB_OBJ *plogobj) const;
};
using LogHandle = std::unique_ptr<LOGLIB_OBJ, LogHandleClose>;

// A handle that is not open yet; null without memory.
LogHandle log_new_handle();

// Reads the settings, opens the transport and announces the log to the daemon, with what the handle holds of
// its kind already. Arguments as for log_init, with `modtype` not empty. The caller holds loglibmutex.
// Returns LOG_OK, LOG_ERR_CONFIG, LOG_ERR_POLICY, LOG_ERR_INSTALL, LOG_ERR_TRANSPORT or LOG_ERR_DAEMON.
std::int32_t log_open_handle(LOGLIB_OBJ *plogobj, const char *modtype, std::int32_t level, std::int32_t size,
                             const char *path, std::int32_t startendmsgflag);

// Sends an INITIALIZE record; `startendmsgflag` 1 lets the daemon note the module's start. Returns LOG_OK or
// LOG_ERR_DAEMON.
std::int32_t log_announce(const LOGLIB_OBJ *plogobj, const char *type, std::int32_t level, std::int32_t size,
                          std::int32_t startendmsgflag);

// Announces the end of the log, which may have failed, and frees the handle in any case. The caller holds
// loglibmutex. Returns LOG_OK or LOG_ERR_DAEMON.
std::int32_t log_end_handle(LOGLIB_OBJ *plogobj);
