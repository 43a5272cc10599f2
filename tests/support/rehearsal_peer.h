// A rehearsal server with the small cluster that the tests ask for.
#pragma once

#include "server.h"
#include "support/rows.h"

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

// One that runs.
struct Peer : rehearsal::Server {
    explicit Peer(rehearsal::Options options = peer_options()) : Server(std::move(options)) { start(); }
};

// A server at the address that each row starts with, with the fault that comes next, "" for none.
inline rehearsal::Options faulty_options(const std::vector<Row> &rows) {
    rehearsal::Options options = peer_options();
    options.addresses.clear();
    for (const Row &row : rows) {
        options.addresses.push_back(row[0]);
        if (!row[1].empty())
            options.faults.emplace_back(row[0], row[1]);
    }
    return options;
}
