// Threads of the client: their end is noticed by being told, their time limit holds whatever the clock
// says, and a cancel finds them in any state.
#include "cancel.h"
#include "rexeccl/thread.h"
#include "support/capture.h"
#include "support/fake_log.h"
#include "xmllib.h"

#include <gtest/gtest.h>

#include <atomic>
#include <regex>

#include <poll.h>

namespace {

bool clock_broken = false;

} // namespace

clock_t xmllib_times(struct tms *) {
    return clock_broken ? 0 : times(nullptr);
}

namespace {

std::int32_t return_argument(void *argument) {
    return *static_cast<std::int32_t *>(argument);
}

std::int32_t hang(void *) {
    const CancelEnabled may_hang;
    poll(nullptr, 0, -1);
    return 0;
}

pthread_t start(std::int32_t (*body)(void *), void *argument) {
    pthread_t tid = 0;
    EXPECT_EQ(rexeccl_create_thread(body, &_rexeccl_thattr_joinable, argument, &tid), 0);
    return tid;
}

class Thread : public testing::Test {
protected:
    Thread() { rexeccl_mod_init(); }
};

TEST_F(Thread, ManyEndAndGiveTheirResult) {
    std::vector<std::int32_t> results(500);
    std::vector<pthread_t> tids;
    for (std::size_t i = 0; i < results.size(); ++i) {
        results[i] = static_cast<std::int32_t>(i) - 3;
        tids.push_back(start(return_argument, &results[i]));
    }
    for (std::size_t i = 0; i < results.size(); ++i) {
        std::int32_t ret = 0;
        EXPECT_EQ(rexeccl_wait_thread(tids[i], i % 2 == 0 ? 0 : 30), 0);
        EXPECT_EQ(rexeccl_wait_thread(tids[i], 30), 0) << "ended stays ended";
        EXPECT_EQ(rexeccl_join_thread(tids[i], &ret), 0);
        EXPECT_EQ(ret, results[i]);
    }
}

TEST_F(Thread, TimeLimitHoldsEvenWithABrokenClock) {
    for (const bool broken : {false, true}) {
        clock_broken = broken;
        const TraceCapture trace;
        const pthread_t tid = start(hang, nullptr);
        EXPECT_EQ(rexeccl_wait_thread(tid, 1), 9);
        const std::regex text(
            "E thread timeout\\. \\(tid=0x[0-9a-f]+ timeout=1 acttk=1[0-9]{2} clktk=100\\)");
        bool told = false;
        for (const std::string &line : trace.lines())
            told = told || std::regex_match(line, text);
        EXPECT_TRUE(told) << trace.raw();
        EXPECT_EQ(pthread_cancel(tid), 0);
        EXPECT_EQ(rexeccl_wait_thread(tid, 0), 0) << "a cancelled thread tells its end too";
        std::int32_t ret = 0;
        EXPECT_EQ(rexeccl_join_thread(tid, &ret), 0);
        EXPECT_EQ(ret, -1);
    }
    clock_broken = false;
}

TEST_F(Thread, StartFailureIsTold) {
    const TraceCapture trace;
    setenv("ZYN_TEST_FAIL", "pthread_create:all", 1);
    pthread_t tid = 1;
    EXPECT_EQ(rexeccl_create_thread(hang, &_rexeccl_thattr_joinable, nullptr, &tid), 10);
    unsetenv("ZYN_TEST_FAIL");
    EXPECT_EQ(tid, 0U);
    EXPECT_EQ(trace.count("E pthread_create() failed. (errno=11)"), 1);
    EXPECT_EQ(trace.count("T end - (ret=10 tid=0)"), 1);
}

} // namespace
