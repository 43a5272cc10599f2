// Requests on open connections.
//
// rexeccl_multi_execparam starts one request thread a connection and joins them all; nobody cancels
// them. A request thread starts one communication thread, waits for it under the request's time limit,
// cancels it when the time is up, and joins it in every case. Each record is written by one thread at
// a time: by the request thread before the start of the communication thread and after its join, by
// that thread in between. So no lock is taken during an exchange.
#include "rexeccl/exchange.h"

#include "cancel.h"
#include "rexeccl/packet.h"
#include "rexeccl/settings.h"
#include "rexeccl/thread.h"
#include "rexeccl/trace.h"
#include "rexeccl/transfer.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

constexpr std::size_t header_size = sizeof(TRANS_PACKET_HEADER_INFO);
constexpr std::size_t envelope_size = sizeof(TRANS_REQ_EXEC_PARAM_INFO);
constexpr std::size_t result_size = sizeof(TRANS_RES_EXEC_PARAM_INFO);

// A failure inside this host: it becomes the status of the connection.
std::int32_t fail(REXECCL_CONNECTION_INFO *connection, std::int32_t status, std::int32_t ret) {
    connection->status = status;
    return ret;
}

const char *host_of(const REXECCL_CONNECTION_INFO *connection) {
    return connection->cnhost;
}

void reset_results(REXECCL_CONNECTION_INFO *connection) {
    REXECCL_EXEC_PARAM_INFO &param = connection->datainfo.execparam;
    connection->status = TRANS_RES_STAT_SUCCESS;
    param.ret = 0;
    param.out_size = 0;
    param.out_data = nullptr;
    connection->tdinfo.comm = {};
}

bool inputs_valid(const REXECCL_EXEC_PARAM_INFO &param) {
    return param.in_size <= INT_MAX - header_size - envelope_size &&
           (param.in_size == 0 || param.in_data != nullptr);
}

std::int32_t build_request(REXECCL_CONNECTION_INFO *connection) {
    const REXECCL_EXEC_PARAM_INFO &param = connection->datainfo.execparam;
    REXECCL_COMM_THREAD_INFO &comm = connection->tdinfo.comm;
    const std::size_t variable_size = envelope_size + param.in_size;
    comm.preq = static_cast<TRANS_PACKET_INFO *>(std::calloc(1, header_size + variable_size));
    if (comm.preq == nullptr) {
        REXECCL_TRACE(1, "calloc() failed. (host=%s errno=%d)", host_of(connection), errno);
        return fail(connection, TRANS_RES_STAT_FAIL_MEMALLOC, REXECCL_RET_FAIL_MALLOC);
    }
    TRANS_REQ_EXEC_PARAM_INFO envelope = {};
    std::memcpy(envelope.type, param.id, sizeof(envelope.type));
    envelope.limiter = param.limiter;
    envelope.size = param.in_size;
    std::memcpy(comm.preq->data, &envelope, sizeof(envelope));
    if (param.in_size > 0)
        std::memcpy(comm.preq->data + envelope_size, param.in_data, param.in_size);
    REXECCL_TRACE(4, "req->%s/%s", host_of(connection), connection->connstr);
    const auto wire_size = static_cast<std::uint32_t>(variable_size);
    rexeccl_make_packet_ex(&comm.preq->hdinfo, TRANS_REQ_EXEC_PARAM, 0, 0, wire_size, wire_size);
    rexeccl_conv_byteorder(comm.preq->data, TRANS_REQ_EXEC_PARAM);
    comm.reqsize = static_cast<std::int32_t>(header_size + variable_size);
    return REXECCL_RET_SUCCESS;
}

// Runs the communication thread under the request's time limit and joins it.
std::int32_t exchange(REXECCL_CONNECTION_INFO *connection) {
    const std::int32_t started = rexeccl_start_communication(connection);
    if (started != REXECCL_RET_SUCCESS) {
        REXECCL_TRACE(1, "rexeccl_create_thread() failed. (host=%s ret=%d)", host_of(connection), started);
        return fail(connection, TRANS_RES_STAT_FAIL_UNKOWN, REXECCL_RET_FAIL_UNKOWN);
    }
    const unsigned int tid = log_low32(connection->tdinfo.comm.tid);
    const std::int32_t waited =
        rexeccl_wait_thread(connection->tdinfo.comm.tid, connection->datainfo.execparam.restimeout);
    if (waited != REXECCL_RET_SUCCESS) {
        REXECCL_TRACE(1, "timeout. (host=%s tid=%#x ret=%d timeout=%d)", host_of(connection), tid, waited,
                      _rexeccl_policy.restimeout);
        rexeccl_abandon_communication(connection);
        return fail(connection, TRANS_RES_STAT_FAIL_CMDTIMEOUT, REXECCL_RET_FAIL_TIMEOUT);
    }
    std::int32_t ret = REXECCL_RET_SUCCESS;
    if (const int error = rexeccl_finish_communication(connection, &ret); error != 0) {
        REXECCL_TRACE(1, "pthread_join() failed. (host=%s tid=%#x errno=%d)", host_of(connection), tid,
                      error);
        return fail(connection, TRANS_RES_STAT_FAIL_UNKOWN, REXECCL_RET_FAIL_UNKOWN);
    }
    if (ret != REXECCL_RET_SUCCESS) {
        REXECCL_TRACE(1, "comm NG. (host=%s tid=%#x ret=%d)", host_of(connection), tid, ret);
        return fail(connection, TRANS_RES_STAT_FAIL_COMUNICATION, REXECCL_RET_FAIL_COMUNICATION);
    }
    return REXECCL_RET_SUCCESS;
}

