// Threads of the transfer client: started, waited for under a limit, cancelled and joined.
#pragma once

#include <cstdint>

#include <pthread.h>

// Clock ticks per second, 0 until rexeccl_mod_init has read it.
extern std::int32_t _rexeccl_clktck;
// Attributes of the client's threads; both lie between rexeccl_mod_init and rexeccl_mod_term.
extern pthread_attr_t _rexeccl_thattr_joinable;
extern pthread_attr_t _rexeccl_thattr_detached;

// One-time set-up and its end: the clock rate and the two attribute objects.
void rexeccl_mod_init();
void rexeccl_mod_term();

// Initialise an attribute object: process scope and explicit scheduling, joinable or detached. Return 0.
std::int32_t rexeccl_set_thattr_joinable(pthread_attr_t *attr);
std::int32_t rexeccl_set_thattr_detached(pthread_attr_t *attr);

// Starts `body` with cancellation deferred and off, and puts its id into *tid_out. `attr` makes it
// joinable: every thread is ended with rexeccl_join_thread. Returns 0 or REXECCL_RET_FAIL_UNKOWN.
std::int32_t rexeccl_create_thread(std::int32_t (*body)(void *), const pthread_attr_t *attr, void *argument,
                                   pthread_t *tid_out);

// Waits until a thread that rexeccl_create_thread started has ended, for at most `timeout_seconds` (0:
// without limit). Uses no processor time while it waits. Returns 0 when the thread has ended and
// REXECCL_RET_FAIL_TIMEOUT when the time is up. No cancellation point.
std::int32_t rexeccl_wait_thread(pthread_t tid, std::int32_t timeout_seconds);

// Joins a thread and puts the result of its body into *ret (-1 when it was cancelled). Returns 0 or the
// error number of pthread_join. Cancellation of the caller is off meanwhile.
int rexeccl_join_thread(pthread_t tid, std::int32_t *ret);
