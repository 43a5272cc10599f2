// What an operator reads: a line for each server that went wrong while connecting, the result line
// of each server, its monitors or its script's exit code, and the closing message.
//
// Every function that prints holds the lock of standard output over all of its lines.
#pragma once

#include "rexec.h"
#include "rexeccl.h"
#include "trnexecnotice.h"
#include "trnexecscript.h"

// Fixed texts of a request code: the label of its result lines and its name in a sentence; "??" for
// an unknown code.
const char *rexec_mkstr(const char *reqcode);
const char *rexec_mkstr_ex(const char *reqcode);

// Writes the short text of a status into `buffer` of 16 bytes at least.
void rexec_makestr_rexecclsvstat(int status, char *buffer);

// Says of each node of a list that no connection came about.
void rexec_print_connfail(const REXECCL_NODE_INFO *nodes);

// Report on the `nstatus` of each node after connecting. Returns 0, REXEC_FAIL_CONNECT when every node
// failed, or REXEC_FAIL_BUSY when every node is busy.
int rexec_trnerrcon(const REXECCL_NODE_INFO *nodes);

// Judges the `nstatus` of each node after disconnecting; prints nothing. Returns 0, or
// REXEC_FAIL_DISCONNECT when all are busy or all failed, or there is none.
int rexec_trnerrdiscon(const REXECCL_NODE_INFO *nodes);

// Prints the result of each connection of the list, in host byte order, with its detail. Returns 0,
// REXEC_FAIL_COMMAND when every connection failed, REXEC_FAIL_OPTION when every server found the
// request invalid, or REXEC_FAIL_SERVER when no server succeeded.
int rexec_trnerrcmd(const REXEC_INFO *info, const REXECCL_CONNECTION_INFO *connections);

// The detail below a result line, in host byte order. Each returns 0, or REXEC_FAIL_SERVER when `data`
// is null. A monitor name may fill its width.
int rexec_exscript_errcmd(const ZYNEXECSCRIPT_EX_OUT_PARAM *data);
int rexec_notice_errcmd(const ZYNEXEC_EXNOTICE_OUT_PARAM *data);
int rexec_clear_errcmd(const ZYNEXEC_EXNOTICE_OUT_PARAM *data);

// Prints the closing message of a result, nothing for 0 and REXEC_FAIL_SERVER. Returns 0.
int rexec_print_message(int code);
