// smartbuffer: the growth steps of both forms with text kept across the
// move to the heap, and the sticky error that lets a caller test once after
// building a whole statement.
#include "foundation/smartbuffer.h"
#include "harness/log_capture.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

TEST(SmartBuffer, BothFormsGrowByTheRuleAndKeepTheirText)
{
    // The first 2048 bytes, then (needed + 2048) / 2048 * 4096, the NUL counted in what is needed.
    const struct { size_t length; size_t capacity; } steps[] = {{2047, 2048}, {2048, 8192}, {4095, 12288}};
    for (const auto& step : steps) {
        smartbuffer heap;
        inline_smartbuffer inl;
        for (smartbuffer* buf : {&heap, static_cast<smartbuffer*>(&inl)}) {
            SCOPED_TRACE((buf == &heap ? "heap form, " : "inline form, ") + std::to_string(step.length));
            std::string want = "<" + std::string(step.length - 2, 'x') + ">";
            ASSERT_EQ(buf->append("<"), 0);
            ASSERT_EQ(buf->appendf("%s>", want.substr(1, step.length - 2).c_str()), 0);
            EXPECT_EQ(buf->capacity(), step.capacity);
            EXPECT_EQ(buf->onHeap(), buf == &heap || step.capacity > 2048);
            ASSERT_EQ(buf->append("\0z", 2), 0);
            EXPECT_EQ(std::string(buf->c_str(), buf->length()), want + std::string("\0z", 2));
            char* text = buf->release();
            EXPECT_EQ(std::string(text ? text : "<none>"), want);
            free(text);
            EXPECT_STREQ(buf->c_str(), "");
        }
    }
}

TEST(SmartBuffer, FailureIsStickyAndLoggedUntilReset)
{
    ferrytest::LogCapture log(0);
    smartbuffer buf;
    ASSERT_EQ(buf.append("start"), 0);
    // Beyond what a query buffer may grow to: refused and remembered.
    EXPECT_EQ(buf.reserve(static_cast<size_t>(1) << 40), -1);
    EXPECT_EQ(buf.append("more"), -1);
    EXPECT_EQ(buf.appendf("%d", 1), -1);
    EXPECT_STREQ(buf.c_str(), "start");
    buf.clear();
    EXPECT_EQ(buf.append("after clear"), -1);
    EXPECT_TRUE(buf.failed());
    EXPECT_EQ(buf.release(), nullptr);
    EXPECT_NE(log.text().find("Could not grow heap-based query buffer to"), std::string::npos) << log.text();
    buf.reset();
    EXPECT_EQ(buf.append("fresh"), 0);
    EXPECT_STREQ(buf.c_str(), "fresh");
}

} // namespace
