// The event loop of the benchmark's server.
#include "peer.h"

#include "targets.h"
#include "trnexecscript.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <deque>
#include <memory>
#include <system_error>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr std::size_t header_size = sizeof(TRANS_PACKET_HEADER_INFO);
constexpr std::size_t request_size =
    header_size + sizeof(TRANS_REQ_EXEC_PARAM_INFO) + sizeof(ZYNEXECSCRIPT_EX_IN_PARAM);
constexpr int steps = 3; // check, request, terminate
constexpr std::array<std::size_t, steps> step_sizes = {header_size, request_size, header_size};

[[noreturn]] void fail(const char *what) {
    throw std::system_error(errno, std::generic_category(), what);
}

std::vector<char> make_answer(std::int32_t code, std::size_t seq, std::size_t payload) {
    const std::size_t variable = payload == 0 ? 0 : sizeof(TRANS_RES_EXEC_PARAM_INFO) + payload;
    TRANS_PACKET_HEADER_INFO header = {};
    std::strcpy(header.magicwd, TRANS_MAGICWD_LINUX);
    header.ncode = static_cast<std::int32_t>(htonl(static_cast<std::uint32_t>(code)));
    header.seq = static_cast<std::int32_t>(htonl(static_cast<std::uint32_t>(seq)));
    header.allsize = htonl(static_cast<std::uint32_t>(variable));
    header.size = header.allsize;
    std::vector<char> bytes(header_size + variable);
    std::memcpy(bytes.data(), &header, header_size);
    if (payload != 0) {
        const TRANS_RES_EXEC_PARAM_INFO envelope = {.rts = 0,
                                                    .size = htonl(static_cast<std::uint32_t>(payload))};
        std::memcpy(bytes.data() + header_size, &envelope, sizeof(envelope));
    }
    return bytes;
}

struct Connection {
    int sock;
    int step = 0;
    std::size_t have = 0;
    std::array<char, request_size> bytes;
};

int make_listener(std::size_t index, std::uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, TargetText(index).text, &address.sin_addr);
    const int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (sock == -1)
        fail("socket");
    if (bind(sock, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
        close(sock);
        fail("bind");
    }
    if (listen(sock, 128) != 0) {
        close(sock);
        fail("listen");
    }
    return sock;
}

std::uint16_t port_of(int sock) {
    sockaddr_in address = {};
    socklen_t length = sizeof(address);
    if (getsockname(sock, reinterpret_cast<sockaddr *>(&address), &length) != 0)
        fail("getsockname");
    return ntohs(address.sin_port);
}

} // namespace

// Runs on the peer's thread; only what stands in Peer is shared.
class Peer::Loop {
public:
    Loop(Peer &peer, std::size_t targets) : peer_(peer), epoll_(epoll_create1(EPOLL_CLOEXEC)) {
        if (epoll_ == -1)
            fail("epoll_create1");
        watch(peer.stop_, nullptr);
        for (std::size_t i = 0; i < targets; ++i) {
            auto listener = std::make_unique<Connection>();
            listener->sock = make_listener(i, port_);
            listener->step = listening;
            if (i == 0)
                port_ = port_of(listener->sock);
            watch(listener->sock, listener.get());
            listeners_.push_back(std::move(listener));
        }
    }
    ~Loop() {
        for (const auto &listener : listeners_)
            close(listener->sock);
        close(epoll_);
    }
    Loop(const Loop &) = delete;
    Loop &operator=(const Loop &) = delete;

    std::uint16_t port() const { return port_; }

    void run() {
        std::array<epoll_event, 64> events;
        for (;;) {
            const int count = epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), pause());
            for (int i = 0; i < count; ++i) {
                auto *at = static_cast<Connection *>(events[static_cast<std::size_t>(i)].data.ptr);
                if (at == nullptr)
                    return;
                if (at->step == listening)
                    accept_all(*at);
                else
                    read_some(at);
            }
            answer_due();
        }
    }

