// The three ways of records to the event daemon.
#pragma once

#include "listen.h"

#include <asio/posix/stream_descriptor.hpp>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <span>
#include <string>
#include <thread>

namespace rehearsal {

// Takes the bytes that came by a transport, at most one more than a record has; `size` is how many there
// were.
using Sink = std::function<void(const char *transport, std::span<const std::byte> bytes, std::size_t size)>;

// Takes a word about a transport itself.
using Note = std::function<void(const char *transport, const std::string &text)>;

std::filesystem::path local_socket(const std::filesystem::path &tree);
// Whether a process reads a UNIX datagram socket.
bool is_read(const std::filesystem::path &socket);

// Non-blocking datagram sockets. Both throw std::system_error. The UNIX one takes the place of a socket that
// nobody reads; the UDP one picks a free port for 0 and tells it in `port`.
Descriptor bind_local(const std::filesystem::path &path);
Descriptor bind_udp(std::uint16_t &port);

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

// Hands over what comes to the System V queue of a tree, on a thread of its own that blocks in it. The
// system's queue holds some seven records: a burst of a sender that does not wait loses what finds no room. A
// queue that somebody removes is made anew, and that noted; so is why no queue is read any more.
class QueueReader {
public:
    // Makes the queue, or takes one that is there. Throws std::system_error.
    QueueReader(std::filesystem::path tree, Sink sink, Note note);
    ~QueueReader(); // hands over what waits, and removes a queue that was made here
    QueueReader(const QueueReader &) = delete;
    QueueReader &operator=(const QueueReader &) = delete;

    std::string describe() const; // identifier, and whether it was there

private:
    void open();
    int current() const;
    void read_all();
    bool read_one(int id, int flags);
    bool replace(int error);

    std::filesystem::path tree_;
    Sink sink_;
    Note note_;
    mutable std::mutex mutex_;
    int id_ = -1; // guarded by mutex_, as the next two
    bool made_ = false;
    bool ending_ = false;
    std::thread thread_;
};

} // namespace rehearsal
