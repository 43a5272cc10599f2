// A data transfer server that does as little as possible: one thread, one event loop, answers made
// beforehand. It keeps no record of an exchange, so that both clients are limited by themselves and
// not by what they talk to.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

using Clock = std::chrono::steady_clock;

// What was seen of one client process.
struct Visit {
    std::size_t accepted = 0;   // connections
    std::size_t requested = 0;  // whole execute-parameter requests
    std::size_t terminated = 0; // farewells answered
    std::size_t closed = 0;     // connections that the client closed
    std::size_t wrong = 0;      // packets that differ from those of the first connection ever
    Clock::time_point first_accept{};
    Clock::time_point last_terminate{};
};

class Peer {
public:
    // Listens on the first `targets` addresses of targets.h at one port. Throws std::system_error.
    explicit Peer(std::size_t targets);
    ~Peer();
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    std::uint16_t port() const { return port_; }
    // Forgets the visit before; from now on each request is answered `delay` after it came.
    void begin_visit(std::chrono::milliseconds delay);
    // Whether `count` requests came within `timeout`.
    bool wait_for_requests(std::size_t count, std::chrono::milliseconds timeout);
    // What was seen, once `count` connections are closed; nothing when that takes longer than `timeout`.
    std::optional<Visit> wait_for_end(std::size_t count, std::chrono::milliseconds timeout);

private:
    class Loop;

    std::uint16_t port_ = 0;
    int stop_ = -1; // eventfd
    std::mutex mutex_;
    std::condition_variable changed_;
    Visit visit_;                        // guarded by mutex_
    std::chrono::milliseconds delay_{0}; // guarded by mutex_
    std::size_t awaited_requests_ = 0;   // guarded by mutex_; 0: nobody waits
    std::size_t awaited_closed_ = 0;     // guarded by mutex_; 0: nobody waits
    std::thread thread_;
};
