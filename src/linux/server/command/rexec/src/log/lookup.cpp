#include "log/lookup.h"

#include "log/catalogue.h"
#include "log/line.h"
#include "log/store.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <span>

#include <strings.h>

namespace {

struct KeyRow {
    const char *name; // first letters of the key
    std::int32_t (*take)(LogEvent *event, char *value);
};

void add_destination(LogEvent *event, const char *name) {
    if (event->destinations < LOG_SENDTO_MAX && *name != '\0')
        std::snprintf(event->sendto[event->destinations++], LOG_SENDTO_LEN, "%s", name);
}

std::int32_t take_destinations(LogEvent *event, char *value) {
    event->destinations = 0;
    for (char *name = strsep(&value, ","); name != nullptr; name = strsep(&value, ",")) {
        log_cut_space(name);
        add_destination(event, name);
    }
    return LOG_OK;
}

std::int32_t take_uptime(LogEvent *event, char *value) {
    const bool added =
        event->destinations > 0 && std::strcmp(event->sendto[event->destinations - 1], "uptime") == 0;
    if (!added && strcasestr(value, "uptime") != nullptr)
        add_destination(event, "uptime");
    return LOG_OK;
}

constexpr int width_max = 511; // characters; more is cut, after the C library has formatted all of it
constexpr std::uint64_t positions_max = 32;

// How the conversions of a text reach their arguments.
struct Arguments {
    std::uint64_t positions = 0; // a bit for each that is named
    bool counted = false;        // some are taken in order
};

// A conversion being read. Its arguments are counted, or named by position; the C library ends the process
// where a position leads to none.
class Conversion {
public:
    Conversion(const char *at, Arguments *arguments) : at_(at), arguments_(arguments) {}

    // Past the conversion; null when it is refused.
    const char *read() {
        const bool named = has_position();
        const bool position_ok = !named || take_position();
        skip("-+ #0'I");
        if (!position_ok || !take_number())
            return nullptr;
        if (*at_ == '.') {
            ++at_;
            if (!take_number())
                return nullptr;
        }
        const bool modifier_ok = take_modifier();
        if (*at_ == 'n' || *at_ == '%') // a sign behind modifiers may end this one or begin another
            return nullptr;
        const bool takes_argument =
            modifier_ok && *at_ != '\0' && std::strchr("diouxXeEfFgGaAcspCS", *at_) != nullptr;
        if (named && !takes_argument)
            return nullptr;
        if (!named && takes_argument)
            arguments_->counted = true;
        return *at_ != '\0' ? at_ + 1 : at_;
    }

private:
    std::size_t digits() const { return std::strspn(at_, "0123456789"); }
    bool has_position() const { return digits() > 0 && at_[digits()] == '$'; }
    void skip(const char *signs) { at_ += std::strspn(at_, signs); }
    // "N$"
    bool take_position() {
        const unsigned long number = std::strtoul(at_, nullptr, 10);
        at_ += digits() + 1;
        if (number < 1 || number > positions_max)
            return false;
        arguments_->positions |= std::uint64_t{1} << (number - 1);
        return true;
    }
    // A width or precision: a number, "*", "*N$", or nothing.
    bool take_number() {
        if (*at_ == '*') {
            ++at_;
            if (has_position())
                return take_position();
            arguments_->counted = true;
            return true;
        }
        const bool fits = digits() <= 3 && std::strtoul(at_, nullptr, 10) <= width_max;
        at_ += digits();
        return fits && *at_ != '$';
    }

    // Letters of length: any of them, "hh" or "ll". Behind others no conversion follows, and no argument is
    // taken.
    bool take_modifier() {
        const char *const first = at_;
        skip("hlLqjzZt");
        const bool pair = at_ - first == 2 && first[0] == first[1] && (*first == 'h' || *first == 'l');
        return at_ - first <= 1 || pair;
    }

