// The real command with an installation: the settings it takes, where they come from, and what makes it fall
// back to standalone mode. It finds the installation by a link in the current directory.
#include "support/folder.h"
#include "support/log_tree.h"
#include "support/rehearsal_peer.h"
#include "support/run.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <set>
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

// What the event daemon receives of a run: the start, the lines of the user log as far as the level lets
// them through, the end.
TEST_F(LogTree, RecordsOfARunReachTheDaemon) {
    const Peer peer;
    for (const char *directory : {"bin", "etc/policy"})
        std::filesystem::create_directories(directory);
    for (const char *type : {"trnsv", "rexec"})
        folder.write(std::string("etc/policy/") + type + ".pol", "<root/>");
    configure("<rexec><log><level>2</level><size>5000</size></log></rexec>");
    const Receiver daemon(folder / "tmp/sockevent");
    std::vector<EVENTC_LOG_INFO> records;
    std::jthread reader([&] {
        while (records.empty() || from_network(records.back().dest) != EVENTC_REQ_TERMINATE)
            records.push_back(daemon.take(10000));
    });
    const Finished finished = run({ZYN_INSTALLED, "--script", "run.sh", "-p", std::to_string(peer.port()),
                                   "-o", folder / "log", "-h", "127.0.0.1,127.0.0.99"});
    EXPECT_EQ(finished.exit, 0);
    reader.join();
    ASSERT_GT(records.size(), 4U);
    EXPECT_EQ(from_network(records[0].dest), EVENTC_REQ_INITIALIZE);
    EXPECT_EQ(from_network(records[0].destinfo.init.loglevel), 2);
    EXPECT_EQ(from_network(records[0].destinfo.init.logsize), 5000);
    EXPECT_STREQ(records[1].type, "uptime");
    // Level, source and its line, function and text of a line in either form.
    const std::regex record_line("^(.) [^\\]]*\\]([a-z]*):([0-9]*) * (.{15}) "),
        user_line("^(.) [^\\]]*\\]([0-9]*):([a-z]*) * (.{15}).  ");
    std::multiset<std::string> sent, wanted;
    for (std::size_t i = 2; i + 1 < records.size(); ++i) {
        EXPECT_EQ(from_network(records[i].dest), EVENTC_REQ_LOCAL);
        EXPECT_STREQ(records[i].type, "rexec");
        const std::string line = records[i].destinfo.local.msg;
        sent.insert(line.substr(0, 2) + line.substr(line.find(']') + 1 + 16 + 1 + 15 + 1));
    }
    for (const std::string &line : split(read_file(folder / "log")))
        if (line.starts_with("E ") || line.starts_with("W "))
            wanted.insert(line.substr(0, 2) + line.substr(line.find(']') + 1 + 5 + 1 + 10 + 1 + 16 + 2) +
                          "\n");
    EXPECT_GT(wanted.size(), 2U);
    EXPECT_TRUE(std::includes(sent.begin(), sent.end(), wanted.begin(), wanted.end()));
}

} // namespace
