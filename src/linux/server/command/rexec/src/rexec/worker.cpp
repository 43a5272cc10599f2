// One worker thread a target.
//
// A worker owns its payload, its node list and its connection list, and shares nothing with another;
// its record is the driver's and is only read. It keeps its own cancellation off until all is done,
// so a cancel at the command time-out ends no exchange: the request's own time limit does.
#include "rexec/worker.h"

#include "cancel.h"
#include "rexec/payload.h"
#include "rexec/report.h"
#include "rexeccl/trace.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

int _toflag = 0;
pthread_mutex_t mut_toflag;

namespace {

constexpr int request_order = TRANS_CONV_BYTEORDER_REQ | TRANS_CONV_BYTEORDER_NETWIRK;
constexpr int response_order = TRANS_CONV_BYTEORDER_RES | TRANS_CONV_BYTEORDER_NETWIRK;

void fill_grpfo(const REXEC_INFO *info, const REXECCL_EXEC_PARAM_INFO *param) {
    auto *payload = static_cast<REXEC_PAYLOAD *>(param->in_data);
    rexec_fill_grpfo(info, &payload->grpfo);
    rexec_conv_byteorder_grpfo(request_order, &payload->grpfo, sizeof(payload->grpfo));
}

void fill_exscript(const REXEC_INFO *info, const REXECCL_EXEC_PARAM_INFO *param) {
    auto *payload = static_cast<REXEC_PAYLOAD *>(param->in_data);
    rexec_fill_exscript(info, &payload->exscript);
    rexec_conv_byteorder_exscript(request_order, &payload->exscript, sizeof(payload->exscript));
}

void fill_notice(const REXEC_INFO *info, const REXECCL_EXEC_PARAM_INFO *param) {
    auto *payload = static_cast<REXEC_PAYLOAD *>(param->in_data);
    rexec_fill_notice(info, &payload->notice);
    REXEC_TRACE(8, "in_size=%d, id=\"%s\", limiter=%d, restimeout=%d", static_cast<int>(param->in_size),
                param->id, param->limiter, param->restimeout);
    rexec_conv_byteorder_notice(request_order, &payload->notice, sizeof(payload->notice));
}

void fill_clear(const REXEC_INFO *info, const REXECCL_EXEC_PARAM_INFO *param) {
    auto *payload = static_cast<REXEC_PAYLOAD *>(param->in_data);
    rexec_fill_clear(info, &payload->notice);
    rexec_conv_byteorder_notice(request_order, &payload->notice, sizeof(payload->notice));
}

void read_exscript(const REXECCL_EXEC_PARAM_INFO *param) {
    rexec_conv_byteorder_exscript(response_order, param->out_data, sizeof(ZYNEXECSCRIPT_EX_OUT_PARAM));
}

void read_notice(const REXECCL_EXEC_PARAM_INFO *param) {
    if (param->out_data != nullptr)
        rexec_bound_monnum(static_cast<ZYNEXEC_EXNOTICE_OUT_PARAM *>(param->out_data), param->out_size);
    rexec_conv_byteorder_notice(response_order, param->out_data, sizeof(ZYNEXEC_EXNOTICE_OUT_PARAM));
}

// What differs from request to request.
struct Request {
    const char *reqcode;
    void *(*entry)(void *);
    std::uint32_t in_size;      // bytes of payload sent
    std::uint32_t out_size_min; // bytes of payload an answer has at least
    // Fills the payload behind in_data, in network byte order.
    void (*fill)(const REXEC_INFO *, const REXECCL_EXEC_PARAM_INFO *);
    // Turns the answer into host byte order, where there is one; null: the request has none.
    void (*read)(const REXECCL_EXEC_PARAM_INFO *);
};

constexpr auto requests = std::to_array<Request>({
    {ZYNEXECGRPFO_EX_ID, rexec_exec_grpfo, sizeof(ZYNEXECGRPFO_EX_IN_PARAM), 0, fill_grpfo, nullptr},
    {ZYNEXECSCRIPT_EX_ID, rexec_exec_exscript, sizeof(ZYNEXECSCRIPT_EX_IN_PARAM),
     sizeof(ZYNEXECSCRIPT_EX_OUT_PARAM), fill_exscript, read_exscript},
    {ZYNEXECNOTICE_ID, rexec_exec_notice, sizeof(ZYNEXEC_EXNOTICE_IN_PARAM),
     sizeof(ZYNEXEC_EXNOTICE_OUT_PARAM), fill_notice, read_notice},
    {ZYNEXECCLEAR_ID, rexec_exec_clear, sizeof(ZYNEXEC_EXNOTICE_IN_PARAM), sizeof(ZYNEXEC_EXNOTICE_OUT_PARAM),
     fill_clear, read_notice},
});

const Request *find_request(const char *reqcode) {
    for (const Request &request : requests)
        if (std::strcmp(request.reqcode, reqcode) == 0)
            return &request;
    return nullptr;
}

void free_output(REXECCL_EXEC_PARAM_INFO *param) {
    std::free(param->out_data);
    param->out_data = nullptr;
    param->out_size = 0;
}

REXECCL_EXEC_PARAM_INFO make_exec_param(const REXEC_INFO *info, const Request &request,
                                        REXEC_PAYLOAD *payload) {
    REXECCL_EXEC_PARAM_INFO param = {};
    param.in_size = request.in_size;
    static_assert(sizeof(param.id) == sizeof(info->reqcode));
    std::memcpy(param.id, info->reqcode, sizeof(param.id));
    param.limiter = 1;
    param.restimeout = info->cmdtimeout - 1;
    param.in_data = payload;
    return param;
}

// Turns the answer of each connection into host byte order. An answer too short for its payload is
// dropped: the server's status still counts, there is just no detail to tell.
void read_answers(REXECCL_CONNECTION_INFO *connections, const Request &request) {
    if (request.read == nullptr)
        return;
    for (REXECCL_CONNECTION_INFO *at = connections; at != nullptr; at = at->next) {
        REXECCL_EXEC_PARAM_INFO *param = &at->datainfo.execparam;
        if (param->out_size != 0 && param->out_size < request.out_size_min) {
            REXEC_TRACE(1, "invalid out_size. (%s size=%u)", at->connstr, param->out_size);
            free_output(param);
        }
        request.read(param);
    }
}

// Sends the request on every connection and prints the results.
int run_request(const REXEC_INFO *info, const Request &request, REXECCL_CONNECTION_INFO *connections) {
    REXEC_PAYLOAD payload;
    std::memset(&payload, 0, sizeof(payload));
    const REXECCL_EXEC_PARAM_INFO param = make_exec_param(info, request, &payload);
    request.fill(info, &param);
    for (REXECCL_CONNECTION_INFO *at = connections; at != nullptr; at = at->next)
        at->datainfo.execparam = param;
    REXEC_TRACE(4, "rexeccl_multi_execparam(%s) start...", info->reqcode);
    const std::int32_t ret = rexeccl_multi_execparam(connections);
    REXEC_TRACE(4, "rexeccl_multi_execparam(ret=%d) ", ret);
    int result = REXEC_FAIL_COMMAND;
    if (ret == REXECCL_RET_SUCCESS || ret == REXECCL_RET_FAIL_SERVER) {
        read_answers(connections, request);
        result = rexec_trnerrcmd(info, connections);
    }
    for (REXECCL_CONNECTION_INFO *at = connections; at != nullptr; at = at->next)
        free_output(&at->datainfo.execparam);
    return result;
}

int serve(const REXEC_INFO *info, const Request &request) {
    const CancelDisabled until_all_is_done;
    REXECCL_CONNECTION_INFO *connections = nullptr;
    REXECCL_NODE_INFO *nodes = nullptr;
    int result = rexec_trn_connect(info, &connections, &nodes);
    if (result != REXEC_SUCCESS)
        REXEC_TRACE(1, "rexec_trn_connect failed.(ret=%d)", result);
    else
        result = run_request(info, request, connections);
    rexec_trn_discon(&connections, &nodes);
    return result;
}

int serve_request(const void *argument, const char *reqcode) {
    return serve(static_cast<const REXEC_INFO *>(argument), *find_request(reqcode));
}

[[noreturn]] void end_worker(int result) {
    rexec_increment_toflag();
    act_on_cancel(); // the one place where the driver's cancel at the command time-out takes effect
    pthread_exit(reinterpret_cast<void *>(static_cast<std::intptr_t>(result)));
}

int connect_nodes(const REXEC_INFO *info, REXECCL_CONNECTION_INFO **connections, REXECCL_NODE_INFO **nodes) {
    if (*connections != nullptr) {
        REXEC_TRACE(2, "already connected trnsv.");
        return REXEC_SUCCESS;
    }
    if (const int ret = rexec_createnodelist(info, nodes); ret != REXEC_SUCCESS) {
        REXEC_TRACE(1, "rexec_getnodelist failed.(ret=%d)", ret);
        rexec_report_unconnected(info);
        return ret;
    }
    int index = 0;
    for (const REXECCL_NODE_INFO *node = *nodes; node != nullptr; node = node->next)
        REXEC_TRACE(4, "connect_sv%d=%s", index++, node->szhost);
    const std::int32_t ret = rexeccl_connect_ex(*nodes, 0, connections);
    if (ret == REXECCL_RET_SUCCESS || ret == REXECCL_RET_FAIL_SERVER)
        return rexec_trnerrcon(*nodes);
    REXEC_TRACE(1, "all server connect failed.(ret=%d)", ret);
    rexec_print_connfail(*nodes);
    return REXEC_FAIL_CONNECT;
}

int build_nodelist(const REXEC_INFO *info, REXECCL_NODE_INFO **nodes) {
    if (*nodes != nullptr) {
        REXEC_TRACE(2, "already get ptrnode.");
        return REXEC_SUCCESS;
    }
    std::int32_t size = 0;
    std::int32_t ret = rexeccl_createnodelist(info->ipnum, nullptr, nullptr, &size);
    if (ret != REXECCL_RET_SUCCESS && ret != REXECCL_RET_FAIL_SERVER) {
        REXEC_TRACE(1, "rexeccl_createnodelist() failed.(ret=%d)", ret);
        return REXEC_FAIL_NODELIST;
    }
    REXEC_TRACE(8, "rexeccl_createnodelist() success.");
    if (size == 0) {
        REXEC_TRACE(1, "rexeccl_createnodelist() size error.");
        return REXEC_FAIL_NODELIST;
    }
    *nodes = static_cast<REXECCL_NODE_INFO *>(std::malloc(static_cast<std::size_t>(size)));
    if (*nodes == nullptr) {
        REXEC_TRACE(1, "malloc(%d:ptrnode) failed(err:%d).", size, errno);
        return REXEC_FAIL_MALLOC;
    }
    REXEC_TRACE(8, "malloc(%d:ptrnode) success.", size);
    std::memset(static_cast<void *>(*nodes), 0, static_cast<std::size_t>(size));
    ret = rexeccl_createnodelist(info->ipnum, *nodes, info->ipaddr, &size);
    if (ret != REXECCL_RET_SUCCESS) {
        REXEC_TRACE(1, "rexeccl_createnodelist() failed.(ret=%d)", ret);
        return REXEC_FAIL_NODELIST;
    }
    REXEC_TRACE(8, "rexeccl_createnodelist() success.");
    return REXEC_SUCCESS;
}

} // namespace

