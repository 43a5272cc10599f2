// The command line: read into the request record, checked, and explained.
#pragma once

#include "rexec.h"

// Reads `argv` into `info`, which is zeroed but for `maxsrvnum` and has room for that many addresses,
// and the -o path into _rexec_logpath. Returns 0 when the line is valid and complete, REXEC_HELP for
// --help, and REXEC_FAIL_OPTION on any error; fields stored before an error are meaningless then.
// Prints nothing.
int rexec_ckopt(int argc, char **argv, REXEC_INFO *info);

// Reads `text`, at most 10 characters with an optional 0x or 0 prefix, as a number from 0 to
// 2147483647; an empty text is 0. Returns 0 with *value set, or 1 with *value untouched.
int rexec_cknum_int(const char *text, int *value);

// Prints the usage text to standard output.
void rexec_usage();
