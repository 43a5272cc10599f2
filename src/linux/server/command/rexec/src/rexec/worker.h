// One worker thread serves one target: connects, sends the request, prints the result, disconnects.
#pragma once

#include "rexec.h"
#include "rexeccl.h"

// Returns the thread entry point that serves a request code, or null for an unknown one. It takes a
// REXEC_INFO with one address, which it only reads, and ends in pthread_exit with its result.
void *(*rexec_find_worker(const char *reqcode))(void *);

// The entry points, one a request.
void *rexec_exec_grpfo(void *info);
void *rexec_exec_exscript(void *info);
void *rexec_exec_notice(void *info);
void *rexec_exec_clear(void *info);

// Tells the operator of a worker's target that nothing could be tried for.
void rexec_report_unconnected(const REXEC_INFO *info);

// One more worker has finished or could not be started; and how many are.
void rexec_increment_toflag();
int rexec_get_toflag();

// Builds the node list of a worker's addresses in *nodes, malloc'ed; kept when there is one already.
// Returns 0, REXEC_FAIL_NODELIST or REXEC_FAIL_MALLOC.
int rexec_createnodelist(const REXEC_INFO *info, REXECCL_NODE_INFO **nodes);

// Connects to a worker's targets and prints what went wrong. Fills the connection list and the node
// list, both to be given to rexec_trn_discon. Returns 0, REXEC_FAIL_NODELIST, REXEC_FAIL_CONNECT,
// REXEC_FAIL_BUSY or REXEC_FAIL_MALLOC.
int rexec_trn_connect(const REXEC_INFO *info, REXECCL_CONNECTION_INFO **connections,
                      REXECCL_NODE_INFO **nodes);

// Closes the connections and frees both lists. Returns 0, or REXEC_FAIL_DISCONNECT.
int rexec_trn_discon(REXECCL_CONNECTION_INFO **connections, REXECCL_NODE_INFO **nodes);

// Frees the node list.
void rexec_trn_freelist(REXECCL_NODE_INFO **nodes);
