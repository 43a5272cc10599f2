// The rehearsal server as its peers see it: bytes sent by hand over real sockets, and what comes back.
#include "server.h"
#include "support/folder.h"
#include "support/rows.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <system_error>

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using rehearsal::Server;

std::string u32(std::uint32_t v) {
    const std::uint32_t wire = htonl(v);
    return {reinterpret_cast<const char *>(&wire), 4};
}
std::uint32_t u32_at(const std::string &bytes, std::size_t at) {
    std::uint32_t wire = 0;
    bytes.copy(reinterpret_cast<char *>(&wire), 4, at);
    return ntohl(wire);
}
// The numbers in an answer, each as "offset:number".
void expect_words(const std::string &bytes, const std::string &words) {
    for (const std::string &word : split_words(words)) {
        const std::string number = word.substr(word.find(':') + 1);
        EXPECT_EQ(u32_at(bytes, std::stoul(word)), std::stoul(number, nullptr, 0)) << "at " << word;
    }
}
std::string text(std::string value, std::size_t width) {
    value.resize(width);
    return value;
}
std::string packet(std::uint32_t code, const std::string &body = "") {
    const std::string size = u32(static_cast<std::uint32_t>(body.size()));
    return "l_trnsv\0"s + text("", 48) + u32(code) + u32(7) + u32(0) + size + size + body;
}
std::string call(const std::string &id, const std::string &payload) {
    return packet(34, text(id, 32) + u32(0) + u32(static_cast<std::uint32_t>(payload.size())) + payload);
}
std::string script(const std::string &name, std::uint32_t timeout = 9) {
    return call("zynexecscript_ex", text(name, 256) + u32(timeout) + text("", 260));
}
const std::string check = packet(36), farewell = packet(28);

// The packet of a row: "check", "farewell", "packet CODE", "call ID", "script NAME", "clear NAME",
// "failover RESOURCE GROUP [SECONDS]" or "notice NAME [CATEGORY [KEYWORD]]", with "~" for an empty word.
std::string request(const std::string &row) {
    std::vector<std::string> words = split_words(row);
    const std::string kind = words[0];
    words.resize(4);
    if (kind == "check" || kind == "farewell")
        return kind == "check" ? check : farewell;
    if (kind == "packet" || kind == "call")
        return kind == "call" ? call(words[1], "") : packet(static_cast<std::uint32_t>(std::stoul(words[1])));
    if (kind == "script")
        return script(words[1]);
    const std::string seconds = words[3].empty() ? "9" : words[3];
    if (kind == "failover")
        return call("zynexecgrpfo_ex", text(words[1], 32) + text(words[2], 32) +
                                           u32(static_cast<std::uint32_t>(std::stoul(seconds))) +
                                           text("", 260));
    return call("zynexec" + kind, text(words[1], 32) + text(words[3], 1024) + text(words[2], 128) +
                                      u32(kind == "clear") + text("", 260));
}

// A plain client; every read gives up after ten seconds.
struct Client {
    explicit Client(const Server &server, const char *to = "127.0.0.1", const char *from = "127.0.0.1")
        : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const timeval limit{10, 0};
        ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        const sockaddr_in here = name(from, 0), there = name(to, server.port());
        ::bind(socket_, reinterpret_cast<const sockaddr *>(&here), sizeof here);
        error = ::connect(socket_, reinterpret_cast<const sockaddr *>(&there), sizeof there) == 0 ? 0 : errno;
    }
    ~Client() { ::close(socket_); }

    void send(const std::string &bytes) const { ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL); }
    void no_more() const { ::shutdown(socket_, SHUT_WR); }
    // At most `size` bytes; fewer at the end of the stream (error 0), a reset or the time limit.
    std::string read(std::size_t size) {
        std::string bytes(size, 0);
        std::size_t have = 0;
        while (have < size) {
            const ssize_t got = ::recv(socket_, bytes.data() + have, size - have, 0);
            error = got < 0 ? errno : 0;
            if (got == 0 || (got < 0 && error != EINTR)) { // a script's end interrupts a timed read
                break;
            }
            have += got > 0 ? static_cast<std::size_t>(got) : 0;
        }
        bytes.resize(have);
        return bytes;
    }
    // The answer to a request: its header, then as many bytes as it announces.
    std::string ask(const std::string &request) {
        send(request);
        std::string answer = read(76);
        return answer.size() < 76 ? answer : answer + read(u32_at(answer, 72));
    }
    static sockaddr_in name(const char *address, std::uint16_t port) {
        sockaddr_in name{};
        name.sin_family = AF_INET;
        name.sin_port = htons(port);
        ::inet_pton(AF_INET, address, &name.sin_addr);
        return name;
    }
    int socket_;
    int error = 0; // of the last connect or read
};

