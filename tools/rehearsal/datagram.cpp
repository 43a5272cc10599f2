// Datagrams of the system's sockets.
#include "datagram.h"

#include "eventc.h"

#include <asio/ip/udp.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string>
#include <system_error>

#include <netinet/in.h>
#include <sys/socket.h>

namespace rehearsal {
namespace {

constexpr int udp_bytes = 4 << 20; // a burst is not waited for by its sender
constexpr int most_at_once = 64;   // then another socket has its turn

// The second one is bounded by the system, but takes twice the usual at least.
void enlarge(const Descriptor &socket) {
    if (::setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUFFORCE, &udp_bytes, sizeof(udp_bytes)) != 0)
        ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUF, &udp_bytes, sizeof(udp_bytes));
}

} // namespace

Descriptor make_datagram_socket(int family) {
    Descriptor made(::socket(family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (made.get() < 0)
        throw std::system_error(errno, std::generic_category(), "cannot open a socket");
    return made;
}

Descriptor bind_udp(const char *address, std::uint16_t &port) {
    asio::ip::udp::endpoint place(asio::ip::make_address(address), port);
    Descriptor made = make_datagram_socket(place.protocol().family());
    enlarge(made);
    const int on = 1;
    if (place.address().is_v6())
        ::setsockopt(made.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof(on));
    auto length = static_cast<socklen_t>(place.size());
    if (::bind(made.get(), place.data(), length) != 0 ||
        ::getsockname(made.get(), place.data(), &length) != 0)
        throw std::system_error(errno, std::generic_category(),
                                "cannot bind UDP port " + std::to_string(port) + " of " + address);
    port = place.port();
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
