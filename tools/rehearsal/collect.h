// A stand-in metrics collector: takes the lines of the metrics emitter and tells them.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <memory>

#include <asio/io_context.hpp>

namespace rehearsal {

class Collector {
public:
    // Binds the UDP port of 127.0.0.1 and, where the host has it, of ::1; 0 picks one. Lines go to the
    // descriptor `journal` unless that is -1. Metrics are taken while a thread runs `io`, one only. Throws
    // std::system_error.
    Collector(asio::io_context &io, std::uint16_t port, int journal);
    ~Collector(); // takes what has come already. Nobody runs `io`.
    Collector(const Collector &) = delete;
    Collector &operator=(const Collector &) = delete;

    std::uint16_t port() const;
    void tell(std::ostream &out) const;

private:
    class Running;
    std::unique_ptr<Running> running_;
};

} // namespace rehearsal
