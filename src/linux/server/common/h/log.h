// The log library: every module hands its messages to the cluster's event daemon through it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <type_traits>

// Levels of a message. A message is kept when its level is not above the level of the handle.
enum : std::int32_t {
    LOG_LEVEL_ERROR = 1,
    LOG_LEVEL_WARNING = 2,
    LOG_LEVEL_INFO = 4,
    LOG_LEVEL_TRACE = 8,
    LOG_LEVEL_DETAIL = 16,
    LOG_LEVEL_FINE = 32,
    LOG_LEVEL_EVENT = 32768, // a catalogue message, never filtered by the level
};

inline constexpr std::int32_t LOG_DEFAULT_LEVEL = 4;
inline constexpr std::int32_t LOG_DEFAULT_SIZE = 1000000; // bytes

// Result codes.
enum : std::int32_t {
    LOG_OK = 0,
    LOG_ERR_PARAMETER = 2,  // empty module type or null handle
    LOG_ERR_MEMORY = 3,     // out of memory
    LOG_ERR_NOHANDLE = 5,   // null handle pointer given to log_init
    LOG_ERR_LEVEL = 8,      // the message is above the level and was not written
    LOG_ERR_INSTALL = 9,    // the install directory is unknown
    LOG_ERR_TRANSPORT = 11, // the transport could not be opened
    LOG_ERR_DAEMON = 12,    // the daemon could not be reached
    LOG_ERR_CATALOGUE = 13, // the message catalogue could not be opened
    LOG_ERR_EVENT = 14,     // the message catalogue does not have the event
    LOG_ERR_CONFIG = 15,    // the configuration library could not start
    LOG_ERR_POLICY = 17,    // a policy could not be loaded
    LOG_ERR_UNSET = 21,     // the event has no settings of its own; stays inside the library
    LOG_ERR_LOGTYPE = 22,   // unknown kind of utility log
    LOG_ERR_HSIZE = 23,     // header size outside 0 to 1024
    LOG_ERR_PATH = 24,      // the path of a utility log is too long
    LOG_ERR_TEXT = 25,      // the text of the event cannot be formatted safely
    LOG_ERR_COMMAND = 26,   // a command line could not be built; stays inside the library
};

// Held while a handle is opened or closed. The configuration store takes it before its own mutexes, because
// it opens its trace through this library, which in turn reads its settings from the store: one order for
// both, and recursive for the calls that come back. A child that is forked while another thread is inside
// log_init or log_term finds it, and the locks taken under it, held for ever: fork before such threads start,
// or open and end no log of any kind in the child, nor call the configuration store, nor write an event
// (which reads it).
extern std::recursive_mutex loglibmutex;

// Opens a log handle for one module and announces the module to the event daemon.
//   modtype   module type name, at most 31 characters kept
//   pphandle  receives the handle; the caller ends it with log_term
//   level     threshold; 0 takes the configured default, -1 writes nothing, below -1 opens no handle
//   size      bytes that the daemon keeps for the module; 0 and below take the configured default
//   path      log directory, or null
// Returns LOG_OK or a LOG_ERR_* code; on failure *pphandle is null. Any thread may call it.
std::int32_t log_init(const char *modtype, void **pphandle, std::int32_t level, std::int32_t size,
                      const char *path);

// Writes one message.
//   eid                   event number, used at LOG_LEVEL_EVENT only
//   filename, line, func  the caller's source position; the two texts may be null
//   fmt, ...              a printf-style message. At LOG_LEVEL_EVENT the text is the catalogue's and the
//                         arguments have to fit that; fmt is not looked at
// Returns LOG_OK, LOG_ERR_LEVEL, or the code of what failed. Any thread may call it.
std::int32_t log_write(void *phandle, std::int32_t level, std::int32_t eid, const char *filename,
                       std::int32_t line, const char *func, const char *fmt, ...)
    __attribute__((format(printf, 7, 8)));

// Announces the module's end to the event daemon and frees the handle.
// Returns LOG_OK, LOG_ERR_PARAMETER for a null handle, or LOG_ERR_DAEMON where it could not be announced; the
// handle is freed all the same.
std::int32_t log_term(void *phandle);

// Utility and performance logs: comma-separated lines of resident modules, which the event daemon keeps in
// files of their own. Kinds:
enum : std::int32_t {
    LOG_TYPE_UTIL = 3,            // "\"DATE\",TEXT"
    LOG_TYPE_UTIL_TEXT = 7,       // "DATE[PID] TEXT"
    LOG_TYPE_GROUP = 0x10003,     // performance logs: one line an action of a group
    LOG_TYPE_RESOURCE = 0x20003,  // ... of a resource
    LOG_TYPE_MONITOR = 0x30003,   // ... of a monitor; its response times go to the metrics collector, too
    LOG_TYPE_HEARTBEAT = 0x40003, // one line an interval of a heartbeat
};

