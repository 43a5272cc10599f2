// Standard output, written whole: short writes, interruptions and a full pipe that does not block
// are gone on with, so that no line is torn or lost while somebody reads.
#include "rexec/output.h"

#include "rexeccl/trace.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <poll.h>
#include <unistd.h>

namespace {

bool wait_until_writable(int fd) {
    struct pollfd waited = {.fd = fd, .events = POLLOUT, .revents = 0};
    return poll(&waited, 1, -1) > 0 || errno == EINTR;
}

void write_all(int fd, const char *data, std::size_t size) {
    while (size > 0) {
        const ssize_t written = write(fd, data, size);
        if (written > 0) {
            data += written;
            size -= static_cast<std::size_t>(written);
        } else if (written == 0 || (errno != EINTR && (errno != EAGAIN || !wait_until_writable(fd)))) {
            REXEC_TRACE(1, "write() failed. (ret=%zd errno=%d)", written, errno);
            return;
        }
    }
}

} // namespace

Output::~Output() {
    flush();
    if (locked_)
        funlockfile(stdout);
}

void Output::print(const char *format, ...) {
    char text[sizeof(buffer_)];
    va_list arguments;
    va_start(arguments, format);
    const int wanted = std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    if (wanted <= 0)
        return;
    if (!locked_)
        flockfile(stdout);
    locked_ = true;
    const std::size_t length = std::min(static_cast<std::size_t>(wanted), sizeof(text) - 1);
    if (length > sizeof(buffer_) - used_)
        flush();
    std::memcpy(buffer_ + used_, text, length);
    used_ += length;
}

void Output::flush() {
    write_all(STDOUT_FILENO, buffer_, used_);
    used_ = 0;
}
