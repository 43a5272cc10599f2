// The request driver: one worker thread a target, all at once, under the command time-out.
#pragma once

#include "rexec.h"

#include <pthread.h>

// Runs the request of `info` against all of its addresses and waits for every worker. Returns the
// result of rexeccl_terminate once the client was started (0 when it closed cleanly, whatever became
// of the request), 0 when the client could not be started, or REXEC_FAIL_MALLOC.
int rexec_main(const REXEC_INFO *info);

// Starts `count` threads and puts their ids into `threads`, 0 for one that could not be started; its
// target is reported and counted as finished. Returns the first error number of pthread_create, or 0.
int rexec_multi_pthread_create(pthread_t *threads, void *(*worker)(void *), REXEC_INFO **records, int count);

// Waits until `count` workers have finished, looking every 100 ms, for at most `seconds`. Returns the
// whole seconds waited, or `seconds` when the time ran out.
int rexec_wait_tout(int seconds, int count);
