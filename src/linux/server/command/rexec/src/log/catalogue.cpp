#include "log/catalogue.h"

#include "log/line.h"

#include <cerrno>
#include <charconv>
#include <cstring>

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr off_t catalogue_size_max = off_t{4} << 20; // bytes; each event reads the file

bool starts_entry(const char *line) {
    return line[0] == 'I' && line[1] == 'D' && std::strchr(line, '=') != nullptr;
}

// Whether the line that starts an entry gives this event number.
bool has_number(const char *line, std::int32_t eid) {
    const char *text = std::strchr(line, '=') + 1;
    text += std::strspn(text, " \t");
    std::int32_t number = 0;
    return std::from_chars(text, text + std::strlen(text), number).ec == std::errc() && number == eid;
}

} // namespace

LogCatalogue::~LogCatalogue() {
    if (file_ != nullptr)
        std::fclose(file_);
}

// Whatever stands in the place of the file, this does not wait for it.
bool LogCatalogue::open_file(const char *path) {
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd == -1)
        return false;
    struct stat status = {};
    int error = fstat(fd, &status) != 0               ? errno
                : !S_ISREG(status.st_mode)            ? EINVAL
                : status.st_size > catalogue_size_max ? EFBIG
                                                      : 0;
    if (error == 0 && (file_ = fdopen(fd, "r")) == nullptr)
        error = errno;
    if (error != 0)
        close(fd);
    errno = error;
    return error == 0;
}

std::int32_t LogCatalogue::open(const LOGLIB_OBJ *plogobj, std::int32_t eid) {
    const LOGLIB_INFO &info = plogobj->loginfo;
    char path[sizeof(info.inspath) + sizeof(plogobj->modtype) + 64];
    std::snprintf(path, sizeof(path), "%s%s/%s.%s.%s", info.inspath, "/messages", plogobj->modtype, "msg",
                  info.msgloc);
    if (!open_file(path)) {
        LOG_DEBUG("fopen err:errno=%d", errno);
        return LOG_ERR_CATALOGUE;
    }
    while (read_line())
        if (starts_entry(line_) && has_number(line_, eid))
            return LOG_OK;
    return LOG_ERR_EVENT;
}

// Takes a line without the white space around it; what is too long for it is read over.
bool LogCatalogue::read_line() {
    std::size_t length = 0;
    int c = getc_unlocked(file_);
    if (c == EOF)
        return false;
    for (; c != EOF && c != '\n'; c = getc_unlocked(file_), ++length)
        if (length < sizeof(line_) - 1)
            line_[length] = static_cast<char>(c);
    const bool cut = length >= sizeof(line_);
    line_[cut ? sizeof(line_) - 1 : length] = '\0';
    if (cut)
        log_end_text(line_, sizeof(line_), sizeof(line_));
    log_cut_space(line_);
    return true;
}

bool LogCatalogue::next() {
    while (read_line() && !starts_entry(line_)) {
        char *equals = std::strchr(line_, '=');
        if (equals == nullptr)
            continue;
        value_ = equals + 1;
        log_cut_space(value_);
        if (*value_ != '\0')
            return true;
    }
    return false;
}

bool LogCatalogue::key_is(const char *name) const {
    return strncasecmp(line_, name, std::strlen(name)) == 0;
}
