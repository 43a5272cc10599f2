// Lines of the log, and their time stamps.
#pragma once

#include "log_local.h"

inline constexpr std::size_t LOG_DATE_LEN = 24; // the longest stamp, with its NUL

// localtime_r, which a forked child may call whatever other threads did when it was forked.
void log_local_time(time_t seconds, std::tm *local);

// Writes the time stamp of a message, of at most LOG_DATE_LEN bytes: "YYYY/MM/DD hh:mm:ss.mmm" at
// LOG_LEVEL_EVENT, else "YY/MM/DD hh:mm:ss.mmm" where `showyearflag` is 1, or without the year.
void log_cre_datestr(char *pdatestr, std::int32_t level, std::int32_t showyearflag);

// Build the line of a record: an ordinary one, and that of a performance log (kinds 3, 7 and 0x10003 to
// 0x40003). A line that is too long for the field is cut, and ends in a newline all the same.
void log_cre_localmsg(const LOGLIB_OBJ *plogobj, EVENTC_LOG_INFO *plogsend, std::int32_t level,
                      std::int32_t eid, const char *filename, std::int32_t line, const char *func,
                      const char *msg);
void log_cre_localmsg_ex(const LOGLIB_OBJ *plogobj, EVENTC_LOG_INFO *plogsend, const char *msg);

// Ends the text in a record's line field, which snprintf has cut at LOG_LINE_LEN - 1 bytes.
inline constexpr std::size_t LOG_LINE_LEN = EVENTC_MSG_LEN - 1;
void log_end_line(char *msg);

// Ends a text that snprintf has written into a field of `size` bytes, and whose length it gave: where the
// text was cut within a UTF-8 character, the bytes that are left of it become blanks.
void log_end_text(char *text, std::size_t size, int length);

// Fills in what every record says of its sender; `type` is its module type.
void log_cre_record(EVENTC_LOG_INFO *plogsend, eventc_request_type dest, const char *type);

// Strips white space from both ends, in place; at most 1023 characters are kept.
void log_cut_space(char *str);

// Writes the host name up to its first "." into `phostname` of 256 bytes. Returns 0, or 1 when it cannot
// be read.
std::int32_t zyngethostname(char *phostname);
