// An installation in the current directory, and the sockets of an event daemon in it.
#pragma once

#include "eventc.h"
#include "support/folder.h"

#include <cstring>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

class LogTree : public testing::Test {
protected:
    LogTree() {
        EXPECT_EQ(chdir(folder.path.c_str()), 0);
        std::filesystem::create_directory_symlink(folder / "lib/libzynxml.so.1.0.0", "libzynxml.so.1.0");
        for (const char *directory : {"etc/policy", "tmp", "work", "messages"})
            std::filesystem::create_directories(directory);
        for (const char *type : {"log", "cluster", "event"})
            folder.write(std::string("etc/policy/") + type + ".pol", "<root/>");
        folder.write("etc/policy/all.pol", "<root><all><path>" + folder.path + "</path></all></root>");
        configure("");
    }
    // What stands in the cluster configuration from the next log_init on.
    void configure(const std::string &elements) const {
        folder.write("etc/zyn.conf", "<root>" + elements + "</root>");
    }
    const Folder folder;
};

// The socket that the event daemon reads, which keeps what arrives until it is taken.
class Receiver {
public:
    explicit Receiver(const std::string &path) : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        unlink(path.c_str());
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
    }
    // A UDP port of this host.
    explicit Receiver(int family = AF_INET) : fd_(socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in6 address = {}; // begins as sockaddr_in does
        address.sin6_family = static_cast<sa_family_t>(family);
        socklen_t length = sizeof(address);
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&address), length), 0);
        getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &length);
        port = ntohs(address.sin6_port);
    }
    ~Receiver() { close(fd_); }
    Receiver(const Receiver &) = delete;
    Receiver &operator=(const Receiver &) = delete;

    // The next record; zeros when none has arrived after `wait_ms`.
    EVENTC_LOG_INFO take(int wait_ms = 0) const {
        EVENTC_LOG_INFO record = {};
        pollfd ready = {.fd = fd_, .events = POLLIN, .revents = 0};
        if (poll(&ready, 1, wait_ms) == 1) {
            EXPECT_EQ(recv(fd_, &record, sizeof(record), MSG_TRUNC), ssize_t{EVENTC_RECORD_LEN});
        }
        return record;
    }
    // The next datagram as it is; empty when none has arrived.
    std::string take_text(int wait_ms = 0) const {
        char text[2048];
        pollfd ready = {.fd = fd_, .events = POLLIN, .revents = 0};
        const ssize_t got = poll(&ready, 1, wait_ms) == 1 ? recv(fd_, text, sizeof(text), 0) : 0;
        return {text, static_cast<std::size_t>(got)};
    }
    std::vector<EVENTC_LOG_INFO> take_all() const {
        std::vector<EVENTC_LOG_INFO> records;
        for (EVENTC_LOG_INFO record = take(); record.magicno[0] != '\0'; record = take())
            records.push_back(record);
        return records;
    }
    // Leaves no room. Each record comes from another socket, because one alone may be limited before.
    void fill() const {
        sockaddr_un to = {};
        socklen_t length = sizeof(to);
        getsockname(fd_, reinterpret_cast<sockaddr *>(&to), &length);
        EVENTC_LOG_INFO record = {};
        record.magicno[0] = '?';
        for (bool room = true; room;) {
            const int sender = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
            room = sendto(sender, &record, sizeof(record), MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&to),
                          length) != -1;
            close(sender);
        }
    }
    int port = 0;

private:
    int fd_;
};

inline std::int32_t from_network(std::int32_t field) {
    return static_cast<std::int32_t>(ntohl(static_cast<std::uint32_t>(field)));
}
