// Events: what the message catalogue says about them, and where they go.
#pragma once

#include "log_local.h"

#include <cstdarg>

// Looks an event up, formats its text with the arguments, and sends it to every destination. Returns LOG_OK;
// what the look-up failed with, then nothing is sent; LOG_ERR_DAEMON where one destination failed, the others
// have been tried; or LOG_ERR_MEMORY. Any thread may call it.
std::int32_t log_write_event(const LOGLIB_OBJ *plogobj, std::int32_t eid, va_list arguments);
