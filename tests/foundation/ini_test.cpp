// Tests of the INI readers and writers on real files: value syntax, section
// and key rules, layout-keeping writes, and malformed input.
#include "foundation/ini.h"
#include "harness/appliance_root.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using ferrytest::readFile;
using ferrytest::writeFile;

namespace {

class IniTest : public ::testing::Test {
protected:
    std::string file(const std::string& text)
    {
        writeFile(path_, text);
        return path_;
    }
    // ini_get_string (ini_get_data when `raw`) into a 1024-byte buffer.
    std::string get(const char* section, const char* key, int* rc = nullptr, bool raw = false)
    {
        char buf[1024];
        int r = raw ? ini_get_data(section, key, "DEFAULT", buf, sizeof buf, path_.c_str())
                    : ini_get_string(section, key, "DEFAULT", buf, sizeof buf, path_.c_str());
        if (rc != nullptr)
            *rc = r;
        return buf;
    }
    std::vector<std::string> lines() const
    {
        std::vector<std::string> out;
        std::string text = readFile(path_);
        for (size_t pos = 0, nl; pos < text.size(); pos = nl + 1) {
            nl = text.find('\n', pos);
            nl = nl == std::string::npos ? text.size() : nl;
            out.push_back(text.substr(pos, nl - pos));
        }
        return out;
    }

    ferrytest::ApplianceRoot root_;
    std::string path_ = root_.root() + "/test.ini";
};

TEST_F(IniTest, ValueSyntaxSectionsAndKeys)
{
    const std::string kFile = "[Sec]\nKey\tvalue one\nother = value two  \n  spaced key =x\nempty=\n"
                              "[v]\nquoted=\"a;b\"\nplain=a;b\nescaped=a\\;b\nhash=a # comment\n"
                              "padded=  \"  in quotes  \"   ; comment\ninner=say \"hi\"\nafter=\"x\" y\n"
                              "tabs=a\\tb\\nc\nsingle='a\\tb'\nbackslash=c:\\\\dir\nunterminated=\"abc ; def\n"
                              "list=one \\\n  two \\\n three\nnext=n\n"
                              "[Alpha]\nx=1\nx=2\n\n; note\n# other note\n[ALPHA]\nx=3\ny=4\n"
                              "  [my [odd] name] trailing\nk=1\n[open\nk=2\n[c]\nlast=end\\\n";
    struct Case {
        const char *section, *key, *expected;
        int rc;
        bool raw;
        const char* text;  // nullptr: kFile
    } cases[] = {
        {"sec", "key", "value one", 0, false, nullptr},
        {"SEC", "OTHER", "value two", 0, false, nullptr},
        {"Sec", "other", " value two", 0, true, nullptr},  // raw keeps the blank behind '='
        {"Sec", "spaced key", "x", 0, false, nullptr},
        {"Sec", "empty", "", 0, false, nullptr},
        {"s", "key", "DEFAULT", -1, false, "[s]\nkey="},  // an empty value needs its line end
        {"s", "key", "DEFAULT", -1, true, "[s]\nkey="},
        {"v", "quoted", "a;b", 0, false, nullptr},
        {"v", "quoted", "\"a;b\"", 0, true, nullptr},
        {"v", "plain", "a", 0, false, nullptr},
        {"v", "escaped", "a;b", 0, false, nullptr},
        {"v", "escaped", "a\\;b", 0, true, nullptr},
        {"v", "hash", "a", 0, false, nullptr},
        {"v", "padded", "  in quotes  ", 0, false, nullptr},
        {"v", "inner", "say \"hi\"", 0, false, nullptr},
        {"v", "after", "x y", 0, false, nullptr},
        {"v", "tabs", "a\tb\nc", 0, false, nullptr},
        {"v", "single", "'a\\tb'", 0, false, nullptr},
        {"v", "backslash", "c:\\dir", 0, false, nullptr},
        {"v", "unterminated", "abc ; def", 0, false, nullptr},
        {"v", "list", "one   two  three", 0, false, nullptr},
        {"v", "next", "n", 0, false, nullptr},
        {"alpha", "x", "1", 0, false, nullptr},  // first key of the first section wins
        {"alpha", "y", "DEFAULT", -1, false, nullptr},
        {"gamma", "x", "DEFAULT", -1, false, nullptr},
        {"my [odd] name", "k", "1", 0, false, nullptr},
        {"open", "k", "2", 0, false, nullptr},
        {"c", "last", "end", 0, false, nullptr},  // a continuation at the end of the file
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.section) + "/" + c.key + (c.raw ? " raw" : ""));
        file(c.text != nullptr ? c.text : kFile);
        int rc = 1;
        EXPECT_EQ(get(c.section, c.key, &rc, c.raw), c.expected);
        EXPECT_EQ(rc, c.rc);
    }
}

