// The log library: every module hands its messages to the cluster's event daemon through it.
#pragma once

#include <cstdint>

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

// Result codes of the three operations.
enum : std::int32_t {
    LOG_OK = 0,
    LOG_ERR_PARAMETER = 2,  // empty module type or null handle
    LOG_ERR_MEMORY = 3,     // out of memory
    LOG_ERR_NOHANDLE = 5,   // null handle pointer given to log_init
    LOG_ERR_LEVEL = 8,      // the message is above the level and was not written
    LOG_ERR_INSTALL = 9,    // the install directory is unknown
    LOG_ERR_TRANSPORT = 11, // the transport could not be opened
    LOG_ERR_DAEMON = 12,    // the daemon could not be reached
    LOG_ERR_CONFIG = 15,    // the configuration library could not start
    LOG_ERR_POLICY = 17,    // a policy could not be loaded
};

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
//   fmt, ...              a printf-style message
// Returns LOG_OK, LOG_ERR_LEVEL, or the code of what failed. Any thread may call it.
std::int32_t log_write(void *phandle, std::int32_t level, std::int32_t eid, const char *filename,
                       std::int32_t line, const char *func, const char *fmt, ...)
    __attribute__((format(printf, 7, 8)));

// Announces the module's end to the event daemon and frees the handle.
// Returns LOG_OK, or LOG_ERR_PARAMETER for a null handle.
std::int32_t log_term(void *phandle);
