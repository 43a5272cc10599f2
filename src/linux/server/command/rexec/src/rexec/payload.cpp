// The payloads of the four requests and of their answers; doc/protocol.md lists every field.
#include "rexec/payload.h"

#include "rexeccl/trace.h"

#include <cstring>
#include <initializer_list>

#include <arpa/inet.h>

namespace {

constexpr int to_network = TRANS_CONV_BYTEORDER_REQ | TRANS_CONV_BYTEORDER_NETWIRK;
constexpr int from_network = TRANS_CONV_BYTEORDER_RES | TRANS_CONV_BYTEORDER_NETWIRK;

// Copies a NUL-terminated text into a zeroed field and cuts what does not fit; false when it was cut.
template <std::size_t N>
bool store(char (&field)[N], const char *text) {
    const std::size_t length = strnlen(text, N);
    std::memcpy(field, text, length < N ? length : N - 1);
    return length < N;
}

// The same swap serves both directions.
void swap_order(std::int32_t &field) {
    field = static_cast<std::int32_t>(htonl(static_cast<std::uint32_t>(field)));
}

bool arguments_valid(const void *data, int size, int line, const char *function) {
    if (data != nullptr && size >= 0)
        return true;
    rexeccllog(1, "src/rexec", line, function, "invalid data. (data=%#x/%d)", log_low32(data), size);
    return false;
}

void convert_grpfo(int div, ZYNEXECGRPFO_EX_IN_PARAM *data) {
    if (div != to_network) {
        REXEC_TRACE(1, "invalid div. (div=%d)", div);
        return;
    }
    REXEC_TRACE(8, "b:timeout=%#x", data->timeout);
    swap_order(data->timeout);
    REXEC_TRACE(8, "a:timeout=%#x", data->timeout);
}

void convert_exscript(int div, void *data) {
    if (div == to_network) {
        auto *request = static_cast<ZYNEXECSCRIPT_EX_IN_PARAM *>(data);
        REXEC_TRACE(8, "b:timeout=%#x", request->timeout);
        swap_order(request->timeout);
        REXEC_TRACE(8, "a:timeout=%#x", request->timeout);
    } else if (div == from_network) {
        auto *response = static_cast<ZYNEXECSCRIPT_EX_OUT_PARAM *>(data);
        REXEC_TRACE(8, "b:sreturn=%d", response->sreturn);
        swap_order(response->sreturn);
        REXEC_TRACE(8, "a:sreturn=%d", response->sreturn);
    } else {
        REXEC_TRACE(1, "invalid div. (div=%d)", div);
    }
}

void convert_monitor(TRNSV_MRW_OUT_INFO *monitor) {
    REXEC_TRACE(8, "b:acttype=%d,action=%d,result=%d,sresult=%d,sreturn=%d", monitor->acttype,
                monitor->action, monitor->result, monitor->sresult, monitor->sreturn);
    for (std::int32_t *field :
         {&monitor->acttype, &monitor->action, &monitor->result, &monitor->sresult, &monitor->sreturn})
        swap_order(*field);
    REXEC_TRACE(8, "a:acttype=%d,action=%d,result=%d,sresult=%d,sreturn=%d", monitor->acttype,
                monitor->action, monitor->result, monitor->sresult, monitor->sreturn);
}

void convert_notice_request(ZYNEXEC_EXNOTICE_IN_PARAM *request) {
    REXEC_TRACE(8, "b:monnum=%#x, reserve1=%#x", request->monnum, request->reserve1);
    swap_order(request->monnum);
    swap_order(request->reserve1);
    REXEC_TRACE(8, "a:monnum=%#x, reserve1=%#x", request->monnum, request->reserve1);
}

void convert_notice_response(ZYNEXEC_EXNOTICE_OUT_PARAM *response) {
    REXEC_TRACE(8, "b:monnum=%#x", response->monnum);
    swap_order(response->monnum);
    REXEC_TRACE(8, "a:monnum=%#x", response->monnum);
    for (std::int32_t i = 0; i < response->monnum; ++i)
        convert_monitor(&response->mrwres[i]);
}

void convert_notice(int div, void *data) {
    if (div == to_network)
        convert_notice_request(static_cast<ZYNEXEC_EXNOTICE_IN_PARAM *>(data));
    else if (div == from_network)
        convert_notice_response(static_cast<ZYNEXEC_EXNOTICE_OUT_PARAM *>(data));
    else
        REXEC_TRACE(1, "invalid div. (div=%d)", div);
}

// Names the monitors of a notice or clear request: one by its name, or a category and its keyword.
void fill_selection(const REXEC_INFO *info, ZYNEXEC_EXNOTICE_IN_PARAM *data) {
    if (info->target[0] == '\0')
        return;
    if (info->monspecify != 0) {
        store(data->monname, info->target);
        return;
    }
    store(data->type, info->target);
    store(data->target, info->montarget);
}

} // namespace

