// The life of a server: its listeners, its threads, and their end.
#include "server.h"

#include "engine.h"
#include "listen.h"
#include "session.h"

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/strand.hpp>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <stdexcept>
#include <thread>

#include <sys/resource.h>
#include <sys/socket.h>

namespace rehearsal {
namespace {

using asio::ip::tcp;

// After a failed accept, mostly for want of descriptors, others may have given theirs back.
constexpr std::chrono::milliseconds accept_pause{50};

// Accepts on one address and starts a session for each connection.
class Acceptor {
public:
    Acceptor(asio::io_context &io, Engine &engine, std::atomic<std::uint64_t> &connections,
             Listening listening)
        : io_(io), engine_(engine), connections_(connections), address_(std::move(listening.address)),
          socket_(asio::make_strand(io)), timer_(socket_.get_executor()) {
        socket_.assign(listening.socket.release());
    }

    void wait() {
        socket_.async_wait(asio::posix::stream_descriptor::wait_read, [this](const asio::error_code &error) {
            if (!error) {
                accept_all();
            }
        });
    }

private:
    void accept_all() {
        for (;;) {
            tcp::endpoint client;
            auto length = static_cast<socklen_t>(client.capacity());
            const int descriptor =
                ::accept4(socket_.native_handle(), client.data(), &length, SOCK_CLOEXEC | SOCK_NONBLOCK);
            if (descriptor >= 0) {
                client.resize(length);
                start_session(descriptor, client);
            } else if (errno == EAGAIN) {
                wait();
                return;
            } else if (errno != EINTR && errno != ECONNABORTED) {
                pause();
                return;
            }
        }
    }

    void start_session(int descriptor, const tcp::endpoint &client) {
        tcp::socket socket(asio::make_strand(io_));
        socket.assign(client.protocol(), descriptor);
        std::make_shared<Session>(engine_, std::move(socket), address_, client, ++connections_)->start();
    }

    void pause() {
        timer_.expires_after(accept_pause);
        timer_.async_wait([this](const asio::error_code &error) {
            if (!error) {
                wait();
            }
        });
    }

    asio::io_context &io_;
    Engine &engine_;
    std::atomic<std::uint64_t> &connections_;
    std::string address_;
    asio::posix::stream_descriptor socket_;
    asio::steady_timer timer_;
};

} // namespace

// Members are destroyed from the last to the first: what is under way before what it uses.
class Server::Running {
public:
    explicit Running(Options options) : given_(std::move(options)) {}

    void start() {
        if (engine_) {
            throw std::logic_error("the server was started before");
        }
        engine_.emplace(std::move(given_));
        Listeners listeners = listen_on(engine_->options().addresses, engine_->options().port, refusing());
        port_ = listeners.port;
        io_ = std::make_unique<asio::io_context>();
        for (Listening &one : listeners.sockets) {
            if (refuses(engine_->faults(one.address))) {
                reserved_.push_back(std::move(one));
            } else {
                acceptors_.push_back(
                    std::make_unique<Acceptor>(*io_, *engine_, connections_, std::move(one)));
                acceptors_.back()->wait();
            }
        }
        for (unsigned i = 0; i < std::max(1U, engine_->options().threads); ++i) {
            threads_.emplace_back([this] {
                const auto work = asio::make_work_guard(*io_);
                io_->run();
            });
        }
    }

    void stop() {
        if (io_) {
            io_->stop();
        }
        for (std::thread &one : threads_) {
            one.join();
        }
        threads_.clear();
        acceptors_.clear();
        io_.reset(); // and with it the sessions and the scripts that they wait for
        reserved_.clear();
    }

    std::uint16_t port() const { return port_; }
    Engine &engine() { return *engine_; }
    const Recorder &recorder() const { return engine_->recorder(); }

private:
    std::set<std::string> refusing() const {
        std::set<std::string> addresses;
        for (const std::string &one : engine_->options().addresses) {
            if (refuses(engine_->faults(one))) {
                addresses.insert(one);
            }
        }
        return addresses;
    }

    Options given_;
    std::optional<Engine> engine_;
    std::uint16_t port_ = 0;
    std::atomic<std::uint64_t> connections_ = 0;
    std::unique_ptr<asio::io_context> io_;
    std::vector<std::unique_ptr<Acceptor>> acceptors_;
    std::vector<Listening> reserved_; // bound, not listened on
    std::vector<std::thread> threads_;
};

Server::Server(Options options) : running_(std::make_unique<Running>(std::move(options))) {}
Server::~Server() {
    stop();
}

void Server::start() {
    running_->start();
}
void Server::stop() {
    running_->stop();
}
std::uint16_t Server::port() const {
    return running_->port();
}
const std::vector<std::string> &Server::addresses() const {
    return running_->engine().options().addresses;
}
const Recorder &Server::recorder() const {
    return running_->recorder();
}

bool Server::wait_for(const Recorder::Predicate &predicate, std::chrono::milliseconds timeout) const {
    return recorder().wait_for(predicate, timeout);
}

bool Server::wait_for_answers(std::size_t count, std::chrono::milliseconds timeout, std::int32_t code) const {
    return wait_for(
        [&](const std::vector<Exchange> &all) {
            const auto counted = [code](const Exchange &one) {
                return one.done && (code == -1 || one.code == code);
            };
            return static_cast<std::size_t>(std::ranges::count_if(all, counted)) >= count;
        },
        timeout);
}

void raise_descriptor_limit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

} // namespace rehearsal
