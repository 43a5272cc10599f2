// Records that every module hands to the cluster's event daemon.
//
// One record is 2188 bytes; strings lie NUL-terminated in fields of fixed size, and what is not written is
// zero. Integers are 32 bits wide. `pid`, `tid`, `dest` and the fields marked (net) travel in network byte
// order, the others in the sender's; doc/protocol.md has the bytes.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr char EVENTC_MAGICNO[] = "muse00001";
inline constexpr char EVENTC_VERSION[] = "evt10";

enum : std::size_t {
    EVENTC_MAGICWD_LEN = 16,
    EVENTC_TYPE_LEN = 32, // module type, 31 characters kept
    EVENTC_MSG_LEN = 512,
    EVENTC_PATH_LEN = 1024,
    EVENTC_RECORD_LEN = 2188,
};

// What a record asks for.
enum eventc_request_type : std::int32_t {
    EVENTC_REQ_INITIALIZE = 0,   // a module starts
    EVENTC_REQ_REINITIALIZE = 1, // its settings have changed
    EVENTC_REQ_TERMINATE = 2,    // it ends
    EVENTC_REQ_LOCAL = 3,        // one line of its log
    EVENTC_REQ_SYSLOG = 4,       // an event for the system log
    EVENTC_REQ_ALERT = 5,        // an event for what `cmdtype` names: alert, mail, trap, altexec
    EVENTC_REQ_RELOGLVL = 6,     // another level
    EVENTC_REQ_RELOGSZ = 7,      // another size
    EVENTC_REQ_PUBSUB = 8,       // an event for subscribers
};

// How records travel (/root/cluster/event/method).
enum eventc_method_val : std::int32_t {
    EVENTC_METHOD_UNIX = 0, // datagram to a UNIX-domain socket, tmp/sockevent of the installation
    EVENTC_METHOD_UDP = 1,  // datagram to a UDP port of this host
    EVENTC_METHOD_MQ = 2,   // message of type 1 on a System V queue
};

// With EVENTC_REQ_INITIALIZE, REINITIALIZE, RELOGLVL and RELOGSZ.
struct EVENTC_LOG_INIT {
    std::int32_t logsize;         // bytes that the daemon keeps (net)
    std::int32_t loglevel;        // (net)
    std::int32_t startendmsgflag; // 1: the daemon may log the module's start and end
    std::int32_t logtype;         // kind of log
    std::int32_t rotate;          // files kept
    std::int32_t noerr;
    std::int32_t nolog;
    std::int32_t nocur;
    char dirpath[EVENTC_PATH_LEN]; // log directory, empty for the daemon's own
    char header[EVENTC_PATH_LEN];  // first line of each file
};

// With EVENTC_REQ_LOCAL.
struct EVENTC_LOG_LOCAL {
    std::int32_t loglevel;    // (net)
    char msg[EVENTC_MSG_LEN]; // the finished line
};

// With EVENTC_REQ_SYSLOG, ALERT and PUBSUB.
struct EVENTC_LOG_ALERT {
    char cmdtype[32];         // destination
    char srcsv[256];          // short name of the sender's host
    std::int32_t eventid;     // (net)
    std::int32_t loglevel;    // syslog severity (net)
    char date[24];            // "YYYY/MM/DD hh:mm:ss.mmm"
    char msg[EVENTC_MSG_LEN]; // text, or the command line of an alternate command
};

struct EVENTC_LOG_INFO {
    char magicno[EVENTC_MAGICWD_LEN]; // EVENTC_MAGICNO
    char version[EVENTC_MAGICWD_LEN]; // EVENTC_VERSION
    std::int32_t dest;                // eventc_request_type (net)
    char type[EVENTC_TYPE_LEN];       // module type, or "uptime"
    std::int32_t pid;                 // (net)
    std::int32_t tid;                 // kernel thread id (net)
    union {
        EVENTC_LOG_INIT init;
        EVENTC_LOG_LOCAL local;
        EVENTC_LOG_ALERT alert;
    } destinfo;
    char perflogname[EVENTC_TYPE_LEN]; // of a performance log
};

// A record on the queue.
struct EVENTC_MSGBUF {
    long mtype; // 1
    EVENTC_LOG_INFO info;
};

static_assert(sizeof(EVENTC_LOG_INFO) == EVENTC_RECORD_LEN);
static_assert(offsetof(EVENTC_LOG_INFO, magicno) == 0);
static_assert(offsetof(EVENTC_LOG_INFO, version) == 16);
static_assert(offsetof(EVENTC_LOG_INFO, dest) == 32);
static_assert(offsetof(EVENTC_LOG_INFO, type) == 36);
static_assert(offsetof(EVENTC_LOG_INFO, pid) == 68);
static_assert(offsetof(EVENTC_LOG_INFO, tid) == 72);
static_assert(offsetof(EVENTC_LOG_INFO, destinfo) == 76);
static_assert(offsetof(EVENTC_LOG_INFO, perflogname) == 2156);
static_assert(sizeof(EVENTC_LOG_INIT) == 2080 && offsetof(EVENTC_LOG_INIT, loglevel) == 4 &&
              offsetof(EVENTC_LOG_INIT, startendmsgflag) == 8 && offsetof(EVENTC_LOG_INIT, logtype) == 12 &&
              offsetof(EVENTC_LOG_INIT, rotate) == 16 && offsetof(EVENTC_LOG_INIT, noerr) == 20 &&
              offsetof(EVENTC_LOG_INIT, nolog) == 24 && offsetof(EVENTC_LOG_INIT, nocur) == 28 &&
              offsetof(EVENTC_LOG_INIT, dirpath) == 32 && offsetof(EVENTC_LOG_INIT, header) == 1056);
static_assert(sizeof(EVENTC_LOG_LOCAL) == 516 && offsetof(EVENTC_LOG_LOCAL, msg) == 4);
static_assert(offsetof(EVENTC_LOG_ALERT, srcsv) == 32 && offsetof(EVENTC_LOG_ALERT, eventid) == 288 &&
              offsetof(EVENTC_LOG_ALERT, loglevel) == 292 && offsetof(EVENTC_LOG_ALERT, date) == 296 &&
              offsetof(EVENTC_LOG_ALERT, msg) == 320);
