// The log library: handles, and the way of a message from its arguments to its record.
#include "log.h"

#include "cancel.h"
#include "log/config.h"
#include "log/event.h"
#include "log/line.h"
#include "log/send.h"
#include "shmlog.h"

#include <cstdarg>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

std::recursive_mutex loglibmutex;
std::int32_t dbgprint = 0;
std::int32_t dbgloglvl = 0;

namespace {

constexpr std::size_t message_size = 512;

template <std::size_t N>
void copy_text(char (&field)[N], const char *text) {
    std::string_view(text).copy(field, N - 1);
}

bool takes_default_level(std::int32_t level) {
    return level == 0 || level == LOG_LEVEL_EVENT;
}

void set_up(LOGLIB_OBJ *plogobj, const char *modtype, std::int32_t level, std::int32_t size,
            const char *path) {
    copy_text(plogobj->modtype, modtype);
    plogobj->level = takes_default_level(level) ? plogobj->loginfo.loglevel : level;
    plogobj->size = size > 0 ? size : plogobj->loginfo.logsize;
    if (path != nullptr)
        copy_text(plogobj->path, path);
}

// Announces a log to the daemon; `startendmsgflag` lets it note the module's start.
bool announce(const LOGLIB_OBJ *plogobj, const char *type, std::int32_t level, std::int32_t size,
              std::int32_t startendmsgflag) {
    EVENTC_LOG_INFO record;
    log_cre_record(&record, EVENTC_REQ_INITIALIZE, type);
    EVENTC_LOG_INIT &init = record.destinfo.init;
    init.logsize = size;
    init.loglevel = level;
    init.startendmsgflag = startendmsgflag;
    copy_text(init.dirpath, plogobj->path);
    const std::int32_t ret = log_send_data(plogobj, &record, 0);
    if (ret != EVENTC_RECORD_LEN)
        LOG_DEBUG("sendto err:%d", ret);
    return ret == EVENTC_RECORD_LEN;
}

std::int32_t open_handle(LOGLIB_OBJ *plogobj, const char *modtype, std::int32_t level, std::int32_t size,
                         const char *path) {
    // The store's own trace must not read the store.
    const bool fixed = std::string_view(modtype) == "xml";
    if (const std::int32_t ret = fixed ? log_get_fixed(&plogobj->loginfo) : log_get_config(&plogobj->loginfo);
        ret != LOG_OK)
        return ret;
    set_up(plogobj, modtype, level, size, path);
    if (const std::int32_t ret = log_setup_sock(plogobj); ret != LOG_OK) {
        LOG_DEBUG("socket err:%d", ret);
        return ret;
    }
    return announce(plogobj, plogobj->modtype, plogobj->level, plogobj->size, 1) ? LOG_OK : LOG_ERR_DAEMON;
}

// A handle that did not come to be gives its socket back.
struct CloseHandle {
    void operator()(LOGLIB_OBJ *plogobj) const {
        log_close_sock(plogobj);
        delete plogobj;
    }
};
using Handle = std::unique_ptr<LOGLIB_OBJ, CloseHandle>;

std::int32_t create_handle(const char *modtype, void **pphandle, std::int32_t level, std::int32_t size,
                           const char *path) {
    *pphandle = nullptr;
    Handle plogobj(new (std::nothrow) LOGLIB_OBJ);
    if (plogobj == nullptr) {
        LOG_DEBUG("malloc err plogobj:%p", static_cast<void *>(nullptr));
        return LOG_ERR_MEMORY;
    }
    if (const std::int32_t ret = open_handle(plogobj.get(), modtype, level, size, path); ret != LOG_OK)
        return ret;
    const LOGLIB_INFO &info = plogobj->loginfo;
    announce(plogobj.get(), "uptime", info.uptimelevel, info.uptimesize, 0);
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
    const std::int32_t ret = log_send_data(plogobj, &record, 0);
    if (ret == EVENTC_RECORD_LEN)
        return LOG_OK;
    LOG_DEBUG("sendto err:%d", ret);
    return LOG_ERR_DAEMON;
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
    if (modtype == nullptr || *modtype == '\0') {
        LOG_DEBUG("prm err modtype:%p", static_cast<const void *>(modtype));
        return LOG_ERR_PARAMETER;
    }
    if (pphandle == nullptr)
        return LOG_ERR_NOHANDLE;
    if (level < -1) {
        LOG_DEBUG("nolog level:%d", level);
        *pphandle = nullptr;
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
    const Handle ended(plogobj);
    if (plogobj->attached)
        shmlog_detach();
    EVENTC_LOG_INFO record;
    log_cre_record(&record, EVENTC_REQ_TERMINATE, plogobj->modtype);
    const std::int32_t ret = log_send_data(plogobj, &record, 0);
    if (ret == EVENTC_RECORD_LEN)
        return LOG_OK;
    LOG_DEBUG("sendto err:%d", ret);
    return LOG_ERR_DAEMON;
}
