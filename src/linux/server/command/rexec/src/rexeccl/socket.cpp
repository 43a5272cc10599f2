// One TCP connection to one target.
//
// The connect thread may be cancelled while it resolves or connects, and nowhere else: cancellation
// is enabled around these two calls only, and rexeccl_create_socket_cleanup frees what they leave.
#include "rexeccl/socket.h"

#include "cancel.h"
#include "csub.h"
#include "rexeccl.h"
#include "rexeccl/trace.h"

#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr std::int32_t no_address = 1;

struct Port {
    char text[16];
};

std::int32_t read_names(const REXECCL_CNTD_PARAM_INFO *param, char (&local)[256], Port &port) {
    std::int32_t ret = cs_gethostname(local, sizeof(local), 1, _rexec_ploghandle);
    if (ret != CSUB_OK) {
        REXECCL_TRACE(1, "cs_gethostname() failed. (ret=%d)", ret);
        return REXECCL_RET_FAIL_UNKOWN;
    }
    ret = cs_itoasc(param->port, sizeof(port.text), port.text, _rexec_ploghandle);
    if (ret != CSUB_OK) {
        REXECCL_TRACE(1, "cs_itoasc() failed. (ret=%d num=%d)", ret, param->port);
        return REXECCL_RET_FAIL_UNKOWN;
    }
    REXECCL_TRACE(8, "host:%s szhost:%s", local, param->host);
    return REXECCL_RET_SUCCESS;
}

// Only a name may have to be asked for over the network. Without one the resolver does not block, but
// would lose an address list and a descriptor of its own if a cancel found it at the wrong place.
int ask_resolver(const char *host, const Port &port, const addrinfo &hints, addrinfo **found) {
    if (host == nullptr || (hints.ai_flags & AI_NUMERICHOST) != 0)
        return getaddrinfo(host, port.text, &hints, found);
    const CancelEnabled may_hang;
    return getaddrinfo(host, port.text, &hints, found);
}

// The resolver would cut a port down to 16 bits and connect to another one.
int resolve_in_range(const char *host, const Port &port, REXECCL_CNTD_PARAM_INFO *param) {
    if (param->port < 1 || param->port > 65535)
        return EAI_SERVICE;
    addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = param->ai_flags;
    return ask_resolver(host, port, hints, &param->paddrinfo);
}

std::int32_t resolve(REXECCL_CNTD_PARAM_INFO *param, const char *local, const Port &port) {
    const bool to_local = std::strcmp(param->host, local) == 0;
    if (to_local) {
        REXECCL_TRACE(4, "connect to local. (host=%s)", param->host);
    } else if (param->ip[0] == '\0') {
        REXECCL_TRACE(2, "IP was null, skip.");
        return no_address;
    } else {
        REXECCL_TRACE(4, "connect to remote. (host=%s)", param->host);
    }
    const int ret = resolve_in_range(to_local ? nullptr : param->ip, port, param);
    if (ret == 0)
        return REXECCL_RET_SUCCESS;
    param->paddrinfo = nullptr;
    REXECCL_TRACE(1, "getaddrinfo(local) failed. (ret=%d host=%s port=%s err=%s)", ret, param->ip, port.text,
                  gai_strerror(ret));
    return REXECCL_RET_FAIL_UNKOWN;
}

// Writes the numeric text of an address and traces the new socket; false for a family nobody speaks.
bool describe(const addrinfo &address, std::int32_t sock, char (&text)[INET6_ADDRSTRLEN]) {
    if (address.ai_family == AF_INET) {
        sockaddr_in in = {};
        std::memcpy(&in, address.ai_addr, sizeof(in));
        inet_ntop(AF_INET, &in.sin_addr, text, sizeof(text));
        REXECCL_TRACE(4, "IPv4 (sock=%d addr=%s)", sock, text);
        return true;
    }
    if (address.ai_family == AF_INET6) {
        sockaddr_in6 in6 = {};
        std::memcpy(&in6, address.ai_addr, sizeof(in6));
        inet_ntop(AF_INET6, &in6.sin6_addr, text, sizeof(text));
        REXECCL_TRACE(4, "IPv6 (sock=%d addr=%s)", sock, text);
        return true;
    }
    REXECCL_TRACE(1, "unknown protocol. (sock=%d)", sock);
    return false;
}

void drop_socket(REXECCL_CNTD_PARAM_INFO *param) {
    close(param->sock);
    param->sock = -1;
}

