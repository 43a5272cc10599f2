// Packets on a socket.
//
// The communication thread enables cancellation around send, poll and recv only. It alone writes the
// response slot of its connection until it is joined.
//
// Nothing that a peer says about a length is believed before as many bytes have really arrived.
#include "rexeccl/transfer.h"

#include "cancel.h"
#include "rexeccl/packet.h"
#include "rexeccl/settings.h"
#include "rexeccl/thread.h"
#include "rexeccl/trace.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>

#include <poll.h>
#include <sys/socket.h>

namespace {

constexpr std::size_t header_size = sizeof(TRANS_PACKET_HEADER_INFO);
constexpr int select_ms = 1000;

// Traces that a part of a packet is complete, with the time of day.
void trace_completed(const char *part, std::int32_t sock) {
    if (!rexeccl_tracing())
        return;
    const std::time_t now = std::time(nullptr);
    struct tm local = {};
    char text[16] = "????";
    if (localtime_r(&now, &local) != nullptr)
        std::strftime(text, sizeof(text), "%H:%M:%S", &local);
    REXECCL_TRACE(8, "%s completed. (sock=%d time=%s)", part, sock, text);
}

// A configured piece size that makes no sense must not stop an exchange.
std::size_t piece_size(std::int32_t configured, std::int32_t otherwise) {
    return static_cast<std::size_t>(configured > 0 ? configured : otherwise);
}

ssize_t send_some(std::int32_t sock, const char *data, std::size_t size) {
    const CancelEnabled may_hang;
    ssize_t sent = 0;
    do {
        sent = send(sock, data, size, MSG_NOSIGNAL);
    } while (sent == -1 && errno == EINTR);
    return sent;
}

ssize_t recv_some(std::int32_t sock, char *data, std::size_t size) {
    const CancelEnabled may_hang;
    ssize_t received = 0;
    do {
        received = recv(sock, data, size, 0);
    } while (received == -1 && errno == EINTR);
    return received;
}

// Reads all 76 bytes of a header; false when the peer closed or the read failed.
bool recv_header(std::int32_t sock, TRANS_PACKET_HEADER_INFO *header) {
    std::size_t have = 0;
    while (have < header_size) {
        const std::size_t wanted = header_size - have;
        const ssize_t received = recv_some(sock, reinterpret_cast<char *>(header) + have, wanted);
        if (received <= 0) {
            REXECCL_TRACE(1, "recv() failed. (sock=%d wrp=%zu rdspsz=%zu rdsz=%zd errno=%d)", sock, have,
                          wanted, received, errno);
            return false;
        }
        REXECCL_TRACE(8, "recv() success. (sock=%d wrp=%zu rdspsz=%zu rdsz=%zd)", sock, have, wanted,
                      received);
        have += static_cast<std::size_t>(received);
    }
    trace_completed("header", sock);
    return true;
}

// Reads the variable part behind the header of `packet`; false as above.
bool recv_variable(std::int32_t sock, TRANS_PACKET_INFO *packet) {
    const std::size_t all = packet->hdinfo.size;
    const std::size_t largest = piece_size(_rexeccl_policy.recv_packet_size, 8192);
    std::size_t have = 0;
    std::size_t piece_end = 0;
    while (have < all) {
        if (have == piece_end)
            piece_end += std::min(largest, all - have);
        const std::size_t wanted = piece_end - have;
        const ssize_t received = recv_some(sock, packet->data + have, wanted);
        if (received <= 0) {
            REXECCL_TRACE(1, "recv() failed. (sock=%d wrp=%zu rdspsz=%zu rdsz=%zd rvpktsz=%zu errno=%d)",
                          sock, have, wanted, received, all, errno);
            return false;
        }
        REXECCL_TRACE(8, "recv() success. (sock=%d wrp=%zu rdspsz=%zu rdsz=%zd rvpktsz=%zu)", sock, have,
                      wanted, received, all);
        have += static_cast<std::size_t>(received);
    }
    trace_completed("variable", sock);
    return true;
}

// Receives into *response_out, which a cancelled thread's clean-up frees.
std::int32_t recv_packet(std::int32_t sock, TRANS_PACKET_INFO **response_out) {
    TRANS_PACKET_HEADER_INFO header;
    if (!recv_header(sock, &header))
        return REXECCL_RET_FAIL_UNKOWN;
    rexeccl_conv_byteorder(&header, TRANS_RES_HEAD);
    if (rexeccl_chk_packet(&header) != REXECCL_RET_SUCCESS) {
        REXECCL_TRACE(1, "rexeccl_chk_packet() failed. (sock=%d)", sock);
        return REXECCL_RET_FAIL_INVALIDPACKET;
    }
    *response_out = static_cast<TRANS_PACKET_INFO *>(std::calloc(1, header_size + header.size));
    if (*response_out == nullptr) {
        REXECCL_TRACE(1, "calloc() failed. (sock=%d errno=%d)", sock, errno);
        return REXECCL_RET_FAIL_MALLOC;
    }
    (*response_out)->hdinfo = header;
    if (header.size == 0)
        REXECCL_TRACE(8, "variable has no data. (sock=%d vsz=%d)", sock, 0);
    else if (!recv_variable(sock, *response_out))
        return REXECCL_RET_FAIL_COMUNICATION;
    return REXECCL_RET_SUCCESS;
}

std::int32_t send_packet(std::int32_t sock, TRANS_PACKET_INFO *packet, std::size_t length) {
    const char *bytes = reinterpret_cast<const char *>(packet);
    const std::size_t largest = piece_size(_rexeccl_policy.send_packet_size, 1024);
    rexeccl_conv_byteorder(&packet->hdinfo, TRANS_REQ_HEAD);
    std::size_t sent = 0;
    while (sent < length) {
        const std::size_t piece_end = sent + std::min(largest, length - sent);
        while (sent < piece_end) {
            const ssize_t went = send_some(sock, bytes + sent, piece_end - sent);
            if (went <= 0) {
                REXECCL_TRACE(1, "send() failed. (sock=%d err=%d send=%zd sent=%zu/%zu)", sock, errno, went,
                              sent, length);
                return REXECCL_RET_FAIL_UNKOWN;
            }
            sent += static_cast<std::size_t>(went);
        }
        REXECCL_TRACE(8, "send OK. (sock=%d sent=%zu/%zu)", sock, sent, length);
    }
    return REXECCL_RET_SUCCESS;
}

std::int32_t poll_readable(std::int32_t sock) {
    struct pollfd waited = {.fd = sock, .events = POLLIN, .revents = 0};
    int ready = 0;
    {
        const CancelEnabled may_hang;
        ready = poll(&waited, 1, select_ms);
    }
    int error = errno;
    // poll passes over a negative descriptor and would wait for it again and again.
    if (sock < 0 || (ready > 0 && (waited.revents & POLLNVAL) != 0)) {
        ready = -1;
        error = EBADF;
    }
    // An interrupted wait is over like one that timed out: the caller repeats either.
    if (ready == -1 && error != EINTR) {
        REXECCL_TRACE(1, "select() failed. (sock=%d errno=%d)", sock, error);
        return REXECCL_RET_FAIL_UNKOWN;
    }
    if (ready <= 0) {
        REXECCL_TRACE(16, "select() timeout. (sock=%d ret=%d)", sock, ready);
        return REXECCL_RET_FAIL_TIMEOUT;
    }
    if ((waited.revents & (POLLIN | POLLHUP | POLLERR)) == 0) {
        REXECCL_TRACE(1, "FALSE to FD_ISSET(). (sock=%d)", sock);
        return REXECCL_RET_FAIL_UNKOWN;
    }
    return REXECCL_RET_SUCCESS;
}

} // namespace

