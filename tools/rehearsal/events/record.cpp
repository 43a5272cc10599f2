// Checks of a record. What passes them may become the name of a file and a line of it.
#include "events/record.h"

#include "text.h"

#include <algorithm>
#include <cstring>

#include <arpa/inet.h>

namespace rehearsal {
namespace {

void to_host(std::int32_t &field) {
    field = static_cast<std::int32_t>(ntohl(static_cast<std::uint32_t>(field)));
}

// A text of a record and the name of its field.
struct Field {
    const char *name;
    std::string_view bytes; // the whole field
};

template <std::size_t N>
Field field(const char *name, const char (&bytes)[N]) {
    return {name, {bytes, N}};
}

std::string find_unended(std::initializer_list<Field> fields) {
    for (const Field &one : fields)
        if (one.bytes.find('\0') == one.bytes.npos)
            return std::string(one.name) + " does not end within its field";
    return {};
}

template <std::size_t N>
bool holds(const char (&bytes)[N], std::string_view text) {
    return text.size() < N && std::string_view(bytes, text.size()) == text && bytes[text.size()] == '\0';
}

// Checks and converts what belongs to the kind of the record alone.
std::string read_destinfo(EVENTC_LOG_INFO &record) {
    switch (record.dest) {
    case EVENTC_REQ_INITIALIZE:
    case EVENTC_REQ_REINITIALIZE:
    case EVENTC_REQ_RELOGLVL:
    case EVENTC_REQ_RELOGSZ: {
        EVENTC_LOG_INIT &init = record.destinfo.init;
        to_host(init.logsize);
        to_host(init.loglevel);
        return find_unended({field("dirpath", init.dirpath), field("header", init.header)});
    }
    case EVENTC_REQ_TERMINATE:
        return {};
    case EVENTC_REQ_LOCAL:
        to_host(record.destinfo.local.loglevel);
        return find_unended({field("msg", record.destinfo.local.msg)});
    case EVENTC_REQ_SYSLOG:
    case EVENTC_REQ_ALERT:
    case EVENTC_REQ_PUBSUB: {
        EVENTC_LOG_ALERT &alert = record.destinfo.alert;
        to_host(alert.eventid);
        to_host(alert.loglevel);
        return find_unended({field("cmdtype", alert.cmdtype), field("srcsv", alert.srcsv),
                             field("date", alert.date), field("msg", alert.msg)});
    }
    default:
        return "unknown dest " + std::to_string(record.dest);
    }
}

std::string judge_name(const char *what, std::string_view name) {
    if (name.find('/') != name.npos || name.starts_with('.') || std::ranges::any_of(name, is_control))
        return std::string(what) + " \"" + printable(name) + "\" cannot name a file";
    return {};
}

} // namespace

std::string judge_type(std::string_view type) {
    if (type.empty())
        return "no module type";
    if (type.size() >= EVENTC_TYPE_LEN)
        return "module type of more than 31 characters";
    return judge_name("module type", type);
}

std::string read_record(std::span<const std::byte> bytes, EVENTC_LOG_INFO &record) {
    if (bytes.size() != EVENTC_RECORD_LEN)
        return std::to_string(bytes.size()) + " bytes in place of " + std::to_string(EVENTC_RECORD_LEN);
    std::memcpy(&record, bytes.data(), sizeof(record));
    if (!holds(record.magicno, EVENTC_MAGICNO))
        return "wrong magicno";
    if (!holds(record.version, EVENTC_VERSION))
        return "wrong version";
    to_host(record.dest);
    to_host(record.pid);
    to_host(record.tid);
    std::string problem =
        find_unended({field("type", record.type), field("perflogname", record.perflogname)});
    if (problem.empty())
        problem = judge_type(record.type);
    if (problem.empty())
        problem = judge_name("perflogname", record.perflogname);
    return problem.empty() ? read_destinfo(record) : problem;
}

} // namespace rehearsal
