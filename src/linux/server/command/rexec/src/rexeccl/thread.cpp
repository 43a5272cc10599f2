// Threads of the transfer client.
//
// Who runs: the caller of an entry point, a worker a connection, and under each of these one thread
// a connect attempt or exchange. Who starts a thread waits for it, cancels it when its time is up,
// and always joins it; nobody else touches it. A thread starts with cancellation off and enables it
// around its blocking calls only.
//
// A null signal does not tell whether an unjoined thread has ended, so each thread tells it: an End
// record a thread is kept in a table by thread id, its `ended` is set as the last act of the thread
// (a cancel unwinds through there too), and rexeccl_wait_thread sleeps on it. The record is taken
// out of the table before the join, since the id may be used again right after it.
#include "rexeccl/thread.h"

#include "rexeccl.h"
#include "rexeccl/cancel.h"
#include "rexeccl/trace.h"
#include "xmllib.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <ctime>

#include <unistd.h>

std::int32_t _rexeccl_clktck = 0;
pthread_attr_t _rexeccl_thattr_joinable;
pthread_attr_t _rexeccl_thattr_detached;

namespace {

constexpr std::int32_t default_clktck = 100;
constexpr long nanoseconds = 1000000000L;

// How one thread tells its waiter that it has ended. Freed by whoever joins.
struct End {
    pthread_t tid;
    std::int32_t (*body)(void *);
    void *argument;
    pthread_mutex_t mutex;
    pthread_cond_t told;
    bool ended; // guarded by mutex
    End *next;  // guarded by table_mutex
};

constexpr std::size_t bucket_count = 1024;
pthread_mutex_t table_mutex = PTHREAD_MUTEX_INITIALIZER;
std::array<End *, bucket_count> table; // guarded by table_mutex

End *&bucket_of(pthread_t tid) {
    // Thread ids are addresses of stacks, which lie pages apart.
    return table[(tid >> 12) * 0x9E3779B97F4A7C15U >> 54U];
}
static_assert(bucket_count == 1U << (64 - 54));

void enter_table(End *end) {
    const MutexLock lock(table_mutex);
    End *&bucket = bucket_of(end->tid);
    end->next = bucket;
    bucket = end;
}

End *find_in_table(pthread_t tid) {
    const MutexLock lock(table_mutex);
    End *end = bucket_of(tid);
    while (end != nullptr && pthread_equal(end->tid, tid) == 0)
        end = end->next;
    return end;
}

End *leave_table(pthread_t tid) {
    const MutexLock lock(table_mutex);
    for (End **at = &bucket_of(tid); *at != nullptr; at = &(*at)->next)
        if (pthread_equal((*at)->tid, tid) != 0) {
            End *end = *at;
            *at = end->next;
            return end;
        }
    return nullptr;
}

End *make_end(std::int32_t (*body)(void *), void *argument) {
    auto *end = static_cast<End *>(std::calloc(1, sizeof(End)));
    if (end == nullptr)
        return nullptr;
    end->body = body;
    end->argument = argument;
    pthread_mutex_init(&end->mutex, nullptr);
    pthread_condattr_t monotonic;
    pthread_condattr_init(&monotonic);
    pthread_condattr_setclock(&monotonic, CLOCK_MONOTONIC);
    pthread_cond_init(&end->told, &monotonic);
    pthread_condattr_destroy(&monotonic);
    return end;
}

void free_end(End *end) {
    pthread_cond_destroy(&end->told);
    pthread_mutex_destroy(&end->mutex);
    std::free(end);
}

void tell_end(End *end) {
    const MutexLock lock(end->mutex);
    end->ended = true;
    pthread_cond_signal(&end->told);
}

void *run_body(void *argument) {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr);
    auto *end = static_cast<End *>(argument);
    const CancelCleanup<End> told_in_any_case(tell_end, end);
    return reinterpret_cast<void *>(static_cast<std::intptr_t>(end->body(end->argument)));
}

std::int32_t read_clktck() {
    const long ticks = sysconf(_SC_CLK_TCK);
    return ticks > 0 ? static_cast<std::int32_t>(ticks) : default_clktck;
}

struct timespec monotonic_after(std::int64_t ticks, std::int32_t per_second) {
    struct timespec until = {};
    clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_sec += ticks / per_second;
    until.tv_nsec += static_cast<long>(ticks % per_second) * (nanoseconds / per_second);
    until.tv_sec += until.tv_nsec / nanoseconds;
    until.tv_nsec %= nanoseconds;
    return until;
}

void sleep_until_told(End *end) {
    while (!end->ended)
        pthread_cond_wait(&end->told, &end->mutex);
}

// Sleeps for as long as is left of the limit, and again while the tick counter says that it is not
// yet passed. Returns the ticks that have gone by: above the limit when the time is up.
std::int64_t sleep_until_told_or_late(End *end, std::int64_t limit, std::int32_t per_second) {
    std::int64_t elapsed = 0;
    clock_t before = xmllib_times();
    while (!end->ended && elapsed <= limit) {
        const std::int64_t nap = limit - elapsed + 1;
        const struct timespec until = monotonic_after(nap, per_second);
        while (!end->ended && pthread_cond_timedwait(&end->told, &end->mutex, &until) == 0) {
        }
        const clock_t now = xmllib_times();
        // A counter that cannot be read (0) must not make the wait endless or void: the nap itself counts.
        elapsed += before != 0 && now > before ? now - before : nap;
        before = now;
    }
    return elapsed;
}

