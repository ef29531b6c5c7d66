// smartbuffer: growth steps of both forms, texts with NULs, hand-over, and
// the sticky error that lets a caller test once after building a statement.
#include "foundation/logger.h"
#include "foundation/smartbuffer.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace {

TEST(SmartBuffer, HeapFormStartsAt2048AndGrowsByTheRule)
{
    smartbuffer buf;
    EXPECT_STREQ(buf.c_str(), "");
    EXPECT_EQ(buf.capacity(), 0u);
    ASSERT_EQ(buf.append("SELECT "), 0);
    EXPECT_EQ(buf.capacity(), 2048u);
    std::string big(2100, 'x');
    ASSERT_EQ(buf.append(big.c_str()), 0);
    // needed = 7 + 2100 + 1 = 2108: (2108 + 2048) / 2048 * 4096 = 8192
    EXPECT_EQ(buf.capacity(), 8192u);
    EXPECT_EQ(buf.length(), 2107u);
    EXPECT_EQ(std::string(buf.c_str()), "SELECT " + big);
}

TEST(SmartBuffer, InlineFormMovesToTheHeapPast2047Bytes)
{
    inline_smartbuffer buf;
    std::string fill(2047, 'a');
    ASSERT_EQ(buf.append(fill.c_str()), 0);
    EXPECT_FALSE(buf.onHeap());
    EXPECT_EQ(buf.capacity(), 2048u);
    ASSERT_EQ(buf.append("b"), 0);
    EXPECT_TRUE(buf.onHeap());
    EXPECT_EQ(buf.capacity(), 8192u);  // (2049 + 2048) / 2048 * 4096
    EXPECT_EQ(std::string(buf.c_str()), fill + "b");
}

TEST(SmartBuffer, FormattedAppendsAndRawBytes)
{
    inline_smartbuffer buf;
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(buf.appendf("%s%d", i ? "," : "", i * 10), 0);
    EXPECT_STREQ(buf.c_str(), "0,10,20");
    ASSERT_EQ(buf.append("\0z", 2), 0);
    EXPECT_EQ(buf.length(), 9u);
    EXPECT_EQ(memcmp(buf.c_str() + 7, "\0z", 3), 0);
    buf.clear();
    EXPECT_STREQ(buf.c_str(), "");
    std::string long1(5000, 'q');
    ASSERT_EQ(buf.appendf("<%s>", long1.c_str()), 0);
    EXPECT_EQ(buf.length(), 5002u);
    EXPECT_EQ(buf.c_str()[5001], '>');
}

TEST(SmartBuffer, ReleaseHandsOverAMallocedCopy)
{
    for (int heapForm = 0; heapForm < 2; ++heapForm) {
        smartbuffer heap;
        inline_smartbuffer inl;
        smartbuffer& buf = heapForm ? heap : static_cast<smartbuffer&>(inl);
        buf.append("1,2,3");
        char* text = buf.release();
        ASSERT_NE(text, nullptr);
        EXPECT_STREQ(text, "1,2,3");
        free(text);
        EXPECT_EQ(buf.length(), 0u);
        EXPECT_STREQ(buf.c_str(), "");
        ASSERT_EQ(buf.append("again"), 0);
        EXPECT_STREQ(buf.c_str(), "again");
    }
}

TEST(SmartBuffer, FailureIsStickyAndLogged)
{
    FILE* capture = tmpfile();
    FILE* old = swap_log_stream(capture);
    int savedLevel = log_level;
    log_level = 0;

    smartbuffer buf;
    ASSERT_EQ(buf.append("start"), 0);
    // Beyond what a query buffer may grow to: refused and remembered.
    EXPECT_EQ(buf.reserve(static_cast<size_t>(1) << 40), -1);
    EXPECT_TRUE(buf.failed());
    EXPECT_EQ(buf.append("more"), -1);
    EXPECT_EQ(buf.appendf("%d", 1), -1);
    EXPECT_EQ(buf.release(), nullptr);
    EXPECT_STREQ(buf.c_str(), "start");
    buf.reset();
    EXPECT_FALSE(buf.failed());
    EXPECT_EQ(buf.append("fresh"), 0);
    EXPECT_STREQ(buf.c_str(), "fresh");

    fflush(capture);
    rewind(capture);
    char line[512] = "";
    size_t n = fread(line, 1, sizeof(line) - 1, capture);
    line[n] = '\0';
    EXPECT_NE(strstr(line, "Could not grow heap-based query buffer to"), nullptr) << line;
    swap_log_stream(old != nullptr ? old : stderr);
    fclose(capture);
    log_level = savedLevel;
}

} // namespace
