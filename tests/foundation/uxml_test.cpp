// The XML element helpers: values written as child elements come back the
// same after a dump and a parse; lookups see only direct element children.
#include "foundation/uxml.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <string>

namespace {

XmlDocPtr parse(const std::string& text)
{
    return XmlDocPtr(xmlReadMemory(text.data(), static_cast<int>(text.size()), "test.xml", nullptr, 0));
}

std::string dump(xmlDoc* doc)
{
    xmlChar* text = nullptr;
    int size = 0;
    xmlDocDumpFormatMemory(doc, &text, &size, 1);
    std::string s(reinterpret_cast<char*>(text), static_cast<size_t>(size));
    xmlFree(text);
    return s;
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
    XmlDocPtr doc(xmlNewDoc(reinterpret_cast<const xmlChar*>("1.0")));
    xmlNodePtr root = xmlNewNode(nullptr, reinterpret_cast<const xmlChar*>("backup_metadata"));
    xmlDocSetRootElement(doc.get(), root);
    ASSERT_EQ(uxmlAddString(root, "comment", "a <b> & \"c\""), 0);
    ASSERT_EQ(uxmlAddTime(root, "start_time", static_cast<time_t>(1700000123)), 0);
    ASSERT_EQ(uxmlAddULong(root, "size", ULONG_MAX), 0);
    ASSERT_EQ(uxmlAddInt(root, "type", -12), 0);
    ASSERT_EQ(uxmlAddLongLong(root, "offset", LLONG_MIN), 0);
    ASSERT_EQ(uxmlAddBool(root, "encrypted", 1), 0);
    ASSERT_EQ(uxmlAddBool(root, "compressed", 0), 0);

    std::string text = dump(doc.get());
    EXPECT_NE(text.find("a &lt;b&gt; &amp; \"c\""), std::string::npos) << text;
    EXPECT_NE(text.find("<encrypted>true</encrypted>"), std::string::npos);
    EXPECT_NE(text.find("<compressed>false</compressed>"), std::string::npos);

    XmlDocPtr back = parse(text);
    ASSERT_TRUE(back);
    xmlNodePtr r = xmlDocGetRootElement(back.get());
    EXPECT_EQ(stringOf(r, "comment"), "a <b> & \"c\"");
    long l = 0;
    EXPECT_EQ(uxmlGetLong(r, "start_time", &l), 0);
    EXPECT_EQ(l, 1700000123);
    unsigned long ul = 0;
    EXPECT_EQ(uxmlGetULong(r, "size", &ul), 0);
    EXPECT_EQ(ul, ULONG_MAX);
    int i = 0;
    EXPECT_EQ(uxmlGetInt(r, "type", &i), 0);
    EXPECT_EQ(i, -12);
    long long ll = 0;
    EXPECT_EQ(uxmlGetLongLong(r, "offset", &ll), 0);
    EXPECT_EQ(ll, LLONG_MIN);
    int b = -1;
    EXPECT_EQ(uxmlGetBool(r, "encrypted", &b), 0);
    EXPECT_EQ(b, 1);
    EXPECT_EQ(uxmlGetBool(r, "compressed", &b), 0);
    EXPECT_EQ(b, 0);
}

TEST(Uxml, BooleansReadByTheirFirstCharacter)
{
    XmlDocPtr doc = parse("<r><a>Yes</a><b>on</b><c>1</c><d>T</d><e>no</e><f></f><g>y</g></r>");
    xmlNodePtr r = xmlDocGetRootElement(doc.get());
    const std::pair<const char*, int> cases[] = {{"a", 1}, {"b", 0}, {"c", 1}, {"d", 1},
                                                 {"e", 0}, {"f", 0}, {"g", 1}};
    for (auto [name, want] : cases) {
        int value = -1;
        EXPECT_EQ(uxmlGetBool(r, name, &value), 0) << name;
        EXPECT_EQ(value, want) << name;
    }
}

TEST(Uxml, NumbersThatAreNotNumbersReadAsZeroAndMissingElementsFail)
{
    XmlDocPtr doc = parse("<r><n>abc</n><m>12abc</m></r>");
    xmlNodePtr r = xmlDocGetRootElement(doc.get());
    int value = 99;
    EXPECT_EQ(uxmlGetInt(r, "n", &value), 0);
    EXPECT_EQ(value, 0);
    EXPECT_EQ(uxmlGetInt(r, "m", &value), 0);
    EXPECT_EQ(value, 12);
    value = 99;
    EXPECT_EQ(uxmlGetInt(r, "absent", &value), -1);
    EXPECT_EQ(value, 99);
    char* text = nullptr;
    EXPECT_EQ(uxmlGetString(r, "absent", &text), -1);
    EXPECT_EQ(text, nullptr);
}

TEST(Uxml, OnlyDirectElementChildrenAreFound)
{
    // The text node "name" and the grandchild <name> are passed over.
    XmlDocPtr doc = parse("<r>name<other><name>deep</name></other><!--name--><name>first</name>"
                          "<name>second</name><Name>case</Name></r>");
    xmlNodePtr r = xmlDocGetRootElement(doc.get());
    xmlNodePtr child = uxmlGetChild(r, "name");
    ASSERT_NE(child, nullptr);
    EXPECT_EQ(stringOf(r, "name"), "first");
    EXPECT_EQ(stringOf(r, "Name"), "case");

    xmlNodePtr* children = nullptr;
    ASSERT_EQ(uxmlGetChildren(r, "name", &children), 2);
    EXPECT_EQ(children[0], child);
    XmlCharPtr second(xmlNodeGetContent(children[1]));
    EXPECT_STREQ(reinterpret_cast<const char*>(second.get()), "second");
    free(children);

    xmlNodePtr* none = nullptr;
    EXPECT_EQ(uxmlGetChildren(r, "missing", &none), 0);
    EXPECT_EQ(none, nullptr) << "no array for a count of 0";
    EXPECT_EQ(uxmlGetChild(r, "missing"), nullptr);
}