void *(*rexec_find_worker(const char *reqcode))(void *) {
    const Request *request = find_request(reqcode);
    return request != nullptr ? request->entry : nullptr;
}

void *rexec_exec_grpfo(void *info) {
    REXEC_ENTER();
    const int result = serve_request(info, ZYNEXECGRPFO_EX_ID);
    REXEC_EXIT(result);
    end_worker(result);
}

void *rexec_exec_exscript(void *info) {
    REXEC_ENTER();
    const int result = serve_request(info, ZYNEXECSCRIPT_EX_ID);
    REXEC_EXIT(result);
    end_worker(result);
}

void *rexec_exec_notice(void *info) {
    REXEC_ENTER();
    const int result = serve_request(info, ZYNEXECNOTICE_ID);
    REXEC_EXIT(result);
    end_worker(result);
}

void *rexec_exec_clear(void *info) {
    REXEC_ENTER();
    const int result = serve_request(info, ZYNEXECCLEAR_ID);
    REXEC_EXIT(result);
    end_worker(result);
}

void rexec_report_unconnected(const REXEC_INFO *info) {
    REXEC_ENTER();
    REXECCL_NODE_INFO node = {};
    std::snprintf(node.szhost, sizeof(node.szhost), "%s", info->ipaddr[0]);
    rexec_print_connfail(&node);
    REXEC_EXIT(0);
}

