// bare_client WIDTH PORT: the least that a client with this threading has to do. One thread a target
// starts and joins a thread for each of the four steps; plain blocking sockets, the packets of the
// command byte for byte, no limits of time, no trace, no report.
#include "targets.h"
#include "trnexecscript.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

struct Request {
    TRANS_PACKET_HEADER_INFO header;
    TRANS_REQ_EXEC_PARAM_INFO envelope;
    ZYNEXECSCRIPT_EX_IN_PARAM payload;
};
static_assert(sizeof(Request) == 636);

std::int32_t wire(std::size_t value) {
    return static_cast<std::int32_t>(htonl(static_cast<std::uint32_t>(value)));
}

void fill_header(TRANS_PACKET_HEADER_INFO &header, std::int32_t code, std::size_t seq, std::size_t size) {
    std::strcpy(header.magicwd, TRANS_MAGICWD_LINUX);
    header.ncode = wire(static_cast<std::size_t>(code));
    header.seq = wire(seq);
    header.allsize = htonl(static_cast<std::uint32_t>(size));
    header.size = header.allsize;
}

bool send_all(int sock, const void *data, std::size_t size) {
    return send(sock, data, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

bool recv_answer(int sock) {
    char answer[4096];
    if (recv(sock, answer, sizeof(TRANS_PACKET_HEADER_INFO), MSG_WAITALL) !=
        static_cast<ssize_t>(sizeof(TRANS_PACKET_HEADER_INFO)))
        return false;
    TRANS_PACKET_HEADER_INFO header;
    std::memcpy(&header, answer, sizeof(header));
    const std::size_t size = ntohl(header.size);
    if (header.status != 0 || size > sizeof(answer))
        return false;
    return size == 0 || recv(sock, answer, size, MSG_WAITALL) == static_cast<ssize_t>(size);
}

bool exchange_short(int sock, std::int32_t code) {
    TRANS_PACKET_HEADER_INFO header = {};
    fill_header(header, code, 1, 0);
    return send_all(sock, &header, sizeof(header)) && recv_answer(sock);
}

bool exchange_request(int sock) {
    Request request = {};
    fill_header(request.header, TRANS_REQ_EXEC_PARAM, 0, sizeof(request) - sizeof(request.header));
    std::strcpy(request.envelope.type, ZYNEXECSCRIPT_EX_ID);
    request.envelope.limiter = wire(1);
    request.envelope.size = htonl(sizeof(request.payload));
    std::strcpy(request.payload.script, bench_script);
    request.payload.timeout = wire(bench_timeout);
    return send_all(sock, &request, sizeof(request)) && recv_answer(sock);
}

int connect_to(std::size_t index, std::uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, TargetText(index).text, &address.sin_addr);
    const int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(sock, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0)
        return sock;
    close(sock);
    return -1;
}

template <typename Step>
void in_a_thread(Step step) {
    std::thread(step).join();
}

bool serve(std::size_t index, std::uint16_t port) {
    int sock = -1;
    bool ok = false;
    in_a_thread([&] { sock = connect_to(index, port); });
    if (sock == -1)
        return false;
    in_a_thread([&] { ok = exchange_short(sock, TRANS_REQ_INITIALIZE_CHK); });
    if (ok)
        in_a_thread([&] { ok = exchange_request(sock); });
    if (ok)
        in_a_thread([&] { ok = exchange_short(sock, TRANS_REQ_TERMINATE); });
    close(sock);
    return ok;
}

} // namespace

int main(int argc, char **argv) {
    const std::size_t width = argc == 3 ? std::strtoul(argv[1], nullptr, 10) : 0;
    if (width < 1 || width > targets_max)
        return 2;
    alarm(client_limit);
    const auto port = static_cast<std::uint16_t>(std::strtoul(argv[2], nullptr, 10));
    std::atomic<bool> all_ok = true;
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < width; ++i)
        threads.emplace_back([&all_ok, i, port] {
            if (!serve(i, port))
                all_ok = false;
        });
    for (std::thread &one : threads)
        one.join();
    return all_ok ? 0 : 1;
}
