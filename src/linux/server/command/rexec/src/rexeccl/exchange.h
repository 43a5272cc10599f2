// One request on one open connection, bounded by a time limit of the caller's.
#pragma once

#include "rexeccl.h"

#include <cstdint>

// One request on one connection, as rexeccl_multi_execparam runs it; result and status are those of
// its failure table. Returns a REXECCL_RET_* code.
std::int32_t rexeccl_execparam(REXECCL_CONNECTION_INFO *connection);

// Ends the communication thread of a request thread and frees its packets, where that thread were
// cancelled: it keeps its cancellation off, so this is for callers that run rexeccl_execparam otherwise.
void rexeccl_execparam_cleanup(REXECCL_CONNECTION_INFO *connection);
