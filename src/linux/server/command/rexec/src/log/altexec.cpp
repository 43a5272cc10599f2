#include "log/altexec.h"

#include "log/catalogue.h"
#include "log/line.h"
#include "log/store.h"

#include <memory>
#include <new>
#include <string_view>

namespace {

constexpr std::string_view token = "%%MSG%%";
constexpr std::size_t kept = EVENTC_MSG_LEN - 1;

bool build_command(std::string_view value, std::string_view text, LogCommand *command) {
    const std::size_t at = value.find(token);
    if (at == value.npos) {
        command->line[value.copy(command->line, kept)] = '\0';
        return true;
    }
    const std::string_view after = value.substr(at + token.size());
    if (after.find(token) != after.npos || text.size() + 2 > kept || value.size() + text.size() > kept) {
        LOG_DEBUG("altexec err:%.*s", static_cast<int>(value.size()), value.data());
        return false;
    }
    std::snprintf(command->line, sizeof(command->line), "%.*s%s%s", static_cast<int>(at), value.data(),
                  text.data(), after.data());
    return true;
}

} // namespace

std::int32_t log_get_altexecmsg(const LOGLIB_OBJ *plogobj, std::int32_t eid, const char *text,
                                LogCommand *commands, std::size_t count) {
    LogCatalogue catalogue;
    if (const std::int32_t ret = catalogue.open(plogobj, eid); ret != LOG_OK)
        return ret;
    std::size_t built = 0;
    while (built < count && catalogue.next()) {
        if (!catalogue.key_is("ALTEXEC"))
            continue;
        char value[EVENTC_MSG_LEN];
        log_end_text(value, sizeof(value), std::snprintf(value, sizeof(value), "%s", catalogue.value()));
        if (!build_command(value, text, &commands[built++]))
            return LOG_ERR_COMMAND;
    }
    return built == count ? LOG_OK : LOG_ERR_COMMAND; // the file may have changed since they were counted
}

std::int32_t log_get_altexecmsg_conf(const LOGLIB_OBJ *plogobj, std::int32_t eid, const char *text,
                                     LogCommand *commands, std::size_t count) {
    const LogStore store;
    if (!store.started())
        return LOG_ERR_CONFIG;
    const LogPolicy policy("event");
    if (!policy.loaded())
        return LOG_ERR_POLICY;
    char key[512];
    std::snprintf(key, sizeof(key), "/root/messages/%s@%d/cmd", plogobj->modtype, eid);
    const std::unique_ptr<char[]> names(new (std::nothrow) char[count * LOG_ENUM_LEN]());
    if (names == nullptr)
        return LOG_ERR_MEMORY;
    int size = static_cast<int>(count * LOG_ENUM_LEN);
    if (xmllib_enum_value(key, names.get(), &size) != XMLLIB_OK || size < 0 ||
        static_cast<std::size_t>(size) < count * LOG_ENUM_LEN)
        return LOG_ERR_COMMAND; // the configuration may have changed since they were counted
    for (std::size_t i = 0; i < count; ++i) {
        char value[EVENTC_MSG_LEN];
        std::snprintf(key, sizeof(key), "/root/messages/%s@%d/cmd@%s/cmdline", plogobj->modtype, eid,
                      &names[i * LOG_ENUM_LEN]);
        if (!log_read_text(key, value) || !build_command(value, text, &commands[i]))
            return LOG_ERR_COMMAND;
    }
    return LOG_OK;
}
