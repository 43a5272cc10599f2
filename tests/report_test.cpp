// Every result line and closing message, letter for letter.
#include "rexec/output.h"
#include "rexec/report.h"
#include "support/capture.h"
#include "support/rows.h"

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

TEST(Report, ResultLineOfEveryStatus) {
    for (const Row &row : read_rows("result_lines.txt", 6)) {
        const TraceCapture trace;
        const StdoutCapture out;
        REXEC_INFO *info = request("zynexecnotice");
        info->grpspecify = info->monspecify = std::stoi(row[1]);
        const REXECCL_CONNECTION_INFO at = connection(std::stoi(row[0]));
        EXPECT_EQ(rexec_trnerrcmd(info, &at), std::stoi(row[2])) << row[0];
        EXPECT_EQ(out.text(), "MRW_NOTICE 10.0.0.1 : " + row[4] + "\n");
        EXPECT_EQ(trace.count(row[3]), 1) << row[3];
        EXPECT_EQ(trace.count("I not recv out_data((nil), size=0)"), 1);
    }
}

TEST(Report, ResultOfSeveralConnections) {
    for (const Row &row : read_rows("two_results.txt", 3)) {
        const StdoutCapture out;
        REXECCL_CONNECTION_INFO second = connection(std::stoi(row[1]));
        const REXECCL_CONNECTION_INFO first = connection(std::stoi(row[0]), &second);
        EXPECT_EQ(rexec_trnerrcmd(request("zynexecclear"), &first), std::stoi(row[2]))
            << row[0] << " " << row[1];
    }
}

TEST(Report, LabelsAndWords) {
    for (const Row &row : read_rows("labels.txt", 3)) {
        const TraceCapture trace;
        EXPECT_EQ(rexec_mkstr(row[0].c_str()), row[1]);
        EXPECT_EQ(rexec_mkstr_ex(row[0].c_str()), row[2]);
        EXPECT_EQ(trace.count("E invalid code(ZYNEXECCLEAR)"), row[1] == "??" ? 2 : 0);
    }
}

TEST(Report, LineOfANoticedMonitor) {
    const std::unique_ptr<void, decltype(&std::free)> bytes(std::calloc(1, 264 + 312), std::free);
    auto *answer = static_cast<ZYNEXEC_EXNOTICE_OUT_PARAM *>(bytes.get());
    answer->monnum = 1;
    TRNSV_MRW_OUT_INFO &monitor = answer->mrwres[0];
    std::memcpy(monitor.name, "0123456789abcdef0123456789abcdef", 32); // fills its width
    for (const Row &row : read_rows("monitor_lines.txt", 6)) {
        const StdoutCapture out;
        monitor.result = std::stoi(row[0]);
        monitor.sresult = std::stoi(row[1]);
        monitor.sreturn = std::stoi(row[2]);
        monitor.acttype = std::stoi(row[3]);
        monitor.action = std::stoi(row[4]);
        EXPECT_EQ(rexec_notice_errcmd(answer), 0);
        EXPECT_EQ(out.text(), "  0123456789abcdef0123456789abcdef\t: " + row[5] + "\n");
    }
    for (const auto &[result, text] : std::vector<std::pair<int, const char *>>{
             {0, "clear[Success]"}, {39, "clear[Failure]"}, {29, "clear[Unknown]"}}) {
        monitor.result = result;
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

TEST(Report, NodesAfterConnectingAndDisconnecting) {
    for (const Row &row : read_rows("nodes.txt", 5)) {
        const StdoutCapture out;
        REXECCL_NODE_INFO second = {};
        std::strcpy(second.szhost, "b");
        second.nstatus = std::stoi(row[1]);
        REXECCL_NODE_INFO first = {};
        std::strcpy(first.szhost, "a");
        first.nstatus = std::stoi(row[0]);
        first.next = &second;
        EXPECT_EQ(rexec_trnerrcon(&first), std::stoi(row[2]));
        EXPECT_EQ(out.text(), row[4]);
        EXPECT_EQ(rexec_trnerrdiscon(&first), std::stoi(row[3]));
        EXPECT_EQ(out.text(), row[4]);
    }
    EXPECT_EQ(rexec_trnerrdiscon(nullptr), 11);
}

TEST(Report, ClosingMessages) {
    for (const Row &row : read_rows("closing_messages.txt", 2)) {
        const StdoutCapture out;
        rexec_print_message(std::stoi(row[0]));
        EXPECT_EQ(out.text(), row[1]) << row[0];
    }
}

} // namespace
