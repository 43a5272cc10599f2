// The request driver.
//
// The main thread starts one worker an address, looks every 100 ms whether all have finished, cancels
// what is left at the command time-out and joins every worker. A worker ends by itself and is never
// abandoned: the join waits for its exchange, which its own time limit bounds.
#include "rexec/driver.h"

#include "rexec/worker.h"
#include "rexeccl.h"
#include "rexeccl/trace.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

namespace {

constexpr int passes_per_second = 10;

// The tables of one run.
struct Run {
    explicit Run(const REXEC_INFO *main_record) : info(main_record), count(main_record->ipnum) {}
    ~Run() {
        for (int i = 0; records != nullptr && i < count; ++i)
            std::free(records[i]);
        std::free(records);
        std::free(threads);
    }
    Run(const Run &) = delete;
    Run &operator=(const Run &) = delete;

    const REXEC_INFO *info;
    int count;
    pthread_t *threads = nullptr; // 0: an empty slot
    REXEC_INFO **records = nullptr;
};

// A worker's own copy of the request, with its one address.
REXEC_INFO *copy_record(const REXEC_INFO *info, int index) {
    auto *copy = static_cast<REXEC_INFO *>(std::calloc(1, rexec_info_size(1)));
    if (copy == nullptr) {
        REXEC_TRACE(1, "malloc(%d:rexecinfo[%d]) failed(err:%d).", static_cast<int>(rexec_info_size(1)),
                    index, errno);
        return nullptr;
    }
    std::memcpy(copy, info, sizeof(*info));
    copy->ipnum = 1;
    std::memcpy(copy->ipaddr[0], info->ipaddr[index], sizeof(copy->ipaddr[0]));
    return copy;
}

int allocate_tables(Run &run) {
    const auto count = static_cast<std::size_t>(run.count);
    run.threads = static_cast<pthread_t *>(std::calloc(count, sizeof(pthread_t)));
    if (run.threads == nullptr) {
        REXEC_TRACE(1, "malloc(%d:tid*%d) failed(err:%d).", static_cast<int>(count * sizeof(pthread_t)),
                    run.count, errno);
        return REXEC_FAIL_MALLOC;
    }
    run.records = static_cast<REXEC_INFO **>(std::calloc(count, sizeof(REXEC_INFO *)));
    if (run.records == nullptr) {
        REXEC_TRACE(1, "malloc(%d:prexecinfo*%d) failed(err:%d).",
                    static_cast<int>(count * sizeof(REXEC_INFO *)), run.count, errno);
        return REXEC_FAIL_MALLOC;
    }
    for (int i = 0; i < run.count; ++i) {
        run.records[i] = copy_record(run.info, i);
        if (run.records[i] == nullptr)
            return REXEC_FAIL_MALLOC;
    }
    return REXEC_SUCCESS;
}

bool any_thread(const Run &run) {
    for (int i = 0; i < run.count; ++i)
        if (run.threads[i] != 0)
            return true;
    return false;
}

void cancel_workers(const Run &run) {
    for (int i = 0; i < run.count; ++i) {
        if (run.threads[i] == 0) {
            REXEC_TRACE(8, "pthread_cancel(tid[%d]) not execute.", i);
            continue;
        }
        if (const int ret = pthread_cancel(run.threads[i]); ret == 0)
            REXEC_TRACE(8, "pthread_cancel(tid[%d]) success. (ret=%d)", i, ret);
        else
            REXEC_TRACE(8, "pthread_cancel(tid[%d]) failed. (ret=%d)", i, ret);
    }
}

int wait_for_workers(const Run &run) {
    int result = REXEC_SUCCESS;
    const int waited = rexec_wait_tout(run.info->cmdtimeout, run.count);
    if (waited >= run.info->cmdtimeout) {
        REXEC_TRACE(1, "Timeout in request.");
        cancel_workers(run);
        result = REXEC_FAIL_TIMEOUT;
    }
    REXEC_TRACE(4, "Not TO(%d)", waited);
    return result;
}

int join_workers(const Run &run, int result) {
    for (int i = 0; i < run.count; ++i) {
        if (run.threads[i] == 0) {
            REXEC_TRACE(8, "pthread_join(tid[%d]) not execute.", i);
            continue;
        }
        void *thret = nullptr;
        const int ret = pthread_join(run.threads[i], &thret);
        run.threads[i] = 0;
        if (ret == 0) {
            REXEC_TRACE(4, "pthread_join(tid[%d]) success. (ret=%d,thret=%#x).", i, ret, log_low32(thret));
            continue;
        }
        REXEC_TRACE(1, "pthread_join(tid[%d]) failed. (ret=%d,thret=%#x).", i, ret, log_low32(thret));
        if (result == REXEC_SUCCESS)
            result = REXEC_FAIL_JOIN;
    }
    if (result != REXEC_SUCCESS)
        REXEC_TRACE(8, "pthread_join() OK.");
    return result;
}

int run_workers(const Run &run) {
    const auto worker = rexec_find_worker(run.info->reqcode);
    if (worker == nullptr) {
        REXEC_TRACE(1, "Invalid reqcode(%s).", run.info->reqcode);
        return REXEC_FAIL_OPTION;
    }
    const int ret = rexec_multi_pthread_create(run.threads, worker, run.records, run.count);
    if (!any_thread(run)) {
        REXEC_TRACE(1, "rexec_multi_pthread_create() failed. (ret=%d)", ret);
        return REXEC_FAIL_THREAD;
    }
    return join_workers(run, wait_for_workers(run));
}

// The client's result replaces that of the workers: what became of each server stands in its lines.
int run_client(const Run &run) {
    if (const std::int32_t ret = rexeccl_initialize(run.info); ret != REXECCL_RET_SUCCESS) {
        REXEC_TRACE(1, "rexeccl_initialize failed.(ret=%d)", ret);
        return REXEC_SUCCESS;
    }
    run_workers(run);
    const std::int32_t ret = rexeccl_terminate();
    if (ret != REXECCL_RET_SUCCESS)
        REXEC_TRACE(2, "rexeccl_terminate() failed.(ret=%d)", ret);
    return ret;
}

void sleep_one_pass() {
    struct timespec left = {.tv_sec = 0, .tv_nsec = 1000000000L / passes_per_second};
    while (clock_nanosleep(CLOCK_MONOTONIC, 0, &left, &left) == EINTR) {
    }
}

} // namespace

