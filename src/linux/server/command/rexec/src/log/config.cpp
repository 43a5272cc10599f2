// Settings of the log library, each with its default when the store does not have it.
#include "log/config.h"

#include "keyfile.h"
#include "log/store.h"

#include <cerrno>

std::atomic<std::int32_t> nologflag{0};
std::atomic<std::int32_t> altsendflag{0};

namespace {

constexpr int queue_project = 99; // of ftok

// Where the key file of the queue lies.
struct QueueKey {
    char dir[1024] = "work/ipc";
    char file[1024] = "msgq.key";
    std::int32_t dirmode = 0755;
    std::int32_t filemode = 0644;
};

bool read_log_policy(LOGLIB_INFO *info) {
    const LogPolicy policy("log");
    if (!policy.loaded())
        return false;
    info->loglevel = log_read_number("/root/log/log/level", info->loglevel);
    info->logsize = log_read_number("/root/log/log/size", info->logsize);
    log_read_text("/root/cluster/log/syslog/locale", info->sysloc);
    info->msglevel = log_read_number("/root/cluster/log/message/level", info->msglevel);
    log_read_text("/root/cluster/log/message/locale", info->msgloc);
    return true;
}

void read_queue(LOGLIB_INFO *info, QueueKey *key) {
    info->msqsopt = log_read_number("/root/cluster/event/msq/opt", info->msqsopt);
    log_read_text("/root/cluster/event/msq/key/dir", key->dir);
    log_read_text("/root/cluster/event/msq/key/file", key->file);
    key->dirmode = log_read_number("/root/cluster/event/msq/mode/dir", key->dirmode);
    key->filemode = log_read_number("/root/cluster/event/msq/mode/file", key->filemode);
    info->msqipcmode = log_read_number("/root/cluster/event/msq/mode/ipc", info->msqipcmode);
}

bool read_event_policy(LOGLIB_INFO *info, QueueKey *key) {
    const LogPolicy policy("event");
    if (!policy.loaded())
        return false;
    info->nologflag = log_read_number("/root/event/nolog", 0);
    info->method = log_read_number("/root/cluster/event/method", EVENTC_METHOD_UNIX);
    if (info->method == EVENTC_METHOD_MQ)
        read_queue(info, key);
    if (info->method == EVENTC_METHOD_UDP)
        info->port = log_read_number("/root/cluster/event/port", 0);
    info->altexecflag = log_read_number("/root/cluster/altexec/use", 0);
    info->altsendflag = log_read_number("/root/cluster/messages/use", 0);
    log_read_text("/root/event/path", info->evepath);
    info->uptimelevel = log_read_number("/root/event/uptime/level", info->uptimelevel);
    info->uptimesize = log_read_number("/root/event/uptime/size", info->uptimesize);
    return true;
}

void read_cluster_policy(LOGLIB_INFO *info) {
    const LogPolicy policy("cluster");
    info->sysloglvlflag = policy.loaded() ? log_read_number("/root/cluster/syslog/format/level", 1) : 1;
    info->showyearflag = policy.loaded() ? log_read_number("/root/cluster/locallog/format/year", 1) : 1;
}

std::int32_t read_policies(LOGLIB_INFO *info, QueueKey *key) {
    if (!read_log_policy(info) || !read_event_policy(info, key))
        return LOG_ERR_POLICY;
    {
        const LogPolicy policy("all");
        if (!policy.loaded())
            return LOG_ERR_POLICY;
        if (!log_read_text("/root/all/path", info->inspath))
            return LOG_ERR_INSTALL;
    }
    read_cluster_policy(info);
    return LOG_OK;
}

} // namespace

std::int32_t log_get_config(LOGLIB_INFO *info) {
    QueueKey key;
    {
        const LogStore store;
        if (!store.started())
            return LOG_ERR_CONFIG;
        if (const std::int32_t ret = read_policies(info, &key); ret != LOG_OK)
            return ret;
    }
    if (info->method == EVENTC_METHOD_MQ) {
        char dir[LOG_INSPATH_LEN + sizeof(key.dir)];
        std::snprintf(dir, sizeof(dir), "%s/%s", info->inspath, key.dir);
        info->msqkey = log_cre_msqkey(dir, key.file, key.dirmode, key.filemode);
        if (info->msqkey == 0)
            return LOG_ERR_POLICY;
    }
    // Read whole: now it counts for the process, whether the daemon can be reached or not.
    nologflag = info->nologflag;
    altsendflag = info->altsendflag;
    return LOG_OK;
}

std::int32_t log_get_fixed(LOGLIB_INFO *info) {
    xmllib_get_installpath(info->inspath, sizeof(info->inspath));
    return info->inspath[0] != '\0' ? LOG_OK : LOG_ERR_INSTALL;
}

std::int32_t log_cre_msqkey(const char *keydir, const char *keyfile, std::int32_t dirmode,
                            std::int32_t filemode) {
    key_t key = 0;
    const KeyStep step = make_key(
        {keydir, static_cast<mode_t>(dirmode), keyfile, static_cast<mode_t>(filemode), queue_project}, &key);
    if (step == KeyStep::directory)
        LOG_DEBUG("mkdir(%s) failed(errno:%d)", keydir, errno);
    else if (step == KeyStep::file)
        LOG_DEBUG("open(%s/%s) failed(errno:%d)", keydir, keyfile, errno);
    else if (step == KeyStep::key)
        LOG_DEBUG("ftok() failed(errno:%d)", errno);
    return step == KeyStep::done ? key : 0;
}