void rexec_increment_toflag() {
    REXEC_ENTER();
    int count = 0;
    {
        const MutexLock lock(mut_toflag);
        count = ++_toflag;
    }
    REXEC_EXIT(count);
}

int rexec_get_toflag() {
    REXEC_ENTER();
    int count = 0;
    {
        const MutexLock lock(mut_toflag);
        count = _toflag;
    }
    REXEC_EXIT(count);
    return count;
}

int rexec_createnodelist(const REXEC_INFO *info, REXECCL_NODE_INFO **nodes) {
    REXEC_ENTER();
    const int ret = build_nodelist(info, nodes);
    REXEC_EXIT(ret);
    return ret;
}

int rexec_trn_connect(const REXEC_INFO *info, REXECCL_CONNECTION_INFO **connections,
                      REXECCL_NODE_INFO **nodes) {
    REXEC_ENTER();
    const int ret = connect_nodes(info, connections, nodes);
    REXEC_EXIT(ret);
    return ret;
}

int rexec_trn_discon(REXECCL_CONNECTION_INFO **connections, REXECCL_NODE_INFO **nodes) {
    REXEC_ENTER();
    int ret = REXEC_SUCCESS;
    if (*connections != nullptr) {
        const std::int32_t closed = rexeccl_disconnect_ex(*connections, *nodes);
        const bool judged = closed == REXECCL_RET_SUCCESS || closed == REXECCL_RET_FAIL_SERVER;
        ret = judged ? rexec_trnerrdiscon(*nodes) : REXEC_FAIL_DISCONNECT;
        *connections = nullptr;
    }
    if (*nodes != nullptr)
        rexec_trn_freelist(nodes);
    REXEC_EXIT(ret);
    return ret;
}

void rexec_trn_freelist(REXECCL_NODE_INFO **nodes) {
    REXEC_ENTER();
    std::free(*nodes);
    *nodes = nullptr;
    REXEC_TRACE(8, "free(ptrnode) success.");
    REXEC_EXIT(0);
}
