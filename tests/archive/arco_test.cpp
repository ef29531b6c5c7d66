// The arco header: every header written passes the check and reads back the
// same; long names, the big-size form, the header check with its reasons,
// dedup reference text, the token test and stream detection.
#include "archive/arco.h"

#include "foundation/environment.h"
#include "foundation/logger.h"
#include "harness/appliance_root.h"
#include "harness/log_capture.h"

#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace {

using ferrytest::countOf;
using ferrytest::LogCapture;

arco_header headerOf(const std::string& blocks)
{
    arco_header h;
    memcpy(h.b, blocks.data(), sizeof h.b);
    return h;
}

// Encodes `e`, checks the header and returns what a reader gets back.
ArcoEntry roundTrip(const ArcoEntry& e, ArcoLayout* layoutOut = nullptr)
{
    std::string blocks;
    long n = arco_encode_entry(e, &blocks);
    EXPECT_GE(n, 1);
    EXPECT_EQ(blocks.size(), static_cast<size_t>(n) * ARCO_BLOCKSIZE);
    arco_header h = headerOf(blocks);
    const char* reason = nullptr;
    EXPECT_EQ(is_tar(h.b, &reason), 1) << "refused because " << (reason ? reason : "?") << " name " << e.name.size();
    ArcoLayout layout;
    EXPECT_EQ(arco_entry_layout(h, &layout), 0);
    EXPECT_EQ(layout.extBlocks + 1, static_cast<uint64_t>(n));
    ArcoEntry back;
    EXPECT_EQ(arco_decode_entry(h, blocks.data() + ARCO_BLOCKSIZE, blocks.size() - ARCO_BLOCKSIZE, &back), 0);
    if (layoutOut)
        *layoutOut = layout;
    return back;
}

void expectSameEntry(const ArcoEntry& a, const ArcoEntry& b)
{
    EXPECT_EQ(a.name, b.name);
    EXPECT_EQ(a.link, b.link);
    EXPECT_EQ(a.linkflag, b.linkflag);
    EXPECT_EQ(a.mode, b.mode);
    EXPECT_EQ(a.uid, b.uid);
    EXPECT_EQ(a.gid, b.gid);
    EXPECT_EQ(a.mtime, b.mtime);
    EXPECT_EQ(a.realSize, b.realSize);
    EXPECT_EQ(a.dataSize, b.dataSize);
    EXPECT_EQ(a.partNo, b.partNo);
    EXPECT_EQ(a.partCount, b.partCount);
}

ArcoEntry regular(const std::string& name, uint64_t size)
{
    ArcoEntry e;
    e.name = name;
    e.linkflag = ARCO_REGULAR;
    e.mode = 0100644;
    e.uid = 1000;
    e.gid = 100;
    e.mtime = 1700000000;
    e.realSize = size;
    e.dataSize = size;
    return e;
}

std::string pathOfLength(size_t n)
{
    std::string s;
    for (size_t i = 0; i < n; ++i)
        s += (i % 10 == 9) ? '/' : static_cast<char>('a' + i % 26);
    s[0] = '/';
    if (s.back() == '/')
        s.back() = 'z';
    return s;
}

arco_header validHeader()
{
    return headerOf([] {
        std::string b;
        arco_encode_entry(regular("/etc/hosts", 42), &b);
        return b;
    }());
}

} // namespace

TEST(ArcoRoundTrip, EveryKindOfEntryReadsBackTheSameFields)
{
    std::vector<ArcoEntry> entries;
    entries.push_back(regular("/home/user/notes.txt", 12345));
    entries.push_back(regular("/home/user/empty", 0));
    ArcoEntry dir = regular("/home/user", 0);
    dir.linkflag = ARCO_DIRECTORY;
    dir.mode = 040755;
    entries.push_back(dir);
    ArcoEntry sym = regular("/home/user/link", 0);
    sym.linkflag = ARCO_SYMLINK;
    sym.link = "../other/target file";
    sym.mode = 0120777;
    entries.push_back(sym);
    ArcoEntry hard = regular("/home/user/second", 12345);
    hard.linkflag = ARCO_HARDLINK;
    hard.link = "/home/user/notes.txt";
    hard.dataSize = 0;
    entries.push_back(hard);
    ArcoEntry vdisk = regular("/vm/disk.vmdk", 1 << 20);
    vdisk.linkflag = FT_VDISK;
    entries.push_back(vdisk);
    ArcoEntry part = regular("/big/split", 4096);
    part.partNo = 2;
    part.partCount = 2;
    entries.push_back(part);
    for (const ArcoEntry& e : entries) {
        SCOPED_TRACE(e.name);
        expectSameEntry(roundTrip(e), e);
    }
}