std::int32_t rexeccl_start_communication(REXECCL_CONNECTION_INFO *connection) {
    return rexeccl_create_thread(
        [](void *argument) {
            return rexeccl_communication(static_cast<REXECCL_CONNECTION_INFO *>(argument));
        },
        &_rexeccl_thattr_joinable, connection, &connection->tdinfo.comm.tid);
}

int rexeccl_abandon_communication(REXECCL_CONNECTION_INFO *connection) {
    pthread_cancel(connection->tdinfo.comm.tid);
    std::int32_t ret = 0;
    return rexeccl_finish_communication(connection, &ret);
}

int rexeccl_finish_communication(REXECCL_CONNECTION_INFO *connection, std::int32_t *ret) {
    const int error = rexeccl_join_thread(connection->tdinfo.comm.tid, ret);
    connection->tdinfo.comm.tid = 0;
    return error;
}

void rexeccl_free_packets(REXECCL_CONNECTION_INFO *connection) {
    std::free(connection->tdinfo.comm.preq);
    std::free(connection->tdinfo.comm.pres);
    connection->tdinfo.comm.preq = nullptr;
    connection->tdinfo.comm.pres = nullptr;
}

void rexeccl_communication_cleanup(REXECCL_CONNECTION_INFO *connection) {
    REXECCL_TRACE(16, "start - (conn=%#x)", log_low32(connection));
    std::free(connection->tdinfo.comm.pres);
    connection->tdinfo.comm.pres = nullptr;
}

