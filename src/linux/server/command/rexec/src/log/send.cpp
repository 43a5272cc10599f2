// Transports of the log library, and how long they wait.
#include "log/send.h"

#include "log/line.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <string>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

// Senders of all handles and threads share what one of them has found out. Without a lock: a child that is
// forked meanwhile would find it taken.
struct LogDaemon {
    // When the wait for a daemon that does not read began, in ns of the monotonic clock; 0 while it reads.
    std::atomic<std::int64_t> waiting_since{0};
    std::atomic<bool> stuck{false}; // a wait ran out, and no send has succeeded since
    // What was waited for a daemon that reads, but slowly, in the present stretch of time, in ns.
    std::atomic<std::int64_t> spent{0};
    std::atomic<std::int64_t> stretch_begun{0};
    std::atomic<std::int64_t> counted_until{0}; // waits at the same time count once
};

namespace {

constexpr std::int64_t ms = 1'000'000; // in ns
constexpr std::int64_t wait_limit = 200 * ms;
constexpr std::int64_t wait_slice = 10 * ms; // the longest that a sender does not look at the others
constexpr std::int64_t queue_nap = 1 * ms;
// Waits for a daemon that is slow add up from message to message, and may not hold up a run as a whole.
constexpr std::int64_t stretch = 10'000 * ms;
constexpr std::int64_t stretch_limit = 500 * ms;
constexpr std::int64_t short_wait = 1 * ms; // is no sign of a slow daemon, and not counted
constexpr socklen_t local_length = sizeof(sockaddr_un);
constexpr socklen_t ipv4_length = sizeof(sockaddr_in);
static_assert(local_length == 110 && ipv4_length == 16);

std::int64_t now() {
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * std::int64_t{1'000'000'000} + time.tv_nsec;
}

// The state of a daemon lasts as long as the process, since any handle may talk to it again, and threads may
// still write while it exits; called under loglibmutex.
LogDaemon *daemon_at(const std::string &address) {
    static auto &daemons = *new std::map<std::string, std::unique_ptr<LogDaemon>>;
    std::unique_ptr<LogDaemon> &daemon = daemons[address];
    if (daemon == nullptr)
        daemon = std::make_unique<LogDaemon>();
    return daemon.get();
}

bool open_socket(LOGLIB_OBJ *plogobj, int family) {
    plogobj->sock = socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (plogobj->sock == -1) {
        LOG_DEBUG("socket err:%d", errno);
        return false;
    }
    const timeval slice = {.tv_sec = 0, .tv_usec = wait_slice / 1000};
    setsockopt(plogobj->sock, SOL_SOCKET, SO_SNDTIMEO, &slice, sizeof(slice));
    return true;
}

bool open_queue(LOGLIB_OBJ *plogobj) {
    plogobj->sock = msgget(plogobj->loginfo.msqkey, plogobj->loginfo.msqipcmode);
    if (plogobj->sock == -1) {
        LOG_DEBUG("msgget() err:[%d]", errno);
        return false;
    }
    plogobj->transport = LogTransport::queue;
    plogobj->daemon = daemon_at("queue " + std::to_string(plogobj->loginfo.msqkey));
    return true;
}

bool open_udp(LOGLIB_OBJ *plogobj) {
    if (plogobj->loginfo.port < 1 || plogobj->loginfo.port > 65535) { // cut to 16 bits it is another one
        LOG_DEBUG("socket err:%d", EINVAL);
        return false;
    }
    if (!open_socket(plogobj, AF_INET))
        return false;
    plogobj->transport = LogTransport::udp;
    plogobj->sockinfo.ipv4 = {};
    plogobj->sockinfo.ipv4.sin_family = AF_INET;
    plogobj->sockinfo.ipv4.sin_port = htons(static_cast<std::uint16_t>(plogobj->loginfo.port));
    plogobj->daemon = daemon_at("port " + std::to_string(plogobj->loginfo.port));
    return true;
}

bool open_local(LOGLIB_OBJ *plogobj) {
    sockaddr_un &address = plogobj->sockinfo.local;
    address = {};
    address.sun_family = AF_UNIX;
    const std::string path = std::string(plogobj->loginfo.inspath) + "/tmp/sockevent";
    if (path.size() >= sizeof(address.sun_path)) {
        LOG_DEBUG("socket err:%d", ENAMETOOLONG);
        return false;
    }
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    if (!open_socket(plogobj, AF_UNIX))
        return false;
    plogobj->transport = LogTransport::unix_socket;
    plogobj->daemon = daemon_at(path);
    return true;
}

// One attempt; `wait` lets a socket wait for a slice. 0, or an error number.
int attempt(const LOGLIB_OBJ *plogobj, const EVENTC_LOG_INFO &record, bool wait) {
    if (plogobj->transport == LogTransport::queue) {
        const EVENTC_MSGBUF message = {.mtype = 1, .info = record};
        return msgsnd(plogobj->sock, &message, sizeof(record), IPC_NOWAIT) == 0 ? 0 : errno;
    }
    const socklen_t length = plogobj->transport == LogTransport::udp ? ipv4_length : local_length;
    const ssize_t sent =
        sendto(plogobj->sock, &record, sizeof(record), MSG_NOSIGNAL | (wait ? 0 : MSG_DONTWAIT),
               reinterpret_cast<const sockaddr *>(&plogobj->sockinfo), length);
    return sent == EVENTC_RECORD_LEN ? 0 : sent == -1 ? errno : EMSGSIZE;
}

bool is_full(int error) {
    return error == EAGAIN || error == EINTR;
}

// Tries until the daemon reads again, or the wait that all senders share has run out; `begun` is when this
// sender's first attempt failed.
int keep_trying(const LOGLIB_OBJ *plogobj, const EVENTC_LOG_INFO &record, std::int64_t begun) {
    LogDaemon &daemon = *plogobj->daemon;
    int error = EAGAIN;
    while (is_full(error) && !daemon.stuck) {
        std::int64_t since = 0;
        if (daemon.waiting_since.compare_exchange_strong(since, begun))
            since = begun;
        if (now() - std::min(since, begun) > wait_limit - 2 * wait_slice) {
            daemon.stuck = true;
            break;
        }
        if (plogobj->transport == LogTransport::queue) {
            const timespec nap = {.tv_sec = 0, .tv_nsec = queue_nap};
            nanosleep(&nap, nullptr);
        }
        error = attempt(plogobj, record, true);
    }
    return error;
}

void count_wait(LogDaemon &daemon, std::int64_t begun, std::int64_t ended) {
    if (ended - begun < short_wait)
        return;
    std::int64_t since = daemon.stretch_begun;
    if (ended > since + stretch && daemon.stretch_begun.compare_exchange_strong(since, begun))
        daemon.spent = 0;
    std::int64_t until = daemon.counted_until;
    while (until < ended && !daemon.counted_until.compare_exchange_weak(until, ended)) {
    }
    daemon.spent += std::max<std::int64_t>(ended - std::max(begun, until), 0);
}

bool may_wait(const LOGLIB_OBJ *plogobj, const LogDaemon &daemon, std::int64_t time) {
    if (plogobj->transport == LogTransport::queue && plogobj->loginfo.msqsopt != 0)
        return false;
    return !daemon.stuck.load(std::memory_order_relaxed) &&
           (daemon.spent.load(std::memory_order_relaxed) < stretch_limit ||
            time > daemon.stretch_begun + stretch);
}

int send_record(const LOGLIB_OBJ *plogobj, const EVENTC_LOG_INFO &record) {
    LogDaemon &daemon = *plogobj->daemon;
    // Not waiting yet: a sender that has lost its processor meanwhile has not waited for the daemon.
    int error = EINTR;
    while (error == EINTR)
        error = attempt(plogobj, record, false);
    if (error == EAGAIN) {
        const std::int64_t begun = now();
        if (may_wait(plogobj, daemon, begun)) {
            error = keep_trying(plogobj, record, begun);
            count_wait(daemon, begun, now());
        }
    }
    // It reads again, or is gone: what was waited for is over.
    if (!is_full(error) && (daemon.stuck || daemon.waiting_since != 0)) {
        daemon.waiting_since = 0;
        if (error == 0)
            daemon.stuck = false;
    }
    return error;
}

// Told once a process, in a file of the installation: a queue that is full says nothing by itself.
void note_queue_failure(const LOGLIB_OBJ *plogobj) {
    static std::atomic<std::int32_t> glogoutcnt{0};
    if (glogoutcnt.exchange(1) != 0)
        return;
    char path[LOG_INSPATH_LEN + sizeof("/tmp/log_msg")];
    std::snprintf(path, sizeof(path), "%s/tmp/log_msg", plogobj->loginfo.inspath);
    const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0644);
    if (fd == -1)
        return;
    char stamp[LOG_DATE_LEN];
    log_cre_datestr(stamp, LOG_LEVEL_EVENT, 1);
    if (ftruncate(fd, 0) == 0)
        dprintf(fd, "%s msgsnd() failed.\n", stamp);
    close(fd);
}

void to_network(std::int32_t &field) {
    field = static_cast<std::int32_t>(htonl(static_cast<std::uint32_t>(field)));
}

} // namespace

