// Binds and listens, and looks for a port that is free on every address.
#include "listen.h"

#include <asio/ip/tcp.hpp>

#include <cerrno>
#include <system_error>
#include <utility>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace rehearsal {
namespace {

constexpr std::size_t port_tries = 100; // each needs a port that some address has in use already
constexpr int backlog = 4096;

using asio::ip::tcp;

[[noreturn]] void fail(const char *what, const std::string &address, std::uint16_t port) {
    throw std::system_error(errno, std::generic_category(),
                            std::string(what) + " " + address + " port " + std::to_string(port));
}

void set_option(const Descriptor &socket, int level, int option) {
    const int on = 1;
    ::setsockopt(socket.get(), level, option, &on, sizeof on);
}

Descriptor make_socket(const tcp::endpoint &endpoint, const std::string &address) {
    const int family = endpoint.protocol().family();
    Descriptor socket(::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (socket.get() < 0) {
        fail("cannot open a socket for", address, endpoint.port());
    }
    if (family == AF_INET6) {
        set_option(socket, IPPROTO_IPV6, IPV6_V6ONLY);
    }
    // A server that starts again finds its old connections waiting. A port that the system is to pick
    // must be free of those, and of others that also reuse theirs.
    if (endpoint.port() != 0) {
        set_option(socket, SOL_SOCKET, SO_REUSEADDR);
    }
    return socket;
}

std::uint16_t bound_port(const Descriptor &socket, const std::string &address) {
    tcp::endpoint endpoint;
    auto length = static_cast<socklen_t>(endpoint.capacity());
    if (::getsockname(socket.get(), endpoint.data(), &length) != 0) {
        fail("cannot read the port of", address, 0);
    }
    return endpoint.port();
}

Listening bind_one(const std::string &address, std::uint16_t port) {
    const tcp::endpoint endpoint(asio::ip::make_address(address), port);
    Listening one{.address = address, .socket = make_socket(endpoint, address)};
    if (::bind(one.socket.get(), endpoint.data(), static_cast<socklen_t>(endpoint.size())) != 0) {
        fail("cannot bind", address, port);
    }
    return one;
}

// Binds the address number `first` before the others, so that it is the one that picks the port.
Listeners try_port(const std::vector<std::string> &addresses, std::uint16_t port, std::size_t first,
                   const std::set<std::string> &refusing) {
    Listeners listeners{.port = port, .sockets = std::vector<Listening>(addresses.size())};
    for (std::size_t i = 0; i < addresses.size(); ++i) {
        const std::size_t at = (first + i) % addresses.size();
        Listening &one = listeners.sockets[at] = bind_one(addresses[at], listeners.port);
        if (listeners.port == 0) {
            listeners.port = bound_port(one.socket, one.address);
        }
        if (!refusing.contains(one.address) && ::listen(one.socket.get(), backlog) != 0) {
            fail("cannot listen on", one.address, listeners.port);
        }
    }
    return listeners;
}

} // namespace

Descriptor::~Descriptor() {
    if (number_ >= 0) {
        ::close(number_);
    }
}

Descriptor &Descriptor::operator=(Descriptor &&other) noexcept {
    std::swap(number_, other.number_);
    return *this;
}

int Descriptor::release() {
    return std::exchange(number_, -1);
}

Listeners listen_on(const std::vector<std::string> &addresses, std::uint16_t port,
                    const std::set<std::string> &refusing) {
    // The addresses take turns in picking: where one has few ports left, its own choice is the best.
    for (std::size_t tries = 0;; ++tries) {
        try {
            return try_port(addresses, port, tries % addresses.size(), refusing);
        } catch (const std::system_error &error) {
            if (port != 0 || error.code() != std::errc::address_in_use || tries + 1 == port_tries) {
                throw;
            }
        }
    }
}

} // namespace rehearsal
