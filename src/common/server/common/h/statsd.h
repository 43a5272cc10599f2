// The metrics emitter: measured values as StatsD lines, one UDP datagram each, to a metrics collector.
#pragma once

// Result codes.
enum STATSD_RC : int {
    STATSD_RC_SUCCESS = 0,
    STATSD_RC_INVALID_ARG = 1,    // a null handle, an unknown method or too many tags
    STATSD_RC_OUTOFMEMORY = 2,    // out of memory
    STATSD_RC_INVALID_XMLVAL = 3, // an empty host or a custom tag that is too long
    STATSD_RC_DATA_TOO_LONG = 4,  // tags or a line were cut; stays inside the emitter
    STATSD_RC_XMLLIB_FAIL = 5,    // the configuration could not be read, or misses what the mode needs
    STATSD_RC_LOGLIB_FAIL = 6,    // the emitter's log could not be opened
    STATSD_RC_GETADDR_FAIL = 7,   // the collector's host could not be resolved
    STATSD_RC_SOCK_FAIL = 8,      // no socket
    STATSD_RC_SEND_FAIL = 9,      // the datagram could not be sent
    STATSD_RC_CLOSE_FAIL = 10,    // the socket could not be closed; stays inside the emitter
};

// What is measured; the settings of each stand under /root/statsd/metrics.
enum STATSD_METHOD : int {
    STATSD_METHOD_MON_RESPONSE_TIME = 0, // how long a monitor took, milliseconds
};
inline constexpr int STATSD_METHOD_NUM = 1;

inline constexpr int STATSD_TAG_MAX = 8; // tags of one value
inline constexpr int STATSD_TAG_KEY_LEN = 32;
inline constexpr int STATSD_TAG_VALUE_LEN = 256;

// NUL-terminated texts, or texts that fill their field.
struct STATSD_TAG {
    char key[STATSD_TAG_KEY_LEN];
    char value[STATSD_TAG_VALUE_LEN];
};

using STATSD_HANDLE = struct STATSD_IMPL *;

// Reads the settings (policy "statsd" and the cluster configuration), opens the socket, and stores a handle,
// which the caller ends with statsd_term. A name of a collector is resolved here and may take as long as the
// resolver takes. Other calls of statsd_init and statsd_term wait for it; statsd_send does not. A child that
// is forked meanwhile must call neither of the two, since they would wait for ever. Returns STATSD_RC_SUCCESS
// or the code of what failed; *handle is null then. Any thread may call it.
STATSD_RC statsd_init(STATSD_HANDLE *handle);

// Sends one value.
//   tags, tag_num  at most STATSD_TAG_MAX; null or 0 for none
// With metrics switched off, or a value that sampling leaves out, nothing is sent and that is a success.
// Never waits, and no answer is expected: a value that the collector misses is lost. Line ends in names and
// tags are sent as blanks. Returns STATSD_RC_SUCCESS, STATSD_RC_INVALID_ARG or STATSD_RC_SEND_FAIL. Any
// thread may call it, also with one handle at the same time. No cancellation point. Sampling takes the lock
// of random(3): a child that is forked while another thread samples must not send values that are sampled.
STATSD_RC statsd_send(STATSD_HANDLE handle, STATSD_METHOD method, int value, const STATSD_TAG *tags,
                      int tag_num);

// Closes the socket and frees the handle. Returns STATSD_RC_SUCCESS, or STATSD_RC_INVALID_ARG for a null
// handle. No other call may use the handle at the same time.
STATSD_RC statsd_term(STATSD_HANDLE handle);