std::int32_t log_setup_sock(LOGLIB_OBJ *plogobj) {
    const bool open = plogobj->loginfo.method == EVENTC_METHOD_MQ ? open_queue(plogobj)
                      : plogobj->loginfo.port != 0                ? open_udp(plogobj)
                                                                  : open_local(plogobj);
    return open ? LOG_OK : LOG_ERR_TRANSPORT;
}

void log_close_sock(LOGLIB_OBJ *plogobj) {
    if (plogobj->sock != -1 && plogobj->transport != LogTransport::queue)
        close(plogobj->sock);
    plogobj->sock = -1;
}

std::int32_t log_send_data(const LOGLIB_OBJ *plogobj, EVENTC_LOG_INFO *plogsend, std::int32_t convflag) {
    if (const std::int32_t ret = log_conv_byteorder(plogsend, convflag); ret != 0)
        return ret;
    const int error = send_record(plogobj, *plogsend);
    if (error == 0)
        return EVENTC_RECORD_LEN;
    if (plogobj->transport == LogTransport::queue) {
        LOG_DEBUG("msgsnd err:%d", error);
        note_queue_failure(plogobj);
    }
    return -1;
}

std::int32_t log_send(const LOGLIB_OBJ *plogobj, EVENTC_LOG_INFO *plogsend, std::int32_t convflag) {
    const std::int32_t ret = log_send_data(plogobj, plogsend, convflag);
    if (ret == EVENTC_RECORD_LEN)
        return LOG_OK;
    LOG_DEBUG("sendto err:%d", ret);
    return LOG_ERR_DAEMON;
}

