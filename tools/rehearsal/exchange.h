// What arrived at the server and what it answered, and a record of it that other threads can wait on.
#pragma once

#include "wire.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

namespace rehearsal {

using Clock = std::chrono::steady_clock;

struct Exchange {
    std::string server{}; // listening address
    std::string client{}; // address of the peer
    std::uint16_t client_port = 0;
    std::uint64_t connection = 0; // which connection of the server carried it, from 1
    Request request{};
    std::int32_t code = 0;   // the request's
    std::int32_t status = 0; // the answer's; -1 when a hook or a fault left no whole header
    Outcome outcome{};       // also of an answer that a fault kept back
    std::string note{};      // what else happened, for the journal
    std::string problem{};   // why the packet was refused; the connection was closed
    Bytes request_bytes{};   // header and variable part as they came
    Bytes response_bytes{};  // what was sent
    bool done = false;       // answered, or known to be left without an answer
    Clock::time_point accepted{};
    Clock::time_point received{}; // last byte of the request
    Clock::time_point answered{}; // last byte of the answer handed to the system
};

// Collects exchanges. All functions may be called by any thread.
class Recorder {
public:
    using Predicate = std::function<bool(const std::vector<Exchange> &)>;

    std::size_t add(const Exchange &exchange); // returns its index
    void update(std::size_t index, const Exchange &exchange);
    void opened();
    void closed();

    std::vector<Exchange> all() const;
    std::size_t accepted() const; // connections so far
    std::size_t open() const;     // connections now
    // Whether the exchanges satisfied `predicate`, which runs under the lock, within `timeout`.
    bool wait_for(const Predicate &predicate, std::chrono::milliseconds timeout) const;
    bool wait_until_closed(std::chrono::milliseconds timeout) const;

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<Exchange> exchanges_; // guarded by mutex_
    std::size_t accepted_ = 0;        // guarded by mutex_
    std::size_t open_ = 0;            // guarded by mutex_
};

} // namespace rehearsal
