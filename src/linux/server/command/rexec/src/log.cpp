// The log library as a host without an installation has it: no event daemon, so no handle is ever
// opened and nothing is written.
#include "log.h"

std::recursive_mutex loglibmutex;

std::int32_t log_init(const char *modtype, void **pphandle, std::int32_t, std::int32_t, const char *) {
    if (pphandle == nullptr)
        return LOG_ERR_NOHANDLE;
    *pphandle = nullptr;
    return modtype == nullptr || *modtype == '\0' ? LOG_ERR_PARAMETER : LOG_ERR_INSTALL;
}

std::int32_t log_write(void *, std::int32_t, std::int32_t, const char *, std::int32_t, const char *,
                       const char *, ...) {
    return LOG_ERR_PARAMETER;
}

std::int32_t log_term(void *) {
    return LOG_ERR_PARAMETER;
}
