// Path queries over documents in memory, and the store's trace that tells of them.
#include "support/fake_log.h"
#include "support/rows.h"
#include "trace.h"
#include "xmlin/query.h"
#include "xmllib.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include <libxml/parser.h>

namespace {

constexpr const char *configuration = R"(<!DOCTYPE root [<!ELEMENT root ANY>]>
<!-- root --><root>
  <all><charset> UTF-8 </charset><number>010</number><hex> 0x1F </hex><bad>08</bad><line>12
</line><negative>-5</negative><wide>4294967297</wide><empty/><nested><in>1</in></nested><cdata><![CDATA[a<b]]></cdata></all>
  <server name="a" second="second"><x>1</x></server>
  <server name="b"><x>2</x></server><server><x>none</x></server>
  <server name="c"><x>3</x></server>
  <twice/><twice><x>behind the first</x></twice>
  <!-- before --><comment><!-- x --><x>v</x></comment>
</root>)";
constexpr const char *first_policy = "<root><all><empty>5</empty></all><only><p1>p1</p1><empty/></"
                                     "only><server name='q'><x>policy</x></server></root>";
constexpr const char *second_policy = "<root><only><p1>no</p1><p2>p2</p2><empty>no</empty></only></root>";

// A name as wide as a record, one that is wider, and a text above that of a value.
const std::string name_32(32, 'n');
const std::string third_policy = "<" + name_32 + "n><x>longer</x></" + name_32 + "n>";
const std::string fourth_policy = "<" + name_32 + "><x>" + std::string(1030, 'v') + "</x></" + name_32 + ">";

class Query : public testing::Test {
protected:
    Query() {
        load(5, XMLDOC_TYPE_DEFAULT, "conf", configuration);
        _xmldocs[5].current = 1;
        load(2, XMLDOC_TYPE_POLICY, "p1", first_policy);
        load(9, XMLDOC_TYPE_POLICY, "p2", second_policy);
        load(10, XMLDOC_TYPE_POLICY, "p3", third_policy.c_str());
        load(11, XMLDOC_TYPE_POLICY, "p4", fourth_policy.c_str());
    }
    ~Query() override {
        for (ZYNXML_XMLDOC &slot : _xmldocs)
            if (slot.doc != nullptr)
                xmlFreeDoc(slot.doc);
        internal_init();
        traceclose();
    }
    static void load(std::size_t slot, int type, const char *name, const char *text) {
        _xmldocs[slot].type = type;
        _xmldocs[slot].count = 1;
        std::strcpy(_xmldocs[slot].name, name);
        _xmldocs[slot].doc = xmlReadMemory(text, static_cast<int>(std::strlen(text)), name, nullptr, 0);
        ASSERT_NE(_xmldocs[slot].doc, nullptr);
    }
};

TEST_F(Query, EveryPathGivesItsValueOrItsCode) {
    for (const Row &row : read_rows("queries.txt", 5)) {
        char buffer[1024] = "";
        int size = sizeof(buffer);
        const bool text = row[1] == "s";
        EXPECT_EQ(get_value(row[0].c_str(), text ? XMLLIB_TYPE_STRING : XMLLIB_TYPE_INT, buffer, &size),
                  std::stoi(row[2]))
            << row[0];
        EXPECT_EQ(size, std::stoi(row[3])) << row[0];
        int number = 0;
        std::memcpy(&number, buffer, sizeof(number));
        if (row[2] == "0") {
            EXPECT_EQ(text ? std::string(buffer) : std::to_string(number), row[4]) << row[0];
        }
    }
}

TEST_F(Query, SizesAndArgumentsAreChecked) {
    char buffer[8];
    int size = 5;
    EXPECT_EQ(get_value("/root/all/charset", XMLLIB_TYPE_STRING, buffer, &size), XMLLIB_ERR_NOSIZE);
    EXPECT_EQ(size, 6);
    EXPECT_EQ(get_value("/root/all/charset", XMLLIB_TYPE_STRING, nullptr, &size), XMLLIB_ERR_NOSIZE);
    EXPECT_EQ(size, 6);
    size = 2;
    EXPECT_EQ(get_value("/root/all/number", XMLLIB_TYPE_INT, buffer, &size), XMLLIB_ERR_NOSIZE);
    EXPECT_EQ(size, 4);
    EXPECT_EQ(get_value("/root/all/number", 2, buffer, &size), XMLLIB_ERR_INVALIDARG);
    EXPECT_EQ(get_value(nullptr, 0, buffer, &size), XMLLIB_ERR_INVALIDARG);
    EXPECT_EQ(get_value("/root", 0, buffer, nullptr), XMLLIB_ERR_INVALIDARG);
    EXPECT_EQ(get_value("root", 0, buffer, &size), XMLLIB_ERR_INVALIDPATH);
    EXPECT_EQ(enum_value(nullptr, buffer, &size), XMLLIB_ERR_INVALIDARG);
    EXPECT_EQ(cut_space(nullptr), -1);
}

