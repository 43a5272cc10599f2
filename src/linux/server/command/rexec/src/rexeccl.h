// The transfer client: opens a checked connection to the data transfer server of each target, runs
// one request on all of them at once, and closes them. Records, result codes and entry points.
//
// Entry points may be called from any thread after rexeccl_initialize; the lists handed to them
// belong to the calling thread. They wait, but a cancel of the calling thread takes effect only
// where its cancellation is enabled: the command keeps it off around them.
#pragma once

#include "rexec.h"
#include "trans.h"

#include <cstdint>

#include <pthread.h>

// Results of every entry point.
enum : std::int32_t {
    REXECCL_RET_SUCCESS = 0,
    REXECCL_RET_FAIL_PARAMETER = 1,
    REXECCL_RET_FAIL_NOTINITIALIZED = 2,
    REXECCL_RET_FAIL_INITIALIZED = 3,
    REXECCL_RET_FAIL_COMUNICATION = 4,
    REXECCL_RET_FAIL_INVALIDPACKET = 5,
    REXECCL_RET_FAIL_NOTEXISTFILE = 6,
    REXECCL_RET_FAIL_SERVER = 7, // some servers failed: read the status of each
    REXECCL_RET_FAIL_MALLOC = 8,
    REXECCL_RET_FAIL_TIMEOUT = 9,
    REXECCL_RET_FAIL_UNKOWN = 10,
};

// One address of a node.
struct REXECCL_NODE_LAN_INFO {
    std::int32_t npriority;
    char szip[TRANS_IP_LEN];
};

// One target. Nodes form a list that the caller builds and owns.
struct REXECCL_NODE_INFO {
    char szhost[256];
    std::int32_t npriority;
    std::int32_t nstatus; // TRANS_RES_STAT_*: how connecting or disconnecting ended
    std::int32_t ncninx;
    std::int32_t nipnum; // entries of plan
    REXECCL_NODE_LAN_INFO *plan;
    REXECCL_NODE_INFO *next;
};

// Inputs and results of one request on one connection.
struct REXECCL_EXEC_PARAM_INFO {
    char id[TRANS_ID_LEN];   // in: which function the server runs
    std::int32_t ret;        // out: that function's return value
    std::int32_t limiter;    // in: passed to the server
    std::int32_t restimeout; // in: seconds for the whole exchange, 0 for no limit
    std::uint32_t in_size;   // in: bytes of in_data
    void *in_data;           // in: the payload, the caller's
    std::uint32_t out_size;  // out: bytes of out_data, 0 when the server sent none
    void *out_data;          // out: allocated by the client, freed by the caller with free()
};

// One exchange in flight.
struct REXECCL_COMM_THREAD_INFO {
    pthread_t tid;
    TRANS_PACKET_INFO *preq; // request, malloc'ed
    std::int32_t reqsize;    // bytes of preq, header included
    TRANS_PACKET_INFO *pres; // response, malloc'ed
};

struct REXECCL_THREAD_INFO {
    pthread_t tid; // request thread of this connection
    pthread_mutex_t procctlmutex;
    double progress;
    REXECCL_COMM_THREAD_INFO comm;
};

// One open connection. Allocated by rexeccl_connect_ex, freed by rexeccl_disconnect_ex; the head of
// the list is the caller's handle.
struct REXECCL_CONNECTION_INFO {
    char connstr[256]; // the address text that was connected to
    char cnhost[256];  // the node's host name
    std::int32_t sock;
    std::int32_t port;
    std::int32_t status; // TRANS_RES_STAT_* of the last request
    REXECCL_THREAD_INFO tdinfo;
    REXECCL_NODE_INFO nodeinfo; // with its own copy of the addresses
    struct {
        REXECCL_EXEC_PARAM_INFO execparam;
    } datainfo;
    REXECCL_CONNECTION_INFO *next;
};

// Reads the settings and counts one use; only `portnumber` of `info` is read. Returns 0, or
// REXECCL_RET_FAIL_UNKOWN when the configuration could not be read.
std::int32_t rexeccl_initialize(const REXEC_INFO *info);

// Gives one use back. Returns 0, or REXECCL_RET_FAIL_NOTINITIALIZED.
std::int32_t rexeccl_terminate();

// Builds the node list of `count` addresses in `buffer`, or, with a null buffer, only counts the bytes
// it needs into *size_out. The list lies in the buffer and is freed with it. Returns 0 or
// REXECCL_RET_FAIL_PARAMETER.
std::int32_t rexeccl_createnodelist(std::int32_t count, void *buffer, const char (*addresses)[TRANS_IP_LEN],
                                    std::int32_t *size_out);

// Connects to every node of the list and checks each connection, one node after the other. `port` 0
// takes the configured port. *handle_out receives the list of connections, null when there is none,
// and each node's `nstatus` its outcome. Returns 0 when every node connected, REXECCL_RET_FAIL_SERVER
// when some did, otherwise the code of the last failure.
std::int32_t rexeccl_connect_ex(REXECCL_NODE_INFO *nodes, std::int32_t port,
                                REXECCL_CONNECTION_INFO **handle_out);

// Runs the request of each connection's execparam, all at once. Returns 0 when every one succeeded,
// REXECCL_RET_FAIL_SERVER when at least one failed, REXECCL_RET_FAIL_UNKOWN when none could be
// started; each connection's `status` tells its own outcome.
std::int32_t rexeccl_multi_execparam(REXECCL_CONNECTION_INFO *handle);

// Says farewell on every connection, closes and frees them all; `nodes` is the list they were made
// from, and each node's `nstatus` receives the outcome. Cancellation of the caller is off meanwhile.
// Returns 0, or REXECCL_RET_FAIL_SERVER when a server answered with a failure; with
// REXECCL_RET_FAIL_PARAMETER nothing has been touched.
std::int32_t rexeccl_disconnect_ex(REXECCL_CONNECTION_INFO *handle, REXECCL_NODE_INFO *nodes);
