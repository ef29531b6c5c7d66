// Tests of the INI readers and writers on real files: value syntax, section
// and key rules, listing, layout-keeping writes, and malformed input.
#include "foundation/environment.h"
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
    // ini_get_string into a 1024-byte buffer; the result code in *rc.
    std::string get(const char* section, const char* key, int* rc = nullptr, const char* dflt = "DEFAULT")
    {
        char buf[1024];
        int r = ini_get_string(section, key, dflt, buf, sizeof buf, path_.c_str());
        if (rc != nullptr)
            *rc = r;
        return buf;
    }
    std::string data(const char* section, const char* key, int* rc = nullptr)
    {
        char buf[1024];
        int r = ini_get_data(section, key, "DEFAULT", buf, sizeof buf, path_.c_str());
        if (rc != nullptr)
            *rc = r;
        return buf;
    }
    // The file's lines with their byte offsets.
    std::vector<std::pair<size_t, std::string>> lines() const
    {
        std::vector<std::pair<size_t, std::string>> out;
        std::string text = readFile(path_);
        size_t pos = 0;
        while (pos < text.size()) {
            size_t nl = text.find('\n', pos);
            size_t end = nl == std::string::npos ? text.size() : nl;
            out.emplace_back(pos, text.substr(pos, end - pos));
            pos = end + 1;
        }
        return out;
    }

    ferrytest::ApplianceRoot root_;
    std::string path_ = root_.root() + "/test.ini";
};

TEST_F(IniTest, TabAndEqualsBothSeparateKeyFromValue)
{
    file("[Sec]\nKey\tvalue one\nother = value two  \n  spaced key =x\n");
    int rc = 1;
    EXPECT_EQ(get("sec", "key", &rc), "value one");
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(get("SEC", "OTHER"), "value two");
    EXPECT_EQ(get("Sec", "spaced key"), "x");
    // The raw form keeps the blank behind "=" but not the trailing ones.
    EXPECT_EQ(data("Sec", "other", &rc), " value two");
    EXPECT_EQ(rc, 0);
}

TEST_F(IniTest, EmptyValueNeedsALineEndBehindIt)
{
    file("[s]\nkey=\n");
    int rc = 1;
    EXPECT_EQ(get("s", "key", &rc), "");
    EXPECT_EQ(rc, 0);

    file("[s]\nkey=");
    EXPECT_EQ(get("s", "key", &rc), "DEFAULT");
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(data("s", "key", &rc), "DEFAULT");
    EXPECT_EQ(rc, -1);
}

TEST_F(IniTest, CommentsQuotesAndEscapes)
{
    file("[v]\n"
         "quoted=\"a;b\"\n"
         "plain=a;b\n"
         "escaped=a\\;b\n"
         "hash=a # comment\n"
         "padded=  \"  in quotes  \"   ; comment\n"
         "inner=say \"hi\"\n"
         "after=\"x\" y\n"
         "tabs=a\\tb\\nc\n"
         "single='a\\tb'\n"
         "backslash=c:\\\\dir\n"
         "unterminated=\"abc ; def\n");
    EXPECT_EQ(get("v", "quoted"), "a;b");
    EXPECT_EQ(get("v", "plain"), "a");
    EXPECT_EQ(get("v", "escaped"), "a;b");
    EXPECT_EQ(get("v", "hash"), "a");
    EXPECT_EQ(get("v", "padded"), "  in quotes  ");
    EXPECT_EQ(get("v", "inner"), "say \"hi\"");
    EXPECT_EQ(get("v", "after"), "x y");
    EXPECT_EQ(get("v", "tabs"), "a\tb\nc");
    EXPECT_EQ(get("v", "single"), "'a\\tb'");
    EXPECT_EQ(get("v", "backslash"), "c:\\dir");
    EXPECT_EQ(get("v", "unterminated"), "abc ; def");
    // The raw reader interprets nothing.
    EXPECT_EQ(data("v", "escaped"), "a\\;b");
    EXPECT_EQ(data("v", "quoted"), "\"a;b\"");
}

TEST_F(IniTest, BackslashAtLineEndContinuesTheValue)
{
    file("[c]\nlist=one \\\n  two \\\n three\nnext=n\nlast=end\\\n");
    EXPECT_EQ(get("c", "list"), "one   two  three");
    EXPECT_EQ(get("c", "next"), "n");
    // At the end of the file the value simply ends.
    EXPECT_EQ(get("c", "last"), "end");
}

