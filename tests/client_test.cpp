// The transfer client against real peers: what each misbehaviour becomes, and that nothing is left.
#include "rexeccl.h"
#include "rexeccl/connect.h"
#include "rexeccl/exchange.h"
#include "rexeccl/settings.h"
#include "rexeccl/socket.h"
#include "rexeccl/transfer.h"
#include "support/capture.h"
#include "support/rehearsal_peer.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

#include <arpa/inet.h>
#include <dirent.h>
#include <netdb.h>

namespace {

using namespace std::chrono_literals;

// Entries of a directory of this process, such as its open descriptors or its threads.
int count_entries(const char *path) {
    DIR *dir = opendir(path);
    int count = 0;
    while (dir != nullptr && readdir(dir) != nullptr)
        ++count;
    closedir(dir);
    return count;
}

// What this process holds: nothing of a session may be left in it.
struct Held {
    void expect_again(const Peer &peer) const {
        EXPECT_TRUE(peer.recorder().wait_until_closed(10s));
        EXPECT_EQ(count_entries("/proc/self/fd"), descriptors);
        expect_threads_again();
    }
    // The kernel may show a thread for a moment after it has been joined.
    void expect_threads_again() const {
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        while (count_entries("/proc/self/task") > threads && std::chrono::steady_clock::now() < deadline)
            std::this_thread::yield();
        EXPECT_LE(count_entries("/proc/self/task"), threads);
    }
    int descriptors = count_entries("/proc/self/fd");
    int threads = count_entries("/proc/self/task");
};

struct Addresses {
    explicit Addresses(const std::vector<std::string> &texts) : bytes(texts.size() * TRANS_IP_LEN) {
        for (std::size_t i = 0; i < texts.size(); ++i)
            std::strcpy(&bytes[i * TRANS_IP_LEN], texts[i].c_str());
    }
    const char (*get() const)[TRANS_IP_LEN] {
        return reinterpret_cast<const char(*)[TRANS_IP_LEN]>(bytes.data());
    }
    std::vector<char> bytes;
};

using Nodes = std::unique_ptr<REXECCL_NODE_INFO, decltype(&std::free)>;

Nodes make_nodes(const std::vector<std::string> &texts) {
    const Addresses addresses(texts);
    const auto count = static_cast<std::int32_t>(texts.size());
    std::int32_t size = 0;
    EXPECT_EQ(rexeccl_createnodelist(count, nullptr, nullptr, &size), 0);
    Nodes nodes(static_cast<REXECCL_NODE_INFO *>(std::malloc(static_cast<std::size_t>(size))), std::free);
    EXPECT_EQ(rexeccl_createnodelist(count, nodes.get(), addresses.get(), &size), 0);
    return nodes;
}

class Client : public testing::Test {
protected:
    Client() {
        _rexec_standalone = 1;
        REXEC_INFO info = {};
        EXPECT_EQ(rexeccl_initialize(&info), 0);
        _rexeccl_policy.restimeout = 1;
        _rexeccl_policy.conntimeout = 1;
    }
    ~Client() override { EXPECT_EQ(rexeccl_terminate(), 0); }