TEST(ArcoRoundTrip, NamesOfOneTo400CharactersFitTheRegularHeader)
{
    for (size_t n = 1; n <= ARCO_MAX_REGULAR_NAME; ++n) {
        ArcoEntry e = regular(std::string(n, 'n'), n);
        e.name[0] = '/';
        std::string blocks;
        ASSERT_EQ(arco_encode_entry(e, &blocks), 1) << n;
        ArcoEntry back = roundTrip(e);
        ASSERT_EQ(back.name, e.name) << n;
        // Piece 159 is used only past 170 characters, and flag 64 says so.
        arco_header h = headerOf(blocks);
        EXPECT_EQ((arco_get_flags(h) & ARCO_FLAG_NAME_IN_LINKNAME) != 0, n > 170) << n;
    }
}

TEST(ArcoRoundTrip, LongerNamesGoThroughTheExtendedHeader)
{
    for (size_t n : {401, 511, 512, 513, 1000, 4096, 20000}) {
        ArcoEntry e = regular(pathOfLength(n), 77);
        ArcoLayout layout;
        ArcoEntry back = roundTrip(e, &layout);
        EXPECT_EQ(back.name, e.name) << n;
        EXPECT_EQ(layout.extBlocks, (n + 511) / 512) << n;
        EXPECT_EQ(layout.payloadBlocks, 1u);
        EXPECT_EQ(back.dataSize, 77u);
    }
}

TEST(ArcoRoundTrip, LinksUpTo170FitAndLongerOnesUseTheExtendedHeader)
{
    for (size_t nameLength : {1, 100, 101, 170, 171, 600}) {
        for (size_t targetLength : {1, 100, 170, 171, 900}) {
            ArcoEntry e = regular(pathOfLength(nameLength), 0);
            e.linkflag = ARCO_SYMLINK;
            e.link = pathOfLength(targetLength);
            ArcoLayout layout;
            ArcoEntry back = roundTrip(e, &layout);
            EXPECT_EQ(back.name, e.name) << nameLength << "/" << targetLength;
            EXPECT_EQ(back.link, e.link) << nameLength << "/" << targetLength;
            const bool extended = nameLength > 170 || targetLength > 170;
            EXPECT_EQ(layout.extBlocks > 0, extended);
        }
    }
}

TEST(ArcoNames, HundredCharacterNameWithNothingAt368IsJustThoseHundred)
{
    arco_header h{};
    std::string name(100, 'x');
    memcpy(h.b, name.data(), 100);
    EXPECT_EQ(arco_get_name(h), name);
    // With byte 99 full the reader goes on to 368.
    memcpy(h.b + 368, "tail", 4);
    EXPECT_EQ(arco_get_name(h), name + "tail");
    // A NUL at byte 99 stops it there.
    h.b[99] = 0;
    EXPECT_EQ(arco_get_name(h), std::string(99, 'x'));
}

TEST(ArcoNames, WritersRefuseWhatTheRegularHeaderCannotHold)
{
    LogCapture log(0);
    arco_header h{};
    EXPECT_EQ(arco_set_name(h, std::string(401, 'a')), -1);
    EXPECT_EQ(arco_set_name(h, std::string(400, 'a')), 0);
    EXPECT_EQ(arco_set_link(h, std::string(171, 'a'), "t"), -1);
    EXPECT_EQ(arco_set_link(h, "n", std::string(171, 'b')), -1);
    EXPECT_EQ(arco_set_link(h, std::string(170, 'a'), std::string(170, 'b')), 0);
    std::string text = log.text();
    EXPECT_EQ(countOf(text, "Name too long for regular header: "), 1u);
    EXPECT_EQ(countOf(text, "Name/link too long for regular header: "), 2u);
}

