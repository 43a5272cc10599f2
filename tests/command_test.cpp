// The real command, run as a user runs it.
#include "support/capture.h"
#include "support/folder.h"
#include "support/rehearsal_peer.h"
#include "support/run.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <regex>

#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>

namespace {

using namespace std::chrono_literals;

std::vector<std::string> sorted_lines(const std::string &text) {
    std::vector<std::string> lines = split(text);
    std::sort(lines.begin(), lines.end());
    return lines;
}

std::vector<std::string> command(const Peer &peer, std::vector<std::string> words) {
    words.insert(words.begin(), {ZYN_COMMAND, "-p", std::to_string(peer.port())});
    return words;
}

bool have_ipv6() {
    const int sock = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in6 address = {};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    const bool have = bind(sock, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0;
    close(sock);
    return have;
}

// One request, many servers, each with a fault of its own; the slowest wait is shared by all.
TEST(Command, EachServerGetsItsOwnLine) {
    std::vector<Row> rows = read_rows("fault_lines.txt", 3);
    if (have_ipv6())
        rows.push_back({"::1", "", "GRP_FAILOVER ::1 : Success \n"});
    const Folder folder;
    std::string list, wanted;
    for (const Row &row : rows) {
        list += (list.empty() ? "" : ",") + row[0];
        wanted += row[2];
    }
    const Peer peer(faulty_options(rows));
    const Finished finished =
        run(command(peer, {"--failover", "grp1", "-w", "5", "-h", list, "-o", folder / "log"}));
    EXPECT_EQ(sorted_lines(finished.output), sorted_lines(wanted));
    EXPECT_EQ(finished.exit, 0);
    // The command time-out passed, and its cancel found each worker at its end only.
    const std::string log = read_file(folder / "log");
    for (const char *text : {"  Timeout in request.\n", "  pthread_cancel(tid[0]) success. (ret=0)\n",
                             "  Not TO(5)\n", " timeout=4 acttk=4", "thret=0xffffffff).\n"})
        EXPECT_NE(log.find(text), std::string::npos) << text;
}

// Details are told below their server; where an answer's inner lengths lie, the status line stands and no
// detail is made up.
TEST(Command, EachAnswerGivesItsLines) {
    std::unique_ptr<Peer> peer;
    std::string fault;
    for (const Row &row : read_rows("answers.txt", 3)) {
        if (peer == nullptr || row[0] != fault) {
            fault = row[0];
            peer = std::make_unique<Peer>(faulty_options({Row{"127.0.0.1", fault}}));
        }
        const Finished finished = run(command(*peer, split_words(row[1])));
        EXPECT_EQ(finished.output, row[2]) << fault << " " << row[1];
        EXPECT_EQ(finished.exit, 0) << fault << " " << row[1];
    }
}

// Answers that are longer than none and shorter than their payload, with a good header around them.
TEST(Command, PayloadBelowItsSizeIsNotRead) {
    const Folder folder;
    for (const int size : {1, 4, 263}) {
        rehearsal::Options options = peer_options();
        options.hook = [size](const rehearsal::Exchange &exchange) -> std::optional<rehearsal::RawAnswer> {
            if (exchange.code != 34)
                return std::nullopt;
            std::string answer("l_trnsv");
            answer.resize(static_cast<std::size_t>(76 + 8 + size));
            answer[59] = 35;
            for (const int at : {70, 74, 82}) { // allsize, size and the inner size
                const int length = at == 82 ? size : size + 8;
                answer[static_cast<std::size_t>(at)] = static_cast<char>(length >> 8);
                answer[static_cast<std::size_t>(at + 1)] = static_cast<char>(length);
            }
            return rehearsal::RawAnswer{.bytes = {answer.begin(), answer.end()}};
        };
        const Peer peer(std::move(options));
        for (const auto &[option, label] :
             {std::pair{"--script", "EXEC_SCRIPT"}, {"--notice", "MRW_NOTICE"}, {"--clear", "MRW_CLEAR"}}) {
            const Finished finished = run(command(peer, {option, "x", "-o", folder / "log"}));
            EXPECT_EQ(finished.output, std::string(label) + " 127.0.0.1 : Success \n");
            EXPECT_NE(
                read_file(folder / "log").find("invalid out_size. (127.0.0.1 size=" + std::to_string(size)),
                std::string::npos);
        }
    }
}

// What an operator's shell may do to standard output: the request completes all the same.
TEST(Command, StandardOutputMayBeClosedOrItsReaderGone) {
    for (const Stdout to : {Stdout::closed, Stdout::reader_gone, Stdout::all_closed}) {
        const Peer peer;
        const Finished finished = run(command(peer, {"--notice", "mon1"}), to);
        EXPECT_EQ(finished.exit, 0);
        std::vector<std::int32_t> codes;
        for (const rehearsal::Exchange &exchange : peer.exchanges()) {
            codes.push_back(exchange.code);
            EXPECT_EQ(exchange.problem, "") << "nothing but packets went into the socket";
        }
        EXPECT_EQ(codes, (std::vector<std::int32_t>{36, 34, 28}));
    }
}

TEST(Command, UserLogFileThatCannotBeWrittenHoldsNothingUp) {
    const Folder folder;
    ASSERT_EQ(mkfifo((folder / "fifo").c_str(), 0600), 0);
    const Peer peer;
    for (const std::string &path : {std::string("/nonexistent/log"), std::string("/dev/full"),
                                    std::string("/dev/null"), folder.path, folder / "fifo"}) {
        const Finished finished = run(command(peer, {"--failover", "grp1", "-o", path}));
        EXPECT_EQ(finished.output, "GRP_FAILOVER 127.0.0.1 : Success \n") << path;
        EXPECT_EQ(finished.exit, 0) << path;
    }
#ifndef __SANITIZE_THREAD__ // its runtime itself does not start under such a limit
    const std::vector<std::string> words = command(peer, {"--failover", "grp1", "-o", folder / "log"});
    std::string line = "ulimit -f 0; exec";
    for (const std::string &word : words)
        line += " " + word;
    const Finished finished = run({"/bin/sh", "-c", line});
    EXPECT_EQ(finished.output, "GRP_FAILOVER 127.0.0.1 : Success \n") << "under a limit on the size of files";
#endif
}

// A reader of a FIFO that is too slow loses lines, but never half of one.
TEST(Command, UserLogLinesAreWholeOnAFifo) {
    const Folder folder;
    ASSERT_EQ(mkfifo((folder / "fifo").c_str(), 0600), 0);
    const int reader = open((folder / "fifo").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_NE(reader, -1);
    rehearsal::Options options = peer_options();
    options.addresses.clear();
    std::string list;
    for (int i = 1; i <= 32; ++i) {
        options.addresses.push_back("127.0.2." + std::to_string(i));
        list += (i == 1 ? "" : ",") + options.addresses.back();
    }
    const Peer peer(std::move(options));
    const Finished finished = run(command(peer, {"--failover", "grp1", "-o", folder / "fifo", "-h", list}));
    EXPECT_EQ(split(finished.output).size(), 32U);
    std::string log;
    char block[4096];
    for (ssize_t got = 0; (got = read(reader, block, sizeof(block))) > 0;)
        log.append(block, static_cast<std::size_t>(got));
    close(reader);
    EXPECT_GT(log.size(), 32768U) << "the FIFO was full";
    EXPECT_EQ(log.back(), '\n');
    const std::regex whole("[EWIT] [0-9/]{10} [0-9:.]{12} \\[[0-9]+:[0-9a-f]{8}\\][0-9]{5}:rexec(cl)? .*");
    for (const std::string &text : split(log)) {
        EXPECT_TRUE(std::regex_match(text, whole)) << text;
        EXPECT_EQ(text.find(":rexec", 60), std::string::npos) << "a torn line runs into the next: " << text;
    }
}

TEST(Command, UserLogFileHoldsTheRun) {
    const Folder folder;
    std::ofstream(folder / "log") << "what stood here before\n";
    const Peer peer;
    run(command(peer, {"--failover", "grp1", "-w", "3", "-o", folder / "log"}));
    const std::string log = read_file(folder / "log");
    EXPECT_EQ(log.find("what stood here before"), std::string::npos);
    for (const char *text :
         {"  $Revision: 1 $ $Date: 18/03/07 15:48 $\n", "  CmdTO is already inputed, but smaller.(3)\n",
          "  rexeccl_multi_execparam(zynexecgrpfo_ex) start...\n", "  rexeccl_multi_execparam(ret=0) \n",
          "  sv0=127.0.0.1 status=0\n", "  pthread_join(tid[0]) success. (ret=0,thret=0).\n",
          "  Not TO(0)\n"})
        EXPECT_NE(log.find(text), std::string::npos) << text;
}

TEST(Command, OptionErrorsPrintTheUsageAndSendNothing) {
    const Finished help = run({ZYN_COMMAND, "--help"});
    EXPECT_EQ(help.exit, 0);
    EXPECT_TRUE(
        help.output.starts_with("\nUsage: Group Failover\n        zynrexec --failover {<grpname>|-r"));
    EXPECT_TRUE(help.output.ends_with("[-o <logfile_path>]\n\n"));
    const Peer peer;
    const Finished wrong = run(command(peer, {"--failover", "g", "--script", "s"}));
    EXPECT_EQ(wrong.exit, 1);
    EXPECT_EQ(wrong.output, "Invalid option.\n" + help.output);
    EXPECT_EQ(peer.recorder().accepted(), 0U);
}

// Sockets with numbers above what a select set holds.
TEST(Command, DescriptorsAbove1023Work) {
    rlimit limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = limit.rlim_max;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_cur < 1200)
        GTEST_SKIP() << "this machine allows no 1200 descriptors";
    const Peer peer;
    std::vector<int> inherited;
    while (inherited.empty() || inherited.back() < 1100)
        inherited.push_back(dup(STDERR_FILENO));
    for (int fd = 3; fd < inherited.front(); ++fd) // no gap below them in the child
        fcntl(fd, F_SETFD, 0);
    const Folder folder;
    const Finished finished = run(command(peer, {"--failover", "grp1", "-o", folder / "log"}));
    for (const int fd : inherited)
        close(fd);
    EXPECT_EQ(finished.output, "GRP_FAILOVER 127.0.0.1 : Success \n");
    const std::string log = read_file(folder / "log");
    const std::size_t at = log.find("IPv4 (sock=");
    ASSERT_NE(at, std::string::npos);
    EXPECT_GT(std::stoi(log.substr(at + 11)), 1023);
}

TEST(Command, InterruptEndsItAtOnce) {
    rehearsal::Options options = peer_options();
    options.faults = {{"127.0.0.1", "silent-request"}};
    const Peer peer(std::move(options));
    Program program(command(peer, {"--failover", "grp1", "-w", "60"}));
    ASSERT_TRUE(peer.wait_for([](const auto &exchanges) { return exchanges.size() >= 2; }, 20s));
    kill(program.pid(), SIGINT);
    const Finished finished = program.finish();
    EXPECT_EQ(finished.exit, -1);
    EXPECT_LT(finished.took, 30s);
}

// The command linked with calls that fail on demand: the other targets are not harmed, and each
// target keeps a line of its own.
TEST(Command, ShortagesOfTheHost) {
    rehearsal::Options options = peer_options();
    options.addresses = {"127.0.0.1", "127.0.0.2"};
    const Peer peer(std::move(options));
    for (const Row &row : read_rows("shortages.txt", 3)) {
        setenv("ZYN_TEST_FAIL", row[0].c_str(), 1);
        std::vector<std::string> words = command(peer, {"--failover", "grp1", "-h", "127.0.0.1,127.0.0.2"});
        words[0] = ZYN_SHORTAGE;
        const Finished finished = run(words);
        EXPECT_EQ(sorted_lines(finished.output), split(row[2])) << row[0];
        EXPECT_EQ(finished.exit, std::stoi(row[1])) << row[0];
    }
    unsetenv("ZYN_TEST_FAIL");
}

// Any later thread or allocation that fails: each target gets its line or, where its request could not
// be started at all, an error in the log.
TEST(Command, EveryThreadAndAllocationMayFail) {
    const Folder folder;
    rehearsal::Options options = peer_options();
    options.addresses = {"127.0.0.1", "127.0.0.2"};
    const Peer peer(std::move(options));
    const auto check = [&](const std::string &fail) {
        setenv("ZYN_TEST_FAIL", fail.c_str(), 1);
        std::vector<std::string> words =
            command(peer, {"--notice", "-k", "cat", "-h", "127.0.0.1,127.0.0.2", "-o", folder / "log"});
        words[0] = ZYN_SHORTAGE;
        const Finished finished = run(words);
        EXPECT_EQ(finished.exit, 0) << fail;
        for (const std::string address : {"127.0.0.1", "127.0.0.2"})
            EXPECT_TRUE(finished.output.find(" " + address) != std::string::npos ||
                        read_file(folder / "log").find("rexeccl_create_thread() failed. (host=" + address) !=
                            std::string::npos)
                << fail << ":\n"
                << finished.output;
    };
    check("malloc:1");
    for (int number = 2; number <= 12; ++number)
        check("pthread_create:" + std::to_string(number));
    for (int number = 6; number <= 26; ++number) // behind the tables of the run
        check("calloc:" + std::to_string(number));
    unsetenv("ZYN_TEST_FAIL");
}

// A reader that stands still holds up the lines, never a request that is yet to be sent.
TEST(Command, StalledReaderHoldsUpNoRequest) {
    rehearsal::Options options = peer_options();
    options.addresses = {"127.0.0.1", "127.0.0.2"};
    options.faults = {{"127.0.0.1", "busy"}, {"127.0.0.2", "check-late:500"}};
    const Peer peer(std::move(options));
    const int stdout_before = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    setenv("ZYN_TEST_FAIL", "pthread_create:1", 1);
    std::size_t requests = 0;
    // The first server is busy; or, with a shortage, its worker cannot be started.
    for (const char *program : {ZYN_COMMAND, ZYN_SHORTAGE}) {
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
        const std::string block(4096, 'x');
        while (write(ends[1], block.data(), block.size()) > 0) {
        }
        fcntl(ends[1], F_SETFL, 0);
        dup2(ends[1], STDOUT_FILENO);
        std::vector<std::string> words = command(peer, {"--failover", "grp1", "-h", "127.0.0.1,127.0.0.2"});
        words[0] = program;
        Program running(words, Stdout::inherited);
        dup2(stdout_before, STDOUT_FILENO);
        EXPECT_TRUE(peer.wait_for_answers(++requests, 20s, 34)) << program;
        close(ends[0]);
        EXPECT_EQ(running.finish().exit, 0);
        close(ends[1]);
    }
    unsetenv("ZYN_TEST_FAIL");
    close(stdout_before);
}

TEST(Command, ThirtyTwoServersAtOnce) {
    rehearsal::Options options = peer_options();
    options.addresses.clear();
    std::string list;
    std::vector<std::string> wanted;
    for (int i = 1; i <= 32; ++i) {
        options.addresses.push_back("127.0.1." + std::to_string(i));
        list += (i == 1 ? "" : ",") + options.addresses.back();
        wanted.push_back("MRW_NOTICE " + options.addresses.back() + " : Success ");
        wanted.push_back("  mon1\t: preaction script[Executed(exitcode=0)], Failover[Success]");
    }
    const Peer peer(std::move(options));
    // Each server's lines stay together, whatever their order.
    const Finished finished = run(command(peer, {"--notice", "mon1", "-h", list}));
    const std::vector<std::string> lines = split(finished.output);
    ASSERT_EQ(lines.size(), 64U);
    for (std::size_t i = 0; i < lines.size(); i += 2) {
        EXPECT_TRUE(lines[i].starts_with("MRW_NOTICE 127.0.1.")) << lines[i];
        EXPECT_TRUE(lines[i + 1].starts_with("  mon1\t: ")) << lines[i + 1];
    }
}

} // namespace
