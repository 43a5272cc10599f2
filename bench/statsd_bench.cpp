#include "statsd_bench.h"

#include "event_socket.h"

#include "log.h"
#include "shmlog.h"
#include "statsd.h"

#include <array>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/time.h>

namespace {

constexpr int types = 32; // of logs, in an installation
constexpr char configuration[] = ZYN_INSTALL_TREE "/etc/zyn.conf";
constexpr auto tags = std::to_array<STATSD_TAG>(
    {{"MonitorName", "httpw1"}, {"MonitorType", "httpw"}, {"ServerName", "server1"}, {"Result", "normal"}});
constexpr std::string_view plain_line = "zyn_monitor_response_time:7|ms";
constexpr std::string_view tags_line = "zyn_monitor_response_time:7|ms|#MonitorName:httpw1,MonitorType:httpw,"
                                       "ServerName:server1,Result:normal";

// The collector's port, which a thread reads.
class Collector {
public:
    Collector() : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        address_.sin_family = AF_INET;
        address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address_);
        if (bind(fd_, reinterpret_cast<sockaddr *>(&address_), length) != 0)
            throw std::runtime_error("no port for the collector");
        getsockname(fd_, reinterpret_cast<sockaddr *>(&address_), &length);
        // A datagram to wake the reader up may be lost as any other.
        const timeval wait = {.tv_sec = 0, .tv_usec = 10000};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof(wait));
        reader_ = std::jthread([this](const std::stop_token &over) {
            char data[1024];
            while (!over.stop_requested())
                recv(fd_, data, sizeof(data), 0);
        });
    }
    ~Collector() {
        reader_.request_stop();
        reader_.join();
        close(sender_);
        close(fd_);
    }
    Collector(const Collector &) = delete;
    Collector &operator=(const Collector &) = delete;
    int port() const { return ntohs(address_.sin_port); }
    void send(std::string_view line) const {
        sendto(sender_, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr *>(&address_), sizeof(address_));
    }

private:
    sockaddr_in address_ = {};
    int fd_;
    int sender_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    std::jthread reader_;
};

std::string read_configuration() {
    std::ifstream file(configuration);
    return {std::istreambuf_iterator<char>(file), {}};
}

// A handle of the emitter, with the level table as a daemon keeps it.
class Emitter {
public:
    Emitter(const Collector &collector, int mode, const char *rate) {
        if (shmlog_create(nullptr, ZYN_INSTALL_TREE, "") != SHMLOG_OK)
            throw std::runtime_error("no shared level table");
        for (int i = 0; i < types; ++i)
            shmlog_setloginfo(("type" + std::to_string(i)).c_str(), LOG_LEVEL_INFO, 0, 0);
        shmlog_setloginfo("statsd", LOG_LEVEL_INFO, 0, 0); // the last entry
        const std::string kept = read_configuration();
        std::ofstream(configuration) << "<root><statsd><mode>" << mode
                                     << "</mode><server><host>127.0.0.1</host><port>" << collector.port()
                                     << "</port></server><metrics><monitor_response_time><sample_rate>"
                                     << rate
                                     << "</sample_rate></monitor_response_time></metrics></statsd></root>";
        const STATSD_RC rc = statsd_init(&handle_);
        std::ofstream(configuration) << kept;
        if (rc != STATSD_RC_SUCCESS)
            throw std::runtime_error("statsd_init gave back " + std::to_string(rc));
    }
    ~Emitter() {
        statsd_term(handle_);
        shmlog_delete();
        reader_.request_stop();
        daemon_.wake();
    }
    Emitter(const Emitter &) = delete;
    Emitter &operator=(const Emitter &) = delete;
    void send(int tag_num) const {
        if (const STATSD_RC rc =
                statsd_send(handle_, STATSD_METHOD_MON_RESPONSE_TIME, 7, tags.data(), tag_num);
            rc != STATSD_RC_SUCCESS)
            throw std::runtime_error("statsd_send gave back " + std::to_string(rc));
    }

private:
    const EventSocket daemon_;
    STATSD_HANDLE handle_ = nullptr;
    std::jthread reader_{[this](const std::stop_token &over) {
        while (!over.stop_requested())
            daemon_.take();
    }};
};

void emit(benchmark::State &state, int tag_num, int mode = 1, const char *rate = "1.0") {
    const Collector collector;
    const Emitter emitter(collector, mode, rate);
    for (auto _ : state)
        emitter.send(tag_num);
}

void send_bare(benchmark::State &state, std::string_view line) {
    const Collector collector;
    for (auto _ : state)
        collector.send(line);
}

} // namespace

void statsd_plain(benchmark::State &state) {
    emit(state, 0);
}

void statsd_plain_bare(benchmark::State &state) {
    send_bare(state, plain_line);
}

void statsd_tags(benchmark::State &state) {
    emit(state, tags.size());
}

void statsd_tags_bare(benchmark::State &state) {
    send_bare(state, tags_line);
}

void statsd_suppressed(benchmark::State &state) {
    emit(state, tags.size(), 1, "0");
}

void statsd_off(benchmark::State &state) {
    emit(state, tags.size(), 0);
}