TEST(Rehearsal, AnswersAccordingToTheStateOfTheCluster) {
    Server server({.addresses = {"127.0.0.1", "127.0.0.2", "127.0.0.3"},
                   .cluster_file = ZYN_TEST_DATA "/rehearsal.xml"});
    server.start();
    for (const Row &row : read_rows("rehearsal_answers.txt", 6)) {
        SCOPED_TRACE(row[0]);
        const std::string bytes = request(row[3]);
        const std::string answer = Client(server, row[1].c_str(), row[2].c_str()).ask(bytes);
        ASSERT_GE(answer.size(), 76U);
        EXPECT_EQ(answer.substr(0, 56), "l_trnsv\0"s + text("v", 16) + text("e", 16) + text("c", 16));
        EXPECT_EQ(u32_at(answer, 56), u32_at(bytes, 56) + 1); // the code
        EXPECT_EQ(u32_at(answer, 60), 7U);                    // the sequence number
        EXPECT_EQ(static_cast<std::int32_t>(u32_at(answer, 64)), std::stoi(row[4]));
        EXPECT_EQ(answer.size() > 76, !row[5].empty());
        expect_words(answer, row[5]);
    }
}

TEST(Rehearsal, RefusesPacketsThatAreNotInOrder) {
    Server server({});
    server.start();
    const auto with = [](std::string bytes, std::size_t at, std::uint32_t v) {
        return bytes.replace(at, 4, u32(v));
    };
    const std::pair<std::string, std::string> rows[] = {
        {text("l_trnsvX", 76), "bad magic word \"l_trnsvX\""},
        {with(check, 72, 500001), "variable part of 500001 bytes is too large"},
        {with(check, 68, 1), "sizes differ: 0 of 1"},
        {packet(36, "x"), "a connection check carries no data"},
        {packet(34, text("", 39)), "the variable part is shorter than its envelope"},
        {with(script("s"), 112, 0xffffffff), "the envelope announces 4294967295 bytes of payload, 520 came"},
        {call("zynexecscript_ex", text("s", 519)),
         "the payload of zynexecscript_ex is shorter than its record"},
    };
    for (const auto &[bytes, problem] : rows) {
        Client client(server);
        client.send(bytes);
        EXPECT_EQ(client.read(1), "");
        EXPECT_EQ(server.exchanges().back().problem, problem);
    }
    EXPECT_TRUE(server.recorder().wait_until_closed(10s));
}

TEST(Rehearsal, ShowsFaults) {
    const std::vector<Row> rows = read_rows("rehearsal_faults.txt", 5);
    rehearsal::Options options{.addresses = {}, .cluster_file = ZYN_TEST_DATA "/rehearsal.xml"};
    for (const Row &row : rows) { // each on its own address
        options.addresses.push_back("127.0.2." + std::to_string(options.addresses.size() + 1));
        options.faults.emplace_back(options.addresses.back(), row[0]);
    }
    Server server(options);
    server.start();
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const Row &row = rows[i];
        SCOPED_TRACE(row[0]);
        Client client(server, options.addresses[i].c_str());
        client.send(request(row[1]) + (row[3] == "kept" ? farewell : ""));
        if (row[3] == "kept") {
            client.no_more();
        }
        const std::string got = client.read(600000);
        EXPECT_EQ(client.error, row[3] == "reset" ? ECONNRESET : 0);
        ASSERT_EQ(got.size(), std::stoul(row[2]) + (row[3] == "kept" ? 76 : 0));
        expect_words(got, row[4]);
    }
}

