// The status of one target.
#pragma once

#include "rexeccl.h"

#include <cstdint>

// Stores a status in a node; nothing for a null node.
void rexeccl_set_nodestat(REXECCL_NODE_INFO *node, std::int32_t status);
