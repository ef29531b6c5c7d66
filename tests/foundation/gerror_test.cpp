// The error store: texts framed by class, names from gerror.ini, registered
// classes, overflow of a class, bounds of a text, and the listings.
#include "foundation/environment.h"
#include "foundation/gerror.h"
#include "foundation/logger.h"
#include "harness/appliance_root.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

using ferrytest::readFile;

namespace {

const char* dbText(int number)
{
    static const char* const texts[] = {"no error", "connection lost", "deadlock", "timeout"};
    return texts[number];
}

class GerrorTest : public ::testing::Test {
protected:
    ferrytest::ApplianceRoot root;
    std::string logPath = root.logdir() + "/gerror.log";

    void SetUp() override
    {
        log_level = 0;
        log_simple = 0;
        ASSERT_EQ(open_log(logPath.c_str()), 0);
        clear_all_gerrors();
        set_gerror_level(0);
        set_gerror_file("/dev/null");
    }
    void TearDown() override
    {
        log_level = 0;
        close_log();
        clear_all_gerrors();
        set_gerror_file("/dev/null");
    }
    std::string logText()
    {
        flush_log();
        return readFile(logPath);
    }
};

TEST_F(GerrorTest, TextsAreFramedByClass)
{
    std::string iniPath = root.initdir() + "/gerror.ini";
    ferrytest::writeFile(iniPath, "[General]\n5=Device is full\n[Network]\n0=Connection refused by peer\n");
    set_gerror_file(iniPath.c_str());
    ASSERT_EQ(add_gerror_class(1, 3, "(DB) ", dbText), 0);
    ASSERT_EQ(add_gerror_class(-4, 1, "(CRYPTO) ", dbText), 0);
    struct Case {
        int cls, number;
        std::string expected;
    } cases[] = {
        {0, ENOENT, "(SYS) op No such file or directory"},
        {0, 255, "(SYS) op Error number is out of bounds"},
        {0, -1, "(SYS) op Error number is out of bounds"},
        {1, 2, "(DB) op deadlock"},
        {1, 9, "(DB) op : Error 9 is out of range (Max is 3)"},
        {-4, 1, "(CRYPTOop connection lost"},  // the prefix is kept to 7 characters
        {-7, 1, "Unknown error class: -7 op"},
        {2, 5, "(TQ) Device is full op"},
        {2, 7, "(TQ) Unknown op"},
        {2, 14, "(TQ) op TQ Error 14"},  // beyond the named numbers
        {2, 1, "op"},                   // number 1 is a plain text
        {3, 0, "(NET) op Connection refused by peer"},
        {3, 1, "(NET) op Unknown"},
        {3, ECONNRESET, std::string("(NET) op ") + strerror(ECONNRESET)},
        {4, 99, "op"},
        {5, 1, "(NETWORK) op Host was not found"},
        {5, 5, "(NETWORK) op Unknown error"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.expected);
        ASSERT_EQ(add_gerror(c.cls, c.number, "%s", "op"), 0);
        EXPECT_EQ(std::string(last_gerror(c.cls)), c.expected);
    }
    errno = EHOSTUNREACH;
    add_gerror(5, -1, "op");
    EXPECT_EQ(std::string(last_gerror(5)), std::string("(NETWORK) op ") + strerror(EHOSTUNREACH));
    EXPECT_EQ(add_gerror(6, 1, "ignored"), -1);
    const GerrorRecord* records = nullptr;
    EXPECT_EQ(gerror_list(6, &records), 0);
    EXPECT_EQ(gerror_list(1, &records), 4);  // classes below 0 are kept with class 1
    EXPECT_EQ(records[2].cls, -4);

    set_gerror_file("/dev/null");
    add_gerror(2, 5, "op");
    EXPECT_STREQ(last_gerror(2), "(TQ) Unknown op");
}

TEST_F(GerrorTest, TextsAreBounded)
{
    std::string longText(400, 'q');
    add_gerror(4, 0, "%s", longText.c_str());
    EXPECT_EQ(strlen(last_gerror(4)), 256u);
    add_gerror(0, EIO, "%s", longText.c_str());
    EXPECT_EQ(std::string(last_gerror(0)), "(SYS) " + longText.substr(0, 256) + " " + strerror(EIO));
    ASSERT_EQ(add_gerror_class(-9, 0, "(L) ", [](int) {
                  static const std::string text(400, 'L');
                  return text.c_str();
              }),
              0);
    add_gerror(-9, 0, "%s", longText.c_str());
    EXPECT_EQ(strlen(last_gerror(-9)), 511u);
}

TEST_F(GerrorTest, EleventhMessageClearsTheClass)
{
    log_level = 1;
    for (int i = 0; i < 10; ++i)
        ASSERT_EQ(add_gerror(4, i, "m%d", i), 0);
    const GerrorRecord* records = nullptr;
    EXPECT_EQ(gerror_list(4, &records), 10);
    EXPECT_EQ(add_gerror(4, 10, "m10"), 0);
    ASSERT_EQ(gerror_list(4, &records), 1);
    EXPECT_STREQ(records[0].text, "m10");
    std::string text = logText();
    EXPECT_NE(text.find("add_gerror: WARNING - number of messages 11 exceeds 10"), std::string::npos) << text;
    EXPECT_NE(text.find("Last message was \"m9\""), std::string::npos);
}

TEST_F(GerrorTest, ListingsHonourTheGerrorLevel)
{
    log_level = 2;
    add_gerror(4, 0, "first");
    EXPECT_EQ(set_gerror_level(3), 0);
    add_gerror(4, 0, "second");
    add_gerror(0, EPERM, "sys");
    log_gerrors(4, 2);
    EXPECT_NE(logText().find("[LOG2] ===== Gerror: 4 =====\n"), std::string::npos);
    EXPECT_NE(logText().find("[LOG2] first\n"), std::string::npos);
    EXPECT_EQ(logText().find("[LOG2] second"), std::string::npos);  // its level is 3

    char* all = gerror_text(GERROR_ALL_CLASSES);
    ASSERT_NE(all, nullptr);
    EXPECT_EQ(std::string(all), std::string("(SYS) sys ") + strerror(EPERM) + "\nfirst\nsecond\n");
    free(all);
    clear_gerror(4);
    EXPECT_EQ(gerror_text(4), nullptr);
    EXPECT_NE(last_gerror(GERROR_ALL_CLASSES), nullptr);
}

} // namespace
