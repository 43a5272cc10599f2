// The command line: one row a line of words, and what the record holds afterwards.
#include "rexec/option.h"
#include "support/capture.h"
#include "support/rows.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

using Record = std::unique_ptr<REXEC_INFO, decltype(&std::free)>;

int parse(const std::string &words, REXEC_INFO *info) {
    std::vector<std::string> texts = split_words(words, {"zynrexec"});
    std::vector<char *> argv;
    for (std::string &text : texts)
        argv.push_back(text.data());
    argv.push_back(nullptr);
    _rexec_logpath[0] = '\0';
    return rexec_ckopt(static_cast<int>(texts.size()), argv.data(), info);
}

Record make_record(int maxsrvnum) {
    Record info(static_cast<REXEC_INFO *>(std::calloc(1, rexec_info_size(maxsrvnum))), std::free);
    info->maxsrvnum = maxsrvnum;
    return info;
}

TEST(Option, LineIsAcceptedOrRefused) {
    for (const Row &row : read_rows("options.txt", 2)) {
        const Record info = make_record(32);
        EXPECT_EQ(parse(row[1], info.get()), std::stoi(row[0])) << row[1];
    }
}

TEST(Option, RecordHoldsTheRequest) {
    Record info = make_record(32);
    ASSERT_EQ(parse("--failover g -h 10.0.0.1,fe80::1 -p 0x10 -w 010 -o log", info.get()), 0);
    EXPECT_STREQ(info->reqcode, "zynexecgrpfo_ex");
    EXPECT_STREQ(info->target, "g");
    EXPECT_EQ(info->grpspecify, 1);
    EXPECT_EQ(info->ipnum, 2);
    EXPECT_STREQ(info->ipaddr[0], "10.0.0.1");
    EXPECT_STREQ(info->ipaddr[1], "fe80::1");
    EXPECT_EQ(info->portnumber, 16);
    EXPECT_EQ(info->cmdtimeout, 8);
    EXPECT_STREQ(_rexec_logpath, "log");

    info = make_record(32);
    ASSERT_EQ(parse("--clear -k cat.key", info.get()), 0);
    EXPECT_STREQ(info->reqcode, "zynexecclear");
    EXPECT_STREQ(info->target, "cat");
    EXPECT_STREQ(info->montarget, "key");
    EXPECT_EQ(info->monspecify, 0);
    EXPECT_STREQ(info->ipaddr[0], "127.0.0.1");
    EXPECT_EQ(info->ipnum, 1);
}

// A configured maximum that makes no sense still leaves room for the default address.
TEST(Option, MaximumOfZeroOrBelowTakesTheDefaultAddressOnly) {
    for (const int maximum : {0, -1, -2147483647}) {
        Record info = make_record(maximum);
        EXPECT_EQ(parse("--failover g", info.get()), 0);
        EXPECT_STREQ(info->ipaddr[0], "127.0.0.1");
        info = make_record(maximum);
        EXPECT_EQ(parse("--failover g -h 10.0.0.1", info.get()), 1);
    }
}

TEST(Option, TraceNamesWhatWasRead) {
    const TraceCapture trace;
    const Record info = make_record(32);
    ASSERT_EQ(parse("--notice -k cat.key -h 10.0.0.1 -o f", info.get()), 0);
    const std::vector<std::string> wanted = {"T --notice : -",       "T -o : f",
                                             "I logfile : f",        "I option  : zynexecnotice",
                                             "I mon_type  : cat",    "I mon_target  : key",
                                             "I port : 0",           "I wait : 0",
                                             "I ipaddr[0]: 10.0.0.1"};
    std::vector<std::string> seen;
    for (const std::string &line : trace.lines())
        if (line.find("<<<") == std::string::npos)
            seen.push_back(line);
    EXPECT_EQ(seen, wanted);
    parse("--script a/b", info.get());
    EXPECT_EQ(trace.count("E Invalid option."), 1) << "a second request in the same record";
    const Record other = make_record(1);
    parse("--script a/b", other.get());
    parse("-w 5", make_record(1).get());
    EXPECT_EQ(trace.count("E Invalid option.(--script:scriptname)"), 1);
    EXPECT_EQ(trace.count("E Invalid option. No reqcode."), 1);
}

} // namespace
