// Events: looked up, formatted, and sent to one destination after the other.
//
// Several threads may write events through one handle, so all that belongs to one of them lives on the stack
// of its writer, and the handle is only read.
#include "log/event.h"

#include "log/altexec.h"
#include "log/line.h"
#include "log/lookup.h"
#include "log/send.h"

#include <array>
#include <cstring>
#include <memory>
#include <new>

#include <strings.h>

namespace {

constexpr std::size_t commands_max = 256; // of one event

// One event on its way, in the one record that goes to all destinations but "uptime".
struct Sending {
    const LOGLIB_OBJ *plogobj;
    LogEvent event;
    char text[EVENTC_MSG_LEN] = "";
    EVENTC_LOG_INFO record;
    // Sends that have put the integers of the record in network order; the next one converts them only where
    // there was none. "pubsub" is not counted, and what goes out behind it is converted once more: that order
    // of bytes is the format.
    std::int32_t converted = 0;
};

std::int32_t look_up(const LOGLIB_OBJ *plogobj, std::int32_t eid, LogEvent *event) {
    if (altsendflag == 1) {
        const std::int32_t ret = log_get_sendinfo(plogobj, eid, event);
        if (ret != LOG_OK && ret != LOG_ERR_UNSET)
            LOG_DEBUG("log_get_sendinfo err ret:%d", ret);
        if (ret != LOG_ERR_UNSET)
            return ret;
    }
    const std::int32_t ret = log_get_eventfile(plogobj, eid, event);
    if (ret != LOG_OK)
        LOG_DEBUG("log_get_eventfile err ret:%d", ret);
    return ret;
}

void format_text(Sending *sending, va_list arguments) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    const int length = std::vsnprintf(sending->text, sizeof(sending->text), sending->event.text, arguments);
#pragma GCC diagnostic pop
    log_end_text(sending->text, sizeof(sending->text), length);
}

void fill_record(Sending *sending) {
    log_cre_record(&sending->record, EVENTC_REQ_ALERT, sending->plogobj->modtype);
    EVENTC_LOG_ALERT &alert = sending->record.destinfo.alert;
    log_cre_datestr(alert.date, LOG_LEVEL_EVENT, sending->plogobj->loginfo.showyearflag);
    zyngethostname(alert.srcsv);
    alert.eventid = sending->event.eid;
    alert.loglevel = sending->event.loglevel;
}

// Begins the record anew for a destination, and returns what differs from one to the next.
EVENTC_LOG_ALERT &begin(Sending *sending, eventc_request_type dest, const char *cmdtype) {
    EVENTC_LOG_ALERT &alert = sending->record.destinfo.alert;
    sending->record.dest = dest;
    std::memset(alert.cmdtype, 0, sizeof(alert.cmdtype));
    std::memset(alert.msg, 0, sizeof(alert.msg));
    std::snprintf(alert.cmdtype, sizeof(alert.cmdtype), "%s", cmdtype);
    return alert;
}

std::int32_t send_counted(Sending *sending) {
    return log_send(sending->plogobj, &sending->record, sending->converted++);
}

bool is_tagged(const Sending &sending) {
    return sending.plogobj->loginfo.sysloglvlflag == 1;
}

std::int32_t send_syslog(Sending *sending, const char *) {
    EVENTC_LOG_ALERT &alert = begin(sending, EVENTC_REQ_SYSLOG, "");
    const LogEvent &event = sending->event;
    const char *type = sending->plogobj->modtype;
    const int length = is_tagged(*sending)
                           ? std::snprintf(alert.msg, sizeof(alert.msg), "[%s] <type: %s><event: %d> %s",
                                           event.syslevel, type, event.eid, sending->text)
                           : std::snprintf(alert.msg, sizeof(alert.msg), "<type: %s><event: %d> %s", type,
                                           event.eid, sending->text);
    log_end_text(alert.msg, sizeof(alert.msg), length);
    return send_counted(sending);
}

std::int32_t send_alert(Sending *sending, const char *name) {
    const std::size_t length = std::strlen(sending->text);
    std::memcpy(begin(sending, EVENTC_REQ_ALERT, name).msg, sending->text, length);
    return send_counted(sending);
}

