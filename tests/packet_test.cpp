// Headers and byte order.
#include "rexeccl/packet.h"
#include "rexeccl/settings.h"
#include "support/capture.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>

namespace {

struct Conversion {
    std::int32_t dispatch;
    std::set<std::size_t> offsets; // of the integers that are converted
    std::vector<std::string> traced;
};

const std::vector<Conversion> conversions = {
    {-8,
     {56, 60, 64, 68, 72},
     {"TRANS_REQ_HEAD b:ncode=", "TRANS_REQ_HEAD a:ncode=", "TRANS_REQ_HEAD a:size="}},
    {-7,
     {56, 60, 64, 68, 72},
     {"TRANS_RES_HEAD b:status=", "TRANS_RES_HEAD a:allsize=", "TRANS_RES_HEAD b:seq="}},
    {-5, {0}, {"TRANS_RES_LAN_NODEINFO b:npriority="}},
    {-3, {256, 260}, {"TRANS_RES_NODEINFO b:npriority=", "TRANS_RES_NODEINFO a:nsize="}},
    {-1, {0}, {"TRANS_RES_INFO_NODE b:nnodenum="}},
    {3, {0, 4}, {"TRANS_RES_GET_NODENUM b:nnodenum=", "TRANS_RES_GET_NODENUM b:nipnum="}},
    {8, {64}, {"TRANS_REQ_GET_LOG_ARSIZE b:syslogrotatenum="}},
    {9, {0}, {"TRANS_RES_GET_ARSIZE b:arsize="}},
    {11, {0}, {"TRANS_RES_GET_ARSIZE a:arsize="}},
    {16, {32, 36}, {"TRANS_REQ_DELIVERY b:arsize=", "TRANS_REQ_DELIVERY b:size="}},
    {18, {32, 36}, {"TRANS_REQ_DELIVERY a:arsize=", "TRANS_REQ_DELIVERY a:size="}},
    {27, {0}, {"TRANS_RES_EXEC_COMMAND b:stat="}},
    {31, {0}, {"TRANS_RES_GET_SVRACTION b:action="}},
    {32, {32}, {"TRANS_REQ_GET_PARAM b:size="}},
    {33, {0, 4}, {"TRANS_RES_GET_PARAM b:rts=", "TRANS_RES_GET_PARAM b:size="}},
    {34, {32, 36}, {"TRANS_REQ_EXEC_PARAM b:size=", "TRANS_REQ_EXEC_PARAM a:limiter="}},
    {35, {0, 4}, {"TRANS_RES_EXEC_PARAM b:rts=", "TRANS_RES_EXEC_PARAM a:size="}},
};

// Every code there is: those of the table change just their integers, the others nothing.
TEST(Packet, ByteOrderOfEveryDispatchCode) {
    for (std::int32_t code = -12; code <= 50; ++code) {
        const TraceCapture trace;
        unsigned char record[300];
        for (std::size_t i = 0; i < sizeof(record); ++i)
            record[i] = static_cast<unsigned char>(i);
        rexeccl_conv_byteorder(record, code);
        const Conversion none = {code, {}, {}};
        const Conversion *wanted = &none;
        for (const Conversion &row : conversions)
            wanted = row.dispatch == code ? &row : wanted;
        for (std::size_t i = 0; i < sizeof(record); ++i) {
            const bool swapped = wanted->offsets.contains(i - i % 4);
            ASSERT_EQ(record[i], static_cast<unsigned char>(swapped ? i - i % 4 + 3 - i % 4 : i))
                << "code " << code << " byte " << i;
        }
        const std::vector<std::string> lines = trace.lines();
        if (code < -8 || code > 37) {
            char unknown[64];
            std::snprintf(unknown, sizeof(unknown), "E unknown dispatch. (dispatch=%#x)",
                          static_cast<unsigned>(code));
            EXPECT_EQ(lines, std::vector<std::string>{unknown});
            continue;
        }
        EXPECT_EQ(lines.size(), 2 * wanted->offsets.size()) << code;
        for (const std::string &text : wanted->traced)
            EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [&](const std::string &line) {
                return line.starts_with("T " + text);
            })) << text;
    }
}

TEST(Packet, RequestHeaderCarriesTheSettingsAndZeros) {
    std::strcpy(_rexeccl_policy.version, "4.2");
    std::strcpy(_rexeccl_allpol.clsinfo.edition, "X");
    std::memset(_rexeccl_allpol.clsinfo.version, 'v', 16); // fills its width
    TRANS_PACKET_HEADER_INFO header;
    std::memset(&header, 0xff, sizeof(header));
    rexeccl_make_packet_ex(&header, 34, 5, 6, 7, 8);
    std::string wanted = std::string("l_trnsv\0", 8) + "4.2" + std::string(13, '\0') + "X" +
                         std::string(15, '\0') + std::string(16, 'v');
    for (const std::int32_t number : {34, 5, 6, 7, 8})
        wanted.append(reinterpret_cast<const char *>(&number), 4);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(&header), sizeof(header)), wanted);
}

struct Header {
    const char *magic; // 8 characters at most; a full one has no NUL
    const char *version;
    std::uint32_t size;
    int ret;
    std::vector<std::string> traced;
};

TEST(Packet, CheckOfAReceivedHeader) {
    std::memset(&_rexeccl_policy.version, 0, sizeof(_rexeccl_policy.version));
    std::strcpy(_rexeccl_policy.version, "1.0");
    const std::vector<Header> rows = {
        {"trnsv", "1.0", 0, 0, {}},
        {"l_trnsv", "1.0", 500000, 0, {"I res from magicwd(l_trnsv)."}},
        {"w_trnsv", "9.9", 0, 0, {"I res from magicwd(w_trnsv)."}},
        {"trnsv", "2.0", 0, 0, {"W invalid version. (ver=2.0 res=37 seq=1)"}},
        {"trnsv", "0123456789abcdef", 0, 0, {"W invalid version. (ver=0123456789abcdef res=37 seq=1)"}},
        {"l_trnsv",
         "1.0",
         500001,
         10,
         {"I res from magicwd(l_trnsv).", "E invalid variable size. (size=500001 res=37 seq=1)"}},
        {"trnsv", "1.0", 0xffffffffU, 10, {"E invalid variable size. (size=-1 res=37 seq=1)"}},
        {"trnsvx",
         "1.0",
         0,
         10,
         {"I res from magicwd(trnsvx).", "E invalid magicwd. (magic=trnsvx res=37 seq=1)"}},
        {"l_trnsvX",
         "1.0",
         0,
         10,
         {"I res from magicwd(l_trnsvX).", "E invalid magicwd. (magic=l_trnsvX res=37 seq=1)"}},
        {"", "1.0", 0, 10, {"I res from magicwd().", "E invalid magicwd. (magic= res=37 seq=1)"}},
    };
    for (const Header &row : rows) {
        const TraceCapture trace;
        TRANS_PACKET_HEADER_INFO header = {};
        std::memcpy(header.magicwd, row.magic, strnlen(row.magic, 8));
        std::memcpy(header.version, row.version, strnlen(row.version, 16));
        std::memset(header.clsinfo.edition, 'E', 16);
        header.ncode = 37;
        header.seq = 1;
        header.size = row.size;
        EXPECT_EQ(rexeccl_chk_packet(&header), row.ret) << row.magic;
        std::vector<std::string> lines = trace.lines();
        ASSERT_GE(lines.size(), 2U);
        lines.erase(lines.begin());
        if (lines.back().starts_with("T end - "))
            lines.pop_back();
        EXPECT_EQ(lines, row.traced) << row.magic;
    }
}

} // namespace
