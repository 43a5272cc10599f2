// Look-ups in the pretended cluster and the changes that requests make to it.
#include "cluster.h"

#include <asio/ip/address.hpp>

#include <algorithm>
#include <stdexcept>

namespace rehearsal {
namespace {

// The entry that `wanted` accepts: one for this server before one for all servers.
template <class List, class Wanted>
auto *pick(List &list, std::string_view server, Wanted wanted) {
    decltype(&*list.begin()) general = nullptr;
    for (auto &one : list) {
        if (!wanted(one)) {
            continue;
        }
        if (one.at == server) {
            return &one;
        }
        if (one.at.empty() && general == nullptr) {
            general = &one;
        }
    }
    return general;
}

template <class List>
auto *pick_name(List &list, std::string_view server, std::string_view name) {
    return pick(list, server, [name](const auto &one) { return one.name == name; });
}

} // namespace

std::string canonical_address(const std::string &text) {
    asio::error_code error;
    const auto address = asio::ip::make_address(text, error);
    if (error) {
        throw std::invalid_argument("\"" + text + "\" is not a numeric IPv4 or IPv6 address");
    }
    return address.to_string();
}

Group *find_group(Cluster &cluster, std::string_view name, std::string_view server) {
    return pick_name(cluster.groups, server, name);
}

const Script *find_script(const Cluster &cluster, std::string_view name, std::string_view server) {
    return pick_name(cluster.scripts, server, name);
}

const FixedAnswer *find_answer(const Cluster &cluster, RequestKind kind, std::string_view server) {
    return pick(cluster.answers, server, [kind](const FixedAnswer &one) { return one.kind == kind; });
}

Group *find_group_of(Cluster &cluster, std::string_view name, std::string_view server) {
    for (Group &general : cluster.groups) {
        Group *group = find_group(cluster, general.name, server);
        if (group == &general && std::ranges::count(group->resources, name) > 0) {
            return group;
        }
    }
    return nullptr;
}

std::vector<Monitor *> find_monitors(Cluster &cluster, const Request &request, std::string_view server) {
    const auto named = [&](const Monitor &one) {
        if (!request.monitor.empty()) {
            return one.name == request.monitor;
        }
        return !request.category.empty() && one.category == request.category &&
               (request.keyword.empty() || one.keyword == request.keyword);
    };
    std::vector<Monitor *> found;
    for (Monitor &one : cluster.monitors) {
        if (named(one) && pick_name(cluster.monitors, server, one.name) == &one) {
            found.push_back(&one);
        }
    }
    return found;
}

bool in_error(const Monitor &monitor, const std::string &server) {
    const auto now = monitor.error_now.find(server);
    return now == monitor.error_now.end() ? monitor.error : now->second;
}

void set_error(Monitor &monitor, const std::string &server, bool error) {
    monitor.error_now[server] = error;
}

std::string move_group(Group &group) {
    if (group.servers.empty()) {
        return {};
    }
    const std::string from = group.servers[group.current];
    group.current = (group.current + 1) % group.servers.size();
    return from + " -> " + group.servers[group.current];
}

} // namespace rehearsal