std::int32_t send_pubsub(Sending *sending, const char *) {
    const std::size_t length = std::strlen(sending->text);
    std::memcpy(begin(sending, EVENTC_REQ_PUBSUB, "").msg, sending->text, length);
    return log_send(sending->plogobj, &sending->record, sending->converted);
}

std::int32_t send_commands(Sending *sending, const char *name) {
    const LOGLIB_OBJ *plogobj = sending->plogobj;
    const std::size_t count = sending->event.commands;
    if (plogobj->loginfo.altexecflag == 0)
        return LOG_OK;
    if (count == 0 || count > commands_max)
        return LOG_ERR_COMMAND;
    const std::unique_ptr<LogCommand[]> commands(new (std::nothrow) LogCommand[count]());
    if (commands == nullptr) {
        LOG_DEBUG("malloc err altexecmsg:%p", static_cast<void *>(nullptr));
        return LOG_ERR_MEMORY;
    }
    const auto build = sending->event.configured ? log_get_altexecmsg_conf : log_get_altexecmsg;
    if (build(plogobj, sending->event.eid, sending->text, commands.get(), count) != LOG_OK)
        return LOG_ERR_COMMAND;
    std::int32_t result = LOG_OK;
    for (std::size_t i = 0; i < count; ++i) {
        std::memcpy(begin(sending, EVENTC_REQ_ALERT, name).msg, commands[i].line, sizeof(LogCommand));
        if (const std::int32_t ret = send_counted(sending); ret != LOG_OK)
            result = ret;
    }
    return result;
}

// Syslog severities: up to 3 they are errors, 4 is a warning, the rest information.
std::int32_t level_of(std::int32_t severity) {
    if (severity < 0 || severity > 4)
        return LOG_LEVEL_INFO;
    return severity == 4 ? LOG_LEVEL_WARNING : LOG_LEVEL_ERROR;
}

// A line of the "uptime" log, in a record of its own.
std::int32_t send_uptime(Sending *sending, const char *name) {
    const LogEvent &event = sending->event;
    EVENTC_LOG_INFO record;
    log_cre_record(&record, EVENTC_REQ_LOCAL, name);
    record.destinfo.local.loglevel = level_of(event.loglevel);
    char thread[16] = "     "; // the main thread has no number
    if (record.tid != record.pid)
        std::snprintf(thread, sizeof(thread), "%05d", record.tid);
    char tag[8] = "";
    if (is_tagged(*sending))
        std::snprintf(tag, sizeof(tag), " [%s]", event.syslevel);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-truncation" // what is cut ends in a newline below
    std::snprintf(record.destinfo.local.msg, LOG_LINE_LEN, "%s[%05d:%s]%s <type: %s><event: %d> %s\n",
                  sending->record.destinfo.alert.date, record.pid, thread, tag, sending->plogobj->modtype,
                  event.eid, sending->text);
#pragma GCC diagnostic pop
    log_end_line(record.destinfo.local.msg);
    return log_send(sending->plogobj, &record, 0);
}

// Destinations that are not an alert of their name. The name in the table goes into the record.
struct DestinationRow {
    const char *name;
    std::int32_t (*send)(Sending *sending, const char *name);
};
constexpr auto destinations = std::to_array<DestinationRow>(
    {{"syslog", send_syslog}, {"altexec", send_commands}, {"uptime", send_uptime}, {"pubsub", send_pubsub}});

std::int32_t send_to(Sending *sending, const char *name) {
    for (const DestinationRow &row : destinations)
        if (strcasecmp(row.name, name) == 0)
            return row.send(sending, row.name);
    return send_alert(sending, name);
}

} // namespace

std::int32_t log_write_event(const LOGLIB_OBJ *plogobj, std::int32_t eid, va_list arguments) {
    Sending sending;
    sending.plogobj = plogobj;
    if (const std::int32_t ret = look_up(plogobj, eid, &sending.event); ret != LOG_OK)
        return ret;
    format_text(&sending, arguments);
    fill_record(&sending);
    std::int32_t result = LOG_OK;
    for (std::size_t i = 0; i < sending.event.destinations; ++i) {
        const std::int32_t ret = send_to(&sending, sending.event.sendto[i]);
        if (ret == LOG_ERR_MEMORY)
            return ret;
        if (ret != LOG_OK)
            result = LOG_ERR_DAEMON;
    }
    return result;
}
