// Decides answers: one function a request, each a walk through the cases in which it fails.
#include "answer.h"

#include "script.h"
#include "trans.h"

#include <algorithm>

namespace rehearsal {
namespace {

// Work of `delay` under a time limit in seconds: takes as long as it may, and fails past the limit.
Decision timed(Decision decision, Milliseconds delay, std::int32_t timeout) {
    const Milliseconds limit = std::chrono::seconds{timeout};
    if (timeout > 0 && delay > limit) {
        return {.status = TRANS_RES_STAT_FAIL_PARAMTIMEOUT, .delay = limit, .note = "time limit passed"};
    }
    decision.delay = delay;
    return decision;
}

Decision decide_failover(Cluster &cluster, const Request &request, const std::string &server) {
    if (request.group.empty() && request.resource.empty()) {
        return {.status = TRANS_RES_STAT_FAIL_INVALIDPARAM};
    }
    const bool by_group = !request.group.empty();
    Group *group = by_group ? find_group(cluster, request.group, server)
                            : find_group_of(cluster, request.resource, server);
    if (group == nullptr) {
        return {.status = by_group ? TRANS_RES_STAT_FAIL_NOEXISTGRP : TRANS_RES_STAT_FAIL_NOEXISTRSC};
    }
    if (!group->online) {
        return {.status = TRANS_RES_STAT_FAIL_NOACTGRP};
    }
    Decision decision = timed({.status = group->status}, group->delay, request.timeout);
    if (decision.status == TRANS_RES_STAT_SUCCESS) {
        const std::string move = move_group(*group);
        decision.note = move.empty() ? "" : group->name + " moves " + move;
    }
    return decision;
}

MonitorResult notice_one(Monitor &monitor, const std::string &server) {
    MonitorResult result{.name = monitor.name,
                         .acttype = monitor.acttype,
                         .action = monitor.action,
                         .preaction_status = TRANS_RES_STAT_FAIL_NOSET};
    if (!monitor.active) {
        result.result = TRANS_RES_STAT_FAIL_NOTACTMON;
        return result;
    }
    if (in_error(monitor, server)) {
        result.result = TRANS_RES_STAT_FAIL_ERRMON;
        return result;
    }
    set_error(monitor, server, true);
    result.result = monitor.result;
    result.preaction_status = monitor.preaction_status;
    result.preaction_exitcode = monitor.preaction_exitcode;
    return result;
}

MonitorResult clear_one(Monitor &monitor, const std::string &server) {
    MonitorResult result{.name = monitor.name,
                         .acttype = monitor.acttype,
                         .action = monitor.action,
                         .result = monitor.clear_result,
                         .preaction_status = TRANS_RES_STAT_FAIL_NOSET};
    if (!in_error(monitor, server)) {
        result.result = TRANS_RES_STAT_FAIL_INVALIDMONSTAT;
    } else if (monitor.clear_result == TRANS_RES_STAT_SUCCESS) {
        set_error(monitor, server, false);
    }
    return result;
}

Decision decide_monitors(Cluster &cluster, const Request &request, const std::string &server) {
    const std::vector<Monitor *> monitors = find_monitors(cluster, request, server);
    if (monitors.empty()) {
        return {.status = TRANS_RES_STAT_FAIL_NOEXISTRSC};
    }
    Decision decision{};
    std::vector<MonitorResult> &results = decision.outcome.monitors;
    for (Monitor *one : monitors) {
        const bool notice = request.kind == RequestKind::notice;
        results.push_back(notice ? notice_one(*one, server) : clear_one(*one, server));
        decision.delay = std::max(decision.delay, one->delay); // the monitors act side by side
        decision.note +=
            (decision.note.empty() ? "" : ", ") + one->name + "=" + std::to_string(results.back().result);
    }
    return decision;
}

Decision decide_script(Cluster &cluster, const Request &request, const std::string &server) {
    const Script *script = bare_name(request.script) ? find_script(cluster, request.script, server) : nullptr;
    if (script == nullptr) {
        return {.status = TRANS_RES_STAT_FAIL_NOEXISTSCRIPT};
    }
    if (!script->executable) {
        return {.status = TRANS_RES_STAT_FAIL_NOTAVAILABLE};
    }
    Decision decision{.status = script->status};
    if (decision.status == TRANS_RES_STAT_SUCCESS) {
        decision.outcome.exitcode = script->exitcode;
        decision.note = "exit code " + std::to_string(script->exitcode);
    }
    return timed(std::move(decision), script->delay, request.timeout);
}

Decision order_script(const Cluster &cluster, const Request &request) {
    const ScriptFile file = locate_script(cluster.script_directory, request.script);
    if (file.status != TRANS_RES_STAT_SUCCESS) {
        return {.status = file.status};
    }
    return {.script = ScriptOrder{.file = file.path, .timeout = request.timeout}};
}

Decision decide_kind(Cluster &cluster, const Request &request, const std::string &server, bool real_scripts) {
    switch (request.kind) {
    case RequestKind::check:
        return {.status = cluster.busy.contains(server) ? TRANS_RES_STAT_FAIL_BUSY : TRANS_RES_STAT_SUCCESS};
    case RequestKind::failover:
        return decide_failover(cluster, request, server);
    case RequestKind::script:
        return real_scripts ? order_script(cluster, request) : decide_script(cluster, request, server);
    case RequestKind::notice:
    case RequestKind::clear:
        return decide_monitors(cluster, request, server);
    case RequestKind::unknown_id:
        return {.status = TRANS_RES_STAT_FAIL_INSTRUCTMSG};
    case RequestKind::unknown_code:
        return {.status = TRANS_RES_STAT_FAIL_UNKOWN_REQUEST};
    case RequestKind::terminate:
        break;
    }
    return {};
}

} // namespace

Decision decide(Cluster &cluster, const Request &request, const std::string &server,
                const std::string &client, bool real_scripts) {
    const bool farewell = request.kind == RequestKind::terminate;
    if (!farewell && cluster.denied.contains(client)) {
        return {.status = TRANS_RES_STAT_FAIL_NOTPERMIT};
    }
    const FixedAnswer *fixed = find_answer(cluster, request.kind, server);
    if (fixed != nullptr && fixed->status) {
        return {.status = *fixed->status, .delay = fixed->delay};
    }
    Decision decision = decide_kind(cluster, request, server, real_scripts);
    if (fixed != nullptr) {
        decision.delay += fixed->delay;
    }
    return decision;
}

Outgoing compose(const Cluster &cluster, const Request &request, const Decision &decision) {
    Outgoing out{.header = {.magic = cluster.magic,
                            .version = cluster.version,
                            .edition = cluster.edition,
                            .cluster_version = cluster.cluster_version,
                            .seq = request.header.seq,
                            .status = decision.status},
                 .delay = decision.delay};
    // Unsigned, since the code is the client's and may be the largest there is.
    out.header.code = static_cast<std::int32_t>(static_cast<std::uint32_t>(request.header.code) + 1U);
    if (const Bytes payload = encode_outcome(decision.outcome); !payload.empty()) {
        out.body = encode_answer_body(payload);
        out.header.size = out.header.allsize = static_cast<std::uint32_t>(out.body.size());
    }
    return out;
}

} // namespace rehearsal
