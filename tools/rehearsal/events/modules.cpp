// One function for each kind of record.
#include "events/modules.h"

#include "text.h"

#include <algorithm>
#include <string_view>

namespace fs = std::filesystem;

namespace rehearsal {
namespace {

constexpr std::int32_t most_generations = 99; // each rotation renames them all

std::string with_note(const std::string &note) {
    return note.empty() ? note : "; " + note;
}

std::int64_t usable_size(std::int32_t size) {
    return size > 0 ? size : LOG_DEFAULT_SIZE;
}

// The event, its destination first.
std::string describe_event(const EVENTC_LOG_INFO &record, const std::string &destination) {
    const EVENTC_LOG_ALERT &alert = record.destinfo.alert;
    return "event " + std::to_string(alert.eventid) + " to " + destination + ", severity " +
           std::to_string(alert.loglevel) + ", from " + printable(alert.srcsv) + ", " +
           printable(alert.date) + ": " + printable(alert.msg);
}

std::string describe_alert(const EVENTC_LOG_INFO &record) {
    const std::string cmdtype = record.destinfo.alert.cmdtype;
    return describe_event(record, "ALERT " + printable(cmdtype) + (cmdtype == "altexec" ? " (not run)" : ""));
}

} // namespace

std::string Modules::take(const EVENTC_LOG_INFO &record) {
    switch (record.dest) {
    case EVENTC_REQ_INITIALIZE:
    case EVENTC_REQ_REINITIALIZE:
        return initialize(record);
    case EVENTC_REQ_TERMINATE:
        return terminate(record);
    case EVENTC_REQ_LOCAL:
        return append(record);
    case EVENTC_REQ_SYSLOG:
        return describe_event(record, "SYSLOG");
    case EVENTC_REQ_ALERT:
        return describe_alert(record);
    case EVENTC_REQ_PUBSUB:
        return describe_event(record, "PUBSUB");
    case EVENTC_REQ_RELOGLVL:
        return change_level(record);
    default:
        return change_size(record);
    }
}

// The directory of a record below the tree: a module must not write elsewhere. The tree itself may be named
// by a link, nothing below it.
fs::path Modules::directory(const EVENTC_LOG_INIT &init, std::string &note) const {
    if (init.dirpath[0] == '\0')
        return usual_log_directory;
    const fs::path given = (fs::path(init.dirpath) / "").lexically_normal().parent_path();
    fs::path head;
    fs::path below;
    bool inside = false;
    std::error_code error;
    for (const fs::path &name : given) {
        (inside ? below : head) /= name;
        inside = inside || (given.is_absolute() && fs::equivalent(head, tree_, error));
    }
    if (inside && fs::weakly_canonical(given, error) == (below.empty() ? tree_ : tree_ / below))
        return below;
    note = "\"" + printable(init.dirpath) + "\" is outside the tree or behind a link and not used";
    return usual_log_directory;
}

// Only the record that announces a performance log has to name its file.
std::string Modules::log_name(const EVENTC_LOG_INFO &record) const {
    std::string perf = record.perflogname;
    if (const auto known = perf_names_.find(record.type); perf.empty() && known != perf_names_.end())
        perf = known->second;
    return perf.empty() ? std::string(record.type) + ".log" : perf + ".csv";
}

std::string Modules::initialize(const EVENTC_LOG_INFO &record) {
    const EVENTC_LOG_INIT &init = record.destinfo.init;
    if (record.dest == EVENTC_REQ_INITIALIZE)
        perf_names_.erase(record.type);
    const std::string name = log_name(record);
    std::string note;
    if (!files_.set(name, {.size = usable_size(init.logsize),
                           .kept = std::clamp(init.rotate, 1, most_generations),
                           .header = init.header,
                           .directory = directory(init, note)}))
        return "refused: too many logs";
    if (record.perflogname[0] != '\0')
        perf_names_[record.type] = record.perflogname;
    const bool again = record.dest == EVENTC_REQ_REINITIALIZE;
    const std::string problem = again ? table_.set(record.type, init.loglevel, init.logsize, init.logtype)
                                      : table_.enter(record.type, init.loglevel, init.logsize, init.logtype);
    if (!problem.empty())
        note += (note.empty() ? "" : "; ") + std::string("not in the level table: ") + problem;
    const bool told = init.startendmsgflag == 1;
    if (told)
        telling_.insert(name);
    else
        telling_.erase(name);
    return std::string(again  ? "has new settings"
                       : told ? "starts"
                              : "announced") +
           ", level " + std::to_string(init.loglevel) + ", size " + std::to_string(init.logsize) + ", log " +
           printable(files_.path(name).string()) + with_note(note);
}

// Another process of the same type may go on, so that the settings stay.
std::string Modules::terminate(const EVENTC_LOG_INFO &record) {
    return telling_.contains(log_name(record)) ? "ends" : "closed";
}

std::string Modules::append(const EVENTC_LOG_INFO &record) {
    const EVENTC_LOG_LOCAL &local = record.destinfo.local;
    std::string_view line = local.msg;
    files_.append(log_name(record), line);
    if (line.ends_with('\n'))
        line.remove_suffix(1);
    return "local " + std::to_string(local.loglevel) + ": " + printable(line);
}

std::string Modules::change_level(const EVENTC_LOG_INFO &record) {
    const std::int32_t level = record.destinfo.init.loglevel;
    const std::string problem = table_.set(record.type, level, 0, 0);
    return problem.empty() ? "level " + std::to_string(level) : "refused: " + problem;
}

std::string Modules::change_size(const EVENTC_LOG_INFO &record) {
    const std::int32_t size = record.destinfo.init.logsize;
    const std::string problem = table_.set(record.type, 0, size, 0);
    if (!problem.empty())
        return "refused: " + problem;
    files_.set_size(log_name(record), usable_size(size));
    return "size " + std::to_string(size);
}

} // namespace rehearsal
