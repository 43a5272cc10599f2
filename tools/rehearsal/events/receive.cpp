// Datagram sockets of the event daemon.
#include "events/receive.h"

#include "eventc.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace rehearsal {
namespace {

constexpr int udp_bytes = 4 << 20; // a burst is not waited for by its sender
constexpr int most_at_once = 64;   // then the other transport has its turn

[[noreturn]] void fail(int error, const std::string &what) {
    throw std::system_error(error, std::generic_category(), what);
}

Descriptor make_socket(int family) {
    Descriptor made(::socket(family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (made.get() < 0)
        fail(errno, "cannot open a socket");
    return made;
}

sockaddr_un address_of(const fs::path &path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.native().size() >= sizeof(address.sun_path))
        fail(ENAMETOOLONG, path.string() + " cannot be a socket");
    path.native().copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

bool bind_to(const Descriptor &made, const sockaddr_un &address) {
    return ::bind(made.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0;
}

// Makes room for a socket where the one of an ended daemon lies.
void remove_unread(const fs::path &path) {
    if (is_read(path))
        fail(EADDRINUSE, path.string() + " is read by another event daemon");
    if (fs::symlink_status(path).type() != fs::file_type::socket)
        fail(EEXIST, path.string() + " is no socket");
    fs::remove(path);
}

} // namespace

fs::path local_socket(const fs::path &tree) {
    return tree / "tmp/sockevent";
}

bool is_read(const fs::path &socket) {
    const Descriptor made = make_socket(AF_UNIX);
    const sockaddr_un address = address_of(socket);
    return ::connect(made.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0;
}

Descriptor bind_local(const fs::path &path) {
    const sockaddr_un address = address_of(path);
    Descriptor made = make_socket(AF_UNIX);
    if (bind_to(made, address))
        return made;
    if (errno == EADDRINUSE) {
        remove_unread(path);
        if (bind_to(made, address))
            return made;
    }
    fail(errno, "cannot make " + path.string());
}

Descriptor bind_udp(std::uint16_t &port) {
    Descriptor made = make_socket(AF_INET);
    // The second one is bounded by the system, but takes twice the usual at least.
    if (::setsockopt(made.get(), SOL_SOCKET, SO_RCVBUFFORCE, &udp_bytes, sizeof(udp_bytes)) != 0)
        ::setsockopt(made.get(), SOL_SOCKET, SO_RCVBUF, &udp_bytes, sizeof(udp_bytes));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    auto *name = reinterpret_cast<sockaddr *>(&address);
    if (::bind(made.get(), name, length) != 0 || ::getsockname(made.get(), name, &length) != 0)
        fail(errno, "cannot bind UDP port " + std::to_string(port));
    port = ntohs(address.sin_port);
    return made;
}

SocketReader::SocketReader(asio::io_context &io, Descriptor socket, const char *transport, Sink sink)
    : socket_(io, socket.release()), transport_(transport), sink_(std::move(sink)) {
    wait();
}

void SocketReader::wait() {
    socket_.async_wait(asio::posix::stream_descriptor::wait_read, [this](const asio::error_code &error) {
        if (error)
            return;
        drain(most_at_once);
        wait();
    });
}

void SocketReader::drain(int most) {
    for (int i = 0; i < most && read_one(); ++i) {
    }
}

bool SocketReader::read_one() {
    std::array<std::byte, EVENTC_RECORD_LEN + 1> bytes;
    const ssize_t got = ::recv(socket_.native_handle(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_TRUNC);
    if (got < 0)
        return errno == EINTR;
    const auto size = static_cast<std::size_t>(got);
    sink_(transport_, std::span(bytes).first(std::min(size, bytes.size())), size);
    return true;
}

} // namespace rehearsal