private:
    static constexpr int listening = -1;

    // An answer that is held back. All are held back equally long, so they fall due in order.
    struct Held {
        Clock::time_point due;
        Connection *connection;
    };

    void watch(int fd, Connection *connection) {
        epoll_event event = {.events = EPOLLIN, .data = {.ptr = connection}};
        if (epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event) != 0)
            fail("epoll_ctl");
    }

    int pause() const {
        if (held_.empty())
            return -1;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(held_.front().due - Clock::now());
        return static_cast<int>(std::max<std::int64_t>(left.count(), 0));
    }

    void accept_all(const Connection &listener) {
        for (;;) {
            const int sock = accept4(listener.sock, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            if (sock == -1)
                return;
            const auto now = Clock::now();
            const int on = 1;
            setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
            watch(sock, new Connection{.sock = sock, .bytes = {}});
            const std::lock_guard lock(peer_.mutex_);
            if (peer_.visit_.accepted++ == 0)
                peer_.visit_.first_accept = now;
        }
    }

    void read_some(Connection *at) {
        const auto step = static_cast<std::size_t>(at->step);
        if (at->step == steps) {
            drop(at);
            return;
        }
        const ssize_t got = recv(at->sock, at->bytes.data() + at->have, step_sizes[step] - at->have, 0);
        if (got == -1 && errno == EAGAIN)
            return;
        if (got <= 0) {
            drop(at);
            return;
        }
        at->have += static_cast<std::size_t>(got);
        if (at->have == step_sizes[step])
            on_packet(at);
    }

    // The first connection teaches the packets; every later one has to send the same.
    bool as_ever(const Connection &at) {
        std::vector<char> &known = known_[static_cast<std::size_t>(at.step)];
        if (known.empty())
            known.assign(at.bytes.begin(), at.bytes.begin() + static_cast<std::ptrdiff_t>(at.have));
        return std::memcmp(known.data(), at.bytes.data(), at.have) == 0;
    }

    void on_packet(Connection *at) {
        const bool same = as_ever(*at);
        std::chrono::milliseconds delay{0};
        if (!same || at->step == request_step) {
            const std::lock_guard lock(peer_.mutex_);
            Visit &visit = peer_.visit_;
            visit.wrong += same ? 0 : 1;
            if (at->step == request_step) {
                delay = peer_.delay_;
                if (++visit.requested == peer_.awaited_requests_)
                    peer_.changed_.notify_one();
            }
        }
        if (delay.count() > 0)
            held_.push_back({.due = Clock::now() + delay, .connection = at});
        else
            answer(at);
    }

    void answer(Connection *at) {
        const std::vector<char> &bytes = answers_[static_cast<std::size_t>(at->step)];
        const bool sent =
            send(at->sock, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
        at->have = 0;
        if (++at->step < steps || !sent)
            return;
        const auto now = Clock::now();
        const std::lock_guard lock(peer_.mutex_);
        ++peer_.visit_.terminated;
        peer_.visit_.last_terminate = now;
    }

    void answer_due() {
        while (!held_.empty() && held_.front().due <= Clock::now()) {
            Connection *at = held_.front().connection;
            held_.pop_front();
            answer(at);
        }
    }

    void drop(Connection *at) {
        std::erase_if(held_, [at](const Held &held) { return held.connection == at; });
        close(at->sock);
        delete at;
        const std::lock_guard lock(peer_.mutex_);
        if (++peer_.visit_.closed == peer_.awaited_closed_)
            peer_.changed_.notify_one();
    }

    static constexpr int request_step = 1;

    Peer &peer_;
    int epoll_;
    std::uint16_t port_ = 0;
    std::vector<std::unique_ptr<Connection>> listeners_;
    std::deque<Held> held_;
    std::array<std::vector<char>, steps> known_;
    const std::array<std::vector<char>, steps> answers_ = {
        make_answer(TRANS_RES_INITIALIZE_CHK, 1, 0),
        make_answer(TRANS_RES_EXEC_PARAM, 0, sizeof(ZYNEXECSCRIPT_EX_OUT_PARAM)),
        make_answer(TRANS_RES_TERMINATE, 1, 0),
    };
};

Peer::Peer(std::size_t targets) : stop_(eventfd(0, EFD_CLOEXEC)) {
    if (stop_ == -1)
        fail("eventfd");
    auto loop = std::make_unique<Loop>(*this, targets);
    port_ = loop->port();
    thread_ = std::thread([loop = std::move(loop)] { loop->run(); });
}

Peer::~Peer() {
    eventfd_write(stop_, 1);
    thread_.join();
    close(stop_);
}

void Peer::begin_visit(std::chrono::milliseconds delay) {
    const std::lock_guard lock(mutex_);
    visit_ = {};
    delay_ = delay;
}

bool Peer::wait_for_requests(std::size_t count, std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    awaited_requests_ = count;
    const bool came = changed_.wait_for(lock, timeout, [&] { return visit_.requested >= count; });
    awaited_requests_ = 0;
    return came;
}

std::optional<Visit> Peer::wait_for_end(std::size_t count, std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    awaited_closed_ = count;
    const bool ended = changed_.wait_for(lock, timeout, [&] { return visit_.closed >= count; });
    awaited_closed_ = 0;
    return ended ? std::optional(visit_) : std::nullopt;
}
