// What the log library reads from the configuration store. Codes are those of log.h.
#pragma once

#include "log_local.h"

// Reads the settings of a handle, and on success sets nologflag and altsendflag for the whole process.
// Returns LOG_OK, LOG_ERR_CONFIG, LOG_ERR_POLICY (also when the key of the queue cannot be made) or
// LOG_ERR_INSTALL.
std::int32_t log_get_config(LOGLIB_INFO *info);

// Fills in the fixed settings of the store's own trace, which must not read the store. Returns LOG_OK or
// LOG_ERR_INSTALL.
std::int32_t log_get_fixed(LOGLIB_INFO *info);

// Makes the key file of the event daemon's queue, with its directory, where it does not exist; both are file
// system modes. Returns the System V key, 0 on failure.
std::int32_t log_cre_msqkey(const char *keydir, const char *keyfile, std::int32_t dirmode,
                            std::int32_t filemode);