TEST_F(IniTest, DefaultsBuffersAndAFileRewrittenBetweenLookups)
{
    char buf[8] = "keep";
    EXPECT_EQ(ini_get_string("s", "k", nullptr, buf, sizeof buf, path_.c_str()), -1);  // no file
    EXPECT_STREQ(buf, "keep");
    EXPECT_EQ(ini_get_string("s", "k", "d", nullptr, 10, path_.c_str()), -1);
    EXPECT_EQ(ini_get_string("s", "k", "0123456789", buf, sizeof buf, path_.c_str()), -1);
    EXPECT_STREQ(buf, "0123456");

    file("[s]\nk=0123456789\n");
    EXPECT_EQ(ini_get_string("s", "k", "d", buf, 5, path_.c_str()), 0);
    EXPECT_STREQ(buf, "0123");
    EXPECT_EQ(ini_get_data("s", "k", "d", buf, 5, path_.c_str()), -1);  // raw refuses to cut
    EXPECT_STREQ(buf, "d");
    file("[s]\nk=new\n");
    EXPECT_EQ(get("s", "k"), "new");

    // Listing mode: names separated by NULs; a name that does not fit ends it.
    file("[one]\na=1\n; c\nb\tx\n[two]\n[three]\n");
    char list[10];
    ASSERT_EQ(ini_get_string(nullptr, nullptr, "d", list, sizeof list, path_.c_str()), 0);
    EXPECT_EQ(std::string(list, 9), std::string("one\0two\0\0", 9));
    ASSERT_EQ(ini_get_string("ONE", nullptr, "d", list, sizeof list, path_.c_str()), 0);
    EXPECT_EQ(std::string(list, 5), std::string("a\0b\0\0", 5));
}

TEST_F(IniTest, IntegersAndBooleans)
{
    file("[n]\nnum= 42 ; answer\nneg=-7\ngarbage=abc\nbig=99999999999999\n"
         "t1=TRUE\nt2=yes please\nt3=On\nt4=1\nf1=False\nf2=no\nf3=OFF\nf4=0\nodd=maybe\nempty=\n");
    const char* f = path_.c_str();
    EXPECT_EQ(ini_get_int("n", "num", 5, f), 42);
    EXPECT_EQ(ini_get_int("n", "neg", 5, f), -7);
    EXPECT_EQ(ini_get_int("n", "garbage", 5, f), 0);
    EXPECT_EQ(ini_get_int("n", "big", 5, f), 2147483647);
    EXPECT_EQ(ini_get_int("n", "missing", 5, f), 5);
    struct Case {
        const char* key;
        unsigned char dflt, expected;
        int rc;
    } cases[] = {{"t1", 0, 1, 0}, {"t2", 0, 1, 0},  {"t3", 0, 1, 0},     {"t4", 0, 1, 0},
                 {"f1", 1, 0, 0}, {"f2", 1, 0, 0},  {"f3", 1, 0, 0},     {"f4", 1, 0, 0},
                 {"odd", 1, 1, 0}, {"empty", 1, 1, -1}, {"missing", 0, 0, -1}};
    for (const Case& c : cases) {
        unsigned char out = 7;
        EXPECT_EQ(ini_get_bool("n", c.key, c.dflt, &out, f), c.rc) << c.key;
        EXPECT_EQ(out, c.expected) << c.key;
    }
}

