// Farewell to the targets: on every connection one exchange, whatever became of the request, and then
// everything the connection held is given back.
#include "rexeccl.h"

#include "cancel.h"
#include "rexeccl/node.h"
#include "rexeccl/packet.h"
#include "rexeccl/settings.h"
#include "rexeccl/socket.h"
#include "rexeccl/thread.h"
#include "rexeccl/trace.h"
#include "rexeccl/transfer.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

template <typename T>
std::int32_t count_list(const T *list) {
    std::int32_t count = 0;
    for (; list != nullptr; list = list->next)
        ++count;
    return count;
}

bool bears_address(const REXECCL_NODE_INFO *node, const char *address) {
    if (std::strcmp(node->szhost, address) == 0)
        return true;
    for (std::int32_t i = 0; i < node->nipnum; ++i)
        if (node->plan[i].szip[0] != '\0' && std::strncmp(node->plan[i].szip, address, TRANS_IP_LEN) == 0)
            return true;
    return false;
}

REXECCL_NODE_INFO *find_node(REXECCL_NODE_INFO *nodes, const REXECCL_CONNECTION_INFO *connection) {
    for (REXECCL_NODE_INFO *node = nodes; node != nullptr; node = node->next)
        if (bears_address(node, connection->connstr))
            return node;
    REXECCL_TRACE(2, "unmatch node. (host=%s)", connection->cnhost);
    return nullptr;
}

// Waits for the answer to the farewell; a server that does not answer is no failure of the request.
void finish_farewell(REXECCL_CONNECTION_INFO *connection) {
    const char *host = connection->cnhost;
    const unsigned int tid = log_low32(connection->tdinfo.comm.tid);
    const std::int32_t waited = rexeccl_wait_thread(connection->tdinfo.comm.tid, _rexeccl_policy.restimeout);
    if (waited != REXECCL_RET_SUCCESS) {
        REXECCL_TRACE(1, "timeout. (host=%s tid=%#x ret=%d timeout=%d)", host, tid, waited,
                      _rexeccl_policy.restimeout);
        pthread_cancel(connection->tdinfo.comm.tid);
    }
    std::int32_t ret = REXECCL_RET_SUCCESS;
    if (const int error = rexeccl_finish_communication(connection, &ret); error != 0)
        REXECCL_TRACE(1, "pthread_join() failed. (host=%s tid=%#x errno=%d)", host, tid, error);
    else if (waited == REXECCL_RET_SUCCESS && ret != REXECCL_RET_SUCCESS)
        REXECCL_TRACE(1, "comm NG. (host=%s tid=%#x ret=%d)", host, tid, ret);
}

// Returns REXECCL_RET_FAIL_SERVER for a status that is a failure, otherwise 0.
std::int32_t judge_farewell(const REXECCL_CONNECTION_INFO *connection, REXECCL_NODE_INFO *node) {
    const TRANS_PACKET_INFO *response = connection->tdinfo.comm.pres;
    if (response == nullptr)
        return REXECCL_RET_SUCCESS;
    const TRANS_PACKET_HEADER_INFO &header = response->hdinfo;
    if (header.ncode != TRANS_RES_TERMINATE) {
        REXECCL_TRACE(1, "invalid code. (host=%s res=%d)", connection->cnhost, header.ncode);
        rexeccl_set_nodestat(node, TRANS_RES_STAT_FAIL_UNKOWN);
        return REXECCL_RET_SUCCESS;
    }
    rexeccl_set_nodestat(node, header.status);
    if (header.status == TRANS_RES_STAT_SUCCESS)
        return REXECCL_RET_SUCCESS;
    REXECCL_TRACE(1, "invalid status. (host=%s stat=%d)", connection->cnhost, header.status);
    return REXECCL_RET_FAIL_SERVER;
}