TEST(Rehearsal, SharesOnePortAndTriesAgainOnCollision) {
    const char *const taken = "127.9.9.9";
    std::vector<int> sockets; // a good part of the ports that the system hands out, on the second address
    rehearsal::raise_descriptor_limit();
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    sockaddr_in name{};
    name.sin_family = AF_INET;
    ::inet_pton(AF_INET, taken, &name.sin_addr);
    while (sockets.size() < std::min<std::size_t>(limit.rlim_cur / 2, 4000)) {
        sockets.push_back(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        ASSERT_EQ(::bind(sockets.back(), reinterpret_cast<const sockaddr *>(&name), sizeof name), 0);
    }
    for (int i = 0; i < 30; ++i) {
        Server server({.addresses = {"127.0.0.1", taken, "127.0.0.3"}, .faults = {{"127.0.0.3", "refuse"}}});
        server.start();
        EXPECT_EQ(Client(server, taken).ask(check).size(), 76U);
        EXPECT_EQ(Client(server, "127.0.0.3").error, ECONNREFUSED);
        Server second({.addresses = {"127.0.0.3", taken}, .port = server.port()});
        EXPECT_THROW(second.start(), std::system_error);
    }
    for (const int one : sockets) {
        ::close(one);
    }
}

TEST(Rehearsal, SendsTheBytesOfATest) {
    Server server({.hook = [](const rehearsal::Exchange &exchange) -> std::optional<rehearsal::RawAnswer> {
        if (exchange.request.script != "s") {
            return std::nullopt;
        }
        return rehearsal::RawAnswer{.bytes = {'a', 0, 'b'}, .after = rehearsal::After::close};
    }});
    server.start();
    Client client(server);
    EXPECT_EQ(client.ask(check).size(), 76U);
    client.send(script("s"));
    EXPECT_EQ(client.read(9), "a\0b"s);
    ASSERT_TRUE(server.wait_for_answers(1, 10s, 34));
    const std::vector<rehearsal::Exchange> all = server.exchanges();
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(std::string(all[1].request_bytes.begin(), all[1].request_bytes.end()), script("s"));
    EXPECT_EQ(all[1].connection, all[0].connection);
    EXPECT_TRUE(all[1].accepted <= all[1].received && all[1].received <= all[1].answered);
}

// Waits for `events` on the reading end of a pipe.
bool wait_pipe(int pipe, short events) {
    pollfd one{.fd = pipe, .events = POLLIN, .revents = 0};
    return ::poll(&one, 1, 10000) == 1 && (one.revents & events) != 0;
}

TEST(Rehearsal, RunsScriptsAndKillsThemWithTheirChildren) {
    const Folder folder, elsewhere;
    folder.write("ends", "#!/bin/sh\nexit 7\n", 0755);
    folder.write("killed", "#!/bin/sh\nkill -TERM $$\n", 0755);
    folder.write("plain", "#!/bin/sh\n");
    folder.write("broken", "#!/no/such/interpreter\n", 0755);
    // The child keeps the pipe open until it ends too.
    folder.write("hangs", "#!/bin/sh\nexec 9>pipe\necho >&9\nsleep 1000 &\nwait\n", 0755);
    std::filesystem::create_symlink(elsewhere.write("outside", "#!/bin/sh\n", 0755), folder / "link");
    ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
    rehearsal::Options options{.real_scripts = true};
    options.cluster.script_directory = folder.path;
    Server server(options);
    server.start();
    for (const Row &row : read_rows("real_scripts.txt", 3)) {
        SCOPED_TRACE(row[0]);
        const std::string answer = Client(server).ask(script(row[0]));
        ASSERT_GE(answer.size(), row[1] == "0" ? 348U : 76U);
        EXPECT_EQ(u32_at(answer, 64), std::stoul(row[1]));
        EXPECT_EQ(row[1] == "0" ? u32_at(answer, 84) : 0, std::stoul(row[2]));
    }
    Client client(server);
    for (const std::uint32_t limit : {1U, 0U}) { // without a limit it runs until the server stops
        const int pipe = ::open((folder / "pipe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        client.send(script("hangs", limit));
        ASSERT_TRUE(wait_pipe(pipe, POLLIN));
        char byte = 0;
        ASSERT_EQ(::read(pipe, &byte, 1), 1);
        EXPECT_EQ(Client(server).ask(check).size(), 76U); // others are served meanwhile
        if (limit == 0) {
            server.stop();
        }
        EXPECT_TRUE(wait_pipe(pipe, POLLHUP));
        EXPECT_EQ(client.read(76).size(), limit == 0 ? 0U : 76U);
        ::close(pipe);
    }
    EXPECT_EQ(server.exchanges().at(7).status, 27);
}
} // namespace
