// Alternate commands of an event: command lines that the event daemon carries out.
#pragma once

#include "log_local.h"

struct LogCommand {
    char line[EVENTC_MSG_LEN];
};

// Build the first `count` command lines of an event, with its text in the place of "%%MSG%%": those of the
// message catalogue, and those of the configuration. Return LOG_OK, or another code when one of them is
// missing, too long, or holds the token twice; `commands` is of no use then.
std::int32_t log_get_altexecmsg(const LOGLIB_OBJ *plogobj, std::int32_t eid, const char *text,
                                LogCommand *commands, std::size_t count);
std::int32_t log_get_altexecmsg_conf(const LOGLIB_OBJ *plogobj, std::int32_t eid, const char *text,
                                     LogCommand *commands, std::size_t count);
