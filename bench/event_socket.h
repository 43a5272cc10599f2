// The event daemon's socket in the installation that scripts/bench lays out.
#pragma once

#include "eventc.h"

#include <cerrno>
#include <system_error>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

class EventSocket {
public:
    EventSocket()
        : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)),
          sender_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        unlink(address_.sun_path);
        if (bind(fd_, reinterpret_cast<const sockaddr *>(&address_), sizeof(address_)) != 0)
            throw std::system_error(errno, std::generic_category(), address_.sun_path);
    }
    ~EventSocket() {
        unlink(address_.sun_path);
        close(fd_);
        close(sender_);
    }
    EventSocket(const EventSocket &) = delete;
    EventSocket &operator=(const EventSocket &) = delete;

    void take() const {
        EVENTC_LOG_INFO record;
        recv(fd_, &record, sizeof(record), 0);
    }
    bool send(const EVENTC_LOG_INFO &record, int flags = 0) const {
        return sendto(sender_, &record, sizeof(record), flags, reinterpret_cast<const sockaddr *>(&address_),
                      sizeof(address_)) == sizeof(record);
    }
    // Ends a wait of take(). A reader with a full queue does not wait, and may take no more than one record.
    void wake() const { send({}, MSG_DONTWAIT); }
    // As a daemon leaves it that does not read any more.
    void fill() const {
        while (send({}, MSG_DONTWAIT)) {
        }
    }

private:
    const sockaddr_un address_ = {.sun_family = AF_UNIX, .sun_path = ZYN_INSTALL_TREE "/tmp/sockevent"};
    int fd_;
    int sender_;
};
