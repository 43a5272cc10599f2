// The real command with an installation: the settings it takes, where they come from, and what makes it fall
// back to standalone mode. It finds the installation by a link in the current directory.
#include "support/folder.h"
#include "support/rehearsal_peer.h"
#include "support/run.h"

#include <gtest/gtest.h>

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

} // namespace