TEST_F(IniTest, FirstSectionAndFirstKeyWin)
{
    file("[Alpha]\nx=1\nx=2\n\n; note\n# other note\n[ALPHA]\nx=3\ny=4\n[beta]\ny=5\n");
    EXPECT_EQ(get("alpha", "x"), "1");
    int rc = 0;
    EXPECT_EQ(get("alpha", "y", &rc), "DEFAULT");
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(get("Beta", "Y"), "5");
    EXPECT_EQ(get("gamma", "x", &rc), "DEFAULT");
    EXPECT_EQ(rc, -1);
}

TEST_F(IniTest, SectionNameRunsToTheLastBracket)
{
    file("  [my [odd] name] trailing\nk=1\n[open\nk=2\n");
    EXPECT_EQ(get("my [odd] name", "k"), "1");
    EXPECT_EQ(get("open", "k"), "2");
}

TEST_F(IniTest, MissingFileOrDefaultGiveMinusOne)
{
    int rc = 0;
    EXPECT_EQ(get("s", "k", &rc, "fallback"), "fallback");
    EXPECT_EQ(rc, -1);

    char buf[8] = "keep";
    EXPECT_EQ(ini_get_string("s", "k", nullptr, buf, sizeof buf, path_.c_str()), -1);
    EXPECT_STREQ(buf, "keep");
    EXPECT_EQ(ini_get_string("s", "k", "d", nullptr, 10, path_.c_str()), -1);

    // A long default is cut to the buffer.
    EXPECT_EQ(ini_get_string("s", "k", "0123456789", buf, sizeof buf, path_.c_str()), -1);
    EXPECT_STREQ(buf, "0123456");
}

TEST_F(IniTest, ValuesAreCutToTheBuffer)
{
    file("[s]\nk=0123456789\n");
    char buf[5];
    EXPECT_EQ(ini_get_string("s", "k", "d", buf, sizeof buf, path_.c_str()), 0);
    EXPECT_STREQ(buf, "0123");
    // The raw reader refuses instead of cutting.
    EXPECT_EQ(ini_get_data("s", "k", "d", buf, sizeof buf, path_.c_str()), -1);
    EXPECT_STREQ(buf, "d");
}

TEST_F(IniTest, EveryLookupSeesTheFileAsItIsNow)
{
    file("[s]\nk=old\n");
    EXPECT_EQ(get("s", "k"), "old");
    file("[s]\nk=new\n");
    EXPECT_EQ(get("s", "k"), "new");
    EXPECT_EQ(ini_get_int("s", "k", 9, path_.c_str()), 0);
}

TEST_F(IniTest, ListingModeNamesSectionsAndKeys)
{
    file("[one]\na=1\n; c\nb\tx\n[two]\n[three]\n");
    char buf[64];
    ASSERT_EQ(ini_get_string(nullptr, nullptr, "d", buf, sizeof buf, path_.c_str()), 0);
    EXPECT_EQ(std::string(buf, 15), std::string("one\0two\0three\0\0", 15));
    ASSERT_EQ(ini_get_string("ONE", nullptr, "d", buf, sizeof buf, path_.c_str()), 0);
    EXPECT_EQ(std::string(buf, 5), std::string("a\0b\0\0", 5));

    // A name that does not fit ends the list.
    char small[10];
    ASSERT_EQ(ini_get_string(nullptr, nullptr, "d", small, sizeof small, path_.c_str()), 0);
    EXPECT_EQ(std::string(small, 9), std::string("one\0two\0\0", 9));

    EXPECT_EQ(ini_get_string("none", nullptr, "d", buf, sizeof buf, path_.c_str()), -1);
    EXPECT_STREQ(buf, "d");
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

    for (const char* key : {"t1", "t2", "t3", "t4"}) {
        unsigned char out = 7;
        EXPECT_EQ(ini_get_bool("n", key, 0, &out, f), 0) << key;
        EXPECT_EQ(out, 1) << key;
    }
    for (const char* key : {"f1", "f2", "f3", "f4"}) {
        unsigned char out = 7;
        EXPECT_EQ(ini_get_bool("n", key, 1, &out, f), 0) << key;
        EXPECT_EQ(out, 0) << key;
    }
    unsigned char out = 0;
    EXPECT_EQ(ini_get_bool("n", "odd", 1, &out, f), 0);
    EXPECT_EQ(out, 1);
    out = 0;
    EXPECT_EQ(ini_get_bool("n", "empty", 1, &out, f), -1);
    EXPECT_EQ(out, 1);
    out = 1;
    EXPECT_EQ(ini_get_bool("n", "missing", 0, &out, f), -1);
    EXPECT_EQ(out, 0);
}

