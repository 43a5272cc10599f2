// The real command against a peer that knows nothing but bytes: every request must be byte for byte
// the example of doc/protocol.md, and every example answer must be told right. No header of the
// project is used, so that a wrong offset cannot be wrong on both sides alike.
#include "support/rows.h"
#include "support/run.h"

#include <gtest/gtest.h>

#include <map>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

// The packets of tests/data/packets.txt by name; "00*16" is a run of bytes.
std::map<std::string, std::string> read_packets() {
    std::map<std::string, std::string> packets;
    std::string name;
    for (std::string line : split(read_file(ZYN_TEST_DATA "/packets.txt"))) {
        if (line.empty() || line.front() == '#')
            continue;
        if (line.front() != ' ') {
            name = line.substr(0, line.find(':'));
            line.erase(0, line.find(':') + 1);
        }
        for (const std::string &word : split_words(line)) {
            const std::size_t star = word.find('*');
            const std::size_t count = star == std::string::npos ? 1 : std::stoul(word.substr(star + 1));
            packets[name].append(count, static_cast<char>(std::stoi(word.substr(0, 2), nullptr, 16)));
        }
    }
    return packets;
}

struct Step {
    std::string request; // name of the packet that is expected
    std::string answer;  // name of the packet that is sent
};

// Listens on a free port of 127.0.0.1 and plays the steps on the first connection.
class BytePeer {
public:
    BytePeer(const std::map<std::string, std::string> &packets, std::vector<Step> steps)
        : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        bind(listener_, reinterpret_cast<sockaddr *>(&address), length);
        listen(listener_, 1);
        getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &length);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this, &packets, steps = std::move(steps)] { play(packets, steps); });
    }
    ~BytePeer() { finish(); }
    BytePeer(const BytePeer &) = delete;
    BytePeer &operator=(const BytePeer &) = delete;

    std::string port() const { return std::to_string(port_); }
    // The bytes that came for each step, after the peer has seen them all or the connection's end.
    const std::vector<std::string> &finish() {
        if (thread_.joinable()) {
            shutdown(listener_, SHUT_RDWR);
            thread_.join();
            close(listener_);
        }
        return received_;
    }

private:
    void play(const std::map<std::string, std::string> &packets, const std::vector<Step> &steps) {
        const int sock = accept(listener_, nullptr, nullptr);
        for (const Step &step : steps) {
            std::string bytes(packets.at(step.request).size(), '\0');
            const ssize_t got = recv(sock, bytes.data(), bytes.size(), MSG_WAITALL);
            bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
            received_.push_back(bytes);
            const std::string &answer = packets.at(step.answer);
            send(sock, answer.data(), answer.size(), MSG_NOSIGNAL);
        }
        close(sock);
    }

    int listener_;
    int port_ = 0;
    std::thread thread_;
    std::vector<std::string> received_; // written by thread_ until it is joined
};

TEST(Wire, EveryPacketIsTheExampleOfTheDocument) {
    const std::map<std::string, std::string> packets = read_packets();
    ASSERT_EQ(packets.size(), 17U);
    for (const Row &row : read_rows("wire.txt", 4)) {
        const std::vector<Step> steps = {
            {"check-request", "check-answer"}, {row[1], row[2]}, {"terminate-request", "terminate-answer"}};
        BytePeer peer(packets, steps);
        const Finished finished = run(split_words(row[0], {ZYN_COMMAND, "-w", "30", "-p", peer.port()}));
        EXPECT_EQ(finished.output, row[3]);
        EXPECT_EQ(finished.exit, 0);
        const std::vector<std::string> &received = peer.finish();
        ASSERT_EQ(received.size(), steps.size());
        for (std::size_t i = 0; i < steps.size(); ++i)
            EXPECT_TRUE(received[i] == packets.at(steps[i].request)) << steps[i].request;
    }
}

TEST(Wire, BusyCheckEndsBeforeTheRequest) {
    const std::map<std::string, std::string> packets = read_packets();
    BytePeer peer(packets,
                  {{"check-request", "busy-check-answer"}, {"terminate-request", "terminate-answer"}});
    const Finished finished = run({ZYN_COMMAND, "--failover", "grp1", "-p", peer.port()});
    EXPECT_EQ(finished.output, "Connect 127.0.0.1: Failed \n");
    EXPECT_EQ(finished.exit, 0);
    EXPECT_EQ(peer.finish().at(1), "") << "nothing is sent to a server that is busy";
}

} // namespace
