// Every result line and closing message, letter for letter.
#include "rexec/output.h"
#include "rexec/report.h"
#include "support/capture.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

#include <fcntl.h>

namespace {

REXEC_INFO *request(const char *reqcode) {
    static REXEC_INFO info;
    info = {};
    std::strcpy(info.reqcode, reqcode);
    std::strcpy(info.target, "tgt");
    std::strcpy(info.montarget, "kw");
    std::strcpy(info.script, "run.sh");
    return &info;
}

REXECCL_CONNECTION_INFO connection(std::int32_t status, REXECCL_CONNECTION_INFO *next = nullptr) {
    REXECCL_CONNECTION_INFO at = {};
    std::strcpy(at.connstr, "10.0.0.1");
    at.status = status;
    at.next = next;
    return at;
}

struct StatusRow {
    std::int32_t status;
    bool named; // a group or monitor name was given
    const char *traced;
    const char *rest; // of the line, behind "MRW_NOTICE 10.0.0.1 : "
    int ret;
};

TEST(Report, ResultLineOfEveryStatus) {
    const std::vector<StatusRow> rows = {
        {0, false, "I execparam success.(10.0.0.1)", "Success \n", 0},
        {1, false, "I execparam success.(10.0.0.1)", "Success \n", 0},
        {2, false, "E RequestID not exist.(10.0.0.1)", "Invalid option. \n", 1},
        {22, true, "E grp is not active(10.0.0.1).", "Group(tgt) is offline. \n", 22},
        {22, false, "E grp is not active(10.0.0.1).",
         "Group that specified resource(tgt) belongs to is offline. \n", 22},
        {24, true, "E Specified rsc is not exist.", "Specified resource(tgt) does not exist. \n", 22},
        {24, false, "E Specified rsc is not exist.",
         "Specified resource(Category:tgt, Keyword:kw) does not exist. \n", 22},
        {25, false, "E Specified Script not exist.(10.0.0.1)", "Specified script(run.sh) does not exist. \n",
         22},
        {26, false, "E Specified script is not executable.(10.0.0.1)",
         "Specified script(run.sh) is not executable. \n", 22},
        {28, false, "E No permition.(10.0.0.1)", "This server is not permitted to execute zynrexec. \n", 22},
        {29, false, "E request failed in execute.", "Notice failed in execute. \n", 22},
        {31, false, "E Specified grp is not exist.", "Specified group(tgt) does not exist. \n", 22},
        {9, false, "E sv0=10.0.0.1 status=0x9", "Busy.\n", 12},
        {15, false, "E sv0=10.0.0.1 status=0xf", "Not exist file.\n", 12},
        {16, false, "E sv0=10.0.0.1 status=0x10", "No free space.\n", 12},
        {27, false, "E sv0=10.0.0.1 status=0x1b", "Timeout.\n", 12},
        {8, false, "E sv0=10.0.0.1 status=0x8", "Failed.\n", 12},
        {-1, false, "E sv0=10.0.0.1 status=0xffffffff", "Failed.\n", 12},
        {4711, false, "E sv0=10.0.0.1 status=0x1267", "Failed.\n", 12},
    };
    for (const StatusRow &row : rows) {
        const TraceCapture trace;
        const StdoutCapture out;
        REXEC_INFO *info = request("zynexecnotice");
        info->grpspecify = info->monspecify = row.named ? 1 : 0;
        const REXECCL_CONNECTION_INFO at = connection(row.status);
        EXPECT_EQ(rexec_trnerrcmd(info, &at), row.ret) << row.status;
        EXPECT_EQ(out.text(), std::string("MRW_NOTICE 10.0.0.1 : ") + row.rest);
        EXPECT_EQ(trace.count(row.traced), 1) << row.traced;
        EXPECT_EQ(trace.count("I not recv out_data((nil), size=0)"), 1);
    }
}

TEST(Report, ResultOfSeveralConnections) {
    struct Row {
        int first, second, ret;
    };
    for (const Row &row : {Row{9, 9, 12}, Row{9, 22, 22}, Row{9, 2, 22}, Row{2, 2, 1}, Row{22, 31, 22},
                           Row{0, 9, 0}, Row{9, 0, 0}, Row{2, 0, 0}}) {
        const StdoutCapture out;
        REXECCL_CONNECTION_INFO second = connection(row.second);
        const REXECCL_CONNECTION_INFO first = connection(row.first, &second);
        EXPECT_EQ(rexec_trnerrcmd(request("zynexecclear"), &first), row.ret)
            << row.first << " " << row.second;
    }
}

TEST(Report, LabelsAndWords) {
    struct Row {
        const char *reqcode, *label, *word;
    };
    for (const Row &row :
         {Row{"zynexecgrpfo_ex", "GRP_FAILOVER", "Failover"},
          Row{"zynexecscript_ex", "EXEC_SCRIPT", "Script"}, Row{"zynexecnotice", "MRW_NOTICE", "Notice"},
          Row{"zynexecclear", "MRW_CLEAR", "Clear"}, Row{"ZYNEXECCLEAR", "??", "??"}}) {
        const TraceCapture trace;
        EXPECT_STREQ(rexec_mkstr(row.reqcode), row.label);
        EXPECT_STREQ(rexec_mkstr_ex(row.reqcode), row.word);
        EXPECT_EQ(trace.count("E invalid code(ZYNEXECCLEAR)"), row.label[0] == '?' ? 2 : 0);
    }
}

struct MonitorRow {
    std::int32_t result, sresult, sreturn, acttype, action;
    const char *text;
};

TEST(Report, LineOfANoticedMonitor) {
    std::vector<MonitorRow> rows = {
        {35, 0, 0, 0, 0, "monitor not active, do not action"},
        {36, 0, 0, 0, 0, "already error status, do not action"},
        {6, 0, 0, 0, 0, "invalid config"},
        {0, 0, 0, 1, 0, "preaction script[Executed(exitcode=0)], Failover[Success]"},
        {29, 0, -1, 0, 0, "preaction script[Executed(exitcode=-1)], Restart[Failure]"},
        {32, 25, 0, 3, 0, "preaction script[File not exists], Recovery Script[Failure in several servers]"},
        {33, 26, 0, 4, 0, "preaction script[Permission denied], Unknown action[Doing]"},
        {37, 29, 0, -1, 0, "preaction script[Cannot Executed], Unknown action[Timeout]"},
        {99, 37, 0, 2, 1, "preaction script[Timeout], Do nothing[Not Executed(Recovery Action Disabled)]"},
        {7, 99, 0, 2, 2, "preaction script[Not Executed(Recovery Action Disabled)], Stop group[Unknown]"},
        {0, 1, 0, 2, 3, "preaction script[Unknown], Stop the cluster[Success]"},
    };
    const std::vector<std::pair<int, const char *>> actions = {{0, "Unknown action"},
                                                               {4, "Stop the system"},
                                                               {5, "Reboot the system"},
                                                               {6, "Unknown action"},
                                                               {7, "Unknown action"},
                                                               {8, "Panic by sysrq"},
                                                               {9, "Reset by keepalive driver"},
                                                               {10, "Panic by keepalive driver"},
                                                               {11, "Reset by BMC"},
                                                               {12, "Power down by BMC"},
                                                               {13, "Power cycle by BMC"},
                                                               {14, "NMI sent by BMC"},
                                                               {15, "I/O Fencing"},
                                                               {16, "Stop resource"},
                                                               {17, "Unknown action"}};
    const std::size_t size = 264 + 312;
    const std::unique_ptr<void, decltype(&std::free)> bytes(std::calloc(1, size), std::free);
    auto *answer = static_cast<ZYNEXEC_EXNOTICE_OUT_PARAM *>(bytes.get());
    answer->monnum = 1;
    const auto told = [&](const MonitorRow &row) {
        const StdoutCapture out;
        TRNSV_MRW_OUT_INFO &monitor = answer->mrwres[0];
        std::memcpy(monitor.name, "0123456789abcdef0123456789abcdef", 32); // fills its width
        monitor.result = row.result;
        monitor.sresult = row.sresult;
        monitor.sreturn = row.sreturn;
        monitor.acttype = row.acttype;
        monitor.action = row.action;
        EXPECT_EQ(rexec_notice_errcmd(answer), 0);
        return out.text();
    };
    for (const MonitorRow &row : rows)
        EXPECT_EQ(told(row), std::string("  0123456789abcdef0123456789abcdef\t: ") + row.text + "\n");
    for (const auto &[action, text] : actions)
        EXPECT_EQ(told({0, 38, 0, 2, action, ""}),
                  std::string("  0123456789abcdef0123456789abcdef\t: ") + text + "[Success]\n");
    for (const auto &[result, text] : std::vector<std::pair<int, const char *>>{
             {0, "clear[Success]"}, {39, "clear[Failure]"}, {29, "clear[Unknown]"}}) {
        answer->mrwres[0].result = result;
        const StdoutCapture out;
        EXPECT_EQ(rexec_clear_errcmd(answer), 0);
        EXPECT_EQ(out.text(), std::string("  0123456789abcdef0123456789abcdef\t: ") + text + "\n");
    }
}

// What another program made of the descriptor: a pipe that does not block and is read slowly.
TEST(Report, NonBlockingPipeLosesNothing) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    fcntl(ends[0], F_SETFL, 0);
    fcntl(ends[1], F_SETPIPE_SZ, 4096);
    std::string received;
    std::thread reader([&] {
        char block[512];
        for (ssize_t got = 0; (got = read(ends[0], block, sizeof(block))) > 0;)
            received.append(block, static_cast<std::size_t>(got));
    });
    const int before = dup(STDOUT_FILENO);
    dup2(ends[1], STDOUT_FILENO);
    std::string wanted;
    for (int i = 0; i < 2000; ++i) {
        rexec_print_message(1);
        wanted += "Invalid option.\n";
    }
    Output().print("%s", std::string(4000, 'x').c_str());
    dup2(before, STDOUT_FILENO);
    close(before);
    close(ends[1]);
    reader.join();
    close(ends[0]);
    EXPECT_TRUE(received == wanted + std::string(4000, 'x')) << received.size();
}

