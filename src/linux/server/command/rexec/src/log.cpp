// The log library: handles, and the way of a message from its arguments to its record.
#include "log.h"

#include "cancel.h"
#include "log/event.h"
#include "log/handle.h"
#include "log/line.h"
#include "log/send.h"
#include "shmlog.h"

#include <cstdarg>
#include <new>

std::recursive_mutex loglibmutex;
std::int32_t dbgprint = 0;
std::int32_t dbgloglvl = 0;

namespace {

constexpr std::size_t message_size = 512;

std::int32_t create_handle(const char *modtype, void **pphandle, std::int32_t level, std::int32_t size,
                           const char *path) {
    LogHandle plogobj = log_new_handle();
    if (plogobj == nullptr)
        return LOG_ERR_MEMORY;
    if (const std::int32_t ret = log_open_handle(plogobj.get(), modtype, level, size, path, 1); ret != LOG_OK)
        return ret;
    const LOGLIB_INFO &info = plogobj->loginfo;
    log_announce(plogobj.get(), "uptime", info.uptimelevel, info.uptimesize, 0);
    plogobj->attached = shmlog_attach(nullptr, info.inspath, info.evepath) == SHMLOG_OK;
    *pphandle = plogobj.release();
    return LOG_OK;
}

// Takes over what the shared table says of the module type.
void refresh(LOGLIB_OBJ *plogobj) {
    std::int32_t level = 0;
    std::int32_t size = 0;
    std::int32_t logtype = 0;
    if (shmlog_getloginfo(plogobj->modtype, &level, &size, &logtype) != SHMLOG_OK)
        return;
    // Written only when they change: other threads read them for each of their messages.
    const auto update = [](std::atomic<std::int32_t> &field, std::int32_t value) {
        if (field.load(std::memory_order_relaxed) != value)
            field = value;
    };
    update(plogobj->level, level);
    update(plogobj->size, size);
    update(plogobj->logtype, logtype);
}

struct Source {
    const char *filename;
    std::int32_t line;
    const char *func;
};

std::int32_t write_line(const LOGLIB_OBJ *plogobj, std::int32_t level, std::int32_t eid, const Source &source,
                        const char *fmt, va_list arguments) {
    char message[message_size] = "";
    if (fmt != nullptr)
        std::vsnprintf(message, sizeof(message), fmt, arguments);
    EVENTC_LOG_INFO record;
    log_cre_record(&record, EVENTC_REQ_LOCAL, plogobj->modtype);
    record.destinfo.local.loglevel = level;
    log_cre_localmsg(plogobj, &record, level, eid, source.filename, source.line, source.func, message);
    return log_send(plogobj, &record);
}

// Whether a message is written at all: LOG_OK, or what log_write returns. *written tells which.
std::int32_t check(LOGLIB_OBJ *plogobj, std::int32_t level, bool *written) {
    *written = false;
    if (nologflag != 0) {
        LOG_DEBUG("nologflag(%d)", nologflag.load());
        return LOG_OK;
    }
    if (plogobj == nullptr) {
        LOG_DEBUG("prm err plogobj:%p", static_cast<void *>(plogobj));
        return LOG_ERR_PARAMETER;
    }
    refresh(plogobj);
    const std::int32_t threshold = plogobj->level;
    if (threshold < 0) {
        LOG_DEBUG("nolog level:%d", threshold);
        return LOG_OK;
    }
    if (level > threshold && level != LOG_LEVEL_EVENT) {
        LOG_DEBUG("range err level:%d", level);
        return LOG_ERR_LEVEL;
    }
    *written = true;
    return LOG_OK;
}

} // namespace

std::int32_t log_init(const char *modtype, void **pphandle, std::int32_t level, std::int32_t size,
                      const char *path) {
    if (pphandle != nullptr)
        *pphandle = nullptr;
    if (modtype == nullptr || *modtype == '\0') {
        LOG_DEBUG("prm err modtype:%p", static_cast<const void *>(modtype));
        return LOG_ERR_PARAMETER;
    }
    if (pphandle == nullptr)
        return LOG_ERR_NOHANDLE;
    if (level < -1) {
        LOG_DEBUG("nolog level:%d", level);
        return LOG_OK;
    }
    const CancelDisabled whole;
    const std::lock_guard lock(loglibmutex);
    try {
        return create_handle(modtype, pphandle, level, size, path);
    } catch (const std::bad_alloc &) {
        LOG_DEBUG("malloc err plogobj:%p", static_cast<void *>(nullptr));
        return LOG_ERR_MEMORY;
    }
}

std::int32_t log_write(void *phandle, std::int32_t level, std::int32_t eid, const char *filename,
                       std::int32_t line, const char *func, const char *fmt, ...) {
    auto *plogobj = static_cast<LOGLIB_OBJ *>(phandle);
    bool written = false;
    if (const std::int32_t ret = check(plogobj, level, &written); !written)
        return ret;
    const CancelDisabled whole;
    va_list arguments;
    va_start(arguments, fmt);
    const std::int32_t ret = level == LOG_LEVEL_EVENT
                                 ? log_write_event(plogobj, eid, arguments)
                                 : write_line(plogobj, level, eid, {filename, line, func}, fmt, arguments);
    va_end(arguments);
    return ret;
}

std::int32_t log_term(void *phandle) {
    auto *plogobj = static_cast<LOGLIB_OBJ *>(phandle);
    if (plogobj == nullptr) {
        LOG_DEBUG("prm err plogobj:%p", static_cast<void *>(plogobj));
        return LOG_ERR_PARAMETER;
    }
    const CancelDisabled whole;
    const std::lock_guard lock(loglibmutex);
    if (plogobj->attached)
        shmlog_detach();
    return log_end_handle(plogobj);
}
