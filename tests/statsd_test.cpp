// The metrics emitter against sockets in place of the collector and of the event daemon.
#include "statsd/line.h"
#include "support/log_tree.h"
#include "support/rows.h"
#include "xmllib.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <ctime>
#include <iterator>
#include <map>
#include <regex>
#include <thread>

#include <netdb.h>

namespace {

std::string broken; // the call that fails
std::atomic<int> allocations{0}, send_flags{0};
std::atomic<long> chance{0}; // what random gives next
long chance_step = 0;        // and how much more the time after
unsigned seed = 0;
int refused = 0;                   // how many of the emitter's next sockets or sends fail
const char *second_host = nullptr; // every name leads to it, too

bool refuse(const char *call, int error) {
    return broken == call && refused-- > 0 && (errno = error) != 0;
}

} // namespace

#define WRAP(type, name, parameters, ...)                                                                    \
    type __real_##name parameters;                                                                           \
    type __wrap_##name parameters {                                                                          \
        return __VA_ARGS__;                                                                                  \
    }

extern "C" {
WRAP(void *, malloc, (std::size_t size), ++allocations,
     size == sizeof("env:x") && refuse("malloc", ENOMEM) ? nullptr : __real_malloc(size))
WRAP(void *, calloc, (std::size_t count, std::size_t size), ++allocations,
     size == sizeof(STATSD_IMPL) && refuse("calloc", ENOMEM) ? nullptr : __real_calloc(count, size))
WRAP(void *, _Znwm, (std::size_t size), ++allocations, __real__Znwm(size)) // operator new
WRAP(long, random, (), chance.fetch_add(chance_step))
WRAP(void, srandom, (unsigned value), void(seed = value))
WRAP(unsigned, sleep, (unsigned), 0)
WRAP(int, socket, (int domain, int type, int protocol),
     protocol == IPPROTO_UDP && refuse("socket", EMFILE) ? -1 : __real_socket(domain, type, protocol))
// Records of the log are longer.
WRAP(ssize_t, sendto,
     (int fd, const void *data, std::size_t size, int flags, const sockaddr *to, socklen_t length),
     size < EVENTC_RECORD_LEN && (send_flags = flags, refuse("sendto", ECONNREFUSED))
         ? -1
         : __real_sendto(fd, data, size, flags, to, length))
// The refusal of another thread does not wait for the resolver.
WRAP(int, getaddrinfo, (const char *host, const char *port, const addrinfo *hints, addrinfo **found),
     std::thread(statsd_term, nullptr).join(),
     __real_getaddrinfo(host, port, hints, found) != 0 ? EAI_ADDRFAMILY
     : second_host ? __real_getaddrinfo(second_host, port, hints, &(*found)->ai_next)
                   : 0)
WRAP(int, _Z20xmllib_unload_configv, (), __real__Z20xmllib_unload_configv() + (broken == "unload" ? 61 : 0))
WRAP(int, _Z20xmllib_unload_policyPKc, (const char *type),
     __real__Z20xmllib_unload_policyPKc(type) + (broken == "unload" ? 62 : 0))
WRAP(int, _Z11xmllib_termv, (), __real__Z11xmllib_termv() + (broken == "unload" ? 63 : 0))
}

