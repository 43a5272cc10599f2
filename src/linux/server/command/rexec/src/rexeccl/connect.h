// Connections to the targets: made one node after the other, checked, and taken down.
#pragma once

#include "rexeccl.h"

#include <cstdint>

// Tries the addresses of a node in order and, with name resolution on, its host name last; each try
// on a thread of its own under the connect time-out. Returns 0 with *sock_out connected and the address
// that answered in `address_out` of `length` bytes, REXECCL_RET_FAIL_COMUNICATION when none answered,
// or REXECCL_RET_FAIL_UNKOWN when a thread could not be started or joined. With name resolution off a
// node that did not answer gives 0 with *sock_out -1; the check of the connection then fails.
std::int32_t rexeccl_make_connection(const REXECCL_NODE_INFO *node, std::int32_t port, std::int32_t *sock_out,
                                     char *address_out, std::size_t length);
