// The log library against sockets and a queue in place of the event daemon.
#include "keyfile.h"
#include "log.h"
#include "log/line.h"
#include "log_local.h"
#include "shmlog.h"
#include "support/log_tree.h"
#include "support/records.h"
#include "support/rows.h"
#include "xmllib.h"

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <map>
#include <new>
#include <regex>
#include <thread>
#include <tuple>

#include <fcntl.h>
#include <sys/msg.h>
#include <sys/shm.h>
#include <sys/time.h>
#include <sys/wait.h>

namespace {

std::atomic<int> allocations{0};
int fail_new_after = -1;               // the allocation by new that fails, counted from now; none below 0
const timeval *clock_stands = nullptr; // at this time, unless null
std::atomic<int> interrupted{0};       // sends that a signal has ended

} // namespace

extern "C" {
void *__real_malloc(std::size_t size);
void *__wrap_malloc(std::size_t size) {
    ++allocations;
    return __real_malloc(size);
}
void *__real__Znwm(std::size_t size); // operator new
void *__wrap__Znwm(std::size_t size) {
    ++allocations;
    if (fail_new_after >= 0 && fail_new_after-- == 0)
        throw std::bad_alloc();
    return __real__Znwm(size);
}
void *__real__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t &tag);
void *__wrap__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t &tag) {
    return fail_new_after >= 0 && fail_new_after-- == 0 ? nullptr : __real__ZnwmRKSt9nothrow_t(size, tag);
}
int __real_gettimeofday(timeval *time, void *zone);
int __wrap_gettimeofday(timeval *time, void *zone) {
    return clock_stands == nullptr ? __real_gettimeofday(time, zone) : (*time = *clock_stands, 0);
}
ssize_t __real_sendto(int fd, const void *data, size_t size, int flags, const sockaddr *to, socklen_t len);
ssize_t __wrap_sendto(int fd, const void *data, size_t size, int flags, const sockaddr *to, socklen_t len) {
    const ssize_t sent = __real_sendto(fd, data, size, flags, to, len);
    interrupted += sent == -1 && errno == EINTR;
    return sent;
}
}