TEST(ArcoNames, TargetPrefixAtAtAtIsDroppedWhenWritten)
{
    ArcoEntry e = regular("/a/link", 0);
    e.linkflag = ARCO_SYMLINK;
    e.link = "@@@:/real/target";
    EXPECT_EQ(roundTrip(e).link, "/real/target");
}

TEST(ArcoNames, HardLinkTargetWithoutSlashLivesInTheLinksDirectory)
{
    ArcoEntry e = regular("/data/dir/second", 10);
    e.linkflag = ARCO_HARDLINK;
    e.link = "first";
    e.dataSize = 0;
    EXPECT_EQ(roundTrip(e).link, "/data/dir/first");
    e.name = "second";  // no directory to borrow
    EXPECT_EQ(roundTrip(e).link, "first");
}

TEST(ArcoBigSize, EncodesSixBitsPerCharacterLeastSignificantFirst)
{
    char field[12];
    arco_encode_bigsize(field, 0);
    EXPECT_EQ(std::string(field, 12), std::string("#......\0\0\0\0\0", 12));
    arco_encode_bigsize(field, uint64_t{1} << 30);
    EXPECT_EQ(std::string(field, 12), std::string("#...../\0\0\0\0\0", 12));
    // Bit 32 is bit 2 of character 6; the high word being set, all 11 follow.
    arco_encode_bigsize(field, uint64_t{1} << 32);
    EXPECT_EQ(std::string(field, 12), "#.....2.....");
    arco_encode_bigsize(field, uint64_t{1} << 36);
    EXPECT_EQ(std::string(field, 12), "#....../....");
}

TEST(ArcoBigSize, RoundTripsInBothDirections)
{
    const uint64_t values[] = {0,
                               1,
                               (uint64_t{1} << 32) - 1,
                               uint64_t{1} << 32,
                               uint64_t{1} << 33,
                               uint64_t{1} << 36,
                               0x123456789ABCDEFull,
                               (uint64_t{1} << 63) - 1,
                               ~uint64_t{0}};
    for (uint64_t v : values) {
        char field[12];
        arco_encode_bigsize(field, v);
        EXPECT_EQ(arco_decode_bigsize(field), v) << v;
        arco_header h{};
        memcpy(h.b + ARCO_SIZE.offset, field, 12);
        EXPECT_EQ(arco_get_size(h), v) << v;
    }
}

TEST(ArcoBigSize, SizeFieldsSwitchToTheBigFormAtEightGiB)
{
    arco_header h{};
    arco_set_size(h, (uint64_t{1} << 33) - 1);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(h.b + ARCO_SIZE.offset)), "77777777777");
    EXPECT_EQ(arco_get_size(h), (uint64_t{1} << 33) - 1);
    arco_set_size(h, uint64_t{1} << 33);
    EXPECT_EQ(h.b[ARCO_SIZE.offset], '#');
    EXPECT_EQ(arco_get_size(h), uint64_t{1} << 33);
    arco_set_real_size(h, uint64_t{5} << 40);
    EXPECT_EQ(h.b[ARCO_REAL_SIZE.offset], '#');
    EXPECT_EQ(arco_get_real_size(h), uint64_t{5} << 40);
}

TEST(ArcoBigSize, ReaderStopsAtTheFirstByteOutsideTheAlphabet)
{
    char field[12];
    memcpy(field, "#1-11111111", 12);  // '-' is not in the alphabet
    EXPECT_EQ(arco_decode_bigsize(field), 3u);
    memcpy(field, "#zzzzzzzzzzz", 12);  // no terminator: bounded by the field
    EXPECT_EQ(arco_decode_bigsize(field), ~uint64_t{0});
}

