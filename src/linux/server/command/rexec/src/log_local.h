// The log library's own records and settings; nothing outside src/log includes this.
#pragma once

#include "eventc.h"
#include "log.h"
#include "statsd.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string_view>

#include <netinet/in.h>
#include <sys/un.h>

inline constexpr std::size_t LOG_INSPATH_LEN = 1024;

// Settings of one handle, read while it is opened.
struct LOGLIB_INFO {
    std::int32_t loglevel = LOG_DEFAULT_LEVEL;
    std::int32_t logsize = LOG_DEFAULT_SIZE; // bytes
    std::int32_t msglevel = LOG_DEFAULT_LEVEL;
    std::int32_t altexecflag = 0;   // 1: events run alternate commands
    std::int32_t msqsopt = 1;       // not 0: a full queue is not waited for
    std::int32_t msqipcmode = 0666; // permissions of the queue
    char sysloc[16] = "us";
    char msgloc[16] = "us"; // locale of the message catalogue
    std::int32_t method = EVENTC_METHOD_UNIX;
    std::int32_t port = 0; // UDP port, 0: not UDP
    std::int32_t msqkey = 0;
    std::int32_t sysloglvlflag = 1; // 1: events carry the tag of their level
    std::int32_t showyearflag = 1;  // 1: lines carry the year
    std::int32_t nologflag = 0;     // of the process, see below; so is the next
    std::int32_t altsendflag = 0;
    std::int32_t uptimelevel = LOG_DEFAULT_LEVEL;
    std::int32_t uptimesize = LOG_DEFAULT_SIZE; // bytes
    char inspath[LOG_INSPATH_LEN] = "";         // install directory
    char evepath[1024] = "bin/zynevent";        // event daemon
};

// How long senders wait for one daemon, shared by all handles of the process that talk to it.
struct LogDaemon;

enum class LogTransport { none, unix_socket, udp, queue };

struct LOGLIB_OBJ {
    std::atomic<std::int32_t> level{0}; // threshold; negative: nothing is written
    std::atomic<std::int32_t> size{0};  // bytes that the daemon keeps
    std::atomic<std::int32_t> logtype{0};
    LogTransport transport = LogTransport::none;
    std::int32_t sock = -1;      // descriptor, or the identifier of the queue
    LogDaemon *daemon = nullptr; // never freed
    union {
        sockaddr_un local;
        sockaddr_in ipv4;
        sockaddr_in6 ipv6;
    } sockinfo = {};
    bool attached = false; // holds a reference to the shared level table
    char modtype[EVENTC_TYPE_LEN] = "";
    char path[EVENTC_PATH_LEN] = ""; // log directory, empty for the daemon's own

    // Of utility and performance logs only.
    std::int32_t rotate = 0;           // files kept
    char header[EVENTC_PATH_LEN] = ""; // first line of each file, without its line end
    std::int32_t perfcollect = 0;      // not 0: measurements are written
    char perflogname[EVENTC_TYPE_LEN] = "";
    STATSD_HANDLE statsd_handle = nullptr; // owned; monitors only
    char clustername[256] = "";            // tags of the emitter
    char servername[256] = "";
    char statsd_modtype[256] = "";

    LOGLIB_INFO loginfo;
};

// Set by every log_init that has read the whole configuration, for all handles of the process.
extern std::atomic<std::int32_t> nologflag;   // 1: all logging is off
extern std::atomic<std::int32_t> altsendflag; // 1: destinations of events come from the configuration

// Diagnostics on standard output, off unless a debugger or a test sets them.
extern std::int32_t dbgprint;
extern std::int32_t dbgloglvl; // highest level of lines that are printed too

// Cuts a text at the size of the field, which is zeroed.
template <std::size_t N>
void log_copy_text(char (&field)[N], const char *text) {
    std::string_view(text).copy(field, N - 1);
}

#define LOG_DEBUG(format, ...)                                                                               \
    do {                                                                                                     \
        if (dbgprint != 0)                                                                                   \
            std::printf("%s:%d, " format "\n", __FILE_NAME__, __LINE__, __VA_ARGS__);                        \
    } while (false)
