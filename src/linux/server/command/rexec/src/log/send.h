// The way of a record to the event daemon.
#pragma once

#include "log_local.h"

// Opens the transport that the settings of the handle ask for. Returns LOG_OK or LOG_ERR_TRANSPORT.
std::int32_t log_setup_sock(LOGLIB_OBJ *plogobj);

// Closes it; the queue stays.
void log_close_sock(LOGLIB_OBJ *plogobj);

// Puts a record in network byte order, see log_conv_byteorder, and sends it. Returns EVENTC_RECORD_LEN, 9 for
// an unknown `dest`, or -1. Waits at most 200 ms where the daemon does not read, and not at all after a
// wait that ran out, until a send succeeds again. Any thread may call it.
std::int32_t log_send_data(const LOGLIB_OBJ *plogobj, EVENTC_LOG_INFO *plogsend, std::int32_t convflag);

// The same with the result of an operation: LOG_OK or LOG_ERR_DAEMON.
std::int32_t log_send(const LOGLIB_OBJ *plogobj, EVENTC_LOG_INFO *plogsend, std::int32_t convflag = 0);

// Converts `dest` and, with `convflag` 0, the other integers of a record that travel in network order; a
// record that is sent again has them converted already. Returns 0, or 9 for an unknown `dest`.
std::int32_t log_conv_byteorder(EVENTC_LOG_INFO *preqinfo, std::int32_t convflag);
