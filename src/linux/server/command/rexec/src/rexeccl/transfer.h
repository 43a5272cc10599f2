// One packet out and one packet in on a connected socket, on a thread that its starter may give up.
#pragma once

#include "rexeccl.h"

#include <cstdint>

// Thread body: sends tdinfo.comm.preq of tdinfo.comm.reqsize bytes on the connection's socket and
// reads the response into tdinfo.comm.pres. May be cancelled while it waits for the peer. Returns 0 or
// REXECCL_RET_FAIL_COMUNICATION.
std::int32_t rexeccl_communication(REXECCL_CONNECTION_INFO *connection);

// Starts rexeccl_communication on a thread of its own; its id goes into tdinfo.comm.tid. Returns 0 or
// REXECCL_RET_FAIL_UNKOWN.
std::int32_t rexeccl_start_communication(REXECCL_CONNECTION_INFO *connection);

// Cancels the communication thread and joins it, and forgets its id; returns the join's error number.
int rexeccl_abandon_communication(REXECCL_CONNECTION_INFO *connection);

// Joins the communication thread, and forgets its id. *ret receives its result; returns as
// pthread_join.
int rexeccl_finish_communication(REXECCL_CONNECTION_INFO *connection, std::int32_t *ret);

// Frees the request and the response of an exchange and forgets them.
void rexeccl_free_packets(REXECCL_CONNECTION_INFO *connection);

// The steps of an exchange. rexeccl_request sends all `length` bytes of a packet whose header is in
// host byte order (0 or 10); rexeccl_select waits one second for the socket to become readable (0, 9
// or 10); rexeccl_response waits without a limit of its own and receives (0, 4 or 10); rexeccl_recv
// receives one packet into *response_out, malloc'ed, its header in host byte order and checked (0, 4,
// 5, 8 or 10, with *response_out null on failure).
std::int32_t rexeccl_request(std::int32_t sock, TRANS_PACKET_INFO *packet, std::int32_t length);
std::int32_t rexeccl_select(std::int32_t sock);
std::int32_t rexeccl_response(std::int32_t sock, TRANS_PACKET_INFO **response_out);
std::int32_t rexeccl_recv(std::int32_t sock, TRANS_PACKET_INFO **response_out);

// Frees the half-received response of a cancelled communication thread.
void rexeccl_communication_cleanup(REXECCL_CONNECTION_INFO *connection);