TEST_F(IniTest, ShorterValueIsWrittenInPlace)
{
    file("[s]\n  name=a-rather-long-value                                              \n"
         "  other=2\n[t]\n  x=1\n");
    auto before = lines();
    size_t size = readFile(path_).size();
    ASSERT_EQ(ini_put_string("s", "NAME", "short", path_.c_str()), 0);
    auto after = lines();
    EXPECT_EQ(readFile(path_).size(), size);
    ASSERT_EQ(after.size(), before.size());
    for (size_t i = 0; i < before.size(); ++i) {
        EXPECT_EQ(after[i].first, before[i].first);
        EXPECT_EQ(after[i].second.size(), before[i].second.size());
        if (i != 1) {
            EXPECT_EQ(after[i].second, before[i].second);
        }
    }
    EXPECT_EQ(get("s", "name"), "short");
    EXPECT_EQ(get("s", "other"), "2");
}

TEST_F(IniTest, LongerValueMovesTheRestOfTheFile)
{
    file("[s]\nk=1\nafter=2\n[t]\nx=3\n");
    std::string value(100, 'v');
    ASSERT_EQ(ini_put_string("s", "k", value.c_str(), path_.c_str()), 0);
    EXPECT_EQ(readFile(path_), "[s]\n  k=" + value + "\nafter=2\n[t]\nx=3\n");
    EXPECT_EQ(get("s", "k"), value);
    EXPECT_EQ(get("t", "x"), "3");
}

TEST_F(IniTest, CommentsStayWithTheirLine)
{
    file("[s]\n  a=12345678   ; keep me\n  b=1 ; short\n  c=1 ; " + std::string(60, 'c') + "\n[t]\n");
    // In place: the comment keeps its column.
    ASSERT_EQ(ini_put_string("s", "a", "9", path_.c_str()), 0);
    auto l = lines();
    EXPECT_EQ(l[1].second, "  a=9          ; keep me");
    // Longer: one blank behind the value while it fits in 80 columns...
    ASSERT_EQ(ini_put_string("s", "b", "123456", path_.c_str()), 0);
    l = lines();
    EXPECT_EQ(l[2].second, "  b=123456 ; short");
    // ...else on a line of its own directly below.
    ASSERT_EQ(ini_put_string("s", "c", std::string(20, '2').c_str(), path_.c_str()), 0);
    l = lines();
    EXPECT_EQ(l[3].second, "  c=" + std::string(20, '2'));
    EXPECT_EQ(l[4].second, "; " + std::string(60, 'c'));
    EXPECT_EQ(l[5].second, "[t]");
    EXPECT_EQ(get("s", "a"), "9");
    EXPECT_EQ(get("s", "b"), "123456");
}

TEST_F(IniTest, NewKeysAndSectionsAre77ColumnLines)
{
    file("[s]\n  a=1\n[t]\n  x=1");
    ASSERT_EQ(ini_put_string("s", "added", "v", path_.c_str()), 0);
    ASSERT_EQ(ini_put_string("t", "y", "2", path_.c_str()), 0);
    ASSERT_EQ(ini_put_int("new section", "n", -12, path_.c_str()), 0);
    auto l = lines();
    ASSERT_EQ(l.size(), 9u);
    EXPECT_EQ(l[2].second, "  added=v" + std::string(68, ' '));
    EXPECT_EQ(l[2].second.size(), 77u);
    EXPECT_EQ(l[3].second, "[t]");
    EXPECT_EQ(l[4].second, "  x=1");
    EXPECT_EQ(l[5].second.substr(0, 5), "  y=2");
    EXPECT_EQ(l[6].second, "");
    EXPECT_EQ(l[7].second, "[new section]");
    EXPECT_EQ(ini_get_int("new section", "n", 0, path_.c_str()), -12);
    EXPECT_EQ(get("s", "added"), "v");
    EXPECT_EQ(get("t", "y"), "2");
}

