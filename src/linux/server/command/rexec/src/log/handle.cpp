#include "log/handle.h"

#include "log/config.h"
#include "log/line.h"
#include "log/send.h"

#include <new>
#include <string_view>

namespace {

bool takes_default_level(std::int32_t level) {
    return level == 0 || level == LOG_LEVEL_EVENT;
}

void set_up(LOGLIB_OBJ *plogobj, const char *modtype, std::int32_t level, std::int32_t size,
            const char *path) {
    log_copy_text(plogobj->modtype, modtype);
    plogobj->level = takes_default_level(level) ? plogobj->loginfo.loglevel : level;
    plogobj->size = size > 0 ? size : plogobj->loginfo.logsize;
    if (path != nullptr)
        log_copy_text(plogobj->path, path);
}

} // namespace

void LogHandleClose::operator()(LOGLIB_OBJ *plogobj) const {
    log_close_sock(plogobj);
    delete plogobj;
}

LogHandle log_new_handle() {
    LogHandle plogobj(new (std::nothrow) LOGLIB_OBJ);
    if (plogobj == nullptr)
        LOG_DEBUG("malloc err plogobj:%p", static_cast<void *>(nullptr));
    return plogobj;
}

std::int32_t log_open_handle(LOGLIB_OBJ *plogobj, const char *modtype, std::int32_t level, std::int32_t size,
                             const char *path, std::int32_t startendmsgflag) {
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
    return log_announce(plogobj, plogobj->modtype, plogobj->level, plogobj->size, startendmsgflag);
}

std::int32_t log_announce(const LOGLIB_OBJ *plogobj, const char *type, std::int32_t level, std::int32_t size,
                          std::int32_t startendmsgflag) {
    EVENTC_LOG_INFO record;
    log_cre_record(&record, EVENTC_REQ_INITIALIZE, type);
    EVENTC_LOG_INIT &init = record.destinfo.init;
    init.logsize = size;
    init.loglevel = level;
    init.startendmsgflag = startendmsgflag;
    init.logtype = plogobj->logtype;
    init.rotate = plogobj->rotate;
    log_copy_text(init.dirpath, plogobj->path);
    log_copy_text(init.header, plogobj->header);
    log_copy_text(record.perflogname, plogobj->perflogname);
    return log_send(plogobj, &record);
}

std::int32_t log_end_handle(LOGLIB_OBJ *plogobj) {
    const LogHandle ended(plogobj);
    EVENTC_LOG_INFO record;
    log_cre_record(&record, EVENTC_REQ_TERMINATE, plogobj->modtype);
    return log_send(plogobj, &record);
}
