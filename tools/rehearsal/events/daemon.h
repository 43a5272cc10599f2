// A stand-in for the cluster's event daemon: takes the records of the log library, keeps the log files and
// the level table of a tree, and tells what it would do with events.
#pragma once

#include <cstdint>
#include <filesystem>
#include <iosfwd>
#include <memory>
#include <optional>

#include <asio/io_context.hpp>

namespace rehearsal {

struct EventOptions {
    std::filesystem::path tree{};        // an installation
    std::optional<std::uint16_t> port{}; // local UDP port; 0 picks one
    bool queue = false;
    int journal = -1; // descriptor for a line a record; -1: none
};

class EventDaemon {
public:
    // Opens everything; records are taken while a thread runs `io`, one only. Throws std::system_error or
    // std::runtime_error.
    EventDaemon(asio::io_context &io, EventOptions options);
    // Takes what has come already and removes what was made: socket file, queue, table. Nobody runs `io`.
    ~EventDaemon();
    EventDaemon(const EventDaemon &) = delete;
    EventDaemon &operator=(const EventDaemon &) = delete;

    std::uint16_t port() const; // of UDP, 0 without it
    void tell(std::ostream &out) const;

private:
    class Running;
    std::unique_ptr<Running> running_;
};

} // namespace rehearsal
