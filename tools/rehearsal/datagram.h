// Datagram sockets and their reader.
#pragma once

#include "listen.h"

#include <asio/posix/stream_descriptor.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>

namespace rehearsal {

// Takes the bytes that came by a transport, at most one more than a record of the log library has; `size` is
// how many there were.
using Sink = std::function<void(const char *transport, std::span<const std::byte> bytes, std::size_t size)>;

// Non-blocking sockets. Both throw std::system_error. The second one is bound to a loopback address, to a
// free port for 0, and tells it in `port`.
Descriptor make_datagram_socket(int family);
Descriptor bind_udp(const char *address, std::uint16_t &port);

// Hands over what comes to a socket, on the thread that runs `io`.
class SocketReader {
public:
    SocketReader(asio::io_context &io, Descriptor socket, const char *transport, Sink sink);
    // Hands over what waits right now, at most so many; once no thread runs `io` any more.
    void drain(int most = 1 << 16);

private:
    void wait();
    bool read_one();

    asio::posix::stream_descriptor socket_;
    const char *transport_;
    Sink sink_;
};

} // namespace rehearsal
