// The journal: a line an exchange on standard output, and the raw bytes of each packet in files.
#pragma once

#include "exchange.h"

#include <filesystem>
#include <mutex>

namespace rehearsal {

// Now, as "hh:mm:ss.mmm" in local time.
std::string time_of_day();

// One readable line about an exchange, with the time of day, without a newline.
std::string journal_line(const Exchange &exchange);

// Writes whole lines to a descriptor and stays silent once that fails. Any thread.
class Journal {
public:
    // `descriptor` -1: no lines. An empty `dumps`: no files; otherwise the folder is made when it is
    // missing (throws std::filesystem::filesystem_error).
    Journal(int descriptor, std::filesystem::path dumps);

    void line(const std::string &text);
    void exchange(const Exchange &exchange);

private:
    void dump(const Exchange &exchange);

    std::mutex mutex_;
    int descriptor_; // guarded by mutex_; -1 once it failed
    std::filesystem::path dumps_;
    unsigned number_ = 0; // of the last dumped exchange; guarded by mutex_
};

} // namespace rehearsal
