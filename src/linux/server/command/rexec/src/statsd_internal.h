// The emitter's own records, settings and log; nothing outside src/statsd includes this.
#pragma once

#include "log.h"
#include "statsd.h"
#include "statsd_platform.h"

#include <cstddef>

enum STATSD_BOOL : int { STATSD_FALSE = 0, STATSD_TRUE = 1 };

// /root/statsd/mode
enum STATSD_MODE : int {
    STATSD_MODE_DISABLED = 0,
    STATSD_MODE_BASETAG = 1,   // lines carry the tags of the caller
    STATSD_MODE_CUSTOMTAG = 2, // the configured tag, and the name of the monitor
};

// /root/statsd/metrics/.../type, and the text in the line
enum STATSD_METRIC_TYPE : int {
    STATSD_METRIC_TYPE_C = 0, // "c", a counter
    STATSD_METRIC_TYPE_G = 1, // "g", a gauge
    STATSD_METRIC_TYPE_T = 2, // "ms", a time
    STATSD_METRIC_TYPE_H = 3, // "h", a histogram
    STATSD_METRIC_TYPE_S = 4, // "s", a set
};

// Bytes of fields and buffers, their NUL included.
inline constexpr std::size_t STATSD_HOST_LEN = 256;
inline constexpr std::size_t STATSD_NAME_LEN = 32;
inline constexpr std::size_t STATSD_CUSTOM_TAG_LEN = 512;
inline constexpr std::size_t STATSD_TAG_TEXT_LEN = 640; // all tags of a line
inline constexpr std::size_t STATSD_DATA_LEN = 1024;    // a line

struct STATSD_METHOD_CONF {
    char name[STATSD_NAME_LEN]; // of the metric
    STATSD_METRIC_TYPE type;
    float sample_rate;         // share of the values that is sent, 0.0 to 1.0
    STATSD_BOOL sample_client; // true: values are left out here
    char *custom_tag;          // owned, see statsd_free_config; null but in custom-tag mode
};

struct STATSD_CONF {
    STATSD_MODE mode;
    char host[STATSD_HOST_LEN];
    int port;
    STATSD_BOOL ipv6;
    STATSD_METHOD_CONF method_conf[STATSD_METHOD_NUM];
};

// Behind a STATSD_HANDLE; does not change from statsd_init to statsd_term, so that senders need no lock.
struct STATSD_IMPL {
    STATSD_INET inet;
    STATSD_CONF conf;
};

// The emitter's log, null while it is closed. Opens with the first handle and closes with the last, under the
// mutex of both: who has a handle, or that mutex, may write to it.
inline void *g_loghandle = nullptr;

#define STATSD_LOG(level, ...)                                                                               \
    (g_loghandle != nullptr                                                                                  \
         ? void(log_write(g_loghandle, (level), 0, "src/statsd", __LINE__, __func__, __VA_ARGS__))           \
         : void())
