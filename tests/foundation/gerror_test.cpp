// The error store: texts framed by class, names from gerror.ini, registered
// classes, overflow of a class, and what is logged and listed.
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
using ferrytest::writeFile;

namespace {

const char* dbText(int number)
{
    static const char* const texts[] = {"no error", "connection lost", "deadlock", "timeout"};
    return texts[number];
}

const char* longName(int)
{
    static const std::string text(400, 'L');
    return text.c_str();
}

class GerrorTest : public ::testing::Test {
protected:
    ferrytest::ApplianceRoot root;
    std::string logPath;

    void SetUp() override
    {
        log_level = 0;
        log_simple = 0;
        g_logdir = root.logdir();
        logPath = root.logdir() + "/gerror.log";
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
        g_logdir.clear();
    }

    std::string logText()
    {
        flush_log();
        return readFile(logPath);
    }
};

TEST_F(GerrorTest, SystemTqAndTextClasses)
{
    EXPECT_EQ(add_gerror(0, ENOENT, "open %s", "/backups/x"), 0);
    EXPECT_STREQ(last_gerror(0), "(SYS) open /backups/x No such file or directory");
    add_gerror(0, 255, "weird");
    EXPECT_STREQ(last_gerror(0), "(SYS) weird Error number is out of bounds");
    add_gerror(0, -1, "negative");
    EXPECT_STREQ(last_gerror(0), "(SYS) negative Error number is out of bounds");

    std::string iniPath = root.initdir() + "/gerror.ini";
    writeFile(iniPath, "[General]\n5=Device is full\n[Network]\n0=Connection refused by peer\n");
    set_gerror_file(iniPath.c_str());
    add_gerror(2, 5, "dev%d", 1);
    EXPECT_STREQ(last_gerror(2), "(TQ) Device is full dev1");
    add_gerror(2, 7, "dev1");
    EXPECT_STREQ(last_gerror(2), "(TQ) Unknown dev1");
    add_gerror(2, 14, "dev1");
    EXPECT_STREQ(last_gerror(2), "(TQ) dev1 TQ Error 14");
    add_gerror(2, 1, "plain text");
    EXPECT_STREQ(last_gerror(2), "plain text");

    add_gerror(3, 0, "vault");
    EXPECT_STREQ(last_gerror(3), "(NET) vault Connection refused by peer");
    add_gerror(3, 1, "vault");
    EXPECT_STREQ(last_gerror(3), "(NET) vault Unknown");
    add_gerror(3, ECONNRESET, "vault");
    EXPECT_EQ(std::string(last_gerror(3)), std::string("(NET) vault ") + strerror(ECONNRESET));

    add_gerror(4, 99, "just %s", "this");
    EXPECT_STREQ(last_gerror(4), "just this");

    set_gerror_file("/dev/null");
    add_gerror(2, 5, "dev1");
    EXPECT_STREQ(last_gerror(2), "(TQ) Unknown dev1");
}

TEST_F(GerrorTest, ResolverErrorsOfClassFive)
{
    const char* expected[] = {"No network error reported", "Host was not found", "Please try again",
                              "Non recoverable error", "Name valid, no data record found", "Unknown error"};
    for (int number = 0; number <= 5; ++number) {
        add_gerror(5, number, "host");
        EXPECT_EQ(std::string(last_gerror(5)), std::string("(NETWORK) host ") + expected[number]);
    }
    errno = EHOSTUNREACH;
    add_gerror(5, -1, "host");
    EXPECT_EQ(std::string(last_gerror(5)), std::string("(NETWORK) host ") + strerror(EHOSTUNREACH));
}

TEST_F(GerrorTest, RegisteredClassesAndUnknownOnes)
{
    ASSERT_EQ(add_gerror_class(1, 3, "(DB) ", dbText), 0);
    add_gerror(1, 2, "update");
    EXPECT_STREQ(last_gerror(1), "(DB) update deadlock");
    add_gerror(1, 9, "update");
    EXPECT_STREQ(last_gerror(1), "(DB) update : Error 9 is out of range (Max is 3)");
    ASSERT_EQ(add_gerror_class(-4, 1, "(CRYPTO) ", dbText), 0);
    add_gerror(-4, 1, "call");
    EXPECT_STREQ(last_gerror(-4), "(CRYPTOcall connection lost");  // prefix kept to 7 characters
    add_gerror(-7, 1, "call");
    EXPECT_STREQ(last_gerror(-7), "Unknown error class: -7 call");

    EXPECT_EQ(add_gerror(6, 1, "ignored"), -1);
    const GerrorRecord* records = nullptr;
    EXPECT_EQ(gerror_list(6, &records), 0);
    EXPECT_EQ(gerror_list(1, &records), 4);
    EXPECT_EQ(records[2].cls, -4);
    EXPECT_EQ(records[2].number, 1);
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
    EXPECT_EQ(text.find("add_gerror: m"), std::string::npos);  // level 4 only
}

TEST_F(GerrorTest, TextsAreBounded)
{
    std::string longText(400, 'q');
    add_gerror(4, 0, "%s", longText.c_str());
    EXPECT_EQ(strlen(last_gerror(4)), 256u);
    add_gerror(0, EIO, "%s", longText.c_str());
    EXPECT_EQ(std::string(last_gerror(0)), "(SYS) " + longText.substr(0, 256) + " " + strerror(EIO));
    ASSERT_EQ(add_gerror_class(-9, 0, "(L) ", longName), 0);
    add_gerror(-9, 0, "%s", longText.c_str());
    EXPECT_EQ(strlen(last_gerror(-9)), 511u);
}

TEST_F(GerrorTest, LoggingListingAndClearing)
{
    log_level = 4;
    set_gerror_level(1);
    add_gerror(4, 0, "first");
    EXPECT_EQ(set_gerror_level(3), 1);
    add_gerror(4, 0, "second");
    add_gerror(0, EPERM, "sys");
    EXPECT_EQ(std::string(last_gerror(GERROR_ALL_CLASSES)), std::string("(SYS) sys ") + strerror(EPERM));
    EXPECT_STREQ(last_gerror(4), "second");

    log_gerrors(4, 2);
    std::string text = logText();
    EXPECT_NE(text.find("[LOG4] add_gerror: first"), std::string::npos);
    size_t header = text.find("[LOG2] ===== Gerror: 4 =====");
    size_t first = text.find("[LOG2] first");
    size_t end = text.find("[LOG2] ===== Gerror end =====");
    ASSERT_NE(header, std::string::npos) << text;
    ASSERT_NE(first, std::string::npos);
    ASSERT_NE(end, std::string::npos);
    EXPECT_LT(header, first);
    EXPECT_LT(first, end);
    EXPECT_EQ(text.find("[LOG2] second"), std::string::npos);  // its level is 3

    char* all = gerror_text(GERROR_ALL_CLASSES);
    ASSERT_NE(all, nullptr);
    EXPECT_EQ(std::string(all), std::string("(SYS) sys ") + strerror(EPERM) + "\nfirst\nsecond\n");
    free(all);
    char* four = gerror_text(4);
    ASSERT_NE(four, nullptr);
    EXPECT_STREQ(four, "first\nsecond\n");
    free(four);

    clear_gerror(4);
    EXPECT_EQ(gerror_text(4), nullptr);
    EXPECT_EQ(last_gerror(4), nullptr);
    EXPECT_NE(last_gerror(0), nullptr);
    clear_all_gerrors();
    EXPECT_EQ(gerror_text(GERROR_ALL_CLASSES), nullptr);
    EXPECT_EQ(last_gerror(GERROR_ALL_CLASSES), nullptr);
}

} // namespace