namespace {

using Texts = std::map<std::string, std::string>;

void replace(std::string &text, const Texts &replacements) {
    for (const auto &[from, to] : replacements)
        for (std::size_t at = 0; (at = text.find(from, at)) != text.npos; at += to.size())
            text.replace(at, from.size(), to);
}

class Statsd : public LogTree {
protected:
    Statsd() { folder.write("etc/policy/statsd.pol", "<root/>"); }
    // Valid settings but for the changes, each named by its last element.
    void set(const Texts &changes) const {
        std::string text = read_file(ZYN_TEST_DATA "/statsd.xml");
        for (const auto &[name, value] : changes)
            text = std::regex_replace(text, std::regex("(<" + name + ">)[^<]*(</" + name + ">)"),
                                      value == "missing" ? "" : "$01" + value + "$2");
        replace(text, {{"PORT", std::to_string(collector.port)}});
        configure("<cluster><event><method>1</method><port>" + std::to_string(daemon.port) +
                  "</port></event></cluster>" + text);
    }
    int open(const Texts &changes = {}) {
        set(changes);
        const int ret = statsd_init(&handle);
        sock = handle != nullptr ? handle->inet.sock : -1;
        return ret;
    }
    int send(const std::vector<STATSD_TAG> &tags, int value = 7, int method = 0) const {
        return statsd_send(handle, STATSD_METHOD{method}, value, tags.data(), static_cast<int>(tags.size()));
    }
    static STATSD_TAG tag(const std::string &key, const std::string &value) {
        STATSD_TAG tag = {};
        key.copy(tag.key, sizeof(tag.key));
        value.copy(tag.value, sizeof(tag.value));
        return tag;
    }
    // "!" stands for "|" here and below.
    void expect_sent(std::string line, const std::string &label = "") const {
        replace(line, {{"!", "|"}});
        EXPECT_EQ(collector.take_text(line.empty() ? 0 : 1000), line) << label;
        EXPECT_EQ(collector.take_text(), "") << label;
    }
    // That the log has these records, parted by ";", and no others that `only` finds.
    void expect_log(std::string wanted, const std::string &only = "", const std::string &label = "") const {
        const auto text_of = [](void *pointer) { return (std::ostringstream() << pointer).str(); };
        replace(wanted, {{"!", "|"},
                         {"FIRST", text_of(first)},
                         {"HANDLE", text_of(handle)},
                         {"PORT", std::to_string(collector.port)},
                         {"SIZE", std::to_string(sizeof(STATSD_IMPL))},
                         {"SOCK", std::to_string(sock)}});
        const std::vector<std::string> lines = split(wanted, ';');
        std::vector<std::string> got;
        for (EVENTC_LOG_INFO record;
             record = daemon.take(got.size() < lines.size() ? 1000 : 0), record.magicno[0] != '\0';) {
            const int request = from_network(record.dest);
            const auto &[level, msg] = record.destinfo.local;
            std::string line = request == EVENTC_REQ_INITIALIZE ? "opened" : "closed";
            if (const std::string text = msg; request == EVENTC_REQ_LOCAL)
                line = std::to_string(from_network(level)) + " " +
                       text.substr(text.find("]statsd:") + 34, text.size() - text.find("]statsd:") - 35);
            if (std::strcmp(record.type, "statsd") == 0 && std::regex_search(line, std::regex(only)))
                got.push_back(line);
        }
        EXPECT_EQ(got, lines) << label;
    }
    const Receiver daemon, collector;
    STATSD_HANDLE handle = nullptr, first = nullptr;
    int sock = -1; // of `handle`
};

std::string log_of(const std::string &name) {
    std::string lines;
    for (const Row &row : read_rows("statsd_log.txt", 2))
        lines += row[0] == name ? row[1] + ";" : "";
    return lines;
}

// One setting after the other, with the log of another handle.
TEST_F(Statsd, Settings) {
    ASSERT_EQ(open({{"mode", "0"}}), 0);
    first = handle;
    for (const Row &row : read_rows("statsd_settings.txt", 5)) {
        const std::string label = row[0] + " " + row[1];
        EXPECT_EQ(open({{row[0].substr(row[0].rfind('/') + 1), row[1]}}), std::stoi(row[2])) << label;
        EXPECT_EQ(handle == nullptr, row[2] != "0") << label;
        if (handle != nullptr) {
            EXPECT_EQ(send({tag("MonitorName", "m1")}), 0) << label;
            statsd_term(handle);
        }
        expect_log(row[3], "^[12] |/" + row[0] + "\\)", label);
        expect_sent(row[4], label);
    }
    statsd_term(first);
}

TEST_F(Statsd, Samples) {
    chance_step = (1L << 31) / 128;
    for (const Row &row : read_rows("statsd_samples.txt", 5)) {
        const Texts changes = {{"type", row[0]}, {"sample_rate", row[1]}, {"sample_client", row[2]}};
        ASSERT_EQ(open(changes), 0);
        chance = 0;
        for (int i = 0; i < 128; ++i)
            EXPECT_EQ(send({}), 0);
        const std::string line = std::regex_replace(row[4], std::regex("!"), "|");
        std::map<std::string, int> wanted = {{line, std::stoi(row[3])}}, sent = {{line, 0}};
        for (int i = 0; i < wanted[line]; ++i)
            ++sent[collector.take_text(1000)];
        EXPECT_EQ(sent, wanted) << testing::PrintToString(row);
        expect_sent("");
        statsd_term(handle);
    }
}

TEST_F(Statsd, Tags) {
    for (const Row &row : read_rows("statsd_tags.txt", 4)) {
        ASSERT_EQ(open({{"mode", row[0] == "-" ? "1" : "2"}, {"custom_tag", row[0]}, {"sample_rate", "1"}}),
                  0);
        std::vector<STATSD_TAG> tags;
        for (std::string text : split(row[1], ';')) {
            replace(text, {{"!", "|"}, {"CR", "\r"}});
            tags.push_back(tag(text.substr(0, text.find('=')), text.substr(text.find('=') + 1)));
        }
        EXPECT_EQ(send(tags), 0);
        expect_sent("n:7!ms" + row[3]);
        statsd_term(handle);
        expect_log(row[2] + "closed", "^2 |closed", row[1]);
    }
    // No settings and tags lead to a line that is cut.
    const STATSD_METHOD_CONF conf = {"n", STATSD_METRIC_TYPE_T, 1, STATSD_TRUE, nullptr};
    for (const std::size_t size : {1014, 1015, 1016}) {
        const std::string text(size, 't');
        char data[STATSD_DATA_LEN];
        EXPECT_EQ(statsd_prepare_sending_data(&conf, 7, 1, text.c_str(), data), size > 1015 ? 4 : 0);
        EXPECT_EQ(data, "n:7|ms|#" + text.substr(0, 1015));
    }
}

// A whole life, letter for letter.
TEST_F(Statsd, Log) {
    const std::vector<STATSD_TAG> tags = {tag("a", "1"), tag("MonitorName", "m1")};
    EXPECT_EQ(statsd_init(nullptr), STATSD_RC_INVALID_ARG);
    const auto begun = std::time(nullptr);
    ASSERT_EQ(open(), 0);
    EXPECT_TRUE(seed >= begun && seed <= std::time(nullptr));
    EXPECT_EQ(send(tags), 0);
    expect_sent("n:7!ms!@0.50!#env:x,MonitorName:m1");
    EXPECT_EQ(send_flags, MSG_DONTWAIT | MSG_NOSIGNAL);
    EXPECT_EQ(statsd_send(handle, STATSD_METHOD_MON_RESPONSE_TIME, INT_MIN, nullptr, 2), 0);
    expect_sent("n:-2147483648!ms!@0.50");
    chance = 1L << 30;
    EXPECT_EQ(send(tags), 0);
    chance = 0;
    EXPECT_EQ(send(tags, 7, 1), STATSD_RC_INVALID_ARG);
    EXPECT_EQ(send(tags, 7, -1), STATSD_RC_INVALID_ARG);
    EXPECT_EQ(send(std::vector<STATSD_TAG>(9)), STATSD_RC_INVALID_ARG);
    broken = "sendto", refused = 1;
    EXPECT_EQ(send({}), STATSD_RC_SEND_FAIL);
    expect_sent("");
    EXPECT_EQ(send({}), 0);
    expect_sent("n:7!ms!@0.50");
    EXPECT_EQ(statsd_send(nullptr, STATSD_METHOD{7}, 7, nullptr, 9), STATSD_RC_INVALID_ARG);
    EXPECT_EQ(statsd_init(nullptr), STATSD_RC_INVALID_ARG);
    EXPECT_EQ(statsd_term(nullptr), STATSD_RC_INVALID_ARG);
    EXPECT_EQ(statsd_term(handle), 0);
    expect_log(log_of("life"));
}

auto descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// What fails leaves nothing behind.
TEST_F(Statsd, Failures) {
    for (const Row &row : read_rows("statsd_failures.txt", 5)) {
        const bool file = row[0].starts_with("etc/");
        ASSERT_EQ(file ? open({{"mode", "0"}}) : 0, 0);
        first = handle;
        const auto before = descriptors();
        set({{row[1], row[2]}});
        const std::string kept = read_file(row[0]);
        if (file)
            folder.write(row[0], "<root>");
        broken = row[0], refused = INT_MAX;
        EXPECT_EQ(statsd_init(&handle), std::stoi(row[3])) << row[0];
        broken = "";
        EXPECT_EQ(handle, nullptr);
        EXPECT_EQ(descriptors(), before) << row[0];
        EXPECT_EQ(xmllib_term(), XMLLIB_ERR_NOTINIT) << row[0];
        if (file) {
            folder.write(row[0], kept);
            statsd_term(first);
        }
        expect_log("opened;" + row[4] + "closed", "^[12] |opened|closed", row[0]);
    }
    configure(""); // nobody has made the socket of the daemon
    const auto before = descriptors();
    EXPECT_EQ(statsd_init(&handle), STATSD_RC_LOGLIB_FAIL);
    EXPECT_EQ(descriptors(), before);
    EXPECT_EQ(xmllib_term(), XMLLIB_ERR_NOTINIT);
}

// The first handle opens the log and the last one closes it.
TEST_F(Statsd, TwoHandles) {
    ASSERT_EQ(open({{"mode", "0"}}), 0);
    EXPECT_EQ(send({}), 0);
    EXPECT_EQ(seed, 0U);
    first = handle;
    broken = "unload";
    ASSERT_EQ(open({{"level", "1"}}), 0);
    broken = "";
    statsd_term(first);
    close(sock);
    EXPECT_EQ(statsd_term(handle), 0);
    expect_log(log_of("two"));
    ASSERT_EQ(open({{"level", "-2"}}), 0) << "without a log";
    first = handle;
    ASSERT_EQ(open(), 0) << "nor does another handle open one";
    EXPECT_EQ(send({}), 0);
    statsd_term(first);
    expect_sent("n:7!ms!@0.50");
    statsd_term(handle);
    expect_log("");
}

TEST_F(Statsd, Addresses) {
    broken = "socket", refused = 1, second_host = "127.0.0.2";
    ASSERT_EQ(open(), 0);
    const auto &address = reinterpret_cast<const sockaddr_in &>(handle->inet.addr);
    EXPECT_EQ(address.sin_addr.s_addr, inet_addr(second_host));
    sockaddr_in peer = {};
    socklen_t length = sizeof(peer);
    EXPECT_EQ(getpeername(sock, reinterpret_cast<sockaddr *>(&peer), &length), -1) << "never connected";
    statsd_term(handle);
    expect_log(log_of("addresses"), "nameinfo|socket|closed");
    second_host = nullptr;
    if (read_file("/proc/net/if_inet6").find(std::string(31, '0') + "1 ") == std::string::npos)
        GTEST_SKIP() << "this host has no ::1";
    const Receiver six(AF_INET6);
    ASSERT_EQ(open({{"host", "::1"}, {"ipv6", "1"}, {"port", std::to_string(six.port)}}), 0);
    EXPECT_EQ(send({}), 0);
    EXPECT_EQ(six.take_text(1000), "n:7|ms|@0.50");
    statsd_term(handle);
}

TEST_F(Statsd, ValueNeedsNoHeap) {
    const std::vector<STATSD_TAG> tags(4, tag("key", "value"));
    for (const Texts &changes : {Texts{{"mode", "1"}}, {{"sample_rate", "0"}}, {{"mode", "0"}}}) {
        ASSERT_EQ(open(changes), 0);
        const int before = allocations;
        EXPECT_EQ(send(tags), 0);
        EXPECT_EQ(allocations, before);
        statsd_term(handle);
    }
    expect_sent("n:7!ms!@0.50!#key:value,key:value,key:value,key:value");
}

// A cancel waits until the emitter has done its work.
TEST_F(Statsd, NoCancellationPoint) {
    set({});
    int done = 0;
    std::thread([&] {
        pthread_cancel(pthread_self());
        done += statsd_init(&handle) == 0;
        done += statsd_send(handle, STATSD_METHOD_MON_RESPONSE_TIME, 7, nullptr, 0) == 0;
        done += statsd_term(handle) == 0;
        pthread_testcancel();
        done = 0;
    }).join();
    EXPECT_EQ(done, 3);
}

// Senders through one handle while others open and close, and without one.
TEST_F(Statsd, ManyThreads) {
    for (const bool held : {true, false}) {
        ASSERT_EQ(open(), 0);
        if (!held)
            statsd_term(std::exchange(handle, nullptr));
        std::vector<std::jthread> threads;
        const auto repeat = [&](auto work) {
            threads.emplace_back([work] {
                for (int i = 0; i < 100; ++i)
                    work();
            });
        };
        for (int i = 0; i < 2; ++i)
            repeat([=, this] { EXPECT_EQ(send({tag("key", "value")}), held ? 0 : STATSD_RC_INVALID_ARG); });
        repeat([] {
            STATSD_HANDLE other = nullptr;
            EXPECT_EQ(statsd_init(&other), 0);
            EXPECT_EQ(statsd_term(other), 0);
        });
        repeat([] { EXPECT_EQ(statsd_term(nullptr), STATSD_RC_INVALID_ARG); });
        threads.clear();
        statsd_term(handle);
    }
}

} // namespace
