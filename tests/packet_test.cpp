// Headers and byte order.
#include "rexeccl/packet.h"
#include "rexeccl/settings.h"
#include "support/capture.h"
#include "support/rows.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>

namespace {

// Every code there is: those of the table change just their integers, the others nothing.
TEST(Packet, ByteOrderOfEveryDispatchCode) {
    std::map<std::int32_t, Row> rows;
    for (const Row &row : read_rows("conversions.txt", 3))
        rows[std::stoi(row[0])] = row;
    for (std::int32_t code = -12; code <= 50; ++code) {
        const TraceCapture trace;
        unsigned char record[300];
        for (std::size_t i = 0; i < sizeof(record); ++i)
            record[i] = static_cast<unsigned char>(i);
        rexeccl_conv_byteorder(record, code);
        const Row wanted = rows.contains(code) ? rows[code] : Row(3);
        std::set<std::size_t> offsets;
        for (const std::string &offset : split_words(wanted[1]))
            offsets.insert(std::stoul(offset));
        for (std::size_t i = 0; i < sizeof(record); ++i) {
            const bool swapped = offsets.contains(i - i % 4);
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
        EXPECT_EQ(lines.size(), 2 * offsets.size()) << code;
        for (const std::string &text : split(wanted[2], ';'))
            EXPECT_GT(trace.count_starting("T " + text), 0) << text;
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

TEST(Packet, CheckOfAReceivedHeader) {
    std::memset(&_rexeccl_policy.version, 0, sizeof(_rexeccl_policy.version));
    std::strcpy(_rexeccl_policy.version, "1.0");
    for (const Row &row : read_rows("headers.txt", 5)) {
        const TraceCapture trace;
        TRANS_PACKET_HEADER_INFO header = {};
        row[0].copy(header.magicwd, sizeof(header.magicwd));
        row[1].copy(header.version, sizeof(header.version));
        std::memset(header.clsinfo.edition, 'E', 16);
        header.ncode = 37;
        header.seq = 1;
        header.size = static_cast<std::uint32_t>(std::stoul(row[2], nullptr, 0));
        EXPECT_EQ(rexeccl_chk_packet(&header), std::stoi(row[3])) << row[0];
        std::vector<std::string> lines = trace.lines();
        ASSERT_GE(lines.size(), 2U);
        lines.erase(lines.begin());
        if (lines.back().starts_with("T end - "))
            lines.pop_back();
        EXPECT_EQ(lines, split(row[4], ';')) << row[0];
    }
}

} // namespace
