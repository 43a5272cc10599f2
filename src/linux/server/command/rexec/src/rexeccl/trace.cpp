// The one trace function of the command and of its transfer client.
//
// It is called from every thread, also from those that are cancelled at their time limit. A cancel
// must not cut a line in half or leave a lock behind, so cancellation is off for the length of a
// call. Record locks belong to the process and do not keep its own threads apart: one mutex spans
// lock, write and unlock of a line.
#include "rexeccl/trace.h"

#include "cancel.h"
#include "log.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <mutex>

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

void *_rexec_ploghandle = nullptr;
std::FILE *_rexec_pusrlogfd = nullptr;

namespace {

constexpr std::size_t message_size = 4096;

std::mutex user_log_mutex;

char level_letter(std::int32_t level) {
    if (level <= 1)
        return 'E';
    if (level == 2)
        return 'W';
    return level <= 4 ? 'I' : 'T';
}

const char *last_component(const char *path) {
    const char *slash = std::strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

// A record lock over the whole file keeps the lines of several processes apart.
class FileLock {
public:
    explicit FileLock(int fd) : fd_(fd) { set(F_WRLCK); }
    ~FileLock() { set(F_UNLCK); }
    FileLock(const FileLock &) = delete;
    FileLock &operator=(const FileLock &) = delete;

private:
    void set(short type) {
        struct flock range = {};
        range.l_type = type;
        range.l_whence = SEEK_SET;
        while (fcntl(fd_, F_SETLKW, &range) == -1 && errno == EINTR) {
        }
    }
    int fd_;
};

// Where a line comes from, as the user log file shows it.
struct LineSource {
    char letter;
    unsigned long pid;
    unsigned int tid;
    std::int32_t line;
    const char *file;
    const char *function;
};

void print_line(std::FILE *file, const LineSource &at, const char *message) {
    struct timeval now = {};
    struct tm local = {};
    if (gettimeofday(&now, nullptr) == 0 && localtime_r(&now.tv_sec, &local) != nullptr)
        std::fprintf(file, "%c %4d/%02d/%02d %02d:%02d:%02d.%03ld [%05lu:%08x]%05d:%-10.10s %-16.16s  %s\n",
                     at.letter, local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                     local.tm_min, local.tm_sec, static_cast<long>(now.tv_usec) / 1000, at.pid, at.tid,
                     at.line, at.file, at.function, message);
    else
        std::fprintf(file, "%c %-24.24s[%05lu:%08x]%05d:%-10.10s %-16.16s  %s\n", at.letter, "????", at.pid,
                     at.tid, at.line, at.file, at.function, message);
}

void write_user_log(std::int32_t level, const char *source_file, std::int32_t line, const char *function,
                    const char *message) {
    const LineSource at = {level_letter(level),         static_cast<unsigned long>(getpid()),
                           log_low32(pthread_self()),   line,
                           last_component(source_file), function};
    const std::lock_guard threads(user_log_mutex);
    const FileLock processes(fileno(_rexec_pusrlogfd));
    print_line(_rexec_pusrlogfd, at, message);
}

} // namespace

bool rexeccl_tracing() {
    return _rexec_ploghandle != nullptr || _rexec_pusrlogfd != nullptr;
}

void rexeccllog(std::int32_t level, const char *source_file, std::int32_t line, const char *function,
                const char *format, ...) {
    if (!rexeccl_tracing() || format == nullptr)
        return;
    const CancelDisabled whole_line;
    const int caller_errno = errno;
    char message[message_size];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(message, sizeof(message), format, arguments);
    va_end(arguments);
    if (_rexec_ploghandle != nullptr)
        log_write_text(_rexec_ploghandle, level, source_file, line, function, message);
    if (_rexec_pusrlogfd != nullptr)
        write_user_log(level, source_file, line, function, message);
    errno = caller_errno;
}