std::int32_t rexeccl_request(std::int32_t sock, TRANS_PACKET_INFO *packet, std::int32_t length) {
    REXECCL_TRACE(8, "start - (sock=%d pkt=%p len=%d)", sock, static_cast<void *>(packet), length);
    const std::int32_t ret = send_packet(sock, packet, static_cast<std::size_t>(length));
    REXECCL_TRACE(8, "end - (ret=%d)", ret);
    return ret;
}

std::int32_t rexeccl_select(std::int32_t sock) {
    REXECCL_TRACE(16, "start - (sock=%d)", sock);
    const std::int32_t ret = poll_readable(sock);
    REXECCL_TRACE(16, "end - (ret=%d)", ret);
    return ret;
}

std::int32_t rexeccl_recv(std::int32_t sock, TRANS_PACKET_INFO **response_out) {
    REXECCL_TRACE(8, "start - (sock=%d)", sock);
    *response_out = nullptr;
    const std::int32_t ret = recv_packet(sock, response_out);
    if (ret != REXECCL_RET_SUCCESS) {
        std::free(*response_out);
        *response_out = nullptr;
    }
    REXECCL_TRACE(8, "end - (ret=%d)", ret);
    return ret;
}

std::int32_t rexeccl_response(std::int32_t sock, TRANS_PACKET_INFO **response_out) {
    REXECCL_TRACE(8, "start - (sock=%d)", sock);
    std::int32_t ret = REXECCL_RET_FAIL_TIMEOUT;
    while (ret == REXECCL_RET_FAIL_TIMEOUT)
        ret = rexeccl_select(sock);
    if (ret != REXECCL_RET_SUCCESS) {
        REXECCL_TRACE(1, "rexeccl_select() failed. (sock=%d ret=%d)", sock, ret);
        ret = REXECCL_RET_FAIL_UNKOWN;
    } else if (ret = rexeccl_recv(sock, response_out); ret == REXECCL_RET_SUCCESS) {
        REXECCL_TRACE(8, "rexeccl_recv() success. (sock=%d ret=%d)", sock, ret);
    } else if (ret == REXECCL_RET_FAIL_COMUNICATION) {
        REXECCL_TRACE(1, "rexeccl_recv(refuse) failed. (sock=%d ret=%d)", sock, ret);
    } else {
        REXECCL_TRACE(1, "rexeccl_recv() failed. (sock=%d ret=%d)", sock, ret);
        ret = REXECCL_RET_FAIL_UNKOWN;
    }
    REXECCL_TRACE(8, "end - (ret=%d)", ret);
    return ret;
}

std::int32_t rexeccl_communication(REXECCL_CONNECTION_INFO *connection) {
    const CancelDisabled but_for_the_waits;
    REXECCL_TRACE(16, "start - (conn=%#x)", log_low32(connection));
    CancelCleanup<REXECCL_CONNECTION_INFO> cleanup(rexeccl_communication_cleanup, connection);
    REXECCL_COMM_THREAD_INFO &comm = connection->tdinfo.comm;
    std::int32_t ret = rexeccl_request(connection->sock, comm.preq, comm.reqsize);
    if (ret != REXECCL_RET_SUCCESS) {
        REXECCL_TRACE(1, "rexeccl_request() failed. (ret=%d)", ret);
        ret = REXECCL_RET_FAIL_COMUNICATION;
    } else {
        act_on_cancel();
        if (ret = rexeccl_response(connection->sock, &comm.pres); ret != REXECCL_RET_SUCCESS) {
            REXECCL_TRACE(1, "rexeccl_response() failed. (ret=%d)", ret);
            ret = REXECCL_RET_FAIL_COMUNICATION;
        }
    }
    cleanup.dismiss();
    REXECCL_TRACE(16, "end - (ret=%d)", ret);
    return ret;
}