// An interrupted connect goes on by itself and cannot be called again, so no signal handler of this
// process lets it be interrupted (connect(2)).
bool connect_blocking(std::int32_t sock, const addrinfo &address) {
    const CancelEnabled may_hang;
    return connect(sock, address.ai_addr, address.ai_addrlen) == 0;
}

enum class Attempt { connected, next, stop };

Attempt try_address(REXECCL_CNTD_PARAM_INFO *param, const addrinfo &address) {
    param->sock = socket(address.ai_family, address.ai_socktype | SOCK_CLOEXEC, address.ai_protocol);
    if (param->sock == -1) {
        const bool unsupported = errno == EAFNOSUPPORT;
        REXECCL_TRACE(unsupported ? 2 : 1, "socket() failed. (domain=%d type=%d protocol=%d errno=%d)",
                      address.ai_family, address.ai_socktype, address.ai_protocol, errno);
        return unsupported ? Attempt::next : Attempt::stop;
    }
    // A request goes out in pieces: the last one must not wait until the peer has acknowledged the others.
    const int at_once = 1;
    setsockopt(param->sock, IPPROTO_TCP, TCP_NODELAY, &at_once, sizeof(at_once));
    char text[INET6_ADDRSTRLEN] = {};
    if (!describe(address, param->sock, text)) {
        drop_socket(param);
        return Attempt::next;
    }
    if (connect_blocking(param->sock, address)) {
        REXECCL_TRACE(4, "connect() success. (sock=%d addr=%s)", param->sock, text);
        return Attempt::connected;
    }
    REXECCL_TRACE(2, "connect() failed. (sock=%d errno=%d)", param->sock, errno);
    drop_socket(param);
    return Attempt::next;
}

std::int32_t connect_first(REXECCL_CNTD_PARAM_INFO *param) {
    for (const addrinfo *at = param->paddrinfo; at != nullptr; at = at->ai_next) {
        act_on_cancel();
        switch (try_address(param, *at)) {
        case Attempt::connected:
            return REXECCL_RET_SUCCESS;
        case Attempt::next:
            break;
        case Attempt::stop:
            return REXECCL_RET_FAIL_UNKOWN;
        }
    }
    return REXECCL_RET_FAIL_UNKOWN;
}

void free_addresses(REXECCL_CNTD_PARAM_INFO *param) {
    if (param->paddrinfo != nullptr)
        freeaddrinfo(param->paddrinfo);
    param->paddrinfo = nullptr;
}

} // namespace

std::int32_t rexeccl_create_socket(REXECCL_CNTD_PARAM_INFO *param) {
    const CancelDisabled but_for_the_waits;
    REXECCL_TRACE(8, "start - (host=%s port=%d)", param->host, param->port);
    param->sock = -1;
    param->paddrinfo = nullptr;
    CancelCleanup<REXECCL_CNTD_PARAM_INFO> cleanup(rexeccl_create_socket_cleanup, param);
    char local[256];
    Port port = {};
    std::int32_t ret = read_names(param, local, port);
    if (ret == REXECCL_RET_SUCCESS)
        ret = resolve(param, local, port);
    if (ret == REXECCL_RET_SUCCESS)
        ret = connect_first(param);
    cleanup.dismiss();
    free_addresses(param);
    REXECCL_TRACE(8, "end - (ret=%d host=%s port=%s sock=%d)", ret, param->host, port.text, param->sock);
    return ret;
}

void rexeccl_create_socket_cleanup(REXECCL_CNTD_PARAM_INFO *param) {
    REXECCL_TRACE(4, "start - (host=%s port=%d sock=%d resaddr=%p)", param->host, param->port, param->sock,
                  static_cast<void *>(param->paddrinfo));
    const CancelDisabled whole_cleanup;
    free_addresses(param);
    if (param->sock != -1)
        drop_socket(param);
}

std::int32_t rexeccl_close_socket(std::int32_t sock) {
    const CancelDisabled whole_close;
    REXECCL_TRACE(4, "close->%d", sock);
    if (shutdown(sock, SHUT_RDWR) != 0)
        REXECCL_TRACE(2, "shutdown() failed. (sock=%d errno=%d)", sock, errno);
    if (close(sock) != 0) {
        REXECCL_TRACE(1, "close() failed. (sock=%d errno=%d)", sock, errno);
        return REXECCL_RET_FAIL_UNKOWN;
    }
    return REXECCL_RET_SUCCESS;
}
