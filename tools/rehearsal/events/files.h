// The log files of a tree, one for each name, each cut off at its size and kept in generations.
#pragma once

#include "listen.h"
#include "log.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>

namespace rehearsal {

inline constexpr char usual_log_directory[] = "log";

struct LogSettings {
    std::int64_t size = LOG_DEFAULT_SIZE;                  // bytes of a file, its header included
    std::int32_t kept = 1;                                 // generations beside it: NAME.1 is the newest
    std::string header{};                                  // first line of each file, empty for none
    std::filesystem::path directory = usual_log_directory; // in the tree; made with the first line
};

// No file stays open between two lines: one that is taken away or replaced by hand is made anew. The tree
// does, and no link below it is followed: other users may write there.
class LogFiles {
public:
    // Throws std::system_error.
    explicit LogFiles(std::filesystem::path tree);

    // Settings from here on. False when there are too many names.
    bool set(const std::string &name, LogSettings settings);
    void set_size(const std::string &name, std::int64_t size);
    // Appends a line, with a newline at its end where it has none, or nothing. A file that the line would
    // take above the size, or that begins with another header, becomes NAME.1 first; one line always has
    // room. Throws std::system_error, also for what is no regular file.
    void append(const std::string &name, std::string_view line);

    std::filesystem::path path(const std::string &name) const;

private:
    LogSettings settings(const std::string &name) const;

    std::filesystem::path tree_;
    Descriptor root_; // the tree
    std::map<std::string, LogSettings> logs_{};
};

} // namespace rehearsal
