// Utility logs, of which performance logs are a kind. Their lines are the text of the caller behind a time
// stamp.
#include "log.h"

#include "cancel.h"
#include "log/handle.h"
#include "log/line.h"
#include "log/send.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

namespace {

struct UtilKind {
    std::int32_t logtype;
    bool perf; // a performance log
};
constexpr auto kinds = std::to_array<UtilKind>({{LOG_TYPE_UTIL, false},
                                                {LOG_TYPE_UTIL_TEXT, false},
                                                {LOG_TYPE_GROUP, true},
                                                {LOG_TYPE_RESOURCE, true},
                                                {LOG_TYPE_MONITOR, true},
                                                {LOG_TYPE_HEARTBEAT, true}});

const UtilKind *find_kind(std::int32_t logtype) {
    const auto *kind =
        std::find_if(kinds.begin(), kinds.end(), [&](const UtilKind &row) { return row.logtype == logtype; });
    return kind != kinds.end() ? kind : nullptr;
}

constexpr std::size_t type_max = EVENTC_TYPE_LEN - 1;
constexpr std::size_t path_max = 1009;
constexpr std::int32_t header_max = EVENTC_PATH_LEN;

std::int32_t check_arguments(const char *modtype, void **pphandle, std::int32_t logtype, std::int32_t hsize,
                             const char *path) {
    if (pphandle != nullptr)
        *pphandle = nullptr;
    if (modtype == nullptr || *modtype == '\0' || std::strlen(modtype) > type_max) {
        LOG_DEBUG("prm err modtype:%p", static_cast<const void *>(modtype));
        return LOG_ERR_PARAMETER;
    }
    if (pphandle == nullptr)
        return LOG_ERR_NOHANDLE;
    if (find_kind(logtype) == nullptr) {
        LOG_DEBUG("invalid log type: %d", logtype);
        return LOG_ERR_LOGTYPE;
    }
    if (hsize < 0 || hsize > header_max)
        return LOG_ERR_HSIZE;
    if (path != nullptr && std::strlen(path) > path_max)
        return LOG_ERR_PATH;
    return LOG_OK;
}

std::int32_t write_text(const LOGLIB_OBJ *plogobj, const char *text) {
    EVENTC_LOG_INFO record;
    log_cre_record(&record, EVENTC_REQ_LOCAL, plogobj->modtype);
    record.destinfo.local.loglevel = LOG_LEVEL_INFO;
    log_cre_localmsg_ex(plogobj, &record, text);
    return log_send(plogobj, &record);
}

void describe(LOGLIB_OBJ *plogobj, const char *modtype, std::int32_t logtype, std::int32_t rotate,
              std::int32_t hsize, const char *header) {
    plogobj->logtype = logtype;
    plogobj->rotate = rotate;
    if (header != nullptr)
        std::string_view(header, strnlen(header, static_cast<std::size_t>(hsize)))
            .copy(plogobj->header, sizeof(plogobj->header) - 1);
    if (find_kind(logtype)->perf)
        log_copy_text(plogobj->perflogname, modtype);
}

std::int32_t create_handle(const char *modtype, void **pphandle, std::int32_t level, std::int32_t fsize,
                           const char *path, LogHandle plogobj) {
    const bool perf = plogobj->perflogname[0] != '\0';
    char type[EVENTC_TYPE_LEN + sizeof("_perf")];
    std::snprintf(type, sizeof(type), perf ? "%s_perf" : "%s", modtype);
    const std::int32_t ret = log_open_handle(plogobj.get(), type, level, fsize, path, 0);
    if (ret == LOG_OK)
        *pphandle = plogobj.release();
    return ret;
}

} // namespace

std::int32_t log_util_init(const char *modtype, void **pphandle, std::int32_t logtype, std::int32_t level,
                           std::int32_t fsize, std::int32_t rotate, std::int32_t hsize, const char *header,
                           const char *path) {
    if (const std::int32_t ret = check_arguments(modtype, pphandle, logtype, hsize, path); ret != LOG_OK)
        return ret;
    if (level < -1)
        return LOG_OK;
    const CancelDisabled whole;
    const std::lock_guard lock(loglibmutex);
    LogHandle plogobj = log_new_handle();
    if (plogobj == nullptr)
        return LOG_ERR_MEMORY;
    describe(plogobj.get(), modtype, logtype, rotate, hsize, header);
    try {
        return create_handle(modtype, pphandle, level, fsize, path, std::move(plogobj));
    } catch (const std::bad_alloc &) {
        LOG_DEBUG("malloc err plogobj:%p", static_cast<void *>(nullptr));
        return LOG_ERR_MEMORY;
    }
}

std::int32_t log_util_write(void *phandle, const char *fmt, ...) {
    const auto *plogobj = static_cast<const LOGLIB_OBJ *>(phandle);
    if (plogobj == nullptr) {
        LOG_DEBUG("prm err plogobj:%p", phandle);
        return LOG_ERR_PARAMETER;
    }
    const bool uncollected = plogobj->logtype == LOG_TYPE_HEARTBEAT && plogobj->perfcollect == 0;
    if (uncollected || nologflag != 0 || plogobj->level < 0)
        return LOG_OK;
    const CancelDisabled whole;
    char text[EVENTC_MSG_LEN] = "";
    va_list arguments;
    va_start(arguments, fmt);
    if (fmt != nullptr)
        std::vsnprintf(text, sizeof(text), fmt, arguments);
    va_end(arguments);
    return write_text(plogobj, text);
}

std::int32_t log_util_term(void *phandle) {
    auto *plogobj = static_cast<LOGLIB_OBJ *>(phandle);
    if (plogobj == nullptr) {
        LOG_DEBUG("prm err plogobj:%p", phandle);
        return LOG_ERR_PARAMETER;
    }
    const CancelDisabled whole;
    const std::lock_guard lock(loglibmutex);
    return log_end_handle(plogobj);
}
