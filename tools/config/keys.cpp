// The table of keys, and what its columns mean.
#include "keys.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>

namespace config {
namespace {

using enum Kind;
using enum Otherwise;
using Form = Range::Form;

constexpr Range any = {Form::any, 0, 0, nullptr};
constexpr Range modes = {Form::modes, 0, 0777, nullptr};
constexpr Range levels = {Form::levels, 1, 32, nullptr};
constexpr Range share = {Form::share, 0, 7, nullptr};

constexpr char monitor[] = "monitor_response_time";

constexpr Range flag(std::int32_t value) {
    return {Form::flag, value, value, nullptr};
}
constexpr Range from(std::int32_t low, const char *zero = nullptr) {
    return {Form::from, low, INT32_MAX, zero};
}
constexpr Range span(std::int32_t low, std::int32_t high, const char *zero = nullptr) {
    return {Form::span, low, high, zero};
}
constexpr Range bytes(std::int32_t high, std::int32_t low = 0) {
    return {Form::bytes, low, high, nullptr};
}

constexpr auto keys = std::to_array<Key>({
    {"/root/all/path", text, bytes(1023), nullptr, "all", "command, client", as_is},
    {"/root/all/charset", text, bytes(127), "", "all", "store", as_is},
    {"/root/all/edition", text, bytes(15), "", "all", "client", as_is},
    {"/root/all/version", text, bytes(15), "", "all", "client", as_is},
    {"/root/all/core", integer, flag(1), "1", "all", "command", as_is},

    {"/root/rexec/maxconnum", integer, from(1), "32", "rexec", "command", as_is},
    {"/root/rexec/cmdto", integer, span(5, 999), "180", "rexec", "command", nearer},
    {"/root/rexec/type", text, bytes(31), "rexec", "rexec", "client", as_is},
    {"/root/rexec/version", text, bytes(15), "", "rexec", "client", as_is},
    {"/root/rexec/usedns", integer, flag(0), "1", "rexec", "client", as_is},
    {"/root/rexec/log/level",
     integer,
     {Form::levels, -1, 32, nullptr},
     "4",
     "rexec",
     "command, client",
     as_is},
    {"/root/rexec/log/size", integer, from(1), "1000000", "rexec", "command, client", log_size},
    {"/root/rexec/packet/recv", integer, from(1), "8192", "rexec", "client", standard},
    {"/root/rexec/packet/send", integer, from(1), "1024", "rexec", "client", standard},
    {"/root/rexec/packet/max", integer, any, "16384", "rexec", "client", as_is},
    {"/root/rexec/communication/connect/retry", integer, from(0), "0", "rexec", "client", less_is_zero},
    {"/root/rexec/communication/connect/timeout", integer, from(1, "no limit"), "5", "rexec", "client",
     as_is},
    {"/root/rexec/communication/response/retry", integer, any, "0", "rexec", "client", as_is},
    {"/root/rexec/communication/response/timeout", integer, from(1, "no limit"), "10", "rexec", "client",
     as_is},

    {"/root/cluster/trns/port", integer, span(1, 65535), "29002", "trnsv", "client", unconnected},

    {"/root/cluster/name", text, bytes(255), nullptr, "cluster", "performance log", as_is},
    {"/root/cluster/log/xml/init", integer, flag(0), "0", "cluster", "store", as_is},
    {"/root/cluster/syslog/format/level", integer, flag(1), "1", "cluster", "log", as_is},
    {"/root/cluster/locallog/format/year", integer, flag(1), "1", "cluster", "log", as_is},
    {"/root/cluster/perf/log/group/size", integer, from(1), "1", "cluster", "performance log", as_is},
    {"/root/cluster/perf/log/group/rotate", integer, from(1), "2", "cluster", "performance log", as_is},
    {"/root/cluster/perf/log/group/use", integer, flag(0), nullptr, "cluster", "performance log", as_is},
    {"/root/cluster/perf/log/resource/size", integer, from(1), "1", "cluster", "performance log", as_is},
    {"/root/cluster/perf/log/resource/rotate", integer, from(1), "2", "cluster", "performance log", as_is},
    {"/root/cluster/perf/log/resource/use", integer, flag(0), nullptr, "cluster", "performance log", as_is},
    {"/root/cluster/perf/log/monitor/size", integer, from(1), "1", "cluster", "performance log", as_is},
    {"/root/cluster/perf/log/monitor/rotate", integer, from(1), "2", "cluster", "performance log", as_is},
    {"/root/cluster/perf/log/monitor/use", integer, flag(0), nullptr, "cluster", "performance log", as_is},
    {"/root/cluster/perf/log/heartbeat/size", integer, from(1), "1", "cluster", "performance log", as_is},
    {"/root/cluster/perf/log/heartbeat/rotate", integer, from(1), "2", "cluster", "performance log", as_is},
    {"/root/cluster/perf/log/heartbeat/use", integer, flag(0), nullptr, "cluster", "performance log", as_is},

    {"/root/log/log/level", integer, levels, "4", "log", "log", as_is},
    {"/root/log/log/size", integer, from(1), "1000000", "log", "log", as_is},
    {"/root/cluster/log/syslog/locale", text, bytes(15), "us", "log", "log", as_is},
    {"/root/cluster/log/message/level", integer, levels, "4", "log", "log", as_is},
    {"/root/cluster/log/message/locale", text, bytes(15), "us", "log", "log", as_is},

    {"/root/event/nolog", integer, span(0, 1), "0", "event", "log", as_is},
    {"/root/event/path", text, bytes(1023), "bin/zynevent", "event", "log", as_is},
    {"/root/event/uptime/level", integer, levels, "4", "event", "log", as_is},
    {"/root/event/uptime/size", integer, from(1), "1000000", "event", "log", as_is},
    {"/root/event/syslog/%s", integer, span(0, 7), "6", "event", "log", as_is},
    {"/root/cluster/event/method", integer, span(0, 2), "0", "event", "log", as_is},
    {"/root/cluster/event/port", integer, span(1, 65535, "none"), "0", "event", "log", as_is},
    {"/root/cluster/event/msq/opt", integer, flag(0), "1", "event", "log", as_is},
    {"/root/cluster/event/msq/key/dir", text, bytes(1023), "work/ipc", "event", "log", as_is},
    {"/root/cluster/event/msq/key/file", text, bytes(1023), "msgq.key", "event", "log", as_is},
    {"/root/cluster/event/msq/mode/dir", integer, modes, "0755", "event", "log", as_is},
    {"/root/cluster/event/msq/mode/file", integer, modes, "0644", "event", "log", as_is},
    {"/root/cluster/event/msq/mode/ipc", integer, modes, "0666", "event", "log", as_is},
    {"/root/cluster/altexec/use", integer, flag(0), "0", "event", "log", as_is},
    {"/root/cluster/messages/use", integer, span(0, 1), "0", "event", "log", as_is},
    {"/root/messages/%s@%d/syslog", integer, flag(0), nullptr, "event", "log", as_is},
    {"/root/messages/%s@%d/alert", integer, flag(0), nullptr, "event", "log", as_is},
    {"/root/messages/%s@%d/mail", integer, flag(0), nullptr, "event", "log", as_is},
    {"/root/messages/%s@%d/trap", integer, flag(0), nullptr, "event", "log", as_is},
    {"/root/messages/%s@%d/altexec", integer, flag(0), nullptr, "event", "log", as_is},
    {"/root/messages/%s@%d/pubsub", integer, flag(0), nullptr, "event", "log", as_is},
    {"/root/messages/%s@%d/cmd@%s/cmdline", text, bytes(511), nullptr, "event", "log", as_is},

    {"/root/statsd/mode", integer, span(0, 2), "0", "statsd", "metrics", zero},
    {"/root/statsd/log/level", integer, levels, "4", "statsd", "metrics", as_is},
    {"/root/statsd/log/size", integer, from(1), "1000000", "statsd", "metrics", as_is},
    {"/root/statsd/server/host", text, bytes(255, 1), nullptr, "statsd", "metrics", as_is},
    {"/root/statsd/server/port", integer, span(1, 65535), "8125", "statsd", "metrics", standard},
    {"/root/statsd/server/ipv6", integer, span(0, 1), "0", "statsd", "metrics", zero},
    {"/root/statsd/metrics/%s/name", text, bytes(31, 1), "zyn_monitor_response_time", "statsd", "metrics",
     as_is, monitor},
    {"/root/statsd/metrics/%s/type", integer, span(0, 4), "2", "statsd", "metrics", standard, monitor},
    {"/root/statsd/metrics/%s/sample_rate", text, share, "1.0", "statsd", "metrics", standard, monitor},
    {"/root/statsd/metrics/%s/sample_client", integer, span(0, 1), "1", "statsd", "metrics", standard,
     monitor},
    {"/root/statsd/metrics/%s/custom_tag", text, bytes(511), nullptr, "statsd", "metrics", as_is, monitor},
});

constexpr auto policies =
    std::to_array<const char *>({"log", "all", "cluster", "rexec", "trnsv", "event", "statsd"});

// Behind the range, in the words of the table.
constexpr auto otherwise_texts =
    std::to_array<const char *>({"", ", else the nearer end", ", else the default", ", else 0", ", less is 0",
                                 ", else the size of `log`", ", else no connection"});

std::string list_values(const Range &range) {
    std::string text = std::to_string(range.low);
    for (std::int32_t value = range.low + 1; value <= range.high; ++value)
        text += ", " + std::to_string(value);
    return text;
}

std::string describe_form(const Range &range) {
    const std::string low = std::to_string(range.low);
    const std::string high = std::to_string(range.high);
    switch (range.form) {
    case Form::any:
        return "any";
    case Form::flag:
        return low + ", others";
    case Form::from:
        return low + " and up";
    case Form::span:
        return range.high - range.low < 3 ? list_values(range) : low + " to " + high;
    case Form::levels:
        return std::string("1, 2, 4, 8, 16, 32") + (range.low < 0 ? "; 0, -1" : "");
    case Form::modes:
        return "0 to 0777, octal";
    case Form::bytes:
        return (range.low > 0 ? low + " to " : "at most ") + high + " bytes";
    case Form::share:
        return "0.0 to 1.0, at most " + high + " bytes";
    }
    return {};
}

bool matches_step(const Key &key, std::string_view pattern, std::string_view step) {
    const std::size_t pattern_at = pattern.find('@');
    const std::size_t at = step.find('@');
    if (pattern_at == pattern.npos)
        return matches_name(key, pattern, step);
    return at != step.npos && matches_name(key, pattern.substr(0, pattern_at), step.substr(0, at)) &&
           matches_piece(pattern.substr(pattern_at + 1), step.substr(at + 1));
}

bool is_number(std::string_view text) {
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && std::to_string(number) == text;
}

} // namespace

bool Key::is_read_by(std::string_view module) const {
    std::string_view rest = modules;
    for (;;) {
        const std::size_t comma = rest.find(", ");
        if (rest.substr(0, comma) == module)
            return true;
        if (comma == rest.npos)
            return false;
        rest.remove_prefix(comma + 2);
    }
}

std::span<const Key> all_keys() {
    return keys;
}

std::span<const char *const> all_policies() {
    return policies;
}

std::vector<std::string_view> split_steps(std::string_view path) {
    std::vector<std::string_view> steps;
    while (!path.empty()) {
        path.remove_prefix(1);
        const std::size_t slash = std::min(path.find('/'), path.size());
        steps.push_back(path.substr(0, slash));
        path.remove_prefix(slash);
    }
    return steps;
}

bool matches_piece(std::string_view pattern, std::string_view text) {
    if (pattern == "%s")
        return !text.empty() && text.find('@') == text.npos;
    return pattern == "%d" ? is_number(text) : pattern == text;
}

bool matches_name(const Key &key, std::string_view pattern, std::string_view name) {
    const bool only = pattern == "%s" && key.only != nullptr;
    return only ? name == key.only : matches_piece(pattern, name);
}

const Key *find_key(std::string_view path) {
    const std::vector<std::string_view> steps = split_steps(path);
    for (const Key &key : keys) {
        const std::vector<std::string_view> wanted = split_steps(key.path);
        if (std::equal(wanted.begin(), wanted.end(), steps.begin(), steps.end(),
                       [&](std::string_view pattern, std::string_view step) {
                           return matches_step(key, pattern, step);
                       }))
            return &key;
    }
    return nullptr;
}

bool is_in_range(const Key &key, std::int32_t number) {
    const Range &range = key.range;
    switch (range.form) {
    case Form::any:
    case Form::flag:
        return true;
    case Form::levels:
        return (number > 0 && number <= 32 && (number & (number - 1)) == 0) ||
               (number >= range.low && number < 1);
    default:
        return (number >= range.low && number <= range.high) || (number == 0 && range.zero != nullptr);
    }
}

std::string describe_range(const Key &key) {
    std::string text = describe_form(key.range);
    if (key.range.zero != nullptr)
        text += std::string(", 0 ") + key.range.zero;
    if (std::string_view(key.path).ends_with("/cmdline"))
        text += " with the event's text";
    return text + otherwise_texts[static_cast<std::size_t>(key.otherwise)];
}

} // namespace config