int rexec_multi_pthread_create(pthread_t *threads, void *(*worker)(void *), REXEC_INFO **records, int count) {
    REXEC_ENTER();
    int first_error = 0;
    for (int i = 0; i < count; ++i) {
        const int ret = pthread_create(&threads[i], nullptr, worker, records[i]);
        if (ret == 0)
            continue;
        REXEC_TRACE(1, "pthread_create(tid[%d]) failed. (ret=%d)", i, ret);
        if (first_error == 0)
            first_error = ret;
        threads[i] = 0;
        rexec_increment_toflag();
    }
    // Told when all have been started: a stalled reader of the lines must not keep a worker from it.
    for (int i = 0; i < count; ++i)
        if (threads[i] == 0)
            rexec_report_unconnected(records[i]);
    REXEC_EXIT(first_error);
    return first_error;
}

int rexec_wait_tout(int seconds, int count) {
    REXEC_ENTER();
    int waited = seconds;
    const long passes = static_cast<long>(seconds) * passes_per_second;
    for (long pass = 0; pass < passes; ++pass) {
        sleep_one_pass();
        if (rexec_get_toflag() >= count) {
            waited = static_cast<int>(pass / passes_per_second);
            break;
        }
    }
    REXEC_EXIT(waited);
    return waited;
}

int rexec_main(const REXEC_INFO *info) {
    REXEC_ENTER();
    Run run(info);
    int result = allocate_tables(run);
    if (result == REXEC_SUCCESS)
        result = run_client(run);
    REXEC_EXIT(result);
    return result;
}
