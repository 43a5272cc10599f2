// The client's life cycle and settings, against a store that holds what a row says.
#include "rexeccl.h"
#include "rexeccl/settings.h"
#include "support/capture.h"
#include "xmllib.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>

namespace {

std::map<std::string, std::string> values; // what the store answers; a missing key does not exist
std::vector<std::string> calls;            // loads and unloads, in order
std::string failing;                       // the call that fails

int record(const std::string &call) {
    calls.push_back(call);
    return call == failing ? XMLLIB_ERR_NOTEXIST : XMLLIB_OK;
}

} // namespace

int xmllib_load_policy(const char *type) {
    return record(std::string("load ") + type);
}
int xmllib_unload_policy(const char *type) {
    return record(std::string("unload ") + type);
}
int xmllib_load_config() {
    return record("load config");
}
int xmllib_unload_config() {
    return record("unload config");
}
int xmllib_load_pathconfig(const char *path, void **) {
    return record(std::string("load ") + path);
}
int xmllib_unload_pathconfig(void *) {
    return record("unload path");
}
clock_t xmllib_times(struct tms *) {
    return 1;
}
int xmllib_get_value(const char *path, int type, void *buffer, int *size) {
    const auto found = values.find(path);
    if (found == values.end())
        return XMLLIB_ERR_NOTEXIST;
    if (type == XMLLIB_TYPE_INT) {
        const int number = std::stoi(found->second);
        std::memcpy(buffer, &number, sizeof(number));
    } else {
        if (static_cast<int>(found->second.size()) >= *size)
            return XMLLIB_ERR_NOSIZE;
        std::memcpy(buffer, found->second.c_str(), found->second.size() + 1);
    }
    return XMLLIB_OK;
}

