// The ways of records to the event daemon: its socket and its queue; a third one is a UDP port.
#pragma once

#include "datagram.h"

#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace rehearsal {

// Takes a word about a transport itself.
using Note = std::function<void(const char *transport, const std::string &text)>;

std::filesystem::path local_socket(const std::filesystem::path &tree);
// Whether a process reads a UNIX datagram socket.
bool is_read(const std::filesystem::path &socket);

// A non-blocking datagram socket in the place of one that nobody reads. Throws std::system_error.
Descriptor bind_local(const std::filesystem::path &path);

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
