// Connections to the targets.
//
// All of it runs on the caller's thread. Each connect attempt and each exchange runs on a thread of
// its own, which the caller waits for, cancels when its time is up, and joins before it goes on; so
// the hand-over records may lie on the caller's stack.
#include "rexeccl/connect.h"

#include "rexeccl/node.h"
#include "rexeccl/packet.h"
#include "rexeccl/settings.h"
#include "rexeccl/socket.h"
#include "rexeccl/thread.h"
#include "rexeccl/trace.h"
#include "rexeccl/transfer.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <netdb.h>

namespace {

struct Free {
    void operator()(void *memory) const { std::free(memory); }
};
template <typename T>
using Owned = std::unique_ptr<T, Free>;

// How one connect attempt went: its thread ended (then `ret` is its result), every try ran out of
// time, or a thread could not be started or joined.
struct ConnectResult {
    enum { ended, timed_out, broken } how;
    std::int32_t ret;
};

// Takes back what a connect thread that was given up holds.
void abandon_connect(pthread_t tid, REXECCL_CNTD_PARAM_INFO *param, const char *host) {
    std::int32_t ret = 0;
    if (const int error = pthread_cancel(tid); error != 0)
        REXECCL_TRACE(1, "pthread_cancel() failed. (host=%s tid=%#x errno=%d)", host, log_low32(tid), error);
    if (const int error = rexeccl_join_thread(tid, &ret); error != 0)
        REXECCL_TRACE(1, "pthread_join() failed. (host=%s tid=%#x errno=%d)", host, log_low32(tid), error);
    // It may have connected between the time-out and the cancel.
    if (param->sock != -1)
        rexeccl_close_socket(param->sock);
    param->sock = -1;
}

ConnectResult attempt_connect(REXECCL_CNTD_PARAM_INFO *param, const char *host) {
    const std::int64_t tries = std::int64_t{std::max(_rexeccl_policy.connretry, 0)} + 1;
    for (std::int64_t i = 0; i < tries; ++i) {
        REXECCL_TRACE(4, "connect->%s/%d", param->ip, param->port);
        pthread_t tid = 0;
        const std::int32_t started = rexeccl_create_thread(
            [](void *record) {
                return rexeccl_create_socket(static_cast<REXECCL_CNTD_PARAM_INFO *>(record));
            },
            &_rexeccl_thattr_joinable, param, &tid);
        if (started != REXECCL_RET_SUCCESS) {
            REXECCL_TRACE(1, "rexeccl_create_thread() failed. (ret=%d host=%s port=%d)", started, host,
                          param->port);
            return {ConnectResult::broken, started};
        }
        if (rexeccl_wait_thread(tid, _rexeccl_policy.conntimeout) != REXECCL_RET_SUCCESS) {
            abandon_connect(tid, param, host);
            continue;
        }
        std::int32_t ret = REXECCL_RET_SUCCESS;
        if (const int error = rexeccl_join_thread(tid, &ret); error != 0) {
            REXECCL_TRACE(1, "pthread_join() failed. (host=%s errno=%d)", host, error);
            return {ConnectResult::broken, REXECCL_RET_FAIL_UNKOWN};
        }
        return {ConnectResult::ended, ret};
    }
    return {ConnectResult::timed_out, REXECCL_RET_FAIL_TIMEOUT};
}

std::int32_t try_addresses(const REXECCL_NODE_INFO *node, std::int32_t port, std::int32_t *sock_out,
                           char *address_out, std::size_t length) {
    const std::int32_t attempts = _rexeccl_policy.usedns != 0 ? node->nipnum + 1 : std::max(node->nipnum, 1);
    REXECCL_CNTD_PARAM_INFO param = {};
    param.sock = -1;
    param.port = port;
    std::snprintf(param.host, sizeof(param.host), "%s", node->szhost);
    std::int32_t i = 0;
    for (; i < attempts; ++i) {
        const bool by_address = i < node->nipnum;
        param.ai_flags = by_address ? AI_NUMERICHOST : 0;
        std::snprintf(param.ip, sizeof(param.ip), "%s", by_address ? node->plan[i].szip : node->szhost);
        const ConnectResult attempt = attempt_connect(&param, node->szhost);
        if (attempt.how == ConnectResult::broken)
            return REXECCL_RET_FAIL_UNKOWN;
        if (attempt.how == ConnectResult::timed_out) {
            REXECCL_TRACE(2, "connect retry over. (host=%s retry=%d)", node->szhost,
                          _rexeccl_policy.connretry);
        } else if (attempt.ret == REXECCL_RET_SUCCESS) {
            std::snprintf(address_out, length, "%s", param.ip);
            REXECCL_TRACE(4, "connect success. (ret=%d host=%s sock=%d)", attempt.ret, node->szhost,
                          param.sock);
            break;
        } else {
            REXECCL_TRACE(1, "connect failed. (ret=%d host=%s)", attempt.ret, node->szhost);
        }
    }
    if (i > node->nipnum) {
        REXECCL_TRACE(1, "connect failed. (host=%s)", node->szhost);
        return REXECCL_RET_FAIL_COMUNICATION;
    }
    *sock_out = param.sock;
    return REXECCL_RET_SUCCESS;
}

// What one node's connection is made of, until it is a record of the list.
struct Candidate {
    REXECCL_NODE_INFO *node;
    std::int32_t port;
    REXECCL_CONNECTION_INFO scratch; // socket and exchange of the connection check
};

// How one node fared: the running result, or 0, and the status of the node.
struct Outcome {
    std::int32_t ret;
    std::int32_t status;
};

// Waits for the connection check under the response time-out and joins it.
Outcome finish_check(Candidate &at) {
    const REXECCL_COMM_THREAD_INFO &comm = at.scratch.tdinfo.comm;
    const char *host = at.node->szhost;
    const unsigned int tid = log_low32(comm.tid);
    const std::int32_t waited = rexeccl_wait_thread(comm.tid, _rexeccl_policy.restimeout);
    if (waited != REXECCL_RET_SUCCESS) {
        REXECCL_TRACE(1, "timeout. (tid=%#x ret=%d sock=%d host=%s timeout=%d)", tid, waited, at.scratch.sock,
                      host, _rexeccl_policy.restimeout);
        rexeccl_abandon_communication(&at.scratch);
        return {REXECCL_RET_FAIL_COMUNICATION, TRANS_RES_STAT_FAIL_CMDTIMEOUT};
    }
    std::int32_t ret = REXECCL_RET_SUCCESS;
    if (const int error = rexeccl_finish_communication(&at.scratch, &ret); error != 0) {
        REXECCL_TRACE(1, "pthread_join() failed. (tid=%#x sock=%d host=%s ret=%d)", tid, at.scratch.sock,
                      host, error);
        return {REXECCL_RET_FAIL_UNKOWN, TRANS_RES_STAT_FAIL_UNKOWN};
    }
    if (ret != REXECCL_RET_SUCCESS) {
        REXECCL_TRACE(1, "comm NG. (tid=%#x ret=%d)", tid, ret);
        return {REXECCL_RET_FAIL_COMUNICATION, TRANS_RES_STAT_FAIL_COMUNICATION};
    }
    const TRANS_PACKET_HEADER_INFO &header = comm.pres->hdinfo;
    if (header.ncode != TRANS_RES_INITIALIZE_CHK) {
        REXECCL_TRACE(1, "invalid code. (host=%s res=%d sock=%d)", host, header.ncode, at.scratch.sock);
        return {REXECCL_RET_FAIL_UNKOWN, TRANS_RES_STAT_FAIL_UNKOWN};
    }
    if (header.status != TRANS_RES_STAT_SUCCESS) {
        REXECCL_TRACE(1, "invalid status. (host=%s stat=%d sock=%d)", host, header.status, at.scratch.sock);
        return {REXECCL_RET_FAIL_UNKOWN, header.status};
    }
    return {REXECCL_RET_SUCCESS, header.status};
}

// Proves the connection of `at` with one exchange.
Outcome check_connection(Candidate &at, TRANS_PACKET_HEADER_INFO *request) {
    REXECCL_COMM_THREAD_INFO &comm = at.scratch.tdinfo.comm;
    rexeccl_make_packet_ex(request, TRANS_REQ_INITIALIZE_CHK, 1, 0, 0, 0);
    comm.preq = reinterpret_cast<TRANS_PACKET_INFO *>(request);
    comm.reqsize = sizeof(*request);
    const std::int32_t started = rexeccl_start_communication(&at.scratch);
    if (started != REXECCL_RET_SUCCESS) {
        REXECCL_TRACE(1, "rexeccl_create_thread() failed. (ret=%d sock=%d host=%s)", started, at.scratch.sock,
                      at.node->szhost);
        return {REXECCL_RET_FAIL_COMUNICATION, TRANS_RES_STAT_FAIL_COMUNICATION};
    }
    REXECCL_TRACE(8, "start communication thread. (sock=%d tid=%#x)", at.scratch.sock, log_low32(comm.tid));
    const Outcome outcome = finish_check(at);
    std::free(comm.pres);
    comm.pres = nullptr;
    return outcome;
}

// Gives a connection record its own copy of the node's addresses.
void copy_addresses(REXECCL_CONNECTION_INFO *connection, const REXECCL_NODE_INFO *node) {
    connection->nodeinfo = *node;
    connection->nodeinfo.plan = nullptr;
    connection->nodeinfo.nipnum = 0;
    connection->nodeinfo.next = nullptr;
    if (node->nipnum < 1)
        return;
    const auto count = static_cast<std::size_t>(node->nipnum);
    auto *copy = static_cast<REXECCL_NODE_LAN_INFO *>(std::calloc(count, sizeof(REXECCL_NODE_LAN_INFO)));
    if (copy == nullptr) {
        REXECCL_TRACE(1, "calloc() failed. (host=%s sock=%d errno=%d)", node->szhost, connection->sock,
                      errno);
        return;
    }
    std::memcpy(copy, node->plan, count * sizeof(REXECCL_NODE_LAN_INFO));
    connection->nodeinfo.plan = copy;
    connection->nodeinfo.nipnum = node->nipnum;
}

REXECCL_CONNECTION_INFO *make_record(const Candidate &at) {
    auto *connection =
        static_cast<REXECCL_CONNECTION_INFO *>(std::calloc(1, sizeof(REXECCL_CONNECTION_INFO)));
    if (connection == nullptr) {
        REXECCL_TRACE(1, "calloc() failed. (host=%s sock=%d errno=%d)", at.node->szhost, at.scratch.sock,
                      errno);
        return nullptr;
    }
    std::memcpy(connection->connstr, at.scratch.connstr, sizeof(connection->connstr));
    std::memcpy(connection->cnhost, at.node->szhost, sizeof(connection->cnhost));
    connection->sock = at.scratch.sock;
    connection->port = at.port;
    pthread_mutex_init(&connection->tdinfo.procctlmutex, nullptr);
    copy_addresses(connection, at.node);
    return connection;
}

// Connects to one node and checks the connection; *added receives its record.
Outcome connect_node(REXECCL_NODE_INFO *node, std::int32_t port, TRANS_PACKET_HEADER_INFO *request,
                     REXECCL_CONNECTION_INFO **added) {
    Candidate at = {.node = node, .port = port, .scratch = {}};
    const std::int32_t made =
        rexeccl_make_connection(node, port, &at.scratch.sock, at.scratch.connstr, sizeof(at.scratch.connstr));
    if (made != REXECCL_RET_SUCCESS) {
        REXECCL_TRACE(1, "rexeccl_make_connection() failed. (ret=%d host=%s port=%d)", made, node->szhost,
                      port);
        return {REXECCL_RET_FAIL_COMUNICATION, TRANS_RES_STAT_FAIL_COMUNICATION};
    }
    Outcome outcome = check_connection(at, request);
    if (outcome.ret == REXECCL_RET_SUCCESS) {
        *added = make_record(at);
        if (*added == nullptr)
            outcome = {REXECCL_RET_FAIL_MALLOC, TRANS_RES_STAT_FAIL_MEMALLOC};
    }
    if (outcome.ret != REXECCL_RET_SUCCESS)
        rexeccl_close_socket(at.scratch.sock);
    return outcome;
}

// Checks the arguments of rexeccl_connect_ex and clears the status of every node.
std::int32_t validate(REXECCL_NODE_INFO *nodes, REXECCL_CONNECTION_INFO **handle_out) {
    if (nodes == nullptr) {
        REXECCL_TRACE(1, "invalid parameter. (node=%p)", static_cast<void *>(nodes));
        return REXECCL_RET_FAIL_PARAMETER;
    }
    std::int32_t count = 0;
    for (REXECCL_NODE_INFO *node = nodes; node != nullptr; node = node->next, ++count) {
        if (node->szhost[0] == '\0' && node->nipnum < 1) {
            REXECCL_TRACE(1, "invalid parameter. (host=%s ipnum=%d)", node->szhost, node->nipnum);
            return REXECCL_RET_FAIL_PARAMETER;
        }
        node->nstatus = TRANS_RES_STAT_SUCCESS;
    }
    if (count < 1) {
        REXECCL_TRACE(1, "invalid parameter. (nodenum=%d)", count);
        return REXECCL_RET_FAIL_PARAMETER;
    }
    if (handle_out == nullptr) {
        REXECCL_TRACE(1, "invalid parameter. (phdl=%p)", static_cast<void *>(handle_out));
        return REXECCL_RET_FAIL_PARAMETER;
    }
    return REXECCL_RET_SUCCESS;
}

std::int32_t connect_all(REXECCL_NODE_INFO *nodes, std::int32_t port, REXECCL_CONNECTION_INFO **handle_out) {
    if (_rexeccl_initflag != TRANS_FLAG_ON) {
        REXECCL_TRACE(2, "not initialized. ()");
        return REXECCL_RET_FAIL_NOTINITIALIZED;
    }
    if (const std::int32_t ret = validate(nodes, handle_out); ret != REXECCL_RET_SUCCESS)
        return ret;
    *handle_out = nullptr;
    const Owned<TRANS_PACKET_HEADER_INFO> request(
        static_cast<TRANS_PACKET_HEADER_INFO *>(std::calloc(1, sizeof(TRANS_PACKET_HEADER_INFO))));
    if (request == nullptr) {
        REXECCL_TRACE(1, "calloc() failed. (errno=%d)", errno);
        return REXECCL_RET_FAIL_MALLOC;
    }
    std::int32_t running = REXECCL_RET_SUCCESS;
    REXECCL_CONNECTION_INFO **tail = handle_out;
    for (REXECCL_NODE_INFO *node = nodes; node != nullptr; node = node->next) {
        const Outcome outcome =
            connect_node(node, port != 0 ? port : _rexeccl_config.port, request.get(), tail);
        rexeccl_set_nodestat(node, outcome.status);
        if (outcome.ret != REXECCL_RET_SUCCESS)
            running = outcome.ret;
        if (*tail != nullptr)
            tail = &(*tail)->next;
    }
    return running != REXECCL_RET_SUCCESS && *handle_out != nullptr ? REXECCL_RET_FAIL_SERVER : running;
}

} // namespace

std::int32_t rexeccl_make_connection(const REXECCL_NODE_INFO *node, std::int32_t port, std::int32_t *sock_out,
                                     char *address_out, std::size_t length) {
    REXECCL_TRACE(8, "start - (host=%s port=%d)", node->szhost, port);
    std::memset(address_out, 0, length);
    *sock_out = -1;
    REXECCL_TRACE(8, "ipnum=%d", node->nipnum);
    const std::int32_t ret = try_addresses(node, port, sock_out, address_out, length);
    REXECCL_TRACE(8, "end - (ret=%d)", ret);
    return ret;
}

std::int32_t rexeccl_connect_ex(REXECCL_NODE_INFO *nodes, std::int32_t port,
                                REXECCL_CONNECTION_INFO **handle_out) {
    REXECCL_TRACE(4, "start - (node=%p port=%d phdl=%p)", static_cast<void *>(nodes), port,
                  static_cast<void *>(handle_out));
    const std::int32_t ret = connect_all(nodes, port, handle_out);
    REXECCL_TRACE(4, "end - (ret=%d conn_ft=%p)", ret,
                  handle_out != nullptr ? static_cast<void *>(*handle_out) : nullptr);
    return ret;
}
