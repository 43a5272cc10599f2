// Log files: opening, generations, lines.
#include "events/files.h"

#include "listen.h"

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

Descriptor open_log(const fs::path &file) {
    constexpr int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    Descriptor log(::open(file.c_str(), flags, 0644));
    if (log.get() < 0 && errno == ENOENT) {
        fs::create_directories(file.parent_path());
        log = Descriptor(::open(file.c_str(), flags, 0644));
    }
    if (log.get() < 0)
        fail(errno, file);
    return log;
}

std::int64_t size_of(const Descriptor &log, const fs::path &file) {
    struct stat status = {};
    if (::fstat(log.get(), &status) != 0)
        fail(errno, file);
    if (!S_ISREG(status.st_mode))
        fail(EINVAL, file);
    return status.st_size;
}

fs::path generation(const fs::path &file, std::int32_t number) {
    return file.string() + "." + std::to_string(number);
}

// Moves each generation one up, as far as there are any; the oldest one is written over.
void shift(const fs::path &file, std::int32_t kept) {
    std::int32_t number = 1;
    while (number < kept && fs::exists(fs::symlink_status(generation(file, number))))
        ++number;
    for (; number > 1; --number)
        fs::rename(generation(file, number - 1), generation(file, number));
    fs::rename(file, generation(file, 1));
}

std::string as_line(std::string_view text) {
    std::string line(text);
    if (!line.ends_with('\n'))
        line += '\n';
    return line;
}

void write_all(const Descriptor &log, std::string_view text, const fs::path &file) {
    while (!text.empty()) {
        const ssize_t written = ::write(log.get(), text.data(), text.size());
        if (written < 0 && errno != EINTR)
            fail(errno, file);
        text.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
    }
}

} // namespace

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
    return found != logs_.end() ? found->second : LogSettings{.directory = directory_};
}

fs::path LogFiles::path(const std::string &name) const {
    return settings(name).directory / name;
}

void LogFiles::append(const std::string &name, std::string_view line) {
    const LogSettings log = settings(name);
    if (!logs_.contains(name) && !set(name, log))
        throw std::runtime_error("there are too many logs");
    // A link that was planted since the directory was judged leads to another one.
    if (fs::weakly_canonical(log.directory) != log.directory)
        throw std::runtime_error("\"" + log.directory.string() + "\" is a link");
    const fs::path file = log.directory / name;
    const std::string header = log.header.empty() ? std::string() : as_line(log.header);
    std::string text = as_line(line);
    Descriptor out = open_log(file);
    std::int64_t size = size_of(out, file);
    if (size > std::ssize(header) && size + std::ssize(text) > log.size) {
        shift(file, log.kept);
        out = open_log(file);
        size = size_of(out, file);
    }
    if (size == 0)
        text.insert(0, header);
    write_all(out, text, file);
}

} // namespace rehearsal
