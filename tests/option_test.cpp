// The command line: one row a line of words, and what the record holds afterwards.
#include "rexec/option.h"
#include "support/capture.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

using Record = std::unique_ptr<REXEC_INFO, decltype(&std::free)>;

// Parses words parted by blanks; "~" stands for an empty word.
int parse(const std::string &words, REXEC_INFO *info) {
    std::vector<std::string> texts = {"zynrexec"};
    std::string word;
    for (const char c : words + " ") {
        if (c != ' ') {
            word += c;
        } else if (!word.empty()) {
            texts.push_back(word == "~" ? "" : word);
            word.clear();
        }
    }
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

std::string repeat(const char *text, int count) {
    std::string result;
    for (int i = 0; i < count; ++i)
        result += text;
    return result;
}

struct Row {
    std::string words;
    int ret;
};

const std::string x31 = repeat("x", 31);
const std::string x32 = repeat("x", 32);

TEST(Option, LineIsAcceptedOrRefused) {
    const std::vector<Row> rows = {
        {"--failover g", 0},
        {"--FAILOVER g -H 10.0.0.1", 0},
        {"--failover -r rsc1 -h 10.0.0.1", 0},
        {"--failover " + x31, 0},
        {"--failover " + x32, 1},
        {"--failover", 1},
        {"--failover g -r r", 1},
        {"--failover g -k c", 1},
        {"--failover -k c", 1},
        {"--failover g --failover g", 1},
        {"--failover g --clear", 1},
        {"--failove g", 1},
        {"--failover g stray", 1},
        {"--failover -r " + x31, 0},
        {"--failover -r " + x32, 1},
        {"--failover -r a -r b", 1},
        {"--failover -r", 1},
        {"--failover -r a -k b", 1},
        {"--script run.sh", 0},
        {"--script " + repeat("s", 1023), 0},
        {"--script " + repeat("s", 1024), 1},
        {"--script dir/run.sh", 1},
        {"--script", 1},
        {"--script -h 10.0.0.1", 1},
        {"--script run.sh -r x", 1},
        {"--script run.sh -k x", 1},
        {"--notice mon1", 0},
        {"--notice mon1 -k cat", 1},
        {"--notice -k cat.key -h 10.0.0.1", 0},
        {"--notice", 1},
        {"--notice mon1 -r r", 1},
        {"--clear mon1", 0},
        {"--clear -k cat", 0},
        {"--clear -k a.b.c", 1},
        {"--clear -k .key", 0},
        {"--clear -k " + repeat("c", 127), 0},
        {"--clear -k " + repeat("c", 128), 1},
        {"--clear -k " + repeat("c", 127) + "." + repeat("k", 1023), 0},
        {"--clear -k c." + repeat("k", 1024), 1},
        {"--clear -k a -k b", 1},
        {"--failover g -h 10.0.0.1,,10.0.0.2", 1},
        {"--failover g -h 10.0.0.1,", 1},
        {"--failover g -h ,10.0.0.1", 1},
        {"--failover g -h ~", 1},
        {"--failover g -h -x", 1},
        {"--failover g -h a -h b", 1},
        {"--failover g -h", 1},
        {"--failover g -h " + repeat("a", 45), 0},
        {"--failover g -h " + repeat("a", 46), 1},
        {"--failover g -h a" + repeat(",a", 31), 0},
        {"--failover g -h a" + repeat(",a", 32), 1},
        {"--failover g -p 0x10 -w 010", 0},
        {"--failover g -p 1 -p 2", 1},
        {"--failover g -w 1 -w 2", 1},
        {"--failover g -o a -o b", 1},
        {"--failover g -w 5s", 1},
        {"--failover g -w 2147483647", 0},
        {"--failover g -w 2147483648", 1},
        {"--failover g -w 00000000005", 1},
        {"--failover g -w ~ -p ~", 0},
        {"--failover g -p -1", 1},
        {"--failover g -o " + repeat("o", 1023), 0},
        {"--failover g -o " + repeat("o", 1024), 1},
        {"-h 10.0.0.1", 1},
        {"", 1},
        {"--help", 100},
        {"--failover g -h a --help --nonsense", 100},
        {"--nonsense --help", 1},
    };
    for (const Row &row : rows) {
        const Record info = make_record(32);
        EXPECT_EQ(parse(row.words, info.get()), row.ret) << row.words;
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
