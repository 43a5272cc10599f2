// Decoding and encoding of the protocol's packets, field by field from the offsets of its records.
#include "wire.h"

#include "trans.h"
#include "trnexecgrpfo.h"
#include "trnexecnotice.h"
#include "trnexecscript.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace rehearsal {
namespace {

static_assert(header_size == sizeof(TRANS_PACKET_HEADER_INFO));

using View = std::span<const unsigned char>;

std::uint32_t get_u32(View bytes, std::size_t offset) {
    const View field = bytes.subspan(offset, 4);
    return std::uint32_t{field[0]} << 24 | std::uint32_t{field[1]} << 16 | std::uint32_t{field[2]} << 8 |
           std::uint32_t{field[3]};
}

std::int32_t get_i32(View bytes, std::size_t offset) {
    return static_cast<std::int32_t>(get_u32(bytes, offset));
}

std::string get_text(View bytes, std::size_t offset, std::size_t width) {
    const View field = bytes.subspan(offset, width);
    return {field.begin(), std::find(field.begin(), field.end(), 0)};
}

void put_text(Bytes &bytes, std::size_t offset, std::size_t width, std::string_view text) {
    std::copy_n(text.begin(), std::min(width, text.size()),
                bytes.begin() + static_cast<std::ptrdiff_t>(offset));
}

void put_i32(Bytes &bytes, std::size_t offset, std::int32_t value) {
    put_u32(bytes, offset, static_cast<std::uint32_t>(value));
}

void decode_failover(View payload, Request &request) {
    request.resource = get_text(payload, offsetof(ZYNEXECGRPFO_EX_IN_PARAM, rscname), TRNSV_NAME_LEN);
    request.group = get_text(payload, offsetof(ZYNEXECGRPFO_EX_IN_PARAM, grpname), TRNSV_NAME_LEN);
    request.timeout = get_i32(payload, offsetof(ZYNEXECGRPFO_EX_IN_PARAM, timeout));
}

void decode_script(View payload, Request &request) {
    request.script = get_text(payload, offsetof(ZYNEXECSCRIPT_EX_IN_PARAM, script), 256);
    request.timeout = get_i32(payload, offsetof(ZYNEXECSCRIPT_EX_IN_PARAM, timeout));
}

void decode_monitors(View payload, Request &request) {
    request.monitor = get_text(payload, offsetof(ZYNEXEC_EXNOTICE_IN_PARAM, monname), TRNSV_NAME_LEN);
    request.keyword = get_text(payload, offsetof(ZYNEXEC_EXNOTICE_IN_PARAM, target), 1024);
    request.category = get_text(payload, offsetof(ZYNEXEC_EXNOTICE_IN_PARAM, type), 128);
    request.monnum = get_i32(payload, offsetof(ZYNEXEC_EXNOTICE_IN_PARAM, monnum));
}

// A server function that the execute-parameter request can name.
struct Function {
    std::string_view id;
    RequestKind kind;
    std::size_t payload; // least bytes of its request payload
    void (*decode)(View payload, Request &request);
};

constexpr std::array<Function, 4> functions{{
    {ZYNEXECGRPFO_EX_ID, RequestKind::failover, sizeof(ZYNEXECGRPFO_EX_IN_PARAM), decode_failover},
    {ZYNEXECSCRIPT_EX_ID, RequestKind::script, sizeof(ZYNEXECSCRIPT_EX_IN_PARAM), decode_script},
    {ZYNEXECNOTICE_ID, RequestKind::notice, sizeof(ZYNEXEC_EXNOTICE_IN_PARAM), decode_monitors},
    {ZYNEXECCLEAR_ID, RequestKind::clear, sizeof(ZYNEXEC_EXNOTICE_IN_PARAM), decode_monitors},
}};

std::string decode_function(View body, Request &request) {
    if (body.size() < sizeof(TRANS_REQ_EXEC_PARAM_INFO)) {
        return "the variable part is shorter than its envelope";
    }
    const std::uint32_t size = get_u32(body, offsetof(TRANS_REQ_EXEC_PARAM_INFO, size));
    const View payload = body.subspan(sizeof(TRANS_REQ_EXEC_PARAM_INFO));
    if (size != payload.size()) {
        return "the envelope announces " + std::to_string(size) + " bytes of payload, " +
               std::to_string(payload.size()) + " came";
    }
    request.id = get_text(body, offsetof(TRANS_REQ_EXEC_PARAM_INFO, type), TRANS_ID_LEN);
    request.limiter = get_i32(body, offsetof(TRANS_REQ_EXEC_PARAM_INFO, limiter));
    request.kind = RequestKind::unknown_id;
    const auto *function = std::find_if(functions.begin(), functions.end(),
                                        [&](const Function &one) { return one.id == request.id; });
    if (function == functions.end()) {
        return {};
    }
    if (payload.size() < function->payload) {
        return "the payload of " + request.id + " is shorter than its record";
    }
    request.kind = function->kind;
    function->decode(payload, request);
    return {};
}

// Text of a peer as it may stand in one line of the journal.
std::string quoted(std::string_view text) {
    std::string out = "\"";
    for (const char c : text) {
        const bool plain = std::isprint(static_cast<unsigned char>(c)) && c != '"' && c != '\\';
        constexpr std::string_view digits = "0123456789abcdef";
        const auto byte = static_cast<unsigned char>(c);
        out += plain ? std::string(1, c) : std::string{'\\', 'x', digits[byte >> 4], digits[byte & 15]};
    }
    return out + '"';
}

constexpr std::array<std::string_view, 8> kind_names{"check",  "terminate", "failover",   "script",
                                                     "notice", "clear",     "unknown-id", "unknown-code"};

Bytes encode_script_result(std::int32_t exitcode) {
    Bytes bytes(sizeof(ZYNEXECSCRIPT_EX_OUT_PARAM));
    put_i32(bytes, offsetof(ZYNEXECSCRIPT_EX_OUT_PARAM, sreturn), exitcode);
    return bytes;
}

Bytes encode_monitor_results(const std::vector<MonitorResult> &results) {
    Bytes bytes(sizeof(ZYNEXEC_EXNOTICE_OUT_PARAM) + results.size() * sizeof(TRNSV_MRW_OUT_INFO));
    put_u32(bytes, offsetof(ZYNEXEC_EXNOTICE_OUT_PARAM, monnum), static_cast<std::uint32_t>(results.size()));
    std::size_t at = sizeof(ZYNEXEC_EXNOTICE_OUT_PARAM);
    for (const MonitorResult &one : results) {
        put_text(bytes, at + offsetof(TRNSV_MRW_OUT_INFO, name), TRNSV_NAME_LEN, one.name);
        put_i32(bytes, at + offsetof(TRNSV_MRW_OUT_INFO, acttype), one.acttype);
        put_i32(bytes, at + offsetof(TRNSV_MRW_OUT_INFO, action), one.action);
        put_i32(bytes, at + offsetof(TRNSV_MRW_OUT_INFO, result), one.result);
        put_i32(bytes, at + offsetof(TRNSV_MRW_OUT_INFO, sresult), one.preaction_status);
        put_i32(bytes, at + offsetof(TRNSV_MRW_OUT_INFO, sreturn), one.preaction_exitcode);
        at += sizeof(TRNSV_MRW_OUT_INFO);
    }
    return bytes;
}

} // namespace