TEST_F(Query, ListHoldsTheFirstAttributes) {
    char buffer[3 * 256];
    int size = 512;
    EXPECT_EQ(enum_value("/root/server", buffer, &size), XMLLIB_ERR_NOSIZE);
    EXPECT_EQ(size, 768);
    EXPECT_STREQ(buffer, "a");
    EXPECT_STREQ(buffer + 256, "b");
    EXPECT_EQ(enum_value("/root/server", buffer, &size), XMLLIB_OK);
    EXPECT_STREQ(buffer + 512, "c");
    EXPECT_EQ(enum_value("/root/server@b", buffer, &size), XMLLIB_OK);
    EXPECT_EQ(size, 512) << "from the one that matched";
    EXPECT_STREQ(buffer, "b");
    EXPECT_EQ(enum_value("/root/server", nullptr, &size), XMLLIB_ERR_NOSIZE);
    EXPECT_EQ(size, 768);
    EXPECT_EQ(enum_value("/root/all", buffer, &size), XMLLIB_ERR_NOTEXIST) << "no attribute";
    EXPECT_EQ(enum_value("/root/only", buffer, &size), XMLLIB_ERR_NOTEXIST) << "a policy's";
    _xmldocs[5].current = 0;
    EXPECT_EQ(enum_value("/root/server", buffer, &size), XMLLIB_ERR_NOTLOAD);
    const std::string items = "<root><item n='  trimmed '/><item n=''/><item n='" + std::string(300, 'v');
    load(12, XMLDOC_TYPE_PATHCONFIG, "items", (items + "'/></root>").c_str());
    _xmldocs[12].current = 1;
    size = sizeof(buffer);
    EXPECT_EQ(enum_value("/root/item", buffer, &size), XMLLIB_OK);
    EXPECT_EQ(size, 768);
    EXPECT_STREQ(buffer, "trimmed");
    EXPECT_STREQ(buffer + 256, "");
    EXPECT_STREQ(buffer + 512, std::string(255, 'v').c_str());
}

TEST_F(Query, RecordsAreFilledToTheirWidth) {
    ZYNXML_ELEMENT *records = nullptr;
    int count = 0;
    const std::string path = "/" + std::string(32, 'n') + "/x@" + std::string(255, 'v') + "/y@b@c";
    ASSERT_EQ(separate_path(path.c_str(), &records, &count), 0);
    ASSERT_EQ(count, 3);
    EXPECT_EQ(std::string(records[0].name, 32), std::string(32, 'n'));
    EXPECT_EQ(records[0].attr[0], '\0');
    EXPECT_STREQ(records[1].attr, std::string(255, 'v').c_str());
    EXPECT_STREQ(records[2].name, "b");
    EXPECT_STREQ(records[2].attr, "c");
    std::free(records);
    EXPECT_EQ(separate_path(nullptr, &records, &count), -1);
    EXPECT_EQ(separate_path("/root", &records, nullptr), -1);
}

TEST_F(Query, TraceTellsLevelIndentAndTexts) {
    char buffer[8];
    int size = sizeof(buffer);
    get_value("/root/none", 0, buffer, &size);
    EXPECT_TRUE(traced.empty()) << "closed";
    traceopen("xml", 4, 1000000, nullptr);
    get_value("/root/none", 0, buffer, &size);
    for (const char *line :
         {"16| => get_value() start", "8|   get value from \"/root/none\"...", "16|   /root/none is 2 depth.",
          "8|   search current config ...", "8|   discovery!", "8|   undiscovery.",
          "8|   not exist in \"conf\".", "8|   not exist in \"p2\".", "2|   not exist(/root/none)",
          "16| <= get_value() end"})
        EXPECT_GT(count_traced(line), 0) << line;
    traced.clear();
    ZYNXML_ELEMENT *records = nullptr;
    int count = 0;
    separate_path(("/root/" + std::string(32, 'n')).c_str(), &records, &count);
    separate_path(("/root/x@" + std::string(256, 'n')).c_str(), &records, &count);
    EXPECT_EQ(count_traced("1|   element is more than 32(len=33)."), 1);
    EXPECT_EQ(count_traced("1|   element is more than 32(len=257)."), 1);
    traced.clear();
    trace4(1, "f", 1, "g", "%s", ("100%s%% " + std::string(2000, 'x')).c_str());
    EXPECT_EQ(traced.back(), "1|   100%s% " + std::string(1020 - 8, 'x')) << "cut at the end of the line";
}

} // namespace