TEST(ArcoBigSize, EntriesOverEightGiBDescribeTheirPayloadBlocks)
{
    for (uint64_t size : {uint64_t{1} << 33, (uint64_t{1} << 36) + 1, (uint64_t{1} << 62)}) {
        ArcoLayout layout;
        ArcoEntry back = roundTrip(regular("/vm/disk.img", size), &layout);
        EXPECT_EQ(back.dataSize, size);
        EXPECT_EQ(back.realSize, size);
        EXPECT_EQ(layout.payloadBlocks, (size + 511) / 512);
    }
}

TEST(ArcoLayoutTest, HardLinkWhoseRealSizeEqualsItsSizeStoresNoPayload)
{
    ArcoEntry e = regular("/a/b", 1 << 20);
    e.linkflag = ARCO_HARDLINK;
    e.link = "/a/c";
    e.dataSize = 0;
    std::string blocks;
    arco_encode_entry(e, &blocks);
    arco_header h = headerOf(blocks);
    EXPECT_EQ(arco_get_size(h), arco_get_real_size(h));
    ArcoLayout layout;
    ASSERT_EQ(arco_entry_layout(h, &layout), 0);
    EXPECT_EQ(layout.payloadBlocks, 0u);
    EXPECT_EQ(arco_entry_blocks(layout), 1u);

    // What size exceeds the real size by is stored, rounded up to blocks.
    arco_set_size(h, (1 << 20) + 700);
    ASSERT_EQ(arco_entry_layout(h, &layout), 0);
    EXPECT_EQ(layout.payloadBlocks, 2u);
    EXPECT_EQ(layout.dataSize, 700u);
}

TEST(ArcoLayoutTest, HardLinkWithLongNameCountsItsExtendedBlocksInTheSize)
{
    ArcoEntry e = regular(pathOfLength(700), 5000);
    e.linkflag = ARCO_HARDLINK;
    e.link = pathOfLength(300);
    e.dataSize = 0;
    ArcoLayout layout;
    ArcoEntry back = roundTrip(e, &layout);
    EXPECT_EQ(back.link, e.link);
    EXPECT_EQ(layout.extBlocks, 3u);
    EXPECT_EQ(layout.payloadBlocks, 0u);
}

TEST(ArcoCheck, AllZeroBlockIsNoHeaderButTheSentinelIs)
{
    arco_header zero{};
    const char* reason = nullptr;
    EXPECT_EQ(is_tar(zero.b, &reason), 0);
    EXPECT_STREQ(reason, "checksum");
    EXPECT_FALSE(arco_is_end(zero.b));

    arco_header sentinel;
    arco_make_sentinel(sentinel);
    EXPECT_EQ(arco_checksum(sentinel), 256u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(sentinel.b + ARCO_CHKSUM.offset)), "0000400");
    EXPECT_EQ(is_tar(sentinel.b, &reason), 1);
    EXPECT_TRUE(arco_is_end(sentinel.b));
    EXPECT_FALSE(arco_is_end(validHeader().b));
}

TEST(ArcoCheck, BytesAbove127CountNegative)
{
    ArcoEntry e = regular("/home/jos\xC3\xA9/caf\xC3\xA9", 1);
    std::string blocks;
    arco_encode_entry(e, &blocks);
    arco_header h = headerOf(blocks);
    EXPECT_EQ(is_tar(h.b), 1);

    // The same header summed with unsigned bytes is refused.
    unsigned sum = 256;
    for (size_t i = 0; i < ARCO_BLOCKSIZE; ++i)
        if (i < 148 || i >= 156)
            sum += h.b[i];
    ASSERT_NE(sum & 0xFFFF, arco_checksum(h));
    snprintf(reinterpret_cast<char*>(h.b + ARCO_CHKSUM.offset), 8, "%07o", sum & 0xFFFF);
    const char* reason = nullptr;
    EXPECT_EQ(is_tar(h.b, &reason), 0);
    EXPECT_STREQ(reason, "checksum");
}

