// What the pretended cluster answers to a request.
#pragma once

#include "cluster.h"

#include <optional>

namespace rehearsal {

// A script that is really to be run before the answer is known.
struct ScriptOrder {
    std::filesystem::path file{};
    std::int32_t timeout = 0; // seconds; 0 and below: no limit
};

struct Decision {
    std::int32_t status = 0;
    Outcome outcome{}; // empty: the answer has no body
    Milliseconds delay{0};
    std::string note{}; // for the journal
    std::optional<ScriptOrder> script{};
};

// Decides the answer of `server` to a request of `client` and makes the change that the request asks
// for. With `real_scripts` a script request gives an order instead of a pretended result. The caller
// holds the lock of the cluster.
Decision decide(Cluster &cluster, const Request &request, const std::string &server,
                const std::string &client, bool real_scripts);

// The packet that carries the decision.
Outgoing compose(const Cluster &cluster, const Request &request, const Decision &decision);

} // namespace rehearsal
