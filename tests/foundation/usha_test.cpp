// The SHA front end: the five algorithms give the published digests, in one
// piece or many, through one context reset between digests as the backup
// writer uses it; the result codes and sizes follow the table.
#include "foundation/usha.h"

#include <algorithm>
#include <cstdio>
#include <gtest/gtest.h>
#include <string>

TEST(USHA, KnownDigestsInOnePieceOrManyThroughOneContext)
{
    const std::string abc = "abc", two = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
    const struct { int which; const std::string& text; const char* digest; } cases[] = {
        {USHA_SHA1, abc, "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {USHA_SHA224, abc, "23097d223405d8228642a477bda255b32aadbce4bda0b3f7e36c9da7"},
        {USHA_SHA256, abc, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {USHA_SHA384, abc, "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded163"
                           "1a8b605a43ff5bed8086072ba1e7cc2358baeca134c825a7"},
        {USHA_SHA512, abc, "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
                           "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f"},
        {USHA_SHA256, two, "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},  // padding: 2 blocks
    };
    USHAContext ctx{};
    for (const auto& c : cases) {
        for (size_t piece : {c.text.size(), size_t{1}, size_t{7}}) {
            SCOPED_TRACE(std::to_string(c.which) + " in pieces of " + std::to_string(piece));
            ASSERT_EQ(USHAReset(&ctx, c.which), USHA_SUCCESS);
            for (size_t at = 0; at < c.text.size(); at += piece) {
                const size_t n = std::min(piece, c.text.size() - at);
                ASSERT_EQ(USHAInput(&ctx, reinterpret_cast<const uint8_t*>(c.text.data() + at), n), USHA_SUCCESS);
            }
            uint8_t digest[USHAMaxHashSize];
            ASSERT_EQ(USHAResult(&ctx, digest), USHA_SUCCESS);
            char hex[2 * USHAMaxHashSize + 1] = "";
            for (int i = 0; i < USHAHashSize(c.which); ++i)
                snprintf(hex + 2 * i, 3, "%02x", digest[i]);
            EXPECT_STREQ(hex, c.digest);
        }
    }
    USHARelease(&ctx);
}

TEST(USHA, ResultCodesForMissingContextAndBadAlgorithm)
{
    uint8_t digest[USHAMaxHashSize];
    EXPECT_EQ(USHAReset(nullptr, USHA_SHA1), USHA_NULL);
    EXPECT_EQ(USHAInput(nullptr, reinterpret_cast<const uint8_t*>("a"), 1), USHA_NULL);
    EXPECT_EQ(USHAResult(nullptr, digest), USHA_NULL);
    EXPECT_EQ(USHAFinalBits(nullptr, 0, 3), USHA_NULL);

    // A bad reset, even after a good one, stores the value and leaves no digest to feed.
    USHAContext ctx{};
    ASSERT_EQ(USHAReset(&ctx, USHA_SHA1), USHA_SUCCESS);
    EXPECT_EQ(USHAReset(&ctx, 5), USHA_BAD_PARAM);
    EXPECT_EQ(ctx.whichSha, 5);
    EXPECT_EQ(USHAInput(&ctx, reinterpret_cast<const uint8_t*>("a"), 1), USHA_NULL);
    EXPECT_EQ(USHAResult(&ctx, digest), USHA_NULL);
    EXPECT_EQ(USHAFinalBits(&ctx, 0x80, 1), USHA_BAD_PARAM);
    USHARelease(&ctx);
}

TEST(USHA, SizesFollowTheTableAndAnythingAbove3IsSha512)
{
    const int hashSize[] = {20, 28, 32, 48, 64, 64, 64}, blockSize[] = {64, 64, 64, 128, 128, 128, 128};
    for (int which : {0, 1, 2, 3, 4, 7, 100}) {
        const int row = std::min(which, 6);
        EXPECT_EQ(USHAHashSize(which), hashSize[row]) << which;
        EXPECT_EQ(USHAHashSizeBits(which), hashSize[row] * 8) << which;
        EXPECT_EQ(USHABlockSize(which), blockSize[row]) << which;
    }
}
