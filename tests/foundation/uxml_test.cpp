// The XML element helpers: values written as child elements come back the
// same after a dump and a parse; lookups see only direct element children.
#include "foundation/uxml.h"

#include <climits>
#include <cstdlib>
#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <string>
#include <tuple>

namespace {

XmlDocPtr parse(const std::string& text)
{
    return XmlDocPtr(xmlReadMemory(text.data(), static_cast<int>(text.size()), "test.xml", nullptr, 0));
}

std::string stringOf(xmlNodePtr node, const char* name)
{
    char* text = nullptr;
    if (uxmlGetString(node, name, &text) != 0)
        return "<missing>";
    std::string s = text;
    free(text);
    return s;
}

} // namespace

TEST(Uxml, ValuesWrittenAsElementsReadBackAfterDumpAndParse)
{
    XmlDocPtr doc(xmlNewDoc(BAD_CAST "1.0"));
    xmlNodePtr root = xmlNewNode(nullptr, BAD_CAST "backup_metadata");
    xmlDocSetRootElement(doc.get(), root);
    ASSERT_EQ(uxmlAddString(root, "comment", "a <b> & \"c\""), 0);
    ASSERT_EQ(uxmlAddTime(root, "start_time", time_t{1700000123}), 0);
    ASSERT_EQ(uxmlAddULong(root, "size", ULONG_MAX), 0);
    ASSERT_EQ(uxmlAddInt(root, "type", -12), 0);
    ASSERT_EQ(uxmlAddLongLong(root, "offset", LLONG_MIN), 0);
    ASSERT_EQ(uxmlAddBool(root, "encrypted", 1), 0);
    ASSERT_EQ(uxmlAddBool(root, "compressed", 0), 0);
    xmlChar* dumped = nullptr;
    int size = 0;
    xmlDocDumpFormatMemory(doc.get(), &dumped, &size, 1);
    const std::string text(reinterpret_cast<char*>(dumped), static_cast<size_t>(size));
    xmlFree(dumped);
    for (const char* part : {"<comment>a &lt;b&gt; &amp; \"c\"</comment>", "<encrypted>true</encrypted>",
                             "<compressed>false</compressed>"})
        EXPECT_NE(text.find(part), std::string::npos) << part << " in " << text;

    XmlDocPtr back = parse(text);
    xmlNodePtr r = xmlDocGetRootElement(back.get());
    EXPECT_EQ(stringOf(r, "comment"), "a <b> & \"c\"");
    long l = 0;
    unsigned long ul = 0;
    long long ll = 0;
    int i = 0, yes = -1, no = -1;
    ASSERT_EQ(uxmlGetLong(r, "start_time", &l), 0);
    ASSERT_EQ(uxmlGetULong(r, "size", &ul), 0);
    ASSERT_EQ(uxmlGetInt(r, "type", &i), 0);
    ASSERT_EQ(uxmlGetLongLong(r, "offset", &ll), 0);
    ASSERT_EQ(uxmlGetBool(r, "encrypted", &yes), 0);
    ASSERT_EQ(uxmlGetBool(r, "compressed", &no), 0);
    EXPECT_EQ(std::tie(l, ul, i, ll, yes, no), std::make_tuple(1700000123L, ULONG_MAX, -12, LLONG_MIN, 1, 0));
}

TEST(Uxml, BooleansByTheirFirstCharacterNonNumbersAsZeroAndMissingElementsFail)
{
    XmlDocPtr doc = parse("<r><a>Yes</a><b>on</b><c>1</c><d>T</d><e>no</e><f></f><g>y</g><n>abc</n><m>12abc</m></r>");
    xmlNodePtr r = xmlDocGetRootElement(doc.get());
    for (auto [name, want] : {std::pair{"a", 1}, {"b", 0}, {"c", 1}, {"d", 1}, {"e", 0}, {"f", 0}, {"g", 1}}) {
        int value = -1;
        EXPECT_EQ(uxmlGetBool(r, name, &value), 0) << name;
        EXPECT_EQ(value, want) << name;
    }
    for (auto [name, want] : {std::pair{"n", 0}, {"m", 12}}) {
        int value = 99;
        EXPECT_EQ(uxmlGetInt(r, name, &value), 0) << name;
        EXPECT_EQ(value, want) << name;
    }
    int value = 99;
    EXPECT_EQ(uxmlGetInt(r, "absent", &value), -1);
    EXPECT_EQ(value, 99);
    char* text = nullptr;
    EXPECT_EQ(uxmlGetString(r, "absent", &text), -1);
    EXPECT_EQ(text, nullptr);
}

TEST(Uxml, OnlyDirectElementChildrenAreFound)
{
    // The text node "name", the comment and the grandchild <name> are passed over.
    XmlDocPtr doc = parse("<r>name<other><name>deep</name></other><!--name--><name>first</name>"
                          "<name>second</name><Name>case</Name></r>");
    xmlNodePtr r = xmlDocGetRootElement(doc.get());
    EXPECT_EQ(stringOf(r, "name"), "first");
    EXPECT_EQ(stringOf(r, "Name"), "case");
    xmlNodePtr* children = nullptr;
    ASSERT_EQ(uxmlGetChildren(r, "name", &children), 2);
    EXPECT_EQ(children[0], uxmlGetChild(r, "name"));
    XmlCharPtr second(xmlNodeGetContent(children[1]));
    EXPECT_STREQ(reinterpret_cast<const char*>(second.get()), "second");
    free(children);
    xmlNodePtr* none = nullptr;
    EXPECT_EQ(uxmlGetChildren(r, "missing", &none), 0);
    EXPECT_EQ(none, nullptr) << "no array for a count of 0";
    EXPECT_EQ(uxmlGetChild(r, "missing"), nullptr);
}