namespace {

class Log : public LogTree {
protected:
    // A handle whose opening has been taken from the socket.
    void *open(const Receiver &daemon, std::int32_t level = 4, const char *type = "mod") const {
        void *handle = nullptr;
        EXPECT_EQ(log_init(type, &handle, level, 0, nullptr), LOG_OK);
        EXPECT_EQ(daemon.take().dest, 0);
        EXPECT_STREQ(daemon.take().type, "uptime");
        return handle;
    }
    std::string socket_path() const { return folder / "tmp/sockevent"; }
    bool quiet = true;
};

TEST_F(Log, HandleIsAnnouncedAndEnded) {
    const Receiver daemon(socket_path());
    configure("<log><log><level>8</level><size>5000</size></log></log><event><uptime><level>2</level>"
              "<size>70</size></uptime></event>");
    void *handle = nullptr;
    ASSERT_EQ(log_init("rexec", &handle, 0, 0, "/var/log/x"), LOG_OK);
    const EVENTC_LOG_INFO init = daemon.take();
    EXPECT_EQ(from_network(init.pid), getpid());
    EXPECT_EQ(from_network(init.tid), gettid());
    EXPECT_EQ(from_network(init.destinfo.init.logsize), 5000);
    EXPECT_EQ(from_network(init.destinfo.init.loglevel), 8);
    EXPECT_STREQ(init.destinfo.init.dirpath, "/var/log/x");
    const EVENTC_LOG_INFO uptime = daemon.take();
    EXPECT_EQ(from_network(uptime.destinfo.init.logsize), 70);
    EXPECT_EQ(from_network(uptime.destinfo.init.loglevel), 2);
    EXPECT_EQ(log_term(handle), LOG_OK);
    EXPECT_EQ(daemon.take_all().size(), 1U);
}

// Every record of a handle's life, by each transport, against the worked examples.
TEST_F(Log, RecordsAreTheExamples) {
    const auto examples = read_records();
    folder.write("messages/drill.msg.us", "ID = 12\nSEND = alert, syslog, uptime, pubsub\nLVL = WARNING\n"
                                          "MSG = %d servers answered\n");
    const Receiver local(socket_path()), udp;
    std::filesystem::create_directory("work/ipc");
    folder.write("work/ipc/msgq.key", "");
    const int queue = msgget(ftok("work/ipc/msgq.key", 99), IPC_CREAT | 0600);
    const auto take = [&](int method) {
        EVENTC_MSGBUF message = {};
        if (method != EVENTC_METHOD_MQ)
            return (method == EVENTC_METHOD_UDP ? udp : local).take(10000);
        EXPECT_EQ(msgrcv(queue, &message, sizeof(message.info), 1, IPC_NOWAIT), ssize_t{EVENTC_RECORD_LEN});
        return message.info;
    };
    for (const int method : {EVENTC_METHOD_UNIX, EVENTC_METHOD_UDP, EVENTC_METHOD_MQ}) {
        const auto expect = [&](const std::string &names) {
            for (const std::string &name : split_words(names)) {
                const EVENTC_LOG_INFO record = take(method);
                const auto *bytes = reinterpret_cast<const unsigned char *>(&record);
                std::vector<int> example = examples.at(name);
                ASSERT_EQ(example.size(), sizeof(record)) << name;
                // A longer process id leaves less behind the text.
                for (pid_t pid = name == "local" || name == "uptime" ? getpid() : 0; pid > 99999; pid /= 10) {
                    example.erase(example.begin() + 589);
                    example.insert(example.begin() + 104, ANY_BYTE);
                }
                for (std::size_t at = 0; at < sizeof(record); ++at)
                    ASSERT_TRUE(example[at] == ANY_BYTE || example[at] == bytes[at])
                        << name << " at " << at << " by " << method;
            }
        };
        configure("<cluster><event><method>" + std::to_string(method) + "</method><port>" +
                  std::to_string(udp.port) +
                  "</port></event><perf><log><group><use>1</use></group></log></perf></cluster>");
        void *handle = nullptr;
        ASSERT_EQ(log_init("drill", &handle, 4, 1000000, nullptr), LOG_OK);
        const int sock = static_cast<LOGLIB_OBJ *>(handle)->sock;
        EXPECT_TRUE(method == EVENTC_METHOD_MQ || fcntl(sock, F_GETFD) == FD_CLOEXEC);
        expect("initialize companion");
        EXPECT_EQ(log_write(handle, 4, 0, "src/drill.cpp", 42, "run_drill", "%d servers answered", 3),
                  LOG_OK);
        expect("local");
        EXPECT_EQ(log_write(handle, LOG_LEVEL_EVENT, 12, nullptr, 0, nullptr, "%d", 3), LOG_OK);
        expect("alert syslog uptime pubsub");
        EXPECT_EQ(log_term(handle), LOG_OK);
        expect("terminate");
        log_perf_info info = {};
        ASSERT_EQ(log_util_perf_init(&handle, "drill", LOG_TYPE_GROUP), LOG_OK);
        EXPECT_EQ(log_util_perf_start(&info, LOG_TICK_CALLER, 100), LOG_OK);
        EXPECT_EQ(log_util_perf_end(handle, &info, "grp1", "start", "normal", 0, LOG_TICK_CALLER, 250),
                  LOG_OK);
        EXPECT_EQ(log_util_perf_term(handle), LOG_OK);
        expect("performance action");
    }
    msgctl(queue, IPC_RMID, nullptr);
}

// What keeps a transport from being used, and what the queue adds.
TEST_F(Log, TransportIsChosenByTheConfiguration) {
    void *handle = nullptr;
    configure("<cluster><event><method>1</method><port>65537</port></event></cluster>");
    EXPECT_EQ(log_init("mod", &handle, 4, 0, nullptr), LOG_ERR_TRANSPORT) << "never another port";
    configure("<cluster><event><method>2</method></event></cluster>");
    EXPECT_EQ(log_init("mod", &handle, 4, 0, nullptr), LOG_ERR_TRANSPORT) << "nobody has made the queue";
    const key_t key = ftok((folder / "work/ipc/msgq.key").c_str(), 99);
    const int queue = msgget(key, IPC_CREAT | 0600);
    ASSERT_NE(queue, -1);
    ASSERT_EQ(log_init("mod", &handle, 4, 0, nullptr), LOG_OK);
    EVENTC_MSGBUF message = {};
    EXPECT_EQ(msgrcv(queue, &message, sizeof(message.info), 1, IPC_NOWAIT), ssize_t{EVENTC_RECORD_LEN});
    // A full queue loses the message, and says so once, in a file.
    msqid_ds limits = {};
    msgctl(queue, IPC_STAT, &limits);
    limits.msg_qbytes = 5000;
    msgctl(queue, IPC_SET, &limits);
    int written = 0;
    while (log_write(handle, 1, 0, "f", 1, "g", "x") == LOG_OK)
        ++written;
    EXPECT_EQ(written, 1) << "the companion's announcement is the other of two";
    std::ifstream note(folder / "tmp/log_msg");
    std::string text;
    std::getline(note, text);
    EXPECT_TRUE(std::regex_match(text, std::regex("[0-9/]{10} [0-9:.]{12} msgsnd\\(\\) failed\\."))) << text;
    std::filesystem::remove(folder / "tmp/log_msg");
    EXPECT_EQ(log_write(handle, 1, 0, "f", 1, "g", "x"), LOG_ERR_DAEMON);
    EXPECT_FALSE(std::filesystem::exists(folder / "tmp/log_msg"));
    EXPECT_EQ(log_term(handle), LOG_ERR_DAEMON);
    // One that may be waited for is given up, too, and taken up again.
    configure("<cluster><event><method>2</method><msq><opt>0</opt></msq></event></cluster>");
    EXPECT_EQ(log_init("mod", &handle, 4, 0, nullptr), LOG_ERR_DAEMON);
    while (msgrcv(queue, &message, sizeof(message.info), 0, IPC_NOWAIT) > 0) {
    }
    EXPECT_EQ(log_init("mod", &handle, 4, 0, nullptr), LOG_OK);
    log_term(handle);
    msgctl(queue, IPC_RMID, nullptr);
}

// Line forms at their limits; see the data for the columns.
TEST_F(Log, Lines) {
    const Receiver daemon(socket_path());
    for (const Row &row : read_rows("lines.txt", 8, Escapes::kept)) {
        configure("<cluster><locallog><format><year>" + row[0] + "</year></format></locallog></cluster>");
        void *handle = open(daemon, 32);
        const auto write = [&] {
            EXPECT_EQ(log_write(handle, std::stoi(row[2]), 0, row[3] == "null" ? nullptr : row[3].c_str(),
                                std::stoi(row[4]), row[5] == "null" ? nullptr : row[5].c_str(), "%s",
                                row[6].c_str()),
                      LOG_OK);
        };
        row[1] == "main" ? write() : std::thread(write).join();
        const EVENTC_LOG_INFO record = daemon.take();
        EXPECT_EQ(from_network(record.destinfo.local.loglevel), std::stoi(row[2]));
        const char *line = record.destinfo.local.msg;
        const std::string pid = std::to_string(getpid());
        std::string wanted = row[7];
        if (const std::size_t at = wanted.find("PID"); at != wanted.npos)
            wanted.replace(at, 3, pid.size() < 5 ? std::string(5 - pid.size(), '0') + pid : pid);
        EXPECT_TRUE(std::regex_match(line, std::regex(wanted + "\n"))) << line << wanted;
        EXPECT_EQ(record.destinfo.local.msg[510], '\n') << "whatever the length";
        EXPECT_EQ(record.destinfo.local.msg[511], '\0');
        log_term(handle);
        daemon.take();
    }
}

// Stamps follow the clock, in local time; see the data for the columns.
TEST_F(Log, Stamps) {
    setenv("TZ", "XXX-5:30", 1);
    tzset();
    for (const Row &row : read_rows("stamps.txt", 5)) {
        const timeval time = {.tv_sec = std::stol(row[0]), .tv_usec = std::stol(row[1])};
        char stamp[LOG_DATE_LEN];
        clock_stands = &time;
        log_cre_datestr(stamp, std::stoi(row[2]), std::stoi(row[3]));
        clock_stands = nullptr;
        EXPECT_EQ(stamp, row[4]) << row[0];
    }
}

// A thread that has been cancelled ends its calls before itself.
TEST_F(Log, CancelledThreadEndsItsCalls) {
    const Receiver daemon(socket_path());
    int done = 0;
    std::thread([&] {
        void *handle = nullptr;
        pthread_cancel(pthread_self());
        done += log_init("mod", &handle, 4, 0, nullptr) == LOG_OK;
        done += log_write(handle, 1, 0, "f", 1, "g", "x") == LOG_OK;
        done += log_term(handle) == LOG_OK;
        pthread_testcancel();
        done = -1;
    }).join();
    EXPECT_EQ(done, 3);
    EXPECT_EQ(daemon.take_all().size(), 4U);
}

TEST_F(Log, LevelsAndTheSharedTable) {
    const Receiver daemon(socket_path());
    EXPECT_EQ(log_init("", nullptr, 4, 0, nullptr), LOG_ERR_PARAMETER);
    EXPECT_EQ(log_init("mod", nullptr, 4, 0, nullptr), LOG_ERR_NOHANDLE);
    void *handle = &allocations;
    EXPECT_EQ(log_init("mod", &handle, -2, 0, nullptr), LOG_OK);
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(log_write(nullptr, 1, 0, "f", 1, "g", "x"), LOG_ERR_PARAMETER);
    EXPECT_EQ(log_term(nullptr), LOG_ERR_PARAMETER);
    ASSERT_EQ(shmlog_create(nullptr, folder.path.c_str(), ""), SHMLOG_OK);
    handle = open(daemon, -1);
    const auto write = [&](std::int32_t level) {
        const std::int32_t ret = log_write(handle, level, 0, "f", 1, "g", "x");
        EXPECT_EQ(daemon.take().magicno[0] != '\0', ret == LOG_OK && !quiet);
        return ret;
    };
    EXPECT_EQ(write(1), LOG_OK) << "and nothing is sent";
    quiet = false;
    for (const auto &[threshold, level, ret] :
         std::vector<std::array<std::int32_t, 3>>{{4, 4, 0},
                                                  {4, 8, LOG_ERR_LEVEL},
                                                  {8, 8, 0},
                                                  {8, 16, LOG_ERR_LEVEL},
                                                  {32, 32, 0},
                                                  {1, 2, LOG_ERR_LEVEL}}) {
        EXPECT_EQ(shmlog_setloginfo("mod", threshold, 0, 0), SHMLOG_OK);
        EXPECT_EQ(write(level), ret) << threshold << " " << level;
    }
    EXPECT_EQ(log_term(handle), LOG_OK);
    daemon.take();
    std::int32_t level = 77, size = 77, logtype = 77;
    EXPECT_EQ(shmlog_getloginfo("none", &level, &size, &logtype), SHMLOG_ERR_NOTFOUND);
    EXPECT_EQ(level, 77);
    EXPECT_EQ(shmlog_getloginfo("mod", &level, &size, &logtype), SHMLOG_OK)
        << "the handle gave back its own use only";
    EXPECT_EQ(level, 1);
    for (int i = 0; i < SHMLOG_TYPE_MAX - 1; ++i)
        EXPECT_EQ(shmlog_setloginfo(("t" + std::to_string(i)).c_str(), 1, 1, 0), SHMLOG_OK);
    EXPECT_EQ(shmlog_setloginfo("one more", 1, 1, 0), SHMLOG_ERR_NOSPACE);
    EXPECT_EQ(shmlog_delete(), SHMLOG_OK);
    EXPECT_EQ(shmlog_getloginfo("mod", &level, &size, &logtype), SHMLOG_ERR_NOTINIT);
    EXPECT_EQ(shmlog_attach(nullptr, folder.path.c_str(), ""), SHMLOG_ERR_GET);
    for (const std::size_t other : {std::size_t{100}, sizeof(shm_log) + 4096}) {
        const int segment =
            shmget(ftok((folder / "work/ipc/event.key").c_str(), 101), other, IPC_CREAT | 0600);
        EXPECT_EQ(shmlog_attach(nullptr, folder.path.c_str(), ""), SHMLOG_ERR_GET) << "of another size";
        shmctl(segment, IPC_RMID, nullptr);
    }
}

// The two forms of performance logs, and any other kind, which has none.
TEST_F(Log, SpecialLines) {
    LOGLIB_OBJ handle;
    EVENTC_LOG_INFO record;
    for (const auto &[kind, text, wanted] : std::vector<std::tuple<int, std::string, std::string>>{
             {3, "a,b", "\"[0-9]{4}/[0-9]{2}/[0-9]{2} [0-9:.]{12}\",a,b\n"},
             {0x40003, "a", "\"[0-9]{4}/[0-9]{2}/[0-9]{2} [0-9:.]{12}\",a\n"},
             {7, "a", "[0-9/]{8} [0-9:.]{12}\\[[0-9]{5,}\\] a\n"},
             {0x10003, std::string(700, 'x'), "\"[^\"]{23}\",x{484}\n"},
             {5, "a", ""}}) {
        handle.logtype = kind;
        log_cre_record(&record, EVENTC_REQ_LOCAL, "mod");
        log_cre_localmsg_ex(&handle, &record, text.c_str());
        EXPECT_TRUE(std::regex_match(record.destinfo.local.msg, std::regex(wanted)))
            << record.destinfo.local.msg;
    }
}

TEST_F(Log, AllLoggingMayBeOff) {
    const Receiver daemon(socket_path());
    configure("<event><nolog>1</nolog></event>");
    void *handle = open(daemon);
    EXPECT_EQ(log_write(handle, 1, 0, "f", 1, "g", "x"), LOG_OK);
    EXPECT_EQ(log_write(nullptr, 1, 0, "f", 1, "g", "x"), LOG_OK);
    EXPECT_EQ(daemon.take().magicno[0], '\0');
    log_term(handle);
}

// What another process writes into the table is not believed, and nobody reads it while it is unmapped.
TEST_F(Log, TableIsReadSafely) {
    const Receiver daemon(socket_path());
    void *handle = open(daemon); // opened before there is a table: it holds no use of it
    const char *tree = folder.path.c_str();
    ASSERT_EQ(shmlog_create(nullptr, tree, ""), SHMLOG_OK);
    log_term(handle);
    std::int32_t level = 0, size = 0, logtype = 0;
    EXPECT_EQ(shmlog_getloginfo("none", &level, &size, &logtype), SHMLOG_ERR_NOTFOUND);
    const int id = shmget(ftok((folder / "work/ipc/event.key").c_str(), 101), 0, 0);
    auto *table = static_cast<shm_log *>(shmat(id, nullptr, 0));
    for (const std::int32_t entries : {1 << 24, -1}) {
        table->maxtype = entries;
        EXPECT_EQ(shmlog_getloginfo("none", &level, &size, &logtype), SHMLOG_ERR_NOTFOUND);
    }
    shmdt(table);
    EXPECT_EQ(shmlog_detach(), SHMLOG_OK);
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([tree, i] {
            std::int32_t a = 0, b = 0, c = 0;
            for (int j = 0; j < 2000; ++j)
                if (i % 2 == 0)
                    shmlog_getloginfo("none", &a, &b, &c);
                else if (shmlog_attach(nullptr, tree, "") == SHMLOG_OK)
                    shmlog_detach();
        });
    threads.clear();
    EXPECT_EQ(shmctl(id, IPC_RMID, nullptr), 0);
}

// A link that somebody else has planted where a key file or its directory belongs is not followed.
TEST_F(Log, KeyFilesAreNoLinksOfOthers) {
    key_t key = 0;
    const KeyFile file = {"work/ipc", 0755, "x.key", 0644, 99};
    EXPECT_EQ(make_key(file, &key), KeyStep::done);
    EXPECT_EQ(key, ftok("work/ipc/x.key", 99));
    const KeyFile slashes = {"work/ipc//", 0755, "/x.key", 0644, 99};
    key_t same = 0;
    EXPECT_EQ(make_key(slashes, &same), KeyStep::done);
    EXPECT_EQ(same, key) << "never a file elsewhere";
    std::filesystem::rename("work/ipc/x.key", "elsewhere");
    std::filesystem::create_symlink("../../elsewhere", "work/ipc/x.key");
    key_t linked = 0;
    EXPECT_EQ(make_key(file, &linked), KeyStep::done) << "the caller's own";
    EXPECT_EQ(linked, key);
    if (lchown("work/ipc/x.key", 65534, 65534) != 0)
        GTEST_SKIP() << "only root can give a link to another user";
    EXPECT_EQ(make_key(file, &key), KeyStep::file);
    std::filesystem::rename("work/ipc", "work/moved");
    std::filesystem::create_directory_symlink("moved", "work/ipc");
    EXPECT_EQ(lchown("work/ipc", 65534, 65534), 0);
    EXPECT_EQ(make_key(file, &key), KeyStep::directory);
    EXPECT_EQ(make_key(slashes, &key), KeyStep::directory);
}

// A process and its forked child write at the same time, each under its own ids; the child ends its handle
// although other threads were reading the level table, or the time zone, when it was forked.
TEST_F(Log, ForkedChildWritesToo) {
    const Receiver daemon(socket_path());
    ASSERT_EQ(shmlog_create(nullptr, folder.path.c_str(), ""), SHMLOG_OK);
    void *handle = open(daemon);
    std::atomic<bool> over{false};
    std::jthread looking([&] {
        std::int32_t level = 0, size = 0, logtype = 0;
        while (!over)
            shmlog_getloginfo("mod", &level, &size, &logtype);
    });
    log_perf_info info;
    std::jthread measuring([&over] {
        for (log_perf_info other; !over;)
            log_util_perf_start(&other, LOG_TICK_CLOCK, 0);
    });
    for (int i = 0; i < 50; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            alarm(20); // none is left behind
            const bool good = log_util_perf_start(&info, LOG_TICK_CLOCK, 0) == LOG_OK &&
                              log_write(handle, 1, 0, "f", 1, "g", "x") == LOG_OK &&
                              log_term(handle) == LOG_OK && shmlog_detach() == SHMLOG_OK;
            _exit(good ? 0 : 1);
        }
        EXPECT_EQ(log_write(handle, 1, 0, "f", 1, "g", "x"), LOG_OK);
        std::map<int, int> records;
        for (int j = 0; j < 3; ++j)
            ++records[from_network(daemon.take(10000).pid)];
        EXPECT_EQ(records, (std::map<int, int>{{getpid(), 1}, {child, 2}}));
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
    over = true;
    looking.join();
    measuring.join();
    log_term(handle);
    EXPECT_EQ(shmlog_delete(), SHMLOG_OK);
}

// Each allocation of an opening fails once: a code, no handle, and nothing held.
TEST_F(Log, OpeningSurvivesShortages) {
    const Receiver daemon(socket_path());
    for (const bool util : {false, true}) {
        int failed = 0;
        for (std::int32_t ret = LOG_ERR_MEMORY; ret != LOG_OK; ++failed) {
            void *handle = &allocations;
            fail_new_after = failed;
            ret = util ? log_util_init("mod", &handle, LOG_TYPE_UTIL, 4, 0, 0, 0, nullptr, nullptr)
                       : log_init("mod", &handle, 4, 0, nullptr);
            fail_new_after = -1;
            EXPECT_TRUE(ret == LOG_OK || ret == LOG_ERR_MEMORY) << ret;
            EXPECT_EQ(handle == nullptr, ret != LOG_OK);
            if (ret == LOG_OK)
                (util ? log_util_term : log_term)(handle);
            EXPECT_EQ(xmllib_term(), XMLLIB_ERR_NOTINIT);
        }
        EXPECT_GT(failed, 1);
    }
}

TEST_F(Log, ConfigurationThatCannotBeRead) {
    void *handle = nullptr;
    EXPECT_EQ(log_init("mod", &handle, 4, 0, nullptr), LOG_ERR_DAEMON) << "nobody has made the socket";
    EXPECT_EQ(log_init("xml", &handle, 4, 0, nullptr), LOG_ERR_DAEMON);
    folder.write("etc/policy/all.pol", "<root/>");
    configure("<event><nolog>1</nolog></event>");
    EXPECT_EQ(log_init("mod", &handle, 4, 0, nullptr), LOG_ERR_INSTALL);
    EXPECT_EQ(nologflag, 0) << "a part of the settings changes nothing for the others";
    std::filesystem::remove("etc/policy/event.pol");
    EXPECT_EQ(log_init("mod", &handle, 4, 0, nullptr), LOG_ERR_POLICY);
    std::filesystem::remove("etc/policy/log.pol");
    EXPECT_EQ(log_init("mod", &handle, 4, 0, nullptr), LOG_ERR_CONFIG);
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(xmllib_term(), XMLLIB_ERR_NOTINIT) << "the store is given back";
}

// One wait of 200 ms, shared by all senders of a process, and none after it until the daemon reads again.
TEST_F(Log, StuckDaemonIsWaitedForOnce) {
    auto daemon = std::make_unique<Receiver>(socket_path());
    void *handle = open(*daemon), *second = open(*daemon, 4, "second");
    const auto write = [&](void *to) { return log_write(to, 1, 0, "f", 1, "g", "x"); };
    const auto took = [](auto work) {
        const auto begun = std::chrono::steady_clock::now();
        work();
        return std::chrono::steady_clock::now() - begun;
    };
    using namespace std::chrono_literals;
    int written = 0;
    std::atomic<std::int32_t> ret{LOG_OK};
    const auto wait = took([&] {
        while ((ret = write(handle)) == LOG_OK)
            ++written;
    });
    EXPECT_GE(wait, 100ms);
    EXPECT_LT(wait, 1s) << "a machine that is busy may add some";
    EXPECT_EQ(ret, LOG_ERR_DAEMON);
    const auto after = took([&] {
        std::vector<std::jthread> senders;
        for (void *to : {handle, second, handle, second})
            senders.emplace_back([&write, to] {
                for (int j = 0; j < 250; ++j)
                    EXPECT_EQ(write(to), LOG_ERR_DAEMON);
            });
    });
    EXPECT_LT(after, 1s) << "nobody waits again";
    EXPECT_EQ(daemon->take_all().size(), static_cast<std::size_t>(written));
    EXPECT_EQ(write(second), LOG_OK);
    daemon.reset();
    EXPECT_EQ(write(handle), LOG_ERR_DAEMON);
    const Receiver restarted(socket_path());
    EXPECT_EQ(write(handle), LOG_OK) << "reached again";
    log_term(handle);
    log_term(second);
}

const Receiver *read_on_alarm = nullptr;

// A signal that ends a wait for room does not end the message: the send is taken up again.
TEST_F(Log, SignalsLoseNoMessage) {
    const Receiver daemon(socket_path());
    void *handle = open(daemon);
    daemon.fill();
    read_on_alarm = &daemon;
    struct sigaction action = {};
    action.sa_handler = [](int) {
        if (interrupted >= 2)
            read_on_alarm->take();
    };
    sigaction(SIGALRM, &action, nullptr);
    const itimerval each_ms = {{0, 1000}, {0, 1000}}, never = {};
    setitimer(ITIMER_REAL, &each_ms, nullptr);
    EXPECT_EQ(log_write(handle, 1, 0, "f", 1, "g", "x"), LOG_OK);
    setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_GE(interrupted, 2);
    daemon.take_all();
    log_term(handle);
}

// A daemon that takes a record now and then: each wait is short, all of them together are bounded, too.
TEST_F(Log, SlowDaemonHoldsUpNoRun) {
    const Receiver daemon(socket_path());
    void *handle = open(daemon);
    std::atomic<bool> over{false};
    std::jthread slow([&] {
        std::mutex mutex;
        std::unique_lock lock(mutex);
        std::condition_variable never;
        while (!over) {
            never.wait_for(lock, std::chrono::milliseconds(30)); // what makes it slow
            daemon.take();
        }
    });
    const auto begun = std::chrono::steady_clock::now();
    for (int i = 0; i < 300; ++i)
        log_write(handle, 1, 0, "f", 1, "g", "x");
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(4)) << "of nine";
    over = true;
    slow.join();
    log_term(handle);
}

