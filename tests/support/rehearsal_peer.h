// A rehearsal server with the small cluster that the tests ask for.
#pragma once

#include "server.h"

inline rehearsal::Options peer_options() {
    using namespace rehearsal;
    Cluster cluster;
    cluster.groups.push_back({.name = "grp1", .resources = {"rsc1"}});
    cluster.monitors.push_back(
        {.name = "mon1", .category = "cat", .keyword = "key", .acttype = 1, .preaction_status = 0});
    cluster.monitors.push_back({.name = "mon2", .category = "cat", .keyword = "other"});
    cluster.scripts.push_back({.name = "run.sh", .exitcode = 3});
    return {.cluster = std::move(cluster)};
}