namespace {

const std::vector<std::string> all_calls = {"load all",      "load trnsv", "load rexec",   "load config",
                                            "unload config", "unload all", "unload trnsv", "unload rexec"};

void reset() {
    values.clear();
    calls.clear();
    failing.clear();
    _rexec_standalone = 0;
}

TEST(Settings, StandaloneTouchesNoStoreAndTakesDefaults) {
    reset();
    _rexec_standalone = 1;
    const TraceCapture trace;
    REXEC_INFO info = {};
    ASSERT_EQ(rexeccl_initialize(&info), 0);
    EXPECT_TRUE(calls.empty());
    EXPECT_EQ(trace.count("I port:29002, usedns:1"), 1);
    EXPECT_EQ(trace.count("I recv size:8192, send size:1024"), 1);
    EXPECT_EQ(trace.count("I max packet size:16384"), 1);
    EXPECT_EQ(trace.count("I connect retry:0, timeout:5"), 1);
    EXPECT_EQ(trace.count("I response retry:0, timeout:10"), 1);
    EXPECT_STREQ(_rexeccl_policy.type, "rexec");
    EXPECT_STREQ(_rexeccl_policy.version, "");
    EXPECT_STREQ(_rexeccl_allpol.instpath, "");
    EXPECT_EQ(rexeccl_terminate(), 0);
}

TEST(Settings, InstalledReadsEveryKeyAndUnloadsAgain) {
    reset();
    values = {{"/root/rexec/type", "mine"},
              {"/root/rexec/version", "1.2"},
              {"/root/rexec/log/level", "8"},
              {"/root/rexec/log/size", "5000"},
              {"/root/rexec/packet/recv", "11"},
              {"/root/rexec/packet/send", "12"},
              {"/root/rexec/packet/max", "13"},
              {"/root/rexec/communication/connect/retry", "14"},
              {"/root/rexec/communication/connect/timeout", "15"},
              {"/root/rexec/communication/response/retry", "16"},
              {"/root/rexec/communication/response/timeout", "17"},
              {"/root/rexec/usedns", "0"},
              {"/root/all/path", "/opt"},
              {"/root/all/edition", "E"},
              {"/root/all/version", "V"},
              {"/root/cluster/trns/port", "4000"}};
    const TraceCapture trace;
    REXEC_INFO info = {};
    ASSERT_EQ(rexeccl_initialize(&info), 0);
    EXPECT_EQ(calls, all_calls);
    EXPECT_EQ(trace.count("I port:4000, usedns:0"), 1);
    EXPECT_EQ(trace.count("I recv size:11, send size:12"), 1);
    EXPECT_EQ(trace.count("I max packet size:13"), 1);
    EXPECT_EQ(trace.count("I connect retry:14, timeout:15"), 1);
    EXPECT_EQ(trace.count("I response retry:16, timeout:17"), 1);
    EXPECT_STREQ(_rexeccl_policy.type, "mine");
    EXPECT_STREQ(_rexeccl_policy.version, "1.2");
    EXPECT_EQ(_rexeccl_policy.loglevel, 8);
    EXPECT_EQ(_rexeccl_policy.logsize, 5000);
    EXPECT_STREQ(_rexeccl_allpol.instpath, "/opt/");
    EXPECT_STREQ(_rexeccl_allpol.clsinfo.edition, "E");
    EXPECT_STREQ(_rexeccl_allpol.clsinfo.version, "V");
    EXPECT_EQ(rexeccl_terminate(), 0);
}

TEST(Settings, EachFailureAndItsFallback) {
    struct Row {
        const char *failing;
        std::int32_t port;
        std::map<std::string, std::string> values;
        std::int32_t ret;
        std::vector<std::string> calls;
        const char *traced;
    };
    const std::map<std::string, std::string> port = {{"/root/cluster/trns/port", "5"}};
    const std::vector<Row> rows = {
        {"", 0, port, 0, all_calls, "W xmllib_get_value() failed. (ret=0x4 key=/root/rexec/usedns size=4)"},
        {"", 7, {}, 0, all_calls, "I port:7, usedns:1"},
        {"",
         0,
         {},
         10,
         all_calls,
         "E xmllib_get_value() failed. (ret=0x4 key=/root/cluster/trns/port size=4)"},
        {"load config", 0, port, 0, all_calls, "E rexeccl_xml_loadconfig() failed. (ret=10)"},
        {"unload config", 0, port, 0, all_calls, "E rexeccl_xml_unloadconfig() failed. (ret=10)"},
        {"load all", 7, {}, 10, {"load all"}, "E rexeccl_xml_loadpolicy() failed. (ret=10 type=all)"},
        {"load rexec",
         7,
         {},
         10,
         {"load all", "load trnsv", "load rexec", "unload all", "unload trnsv"},
         "E xmllib_load_policy() failed. (ret=0x4 type=rexec)"},
    };
    for (const Row &row : rows) {
        reset();
        failing = row.failing;
        values = row.values;
        const TraceCapture trace;
        REXEC_INFO info = {};
        info.portnumber = row.port;
        EXPECT_EQ(rexeccl_initialize(&info), row.ret) << row.failing;
        EXPECT_EQ(calls, row.calls) << row.failing;
        EXPECT_EQ(trace.count(row.traced), 1) << row.traced << "\n" << trace.raw();
        if (row.ret == 0) {
            EXPECT_STREQ(_rexeccl_allpol.instpath, "/");
            EXPECT_EQ(rexeccl_terminate(), 0);
        }
        EXPECT_EQ(rexeccl_terminate(), 2) << row.failing;
    }
}

TEST(Settings, PolicyThatCannotBeUnloadedStaysListed) {
    reset();
    ASSERT_EQ(rexeccl_xml_loadpolicy("all"), 0);
    ASSERT_EQ(rexeccl_xml_loadpolicy("rexec"), 0);
    const TraceCapture trace;
    ASSERT_EQ(rexeccl_xml_loadpolicy("all"), 0);
    EXPECT_EQ(trace.count("W already loaded. (type=all ldtype=all)"), 1);
    failing = "unload all";
    EXPECT_EQ(rexeccl_xml_unloadpolicy("all"), 10);
    EXPECT_EQ(rexeccl_xml_unloadpolicy(nullptr), 10);
    failing.clear();
    calls.clear();
    EXPECT_EQ(rexeccl_xml_unloadpolicy(nullptr), 0);
    EXPECT_EQ(calls, std::vector<std::string>{"unload all"});
}

TEST(Settings, ReferencesAreCounted) {
    reset();
    _rexec_standalone = 1;
    REXEC_INFO info = {};
    const TraceCapture trace;
    EXPECT_EQ(rexeccl_terminate(), 2);
    EXPECT_EQ(rexeccl_initialize(&info), 0);
    EXPECT_EQ(rexeccl_initialize(&info), 0);
    EXPECT_EQ(trace.count("T initialized. (ref=1)"), 1);
    EXPECT_EQ(rexeccl_terminate(), 0);
    EXPECT_EQ(trace.count("I ref->1"), 1);
    EXPECT_EQ(rexeccl_terminate(), 0);
    EXPECT_EQ(trace.count("I no ref, will be term. (ref=1)"), 1);
    REXECCL_NODE_INFO node = {};
    REXECCL_CONNECTION_INFO connection = {};
    REXECCL_CONNECTION_INFO *handle = nullptr;
    EXPECT_EQ(rexeccl_connect_ex(&node, 1, &handle), 2);
    EXPECT_EQ(rexeccl_multi_execparam(&connection), 2);
    EXPECT_EQ(rexeccl_disconnect_ex(&connection, &node), 2);
}

} // namespace
