// The level table, through the operations that the log library's own side shares with it.
#include "events/table.h"

#include "events/receive.h"
#include "events/record.h"
#include "log.h"
#include "shmlog.h"
#include "text.h"

#include <charconv>
#include <stdexcept>

namespace rehearsal {
namespace {

std::string explain(std::int32_t code) {
    switch (code) {
    case SHMLOG_OK:
        return {};
    case SHMLOG_ERR_PARAMETER:
        return "a level below -1 or a size below 0";
    case SHMLOG_ERR_NOSPACE:
        return "every entry is used";
    case SHMLOG_ERR_KEY:
    case SHMLOG_ERR_KEYFILE:
        return "its key file work/ipc/event.key cannot be made or read";
    case SHMLOG_ERR_GET:
        return "there is none, or one that another user made";
    default:
        return "code " + std::to_string(code);
    }
}

[[noreturn]] void fail(const std::filesystem::path &tree, std::int32_t code) {
    throw std::runtime_error("no level table for " + tree.string() + ": " + explain(code));
}

struct Entry {
    std::int32_t level = 0;
    std::int32_t size = 0;
    std::int32_t logtype = 0;
};

bool find(const std::string &type, Entry &entry) {
    return shmlog_getloginfo(type.c_str(), &entry.level, &entry.size, &entry.logtype) == SHMLOG_OK;
}

std::int32_t parse_level(const std::string &text) {
    std::int32_t level = 0;
    const char *end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, level);
    if (error != std::errc{} || stopped != end || level < -1 || level > LOG_LEVEL_EVENT)
        throw std::invalid_argument("level \"" + text + "\" is not one of -1 and 1 to " +
                                    std::to_string(LOG_LEVEL_EVENT));
    if (level == 0)
        throw std::invalid_argument("the level table cannot express level 0; -1 writes nothing");
    return level;
}

} // namespace

LevelTable::LevelTable(const std::filesystem::path &tree)
    : made_(shmlog_attach(nullptr, tree.c_str(), nullptr) != SHMLOG_OK) {
    if (!made_)
        return;
    if (const std::int32_t code = shmlog_create(nullptr, tree.c_str(), nullptr); code != SHMLOG_OK)
        fail(tree, code);
}

LevelTable::~LevelTable() {
    if (made_)
        shmlog_delete();
    else
        shmlog_detach();
}

std::string LevelTable::enter(const std::string &type, std::int32_t level, std::int32_t size,
                              std::int32_t logtype) {
    Entry entry;
    if (!find(type, entry))
        return set(type, level, size, logtype);
    return entry.size == 0 ? set(type, 0, size, logtype) : std::string(); // entered by an operator
}

std::string LevelTable::set(const std::string &type, std::int32_t level, std::int32_t size,
                            std::int32_t logtype) {
    return explain(shmlog_setloginfo(type.c_str(), level, size, logtype));
}

std::string set_level(const std::filesystem::path &tree, const std::string &text) {
    const std::size_t equals = text.rfind('=');
    if (equals == text.npos)
        throw std::invalid_argument("\"" + text + "\" is not of the form TYPE=LEVEL");
    const std::string type = text.substr(0, equals);
    if (const std::string problem = judge_type(type); !problem.empty())
        throw std::invalid_argument(problem);
    const std::int32_t level = parse_level(text.substr(equals + 1));
    if (!is_read(local_socket(tree)))
        throw std::runtime_error("no event daemon reads " + local_socket(tree).string());
    if (const std::int32_t code = shmlog_attach(nullptr, tree.c_str(), nullptr); code != SHMLOG_OK)
        fail(tree, code);
    Entry before;
    const bool known = find(type, before);
    const std::string problem = explain(shmlog_setloginfo(type.c_str(), level, 0, 0));
    shmlog_detach();
    if (!problem.empty())
        throw std::runtime_error("the level of " + printable(type) + " cannot be set: " + problem);
    return "level of " + printable(type) + " set to " + std::to_string(level) +
           (known ? ", it was " + std::to_string(before.level) : ", no such module has started yet");
}

} // namespace rehearsal