// Opens such a log and announces it to the event daemon.
//   modtype      module type name, at most 31 characters. A performance log takes it for its file, and
//                "MODTYPE_perf", at most 31 characters kept, for its module type
//   pphandle     receives the handle; the caller ends it with log_util_term
//   level, path  as for log_init, path at most 1009 characters
//   fsize        bytes of a file; 0 and below take the configured default
//   rotate       files kept
//   hsize        bytes of `header`, its NUL included, 0 to 1024; 0 for none
//   header       first line of each file, without a line end, or null
// Returns LOG_OK, LOG_ERR_PARAMETER, LOG_ERR_LOGTYPE, LOG_ERR_HSIZE, LOG_ERR_PATH or a code of log_init; on
// failure *pphandle is null. Any thread may call it.
std::int32_t log_util_init(const char *modtype, void **pphandle, std::int32_t logtype, std::int32_t level,
                           std::int32_t fsize, std::int32_t rotate, std::int32_t hsize, const char *header,
                           const char *path);

// Writes one line of at most 511 bytes with its time stamp; what is longer is cut. The log of heartbeats
// writes nothing while their collection is switched off. Returns LOG_OK, LOG_ERR_PARAMETER for a null handle,
// or LOG_ERR_DAEMON. Any thread may call it.
std::int32_t log_util_write(void *phandle, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// Announces the log's end to the event daemon and frees the handle. Returns as log_term.
std::int32_t log_util_term(void *phandle);

// Where the ticks of a measurement come from.
enum : std::int32_t {
    LOG_TICK_CLOCK = 0,  // xmllib_times, now
    LOG_TICK_CALLER = 1, // the caller's own reading of that clock
    LOG_TICK_NONE = 2,   // not measured
};
inline constexpr std::int32_t LOG_RETCODE_NONE = 0x7fffffff; // the action has no return code

// A measurement between its start and its end, the caller's.
struct log_perf_info {
    std::int32_t ms_start;    // milliseconds of the start time
    std::uint64_t tick_start; // clock ticks
    std::int32_t perfself;    // 0
    std::tm tm_start;         // local time
};

// Opens a performance log (LOG_TYPE_GROUP to LOG_TYPE_HEARTBEAT) with size, rotation, switch and header of
// its kind, and for monitors the metrics emitter, where that is configured; without it the log works all the
// same. Returns LOG_ERR_PARAMETER for another kind, or as log_util_init. Ended with log_util_perf_term.
std::int32_t log_util_perf_init(void **pphandle, const char *modtype, std::int32_t logtype);

// Notes the start of an action, `tickuse` telling whether from the clock or from `tickstart`, ticks. Returns
// LOG_OK, or LOG_ERR_PARAMETER for a null record.
std::int32_t log_util_perf_start(log_perf_info *perfinfo, std::int32_t tickuse, std::uint64_t tickstart);

// Notes its end: writes a line, where collection is switched on, and hands the response time in milliseconds
// to the metrics emitter. An end before its start, or a clock that could not be read, counts as 0 ms. Quotes
// in the three texts are doubled, line ends become blanks, and texts that do not fit the line are cut.
//   name, action, result  NUL-terminated
//   retcode               LOG_RETCODE_NONE for none
//   tickuse, tickend      as at the start; with LOG_TICK_NONE times stay empty, and the emitter gets nothing
// Returns as log_util_write; a metric that could not be sent is no failure. Any thread may call it, also with
// one handle at the same time.
std::int32_t log_util_perf_end(void *phandle, const log_perf_info *perfinfo, const char *name,
                               const char *action, const char *result, std::int32_t retcode,
                               std::int32_t tickuse, std::uint64_t tickend);

// Ends the emitter and the log. Returns as log_term.
std::int32_t log_util_perf_term(void *phandle);

// Copies a finished text into `doubled` of `size` bytes and doubles each per cent sign that is not half of
// a "%%", for callers that hand finished text to log_write as its format: no conversion is left in it.
// Cuts what does not fit; twice the size of the text holds any.
inline void log_double_percent(const char *text, char *doubled, std::size_t size) {
    std::size_t at = 0;
    while (*text != '\0') {
        const bool sign = *text == '%';
        if (at + (sign ? 2 : 1) >= size)
            break;
        doubled[at++] = *text;
        if (sign) {
            doubled[at++] = '%';
            if (text[1] == '%')
                ++text;
        }
        ++text;
    }
    doubled[at] = '\0';
}

// Writes a finished text of at most 4095 bytes as one message, through log_write's format argument. The
// one place where a format is data: no conversion is left in it.
inline std::int32_t log_write_text(void *phandle, std::int32_t level, const char *filename, std::int32_t line,
                                   const char *func, const char *text) {
    char doubled[2 * 4096];
    log_double_percent(text, doubled, sizeof(doubled));
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    return log_write(phandle, level, 0, filename, line, func, doubled);
#pragma GCC diagnostic pop
}

// The low 32 bits of a pointer or a thread id, for texts that print it with %#x.
template <typename T>
unsigned int log_low32(T value) {
    if constexpr (std::is_pointer_v<T>)
        return static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(value));
    else
        return static_cast<unsigned int>(value);
}