TEST_F(IniTest, WritersUseTheFirstSectionOfAName)
{
    file("[s]\nk=1\n[S]\nk=2\nz=3\n");
    ASSERT_EQ(ini_put_string("s", "z", "new", path_.c_str()), 0);
    auto l = lines();
    EXPECT_EQ(l[2].second.substr(0, 7), "  z=new");
    EXPECT_EQ(l[3].second, "[S]");
    EXPECT_EQ(get("s", "z"), "new");
}

TEST_F(IniTest, PutCreatesAMissingFile)
{
    ASSERT_EQ(ini_put_string("Location Information", "TQDIR", "/opt/x", path_.c_str()), 0);
    EXPECT_EQ(get("location information", "tqdir"), "/opt/x");
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

TEST_F(IniTest, MasterValueTreatsNAAsUnset)
{
    std::string saved = g_master_ini;
    char out[1024];
    g_master_ini.clear();
    EXPECT_EQ(get_master_value("s", "k", out), -1);

    g_master_ini = file("[s]\nset=/data\nna=N/A-here\nempty=\n");
    EXPECT_EQ(get_master_value("s", "set", out), 0);
    EXPECT_STREQ(out, "/data");
    EXPECT_EQ(get_master_value("s", "na", out), -1);
    EXPECT_STREQ(out, "N/A-here");
    EXPECT_EQ(get_master_value("s", "empty", out), -1);
    EXPECT_EQ(get_master_value("s", "missing", out), -1);
    EXPECT_STREQ(out, "N/A");
    g_master_ini = saved;
}

// ---- malformed input -------------------------------------------------------

TEST_F(IniTest, BinaryGarbageDoesNotHideLaterSections)
{
    std::string garbage;
    for (int i = 0; i < 4096; ++i)
        garbage += static_cast<char>((i * 131 + 7) & 0xff);
    file(garbage + "\n[good]\nk=v\n");
    EXPECT_EQ(get("good", "k"), "v");
    char buf[256];
    EXPECT_EQ(ini_get_string(nullptr, nullptr, "d", buf, sizeof buf, path_.c_str()), 0);
    ASSERT_EQ(ini_put_string("good", "k", "w", path_.c_str()), 0);
    EXPECT_EQ(get("good", "k"), "w");
    EXPECT_EQ(readFile(path_).substr(0, garbage.size()), garbage);
}

TEST_F(IniTest, OverlongLinesAreCutAndTheirTailIsNoLine)
{
    std::string longValue(20000, 'x');
    file("[s]\nlong=" + longValue + "\n; " + std::string(17000, 'c') + "hidden=1\nafter=ok\n");
    std::vector<char> buf(40000);
    ASSERT_EQ(ini_get_string("s", "long", "d", buf.data(), static_cast<int>(buf.size()), path_.c_str()), 0);
    // One line buffer holds 16383 characters, "long=" included.
    EXPECT_EQ(std::string(buf.data()), std::string(16383 - 5, 'x'));
    EXPECT_EQ(get("s", "hidden"), "DEFAULT");
    EXPECT_EQ(get("s", "after"), "ok");

    // The writers handle such lines whole.
    ASSERT_EQ(ini_put_string("s", "after", "fine", path_.c_str()), 0);
    EXPECT_EQ(get("s", "after"), "fine");
    ASSERT_EQ(ini_put_string("s", "long", "short", path_.c_str()), 0);
    EXPECT_EQ(get("s", "long"), "short");
}

TEST_F(IniTest, ContinuationLinesAreReadIn511Bytes)
{
    file("[s]\nk=a\\\n" + std::string(600, 'b') + "\nnext=1\n");
    std::vector<char> buf(2048);
    ASSERT_EQ(ini_get_string("s", "k", "d", buf.data(), static_cast<int>(buf.size()), path_.c_str()), 0);
    EXPECT_EQ(std::string(buf.data()), "a" + std::string(510, 'b'));
    EXPECT_EQ(get("s", "next"), "1");
}

} // namespace