// Returns whether the thread ended in time.
bool wait_for_end(End *end, std::int32_t timeout_seconds, std::int32_t per_second, std::int64_t *elapsed) {
    const CancelDisabled whole_wait;
    const MutexLock lock(end->mutex);
    if (timeout_seconds == 0)
        sleep_until_told(end);
    else
        *elapsed = sleep_until_told_or_late(end, std::int64_t{timeout_seconds} * per_second, per_second);
    return end->ended;
}

std::int32_t set_attributes(pthread_attr_t *attr, int detachstate) {
    pthread_attr_init(attr);
    pthread_attr_setdetachstate(attr, detachstate);
    pthread_attr_setscope(attr, PTHREAD_SCOPE_PROCESS);
    pthread_attr_setinheritsched(attr, PTHREAD_EXPLICIT_SCHED);
    return REXECCL_RET_SUCCESS;
}

} // namespace

std::int32_t rexeccl_set_thattr_joinable(pthread_attr_t *attr) {
    REXECCL_TRACE(8, "start - (attr=%p)", static_cast<void *>(attr));
    const std::int32_t ret = set_attributes(attr, PTHREAD_CREATE_JOINABLE);
    REXECCL_TRACE(8, "end - (ret=%d)", ret);
    return ret;
}

std::int32_t rexeccl_set_thattr_detached(pthread_attr_t *attr) {
    REXECCL_TRACE(8, "start - (attr=%p)", static_cast<void *>(attr));
    const std::int32_t ret = set_attributes(attr, PTHREAD_CREATE_DETACHED);
    REXECCL_TRACE(8, "end - (ret=%d)", ret);
    return ret;
}

void rexeccl_mod_init() {
    _rexeccl_clktck = read_clktck();
    rexeccl_set_thattr_joinable(&_rexeccl_thattr_joinable);
    rexeccl_set_thattr_detached(&_rexeccl_thattr_detached);
    REXECCL_TRACE(4, "inited.");
}

void rexeccl_mod_term() {
    pthread_attr_destroy(&_rexeccl_thattr_joinable);
    pthread_attr_destroy(&_rexeccl_thattr_detached);
    REXECCL_TRACE(4, "termed.");
}

std::int32_t rexeccl_create_thread(std::int32_t (*body)(void *), const pthread_attr_t *attr, void *argument,
                                   pthread_t *tid_out) {
    REXECCL_TRACE(8, "start - (attr=%p arg=%p)", static_cast<const void *>(attr), argument);
    std::int32_t ret = REXECCL_RET_SUCCESS;
    End *end = make_end(body, argument);
    const int error = end == nullptr ? ENOMEM : pthread_create(tid_out, attr, run_body, end);
    if (error == 0) {
        end->tid = *tid_out;
        enter_table(end);
    } else {
        REXECCL_TRACE(1, "pthread_create() failed. (errno=%d)", error);
        if (end != nullptr)
            free_end(end);
        *tid_out = 0;
        ret = REXECCL_RET_FAIL_UNKOWN;
    }
    REXECCL_TRACE(8, "end - (ret=%d tid=%#x)", ret, rexeccl_low32(*tid_out));
    return ret;
}

std::int32_t rexeccl_wait_thread(pthread_t tid, std::int32_t timeout_seconds) {
    REXECCL_TRACE(8, "start - (tid=%#x timeout=%d)", rexeccl_low32(tid), timeout_seconds);
    std::int32_t ret = REXECCL_RET_SUCCESS;
    const std::int32_t per_second = _rexeccl_clktck > 0 ? _rexeccl_clktck : read_clktck();
    std::int64_t elapsed = 0;
    // A thread that is not in the table has been joined: it has ended.
    if (End *end = find_in_table(tid);
        end != nullptr && !wait_for_end(end, timeout_seconds, per_second, &elapsed)) {
        REXECCL_TRACE(1, "thread timeout. (tid=%#x timeout=%ld acttk=%ld clktk=%d)", rexeccl_low32(tid),
                      static_cast<long>(timeout_seconds), static_cast<long>(elapsed), per_second);
        ret = REXECCL_RET_FAIL_TIMEOUT;
    }
    REXECCL_TRACE(8, "end - (ret=%d)", ret);
    return ret;
}

int rexeccl_join_thread(pthread_t tid, std::int32_t *ret) {
    const CancelDisabled whole_join;
    End *end = leave_table(tid);
    void *result = nullptr;
    const int error = pthread_join(tid, &result);
    if (error != 0)
        return error; // the record stays allocated: the thread may still tell its end
    *ret = static_cast<std::int32_t>(reinterpret_cast<std::intptr_t>(result));
    if (end != nullptr)
        free_end(end);
    return 0;
}
