// The real command with an installation: the settings it takes, where they come from, and what makes it fall
// back to standalone mode. It finds the installation by a link in the current directory.
#include "support/folder.h"
#include "support/log_tree.h"
#include "support/rehearsal_peer.h"
#include "support/run.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <optional>
#include <regex>
#include <thread>

namespace {

std::string replaced(std::string text, const std::string &what, const std::string &with) {
    for (std::size_t at = 0; (at = text.find(what, at)) != text.npos; at += with.size())
        text.replace(at, what.size(), with);
    return text;
}

// A plain installation, and what a row changes in it.
void lay_out(const Folder &tree, const std::string &changes) {
    for (const char *directory : {"bin", "etc/policy/monitor", "etc/policy.X", "etc/policy.ASCII"})
        std::filesystem::create_directories(tree / directory);
    for (const char *type : {"log", "cluster", "trnsv", "rexec"})
        tree.write(std::string("etc/policy/") + type + ".pol", "<root/>");
    tree.write("etc/policy/all.pol", "<root><all><path>" + tree.path + "</path></all></root>");
    tree.write("etc/zyn.conf", "<root/>");
    const std::string library = tree / "lib/libzynxml.so.1.0.0";
    std::filesystem::create_symlink(library, tree / "libzynxml.so.1.0");
    for (const std::string &change : split(changes, ';'))
        if (const std::size_t equals = change.find('='); change.starts_with("->"))
            std::filesystem::create_symlink(library, tree / change.substr(2));
        else if (change.front() == '-')
            std::filesystem::remove_all(tree / change.substr(1));
        else
            tree.write(change.substr(0, equals), change.substr(equals + 1));
}

TEST(Installed, TakesItsSettingsFromTheTree) {
    const Peer peer;
    for (const Row &row : read_rows("installed.txt", 5)) {
        const Folder tree;
        const auto fill = [&](const std::string &text) {
            return replaced(replaced(text, "@PORT@", std::to_string(peer.port())), "@DIR@", tree.path);
        };
        lay_out(tree, fill(row[0]));
        setenv("ZYN_TEST_CALLS", (tree / "calls").c_str(), 1);
        const Finished finished =
            run({"/bin/sh", "-c",
                 "cd " + tree.path + " && exec " ZYN_INSTALLED " --script run.sh -o log " + fill(row[1]) +
                     " 2>&1"});
        EXPECT_EQ(finished.exit, std::stoi(row[2])) << row[0] << finished.output;
        std::string calls;
        for (const std::string &call : split(read_file(tree / "calls")))
            calls += call.front();
        EXPECT_EQ(calls, row[3]) << row[0];
        std::string seen = finished.output;
        for (const char *log : {"./log", "bin/log"})
            if (std::filesystem::exists(tree / log))
                seen += std::string("user log ") + log + ":\n" + read_file(tree / log);
        for (const std::string &text : split(fill(row[4]), ';'))
            EXPECT_NE(seen.find(text), seen.npos) << row[0] << ": " << text << "\n" << seen;
    }
    unsetenv("ZYN_TEST_CALLS");
}

// Runs in an installation with an event daemon; three servers of which one answers.
class Run : public LogTree {
protected:
    Run() {
        std::filesystem::create_directory("bin");
        for (const char *type : {"trnsv", "rexec"})
            folder.write(std::string("etc/policy/") + type + ".pol", "<root/>");
    }
    std::vector<std::string> command() const {
        return {"/bin/sh", "-c",
                "exec " ZYN_INSTALLED " --script run.sh -h 127.0.0.98,127.0.0.1,127.0.0.99 -o $PWD/log -p " +
                    std::to_string(peer.port()) + " 2>&1"};
    }
    const Peer peer;
};

// What the event daemon receives: the start, the lines of the user log as far as the level lets them
// through, those of each thread in its order, the end.
TEST_F(Run, RecordsReachTheDaemon) {
    configure("<rexec><log><level>2</level><size>5000</size></log></rexec>");
    const Receiver daemon(folder / "tmp/sockevent");
    std::vector<EVENTC_LOG_INFO> records;
    std::jthread reader([&] {
        while (records.empty() || from_network(records.back().dest) != EVENTC_REQ_TERMINATE)
            records.push_back(daemon.take(10000));
    });
    Program program(command());
    const pid_t pid = program.pid();
    EXPECT_EQ(program.finish().exit, 0);
    reader.join();
    EXPECT_TRUE(daemon.take_all().empty()) << "behind the end";
    ASSERT_GT(records.size(), 4U);
    EXPECT_EQ(from_network(records[0].dest), EVENTC_REQ_INITIALIZE);
    EXPECT_EQ(from_network(records[0].destinfo.init.loglevel), 2);
    EXPECT_EQ(from_network(records[0].destinfo.init.logsize), 5000);
    EXPECT_EQ(from_network(records[1].dest), EVENTC_REQ_INITIALIZE);
    EXPECT_STREQ(records[1].type, "uptime");
    for (const EVENTC_LOG_INFO &record : records)
        EXPECT_EQ(from_network(record.pid), pid);
    std::map<std::string, std::string> sent, wanted; // by thread, which both name in their own way
    for (std::size_t i = 2; i + 1 < records.size(); ++i) {
        EXPECT_EQ(from_network(records[i].dest), EVENTC_REQ_LOCAL);
        EXPECT_STREQ(records[i].type, "rexec");
        const std::string line = records[i].destinfo.local.msg;
        const std::int32_t tid = from_network(records[i].tid);
        const std::string thread = tid == pid ? std::string(5, ' ') : std::to_string(tid);
        EXPECT_EQ(line.find(thread + "]"), line.find(']') - thread.size()) << line;
        sent[thread] += line.substr(0, 2) + line.substr(line.find(']') + 1 + 16 + 1 + 15 + 1);
    }
    for (const std::string &line : split(read_file("log")))
        if (const std::size_t end = line.find(']'); line.starts_with("E ") || line.starts_with("W "))
            wanted[line.substr(end - 8, 8)] +=
                line.substr(0, 2) + line.substr(end + 1 + 5 + 1 + 10 + 1 + 16 + 2) + "\n";
    EXPECT_GT(wanted.size(), 2U);
    std::string left;
    for (const auto &[thread, lines] : wanted)
        left += lines;
    for (auto &[thread, lines] : sent) {
        if (thread.front() == ' ')
            lines.erase(0, lines.find("E $Revision")); // before the user log was opened
        ASSERT_NE(left.find(lines), left.npos) << lines;
        left.erase(left.find(lines), lines.size());
    }
    EXPECT_EQ(left, "");
}

// A daemon that is not there, one that never reads, one that stops: a run is the same beside each.
TEST_F(Run, DaemonThatDoesNotReadIsNotSeen) {
    configure("<rexec><log><level>32</level></log></rexec>");
    for (const int taken : {-1, 0, 3}) {
        std::optional<Receiver> daemon;
        if (taken >= 0)
            daemon.emplace(folder / "tmp/sockevent");
        if (taken == 0)
            daemon->fill();
        std::jthread reader([&] {
            for (int i = 0; i < taken; ++i)
                EXPECT_STREQ(daemon->take(10000).magicno, EVENTC_MAGICNO);
        });
        const Finished finished = run(command());
        EXPECT_EQ(finished.exit, 0);
        std::vector<std::string> lines = split(finished.output);
        std::sort(lines.begin(), lines.end());
        EXPECT_EQ(lines, (std::vector<std::string>{"  script exitcode=3", "Connect 127.0.0.98: Failed ",
                                                   "Connect 127.0.0.99: Failed ",
                                                   "EXEC_SCRIPT 127.0.0.1 : Success "}));
        reader.join();
        EXPECT_TRUE(!daemon || from_network(daemon->take_all().back().dest) != EVENTC_REQ_TERMINATE);
    }
}

} // namespace
