// The shared level table of a tree, as its event daemon keeps it and as an operator changes it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace rehearsal {

// At most one in a process.
class LevelTable {
public:
    // Makes the table, or takes one that is there. Throws std::runtime_error.
    explicit LevelTable(const std::filesystem::path &tree);
    ~LevelTable(); // removes what was made
    LevelTable(const LevelTable &) = delete;
    LevelTable &operator=(const LevelTable &) = delete;

    bool made() const { return made_; }
    // Enters a type that has no entry. A level that stands there stays, since an operator may have set it.
    // Returns what went wrong, in words; an empty text when nothing did, as the next.
    std::string enter(const std::string &type, std::int32_t level, std::int32_t size, std::int32_t logtype);
    // Sets what is not 0.
    std::string set(const std::string &type, std::int32_t level, std::int32_t size, std::int32_t logtype);

private:
    bool made_;
};

// Sets the level of "TYPE=LEVEL" in the table of a tree whose daemon runs, and tells what it did. Throws
// std::invalid_argument for another text and std::runtime_error where there is no daemon or table.
std::string set_level(const std::filesystem::path &tree, const std::string &text);

} // namespace rehearsal