std::int32_t copy_output(REXECCL_CONNECTION_INFO *connection, const char *data, std::uint32_t size) {
    REXECCL_EXEC_PARAM_INFO &param = connection->datainfo.execparam;
    if (size == 0)
        return REXECCL_RET_SUCCESS;
    param.out_data = std::calloc(1, size);
    if (param.out_data == nullptr) {
        REXECCL_TRACE(1, "calloc() failed. (host=%s errno=%d)", host_of(connection), errno);
        return fail(connection, TRANS_RES_STAT_FAIL_MEMALLOC, REXECCL_RET_FAIL_MALLOC);
    }
    std::memcpy(param.out_data, data, size);
    param.out_size = size;
    return REXECCL_RET_SUCCESS;
}

// Takes the data out of a response with status 0, whose body may be shorter than it says.
std::int32_t take_output(REXECCL_CONNECTION_INFO *connection) {
    TRANS_PACKET_INFO *response = connection->tdinfo.comm.pres;
    const std::size_t arrived = response->hdinfo.size;
    if (response->hdinfo.allsize == 0) {
        REXECCL_TRACE(1, "no data. (host=%s size=%u/%u)", host_of(connection), response->hdinfo.size,
                      response->hdinfo.allsize);
        return REXECCL_RET_SUCCESS;
    }
    if (arrived < result_size) {
        REXECCL_TRACE(1, "invalid body. (host=%s size=%zu)", host_of(connection), arrived);
        return fail(connection, TRANS_RES_STAT_FAIL_COMUNICATION, REXECCL_RET_FAIL_COMUNICATION);
    }
    rexeccl_conv_byteorder(response->data, TRANS_RES_EXEC_PARAM);
    TRANS_RES_EXEC_PARAM_INFO result = {};
    std::memcpy(&result, response->data, sizeof(result));
    if (result.size > arrived - result_size) {
        REXECCL_TRACE(1, "invalid data size. (host=%s size=%u/%zu)", host_of(connection), result.size,
                      arrived);
        return fail(connection, TRANS_RES_STAT_FAIL_COMUNICATION, REXECCL_RET_FAIL_COMUNICATION);
    }
    connection->datainfo.execparam.ret = static_cast<std::int32_t>(result.rts);
    return copy_output(connection, response->data + result_size, result.size);
}

std::int32_t judge_response(REXECCL_CONNECTION_INFO *connection) {
    const TRANS_PACKET_HEADER_INFO &header = connection->tdinfo.comm.pres->hdinfo;
    if (header.ncode != TRANS_RES_EXEC_PARAM) {
        REXECCL_TRACE(1, "invalid code. (host=%s res=%d)", host_of(connection), header.ncode);
        return fail(connection, TRANS_RES_STAT_FAIL_UNKOWN, REXECCL_RET_FAIL_UNKOWN);
    }
    if (header.status != TRANS_RES_STAT_SUCCESS) {
        REXECCL_TRACE(1, "invalid status. (host=%s stat=%d)", host_of(connection), header.status);
        return fail(connection, header.status, REXECCL_RET_FAIL_SERVER);
    }
    return take_output(connection);
}

std::int32_t run_request(REXECCL_CONNECTION_INFO *connection) {
    reset_results(connection);
    if (!inputs_valid(connection->datainfo.execparam)) {
        REXECCL_TRACE(1, "invalid parameter. (size=%u data=%p)", connection->datainfo.execparam.in_size,
                      connection->datainfo.execparam.in_data);
        return fail(connection, TRANS_RES_STAT_FAIL_UNKOWN, REXECCL_RET_FAIL_PARAMETER);
    }
    std::int32_t ret = build_request(connection);
    if (ret == REXECCL_RET_SUCCESS)
        ret = exchange(connection);
    if (ret == REXECCL_RET_SUCCESS)
        ret = judge_response(connection);
    return ret;
}

