// The SHA front end: the five algorithms give the published digests, in one
// piece or many, and the result codes follow the table.
#include "foundation/usha.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>

namespace {

std::string hex(const uint8_t* bytes, int n)
{
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (int i = 0; i < n; ++i) {
        s += digits[bytes[i] >> 4];
        s += digits[bytes[i] & 15];
    }
    return s;
}

std::string digestOf(int which, const std::string& text, size_t pieceSize)
{
    USHAContext ctx{};
    EXPECT_EQ(USHAReset(&ctx, which), USHA_SUCCESS);
    for (size_t at = 0; at < text.size(); at += pieceSize) {
        size_t n = std::min(pieceSize, text.size() - at);
        EXPECT_EQ(USHAInput(&ctx, reinterpret_cast<const uint8_t*>(text.data() + at), n), USHA_SUCCESS);
    }
    uint8_t digest[USHAMaxHashSize];
    EXPECT_EQ(USHAResult(&ctx, digest), USHA_SUCCESS);
    USHARelease(&ctx);
    return hex(digest, USHAHashSize(which));
}

} // namespace

TEST(USHA, EachAlgorithmGivesThePublishedDigestOfAbc)
{
    const char* expected[] = {
        "a9993e364706816aba3e25717850c26c9cd0d89d",
        "23097d223405d8228642a477bda255b32aadbce4bda0b3f7e36c9da7",
        "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad",
        "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed8086072ba1e7cc2358baeca134c825a7",
        "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
        "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f",
    };
    for (int which = USHA_SHA1; which <= USHA_SHA512; ++which)
        EXPECT_EQ(digestOf(which, "abc", 3), expected[which]) << which;
}

TEST(USHA, PiecesGiveTheSameDigestAsOneInputAndAContextIsReusable)
{
    std::string text;
    for (int i = 0; i < 10000; ++i)
        text += static_cast<char>(i * 7);
    for (int which = USHA_SHA1; which <= USHA_SHA512; ++which) {
        std::string whole = digestOf(which, text, text.size());
        EXPECT_EQ(digestOf(which, text, 1), whole);
        EXPECT_EQ(digestOf(which, text, 127), whole);
    }
    // One context reset between two digests, as the backup writer does.
    USHAContext ctx{};
    uint8_t first[USHAMaxHashSize], second[USHAMaxHashSize];
    ASSERT_EQ(USHAReset(&ctx, USHA_SHA256), 0);
    USHAInput(&ctx, reinterpret_cast<const uint8_t*>("abc"), 3);
    USHAResult(&ctx, first);
    ASSERT_EQ(USHAReset(&ctx, USHA_SHA256), 0);
    USHAInput(&ctx, reinterpret_cast<const uint8_t*>("abc"), 3);
    USHAResult(&ctx, second);
    EXPECT_EQ(memcmp(first, second, 32), 0);
    USHARelease(&ctx);
}

TEST(USHA, ResultCodesForMissingContextAndBadAlgorithm)
{
    EXPECT_EQ(USHAReset(nullptr, USHA_SHA1), USHA_NULL);
    EXPECT_EQ(USHAInput(nullptr, reinterpret_cast<const uint8_t*>("a"), 1), USHA_NULL);
    uint8_t digest[USHAMaxHashSize];
    EXPECT_EQ(USHAResult(nullptr, digest), USHA_NULL);
    EXPECT_EQ(USHAFinalBits(nullptr, 0, 3), USHA_NULL);

    USHAContext ctx{};
    EXPECT_EQ(USHAReset(&ctx, 5), USHA_BAD_PARAM);
    EXPECT_EQ(ctx.whichSha, 5);  // stored all the same
    EXPECT_EQ(USHAInput(&ctx, reinterpret_cast<const uint8_t*>("a"), 1), USHA_NULL) << "no digest to feed";
    EXPECT_EQ(USHAResult(&ctx, digest), USHA_NULL);

    // A bad reset after a good one leaves no digest of the old algorithm.
    ASSERT_EQ(USHAReset(&ctx, USHA_SHA1), USHA_SUCCESS);
    EXPECT_EQ(USHAReset(&ctx, 9), USHA_BAD_PARAM);
    EXPECT_EQ(USHAResult(&ctx, digest), USHA_NULL);
    EXPECT_EQ(USHAFinalBits(&ctx, 0x80, 1), USHA_BAD_PARAM);
    USHARelease(&ctx);
}

TEST(USHA, SizesFollowTheTableAndAnythingAbove3IsSha512)
{
    const int hashSize[] = {20, 28, 32, 48, 64};
    const int blockSize[] = {64, 64, 64, 128, 128};
    for (int which = 0; which <= 4; ++which) {
        EXPECT_EQ(USHAHashSize(which), hashSize[which]);
        EXPECT_EQ(USHAHashSizeBits(which), hashSize[which] * 8);
        EXPECT_EQ(USHABlockSize(which), blockSize[which]);
    }
    EXPECT_EQ(USHAHashSize(7), 64);
    EXPECT_EQ(USHAHashSizeBits(100), 512);
    EXPECT_EQ(USHABlockSize(5), 128);
}