    // Runs one request on every connection of the list.
    static std::int32_t request(REXECCL_CONNECTION_INFO *connections, std::vector<char> &payload,
                                std::int32_t restimeout = 1) {
        for (REXECCL_CONNECTION_INFO *at = connections; at != nullptr; at = at->next) {
            at->datainfo.execparam = {};
            std::strcpy(at->datainfo.execparam.id, "zynexecscript_ex");
            at->datainfo.execparam.limiter = 1;
            at->datainfo.execparam.restimeout = restimeout;
            at->datainfo.execparam.in_size = static_cast<std::uint32_t>(payload.size());
            at->datainfo.execparam.in_data = payload.empty() ? nullptr : payload.data();
        }
        return rexeccl_multi_execparam(connections);
    }
};

std::vector<char> script_payload() {
    std::vector<char> payload(520);
    std::strcpy(payload.data(), "run.sh");
    return payload;
}

TEST_F(Client, EachNodeTellsItsOwnOutcomeOfTheCheck) {
    const std::vector<Row> rows = read_rows("checks.txt", 4);
    const Peer peer(faulty_options(rows));
    const Held before;
    for (const Row &row : rows) {
        const Nodes nodes = make_nodes({row[0]});
        REXECCL_CONNECTION_INFO *handle = nullptr;
        EXPECT_EQ(rexeccl_connect_ex(nodes.get(), peer.port(), &handle), std::stoi(row[2])) << row[1];
        EXPECT_EQ(nodes->nstatus, std::stoi(row[3])) << row[1];
        EXPECT_EQ(handle != nullptr, row[2] == "0") << row[1];
        if (handle != nullptr) {
            EXPECT_EQ(rexeccl_disconnect_ex(handle, nodes.get()), 0);
        }
    }
    // All of them in one list: those that answered are connected, and only they.
    const Nodes nodes = make_nodes(peer.addresses());
    REXECCL_CONNECTION_INFO *handle = nullptr;
    EXPECT_EQ(rexeccl_connect_ex(nodes.get(), peer.port(), &handle), 7);
    const REXECCL_NODE_INFO *node = nodes.get();
    for (const Row &row : rows) {
        EXPECT_EQ(node->nstatus, std::stoi(row[3])) << row[1];
        node = node->next;
    }
    ASSERT_NE(handle, nullptr);
    EXPECT_STREQ(handle->connstr, "127.0.0.1");
    ASSERT_NE(handle->next, nullptr);
    EXPECT_STREQ(handle->next->connstr, "127.0.0.11");
    EXPECT_EQ(handle->next->next, nullptr);
    EXPECT_EQ(rexeccl_disconnect_ex(handle, make_nodes({"127.0.0.1"}).get()), 1)
        << "fewer nodes than connections";
    EXPECT_EQ(rexeccl_disconnect_ex(handle, nodes.get()), 0);
    before.expect_again(peer);
}

TEST_F(Client, EachConnectionTellsItsOwnOutcomeOfTheRequest) {
    const std::vector<Row> rows = read_rows("requests.txt", 4);
    const Peer peer(faulty_options(rows));
    const Held before;
    const Nodes nodes = make_nodes(peer.addresses());
    REXECCL_CONNECTION_INFO *handle = nullptr;
    ASSERT_EQ(rexeccl_connect_ex(nodes.get(), peer.port(), &handle), 0);
    std::vector<char> payload = script_payload();
    EXPECT_EQ(request(handle, payload, 3), 7);
    const REXECCL_CONNECTION_INFO *at = handle;
    for (const Row &row : rows) {
        EXPECT_EQ(at->status, std::stoi(row[2])) << row[1];
        EXPECT_EQ(at->datainfo.execparam.out_size, std::stoul(row[3])) << row[1];
        EXPECT_EQ(at->datainfo.execparam.out_data != nullptr, row[3] != "0") << row[1];
        std::free(at->datainfo.execparam.out_data);
        at = at->next;
    }
    rexeccl_disconnect_ex(handle, nodes.get());
    before.expect_again(peer);
}

// Answers that no named fault gives, and what a request without a payload looks like.
TEST_F(Client, AnswerWithoutDataAndRequestWithoutPayload) {
    rehearsal::Options options = peer_options();
    options.hook = [](const rehearsal::Exchange &exchange) -> std::optional<rehearsal::RawAnswer> {
        if (exchange.code != 34)
            return std::nullopt;
        std::string answer(76, '\0');
        std::memcpy(answer.data(), "trnsv", 5);
        answer[59] = 35;
        return rehearsal::RawAnswer{.bytes = {answer.begin(), answer.end()}};
    };
    const Peer peer(std::move(options));
    const Nodes nodes = make_nodes({"127.0.0.1"});
    REXECCL_CONNECTION_INFO *handle = nullptr;
    ASSERT_EQ(rexeccl_connect_ex(nodes.get(), peer.port(), &handle), 0);
    const TraceCapture trace;
    std::vector<char> payload = script_payload();
    EXPECT_EQ(request(handle, payload), 0);
    EXPECT_EQ(handle->status, 0);
    EXPECT_EQ(handle->datainfo.execparam.out_size, 0U);
    EXPECT_EQ(handle->datainfo.execparam.out_data, nullptr);
    EXPECT_EQ(trace.count("E no data. (host=127.0.0.1 size=0/0)"), 1);
    payload.clear();
    request(handle, payload);
    ASSERT_TRUE(peer.wait_for([](const auto &exchanges) { return exchanges.size() >= 3; }, 10s));
    EXPECT_EQ(peer.exchanges()[2].request_bytes.size(), 116U);
    rexeccl_disconnect_ex(handle, nodes.get());
}

// A node reached by its second address or, with name resolution on, by its name.
TEST_F(Client, AddressesAreTriedInOrderAndTheNameLast) {
    const Peer peer;
    REXECCL_NODE_LAN_INFO plan[2] = {};
    REXECCL_NODE_INFO node = {};
    node.plan = plan;
    node.nipnum = 2;
    for (const Row &row : read_rows("connects.txt", 7)) {
        const TraceCapture trace;
        std::strcpy(node.szhost, row[0].c_str());
        std::strcpy(plan[0].szip, row[1].c_str());
        std::strcpy(plan[1].szip, row[2].c_str());
        _rexeccl_policy.usedns = std::stoi(row[3]);
        std::int32_t sock = 0;
        char address[256];
        EXPECT_EQ(rexeccl_make_connection(&node, peer.port(), &sock, address, sizeof(address)),
                  std::stoi(row[4]))
            << row[0];
        EXPECT_EQ(address, row[5]);
        EXPECT_EQ(sock != -1, !row[5].empty());
        EXPECT_EQ(trace.count_starting("I connect->"), std::stoi(row[6]));
        if (sock != -1) {
            EXPECT_EQ(rexeccl_close_socket(sock), 0);
        }
    }
}

// A connect that hangs is given up at its time limit, tried again as configured, and leaves nothing.
TEST_F(Client, ConnectThatHangsIsAbandoned) {
    // A listener that accepts nothing drops what comes once its queue is full.
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&address), length), 0);
    ASSERT_EQ(listen(listener, 0), 0);
    getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length);
    std::vector<int> queued;
    for (int i = 0; i < 4; ++i) {
        queued.push_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
        (void)connect(queued.back(), reinterpret_cast<sockaddr *>(&address), length);
    }
    std::thread([] {}).join(); // a sanitizer starts a thread of its own with the first one
    const Held before;
    _rexeccl_policy.connretry = 1;
    const TraceCapture trace;
    const Nodes nodes = make_nodes({"127.0.0.1"});
    REXECCL_CONNECTION_INFO *handle = nullptr;
    EXPECT_EQ(rexeccl_connect_ex(nodes.get(), ntohs(address.sin_port), &handle), 4);
    EXPECT_EQ(nodes->nstatus, 7);
    EXPECT_EQ(trace.count("W connect retry over. (host=127.0.0.1 retry=1)"), 2) << "by address and by name";
    EXPECT_EQ(count_entries("/proc/self/fd"), before.descriptors + 1) << "but for the trace";
    before.expect_threads_again();
    EXPECT_EQ(trace.count_starting("I connect->"), 4);
    for (const int sock : queued)
        close(sock);
    close(listener);
}