std::int32_t say_farewell(REXECCL_CONNECTION_INFO *connection, REXECCL_NODE_INFO *node) {
    REXECCL_COMM_THREAD_INFO &comm = connection->tdinfo.comm;
    comm = {};
    comm.preq = static_cast<TRANS_PACKET_INFO *>(std::calloc(1, sizeof(TRANS_PACKET_HEADER_INFO)));
    if (comm.preq == nullptr) {
        REXECCL_TRACE(1, "calloc() failed. (host=%s errno=%d)", connection->cnhost, errno);
        rexeccl_set_nodestat(node, TRANS_RES_STAT_FAIL_MEMALLOC);
        return REXECCL_RET_SUCCESS;
    }
    rexeccl_make_packet_ex(&comm.preq->hdinfo, TRANS_REQ_TERMINATE, 1, 0, 0, 0);
    comm.reqsize = sizeof(TRANS_PACKET_HEADER_INFO);
    const std::int32_t started = rexeccl_start_communication(connection);
    if (started != REXECCL_RET_SUCCESS) {
        REXECCL_TRACE(1, "rexeccl_create_thread() failed. (host=%s ret=%d)", connection->cnhost, started);
        return REXECCL_RET_SUCCESS;
    }
    finish_farewell(connection);
    return judge_farewell(connection, node);
}

void free_connection(REXECCL_CONNECTION_INFO *connection) {
    pthread_mutex_destroy(&connection->tdinfo.procctlmutex);
    rexeccl_close_socket(connection->sock);
    rexeccl_free_packets(connection);
    std::free(connection->nodeinfo.plan);
    std::free(connection);
}

std::int32_t disconnect_all(REXECCL_CONNECTION_INFO *handle, REXECCL_NODE_INFO *nodes) {
    std::int32_t ret = REXECCL_RET_SUCCESS;
    while (handle != nullptr) {
        REXECCL_CONNECTION_INFO *connection = handle;
        handle = connection->next;
        REXECCL_NODE_INFO *node = find_node(nodes, connection);
        REXECCL_TRACE(4, "disconnect host->%s/%s", connection->cnhost, connection->connstr);
        rexeccl_set_nodestat(node, TRANS_RES_STAT_SUCCESS);
        if (const std::int32_t said = say_farewell(connection, node); said != REXECCL_RET_SUCCESS)
            ret = said;
        free_connection(connection);
    }
    return ret;
}

std::int32_t check_disconnect(const REXECCL_CONNECTION_INFO *handle, const REXECCL_NODE_INFO *nodes) {
    if (_rexeccl_initflag != TRANS_FLAG_ON) {
        REXECCL_TRACE(2, "not initialized. ()");
        return REXECCL_RET_FAIL_NOTINITIALIZED;
    }
    if (handle == nullptr) {
        REXECCL_TRACE(1, "invalid parameter. (hdl=%p)", static_cast<const void *>(handle));
        return REXECCL_RET_FAIL_PARAMETER;
    }
    if (nodes == nullptr) {
        REXECCL_TRACE(1, "invalid parameter. (node=%p)", static_cast<const void *>(nodes));
        return REXECCL_RET_FAIL_PARAMETER;
    }
    const std::int32_t node_count = count_list(nodes);
    const std::int32_t connection_count = count_list(handle);
    if (node_count < connection_count) {
        REXECCL_TRACE(1, "invalid node. (nodenum=%d connnum=%d)", node_count, connection_count);
        return REXECCL_RET_FAIL_PARAMETER;
    }
    return REXECCL_RET_SUCCESS;
}

} // namespace

std::int32_t rexeccl_disconnect_ex(REXECCL_CONNECTION_INFO *handle, REXECCL_NODE_INFO *nodes) {
    const CancelDisabled whole_farewell;
    REXECCL_TRACE(4, "start - (hdl=%p node=%p)", static_cast<void *>(handle), static_cast<void *>(nodes));
    std::int32_t ret = check_disconnect(handle, nodes);
    if (ret == REXECCL_RET_SUCCESS)
        ret = disconnect_all(handle, nodes);
    REXECCL_TRACE(4, "end - (ret=%d)", ret);
    return ret;
}