TEST(ArcoCheck, BadGidAndNonBlankTailsAreRefusedWithTheirReasons)
{
    const char* reason = nullptr;
    arco_header h = validHeader();
    h.b[ARCO_GID.offset] = '9';
    arco_set_checksum(h);
    EXPECT_EQ(is_tar(h.b, &reason), 0);
    EXPECT_STREQ(reason, "Gid");

    h = validHeader();
    h.b[20] = 'x';  // after the name's NUL
    arco_set_checksum(h);
    EXPECT_EQ(is_tar(h.b, &reason), 0);
    EXPECT_STREQ(reason, "Non-blank name");

    h = validHeader();
    h.b[200] = 'x';  // linkname area of a regular file without flag 64
    arco_set_checksum(h);
    EXPECT_EQ(is_tar(h.b, &reason), 0);
    EXPECT_STREQ(reason, "Non-blank linkname");
    arco_set_flags(h, ARCO_FLAG_NAME_IN_LINKNAME);
    arco_set_checksum(h);
    EXPECT_EQ(is_tar(h.b, &reason), 1);

    // Extended headers skip the name tests: their name area holds numbers.
    ArcoEntry e = regular(pathOfLength(600), 1);
    std::string blocks;
    arco_encode_entry(e, &blocks);
    EXPECT_EQ(is_tar(blocks.data(), &reason), 1);
}

TEST(ArcoCheck, BlankGidIsAcceptedOnlyWithTarCompatibility)
{
    ferrytest::ApplianceRoot root;
    g_master_ini = root.masterIni();
    arco_header h = validHeader();
    memcpy(h.b + ARCO_GID.offset, "    144", 8);
    arco_set_checksum(h);

    arco_reload_settings();
    EXPECT_EQ(is_tar(h.b), 0);
    root.writeMasterIni("[Configuration Options]\nINCL_TAR_COMPAT=1\n");
    EXPECT_EQ(is_tar(h.b), 0) << "the setting is read once per process";
    arco_reload_settings();
    EXPECT_EQ(is_tar(h.b), 1);
    EXPECT_EQ(arco_get_gid(h), 0144u);
    arco_reload_settings();
    g_master_ini.clear();
}

TEST(ArcoCheck, RunsOfRefusalsAreLoggedFirstThreeThenEvery512th)
{
    LogCapture log(5);
    arco_header ok = validHeader();
    ASSERT_EQ(is_tar(ok.b), 1);  // ends any earlier run
    arco_header junk{};
    memset(junk.b, 'q', sizeof junk.b);
    for (int i = 0; i < 1100; ++i)
        EXPECT_EQ(is_tar(junk.b), 0);
    std::string text = log.text();
    EXPECT_EQ(countOf(text, "Not a header because checksum"), 5u);  // 1, 2, 3, 512, 1024
    EXPECT_EQ(countOf(text, "Not a header because checksum\n"), 1u);
    EXPECT_EQ(countOf(text, "(repeated 2 times)"), 1u);
    EXPECT_EQ(countOf(text, "(repeated 512 times)"), 1u);
    EXPECT_EQ(countOf(text, "(repeated 1024 times)"), 1u);

    ASSERT_EQ(is_tar(ok.b), 1);  // a header ends the run
    EXPECT_EQ(is_tar(junk.b), 0);
    EXPECT_EQ(countOf(log.text(), "Not a header because checksum\n"), 2u);
}

