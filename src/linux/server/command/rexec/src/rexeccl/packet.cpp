// Packets of the data transfer protocol.
#include "rexeccl/packet.h"

#include "rexeccl.h"
#include "rexeccl/settings.h"
#include "rexeccl/trace.h"

#include <algorithm>
#include <array>
#include <cstring>

#include <arpa/inet.h>

namespace {

// Codes outside this range are unknown; inside it, those without a row have nothing to convert.
constexpr std::int32_t dispatch_min = TRANS_REQ_HEAD;
constexpr std::int32_t dispatch_max = TRANS_RES_INITIALIZE_CHK;

// One integer of one record. The fields of a record stand in the order of their conversion.
struct Field {
    std::int32_t dispatch;
    const char *record;
    const char *name;
    std::size_t offset; // bytes from the start of the record
};

constexpr auto fields = std::to_array<Field>({
    {TRANS_REQ_HEAD, "TRANS_REQ_HEAD", "ncode", offsetof(TRANS_PACKET_HEADER_INFO, ncode)},
    {TRANS_REQ_HEAD, "TRANS_REQ_HEAD", "seq", offsetof(TRANS_PACKET_HEADER_INFO, seq)},
    {TRANS_REQ_HEAD, "TRANS_REQ_HEAD", "status", offsetof(TRANS_PACKET_HEADER_INFO, status)},
    {TRANS_REQ_HEAD, "TRANS_REQ_HEAD", "allsize", offsetof(TRANS_PACKET_HEADER_INFO, allsize)},
    {TRANS_REQ_HEAD, "TRANS_REQ_HEAD", "size", offsetof(TRANS_PACKET_HEADER_INFO, size)},
    {TRANS_RES_HEAD, "TRANS_RES_HEAD", "ncode", offsetof(TRANS_PACKET_HEADER_INFO, ncode)},
    {TRANS_RES_HEAD, "TRANS_RES_HEAD", "seq", offsetof(TRANS_PACKET_HEADER_INFO, seq)},
    {TRANS_RES_HEAD, "TRANS_RES_HEAD", "status", offsetof(TRANS_PACKET_HEADER_INFO, status)},
    {TRANS_RES_HEAD, "TRANS_RES_HEAD", "allsize", offsetof(TRANS_PACKET_HEADER_INFO, allsize)},
    {TRANS_RES_HEAD, "TRANS_RES_HEAD", "size", offsetof(TRANS_PACKET_HEADER_INFO, size)},
    {TRANS_RES_LAN_NODEINFO, "TRANS_RES_LAN_NODEINFO", "npriority", offsetof(TRANS_NODE_LAN_INFO, npriority)},
    {TRANS_RES_NODEINFO, "TRANS_RES_NODEINFO", "npriority", offsetof(TRANS_NODE_INFO, npriority)},
    {TRANS_RES_NODEINFO, "TRANS_RES_NODEINFO", "nsize", offsetof(TRANS_NODE_INFO, nsize)},
    {TRANS_RES_INFO_NODE, "TRANS_RES_INFO_NODE", "nnodenum",
     offsetof(TRANS_RES_NODE_INFO, nnodenum)}, // its nsize stays as received
    {TRANS_RES_GET_NODENUM, "TRANS_RES_GET_NODENUM", "nnodenum", offsetof(TRANS_RES_NODENUM_INFO, nnodenum)},
    {TRANS_RES_GET_NODENUM, "TRANS_RES_GET_NODENUM", "nipnum", offsetof(TRANS_RES_NODENUM_INFO, nipnum)},
    {TRANS_REQ_GET_LOG_ARSIZE, "TRANS_REQ_GET_LOG_ARSIZE", "syslogrotatenum",
     offsetof(TRANS_REQ_ARSIZE_INFO, syslogrotatenum)},
    {TRANS_RES_GET_LOG_ARSIZE, "TRANS_RES_GET_ARSIZE", "arsize", offsetof(TRANS_RES_ARSIZE_INFO, arsize)},
    {TRANS_RES_GET_ARSIZE, "TRANS_RES_GET_ARSIZE", "arsize", offsetof(TRANS_RES_ARSIZE_INFO, arsize)},
    {TRANS_REQ_DELIVERY, "TRANS_REQ_DELIVERY", "arsize", offsetof(TRANS_REQ_DELIVERY_INFO, arsize)},
    {TRANS_REQ_DELIVERY, "TRANS_REQ_DELIVERY", "size", offsetof(TRANS_REQ_DELIVERY_INFO, size)},
    {TRANS_REQ_DELIVERY_NEXT, "TRANS_REQ_DELIVERY", "arsize", offsetof(TRANS_REQ_DELIVERY_INFO, arsize)},
    {TRANS_REQ_DELIVERY_NEXT, "TRANS_REQ_DELIVERY", "size", offsetof(TRANS_REQ_DELIVERY_INFO, size)},
    {TRANS_RES_EXEC_COMMAND, "TRANS_RES_EXEC_COMMAND", "stat", offsetof(TRANS_RES_EXECCMD_INFO, stat)},
    {TRANS_RES_GET_SVRACTION, "TRANS_RES_GET_SVRACTION", "action",
     offsetof(TRANS_RES_SVRACTION_INFO, action)},
    {TRANS_REQ_GET_PARAM, "TRANS_REQ_GET_PARAM", "size", offsetof(TRANS_REQ_GET_PARAM_INFO, size)},
    {TRANS_RES_GET_PARAM, "TRANS_RES_GET_PARAM", "rts", offsetof(TRANS_RES_GET_PARAM_INFO, rts)},
    {TRANS_RES_GET_PARAM, "TRANS_RES_GET_PARAM", "size", offsetof(TRANS_RES_GET_PARAM_INFO, size)},
    {TRANS_REQ_EXEC_PARAM, "TRANS_REQ_EXEC_PARAM", "size", offsetof(TRANS_REQ_EXEC_PARAM_INFO, size)},
    {TRANS_REQ_EXEC_PARAM, "TRANS_REQ_EXEC_PARAM", "limiter", offsetof(TRANS_REQ_EXEC_PARAM_INFO, limiter)},
    {TRANS_RES_EXEC_PARAM, "TRANS_RES_EXEC_PARAM", "rts", offsetof(TRANS_RES_EXEC_PARAM_INFO, rts)},
    {TRANS_RES_EXEC_PARAM, "TRANS_RES_EXEC_PARAM", "size", offsetof(TRANS_RES_EXEC_PARAM_INFO, size)},
});

// Copied, because a variable part may lie at any alignment. The same swap serves both directions.
void convert_field(char *record, const Field &field) {
    std::uint32_t value = 0;
    std::memcpy(&value, record + field.offset, sizeof(value));
    REXECCL_TRACE(8, "%s b:%s=%d", field.record, field.name, static_cast<std::int32_t>(value));
    value = htonl(value);
    std::memcpy(record + field.offset, &value, sizeof(value));
    REXECCL_TRACE(8, "%s a:%s=%d", field.record, field.name, static_cast<std::int32_t>(value));
}

// Whether a field that may fill its width without a NUL holds exactly `word`.
template <std::size_t N>
bool holds(const char (&field)[N], const char *word) {
    return std::strncmp(field, word, N) == 0;
}

bool known_magic(const TRANS_PACKET_HEADER_INFO &header) {
    return holds(header.magicwd, TRANS_MAGICWD) || holds(header.magicwd, TRANS_MAGICWD_LINUX) ||
           holds(header.magicwd, TRANS_MAGICWD_WINDOWS);
}

// Whether the magic word is one of those that servers send.
bool check_magic(const TRANS_PACKET_HEADER_INFO &header) {
    if (!holds(header.magicwd, TRANS_MAGICWD))
        REXECCL_TRACE(4, "res from magicwd(%.8s).", header.magicwd);
    if (known_magic(header))
        return true;
    REXECCL_TRACE(1, "invalid magicwd. (magic=%.8s res=%d seq=%d)", header.magicwd, header.ncode, header.seq);
    return false;
}

void check_version(const TRANS_PACKET_HEADER_INFO &header) {
    // Servers of another platform count their versions apart.
    if (!holds(header.magicwd, TRANS_MAGICWD_WINDOWS) && !holds(header.version, _rexeccl_policy.version))
        REXECCL_TRACE(2, "invalid version. (ver=%.16s res=%d seq=%d)", header.version, header.ncode,
                      header.seq);
}

} // namespace

