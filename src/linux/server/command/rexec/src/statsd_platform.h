// What the emitter holds of this platform: its socket.
#pragma once

#include <sys/socket.h>

// The collector and the socket to it, which is never connected. sock is -1 without one.
struct STATSD_INET {
    int sock;
    sockaddr_storage addr;
    socklen_t addr_len;
};