Header decode_header(std::span<const unsigned char, header_size> bytes) {
    using Raw = TRANS_PACKET_HEADER_INFO;
    return {.magic = get_text(bytes, offsetof(Raw, magicwd), TRANS_MAGICWD_LEN),
            .version = get_text(bytes, offsetof(Raw, version), TRANS_VERSION_LEN),
            .edition = get_text(bytes, offsetof(Raw, clsinfo.edition), TRANS_VERSION_LEN),
            .cluster_version = get_text(bytes, offsetof(Raw, clsinfo.version), TRANS_VERSION_LEN),
            .code = get_i32(bytes, offsetof(Raw, ncode)),
            .seq = get_i32(bytes, offsetof(Raw, seq)),
            .status = get_i32(bytes, offsetof(Raw, status)),
            .allsize = get_u32(bytes, offsetof(Raw, allsize)),
            .size = get_u32(bytes, offsetof(Raw, size))};
}

std::string header_problem(const Header &header) {
    constexpr std::array words{TRANS_MAGICWD, TRANS_MAGICWD_LINUX, TRANS_MAGICWD_WINDOWS};
    if (std::find(words.begin(), words.end(), header.magic) == words.end()) {
        return "bad magic word " + quoted(header.magic);
    }
    if (header.size > TRANS_VARIABLE_MAX) {
        return "variable part of " + std::to_string(header.size) + " bytes is too large";
    }
    if (header.size != header.allsize) {
        return "sizes differ: " + std::to_string(header.size) + " of " + std::to_string(header.allsize);
    }
    return {};
}

