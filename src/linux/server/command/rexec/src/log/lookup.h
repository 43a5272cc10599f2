// What is known of an event before it is sent: its text, its level and its destinations.
#pragma once

#include "log_local.h"

inline constexpr std::size_t LOG_SENDTO_MAX = 8;
inline constexpr std::size_t LOG_SENDTO_LEN = 24; // 23 characters kept

struct LogEvent {
    std::int32_t eid = 0;
    std::int32_t loglevel = 6;    // syslog severity; 6, information, where nothing says another
    char syslevel[2] = "";        // tag of the level, one letter
    char text[513] = "";          // printf format, 512 characters kept
    std::size_t destinations = 0; // in sendto, in the order of sending
    char sendto[LOG_SENDTO_MAX][LOG_SENDTO_LEN] = {};
    std::size_t commands = 0; // alternate command lines
    bool configured = false;  // destinations and commands are those of the configuration
};

// Looks an event up in the catalogue of its module. Returns LOG_OK, LOG_ERR_CATALOGUE, LOG_ERR_EVENT,
// LOG_ERR_CONFIG, LOG_ERR_POLICY or LOG_ERR_TEXT.
std::int32_t log_get_eventfile(const LOGLIB_OBJ *plogobj, std::int32_t eid, LogEvent *event);

// The same, but with the destinations and commands that the configuration gives for this event; of those in
// the catalogue only "uptime" is taken. Returns LOG_ERR_UNSET where the configuration gives none.
std::int32_t log_get_sendinfo(const LOGLIB_OBJ *plogobj, std::int32_t eid, LogEvent *event);