void rexec_fill_grpfo(const REXEC_INFO *info, ZYNEXECGRPFO_EX_IN_PARAM *data) {
    REXEC_ENTER();
    data->timeout = info->cmdtimeout;
    if (info->target[0] != '\0')
        store(info->grpspecify != 0 ? data->grpname : data->rscname, info->target);
    REXEC_EXIT(0);
}

void rexec_fill_exscript(const REXEC_INFO *info, ZYNEXECSCRIPT_EX_IN_PARAM *data) {
    REXEC_ENTER();
    data->timeout = info->cmdtimeout;
    if (!store(data->script, info->script))
        REXEC_TRACE(2, "script name is cut to %zu characters.(%s)", sizeof(data->script) - 1, data->script);
    REXEC_EXIT(0);
}

void rexec_fill_notice(const REXEC_INFO *info, ZYNEXEC_EXNOTICE_IN_PARAM *data) {
    REXEC_ENTER();
    fill_selection(info, data);
    if (data->monname[0] != '\0')
        REXEC_TRACE(8, "monname=%s", data->monname);
    else if (data->target[0] != '\0')
        REXEC_TRACE(8, "type=%s, target=%s", data->type, data->target);
    else if (data->type[0] != '\0')
        REXEC_TRACE(8, "type=%s", data->type);
    REXEC_EXIT(0);
}

void rexec_fill_clear(const REXEC_INFO *info, ZYNEXEC_EXNOTICE_IN_PARAM *data) {
    REXEC_ENTER();
    data->monnum = 1;
    fill_selection(info, data);
    REXEC_EXIT(0);
}

void rexec_conv_byteorder_grpfo(int div, ZYNEXECGRPFO_EX_IN_PARAM *data, int size) {
    REXEC_TRACE(8, "start-(div=%d data=%#x size=%d)", div, log_low32(data), size);
    if (arguments_valid(data, size, __LINE__, __func__))
        convert_grpfo(div, data);
    REXEC_TRACE(8, "end-()");
}

void rexec_conv_byteorder_exscript(int div, void *data, int size) {
    REXEC_TRACE(8, "start-(div=%d data=%#x size=%d)", div, log_low32(data), size);
    if (arguments_valid(data, size, __LINE__, __func__))
        convert_exscript(div, data);
    REXEC_TRACE(8, "end-()");
}

void rexec_conv_byteorder_notice(int div, void *data, int size) {
    REXEC_TRACE(8, "start-(div=%d data=%#x size=%d)", div, log_low32(data), size);
    if (arguments_valid(data, size, __LINE__, __func__))
        convert_notice(div, data);
    REXEC_TRACE(8, "end-()");
}

void rexec_bound_monnum(ZYNEXEC_EXNOTICE_OUT_PARAM *data, std::uint32_t size) {
    REXEC_ENTER();
    const auto monnum = static_cast<std::int32_t>(ntohl(static_cast<std::uint32_t>(data->monnum)));
    const auto arrived = static_cast<std::int32_t>((size - sizeof(*data)) / sizeof(TRNSV_MRW_OUT_INFO));
    const std::int32_t bounded = monnum < 0 ? 0 : monnum < arrived ? monnum : arrived;
    if (bounded != monnum)
        REXEC_TRACE(1, "invalid monnum. (monnum=%d size=%u)", monnum, size);
    data->monnum = static_cast<std::int32_t>(htonl(static_cast<std::uint32_t>(bounded)));
    REXEC_EXIT(0);
}
