// Packets of the data transfer protocol: building a request header, the byte order of every record,
// and the check that each received header passes. doc/protocol.md is their wire document.
#pragma once

#include "trans.h"

#include <cstdint>

// Fills `header` in host byte order with this client's magic word and version strings.
void rexeccl_make_packet_ex(TRANS_PACKET_HEADER_INFO *header, std::int32_t ncode, std::int32_t seq,
                            std::int32_t status, std::uint32_t allsize, std::uint32_t size);

// Checks a header that is in host byte order already. Returns 0, or REXECCL_RET_FAIL_UNKOWN for an
// unknown magic word or a variable part above TRANS_VARIABLE_MAX bytes.
std::int32_t rexeccl_chk_packet(const TRANS_PACKET_HEADER_INFO *header);

// Converts the 32-bit integers of a header or variable part in place. `dispatch` names the record: a
// request code converts to network byte order, a response code to host byte order. The caller has
// made sure that the record is as long as its last integer demands.
void rexeccl_conv_byteorder(void *record, std::int32_t dispatch);
