// One worker thread a target.
//
// A worker owns its payload, its node list and its connection list, and shares nothing with another;
// its record is the driver's and is only read. It keeps its own cancellation off until all is done,
// so a cancel at the command time-out ends no exchange: the request's own time limit does.
#include "rexec/worker.h"

#include "rexec/payload.h"
#include "rexec/report.h"
#include "rexeccl/cancel.h"
#include "rexeccl/trace.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

int _toflag = 0;
pthread_mutex_t mut_toflag;

namespace {

constexpr int request_order = TRANS_CONV_BYTEORDER_REQ | TRANS_CONV_BYTEORDER_NETWIRK;
constexpr int response_order = TRANS_CONV_BYTEORDER_RES | TRANS_CONV_BYTEORDER_NETWIRK;

void fill_grpfo(const REXEC_INFO *info, REXEC_PAYLOAD *payload) {
    rexec_fill_grpfo(info, &payload->grpfo);
    rexec_conv_byteorder_grpfo(request_order, &payload->grpfo, sizeof(payload->grpfo));
}

void fill_exscript(const REXEC_INFO *info, REXEC_PAYLOAD *payload) {
    rexec_fill_exscript(info, &payload->exscript);
    rexec_conv_byteorder_exscript(request_order, &payload->exscript, sizeof(payload->exscript));
}

void fill_notice(const REXEC_INFO *info, REXEC_PAYLOAD *payload) {
    rexec_fill_notice(info, &payload->notice);
    rexec_conv_byteorder_notice(request_order, &payload->notice, sizeof(payload->notice));
}

void fill_clear(const REXEC_INFO *info, REXEC_PAYLOAD *payload) {
    rexec_fill_clear(info, &payload->notice);
    rexec_conv_byteorder_notice(request_order, &payload->notice, sizeof(payload->notice));
}

void read_exscript(REXECCL_EXEC_PARAM_INFO *param) {
    rexec_conv_byteorder_exscript(response_order, param->out_data, sizeof(ZYNEXECSCRIPT_EX_OUT_PARAM));
}

void read_notice(REXECCL_EXEC_PARAM_INFO *param) {
    rexec_bound_monnum(static_cast<ZYNEXEC_EXNOTICE_OUT_PARAM *>(param->out_data), param->out_size);
    rexec_conv_byteorder_notice(response_order, param->out_data, sizeof(ZYNEXEC_EXNOTICE_OUT_PARAM));
}

// What differs from request to request.
struct Request {
    const char *reqcode;
    void *(*entry)(void *);
    std::uint32_t in_size;                             // bytes of payload sent
    std::uint32_t out_size_min;                        // bytes of payload an answer has at least
    void (*fill)(const REXEC_INFO *, REXEC_PAYLOAD *); // into network byte order
    void (*read)(REXECCL_EXEC_PARAM_INFO *);           // the answer, into host byte order; null: it has none
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

void set_exec_param(const REXEC_INFO *info, const Request &request, REXEC_PAYLOAD *payload,
                    REXECCL_EXEC_PARAM_INFO *param) {
    *param = {};
    param->in_size = request.in_size;
    static_assert(sizeof(param->id) == sizeof(info->reqcode));
    std::memcpy(param->id, info->reqcode, sizeof(param->id));
    param->limiter = 1;
    param->restimeout = info->cmdtimeout - 1;
    param->in_data = payload;
    REXEC_TRACE(8, "in_size=%u, id=\"%s\", limiter=%d, restimeout=%d", param->in_size, param->id,
                param->limiter, param->restimeout);
}

// Turns the answer of each connection into host byte order. An answer too short for its payload is
// dropped: the server's status still counts, there is just no detail to tell.
void read_answers(REXECCL_CONNECTION_INFO *connections, const Request &request) {
    if (request.read == nullptr)
        return;
    for (REXECCL_CONNECTION_INFO *at = connections; at != nullptr; at = at->next) {
        REXECCL_EXEC_PARAM_INFO *param = &at->datainfo.execparam;
        if (param->out_size >= request.out_size_min) {
            request.read(param);
        } else if (param->out_size != 0) {
            REXEC_TRACE(1, "invalid out_size. (%s size=%u)", at->connstr, param->out_size);
            free_output(param);
        }
    }
}

// Sends the request on every connection and prints the results.
int run_request(const REXEC_INFO *info, const Request &request, REXECCL_CONNECTION_INFO *connections) {
    REXEC_PAYLOAD payload;
    std::memset(&payload, 0, sizeof(payload));
    for (REXECCL_CONNECTION_INFO *at = connections; at != nullptr; at = at->next)
        set_exec_param(info, request, &payload, &at->datainfo.execparam);
    request.fill(info, &payload);
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

[[noreturn]] void run_worker(void *argument, const char *reqcode) {
    const int result = serve(static_cast<const REXEC_INFO *>(argument), *find_request(reqcode));
    rexec_increment_toflag();
    pthread_exit(reinterpret_cast<void *>(static_cast<std::intptr_t>(result)));
}

int connect_nodes(const REXEC_INFO *info, REXECCL_CONNECTION_INFO **connections, REXECCL_NODE_INFO **nodes) {
    if (*connections != nullptr) {
        REXEC_TRACE(2, "already connected trnsv.");
        return REXEC_SUCCESS;
    }
    if (const int ret = rexec_createnodelist(info, nodes); ret != REXEC_SUCCESS) {
        REXEC_TRACE(1, "rexec_getnodelist failed.(ret=%d)", ret);
        return ret;
    }
    int index = 0;
    for (const REXECCL_NODE_INFO *node = *nodes; node != nullptr; node = node->next)
        REXEC_TRACE(4, "connect_sv%d=%s", index++, node->szhost);
    const std::int32_t ret = rexeccl_connect_ex(*nodes, 0, connections);
    if (ret == REXECCL_RET_SUCCESS || ret == REXECCL_RET_FAIL_SERVER)
        return rexec_trnerrcon(*nodes);
    REXEC_TRACE(1, "all server connect failed.(ret=%d)", ret);
    for (const REXECCL_NODE_INFO *node = *nodes; node != nullptr; node = node->next)
        rexec_print_connfail(node->szhost);
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
    run_worker(info, ZYNEXECGRPFO_EX_ID);
}

void *rexec_exec_exscript(void *info) {
    REXEC_ENTER();
    run_worker(info, ZYNEXECSCRIPT_EX_ID);
}

void *rexec_exec_notice(void *info) {
    REXEC_ENTER();
    run_worker(info, ZYNEXECNOTICE_ID);
}

void *rexec_exec_clear(void *info) {
    REXEC_ENTER();
    run_worker(info, ZYNEXECCLEAR_ID);
}

void rexec_report_notstarted(const REXEC_INFO *info) {
    REXEC_ENTER();
    rexec_print_connfail(info->ipaddr[0]);
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
