// The shared log-level table: the event daemon writes the level and size of each module type into a System V
// shared memory segment, and every process that logs reads its own before each message.
#pragma once

#include <cstddef>
#include <cstdint>

enum : std::int32_t {
    SHMLOG_OK = 0,
    SHMLOG_ERR_NOTINIT = 1,   // not attached
    SHMLOG_ERR_PARAMETER = 2, // null argument, or a value out of range
    SHMLOG_ERR_NOSPACE = 3,   // every entry is used
    SHMLOG_ERR_NOTFOUND = 4,  // the type has no entry
    SHMLOG_ERR_KEY = 5,       // ftok failed
    SHMLOG_ERR_GET = 6,       // no segment of this size
    SHMLOG_ERR_ATTACH = 7,    // shmat failed
    SHMLOG_ERR_LOCK = 10,     // the mutex cannot be taken
    SHMLOG_ERR_KEYFILE = 11,  // the key file could not be made
};

inline constexpr std::int32_t SHMLOG_TYPE_MAX = 256; // entries

struct shm_log_info {
    char type[32];        // module type, 31 characters kept; empty: the entry is free
    std::int32_t level;   // threshold, -1: nothing is written
    std::int32_t size;    // bytes that the daemon keeps
    std::int32_t logtype; // kind of log
};

struct shm_log {
    std::int32_t maxtype; // entries, 256
    std::int32_t curtype; // used ones
    shm_log_info loginfo[SHMLOG_TYPE_MAX];
};
static_assert(sizeof(shm_log_info) == 44 && offsetof(shm_log_info, level) == 32 &&
              offsetof(shm_log_info, size) == 36 && offsetof(shm_log_info, logtype) == 40);
static_assert(sizeof(shm_log) == 11272 && offsetof(shm_log, curtype) == 4 && offsetof(shm_log, loginfo) == 8);

// Attaches the table of an installation, or counts one more user. `hlog` is a log handle for the table's own
// diagnostics, or null; `eventpath` is not used. Returns SHMLOG_OK or a SHMLOG_ERR_* code.
std::int32_t shmlog_attach(void *hlog, const char *instpath, const char *eventpath);
// Gives one use back; the last one detaches. Waits for readers that are in the table.
std::int32_t shmlog_detach();

// Reads the entry of a type; what is not found leaves the outputs alone. Takes no lock: any thread may call
// it, also while another one detaches.
std::int32_t shmlog_getloginfo(const char *type, std::int32_t *plevel, std::int32_t *psize,
                               std::int32_t *plogtype);

// The event daemon's side. Create the table, or attach one that exists; remove it.
std::int32_t shmlog_create(void *hlog, const char *instpath, const char *eventpath);
std::int32_t shmlog_delete();
// Sets the entry of a type, in a free one where it has none; `level` is at least -1 and `size` at least 0,
// and a value of 0 leaves what stands there.
std::int32_t shmlog_setloginfo(const char *type, std::int32_t level, std::int32_t size, std::int32_t logtype);
// Copies up to `*count` used entries into `entries`; *count receives how many are used.
std::int32_t shmlog_enumtype(shm_log_info *entries, std::int32_t *count);

// The mutex of attach and detach, within this process.
std::int32_t shmlog_lock();
void shmlog_unlock();
