// The command's request record and the process-wide state that it shares with the transfer client.
#pragma once

#include "trans.h"
#include "trnexecscript.h"
#include "trnsv.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include <pthread.h>

inline constexpr int REXEC_MAXSRVNUM_DEFAULT = 32;
inline constexpr int REXEC_CMDTO_DEFAULT = 180; // seconds
inline constexpr int REXEC_CMDTO_MIN = 5;
inline constexpr int REXEC_CMDTO_MAX = 999;

// Results of the command's functions. Worker results never become the exit status.
enum : int {
    REXEC_SUCCESS = 0,
    REXEC_FAIL_OPTION = 1,      // bad option, unknown request
    REXEC_FAIL_XML = 3,         // the configuration cannot be read
    REXEC_FAIL_NODELIST = 7,    // the node list could not be built
    REXEC_FAIL_CONNECT = 10,    // no server reachable
    REXEC_FAIL_DISCONNECT = 11, // disconnection failed for all nodes
    REXEC_FAIL_COMMAND = 12,    // the request failed as a whole
    REXEC_FAIL_THREAD = 14,     // no thread could be started
    REXEC_FAIL_JOIN = 15,       // a thread could not be joined
    REXEC_FAIL_TIMEOUT = 20,    // the command time-out passed
    REXEC_FAIL_BUSY = 21,       // all servers busy
    REXEC_FAIL_SERVER = 22,     // every server answered with a failure
    REXEC_FAIL_MALLOC = 99,     // out of memory
    REXEC_HELP = 100,           // --help was given
};

// One request, as the command line gave it. Allocated zeroed with room for the addresses behind it:
// rexec_info_size(maxsrvnum) bytes for the main record, one address for a worker's copy.
struct REXEC_INFO {
    char type[32];    // stays empty
    char reqcode[32]; // ZYNEXEC*_ID; empty until a request option is seen
    int cmdtimeout;   // seconds; 0 when not given
    int maxsrvnum;    // largest number of addresses accepted
    int ipnum;        // number of addresses in ipaddr
    int portnumber;   // 0 when not given
    int grpspecify;   // 1 when a group name followed --failover
    int monspecify;   // 1 when a monitor name followed --notice or --clear
    char target[128]; // group, resource or monitor name (at most 31 characters), or a category
    char montarget[1024];
    char script[1024];
    char ipaddr[][TRANS_IP_LEN]; // NOLINT: NUL-terminated texts
};

// Bytes of a record with room for `count` addresses. The record has room for one address at least,
// since the default address needs it whatever maximum is configured.
inline std::size_t rexec_info_size(int count) {
    const std::size_t slots = count > 1 ? static_cast<std::size_t>(count) : 1;
    return sizeof(REXEC_INFO) + slots * sizeof(char[TRANS_IP_LEN]);
}

// Non-zero when the configuration store cannot be used. Set by main before any thread starts, read
// by the transfer client.
extern int _rexec_standalone;
// Handle of the log library, null when logging is not set up. Set and cleared by main.
extern void *_rexec_ploghandle;
// The user log file, null when none is open. Opened and closed by main while no thread runs.
extern std::FILE *_rexec_pusrlogfd;
// The path given with -o, empty when none.
extern char _rexec_logpath[1024];
// Workers that have finished, plus those that could not be started.
extern int _toflag; // guarded by mut_toflag
extern pthread_mutex_t mut_toflag;
