// Files of the store: search order, reference counts, attempts and reload. sleep() is counted, not slept.
#include "support/fake_log.h"
#include "support/folder.h"
#include "support/rows.h"
#include "trace.h"
#include "xmlin/file.h"
#include "xmlin/query.h"
#include "xmllib.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <functional>
#include <thread>

#include <fcntl.h>
#include <libxml/parser.h>
#include <unistd.h>

namespace {

int slept = 0, parsed = 0;
std::function<void()> while_asleep, behind_parse; // what another program does meanwhile

} // namespace

extern "C" unsigned __wrap_sleep(unsigned) {
    ++slept;
    if (while_asleep)
        while_asleep();
    return 0;
}
extern "C" xmlDoc *__real_xmlCtxtReadFd(xmlParserCtxt *, int, const char *, const char *, int);
extern "C" xmlDoc *__wrap_xmlCtxtReadFd(xmlParserCtxt *context, int fd, const char *url, const char *encoding,
                                        int options) {
    ++parsed;
    xmlDoc *doc = __real_xmlCtxtReadFd(context, fd, url, encoding, options);
    if (behind_parse)
        behind_parse();
    return doc;
}

namespace {

// Allocations of libxml2 before one that fails, and whether those behind it fail too.
long until_failure = LONG_MAX;
bool lasting = false, failed = false;

bool fails() {
    const long left = until_failure--;
    failed = failed || left == 0;
    return lasting ? left <= 0 : left == 0;
}

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
    // Another text with a time in seconds and nanoseconds, in the same file or in a new one.
    void replace(const std::string &text, time_t seconds, long nanoseconds = 0, bool new_file = false) const {
        const std::string file = folder / "etc/zyn.conf", written = new_file ? file + ".new" : file;
        write(new_file ? "etc/zyn.conf.new" : "etc/zyn.conf", document(text));
        const timespec times[2] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
        EXPECT_EQ(utimensat(AT_FDCWD, written.c_str(), times, 0), 0);
        std::filesystem::rename(written, file);
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
    std::strcat(_xml_installpath, "/%s%d");
    form_paths();
    write("%s%d/etc/policy/x.pol", document("p"));
    EXPECT_EQ(get_policyfile("x", path, ""), 0);
    EXPECT_EQ(path, folder / "%s%d/etc/policy/x.pol");
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

// Whatever tells the new file from the old one, it is parsed again.
TEST_F(File, FileReplacedBehindItsParse) {
    using Step = std::tuple<const char *, time_t, long, bool>;
    for (const auto &[text, seconds, nanoseconds, new_file] : std::vector<Step>{{"newer", 100, 0, false},
                                                                                {"new", 101, 0, false},
                                                                                {"new", 100, 1, false},
                                                                                {"new", 100, 0, true}}) {
        replace("old", 100);
        parsed = 0;
        behind_parse = [&] {
            if (parsed == 1)
                replace(text, seconds, nanoseconds, new_file);
        };
        EXPECT_EQ(load_config(nullptr, nullptr), 0);
        EXPECT_EQ(value(), text) << seconds << nanoseconds;
        EXPECT_EQ(parsed, 2);
        EXPECT_EQ(unload_config(nullptr), 0);
    }
    // One that never stands still is parsed by the next reload, and then no more.
    parsed = 0;
    behind_parse = [&] { replace(std::to_string(parsed), 100 + parsed); };
    EXPECT_EQ(load_config(nullptr, nullptr), 0);
    EXPECT_EQ(parsed, 3);
    behind_parse = nullptr;
    EXPECT_EQ(reload_config(), 0);
    EXPECT_EQ(value(), "3");
    EXPECT_EQ(reload_config(), 0);
    EXPECT_EQ(parsed, 4);
}

// A reload looks at size and seconds alone.
TEST_F(File, ReloadSeesAnotherSecondOnly) {
    using Step = std::tuple<const char *, time_t, long, const char *>;
    for (const auto &[text, seconds, nanoseconds, wanted] : std::vector<Step>{{"old", 100, 0, "old"},
                                                                              {"two", 100, 1, "old"},
                                                                              {"new", 101, 0, "new"},
                                                                              {"two", 101, 1, "new"}}) {
        replace(text, seconds, nanoseconds);
        EXPECT_EQ(reload_config(), 0);
        EXPECT_EQ(value(), wanted) << text << seconds;
    }
}

// A failed allocation of libxml2, or all behind it, wherever it is: the whole document or none of it.
TEST_F(File, MemoryRunsOutWhileItIsParsed) {
    const auto text = [](const char *each) {
        std::string elements;
        for (int i = 0; i < 10; ++i)
            elements += "<a n=\"" + std::to_string(i) + "\">" + each + "</a>";
        return "<?xml version=\"1.0\"?>\n<root>" + elements + "</root>\n";
    };
    const auto loaded = [] {
        xmlChar *dump = nullptr;
        int size = 0;
        xmlDocDumpMemory(default_config()->doc, &dump, &size);
        const std::unique_ptr<xmlChar, decltype(&std::free)> owner(dump, std::free);
        return std::string(reinterpret_cast<const char *>(dump), static_cast<std::size_t>(size));
    };
    xmlMemSetup(
        std::free, [](std::size_t size) { return fails() ? nullptr : std::malloc(size); },
        [](void *block, std::size_t size) { return fails() ? nullptr : std::realloc(block, size); },
        [](const char *from) { return fails() ? nullptr : strdup(from); });
    for (const bool all_behind : {false, true})
        for (long n = 0; n == 0 || failed; ++n) {
            folder.write("etc/zyn.conf", text("old"));
            EXPECT_EQ(load_config(nullptr, nullptr), 0);
            folder.write("etc/zyn.conf", text("newer"));
            lasting = all_behind;
            failed = false;
            until_failure = n;
            const int ret = reload_config();
            until_failure = LONG_MAX;
            EXPECT_TRUE(ret == 0 || ret == XMLLIB_ERR_INVALIDPATH || ret == XMLLIB_ERR_DOCUMENT) << ret;
            EXPECT_EQ(loaded(), text(ret == 0 ? "newer" : "old")) << n;
            EXPECT_TRUE(n > 50 || failed) << "there are many";
            EXPECT_EQ(unload_config(nullptr), 0);
        }
}

TEST_F(File, AttemptsAndTheirCodes) {
    const int lowest = dup(STDOUT_FILENO);
    close(lowest);
    EXPECT_EQ(load_policy("none", ""), XMLLIB_ERR_NOTEXIST);
    EXPECT_EQ(load_policy(nullptr, ""), XMLLIB_ERR_INVALIDARG);
    EXPECT_EQ(slept, 0);
    EXPECT_EQ(load_config(nullptr, nullptr), XMLLIB_ERR_INVALIDPATH) << "the directory is there";
    EXPECT_EQ(slept, 3);
    write("etc/policy/bad.pol", "<root><a>");
    EXPECT_EQ(load_policy("bad", ""), XMLLIB_ERR_DOCUMENT);
    EXPECT_EQ(slept, 6);
    for (long messages = 0, i = 0; i < 2; ++i) { // libxml2's own, whatever thread it parses in
        std::jthread([] { EXPECT_EQ(load_policy("bad", ""), XMLLIB_ERR_DOCUMENT); }).join();
        const long before = std::exchange(messages, count_traced("1| xmlerr=\"parser \"."));
        EXPECT_GT(messages, before);
    }
    EXPECT_EQ(load_config((folder / "no/such/file").c_str(), nullptr), XMLLIB_ERR_INVALIDPATH);
    EXPECT_EQ(slept, 9 + 6);
    ASSERT_EQ(mkfifo((folder / "fifo").c_str(), 0600), 0);
    const std::string huge = folder.write("huge", document("x") + std::string(4 << 20, ' '));
    for (const char *other : {"fifo", "huge", "etc"})
        EXPECT_EQ(load_config((folder / other).c_str(), nullptr), XMLLIB_ERR_INVALIDPATH) << other;
    EXPECT_EQ(slept, 24);
    std::filesystem::resize_file(huge, 4 << 20);
    EXPECT_EQ(load_config(huge.c_str(), nullptr), 0);
    EXPECT_EQ(unload_config(current_config()), 0);
    std::filesystem::remove_all(folder / "etc");
    EXPECT_EQ(load_config(nullptr, nullptr), XMLLIB_ERR_INVALIDPATH) << "nothing is installed";
    EXPECT_EQ(slept, 24);
    EXPECT_FALSE(check_load());
    // A file that is whole again by the next attempt.
    write("etc/zyn.conf", "<root>");
    while_asleep = [this] { write("etc/zyn.conf", document("whole")); };
    EXPECT_EQ(load_config(nullptr, nullptr), 0);
    EXPECT_EQ(value(), "whole");
    while_asleep = nullptr;
    std::filesystem::remove_all(folder / "etc");
    folder.write("etc", "");
    EXPECT_EQ(unload_config(nullptr), 0);
    for (const char *path : {"", "/etc"}) { // a file where a directory should be
        std::strcat(_xml_installpath, path);
        form_paths();
        EXPECT_EQ(load_config(nullptr, nullptr), XMLLIB_ERR_INVALIDPATH) << path;
    }
    EXPECT_EQ(slept, 25);
    EXPECT_EQ(dup(STDOUT_FILENO), lowest) << "a descriptor is left";
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
    for (const Row &row : read_rows("entities.txt", 2)) {
        EXPECT_EQ(load_config(folder.write("bomb", row[0]).c_str(), nullptr), XMLLIB_ERR_INVALIDPATH);
        EXPECT_GT(count_traced_starting("1| xmlerr=\"" + row[1]), 0) << row[1];
    }
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
