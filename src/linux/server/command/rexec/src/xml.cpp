// The configuration store as a host without an installation has it: no policy file exists, so it
// cannot be started and every caller falls back to its defaults. The corrected clock works anywhere.
#include "xmllib.h"

#include "log.h"

#include <cerrno>
#include <mutex>

int xmllib_init(const char *modtype) {
    return modtype == nullptr ? XMLLIB_ERR_INVALIDARG : XMLLIB_ERR_NOTEXIST;
}

int xmllib_term() {
    return XMLLIB_ERR_NOTINIT;
}

int xmllib_load_policy(const char *) {
    return XMLLIB_ERR_NOTINIT;
}

int xmllib_unload_policy(const char *) {
    return XMLLIB_ERR_NOTINIT;
}

int xmllib_load_config() {
    return XMLLIB_ERR_NOTINIT;
}

int xmllib_unload_config() {
    return XMLLIB_ERR_NOTINIT;
}

int xmllib_load_pathconfig(const char *, void **) {
    return XMLLIB_ERR_NOTINIT;
}

int xmllib_unload_pathconfig(void *) {
    return XMLLIB_ERR_NOTINIT;
}

int xmllib_get_value(const char *, int, void *, int *) {
    return XMLLIB_ERR_NOTINIT;
}

namespace {

constexpr clock_t clock_failed = static_cast<clock_t>(-1);

std::mutex mending_mutex;
bool mending = false; // guarded by mending_mutex: the counter is inside the range taken for errors

// One line in a log of its own, opened for the line only: the clock is read by every module.
#define WRITE_CLOCK_LOG(level, ...)                                                                          \
    do {                                                                                                     \
        void *handle = nullptr;                                                                              \
        if (log_init("times", &handle, LOG_DEFAULT_LEVEL, 100000, nullptr) == LOG_OK) {                      \
            log_write(handle, (level), 0, "src/xml", __LINE__, "xmllib_times", __VA_ARGS__);                 \
            log_term(handle);                                                                                \
        }                                                                                                    \
    } while (false)

} // namespace

clock_t xmllib_times(struct tms *) {
    errno = 0;
    clock_t ticks = times(nullptr);
    const int error = errno;
    const bool failed = ticks == clock_failed;
    if (failed)
        ticks = -static_cast<clock_t>(error);
    // Only ever tried: the clock must not wait for another thread.
    if (std::unique_lock lock(mending_mutex, std::try_to_lock); lock.owns_lock() && mending != failed) {
        mending = failed;
        if (failed)
            WRITE_CLOCK_LOG(LOG_LEVEL_WARNING, "starting to change return value of times().(errno=%d)",
                            error);
        else
            WRITE_CLOCK_LOG(LOG_LEVEL_INFO, "stopping to change return value of times().");
    }
    if (ticks == clock_failed) {
        WRITE_CLOCK_LOG(LOG_LEVEL_WARNING, "invalid return value(-1). errno=%d", error);
        return 0;
    }
    return ticks;
}
