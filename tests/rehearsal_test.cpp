// The rehearsal server as its peers see it: bytes sent by hand over real sockets, and what comes back.
#include "server.h"
#include "support/folder.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <csignal>
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
using Words =
    std::vector<std::pair<std::size_t, std::uint32_t>>; // offsets in an answer and what stands there

std::string u32(std::uint32_t v) {
    const std::uint32_t wire = htonl(v);
    return {reinterpret_cast<const char *>(&wire), 4};
}
std::uint32_t u32_at(const std::string &bytes, std::size_t at) {
    std::uint32_t wire = 0;
    bytes.copy(reinterpret_cast<char *>(&wire), 4, at);
    return ntohl(wire);
}
void expect_words(const std::string &bytes, const Words &words) {
    for (const auto &[at, value] : words) {
        EXPECT_EQ(u32_at(bytes, at), value) << "at " << at;
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
std::string failover(const std::string &resource, const std::string &group, std::uint32_t timeout = 9) {
    return call("zynexecgrpfo_ex", text(resource, 32) + text(group, 32) + u32(timeout) + text("", 260));
}
std::string script(const std::string &name, std::uint32_t timeout = 9) {
    return call("zynexecscript_ex", text(name, 256) + u32(timeout) + text("", 260));
}
std::string monitor(const std::string &id, const std::string &name, const std::string &category,
                    const std::string &keyword) {
    return call(id, text(name, 32) + text(keyword, 1024) + text(category, 128) + u32(id == "zynexecclear") +
                        text("", 260));
}
std::string notice(const std::string &name, const std::string &category = "",
                   const std::string &keyword = "") {
    return monitor("zynexecnotice", name, category, keyword);
}
std::string clear(const std::string &name) {
    return monitor("zynexecclear", name, "", "");
}
const std::string check = packet(36), farewell = packet(28);

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
    struct Row { // in order: some change what later ones meet
        const char *name;
        std::string request;
        std::uint32_t status;
        Words words; // none: no body
        const char *to = "127.0.0.1", *from = "127.0.0.1";
    };
    const Row rows[] = {
        {"check", check, 0, {}},
        {"check of a busy server", check, 9, {}, "127.0.0.3"},
        {"check by a client that is not permitted", check, 28, {}, "127.0.0.1", "127.0.0.9"},
        {"farewell of that client", farewell, 0, {}, "127.0.0.1", "127.0.0.9"},
        {"group", failover("", "g1"), 0, {}},
        {"group that the second server has offline", failover("", "g1"), 22, {}, "127.0.0.2"},
        {"group offline", failover("", "g2"), 22, {}},
        {"no such group", failover("", "r1"), 31, {}},
        {"group with a status", failover("", "g3"), 32, {}},
        {"group slower than the time limit", failover("", "g4", 1), 27, {}},
        {"resource", failover("r1", ""), 0, {}},
        {"resource of an offline group", failover("r2", ""), 22, {}},
        {"no such resource", failover("g1", ""), 24, {}},
        {"script", script("s"), 0, {{68, 272}, {72, 272}, {76, 0}, {80, 264}, {84, 3}}},
        {"no such script", script("nix"), 25, {}},
        {"script in a folder", script("d/s"), 25, {}},
        {"script that is not executable", script("x"), 26, {}},
        {"script that fails to run", script("f"), 29, {}},
        {"clear of a monitor in order", clear("m1"), 0, {{84, 1}, {388, 39}}},
        {"notice by name",
         notice("m1"),
         0,
         {{80, 576}, {84, 1}, {380, 2}, {384, 5}, {388, 33}, {392, 0}, {396, 4}}},
        {"notice by category", notice("", "A"), 0, {{80, 888}, {84, 2}, {388, 36}, {392, 38}, {700, 35}}},
        {"notice by keyword", notice("", "A", "k"), 0, {{84, 1}, {388, 36}}},
        {"notice by an unknown keyword", notice("", "A", "z"), 24, {}},
        {"notice with a fixed answer", notice("m1"), static_cast<std::uint32_t>(-5), {}, "127.0.0.2"},
        {"clear on a server without the error", clear("m1"), 0, {{388, 39}}, "127.0.0.2"},
        {"clear", clear("m1"), 0, {{388, 0}}},
        {"clear again", clear("m1"), 0, {{388, 39}}},
        {"clear that fails", clear("m3"), 0, {{388, 30}}},
        {"unknown id", call("zynexec", ""), 2, {}},
        {"unknown code", packet(0), 3, {}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        const std::string answer = Client(server, row.to, row.from).ask(row.request);
        ASSERT_GE(answer.size(), 76U);
        EXPECT_EQ(answer.substr(0, 56), "l_trnsv\0"s + text("v", 16) + text("e", 16) + text("c", 16));
        EXPECT_EQ(u32_at(answer, 56), u32_at(row.request, 56) + 1); // the code
        EXPECT_EQ(u32_at(answer, 60), 7U);                          // the sequence number
        EXPECT_EQ(u32_at(answer, 64), row.status);
        EXPECT_EQ(answer.size() > 76, !row.words.empty());
        expect_words(answer, row.words);
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

enum class End { kept, closed, reset };

TEST(Rehearsal, ShowsFaults) {
    struct Row {
        const char *fault;
        std::string request;
        std::size_t size; // of what comes before the end, or before the farewell of a connection kept
        End end;
        Words words;
    };
    const Row rows[] = {
        {"silent-request", script("s"), 0, End::kept, {}},
        {"late:20", script("s"), 348, End::kept, {{84, 3}}},
        {"drip:1", script("s"), 348, End::kept, {{84, 3}}},
        {"check-close-header", check, 38, End::closed, {}},
        {"close-before", script("s"), 0, End::closed, {}},
        {"close-after-header", failover("", "g1"), 76, End::closed, {{72, 8}}},
        {"close-body", script("s"), 212, End::closed, {{72, 272}}},
        {"close-after", script("s"), 348, End::closed, {}},
        {"reset-before", script("s"), 0, End::reset, {}},
        {"reset-header", script("s"), 38, End::reset, {}},
        {"reset-body", script("s"), 212, End::reset, {{72, 272}}},
        {"reset-after", script("s"), 348, End::reset, {}},
        {"wrong-code", script("s"), 348, End::kept, {{56, 99}}},
        {"wrong-magic", script("s"), 348, End::kept, {{0, 0x785f7472}}},
        {"oversized", script("s"), 500077, End::kept, {{72, 500001}}},
        {"huge-size", script("s"), 348, End::kept, {{72, 0xffffffff}}},
        {"short-body:3", script("s"), 79, End::kept, {{64, 0}, {68, 8}, {72, 3}}},
        {"lie-inner", script("s"), 348, End::kept, {{72, 272}, {80, 265}}},
        {"lie-inner:9", failover("", "g1"), 84, End::kept, {{72, 8}, {80, 9}}},
        {"negative-monnum", notice("m1"), 660, End::kept, {{84, 0xffffffff}}},
        {"unterminated", notice("m1"), 660, End::kept, {{20, 0x56565656}, {376, 0x4e4e4e4e}, {380, 2}}},
        {"check-busy", check, 76, End::kept, {{64, 9}}},
        {"status:27", script("s"), 76, End::kept, {{64, 27}, {72, 0}}},
    };
    rehearsal::Options options{.addresses = {}, .cluster_file = ZYN_TEST_DATA "/rehearsal.xml"};
    for (const Row &row : rows) { // each on its own address
        options.addresses.push_back("127.0.2." + std::to_string(options.addresses.size() + 1));
        options.faults.emplace_back(options.addresses.back(), row.fault);
    }
    Server server(options);
    server.start();
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        const Row &row = rows[i];
        SCOPED_TRACE(row.fault);
        Client client(server, options.addresses[i].c_str());
        client.send(row.request + (row.end == End::kept ? farewell : ""));
        if (row.end == End::kept) {
            client.no_more();
        }
        const std::string got = client.read(600000);
        EXPECT_EQ(client.error, row.end == End::reset ? ECONNRESET : 0);
        ASSERT_EQ(got.size(), row.size + (row.end == End::kept ? 76 : 0));
        expect_words(got, row.words);
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
    struct Row {
        const char *name;
        std::uint32_t status, exitcode;
    };
    for (const Row &row : std::initializer_list<Row>{{"ends", 0, 7},
                                                     {"killed", 0, 128 + SIGTERM},
                                                     {"plain", 26, 0},
                                                     {"broken", 29, 0},
                                                     {"link", 25, 0},
                                                     {"..", 25, 0},
                                                     {"", 25, 0}}) {
        SCOPED_TRACE(row.name);
        const std::string answer = Client(server).ask(script(row.name));
        ASSERT_GE(answer.size(), row.status == 0 ? 348U : 76U);
        EXPECT_EQ(u32_at(answer, 64), row.status);
        EXPECT_EQ(row.status == 0 ? u32_at(answer, 84) : 0, row.exitcode);
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