TEST_F(Log, MessageNeedsNoHeap) {
    const Receiver daemon(socket_path());
    void *handle = open(daemon);
    const int before = allocations;
    EXPECT_EQ(log_write(handle, 1, 0, "f", 1, "g", "%d %s", 5, "x"), LOG_OK);
    EXPECT_EQ(log_write(handle, 8, 0, "f", 1, "g", "%d %s", 5, "x"), LOG_ERR_LEVEL);
    EXPECT_EQ(allocations, before);
    log_term(handle);
}

// Handles, the store with its trace on, and the level table, from many threads: no deadlock and no race.
TEST_F(Log, ManyThreads) {
    folder.write("etc/policy/cluster.pol",
                 "<root><cluster><log><xml><init>1</init></xml></log></cluster></root>");
    const Receiver daemon(socket_path());
    ASSERT_EQ(shmlog_create(nullptr, folder.path.c_str(), ""), SHMLOG_OK);
    void *shared = open(daemon);
    std::atomic<bool> over{false};
    std::jthread reader([&] {
        while (!over)
            daemon.take(1);
    });
    {
        std::vector<std::jthread> threads;
        const auto repeat = [&](auto work) {
            threads.emplace_back([work] {
                for (int i = 0; i < 60; ++i)
                    work();
            });
        };
        for (int i = 0; i < 2; ++i) {
            repeat([] {
                void *handle = nullptr;
                if (log_init("other", &handle, 8, 0, nullptr) == LOG_OK) {
                    log_write(handle, 8, 0, "f", 1, "g", "x");
                    log_term(handle);
                }
            });
            repeat([] {
                xmllib_init("rexec");
                xmllib_load_config();
                xmllib_unload_config();
                xmllib_term();
            });
            repeat([shared] { EXPECT_NE(log_write(shared, 4, 0, "f", 1, "g", "x"), LOG_ERR_PARAMETER); });
            repeat([&] {
                if (shmlog_attach(nullptr, folder.path.c_str(), "") == SHMLOG_OK)
                    shmlog_detach();
                shmlog_setloginfo("mod", 4, 1, 0);
            });
        }
    }
    over = true;
    reader.join();
    log_term(shared);
    EXPECT_EQ(xmllib_term(), XMLLIB_ERR_NOTINIT);
    EXPECT_EQ(shmlog_delete(), SHMLOG_OK);
}

} // namespace