TEST(ArcoFields, EveryFieldHasAReaderAndAWriter)
{
    arco_header h{};
    EXPECT_EQ(arco_set_mode(h, 0100755), 0);
    EXPECT_EQ(arco_set_uid(h, 4242), 0);
    EXPECT_EQ(arco_set_gid(h, 77), 0);
    arco_set_size(h, 123456);
    EXPECT_EQ(arco_set_mtime(h, 1600000000), 0);
    arco_set_linkflag(h, ARCO_DEDUP);
    EXPECT_EQ(arco_set_part_no(h, 1), 0);
    EXPECT_EQ(arco_set_part_count(h, 2), 0);
    arco_set_real_size(h, 654321);
    EXPECT_EQ(arco_set_flags(h, 64), 0);
    arco_set_checksum(h);
    EXPECT_EQ(arco_get_mode(h), 0100755u);
    EXPECT_EQ(arco_get_uid(h), 4242u);
    EXPECT_EQ(arco_get_gid(h), 77u);
    EXPECT_EQ(arco_get_size(h), 123456u);
    EXPECT_EQ(arco_get_mtime(h), 1600000000);
    EXPECT_EQ(arco_get_linkflag(h), 'D');
    EXPECT_EQ(arco_get_part_no(h), 1u);
    EXPECT_EQ(arco_get_part_count(h), 2u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(h.b + ARCO_PART_NO.offset)), "001");
    EXPECT_EQ(arco_get_real_size(h), 654321u);
    EXPECT_EQ(arco_get_flags(h), 64u);
    EXPECT_EQ(arco_get_chksum(h), arco_checksum(h));
    // Values too wide for their field are refused and leave it alone.
    EXPECT_EQ(arco_set_uid(h, 010000000), -1);
    EXPECT_EQ(arco_get_uid(h), 4242u);
    EXPECT_EQ(arco_set_part_no(h, 01000), -1);
}

TEST(ArcoFields, GarbageInNumericFieldsReadsAsItsOctalPrefix)
{
    arco_header h{};
    memcpy(h.b + ARCO_MODE.offset, " \t0644x7", 8);
    EXPECT_EQ(arco_get_mode(h), 0644u);
    memcpy(h.b + ARCO_SIZE.offset, "zz99", 4);
    EXPECT_EQ(arco_get_size(h), 0u);
    memcpy(h.b + ARCO_SIZE.offset, "777777777777", 12);  // no NUL: the field ends it
    EXPECT_EQ(arco_get_size(h), (uint64_t{1} << 36) - 1);
    memcpy(h.b + ARCO_UID.offset, "12345678", 8);
    EXPECT_EQ(arco_get_uid(h), 01234567u);  // 8 and 9 are not octal
}

TEST(ArcoExtended, StatedSizeTooSmallForTheNamesIsAnError)
{
    LogCapture log(0);
    std::string blocks;
    arco_encode_entry(regular(pathOfLength(1500), 0), &blocks);  // 3 extended blocks
    arco_header h = headerOf(blocks);
    arco_set_size(h, 2 * 512);
    arco_set_checksum(h);
    ASSERT_EQ(is_tar(h.b), 1);
    ArcoLayout layout;
    EXPECT_EQ(arco_entry_layout(h, &layout), -1);
    ArcoEntry e;
    EXPECT_EQ(arco_decode_entry(h, blocks.data() + 512, blocks.size() - 512, &e), -1);
    EXPECT_EQ(countOf(log.text(), "Failed reading archive: name size greater than file size"), 2u);

    arco_set_size(h, 2 * 512 + 1);  // rounds up to the three blocks
    arco_set_checksum(h);
    EXPECT_EQ(arco_entry_layout(h, &layout), 0);
    EXPECT_EQ(layout.payloadBlocks, 0u);
}

TEST(ArcoExtended, ShortAreaOrNamesWithoutNulNeverReadPastTheBuffer)
{
    LogCapture log(0);
    std::string name = pathOfLength(1200);
    std::string blocks;
    arco_encode_entry(regular(name, 0), &blocks);
    arco_header h = headerOf(blocks);
    std::vector<char> exact(blocks.begin() + 512, blocks.end());
    ArcoEntry e;
    // One byte short of the extended area: refused, not read.
    std::unique_ptr<char[]> shorter(new char[exact.size() - 1]);
    memcpy(shorter.get(), exact.data(), exact.size() - 1);
    EXPECT_EQ(arco_decode_entry(h, shorter.get(), exact.size() - 1, &e), -1);
    EXPECT_EQ(arco_decode_entry(h, nullptr, 0, &e), -1);

    // A stated name length beyond the cap reads 32767 bytes without a NUL.
    const size_t big = 40000;
    arco_set_octal(h, ARCO_EXT_NAME_LEN, big);
    arco_set_size(h, (big + 511) / 512 * 512);
    arco_set_checksum(h);
    std::unique_ptr<char[]> area(new char[(big + 511) / 512 * 512]);
    memset(area.get(), 'k', (big + 511) / 512 * 512);
    ASSERT_EQ(arco_decode_entry(h, area.get(), (big + 511) / 512 * 512, &e), 0);
    EXPECT_EQ(e.name.size(), ARCO_MAX_EXT_NAME);
}

