// zynrehearse as event daemon, told by bytes: the records of tests/data/events.txt against its lines, its
// files and the level table.
#include "shmlog.h"
#include "support/folder.h"
#include "support/records.h"
#include "support/rows.h"
#include "support/run.h"

#include <csignal>
#include <map>
#include <optional>
#include <regex>

#include <arpa/inet.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

// \xNN becomes a byte.
std::string unescape(std::string text) {
    for (std::size_t at = 0; (at = text.find("\\x", at)) != text.npos; ++at)
        text.replace(at, 4, 1, static_cast<char>(std::stoi(text.substr(at + 2, 2), nullptr, 16)));
    return text;
}

// The worked examples by name, with a 7 for each byte that differs from sender to sender.
std::map<std::string, std::string> read_examples() {
    std::map<std::string, std::string> examples;
    for (const auto &[name, bytes] : read_records())
        for (const int byte : bytes)
            examples[name] += byte == ANY_BYTE ? '7' : static_cast<char>(byte);
    return examples;
}

struct Daemon {
    Daemon() : program({ZYN_REHEARSE, "--events", tree.path, "--event-port=0", "--event-queue"}) {
        std::filesystem::create_symlink("/tmp", tree / "out");
        sockaddr_un local{.sun_family = AF_UNIX, .sun_path = {}};
        program.read_line().copy(local.sun_path, sizeof(local.sun_path) - 1, 10);
        sockaddr_in udp{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {}, .sin_zero = {}}; // this host
        udp.sin_port = htons(static_cast<std::uint16_t>(std::stoi(program.read_line().substr(19))));
        queue = std::stoi(program.read_line().substr(16));
        program.read_line();
        connect(by_udp, reinterpret_cast<const sockaddr *>(&udp), sizeof(udp));
        connect(by_unix, reinterpret_cast<const sockaddr *>(&local), sizeof(local));
        EXPECT_EQ(shmlog_attach(nullptr, tree.path.c_str(), nullptr), 0);
    }
    ~Daemon() {
        shmlog_detach();
        end();
        close(by_udp), close(by_unix);
    }
    void end() {
        if (program.pid() == 0)
            return;
        kill(program.pid(), SIGTERM);
        kill(program.pid(), SIGCONT); // it may be stopped
        EXPECT_EQ(program.finish().exit, 0);
    }
    std::string act(const std::string &what, const std::string &argument) {
        std::ostringstream found;
        shm_log_info at{};
        if (what == "file")
            found << std::ifstream(tree / "log/" + argument).rdbuf();
        else if (what == "level")
            found << run({ZYN_REHEARSE, "--set-level", argument, "--events", tree.path}).exit;
        else if (what == "link")
            std::filesystem::remove_all(tree / argument),
                std::filesystem::create_symlink(tree / "work", tree / argument);
        else if (what == "ipcrm") {
            msgctl(queue, IPC_RMID, nullptr);
            found << program.read_line().substr(19);
            queue = std::stoi(found.str().substr(found.str().rfind(' ')));
            return std::regex_replace(found.str(), std::regex("[0-9]+"), "N");
        } else if (what == "table")
            found << shmlog_getloginfo(argument.c_str(), &at.level, &at.size, &at.logtype) << ' ' << at.level
                  << ' ' << at.size << ' ' << at.logtype;
        else
            found << send(what, argument);
        return std::regex_replace(found.str(), std::regex("\n"), "\\n");
    }
    // Sends "EXAMPLE;OFFSET=BYTES;...", cut or filled up to a SIZE behind "#".
    void post(const std::string &by, const std::string &argument) {
        std::istringstream parts(std::regex_replace(argument, std::regex("@"), tree.path));
        std::string part;
        std::getline(parts, part, ';');
        std::string record = examples.at(part);
        while (std::getline(parts, part, ';'))
            if (const std::string bytes = unescape(part.substr(part.find('=') + 1)); part.front() == '#')
                record.resize(std::stoul(part.substr(1)));
            else
                record.replace(std::stoul(part), bytes.size(), bytes);
        if (by == "queue")
            msgsnd(queue, (std::string("\1\0\0\0\0\0\0", 8) + record).data(), record.size(), 0); // type 1
        else
            ::send(by == "unix" ? by_unix : by_udp, record.data(), record.size(), 0);
    }
    // Returns what is told of it.
    std::string send(const std::string &by, const std::string &argument) {
        post(by, argument);
        const std::string told = std::regex_replace(program.read_line(), std::regex(tree.path), "@");
        return std::regex_replace(told.substr(14 + by.size()), std::regex("^drill.[0-9:]+. "), "");
    }

    const std::map<std::string, std::string> examples = read_examples();
    Folder tree;
    int laid_out = run({ZYN_REHEARSE, "--install-tree", tree.path}).exit;
    Program program;
    int queue, by_udp = socket(AF_INET, SOCK_DGRAM, 0), by_unix = socket(AF_UNIX, SOCK_DGRAM, 0);
};

TEST(Events, EveryRecordEndsWhereItBelongs) {
    std::optional<Daemon> daemon;
    for (const Row &row : read_rows("events.txt", 3, Escapes::kept))
        if (row[0] == "daemon")
            daemon.reset(), daemon.emplace();
        else
            EXPECT_EQ(daemon->act(row[0], row[1]), unescape(row[2])) << row[0] << ' ' << row[1];
}

// More than a turn of the reader takes, all there before the daemon learns of its end; as much as fits into
// the system's usual buffers.
TEST(Events, WhatHasArrivedIsStoredBeforeTheEnd) {
    Daemon daemon;
    std::map<std::string, std::string> files{{"unix.log", ""}, {"udp.log", ""}, {"queue.log", ""}};
    kill(daemon.program.pid(), SIGSTOP);
    waitpid(daemon.program.pid(), nullptr, WUNTRACED);
    for (const auto &[name, count] : {std::pair("unix", 10), {"udp", 80}, {"queue", 6}})
        for (int i = 0; i < count; ++i) {
            daemon.post(name, "local;36=" + std::string(name) + "\\x00;80=" + std::to_string(i) + "\\x00");
            files[name + std::string(".log")] += std::to_string(i) + '\n';
        }
    daemon.end();
    for (const auto &[name, lines] : files)
        EXPECT_EQ(read_file(daemon.tree / "log/" + name), lines) << name;
}

} // namespace