void rexeccl_make_packet_ex(TRANS_PACKET_HEADER_INFO *header, std::int32_t ncode, std::int32_t seq,
                            std::int32_t status, std::uint32_t allsize, std::uint32_t size) {
    REXECCL_TRACE(8, "start - (pkhd=%p)", static_cast<void *>(header));
    *header = {};
    std::memcpy(header->magicwd, TRANS_MAGICWD_LINUX, sizeof(header->magicwd));
    std::memcpy(header->version, _rexeccl_policy.version, sizeof(header->version));
    header->clsinfo = _rexeccl_allpol.clsinfo;
    header->ncode = ncode;
    header->seq = seq;
    header->status = status;
    header->allsize = allsize;
    header->size = size;
    REXECCL_TRACE(8, "end - (req=%d seq=%d stat=%d allsize=%d size=%d)", ncode, seq, status,
                  static_cast<std::int32_t>(allsize), static_cast<std::int32_t>(size));
}

std::int32_t rexeccl_chk_packet(const TRANS_PACKET_HEADER_INFO *header) {
    REXECCL_TRACE(8, "start - (hdinfo=%p)", static_cast<const void *>(header));
    if (!check_magic(*header))
        return REXECCL_RET_FAIL_UNKOWN;
    check_version(*header);
    std::int32_t ret = REXECCL_RET_SUCCESS;
    if (header->size > TRANS_VARIABLE_MAX) {
        REXECCL_TRACE(1, "invalid variable size. (size=%d res=%d seq=%d)",
                      static_cast<std::int32_t>(header->size), header->ncode, header->seq);
        ret = REXECCL_RET_FAIL_UNKOWN;
    }
    REXECCL_TRACE(8, "end - (ret=%d)", ret);
    return ret;
}

void rexeccl_conv_byteorder(void *record, std::int32_t dispatch) {
    if (dispatch < dispatch_min || dispatch > dispatch_max) {
        REXECCL_TRACE(1, "unknown dispatch. (dispatch=%#x)", dispatch);
        return;
    }
    for (const Field &field : fields)
        if (field.dispatch == dispatch)
            convert_field(static_cast<char *>(record), field);
}
