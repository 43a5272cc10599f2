// A stand-in data transfer server, as a library: what `zynrehearse` runs and what tests talk to.
//
//     rehearsal::Server peer({.addresses = {"127.0.0.1", "127.0.0.2"},
//                             .faults = {{"127.0.0.2", "silent-request"}}});
//     peer.start();
//     ... connect to peer.port() ...
//     peer.wait_for_answers(3, 5s);
#pragma once

#include "cluster.h"
#include "exchange.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace rehearsal {

struct Options {
    std::vector<std::string> addresses{"127.0.0.1"}; // numeric, IPv4 or IPv6
    std::uint16_t port = 0;                          // the same on every address; 0: pick a free one
    Cluster cluster{};
    std::filesystem::path cluster_file{};                      // unless empty, read in place of `cluster`
    std::vector<std::pair<std::string, std::string>> faults{}; // listening address, fault (faults.h)
    bool real_scripts = false;
    // Called for each request that could be decoded, before it is answered; what it returns is sent in
    // place of the normal answer, and the cluster is not asked. It runs on a thread of the server, must
    // not throw, and holds up that thread while it runs.
    std::function<std::optional<RawAnswer>(const Exchange &)> hook{};
    std::function<void(const Exchange &)> observer{}; // the same for each exchange that is done
    bool record = true;                               // keep every exchange in memory
    int journal = -1;                                 // descriptor for one line an exchange; -1: none
    std::filesystem::path dumps{};                    // folder for the bytes of each packet; empty: none
    unsigned threads = 2;
};

class Server {
public:
    explicit Server(Options options);
    ~Server(); // stops
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // Reads the cluster, listens, and starts to answer; to be called once. Throws std::system_error
    // when an address cannot be listened on, std::invalid_argument for wrong options,
    // std::runtime_error for a wrong cluster file.
    void start();
    // Closes every connection, kills running scripts and waits for the server's threads. What was
    // recorded stays. Not to be called from a hook or an observer.
    void stop();

    // Valid after start().
    std::uint16_t port() const;
    const std::vector<std::string> &addresses() const; // canonical, in the order given

    // The functions below may be called by any thread at any time.
    const Recorder &recorder() const;
    std::vector<Exchange> exchanges() const { return recorder().all(); }
    bool wait_for(const Recorder::Predicate &predicate, std::chrono::milliseconds timeout) const;
    // Waits until `count` exchanges are done, of the request code `code` unless that is -1.
    bool wait_for_answers(std::size_t count, std::chrono::milliseconds timeout, std::int32_t code = -1) const;

private:
    class Running;
    std::unique_ptr<Running> running_;
};

// Raises this process's soft limit of open descriptors to the hard one.
void raise_descriptor_limit();

} // namespace rehearsal
