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

#include "cancel.h"
#include "rexeccl.h"
#include "rexeccl/trace.h"
#include "xmllib.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

std::int32_t _rexeccl_clktck = 0;
pthread_attr_t _rexeccl_thattr_joinable;
pthread_attr_t _rexeccl_thattr_detached;

namespace {

constexpr std::int32_t default_clktck = 100;
constexpr long nanoseconds = 1000000000L;

// How one thread tells its waiter that it has ended. Freed by whoever joins. The flag is a futex, since
// a cancelled thread still has to set it: that takes no lock and is no cancellation point.
struct End {
    pthread_t tid;
    std::int32_t (*body)(void *);
    void *argument;
    std::atomic<std::uint32_t> ended; // 0 or 1
    End *next;                        // guarded by table_mutex
};
static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t)); // as futex(2) takes it

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
    return end;
}

void tell_end(End *end) {
    end->ended.store(1);
    syscall(SYS_futex, &end->ended, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

bool has_ended(const End *end) {
    return end->ended.load() != 0;
}

// Sleeps until the thread has told its end or the monotonic clock reaches `until`, null for no limit.
void sleep_until(End *end, const struct timespec *until) {
    long ret = 0;
    while (!has_ended(end) && (ret == 0 || errno == EINTR || errno == EAGAIN))
        ret = syscall(SYS_futex, &end->ended, FUTEX_WAIT_BITSET_PRIVATE, 0, until, nullptr,
                      FUTEX_BITSET_MATCH_ANY);
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

// A host may forbid this user to set even the default scheduling; the thread then inherits its own.
int create_with(const pthread_attr_t *attr, End *end, pthread_t *tid_out) {
    const int error = pthread_create(tid_out, attr, run_body, end);
    return error == EPERM ? pthread_create(tid_out, nullptr, run_body, end) : error;
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

// Waits for as long as is left of the limit, and again while the tick counter says that it is not yet
// passed. Returns the ticks that have gone by: above the limit when the time is up.
std::int64_t wait_ticks(End *end, std::int64_t limit, std::int32_t per_second) {
    std::int64_t elapsed = 0;
    clock_t before = xmllib_times();
    while (!has_ended(end) && elapsed <= limit) {
        const std::int64_t nap = limit - elapsed + 1;
        const struct timespec until = monotonic_after(nap, per_second);
        sleep_until(end, &until);
        const clock_t now = xmllib_times();
        // A counter that cannot be read (0) must not make the wait endless or void: the nap itself counts.
        elapsed += before != 0 && now > before ? now - before : nap;
        before = now;
    }
    return elapsed;
}

// Returns whether the thread ended in time.
bool wait_for_end(End *end, std::int32_t timeout_seconds, std::int32_t per_second, std::int64_t *elapsed) {
    if (timeout_seconds == 0)
        sleep_until(end, nullptr);
    else
        *elapsed = wait_ticks(end, std::int64_t{timeout_seconds} * per_second, per_second);
    return has_ended(end);
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
    const int error = end == nullptr ? ENOMEM : create_with(attr, end, tid_out);
    if (error == 0) {
        end->tid = *tid_out;
        enter_table(end);
    } else {
        REXECCL_TRACE(1, "pthread_create() failed. (errno=%d)", error);
        std::free(end);
        *tid_out = 0;
        ret = REXECCL_RET_FAIL_UNKOWN;
    }
    REXECCL_TRACE(8, "end - (ret=%d tid=%#x)", ret, log_low32(*tid_out));
    return ret;
}

std::int32_t rexeccl_wait_thread(pthread_t tid, std::int32_t timeout_seconds) {
    REXECCL_TRACE(8, "start - (tid=%#x timeout=%d)", log_low32(tid), timeout_seconds);
    std::int32_t ret = REXECCL_RET_SUCCESS;
    const std::int32_t per_second = _rexeccl_clktck > 0 ? _rexeccl_clktck : read_clktck();
    std::int64_t elapsed = 0;
    // A thread that is not in the table has been joined: it has ended.
    if (End *end = find_in_table(tid);
        end != nullptr && !wait_for_end(end, timeout_seconds, per_second, &elapsed)) {
        REXECCL_TRACE(1, "thread timeout. (tid=%#x timeout=%ld acttk=%ld clktk=%d)", log_low32(tid),
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
    std::free(end);
    return 0;
}
