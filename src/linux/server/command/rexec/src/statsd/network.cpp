// The emitter's way to the collector.
#include "statsd/network.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include <netdb.h>
#include <netinet/in.h>
#include <unistd.h>

namespace {

constexpr std::size_t port_len = 6; // five digits

struct FreeAddresses {
    void operator()(addrinfo *list) const { freeaddrinfo(list); }
};
using Addresses = std::unique_ptr<addrinfo, FreeAddresses>;

Addresses resolve(const char *host, int port, STATSD_BOOL ipv6) {
    char service[port_len];
    std::snprintf(service, sizeof(service), "%u", static_cast<unsigned>(port) & 0xffffU);
    addrinfo hints = {};
    hints.ai_flags = AI_NUMERICSERV;
    hints.ai_family = ipv6 == STATSD_TRUE ? AF_INET6 : AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_protocol = IPPROTO_UDP;
    addrinfo *found = nullptr;
    const int ret = getaddrinfo(host, service, &hints, &found);
    if (ret == 0)
        return Addresses(found);
    STATSD_LOG(1, "getaddrinfo(%s,%s,%s) failed.(ret=%d,errstr=%s)", host, service,
               ipv6 == STATSD_TRUE ? "AF_INET6" : "AF_INET", ret, gai_strerror(ret));
    return nullptr;
}

void log_address(const addrinfo &address) {
    char host[NI_MAXHOST];
    char service[NI_MAXSERV];
    const int ret = getnameinfo(address.ai_addr, address.ai_addrlen, host, sizeof(host), service,
                                sizeof(service), NI_NUMERICHOST | NI_NUMERICSERV | NI_DGRAM);
    if (ret != 0) {
        STATSD_LOG(2, "getnameinfo() failed.(ret=%d,errstr=%s)", ret, gai_strerror(ret));
        return;
    }
    STATSD_LOG(4, "getnameinfo() returned host=%s.", host);
    STATSD_LOG(4, "getnameinfo() returned serv=%s.", service);
}

} // namespace

STATSD_RC statsd_network_init(const char *host, int port, STATSD_BOOL ipv6, STATSD_INET *inet) {
    inet->sock = -1;
    const Addresses addresses = resolve(host, port, ipv6);
    if (addresses == nullptr)
        return STATSD_RC_GETADDR_FAIL;
    for (const addrinfo *address = addresses.get(); address != nullptr; address = address->ai_next) {
        log_address(*address);
        inet->sock = socket(address->ai_family, address->ai_socktype | SOCK_CLOEXEC, address->ai_protocol);
        if (inet->sock >= 0) {
            std::memcpy(&inet->addr, address->ai_addr, address->ai_addrlen);
            inet->addr_len = address->ai_addrlen;
            return STATSD_RC_SUCCESS;
        }
        STATSD_LOG(1, "socket() failed.(errno=%d)", errno);
    }
    STATSD_LOG(1, "no socket is created.");
    return STATSD_RC_SOCK_FAIL;
}

STATSD_RC statsd_network_send(const STATSD_INET *inet, const char *data) {
    STATSD_LOG(16, "sending data=<%s>", data);
    const std::size_t size = strnlen(data, STATSD_DATA_LEN);
    const ssize_t sent = sendto(inet->sock, data, size, MSG_DONTWAIT | MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr *>(&inet->addr), inet->addr_len);
    if (sent < 0) {
        STATSD_LOG(1, "sendto(%d,%lu) failed.(ret=%ld,errno=%d)", inet->sock, size, sent, errno);
        return STATSD_RC_SEND_FAIL;
    }
    STATSD_LOG(8, "sendto(%d,%lu) succeeded.(ret=%ld)", inet->sock, size, sent);
    return STATSD_RC_SUCCESS;
}

STATSD_RC statsd_network_term(STATSD_INET *inet) {
    if (inet->sock < 0)
        return STATSD_RC_SUCCESS;
    if (close(inet->sock) != 0) {
        STATSD_LOG(1, "close(%d) failed.(errno=%d)", inet->sock, errno);
        return STATSD_RC_CLOSE_FAIL;
    }
    inet->sock = -1;
    return STATSD_RC_SUCCESS;
}