// A port that does not fit 16 bits must never become another port.
TEST_F(Client, PortOutOfRangeConnectsNowhere) {
    const Peer peer;
    const Nodes nodes = make_nodes({"127.0.0.1"});
    for (const std::int32_t port : {peer.port() + 65536, peer.port() - 65536, 65536, 2147483647}) {
        const TraceCapture trace;
        REXECCL_CONNECTION_INFO *handle = nullptr;
        EXPECT_EQ(rexeccl_connect_ex(nodes.get(), port, &handle), 4) << port;
        EXPECT_NE(trace.raw().find("getaddrinfo(local) failed."), std::string::npos);
    }
    EXPECT_EQ(peer.recorder().accepted(), 0U);
}

// A node that bears this host's short name is reached over loopback, whatever address it is given.
TEST_F(Client, OwnHostNameMeansLoopback) {
    char name[256] = {};
    ASSERT_EQ(gethostname(name, sizeof(name) - 1), 0);
    name[std::strcspn(name, ".")] = '\0';
    const Peer peer;
    REXECCL_CNTD_PARAM_INFO param = {};
    std::snprintf(param.host, sizeof(param.host), "%s", name);
    std::strcpy(param.ip, "192.0.2.1");
    param.ai_flags = AI_NUMERICHOST;
    param.port = peer.port();
    const TraceCapture trace;
    EXPECT_EQ(rexeccl_create_socket(&param), 0);
    EXPECT_EQ(trace.count(std::string("I connect to local. (host=") + name + ")"), 1);
    rexeccl_close_socket(param.sock);
    std::strcpy(param.host, "another");
    param.ip[0] = '\0';
    EXPECT_EQ(rexeccl_create_socket(&param), 1);
    EXPECT_EQ(trace.count("W IP was null, skip."), 1);
}

TEST_F(Client, InvalidArgumentsAreRefused) {
    const TraceCapture trace;
    REXECCL_NODE_INFO node = {};
    REXECCL_CONNECTION_INFO connection = {};
    REXECCL_CONNECTION_INFO *handle = nullptr;
    EXPECT_EQ(rexeccl_connect_ex(nullptr, 1, &handle), 1);
    EXPECT_EQ(rexeccl_connect_ex(&node, 1, &handle), 1);
    EXPECT_EQ(trace.count("E invalid parameter. (host= ipnum=0)"), 1);
    std::strcpy(node.szhost, "h");
    EXPECT_EQ(rexeccl_connect_ex(&node, 1, nullptr), 1);
    EXPECT_EQ(trace.count("E invalid parameter. (phdl=(nil))"), 1);
    EXPECT_EQ(rexeccl_multi_execparam(nullptr), 1);
    EXPECT_EQ(rexeccl_execparam(nullptr), 1);
    EXPECT_EQ(rexeccl_disconnect_ex(nullptr, &node), 1);
    EXPECT_EQ(rexeccl_disconnect_ex(&connection, nullptr), 1);
    EXPECT_EQ(rexeccl_createnodelist(1, nullptr, nullptr, nullptr), 1);
}

} // namespace