// A name from a peer must neither forge a line nor reach the terminal's controls.
TEST(Report, ControlCharactersOfANameAreShownAsQuestionMarks) {
    const std::unique_ptr<void, decltype(&std::free)> bytes(std::calloc(1, 264 + 312), std::free);
    auto *answer = static_cast<ZYNEXEC_EXNOTICE_OUT_PARAM *>(bytes.get());
    answer->monnum = 1;
    std::strcpy(answer->mrwres[0].name, "m\n\x1b[2J\x7f\xc3\xa9");
    const StdoutCapture out;
    rexec_clear_errcmd(answer);
    EXPECT_EQ(out.text(), "  m??[2J?\xc3\xa9\t: clear[Success]\n");
}

TEST(Report, NoDataIsTold) {
    const TraceCapture trace;
    const StdoutCapture out;
    EXPECT_EQ(rexec_exscript_errcmd(nullptr), 22);
    EXPECT_EQ(rexec_notice_errcmd(nullptr), 22);
    EXPECT_EQ(rexec_clear_errcmd(nullptr), 22);
    EXPECT_EQ(trace.count("I not receive out_data"), 3);
    EXPECT_EQ(out.text(), "");
}

struct NodeRow {
    int first, second, connected, disconnected;
    const char *printed;
};

TEST(Report, NodesAfterConnectingAndDisconnecting) {
    const std::vector<NodeRow> rows = {
        {0, 1, 0, 0, ""},
        {9, 0, 0, 0, ""},
        {9, 9, 21, 11, "All server is busy. Check if this command is already run.\n"},
        {28, 0, 0, 0, "Connect a : This server is not permitted to execute zynrexec. \n"},
        {7, 8, 10, 11, "Connect a : Failed \nConnect b : Failed \n"},
        {9, 7, 10, 11, "Connect b : Failed \n"},
    };
    for (const NodeRow &row : rows) {
        const StdoutCapture out;
        REXECCL_NODE_INFO second = {};
        std::strcpy(second.szhost, "b");
        second.nstatus = row.second;
        REXECCL_NODE_INFO first = {};
        std::strcpy(first.szhost, "a");
        first.nstatus = row.first;
        first.next = &second;
        EXPECT_EQ(rexec_trnerrcon(&first), row.connected);
        EXPECT_EQ(out.text(), row.printed);
        EXPECT_EQ(rexec_trnerrdiscon(&first), row.disconnected);
        EXPECT_EQ(out.text(), row.printed);
    }
    EXPECT_EQ(rexec_trnerrdiscon(nullptr), 11);
}

TEST(Report, ClosingMessages) {
    const std::string internal = "Internal error. Check if memory or OS resource is sufficient.\n";
    const std::vector<std::pair<int, std::string>> rows = {
        {0, ""},
        {22, ""},
        {1, "Invalid option.\n"},
        {2, "Log in as root.\n"},
        {9, "Could not connect to the data transfer server.\nCheck if the server has started up.\n"},
        {10, "Could not connect to all data transfer servers.\nCheck if the servers have started up.\n"},
        {20, "Command timeout.\n"},
        {21, "All servers are busy. Check if this command is already run.\n"},
        {5, internal},
        {99, internal},
        {-1, internal},
    };
    for (const auto &[code, text] : rows) {
        const StdoutCapture out;
        rexec_print_message(code);
        EXPECT_EQ(out.text(), text) << code;
    }
}

} // namespace
