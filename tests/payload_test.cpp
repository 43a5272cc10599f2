// Filling the payloads, their byte order, and the bounds of what a peer claims.
#include "rexec/payload.h"
#include "support/capture.h"
#include "support/rows.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include <arpa/inet.h>

namespace {

constexpr int to_network = 257;
constexpr int from_network = 513;

std::int32_t big_endian(std::int32_t value) {
    return static_cast<std::int32_t>(htonl(static_cast<std::uint32_t>(value)));
}

// What the wire bytes of a whole run do not show: a script name of every length that fits a record.
TEST(Payload, ScriptNameNeverOverrunsItsField) {
    for (const std::size_t length : {0U, 1U, 255U, 256U, 1023U}) {
        const TraceCapture trace;
        REXEC_INFO info = {};
        std::memset(info.script, 's', length);
        struct {
            ZYNEXECSCRIPT_EX_IN_PARAM data = {};
            char behind = 'b';
        } at;
        rexec_fill_exscript(&info, &at.data);
        EXPECT_EQ(strnlen(at.data.script, 256), std::min<std::size_t>(length, 255));
        EXPECT_EQ(at.data.timeout, 0);
        EXPECT_EQ(at.behind, 'b');
        EXPECT_EQ(trace.count_starting("W"), length > 255 ? 1 : 0);
    }
}

TEST(Payload, LongestCategoryAndKeywordArrive) {
    REXEC_INFO info = {};
    std::memset(info.target, 'c', 127);
    std::memset(info.montarget, 'k', 1023);
    ZYNEXEC_EXNOTICE_IN_PARAM data = {};
    rexec_fill_clear(&info, &data);
    EXPECT_EQ(strnlen(data.type, 128), 127U);
    EXPECT_EQ(strnlen(data.target, 1024), 1023U);
    EXPECT_EQ(data.monname[0], '\0');
    EXPECT_EQ(data.monnum, 1);
}

TEST(Payload, NoticeTracesWhatItSelects) {
    const std::vector<Row> rows = {
        {"m", "", "1", "T monname=m"}, {"c", "k", "0", "T type=c, target=k"}, {"c", "", "0", "T type=c"}};
    for (const Row &row : rows) {
        const TraceCapture trace;
        REXEC_INFO info = {};
        std::strcpy(info.target, row[0].c_str());
        std::strcpy(info.montarget, row[1].c_str());
        info.monspecify = std::stoi(row[2]);
        ZYNEXEC_EXNOTICE_IN_PARAM data = {};
        rexec_fill_notice(&info, &data);
        EXPECT_EQ(trace.count(row[3]), 1) << row[3];
        EXPECT_EQ(data.monnum, 0);
    }
}

TEST(Payload, ConversionRefusesWhatItCannotHandle) {
    const TraceCapture trace;
    ZYNEXECGRPFO_EX_IN_PARAM data = {};
    data.timeout = 180;
    const ZYNEXECGRPFO_EX_IN_PARAM before = data;
    rexec_conv_byteorder_grpfo(from_network, &data, sizeof(data));
    rexec_conv_byteorder_exscript(258, &data, sizeof(data));
    rexec_conv_byteorder_notice(0, &data, sizeof(data));
    rexec_conv_byteorder_grpfo(to_network, &data, -1);
    rexec_conv_byteorder_grpfo(to_network, nullptr, 328);
    EXPECT_EQ(std::memcmp(&before, &data, sizeof(data)), 0);
    EXPECT_EQ(trace.count("E invalid div. (div=513)"), 1);
    EXPECT_EQ(trace.count("E invalid div. (div=258)"), 1);
    EXPECT_EQ(trace.count("E invalid div. (div=0)"), 1);
    EXPECT_EQ(trace.count("E invalid data. (data=0/328)"), 1);
    EXPECT_EQ(trace.count("T end-()"), 5);
}

struct Answer {
    explicit Answer(std::size_t size) : bytes(std::calloc(1, size), std::free) {}
    ZYNEXEC_EXNOTICE_OUT_PARAM *get() { return static_cast<ZYNEXEC_EXNOTICE_OUT_PARAM *>(bytes.get()); }
    std::unique_ptr<void, decltype(&std::free)> bytes;
};

TEST(Payload, MonitorCountIsBoundedByWhatArrived) {
    for (const Row &row : read_rows("monitor_counts.txt", 3)) {
        const TraceCapture trace;
        const auto size = static_cast<std::uint32_t>(std::stoul(row[1]));
        Answer answer(size);
        answer.get()->monnum = big_endian(std::stoi(row[0]));
        rexec_bound_monnum(answer.get(), size);
        EXPECT_EQ(answer.get()->monnum, big_endian(std::stoi(row[2]))) << row[0];
        const bool told = trace.raw().find("invalid monnum.") != std::string::npos;
        EXPECT_EQ(told, row[0] != row[2]);
    }
}

TEST(Payload, NoticeAnswerConvertsFiveIntegersOfEachMonitor) {
    Answer answer(264 + 2 * 312);
    answer.get()->monnum = big_endian(2);
    for (int i = 0; i < 2; ++i)
        answer.get()->mrwres[i] = {.name = {},
                                   .acttype = big_endian(1),
                                   .action = big_endian(2),
                                   .result = big_endian(3),
                                   .sresult = big_endian(4),
                                   .sreturn = big_endian(-5),
                                   .reserve1 = big_endian(6),
                                   .reserve = {}};
    rexec_conv_byteorder_notice(from_network, answer.get(), 264);
    ASSERT_EQ(answer.get()->monnum, 2);
    for (int i = 0; i < 2; ++i) {
        const TRNSV_MRW_OUT_INFO &monitor = answer.get()->mrwres[i];
        EXPECT_EQ(monitor.acttype, 1);
        EXPECT_EQ(monitor.action, 2);
        EXPECT_EQ(monitor.result, 3);
        EXPECT_EQ(monitor.sresult, 4);
        EXPECT_EQ(monitor.sreturn, -5);
        EXPECT_EQ(monitor.reserve1, big_endian(6));
    }
}

} // namespace
