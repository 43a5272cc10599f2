// Utility and performance logs against the sockets of an event daemon and of a metrics collector.
#include "log/line.h"
#include "support/log_tree.h"
#include "support/rows.h"
#include "xmllib.h"

#include <regex>
#include <thread>

static std::atomic<clock_t> ticks{1};
static std::int64_t clock_us = 1700000000123999;
static long ticks_a_second = -1; // as sysconf fails
static int store_starts = 0;
extern "C" {
clock_t __wrap_times(void *) {
    return ticks;
}
long __wrap_sysconf(int) { // nothing else asks for another name
    return ticks_a_second;
}
int __wrap_gettimeofday(timeval *time, void *) {
    *time = {.tv_sec = clock_us / 1000000, .tv_usec = clock_us % 1000000};
    return 0;
}
int __real__Z11xmllib_initPKc(const char *modtype);
int __wrap__Z11xmllib_initPKc(const char *modtype) {
    ++store_starts; // by one thread at a time
    return __real__Z11xmllib_initPKc(modtype);
}
}

namespace {

// "TYPE REQUEST; ", "TYPE 3 LEVEL LINE; ", or "TYPE 0 SIZE LEVEL STARTENDMSGFLAG LOGTYPE ROTATE [PATH]
// [HEADER] [PERFLOGNAME]; ".
std::string tell(const EVENTC_LOG_INFO &record) {
    const EVENTC_LOG_INIT &init = record.destinfo.init;
    const std::int32_t request = from_network(record.dest);
    std::ostringstream told;
    told << record.type << ' ' << request;
    if (request == EVENTC_REQ_LOCAL)
        told << ' ' << from_network(record.destinfo.local.loglevel) << ' ' << record.destinfo.local.msg;
    if (request == EVENTC_REQ_INITIALIZE)
        told << ' ' << from_network(init.logsize) << ' ' << from_network(init.loglevel) << ' '
             << init.startendmsgflag << ' ' << init.logtype << ' ' << init.rotate << " [" << init.dirpath
             << "] [" << init.header << "] [" << record.perflogname << ']';
    return told.str() + "; ";
}

// Opens a log by words: "perf KIND TYPE", or "util KIND TYPE LEVEL SIZE ROTATE HSIZE HEADER PATH". "null"
// stands for a null pointer, perf0 and util0 for one in place of the handle's.
std::int32_t open_log(const std::string &call, void **handle) {
    const std::vector<std::string> words = split_words(call);
    const auto text = [&](std::size_t at) { return words[at] == "null" ? nullptr : words[at].c_str(); };
    const auto value = [&](std::size_t at) { return std::stoi(words[at], nullptr, 0); };
    void **const place = words[0].back() == '0' ? nullptr : handle;
    if (words[0].starts_with("perf"))
        return log_util_perf_init(place, text(2), value(1));
    return log_util_init(text(2), place, value(1), value(3), value(4), value(5), value(6), text(7), text(8));
}

class Perf : public LogTree {
protected:
    Perf() {
        setenv("ZYNXML_ENV_LOGLEVEL", "-1", 1); // no trace of the store
        setenv("TZ", "UTC", 1);
        tzset();
        const std::string port = "<port>" + std::to_string(collector.port) + "</port>";
        folder.write("etc/policy/statsd.pol", "<root><statsd><log><level>-1</level></log><server>" + port +
                                                  "<host>127.0.0.1</host></server></statsd></root>");
    }
    ~Perf() override {
        EXPECT_EQ(xmllib_term(), XMLLIB_ERR_NOTINIT);
        EXPECT_EQ(descriptors(), descriptors_before);
    }
    static long descriptors() {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    }
    void *open_monitor() const {
        configure("<statsd><mode>1</mode></statsd><cluster><perf><log><monitor><use>-1</use></monitor></log>"
                  "</perf></cluster>");
        void *handle = nullptr;
        EXPECT_EQ(log_util_perf_init(&handle, "m", LOG_TYPE_MONITOR), LOG_OK);
        journal();
        return handle;
    }
    // What the daemon has got of the log and of the emitter's.
    std::string journal() const {
        std::string told;
        for (const EVENTC_LOG_INFO &record : daemon.take_all())
            told += std::strcmp(record.type, "uptime") == 0 ? "" : tell(record);
        return told;
    }
    // A metric, with "!" in place of "|".
    std::string metric(bool expected) const {
        return std::regex_replace(collector.take_text(expected ? 10000 : 0), std::regex("\\|"), "!");
    }
    const Receiver daemon{"tmp/sockevent"}, collector;
    const long descriptors_before = descriptors();
};

// A log from its opening to its end, whichever file its settings stand in.
TEST_F(Perf, Lives) {
    char host[256];
    zyngethostname(host);
    for (const Row &row : read_rows("perf_lives.txt", 6))
        for (const bool policy : {false, true}) {
            configure(policy ? "" : row[1]);
            folder.write("etc/policy/cluster.pol", "<root>" + (policy ? row[1] : "") + "</root>");
            void *handle = row[0][4] == '0' ? nullptr : this;
            store_starts = 0;
            ASSERT_EQ(open_log(row[0], &handle), std::stoi(row[2])) << row[0];
            std::string told = store_starts == 0 ? "untouched" : journal();
            const std::vector<std::string> words = split_words(row[3]);
            log_perf_info info;
            log_util_perf_start(&info, LOG_TICK_CALLER, 7);
            const std::int32_t written =
                words.size() == 3   ? log_util_perf_end(handle, &info, words[2].c_str(), "a", "r", 0,
                                                        std::stoi(words[0]), std::stoull(words[1]))
                : words.size() == 2 ? log_util_write(handle, "%s,%d%%", words[1].c_str(), 5)
                                    : LOG_OK;
            EXPECT_EQ(std::to_string(written) + metric(!row[5].empty()),
                      "0" + std::regex_replace(row[5], std::regex("HOST"), host))
                << row[0];
            told += journal();
            EXPECT_TRUE(handle == nullptr ||
                        (row[0][0] == 'p' ? log_util_perf_term : log_util_term)(handle) == LOG_OK);
            EXPECT_EQ(told + journal(), row[4]) << row[1];
        }
}

TEST_F(Perf, Lines) {
    ticks_a_second = 128;
    void *handle = open_monitor();
    ticks_a_second = -1; // asked for once, and not while measuring
    for (Row &row : read_rows("perf_lines.txt", 11)) {
        for (std::string &field : row)
            for (char &c : field)
                c = c == '~' ? '\xa4' : c == '^' ? '\r' : c;
        setenv("TZ", row[0].c_str(), 1);
        tzset();
        const auto at = [&](std::int64_t us, const std::string &count) {
            clock_us = std::stoll(row[1]) * 1000000 + us;
            return static_cast<std::uint64_t>(ticks = static_cast<clock_t>(std::stoull(count)));
        };
        log_perf_info info;
        std::int32_t ret = log_util_perf_start(&info, std::stoi(row[2]), at(123999, row[3]));
        ret += log_util_perf_end(handle, &info, row[7].c_str(), row[8].c_str(), row[9].c_str(),
                                 std::stoi(row[6]), std::stoi(row[4]), at(1007999, row[5]));
        EXPECT_EQ(std::to_string(ret) + journal(), "0m_perf 3 4 " + row[10] + "\n; ");
    }
    EXPECT_EQ(log_util_perf_term(handle), LOG_OK);
}

// What is refused, and what is lost without a daemon: no metric.
TEST_F(Perf, Failures) {
    void *handle = open_monitor(), *other = this;
    const log_perf_info info = {};
    const auto end = [&](int null) {
        const auto text = [null](int at) { return at == null ? nullptr : "x"; };
        return log_util_perf_end(null == 0 ? nullptr : handle, null == 1 ? nullptr : &info, text(2), text(3),
                                 text(4), 0, LOG_TICK_CLOCK, 0);
    };
    for (const std::int32_t ret :
         {end(0), end(1), end(2), end(3), end(4), log_util_perf_start(nullptr, 0, 0),
          log_util_write(nullptr, "%d", 1), log_util_term(nullptr), log_util_perf_term(nullptr)})
        EXPECT_EQ(ret, LOG_ERR_PARAMETER);
    EXPECT_EQ(journal() + metric(false), "");
    std::filesystem::remove("tmp/sockevent");
    for (const char *call : {"perf 0x30003 m", "perf 0x10003 m", "util 3 m 0 0 0 0 null null"})
        EXPECT_TRUE(open_log(call, &other) == LOG_ERR_DAEMON && other == nullptr) << call;
    EXPECT_EQ(end(5), LOG_ERR_DAEMON);
    EXPECT_TRUE(metric(true).starts_with("zyn_monitor_response_time:0!ms!#"));
    EXPECT_EQ(log_util_write(handle, "%d", 1), LOG_ERR_DAEMON);
    EXPECT_EQ(log_util_perf_term(handle), LOG_ERR_DAEMON);
}

TEST_F(Perf, ThreadsMeasureThroughOneHandle) {
    int lines = 0;
    void *handle = open_monitor();
    const auto measure = [handle](bool reopens) {
        for (int i = 0; i < 20; ++i) {
            void *used = handle;
            EXPECT_TRUE(!reopens || log_util_perf_init(&used, "other", LOG_TYPE_MONITOR) == LOG_OK);
            log_perf_info info;
            log_util_perf_start(&info, LOG_TICK_CLOCK, 0);
            EXPECT_EQ(log_util_perf_end(used, &info, "n", "a", "r", i, LOG_TICK_CLOCK, 0), LOG_OK);
            EXPECT_TRUE(!reopens || log_util_perf_term(used) == LOG_OK);
        }
    };
    {
        const std::jthread one(measure, false), two(measure, false), three(measure, true);
        for (int i = 0; i < 100; ++i)
            lines += std::strcmp(daemon.take(10000).type, "m_perf") == 0 ? 1 : 0;
    }
    EXPECT_EQ(lines, 40);
    EXPECT_EQ(log_util_perf_term(handle), LOG_OK);
}

} // namespace
