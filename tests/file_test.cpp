// Files of the store: search order, reference counts, attempts and reload. sleep() is counted, not slept.
#include "support/fake_log.h"
#include "support/folder.h"
#include "trace.h"
#include "xmlin/file.h"
#include "xmlin/query.h"
#include "xmllib.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

int slept = 0;
std::function<void()> while_asleep; // what another program does meanwhile

} // namespace

extern "C" unsigned __wrap_sleep(unsigned) {
    ++slept;
    if (while_asleep)
        while_asleep();
    return 0;
}

namespace {

std::string document(const std::string &value) {
    return "<root><a>" + value + "</a></root>";
}

class File : public testing::Test {
protected:
    File() {
        slept = 0;
        std::filesystem::create_directories(folder / "etc");
        std::snprintf(_xml_installpath, sizeof(_xml_installpath), "%s", folder.path.c_str());
        form_paths();
        traceopen("xml", 16, 0, nullptr);
    }
    ~File() override {
        traceclose();
        for (ZYNXML_XMLDOC &slot : _xmldocs)
            if (slot.doc != nullptr)
                xmlFreeDoc(slot.doc);
        internal_init();
    }
    void write(const std::string &name, const std::string &text) const {
        std::filesystem::create_directories(std::filesystem::path(folder / name).parent_path());
        folder.write(name, text);
    }
    static std::string value() {
        char buffer[64] = "";
        int size = sizeof(buffer);
        return get_value("/root/a", XMLLIB_TYPE_STRING, buffer, &size) == 0 ? buffer : "-";
    }
    const Folder folder;
};

TEST_F(File, PolicyIsFoundInTheOrderOfTheDirectories) {
    char path[XML_PATH_SIZE];
    EXPECT_EQ(get_policyfile("x", path, "C"), -1);
    EXPECT_STREQ(path, "");
    EXPECT_EQ(get_policyfile(nullptr, path, "C"), -1);
    EXPECT_EQ(count_traced_starting("16|   candidate file is "), 12);
    // Each new file comes before those that are there already.
    for (const char *file :
         {"policy/forcestop/x.pol", "policy/networkpartition/x.pol", "policy/heartbeat/x.pol",
          "policy/monitor/x.pol", "policy/resource/x.pol", "policy/x.pol", "policy.C/forcestop/x.pol",
          "policy.C/networkpartition/x.pol", "policy.C/heartbeat/x.pol", "policy.C/monitor/x.pol",
          "policy.C/resource/x.pol", "policy.C/x.pol"}) {
        write(std::string("etc/") + file, document("p"));
        EXPECT_EQ(get_policyfile("x", path, "C"), 0);
        EXPECT_EQ(path, folder / "etc/" + file);
    }
    EXPECT_EQ(get_policyfile("x", path, "ASCII"), 0);
    EXPECT_EQ(path, folder / "etc/policy/x.pol");
}

TEST_F(File, UsesAreCounted) {
    write("etc/policy/x.pol", document("policy"));
    write("etc/zyn.conf", document("conf"));
    EXPECT_EQ(load_policy("x", ""), 0);
    EXPECT_EQ(load_policy("x", ""), 0);
    EXPECT_EQ(count_traced("8|   \"x\" policy already loaded. count = 2."), 1);
    EXPECT_EQ(value(), "policy");
    EXPECT_EQ(load_config(nullptr, nullptr), 0);
    EXPECT_EQ(load_config(nullptr, nullptr), 0);
    EXPECT_EQ(value(), "conf");
    EXPECT_EQ(unload_config(nullptr), 0);
    EXPECT_EQ(value(), "conf");
    EXPECT_EQ(unload_config(nullptr), 0);
    EXPECT_EQ(unload_config(nullptr), XMLLIB_ERR_NOTLOAD);
    EXPECT_EQ(value(), "policy");
    EXPECT_EQ(unload_policy("x"), 0);
    EXPECT_EQ(unload_policy("x"), 0);
    EXPECT_EQ(unload_policy("x"), XMLLIB_ERR_NOTLOAD);
    EXPECT_FALSE(check_load());
    EXPECT_EQ(slept, 0);
}

TEST_F(File, PathConfigurationsAreCurrentInTurn) {
    write("etc/zyn.conf", document("conf"));
    const std::string one = folder.write("one", document("one"));
    ZYNXML_XMLDOC *first = nullptr, *second = nullptr;
    EXPECT_EQ(set_current(nullptr), XMLLIB_ERR_NOTLOAD);
    EXPECT_EQ(load_config(nullptr, nullptr), 0);
    EXPECT_EQ(load_config(one.c_str(), &first), 0);
    EXPECT_EQ(load_config(one.c_str(), &second), 0);
    EXPECT_NE(first, second);
    EXPECT_EQ(second->current, 1);
    EXPECT_EQ(value(), "one");
    EXPECT_EQ(set_current(nullptr), 0);
    EXPECT_EQ(value(), "conf");
    EXPECT_EQ(set_current(first), 0);
    EXPECT_EQ(value(), "one");
    EXPECT_EQ(unload_config(first), 0);
    EXPECT_EQ(value(), "conf");
    EXPECT_EQ(unload_config(second), 0);
    // A handle that has been unloaded changes nothing more, and answers nothing.
    EXPECT_EQ(unload_config(second), 0);
    EXPECT_EQ(value(), "conf");
    EXPECT_EQ(set_current(second), 0);
    EXPECT_EQ(value(), "-");
    second->current = 0;
}

// A file that was replaced while it was parsed is parsed again, and what comes later is seen.
TEST_F(File, FileReplacedWhileItIsParsed) {
    write("etc/zyn.conf", "<root>");
    int size = 0;
    while_asleep = [&] {
        write("etc/zyn.conf", document(std::string(static_cast<std::size_t>(++size), 'x')));
    };
    EXPECT_EQ(load_config(nullptr, nullptr), 0);
    while_asleep = nullptr;
    write("etc/zyn.conf", document("last"));
    EXPECT_EQ(reload_config(), 0);
    EXPECT_EQ(value(), "last");
}

TEST_F(File, AttemptsAndTheirCodes) {
    EXPECT_EQ(load_policy("none", ""), XMLLIB_ERR_NOTEXIST);
    EXPECT_EQ(load_policy(nullptr, ""), XMLLIB_ERR_INVALIDARG);
    EXPECT_EQ(slept, 0);
    EXPECT_EQ(load_config(nullptr, nullptr), XMLLIB_ERR_INVALIDPATH) << "the directory is there";
    EXPECT_EQ(slept, 3);
    write("etc/policy/bad.pol", "<root><a>");
    EXPECT_EQ(load_policy("bad", ""), XMLLIB_ERR_DOCUMENT);
    EXPECT_EQ(slept, 6);
    EXPECT_GT(count_traced_starting("1| xmlerr=\""), 0) << "libxml2's own message";
    EXPECT_EQ(load_config((folder / "no/such/file").c_str(), nullptr), XMLLIB_ERR_INVALIDPATH);
    EXPECT_EQ(slept, 9);
    ASSERT_EQ(mkfifo((folder / "fifo").c_str(), 0600), 0);
    std::filesystem::resize_file(folder.write("huge", ""), 1ULL << 30);
    for (const char *other : {"fifo", "huge", "etc"})
        EXPECT_EQ(load_config((folder / other).c_str(), nullptr), XMLLIB_ERR_INVALIDPATH) << other;
    EXPECT_EQ(slept, 18);
    std::filesystem::remove_all(folder / "etc");
    EXPECT_EQ(load_config(nullptr, nullptr), XMLLIB_ERR_INVALIDPATH) << "nothing is installed";
    EXPECT_EQ(slept, 18);
    EXPECT_FALSE(check_load());
    // A file that is whole again by the next attempt.
    write("etc/zyn.conf", "<root>");
    while_asleep = [this] { write("etc/zyn.conf", document("whole")); };
    EXPECT_EQ(load_config(nullptr, nullptr), 0);
    EXPECT_EQ(value(), "whole");
    EXPECT_EQ(slept, 19);
    while_asleep = nullptr;
}

TEST_F(File, ReloadSeesAnotherSizeAndKeepsTheOldOnFailure) {
    write("etc/zyn.conf", document("old"));
    EXPECT_EQ(reload_config(), 0) << "loads what is not loaded";
    EXPECT_EQ(reload_config(), 0);
    EXPECT_GT(count_traced_starting("8|   default config is not updated. size=23 "), 0);
    write("etc/zyn.conf", document("newer"));
    EXPECT_EQ(reload_config(), 0);
    EXPECT_EQ(value(), "newer");
    write("etc/zyn.conf", "<root>");
    EXPECT_EQ(reload_config(), XMLLIB_ERR_INVALIDPATH);
    EXPECT_EQ(value(), "newer");
    std::filesystem::remove(folder / "etc/zyn.conf");
    EXPECT_EQ(reload_config(), XMLLIB_ERR_INVALIDPATH);
    EXPECT_EQ(value(), "newer");
    EXPECT_EQ(default_config()->count, 1);
}

// Nothing of another file comes in by an entity, and a bomb of entities is a failure like any other.
TEST_F(File, EntitiesStayWhereTheyAre) {
    folder.write("secret", "secret");
    write("etc/zyn.conf",
          "<!DOCTYPE root [<!ENTITY e SYSTEM '" + (folder / "secret") + "'>]><root><a>&e;</a></root>");
    EXPECT_EQ(load_config(nullptr, nullptr), 0);
    EXPECT_NE(value(), "secret");
    std::string bomb = "<!DOCTYPE root [<!ENTITY e0 'boom'>";
    for (int i = 1; i < 30; ++i)
        bomb += "<!ENTITY e" + std::to_string(i) + " '&e" + std::to_string(i - 1) + ";&e" +
                std::to_string(i - 1) + ";'>";
    const std::string file = folder.write("bomb", bomb + "]><root><a>&e29;</a></root>");
    EXPECT_EQ(load_config(file.c_str(), nullptr), XMLLIB_ERR_INVALIDPATH);
}

TEST_F(File, FullTableRefuses) {
    write("etc/zyn.conf", document("conf"));
    write("etc/policy/x.pol", document("policy"));
    const std::string one = folder.write("one", document("one"));
    for (std::size_t i = 0; i < XMLDOC_MAX; ++i)
        ASSERT_EQ(load_config(one.c_str(), nullptr), 0);
    EXPECT_EQ(load_config(one.c_str(), nullptr), XMLLIB_ERR_INVALIDARG);
    EXPECT_EQ(load_config(nullptr, nullptr), XMLLIB_ERR_INVALIDARG);
    EXPECT_EQ(load_policy("x", ""), XMLLIB_ERR_INVALIDARG);
    EXPECT_EQ(count_traced("1|   max loaded."), 3);
}

} // namespace