// Starts the request thread of each connection; returns 10 when none could be started, 7 when some could.
std::int32_t start_request_threads(REXECCL_CONNECTION_INFO *handle) {
    bool some_failed = false;
    bool some_started = false;
    for (REXECCL_CONNECTION_INFO *at = handle; at != nullptr; at = at->next) {
        at->status = TRANS_RES_STAT_SUCCESS;
        const std::int32_t ret = rexeccl_create_thread(
            [](void *connection) {
                return rexeccl_execparam(static_cast<REXECCL_CONNECTION_INFO *>(connection));
            },
            &_rexeccl_thattr_joinable, at, &at->tdinfo.tid);
        if (ret == REXECCL_RET_SUCCESS) {
            REXECCL_TRACE(4, ">>>execparam (tid=%#x host=%s)", log_low32(at->tdinfo.tid), host_of(at));
            some_started = true;
        } else {
            REXECCL_TRACE(1, "rexeccl_create_thread() failed. (host=%s ret=%d)", host_of(at), ret);
            at->status = TRANS_RES_STAT_FAIL_UNKOWN;
            at->tdinfo.tid = 0;
            some_failed = true;
        }
    }
    if (!some_failed)
        return REXECCL_RET_SUCCESS;
    return some_started ? REXECCL_RET_FAIL_SERVER : REXECCL_RET_FAIL_UNKOWN;
}

std::int32_t join_request_thread(REXECCL_CONNECTION_INFO *connection) {
    const unsigned int tid = log_low32(connection->tdinfo.tid);
    std::int32_t result = REXECCL_RET_SUCCESS;
    std::int32_t ret = REXECCL_RET_SUCCESS;
    if (const int error = rexeccl_join_thread(connection->tdinfo.tid, &result); error != 0) {
        REXECCL_TRACE(1, "pthread_join() failed. (host=%s tid=%#x errno=%d)", host_of(connection), tid,
                      error);
        connection->status = TRANS_RES_STAT_FAIL_UNKOWN;
        ret = REXECCL_RET_FAIL_SERVER;
    } else if (result != REXECCL_RET_SUCCESS) {
        if (connection->status == TRANS_RES_STAT_SUCCESS)
            connection->status = TRANS_RES_STAT_FAIL_UNKOWN;
        ret = REXECCL_RET_FAIL_SERVER;
    }
    REXECCL_TRACE(4, "<<<execparam (tid=%#x host=%s ret=%d stat=%d)", tid, host_of(connection), result,
                  connection->status);
    connection->tdinfo.tid = 0;
    return ret;
}

} // namespace

void rexeccl_execparam_cleanup(REXECCL_CONNECTION_INFO *connection) {
    REXECCL_TRACE(4, "start - (conn=%#x)", log_low32(connection));
    const CancelDisabled whole_cleanup;
    if (connection->tdinfo.comm.tid != 0)
        rexeccl_abandon_communication(connection);
    rexeccl_free_packets(connection);
}

std::int32_t rexeccl_execparam(REXECCL_CONNECTION_INFO *connection) {
    const CancelDisabled whole_request;
    REXECCL_TRACE(8, "start - (hdl=%p)", static_cast<void *>(connection));
    std::int32_t ret = REXECCL_RET_SUCCESS;
    if (_rexeccl_initflag != TRANS_FLAG_ON) {
        REXECCL_TRACE(2, "not initialized. ()");
        ret = REXECCL_RET_FAIL_NOTINITIALIZED;
    } else if (connection == nullptr) {
        REXECCL_TRACE(1, "invalid parameter. (hdl=%p)", static_cast<void *>(connection));
        ret = REXECCL_RET_FAIL_PARAMETER;
    } else {
        CancelCleanup<REXECCL_CONNECTION_INFO> cleanup(rexeccl_execparam_cleanup, connection);
        ret = run_request(connection);
        cleanup.dismiss();
        rexeccl_free_packets(connection);
    }
    REXECCL_TRACE(8, "end - (ret=%d)", ret);
    return ret;
}

std::int32_t rexeccl_multi_execparam(REXECCL_CONNECTION_INFO *handle) {
    REXECCL_TRACE(8, "start - (hdl=%#x)", log_low32(handle));
    std::int32_t ret = REXECCL_RET_SUCCESS;
    if (_rexeccl_initflag != TRANS_FLAG_ON) {
        REXECCL_TRACE(2, "not initialized. ()");
        ret = REXECCL_RET_FAIL_NOTINITIALIZED;
    } else if (handle == nullptr) {
        REXECCL_TRACE(1, "invalid parameter. (hdl=%#x)", 0U);
        ret = REXECCL_RET_FAIL_PARAMETER;
    } else {
        ret = start_request_threads(handle);
        for (REXECCL_CONNECTION_INFO *at = handle; at != nullptr; at = at->next)
            if (at->tdinfo.tid != 0 && join_request_thread(at) != REXECCL_RET_SUCCESS)
                ret = REXECCL_RET_FAIL_SERVER;
    }
    REXECCL_TRACE(8, "end - (ret=%d)", ret);
    return ret;
}