TEST(ArcoDedup, PrefixFormatsAndParsesBack)
{
    char buf[128];
    int n = arco_format_dedup_prefix(buf, sizeof buf, "inlineDedup", 0x1A00, '0');
    ASSERT_GT(n, 0);
    EXPECT_STREQ(buf, "inlineDedup,0x1A00,0x30,dedup;");
    char small[10];
    EXPECT_EQ(arco_format_dedup_prefix(small, sizeof small, "inlineDedup", 0, '0'), -1);
    std::vector<char> exact(buf, buf + n);  // no NUL behind it
    ArcoDedupPrefix p;
    EXPECT_EQ(arco_parse_dedup_prefix(exact.data(), exact.size(), &p), n);
    EXPECT_EQ(p.program, "inlineDedup");
    EXPECT_EQ(p.headerOffset, 0x1A00u);
    EXPECT_EQ(p.linkflag, '0');
}

TEST(ArcoDedup, BadPrefixesAreRefused)
{
    LogCapture log(0);
    ArcoDedupPrefix p;
    for (const char* text : {"inlineDedup", "inlineDedup,0x10", "x,0x10,0x30,dedupe", "x,0x10,0x30,copy;",
                             "x,zz,0x30,dedup;", "x,0x10,0x130,dedup;", "x,,0x30,dedup;"}) {
        std::vector<char> exact(text, text + strlen(text));
        EXPECT_EQ(arco_parse_dedup_prefix(exact.data(), exact.size(), &p), -1) << text;
    }
    EXPECT_EQ(countOf(log.text(), "Wrong reference header type at 0x10 (expecting dedup)"), 2u);
}

namespace {
struct Collected {
    std::vector<std::pair<uint64_t, uint64_t>> records;
    size_t stopAfter = 0;
};
uint64_t collect(uint64_t length, uint64_t hashId, void* context)
{
    auto* c = static_cast<Collected*>(context);
    c->records.emplace_back(length, hashId);
    return c->records.size() == c->stopAfter ? ~uint64_t{0} : 0;
}
} // namespace

TEST(ArcoDedup, RecordsWalkUntilNulOrTheEnd)
{
    char rec[64];
    std::string text;
    for (auto [len, id] : {std::pair<uint64_t, uint64_t>{0x10000, 0x5}, {4096, 77}, {512, 0xFFFFFFFFFFull}}) {
        ASSERT_GT(arco_format_dedup_record(rec, sizeof rec, len, id), 0);
        text += rec;
    }
    text += "100,010;";  // decimal and octal read as a C parser does
    std::vector<char> exact(text.begin(), text.end());
    Collected c;
    EXPECT_EQ(arco_walk_dedup_records(exact.data(), exact.size(), collect, &c), 4);
    ASSERT_EQ(c.records.size(), 4u);
    EXPECT_EQ(c.records[0], std::make_pair(uint64_t{0x10000}, uint64_t{5}));
    EXPECT_EQ(c.records[2].second, 0xFFFFFFFFFFull);
    EXPECT_EQ(c.records[3], std::make_pair(uint64_t{100}, uint64_t{8}));

    exact.push_back('\0');
    exact.push_back('9');  // after the NUL: not a record
    Collected all;
    EXPECT_EQ(arco_walk_dedup_records(exact.data(), exact.size(), collect, &all), 4);

    Collected stop;
    stop.stopAfter = 2;
    EXPECT_EQ(arco_walk_dedup_records(exact.data(), exact.size(), collect, &stop), 2);
}

