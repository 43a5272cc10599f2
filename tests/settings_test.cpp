// The client's life cycle and settings, against a store that holds what a row says.
#include "rexeccl.h"
#include "rexeccl/settings.h"
#include "support/capture.h"
#include "support/fake_log.h"
#include "support/rows.h"
#include "xmllib.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>

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

// What is traced of the settings, and those that are not traced.
std::vector<std::string> shown(const TraceCapture &trace) {
    std::vector<std::string> lines = trace.lines();
    for (const auto &[name, value] : {std::pair<const char *, std::string>{"type:", _rexeccl_policy.type},
                                      {"version:", _rexeccl_policy.version},
                                      {"level:", std::to_string(_rexeccl_policy.loglevel)},
                                      {"size:", std::to_string(_rexeccl_policy.logsize)},
                                      {"path:", _rexeccl_allpol.instpath},
                                      {"edition:", _rexeccl_allpol.clsinfo.edition},
                                      {"cluster version:", _rexeccl_allpol.clsinfo.version}})
        lines.push_back(name + value);
    return lines;
}

// In standalone mode the store is not touched and the defaults are taken; otherwise every key is read.
TEST(Settings, EveryKeyAndItsDefault) {
    const std::vector<Row> rows = read_rows("settings.txt", 4);
    for (const std::size_t standalone : {1U, 0U}) {
        reset();
        _rexec_standalone = static_cast<int>(standalone);
        for (const Row &row : rows)
            values[row[0]] = row[1];
        const TraceCapture trace;
        REXEC_INFO info = {};
        ASSERT_EQ(rexeccl_initialize(&info), 0);
        EXPECT_EQ(calls, standalone == 1 ? std::vector<std::string>{} : all_calls);
        const std::vector<std::string> lines = shown(trace);
        for (const Row &row : rows)
            EXPECT_EQ(std::count(lines.begin(), lines.end(), row[2 + standalone]), 1) << row[0];
        EXPECT_EQ(rexeccl_terminate(), 0);
    }
}

TEST(Settings, EachFailureAndItsFallback) {
    for (const Row &row : read_rows("settings_failures.txt", 6)) {
        reset();
        failing = row[0];
        if (!row[2].empty())
            values["/root/cluster/trns/port"] = row[2];
        const TraceCapture trace;
        REXEC_INFO info = {};
        info.portnumber = std::stoi(row[1]);
        EXPECT_EQ(rexeccl_initialize(&info), std::stoi(row[3])) << row[0];
        EXPECT_EQ(calls, row[4] == "all" ? all_calls : split(row[4], ',')) << row[0];
        EXPECT_EQ(trace.count(row[5]), 1) << row[5] << "\n" << trace.raw();
        if (row[3] == "0") {
            EXPECT_STREQ(_rexeccl_allpol.instpath, "/");
            EXPECT_EQ(rexeccl_terminate(), 0);
        }
        EXPECT_EQ(rexeccl_terminate(), 2) << row[0];
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