TEST_F(IniTest, PutStringKeepsTheLayout)
{
    // Shorter: written in place, every line keeps its offset and length, and
    // a comment its column.
    file("[s]\n  name=a-rather-long-value   ; keep me\n  b=1 ; short\n  c=1 ; " + std::string(60, 'c') +
         "\n[t]\n  x=1");
    std::vector<std::string> before = lines();
    ASSERT_EQ(ini_put_string("s", "name", "short", path_.c_str()), 0);
    std::vector<std::string> after = lines();
    ASSERT_EQ(after.size(), before.size());
    for (size_t i = 0; i < before.size(); ++i)
        EXPECT_EQ(after[i], i == 1 ? "  name=short" + std::string(17, ' ') + "; keep me" : before[i]);

    // Longer: the rest moves; one blank before the comment while the line
    // fits in 80 columns, else the comment goes on a line of its own below.
    ASSERT_EQ(ini_put_string("s", "b", "123456", path_.c_str()), 0);
    ASSERT_EQ(ini_put_string("s", "c", std::string(20, '2').c_str(), path_.c_str()), 0);
    // New keys and sections are 77-column lines.
    ASSERT_EQ(ini_put_string("t", "y", "v", path_.c_str()), 0);
    ASSERT_EQ(ini_put_int("new section", "n", -12, path_.c_str()), 0);
    EXPECT_EQ(readFile(path_), "[s]\n  name=short" + std::string(17, ' ') + "; keep me\n  b=123456 ; short\n  c=" +
                                   std::string(20, '2') + "\n; " + std::string(60, 'c') + "\n[t]\n  x=1\n  y=v" +
                                   std::string(72, ' ') + "\n\n[new section]\n  n=-12" + std::string(70, ' ') +
                                   "\n");

    // Writers, like readers, use the first section of a name.
    file("[s]\nk=1\n[S]\nk=2\nz=3\n");
    ASSERT_EQ(ini_put_string("s", "z", "new", path_.c_str()), 0);
    EXPECT_EQ(lines()[2].substr(0, 7), "  z=new");
    EXPECT_EQ(lines()[3], "[S]");
    // A missing file is created; one in a missing directory is not.
    std::string fresh = root_.root() + "/fresh.ini";
    ASSERT_EQ(ini_put_string("Location Information", "TQDIR", "/opt/x", fresh.c_str()), 0);
    EXPECT_NE(readFile(fresh).find("[Location Information]\n  TQDIR=/opt/x"), std::string::npos);
    EXPECT_EQ(ini_put_string("s", "k", "v", (root_.root() + "/no/such/dir/f.ini").c_str()), -1);
}

TEST_F(IniTest, PutDataWritesExactlyAndTruncates)
{
    file("[s]\n  k=a-long-old-value ; comment\n  after=1\n");
    ASSERT_EQ(ini_put_data("s", "k", "v", path_.c_str()), 0);
    EXPECT_EQ(readFile(path_), "[s]\n  k=v\n  after=1\n");
    ASSERT_EQ(ini_put_data("s", "new", "x y", path_.c_str()), 0);
    ASSERT_EQ(ini_put_data("u", "k", "z", path_.c_str()), 0);
    EXPECT_EQ(readFile(path_), "[s]\n  k=v\n  after=1\n  new=x y\n\n[u]\n  k=z\n");
}

TEST_F(IniTest, MalformedInputIsSurvived)
{
    std::string garbage;
    for (int i = 0; i < 4096; ++i)
        garbage += static_cast<char>((i * 131 + 7) & 0xff);
    file(garbage + "\n[good]\nk=v\n");
    EXPECT_EQ(get("good", "k"), "v");
    ASSERT_EQ(ini_put_string("good", "k", "w", path_.c_str()), 0);
    EXPECT_EQ(get("good", "k"), "w");
    EXPECT_EQ(readFile(path_).substr(0, garbage.size()), garbage);

    // One line buffer holds 16383 characters ("long=" included); the tail of
    // a longer line is no line of its own.
    file("[s]\nlong=" + std::string(20000, 'x') + "\n; " + std::string(17000, 'c') + "hidden=1\nafter=ok\n");
    std::vector<char> buf(40000);
    ASSERT_EQ(ini_get_string("s", "long", "d", buf.data(), (int)buf.size(), path_.c_str()), 0);
    EXPECT_EQ(std::string(buf.data()), std::string(16383 - 5, 'x'));
    EXPECT_EQ(get("s", "hidden"), "DEFAULT");
    EXPECT_EQ(get("s", "after"), "ok");
    ASSERT_EQ(ini_put_string("s", "long", "short", path_.c_str()), 0);  // writers take such lines whole
    EXPECT_EQ(get("s", "long"), "short");
    EXPECT_EQ(get("s", "after"), "ok");

    // Continuation lines are read in 511 bytes.
    file("[s]\nk=a\\\n" + std::string(600, 'b') + "\nnext=1\n");
    ASSERT_EQ(ini_get_string("s", "k", "d", buf.data(), (int)buf.size(), path_.c_str()), 0);
    EXPECT_EQ(std::string(buf.data()), "a" + std::string(510, 'b'));
    EXPECT_EQ(get("s", "next"), "1");
}

} // namespace
