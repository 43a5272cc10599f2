// The emitter's socket. Codes are those of statsd.h.
#pragma once

#include "statsd_internal.h"

// Resolves the collector and opens a socket for the first address that allows one. `inet` owns it until
// statsd_network_term. Returns STATSD_RC_SUCCESS, STATSD_RC_GETADDR_FAIL or STATSD_RC_SOCK_FAIL.
STATSD_RC statsd_network_init(const char *host, int port, STATSD_BOOL ipv6, STATSD_INET *inet);

// Sends a text of at most STATSD_DATA_LEN bytes, without its NUL, as one datagram. Never waits, raises no
// signal. Returns STATSD_RC_SUCCESS or STATSD_RC_SEND_FAIL.
STATSD_RC statsd_network_send(const STATSD_INET *inet, const char *data);

// Closes the socket, if there is one. Returns STATSD_RC_SUCCESS or STATSD_RC_CLOSE_FAIL.
STATSD_RC statsd_network_term(STATSD_INET *inet);