std::int32_t log_conv_byteorder(EVENTC_LOG_INFO *preqinfo, std::int32_t convflag) {
    std::int32_t *fields[2] = {nullptr, nullptr};
    switch (preqinfo->dest) {
    case EVENTC_REQ_INITIALIZE:
    case EVENTC_REQ_REINITIALIZE:
    case EVENTC_REQ_RELOGLVL:
    case EVENTC_REQ_RELOGSZ:
        fields[0] = &preqinfo->destinfo.init.logsize;
        fields[1] = &preqinfo->destinfo.init.loglevel;
        break;
    case EVENTC_REQ_TERMINATE:
        break;
    case EVENTC_REQ_LOCAL:
        fields[0] = &preqinfo->destinfo.local.loglevel;
        break;
    case EVENTC_REQ_SYSLOG:
    case EVENTC_REQ_ALERT:
    case EVENTC_REQ_PUBSUB:
        fields[0] = &preqinfo->destinfo.alert.eventid;
        fields[1] = &preqinfo->destinfo.alert.loglevel;
        break;
    default:
        return 9;
    }
    to_network(preqinfo->dest);
    if (convflag != 0)
        return 0;
    to_network(preqinfo->pid);
    to_network(preqinfo->tid);
    for (std::int32_t *field : fields)
        if (field != nullptr)
            to_network(*field);
    return 0;
}
