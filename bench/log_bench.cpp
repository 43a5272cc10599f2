#include "log_bench.h"

#include "event_socket.h"

#include "eventc.h"
#include "log.h"
#include "shmlog.h"

#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int threads = 8;

// The daemon, a handle of the library and a bare sender, for the length of a measurement.
class Sender {
public:
    Sender() : reader_([this] { drain(); }) {
        if (shmlog_create(nullptr, ZYN_INSTALL_TREE, "") != SHMLOG_OK)
            throw std::runtime_error("no shared level table");
        for (int i = 0; i < SHMLOG_TYPE_MAX - 1; ++i)
            shmlog_setloginfo(("type" + std::to_string(i)).c_str(), 4, 0, 0);
        shmlog_setloginfo("bench", 4, 0, 0); // the last entry
        if (log_init("bench", &handle_, 4, 0, nullptr) != LOG_OK)
            throw std::runtime_error("no log handle");
    }
    ~Sender() {
        log_term(handle_);
        shmlog_delete();
        over_ = true;
        socket_.wake();
    }
    Sender(const Sender &) = delete;
    Sender &operator=(const Sender &) = delete;

    int write(int level) const {
        return log_write(handle_, level, 0, "src/bench", __LINE__, __func__, "send OK. (sock=%d sent=%d/%d)",
                         5, 636, 636);
    }
    void send_bare() const {
        EVENTC_LOG_INFO record = {};
        socket_.send(record);
    }

private:
    void drain() const {
        while (!over_)
            socket_.take();
    }
    EventSocket socket_;
    std::atomic<bool> over_{false};
    void *handle_ = nullptr;
    std::jthread reader_; // ends before the others are gone
};

template <typename Work>
double in_threads_ms(int messages, Work work) {
    const auto begun = std::chrono::steady_clock::now();
    {
        std::vector<std::jthread> all;
        for (int i = 0; i < threads; ++i)
            all.emplace_back([&] {
                for (int j = 0; j < messages; ++j)
                    work();
            });
    }
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begun).count();
}

void check(int ret, int wanted) {
    if (ret != wanted)
        throw std::runtime_error("log_write gave back " + std::to_string(ret));
}

} // namespace

void log_kept(benchmark::State &state) {
    const Sender sender;
    for (auto _ : state)
        check(sender.write(LOG_LEVEL_INFO), LOG_OK);
}

void log_kept_bare(benchmark::State &state) {
    const Sender sender;
    for (auto _ : state)
        sender.send_bare();
}

void log_suppressed(benchmark::State &state) {
    const Sender sender;
    for (auto _ : state)
        check(sender.write(LOG_LEVEL_TRACE), LOG_ERR_LEVEL);
}

double log_threads_ms(int messages) {
    const Sender sender;
    return in_threads_ms(messages, [&] { check(sender.write(LOG_LEVEL_INFO), LOG_OK); });
}

double log_threads_bare_ms(int messages) {
    const Sender sender;
    return in_threads_ms(messages, [&] { sender.send_bare(); });
}
