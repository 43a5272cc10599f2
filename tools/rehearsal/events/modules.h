// What becomes of a record: log file, level table, or a word about where an event would go.
#pragma once

#include "eventc.h"
#include "events/files.h"
#include "events/table.h"

#include <filesystem>
#include <map>
#include <set>
#include <string>

namespace rehearsal {

class Modules {
public:
    // `tree` is canonical.
    explicit Modules(const std::filesystem::path &tree) : tree_(tree), files_(tree), table_(tree) {}

    // Does what a record that passed read_record asks for and tells it in one line. Throws std::system_error
    // when a file cannot be written.
    std::string take(const EVENTC_LOG_INFO &record);

    const LevelTable &table() const { return table_; }

private:
    std::string initialize(const EVENTC_LOG_INFO &record);
    std::string terminate(const EVENTC_LOG_INFO &record);
    std::string append(const EVENTC_LOG_INFO &record);
    std::string change_level(const EVENTC_LOG_INFO &record);
    std::string change_size(const EVENTC_LOG_INFO &record);
    std::string log_name(const EVENTC_LOG_INFO &record) const;
    std::filesystem::path directory(const EVENTC_LOG_INIT &init, std::string &note) const;

    std::filesystem::path tree_;
    LogFiles files_;
    LevelTable table_;
    std::set<std::string> telling_{};                 // logs whose start and end are told
    std::map<std::string, std::string> perf_names_{}; // of performance logs by their module types
};

} // namespace rehearsal
