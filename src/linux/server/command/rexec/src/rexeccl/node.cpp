// The list of targets, and the status of each.
#include "rexeccl/node.h"

#include "rexeccl/trace.h"

#include <cstring>

namespace {

// One node and its one address as they lie in the caller's buffer.
struct NodeSlot {
    REXECCL_NODE_INFO node;
    REXECCL_NODE_LAN_INFO lan;
};

void fill_slot(NodeSlot *slot, const char *address, REXECCL_NODE_INFO *next) {
    *slot = {};
    const std::size_t length = strnlen(address, TRANS_IP_LEN - 1);
    std::memcpy(slot->node.szhost, address, length);
    std::memcpy(slot->lan.szip, address, length);
    slot->node.nipnum = 1;
    slot->node.plan = &slot->lan;
    slot->node.next = next;
}

} // namespace

std::int32_t rexeccl_createnodelist(std::int32_t count, void *buffer, const char (*addresses)[TRANS_IP_LEN],
                                    std::int32_t *size_out) {
    REXECCL_TRACE(4, "start - (node=%p size=%p)", buffer, static_cast<void *>(size_out));
    std::int32_t ret = REXECCL_RET_SUCCESS;
    std::int32_t made = 0;
    if (size_out == nullptr) {
        REXECCL_TRACE(1, "invalid parameter. (size=%p)", static_cast<void *>(size_out));
        ret = REXECCL_RET_FAIL_PARAMETER;
    } else {
        auto *slots = static_cast<NodeSlot *>(buffer);
        for (; made < count; ++made)
            if (slots != nullptr)
                fill_slot(&slots[made], addresses[made], made + 1 < count ? &slots[made + 1].node : nullptr);
        *size_out = made * static_cast<std::int32_t>(sizeof(NodeSlot));
    }
    REXECCL_TRACE(4, "end - (ret=%d nodenum=%d size=%d)", ret, made, size_out != nullptr ? *size_out : 0);
    return ret;
}

void rexeccl_set_nodestat(REXECCL_NODE_INFO *node, std::int32_t status) {
    REXECCL_TRACE(16, "start - (node=%p stat=%d)", static_cast<void *>(node), status);
    if (node != nullptr)
        node->nstatus = status;
    REXECCL_TRACE(16, "end - ()");
}
