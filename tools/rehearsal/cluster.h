// The pretended cluster: what stands in it, how it answers, and the state that requests change.
//
// Every listening address is one server of the cluster. An entry with an address in `at` is meant for
// that server only and hides an entry of the same name for all servers.
#pragma once

#include "faults.h"
#include "wire.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace rehearsal {

using Milliseconds = std::chrono::milliseconds;

struct Group {
    std::string name{};
    std::string at{};
    bool online = true;
    std::int32_t status = 0; // what a failover of the group answers when it is online
    Milliseconds delay{0};
    std::vector<std::string> resources{};
    std::vector<std::string> servers{}; // where it may run; empty when nobody keeps track of it
    std::size_t current = 0;            // index into servers, moved on by each failover
};

struct Monitor {
    std::string name{};
    std::string at{};
    std::string category{};
    std::string keyword{};
    bool active = true;
    bool error = false; // the state at the start, on every server
    std::int32_t acttype = 0;
    std::int32_t action = 0;
    std::int32_t result = 0;
    std::int32_t preaction_status = 38; // none is set
    std::int32_t preaction_exitcode = 0;
    std::int32_t clear_result = 0; // what a clear of the monitor in error answers
    Milliseconds delay{0};
    std::map<std::string, bool> error_now{}; // by server, where a request has changed it
};

// A script that the server only pretends to run.
struct Script {
    std::string name{};
    std::string at{};
    bool executable = true;
    std::int32_t exitcode = 0;
    std::int32_t status = 0;
    Milliseconds delay{0};
};

// An answer to every request of a kind, whatever the cluster looks like.
struct FixedAnswer {
    RequestKind kind = RequestKind::check;
    std::string at{};
    std::optional<std::int32_t> status{}; // none: the usual status, only later
    Milliseconds delay{0};
};

struct Cluster {
    // What the headers of the answers say about the server.
    std::string magic = "l_trnsv";
    std::string version{};
    std::string edition{};
    std::string cluster_version{};

    std::vector<Group> groups{};
    std::vector<Monitor> monitors{};
    std::vector<Script> scripts{};
    std::vector<FixedAnswer> answers{};
    std::filesystem::path script_directory{};
    std::set<std::string> denied{}; // addresses of clients that are not permitted
    std::set<std::string> busy{};   // listening addresses that answer the check with "busy"
    FaultMap faults{};
};

// More monitors than this would not fit into one answer.
inline constexpr std::size_t monitors_max = 1600;

// Reads a cluster from the XML file `path`; relative script directories are taken from the file's
// own folder. Nothing outside the file is read and no entity is expanded. Throws std::runtime_error
// with "file:line: what is wrong".
Cluster load_cluster(const std::filesystem::path &path);

// `text` as the canonical numeric IPv4 or IPv6 address. Throws std::invalid_argument for anything else.
std::string canonical_address(const std::string &text);

// The entry called `name` as `server` has it; null when there is none. Valid until the list changes.
Group *find_group(Cluster &cluster, std::string_view name, std::string_view server);
const Script *find_script(const Cluster &cluster, std::string_view name, std::string_view server);
const FixedAnswer *find_answer(const Cluster &cluster, RequestKind kind, std::string_view server);
// The group that holds the resource `name`.
Group *find_group_of(Cluster &cluster, std::string_view name, std::string_view server);

// The monitors of `server` that a notice or clear names: the one called `monitor`, or, with an empty
// name, all of the category and, unless it is empty, the keyword. In the order of the cluster.
std::vector<Monitor *> find_monitors(Cluster &cluster, const Request &request, std::string_view server);

bool in_error(const Monitor &monitor, const std::string &server);
void set_error(Monitor &monitor, const std::string &server, bool error);

// Moves the group to its next server. Returns "from -> to", empty when nobody keeps track of it.
std::string move_group(Group &group);

} // namespace rehearsal
