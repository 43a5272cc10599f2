// Log files: opening, generations, lines.
#include "events/files.h"

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace rehearsal {
namespace {

constexpr std::size_t most_logs = 256; // as many as the level table has entries

[[noreturn]] void fail(int error, const fs::path &file) {
    throw std::system_error(error, std::generic_category(), "cannot write " + file.string());
}

// A directory below another one. It is entered name by name, so that no link on the way is followed, and made
// where it is missing. `path` is for words.
Descriptor open_directory(const Descriptor &root, const fs::path &below, const fs::path &path) {
    constexpr int flags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    Descriptor at(::openat(root.get(), ".", flags));
    for (const fs::path &name : below) {
        Descriptor next(::openat(at.get(), name.c_str(), flags));
        if (next.get() < 0 && errno == ENOENT && ::mkdirat(at.get(), name.c_str(), 0755) == 0)
            next = Descriptor(::openat(at.get(), name.c_str(), flags));
        at = std::move(next);
        if (at.get() < 0)
            break;
    }
    if (at.get() < 0)
        fail(errno, path);
    return at;
}

std::string generation(const std::string &name, std::int32_t number) {
    return name + "." + std::to_string(number);
}

// A log file in a directory that is held open.
class LogFile {
public:
    LogFile(const Descriptor &directory, std::string name, fs::path path)
        : directory_(directory), name_(std::move(name)), path_(std::move(path)) {
        open();
    }
    std::int64_t size() const { return size_; }

    bool begins_with(std::string_view text) const {
        std::string found(text.size(), '\0');
        return ::pread(log_.get(), found.data(), found.size(), 0) == std::ssize(found) && found == text;
    }

    // Goes on with an empty file. Each generation moves one up, as far as there are any; the oldest one is
    // written over.
    void shift(std::int32_t kept) {
        std::int32_t number = 1;
        struct stat status = {};
        while (number < kept && ::fstatat(directory_.get(), generation(name_, number).c_str(), &status,
                                          AT_SYMLINK_NOFOLLOW) == 0)
            ++number;
        for (; number > 1; --number)
            move(generation(name_, number - 1), generation(name_, number));
        move(name_, generation(name_, 1));
        open();
    }

    void append(std::string_view text) const {
        while (!text.empty()) {
            const ssize_t written = ::write(log_.get(), text.data(), text.size());
            if (written < 0 && errno != EINTR)
                give_up(errno);
            text.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
        }
    }

private:
    void open() {
        constexpr int flags = O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
        log_ = Descriptor(::openat(directory_.get(), name_.c_str(), flags, 0644));
        struct stat status = {};
        if (log_.get() < 0 || ::fstat(log_.get(), &status) != 0)
            fail(errno, path_);
        if (!S_ISREG(status.st_mode))
            fail(EINVAL, path_);
        size_ = status.st_size;
    }

    void move(const std::string &from, const std::string &to) const {
        if (::renameat(directory_.get(), from.c_str(), directory_.get(), to.c_str()) != 0)
            fail(errno, path_);
    }

    // Half a line, or half a header, would spoil the next one.
    [[noreturn]] void give_up(int error) const {
        if (::ftruncate(log_.get(), size_) != 0)
            error = errno;
        fail(error, path_);
    }

    const Descriptor &directory_;
    std::string name_;
    fs::path path_; // for words only
    Descriptor log_;
    std::int64_t size_ = 0;
};

std::string as_line(std::string_view text) {
    std::string line(text);
    if (!line.ends_with('\n'))
        line += '\n';
    return line;
}

} // namespace

LogFiles::LogFiles(fs::path tree)
    : tree_(std::move(tree)), root_(::open(tree_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {
    if (root_.get() < 0)
        throw std::system_error(errno, std::generic_category(), "cannot open " + tree_.string());
}

bool LogFiles::set(const std::string &name, LogSettings settings) {
    if (!logs_.contains(name) && logs_.size() >= most_logs)
        return false;
    logs_[name] = std::move(settings);
    return true;
}

void LogFiles::set_size(const std::string &name, std::int64_t size) {
    LogSettings changed = settings(name);
    changed.size = size;
    set(name, std::move(changed));
}

LogSettings LogFiles::settings(const std::string &name) const {
    const auto found = logs_.find(name);
    return found != logs_.end() ? found->second : LogSettings{};
}

fs::path LogFiles::path(const std::string &name) const {
    return (tree_ / settings(name).directory / name).lexically_normal();
}

void LogFiles::append(const std::string &name, std::string_view line) {
    const LogSettings log = settings(name);
    if (!logs_.contains(name) && !set(name, log))
        throw std::runtime_error("there are too many logs");
    const Descriptor directory = open_directory(root_, log.directory, tree_ / log.directory);
    LogFile file(directory, name, path(name));
    const std::string header = log.header.empty() ? std::string() : as_line(log.header);
    const std::string text = as_line(line);
    const bool full = file.size() > std::ssize(header) && file.size() + std::ssize(text) > log.size;
    if (full || (file.size() > 0 && !file.begins_with(header)))
        file.shift(log.kept);
    file.append(file.size() == 0 ? header + text : text);
}

} // namespace rehearsal
