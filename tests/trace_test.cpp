// The trace function: the form of a line, its two destinations, and that no cancel cuts it.
#include "cancel.h"
#include "rexeccl/trace.h"
#include "support/capture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdarg>
#include <cstring>
#include <regex>
#include <thread>

#include <fcntl.h>
#include <sys/wait.h>

namespace {

std::vector<std::string> handed_over; // what the log library made of each line it was given

} // namespace

// Stands in for the log library: formats what it is handed, as the library does.
std::int32_t log_write(void *, std::int32_t level, std::int32_t eid, const char *filename, std::int32_t line,
                       const char *func, const char *fmt, ...) {
    char text[8192];
    va_list arguments;
    va_start(arguments, fmt);
    std::vsnprintf(text, sizeof(text), fmt, arguments);
    va_end(arguments);
    handed_over.push_back(std::to_string(level) + "|" + std::to_string(eid) + "|" + filename + "|" +
                          std::to_string(line) + "|" + func + "|" + text);
    return 0;
}
std::int32_t log_init(const char *, void **, std::int32_t, std::int32_t, const char *) {
    return 0;
}
std::int32_t log_term(void *) {
    return 0;
}

namespace {

TEST(Trace, LineOfTheUserLogFile) {
    const TraceCapture trace;
    rexeccllog(4, "src/rexeccl", 7, "a_function_name_of_many_letters", "hello %d", 5);
    const std::regex form("I [0-9]{4}/[01][0-9]/[0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\.[0-9]{3} "
                          "\\[[0-9]{5,}:[0-9a-f]{8}\\]00007:rexeccl    a_function_name_  hello 5\n");
    EXPECT_TRUE(std::regex_match(trace.raw(), form)) << trace.raw();
}

TEST(Trace, LetterOfALevel) {
    const TraceCapture trace;
    const std::vector<std::pair<int, char>> rows = {{-5, 'E'}, {0, 'E'}, {1, 'E'}, {2, 'W'},
                                                    {3, 'I'},  {4, 'I'}, {8, 'T'}, {16, 'T'}};
    for (const auto &[level, letter] : rows)
        rexeccllog(level, "src/x", 1, "f", "m");
    const std::vector<std::string> lines = trace.lines();
    ASSERT_EQ(lines.size(), rows.size());
    for (std::size_t i = 0; i < rows.size(); ++i)
        EXPECT_EQ(lines[i].front(), rows[i].second) << rows[i].first;
}

TEST(Trace, LongMessageIsCutWhole) {
    const TraceCapture trace;
    rexeccllog(1, "src/x", 1, "f", "%s", std::string(5000, 'x').c_str());
    ASSERT_EQ(trace.lines().size(), 1U);
    EXPECT_EQ(trace.lines()[0].size(), 2U + 4095U);
}

TEST(Trace, NoDestinationAndNoFormatWriteNothing) {
    rexeccllog(1, "src/x", 1, "f", "%s", "nobody listens");
    const TraceCapture trace;
    const char *none = nullptr;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    rexeccllog(1, "src/x", 1, "f", none);
#pragma GCC diagnostic pop
    EXPECT_EQ(trace.raw(), "");
}

TEST(Trace, PerCentSignsAreHarmlessToTheLogLibrary) {
    const std::vector<std::pair<const char *, const char *>> rows = {
        {"100%", "100%"}, {"%s%n%d", "%s%n%d"}, {"a %% b", "a % b"}, {"%%%", "%%"}, {"%%s", "%s"}, {"", ""}};
    int handle = 0;
    _rexec_ploghandle = &handle;
    for (const auto &[typed, shown] : rows) {
        handed_over.clear();
        rexeccllog(4, "src/rexec", 3, "f", "%s", typed);
        ASSERT_EQ(handed_over.size(), 1U);
        EXPECT_EQ(handed_over[0], std::string("4|0|src/rexec|3|f|") + shown);
    }
    _rexec_ploghandle = nullptr;
}

// Threads that trace without end are cancelled at any point: each line must be whole, and the lock of
// the stream and of the file given back.
TEST(Trace, CancelNeitherCutsALineNorKeepsALock) {
    const TraceCapture trace;
    for (int round = 0; round < 50; ++round) {
        std::atomic<bool> running = false;
        pthread_t thread = 0;
        ASSERT_EQ(pthread_create(
                      &thread, nullptr,
                      [](void *flag) -> void * {
                          for (;;) {
                              rexeccllog(8, "src/x", 1, "f", "%s", std::string(300, 'm').c_str());
                              *static_cast<std::atomic<bool> *>(flag) = true;
                              pthread_testcancel();
                          }
                      },
                      &running),
                  0);
        while (!running)
            std::this_thread::yield();
        pthread_cancel(thread);
        pthread_join(thread, nullptr);
    }
    rexeccllog(8, "src/x", 1, "f", "%s", "last");
    const std::vector<std::string> lines = trace.lines();
    for (std::size_t i = 0; i + 1 < lines.size(); ++i)
        ASSERT_EQ(lines[i].size(), 302U) << lines[i];
    EXPECT_EQ(lines.back(), "T last");
    // A record lock left behind would be seen by another process.
    const pid_t child = fork();
    if (child == 0) {
        struct flock range = {};
        range.l_type = F_WRLCK;
        _exit(fcntl(fileno(_rexec_pusrlogfd), F_SETLK, &range) == 0 ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

} // namespace
