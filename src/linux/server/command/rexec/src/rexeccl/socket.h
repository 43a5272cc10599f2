// One TCP connection to one target: resolved and connected in a thread of its own, and closed.
#pragma once

#include <cstdint>

struct addrinfo;

// Hand-over record between the connecting code and one connect thread. The thread writes `sock` and
// `paddrinfo`; the connecting code reads `sock` after the join.
struct REXECCL_CNTD_PARAM_INFO {
    char host[256];    // the node's host name
    char ip[256];      // address or name to resolve
    std::int32_t sock; // connected socket, or -1
    std::int32_t port;
    std::int32_t ai_flags; // resolver flags, AI_NUMERICHOST or 0
    addrinfo *paddrinfo;   // resolver result, freed by the thread
};

// Thread body: resolves `param->ip` and connects to the first address that answers; its time limit is
// the caller's cancel. A node that bears this host's own short name is reached over loopback. Returns
// 0 with `param->sock` connected, 1 when there is no address to try, or REXECCL_RET_FAIL_UNKOWN. A
// port outside 1 to 65535 fails as an address that cannot be resolved does.
std::int32_t rexeccl_create_socket(REXECCL_CNTD_PARAM_INFO *param);

// Frees what a cancelled connect thread leaves: its address list and a socket that is open.
void rexeccl_create_socket_cleanup(REXECCL_CNTD_PARAM_INFO *param);

// Shuts down and closes a socket. Returns 0, or REXECCL_RET_FAIL_UNKOWN when close failed. No
// cancellation point.
std::int32_t rexeccl_close_socket(std::int32_t sock);