    const char *at_;
    Arguments *arguments_;
};

// Whether a text can be formatted whatever its arguments are worth: none of its conversions writes to memory,
// and either all of them count their arguments or all name them, leaving none out. The C library would take
// an argument that is both counted and named as the last of them has it, a text as a number.
bool is_safe(const char *format) {
    Arguments arguments;
    for (const char *at = std::strchr(format, '%'); at != nullptr; at = std::strchr(at, '%')) {
        at = at[1] == '%' ? at + 2 : Conversion(at + 1, &arguments).read();
        if (at == nullptr)
            return false;
    }
    const std::uint64_t positions = arguments.positions;
    return positions == 0 || (!arguments.counted && (positions & (positions + 1)) == 0);
}

std::int32_t take_text(LogEvent *event, char *value) {
    log_end_text(event->text, sizeof(event->text),
                 std::snprintf(event->text, sizeof(event->text), "%s", value));
    if (is_safe(event->text))
        return LOG_OK;
    LOG_DEBUG("text err:%s", event->text);
    return LOG_ERR_TEXT;
}

// Letters of the catalogue are ASCII, whatever locale the program has set.
char to_upper(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}
char to_lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

std::int32_t take_level(LogEvent *event, char *value) {
    event->syslevel[0] = to_upper(value[0]);
    char name[4] = "";
    std::transform(value, value + strnlen(value, sizeof(name) - 1), name, to_lower);
    const LogStore store;
    if (!store.started())
        return LOG_ERR_CONFIG;
    const LogPolicy policy("event");
    if (!policy.loaded())
        return LOG_ERR_POLICY;
    char key[64];
    std::snprintf(key, sizeof(key), "/root/event/syslog/%s", name);
    event->loglevel = log_read_number(key, LogEvent().loglevel);
    return LOG_OK;
}

std::int32_t count_command(LogEvent *event, char *) {
    ++event->commands;
    return LOG_OK;
}

constexpr auto catalogue_keys = std::to_array<KeyRow>(
    {{"SEND", take_destinations}, {"MSG", take_text}, {"LVL", take_level}, {"ALTEXEC", count_command}});
// Where the configuration says where an event goes.
constexpr auto configured_keys =
    std::to_array<KeyRow>({{"SEND", take_uptime}, {"MSG", take_text}, {"LVL", take_level}});

std::int32_t read_entry(const LOGLIB_OBJ *plogobj, std::span<const KeyRow> keys, LogEvent *event) {
    LogCatalogue catalogue;
    if (const std::int32_t ret = catalogue.open(plogobj, event->eid); ret != LOG_OK)
        return ret;
    while (catalogue.next())
        for (const KeyRow &row : keys)
            if (catalogue.key_is(row.name))
                if (const std::int32_t ret = row.take(event, catalogue.value()); ret != LOG_OK)
                    return ret;
    return LOG_OK;
}

struct DestinationRow {
    const char *name;
    const char *key; // format of module type and event number
};
constexpr auto destination_keys = std::to_array<DestinationRow>({{"syslog", "/root/messages/%s@%d/syslog"},
                                                                 {"alert", "/root/messages/%s@%d/alert"},
                                                                 {"mail", "/root/messages/%s@%d/mail"},
                                                                 {"trap", "/root/messages/%s@%d/trap"},
                                                                 {"altexec", "/root/messages/%s@%d/altexec"},
                                                                 {"pubsub", "/root/messages/%s@%d/pubsub"}});

// Reads one key of an event; false where it is missing or no number.
bool read_flag(const LOGLIB_OBJ *plogobj, std::int32_t eid, const char *format, std::int32_t *value) {
    char key[128];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    std::snprintf(key, sizeof(key), format, plogobj->modtype, eid);
#pragma GCC diagnostic pop
    int size = sizeof(*value);
    return xmllib_get_value(key, XMLLIB_TYPE_INT, value, &size) == XMLLIB_OK;
}

std::size_t count_commands(const LOGLIB_OBJ *plogobj, std::int32_t eid) {
    char key[128];
    std::snprintf(key, sizeof(key), "/root/messages/%s@%d/cmd", plogobj->modtype, eid);
    int size = 0;
    const int ret = xmllib_enum_value(key, nullptr, &size);
    if (ret == XMLLIB_ERR_NOSIZE) // which tells the size
        return static_cast<std::size_t>(size) / LOG_ENUM_LEN;
    LOG_DEBUG("altexeccmd not set:ret=%d", ret);
    return 0;
}

std::int32_t read_destinations(const LOGLIB_OBJ *plogobj, LogEvent *event) {
    const LogStore store;
    if (!store.started())
        return LOG_ERR_CONFIG;
    if (store.loaded())
        xmllib_reload_config(); // another user of the process may have loaded it long ago
    const LogPolicy policy("event");
    if (!policy.loaded())
        return LOG_ERR_POLICY;
    std::int32_t ret = LOG_ERR_UNSET;
    for (const DestinationRow &row : destination_keys) {
        std::int32_t value = 0;
        if (!read_flag(plogobj, event->eid, row.key, &value))
            continue;
        ret = LOG_OK;
        if (value == 0)
            continue;
        add_destination(event, row.name);
        if (std::strcmp(row.name, "altexec") == 0)
            event->commands = count_commands(plogobj, event->eid);
    }
    return ret;
}

} // namespace

std::int32_t log_get_eventfile(const LOGLIB_OBJ *plogobj, std::int32_t eid, LogEvent *event) {
    *event = {};
    event->eid = eid;
    return read_entry(plogobj, catalogue_keys, event);
}

std::int32_t log_get_sendinfo(const LOGLIB_OBJ *plogobj, std::int32_t eid, LogEvent *event) {
    *event = {};
    event->eid = eid;
    event->configured = true;
    if (const std::int32_t ret = read_destinations(plogobj, event); ret != LOG_OK)
        return ret;
    return read_entry(plogobj, configured_keys, event);
}
