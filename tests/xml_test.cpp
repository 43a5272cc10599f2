// The locked interface of the store: start and end, what each operation answers and traces, and many threads
// at once. The installation is found by a link in the folder of the test; sleep() is not slept.
#include "support/fake_log.h"
#include "support/folder.h"
#include "support/rows.h"
#include "xmllib.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <map>
#include <regex>
#include <thread>
#include <tuple>

#include <unistd.h>

namespace {

clock_t counter = 0; // what the system's clock returns, with an error number
int counter_error = 0;

} // namespace

extern "C" unsigned __wrap_sleep(unsigned) {
    pthread_testcancel();
    return 0;
}
extern "C" clock_t __wrap_times(struct tms *) {
    errno = counter_error;
    return counter;
}

namespace {

// A store in a folder of its own, which is the current directory.
class Xml : public testing::Test {
protected:
    Xml() {
        traced.clear();
        EXPECT_EQ(chdir(folder.path.c_str()), 0);
        std::filesystem::create_directory_symlink(folder / "lib/libzynxml.so.1.0.0", "libzynxml.so.1.0");
        std::filesystem::create_directories("etc/policy");
        folder.write("etc/zyn.conf", "<root><a n='1'>conf</a><a n='2'/></root>");
        for (const char *type : {"all", "log", "cluster"})
            folder.write(std::string("etc/policy/") + type + ".pol", "<root><b>5</b></root>");
        trace_on("<init>1</init>");
    }
    void trace_on(const std::string &setting) const {
        folder.write(
            "etc/policy/cluster.pol",
            "<root><cluster><log><xml>" + setting +
                "</xml></log></cluster><m><parameters><x>for every</x><y>for every</y><z>1</z></parameters>"
                "<server n='s1'><parameters><x>one</x><z><in/></z></parameters></server></m></root>");
    }
    static std::string value(const char *path) {
        char buffer[64] = "";
        int size = sizeof(buffer);
        const int ret = xmllib_get_value(path, XMLLIB_TYPE_STRING, buffer, &size);
        return ret == XMLLIB_OK ? buffer : std::to_string(ret);
    }
    const Folder folder;
};

TEST_F(Xml, StartKeepsAllAndClusterAndTheLastEndUnloadsThem) {
    EXPECT_EQ(xmllib_init(nullptr), XMLLIB_ERR_INVALIDARG);
    EXPECT_EQ(value("/root/b"), "1") << "not initialised";
    EXPECT_EQ(xmllib_init("rexec"), 0);
    EXPECT_EQ(xmllib_init("rexec"), 0);
    EXPECT_EQ(value("/root/b"), "5");
    EXPECT_EQ(value("/root/a"), "4") << "the configuration is unloaded";
    EXPECT_EQ(xmllib_unload_policy("log"), XMLLIB_ERR_NOTLOAD);
    EXPECT_EQ(xmllib_term(), 0);
    EXPECT_EQ(value("/root/b"), "5");
    EXPECT_EQ(xmllib_term(), 0);
    EXPECT_EQ(xmllib_term(), XMLLIB_ERR_NOTINIT);
    EXPECT_EQ(traced.front(), "open xml 4 1000000");
    EXPECT_EQ(traced.back(), "close");
    for (const char *line : {"8|=> xmllib_init() start", "4| init(rexec)", "4| unum(1)", "4| unum(2)",
                             "2| force unload \"all\".", "2| force unload \"cluster\"."})
        EXPECT_GE(count_traced(line), 1) << line;
    EXPECT_EQ(count_traced("8|   search \"all\" policy ..."), 0) << "opened behind the start";
}

TEST_F(Xml, TraceIsOpenedOnlyWhereItIsAskedForAndSafe) {
    for (const char *type : {"event", "log"}) {
        EXPECT_EQ(xmllib_init(type), 0);
        EXPECT_EQ(xmllib_term(), 0);
    }
    for (const char *setting : {"<init>0</init>", ""}) {
        trace_on(setting);
        EXPECT_EQ(xmllib_init("rexec"), 0);
        EXPECT_EQ(xmllib_term(), 0);
    }
    EXPECT_TRUE(traced.empty());
}

// Level and size are read once a process, so each row has one of its own.
using XmlDeathTest = Xml;
TEST_F(XmlDeathTest, TraceSettingsFromTheEnvironment) {
    for (const auto &[level, size, wanted] :
         std::vector<std::array<const char *, 3>>{{"0x10", "010", "open xml 16 8"},
                                                  {"16k", "99999999999", "open xml 4 1000000"},
                                                  {"", "-1", "open xml 0 -1"}}) {
        const auto started = [&] {
            setenv("ZYNXML_ENV_LOGLEVEL", level, 1);
            setenv("ZYNXML_ENV_LOGSIZE", size, 1);
            return xmllib_init("rexec") == 0 && traced.front() == wanted;
        };
        EXPECT_EXIT(_exit(started() ? 0 : 1), testing::ExitedWithCode(0), "") << wanted;
    }
}

// What is missing decides the code, and what has been loaded is unloaded again, but for "log" beside "all".
TEST_F(Xml, FailedStartKeepsItsCount) {
    for (const std::string type : {"log", "all", "cluster"}) {
        const std::string file = folder / "etc/policy/" + type + ".pol";
        std::filesystem::rename(file, folder / "away");
        EXPECT_EQ(xmllib_init("rexec"), XMLLIB_ERR_NOTEXIST) << type;
        for (const std::string loaded : {"log", "all", "cluster"})
            EXPECT_EQ(xmllib_unload_policy(loaded.c_str()) == 0, loaded == "log" && type == "all")
                << type << loaded;
        EXPECT_EQ(xmllib_unload_config(), XMLLIB_ERR_NOTLOAD);
        EXPECT_EQ(xmllib_init("rexec"), 0) << "counts only";
        EXPECT_EQ(value("/root/b"), "2") << "nothing is loaded";
        EXPECT_EQ(xmllib_term(), 0);
        EXPECT_EQ(xmllib_term(), 0);
        std::filesystem::rename(folder / "away", file);
    }
    EXPECT_TRUE(traced.empty());
    std::filesystem::remove(folder / "etc/zyn.conf");
    EXPECT_EQ(xmllib_init("rexec"), 0) << "policies alone will do";
    EXPECT_EQ(xmllib_term(), 0);
}

TEST_F(Xml, CharsetChoosesTheDirectory) {
    const std::string charset(127, 'C'), directory = "etc/policy." + charset;
    const auto all = [](const std::string &name, const std::string &value) {
        return "<root><all><charset>" + name + "</charset></all><b>" + value + "</b></root>";
    };
    std::filesystem::create_directory(directory);
    folder.write("etc/policy/all.pol", all(charset, "plain"));
    folder.write(directory + "/all.pol", all(charset + "C", "chosen"));
    // The second start begins with the charset of the first, finds one that is too long, and forgets both.
    for (const char *wanted : {"chosen", "plain"}) {
        EXPECT_EQ(xmllib_init("rexec"), 0);
        EXPECT_EQ(value("/root/b"), wanted);
        EXPECT_EQ(xmllib_term(), 0);
    }
}

// Each operation with its arguments, its code and what it traces, before and after the start.
TEST_F(Xml, OperationsAnswerAndTrace) {
    void *handle = nullptr;
    char buffer[600];
    int size = 0;
    const std::string other = folder.write("other", "<root><a>other</a></root>");
    const auto get = [&](const std::string &path, int type) {
        size = sizeof(buffer);
        return xmllib_get_value(path == "null" ? nullptr : path.c_str(), type, buffer, &size);
    };
    const auto text = [](const std::string &argument) {
        return argument == "null" ? nullptr : argument.c_str();
    };
    const std::map<std::string, std::function<int(const std::string &)>> operations = {
        {"load_policy", [&](const std::string &of) { return xmllib_load_policy(text(of)); }},
        {"unload_policy", [&](const std::string &of) { return xmllib_unload_policy(text(of)); }},
        {"load_config", [](const std::string &) { return xmllib_load_config(); }},
        {"unload_config", [](const std::string &) { return xmllib_unload_config(); }},
        {"reload_config", [](const std::string &) { return xmllib_reload_config(); }},
        {"load_path", [&](const std::string &of) { return xmllib_load_pathconfig(text(of), &handle); }},
        {"unload_path",
         [&](const std::string &of) { return xmllib_unload_pathconfig(of == "null" ? nullptr : handle); }},
        {"change",
         [&](const std::string &of) { return xmllib_change_config(of == "null" ? nullptr : handle); }},
        {"get", [&](const std::string &of) { return get(of, XMLLIB_TYPE_STRING); }},
        {"get_int", [&](const std::string &of) { return get(of, XMLLIB_TYPE_INT); }},
        {"size", [&](const std::string &of) { return xmllib_get_value(of.c_str(), 0, nullptr, &size); }},
        {"enum",
         [&](const std::string &of) {
             size = sizeof(buffer);
             return xmllib_enum_value(text(of), buffer, &size);
         }},
        {"server",
         [&](const std::string &of) {
             size = sizeof(buffer);
             const std::string server = of.substr(0, of.find(' ')), path = of.substr(server.size() + 1);
             return xmllib_get_srvsep_value(text(server), text(path), XMLLIB_TYPE_STRING, buffer, &size);
         }},
    };
    for (const Row &row : read_rows("operations.txt", 4)) {
        const auto &[operation, argument, code, wanted] = std::tie(row[0], row[1], row[2], row[3]);
        traced.clear();
        std::memset(buffer, 0, sizeof(buffer));
        const int ret = operation == "init"   ? xmllib_init("rexec")
                        : operation == "term" ? xmllib_term()
                                              : operations.at(operation)(argument);
        EXPECT_EQ(std::to_string(ret), code) << operation << " " << argument;
        const bool found = wanted.empty() || wanted == buffer || wanted == "size " + std::to_string(size) ||
                           std::any_of(traced.begin(), traced.end(), [&](std::string line) {
                               std::replace(line.begin(), line.end(), '|', ':');
                               return line.find(wanted) != std::string::npos;
                           });
        EXPECT_TRUE(found) << operation << " " << argument << ": " << wanted;
    }
    EXPECT_EQ(xmllib_setlog("anything"), 0);
}

// The system library takes the counts from -4095 to -1 for errors.
TEST_F(Xml, ClockIsMended) {
    for (const Row &row : read_rows("clock.txt", 5)) {
        traced.clear();
        counter = std::stoi(row[0]);
        counter_error = std::stoi(row[1]);
        EXPECT_EQ(xmllib_times(), std::stoi(row[2]));
        std::vector<std::string> wanted = {"open times 4 100000", row[3] + "|" + row[4], "close"};
        if (row[3].empty())
            wanted.clear();
        EXPECT_EQ(traced, wanted) << row[4];
    }
}

TEST_F(Xml, InstallPathNeedsNoStart) {
    char path[64];
    for (const std::size_t size : {std::size_t{8}, sizeof(path), std::size_t{0}}) {
        std::memset(path, 'x', sizeof(path));
        EXPECT_EQ(xmllib_get_installpath(path, static_cast<int>(size)), 0);
        std::string wanted = folder.path.substr(0, size == 0 ? 0 : size - 1);
        wanted.resize(size, '\0');
        EXPECT_EQ(std::string(path, sizeof(path)), wanted + std::string(sizeof(path) - size, 'x')) << size;
    }
    EXPECT_EQ(xmllib_get_installpath(nullptr, sizeof(path)), 0);
}

// A thread that has been cancelled finishes what it called, although the call sleeps and opens files.
TEST_F(Xml, CancelledThreadsFinishTheirCalls) {
    folder.write("etc/zyn.conf", "<root>");
    const auto init = [] { return xmllib_init("rexec"); };
    std::vector<int> codes;
    for (int (*call)() : {+init, xmllib_load_config, xmllib_term, +init, xmllib_term})
        std::jthread([&] {
            pthread_cancel(pthread_self());
            codes.push_back(call());
        }).join();
    EXPECT_EQ(codes, (std::vector<int>{0, XMLLIB_ERR_INVALIDPATH, 0, 0, 0}));
}

// Every line of a value that a policy holds, of a list, and of reloads that change nothing or something.
TEST_F(Xml, WholeTrace) {
    char buffer[600];
    int size = sizeof(buffer);
    EXPECT_EQ(xmllib_init("rexec"), 0);
    EXPECT_EQ(xmllib_load_config(), 0);
    traced.clear();
    EXPECT_EQ(value("/root/m/parameters/x"), "for every");
    EXPECT_EQ(xmllib_enum_value("/root/a", buffer, &size), 0);
    EXPECT_EQ(xmllib_reload_config(), 0);
    folder.write("etc/zyn.conf", "<root/>");
    EXPECT_EQ(xmllib_reload_config(), 0);
    std::vector<std::string> lines, wanted;
    for (const std::string &line : traced)
        lines.push_back(std::regex_replace(line, std::regex("/tmp/zyn[^/]*|[0-9]+(?=\\.$)"), "@"));
    for (const Row &row : read_rows("store_trace.txt", 2))
        wanted.push_back(row[0] + "|" + row[1]);
    EXPECT_EQ(lines, wanted);
    EXPECT_EQ(xmllib_term(), 0);
}

// Starting and ending with an open trace, opening log handles that read their settings, and using the store
// while its file is replaced, at times by a broken one: no deadlock, no torn value, nothing left.
TEST_F(Xml, ManyThreads) {
    const auto replace_file = [this](int i) {
        const std::string text =
            i % 4 == 3 ? "<root>" : "<root><a>" + std::string(i % 4 + 1U, 'v') + "</a></root>";
        std::filesystem::rename(folder.write("etc/new", text), folder / "etc/zyn.conf");
    };
    replace_file(0);
    EXPECT_EQ(xmllib_init("log"), 0); // holds a use of the configuration, for all
    EXPECT_EQ(xmllib_load_config(), 0);
    std::atomic<bool> over{false};
    std::atomic<int> odd{0};
    const std::vector<std::function<void()>> works = {[] {
                                                          xmllib_init("rexec");
                                                          xmllib_term();
                                                      },
                                                      [] {
                                                          const std::lock_guard library(loglibmutex);
                                                          xmllib_init("log");
                                                          xmllib_term();
                                                      },
                                                      [] {
                                                          if (xmllib_load_policy("cluster") == 0)
                                                              xmllib_unload_policy("cluster");
                                                          xmllib_reload_config();
                                                      },
                                                      [&odd] {
                                                          const std::string found = value("/root/a");
                                                          odd += found.empty() ||
                                                                 found.find_first_not_of("v") != found.npos;
                                                          if (xmllib_load_config() == 0)
                                                              xmllib_unload_config();
                                                      }};
    {
        std::jthread writer([&] {
            for (int i = 0; !over; ++i)
                replace_file(i);
        });
        std::vector<std::jthread> threads;
        for (std::size_t i = 0; i < 8; ++i)
            threads.emplace_back([&work = works[i % works.size()]] {
                for (int round = 0; round < 100; ++round)
                    work();
            });
        threads.clear();
        over = true;
    }
    EXPECT_EQ(odd, 0);
    EXPECT_EQ(xmllib_unload_config(), 0);
    EXPECT_EQ(xmllib_unload_config(), XMLLIB_ERR_NOTLOAD);
    EXPECT_EQ(xmllib_term(), 0);
    EXPECT_EQ(xmllib_term(), XMLLIB_ERR_NOTINIT);
    // The trace is opened by a first start only, and that one was of the type "log": start and end alone.
    {
        std::vector<std::jthread> threads;
        for (std::size_t i = 0; i < 4; ++i)
            threads.emplace_back([&work = works[i % 2]] {
                for (int round = 0; round < 100; ++round)
                    work();
            });
        for (int i = 0; i < 400; ++i) // traces, and takes no lock of the start and the end
            xmllib_get_installpath(nullptr, 0);
    }
    EXPECT_GT(count_traced("close"), 0);
    EXPECT_EQ(count_traced("close"), count_traced("open xml 4 1000000"));
    EXPECT_EQ(xmllib_term(), XMLLIB_ERR_NOTINIT);
}

} // namespace
