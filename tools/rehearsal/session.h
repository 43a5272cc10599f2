// One connection: reads packets, has them answered, and sends the answers as their faults want it.
#pragma once

#include "engine.h"
#include "script.h"

#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>

#include <array>
#include <memory>

namespace rehearsal {

// Lives as long as an operation on its connection is under way. The socket's executor is a strand, so
// nothing of it runs at the same time on two threads.
class Session : public std::enable_shared_from_this<Session> {
public:
    // `number` counts the connections of the server. The engine must outlive the session.
    Session(Engine &engine, asio::ip::tcp::socket socket, std::string server,
            const asio::ip::tcp::endpoint &client, std::uint64_t number);
    ~Session();
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    void start(); // returns at once; the work is done on the strand

private:
    using Handler = void (Session::*)();

    void read_header();
    void on_header();
    void read_body(std::uint32_t size);
    void on_packet();
    void refuse(std::string problem);

    void decide();
    void run_script(Decision decision);
    void deliver(RawAnswer answer);
    void send();
    void send_next();
    void finish();
    void add_note(const std::string &note);
    void close(After how);

    auto then(Handler handler);

    Engine &engine_;
    asio::ip::tcp::socket socket_;
    asio::steady_timer timer_;
    std::array<unsigned char, header_size> head_{};
    Bytes body_;
    Exchange fresh_;         // what every exchange of the connection has in common
    Exchange exchange_;      // the one under way
    std::size_t number_ = 0; // of the exchange under way in the record
    RawAnswer answer_;
    std::size_t sent_ = 0; // bytes of answer_
};

} // namespace rehearsal