TEST(ArcoDedup, CutOffOrMalformedRecordsFail)
{
    LogCapture log(0);
    for (const char* text : {"0x200,0x5", "0x200", "0x200;0x5,", "abc,1;", "1,2;3,x;"}) {
        std::vector<char> exact(text, text + strlen(text));
        Collected c;
        EXPECT_EQ(arco_walk_dedup_records(exact.data(), exact.size(), collect, &c), -1) << text;
    }
    std::string text = log.text();
    EXPECT_GT(countOf(text, "Can't find end of content length in reference at 0x"), 0u);
    EXPECT_GT(countOf(text, "Can't find end of reference at 0x"), 0u);
}

TEST(ArcoToken, TokenHeadersAreRecognisedAndBoundedToOneMiB)
{
    LogCapture log(0);
    ArcoEntry e = regular("QUILLMONT Encrypted TAR v2.1", 1024);
    e.linkflag = ARCO_TOKEN;
    std::string blocks;
    arco_encode_entry(e, &blocks);
    uint64_t total = 0;
    EXPECT_EQ(arco_token_header(blocks.data(), &total), 1);
    EXPECT_EQ(total, 1536u);

    arco_header h = headerOf(blocks);
    arco_set_size(h, ARCO_MAX_TOKEN - 512);
    arco_set_checksum(h);
    EXPECT_EQ(arco_token_header(h.b, &total), 1);
    EXPECT_EQ(total, ARCO_MAX_TOKEN);
    arco_set_size(h, ARCO_MAX_TOKEN);
    arco_set_checksum(h);
    EXPECT_EQ(arco_token_header(h.b, &total), -1);
    std::string text = log.text();
    EXPECT_EQ(countOf(text, "Encrypted token too large"), 1u);
    EXPECT_EQ(countOf(text, "Limit of 1MB token size"), 1u);

    e.linkflag = ARCO_REGULAR;
    arco_encode_entry(e, &blocks);
    EXPECT_EQ(arco_token_header(blocks.data(), &total), 0);
    e.linkflag = ARCO_TOKEN;
    e.name = "Quillmont encrypted ZIP v1";
    arco_encode_entry(e, &blocks);
    EXPECT_EQ(arco_token_header(blocks.data(), &total), 0);
}

TEST(ArcoStream, FirstBytesDecideTheCompression)
{
    const unsigned char gz[] = {0x1F, 0x8B, 0x08, 0x00};
    const unsigned char lz4[] = {0x04, 0x22, 0x4D, 0x18, 0x64};
    const unsigned char plain[] = {'/', 'e', 't', 'c'};
    EXPECT_EQ(arco_stream_compression(gz, sizeof gz), ARCO_GZIP);
    EXPECT_EQ(arco_stream_compression(lz4, sizeof lz4), ARCO_LZ4);
    EXPECT_EQ(arco_stream_compression(plain, sizeof plain), ARCO_NOT_COMPRESSED);
    LogCapture log(0);
    EXPECT_EQ(arco_stream_compression(gz, 3), ARCO_NOT_COMPRESSED);
    EXPECT_EQ(arco_stream_compression(nullptr, 4), ARCO_NOT_COMPRESSED);
    std::string text = log.text();
    EXPECT_EQ(countOf(text, "Invalid argument: not enough data (3 < 4)."), 1u);
    EXPECT_EQ(countOf(text, "Invalid argument: memory buffer is NULL."), 1u);
}

TEST(ArcoFileNames, BothFormsAndTheNumberBack)
{
    EXPECT_EQ(arco_backup_path("/backups/dev1", 42, true), "/backups/dev1/backup_42.gz");
    EXPECT_EQ(arco_backup_path("/backups/dev1", 42, false), "/backups/dev1/backup_42");
    int64_t n = 0;
    EXPECT_EQ(arco_backup_no_from_name("/backups/dev1/backup_42.gz", &n), 0);
    EXPECT_EQ(n, 42);
    EXPECT_EQ(arco_backup_no_from_name("backup_7", &n), 0);
    EXPECT_EQ(n, 7);
    for (const char* bad : {"backup_", "backup_.gz", "backup_12.gzz", "backup_1a", "/x/xbackup_1", "Backup_1",
                            "backup_12.bz2", "backup_99999999999999999999", "/backup_1/other"}) {
        EXPECT_EQ(arco_backup_no_from_name(bad, &n), -1) << bad;
    }
}