std::string decode_request(const Header &header, View body, Request &request) {
    request = {.header = header};
    switch (header.code) {
    case TRANS_REQ_INITIALIZE_CHK:
        request.kind = RequestKind::check;
        return body.empty() ? "" : "a connection check carries no data";
    case TRANS_REQ_TERMINATE:
        request.kind = RequestKind::terminate;
        return body.empty() ? "" : "a farewell carries no data";
    case TRANS_REQ_EXEC_PARAM:
        return decode_function(body, request);
    default:
        return {};
    }
}

std::string_view kind_name(RequestKind kind) {
    return kind_names[static_cast<std::size_t>(kind)];
}

std::string describe(const Request &request) {
    std::string line{kind_name(request.kind)};
    const auto text = [&line](const char *name, const std::string &value) {
        line += value.empty() ? "" : std::string(" ") + name + "=" + quoted(value);
    };
    const auto number = [&line](const char *name, std::int32_t value) {
        line += std::string(" ") + name + "=" + std::to_string(value);
    };
    text("group", request.group);
    text("resource", request.resource);
    text("script", request.script);
    text("monitor", request.monitor);
    text("category", request.category);
    text("keyword", request.keyword);
    switch (request.kind) {
    case RequestKind::failover:
    case RequestKind::script:
        number("timeout", request.timeout);
        break;
    case RequestKind::notice:
    case RequestKind::clear:
        number("monnum", request.monnum);
        break;
    case RequestKind::unknown_id:
        text("id", request.id);
        break;
    case RequestKind::unknown_code:
        number("code", request.header.code);
        break;
    default:
        break;
    }
    return line;
}

Bytes encode_header(const Header &header) {
    using Raw = TRANS_PACKET_HEADER_INFO;
    Bytes bytes(header_size);
    put_text(bytes, offsetof(Raw, magicwd), TRANS_MAGICWD_LEN, header.magic);
    put_text(bytes, offsetof(Raw, version), TRANS_VERSION_LEN, header.version);
    put_text(bytes, offsetof(Raw, clsinfo.edition), TRANS_VERSION_LEN, header.edition);
    put_text(bytes, offsetof(Raw, clsinfo.version), TRANS_VERSION_LEN, header.cluster_version);
    put_i32(bytes, offsetof(Raw, ncode), header.code);
    put_i32(bytes, offsetof(Raw, seq), header.seq);
    put_i32(bytes, offsetof(Raw, status), header.status);
    put_u32(bytes, offsetof(Raw, allsize), header.allsize);
    put_u32(bytes, offsetof(Raw, size), header.size);
    return bytes;
}

Bytes encode_answer_body(const Bytes &payload) {
    Bytes bytes(sizeof(TRANS_RES_EXEC_PARAM_INFO));
    put_u32(bytes, offsetof(TRANS_RES_EXEC_PARAM_INFO, size), static_cast<std::uint32_t>(payload.size()));
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
}

Bytes encode_outcome(const Outcome &outcome) {
    if (outcome.exitcode)
        return encode_script_result(*outcome.exitcode);
    return outcome.monitors.empty() ? Bytes() : encode_monitor_results(outcome.monitors);
}

void put_u32(Bytes &bytes, std::size_t offset, std::uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes.at(offset++) = static_cast<unsigned char>(value >> shift & 0xffU);
    }
}

} // namespace rehearsal
