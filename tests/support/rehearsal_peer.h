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

// A server at the address of each row, with the fault of the row, "" for none.
template <typename Row>
rehearsal::Options faulty_options(const std::vector<Row> &rows) {
    rehearsal::Options options = peer_options();
    options.addresses.clear();
    for (const Row &row : rows) {
        options.addresses.emplace_back(row.address);
        if (row.fault[0] != '\0')
            options.faults.emplace_back(row.address, row.fault);
    }
    return options;
}
