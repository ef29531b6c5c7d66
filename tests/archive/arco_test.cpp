// The arco header: every header written passes the check and reads back the
// same; long names, the big-size form, the header check with its reasons,
// bad input that must not be read past, dedup reference text, the token test,
// stream detection and backup file names.
#include "archive/arco.h"

#include "foundation/environment.h"
#include "harness/appliance_root.h"
#include "harness/log_capture.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <tuple>
#include <vector>

namespace {

using ferrytest::countOf;
using ferrytest::LogCapture;

// A hard link stores no data of its own: its first name holds it.
ArcoEntry entry(const std::string& name, char flag, uint64_t size, const std::string& link = "")
{
    return {.name = name, .link = link, .linkflag = flag, .mode = 0100644, .uid = 1000, .gid = 100,
            .mtime = 1700000000, .realSize = size, .dataSize = flag == ARCO_HARDLINK ? 0 : size};
}

auto fields(const ArcoEntry& e)
{
    return std::tie(e.name, e.link, e.linkflag, e.mode, e.uid, e.gid, e.mtime, e.realSize, e.dataSize, e.partNo,
                    e.partCount);
}

// Slashes every ten characters, so names look like deep paths.
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

struct Decoded {
    ArcoEntry entry;
    ArcoLayout layout;
    arco_header header;
    std::string blocks;
};

// Encodes `e`, checks the header and reads it back as a reader would.
Decoded roundTrip(const ArcoEntry& e)
{
    Decoded d;
    long n = arco_encode_entry(e, &d.blocks);
    EXPECT_GE(n, 1);
    EXPECT_EQ(d.blocks.size(), static_cast<size_t>(n) * ARCO_BLOCKSIZE);
    memcpy(d.header.b, d.blocks.data(), ARCO_BLOCKSIZE);
    const char* reason = "";
    EXPECT_EQ(is_tar(d.header.b, &reason), 1) << "refused because " << reason;
    EXPECT_EQ(arco_entry_layout(d.header, &d.layout), 0);
    EXPECT_EQ(d.layout.extBlocks + 1, static_cast<uint64_t>(n));
    EXPECT_EQ(arco_decode_entry(d.header, d.blocks.data() + 512, d.blocks.size() - 512, &d.entry), 0);
    return d;
}

// Stores the checksum as a reader with unsigned bytes would compute it.
void sumUnsigned(arco_header& h)
{
    unsigned sum = 256;
    for (size_t i = 0; i < ARCO_BLOCKSIZE; ++i)
        sum += (i < ARCO_CHKSUM.offset || i >= ARCO_CHKSUM.offset + 8) ? h.b[i] : 0;
    snprintf(reinterpret_cast<char*>(h.b + ARCO_CHKSUM.offset), 8, "%07o", sum & 0xFFFF);
}

} // namespace

TEST(ArcoRoundTrip, EveryKindOfEntryReadsBackTheSameFields)
{
    ArcoEntry part = entry("/big/split", ARCO_REGULAR, 4096);
    part.partNo = part.partCount = 2;
    const ArcoEntry entries[] = {
        entry("/home/user/notes.txt", ARCO_REGULAR, 12345), entry("/home/user/empty", ARCO_REGULAR, 0),
        entry("/home/user", ARCO_DIRECTORY, 0), entry("/home/user/link", ARCO_SYMLINK, 0, "../other/target file"),
        entry("/home/user/second", ARCO_HARDLINK, 12345, "/home/user/notes.txt"),  // no payload
        entry("/vm/disk.vmdk", FT_VDISK, uint64_t{1} << 33),  // first size in the big-size form
        entry("/vm/odd.img", ARCO_REGULAR, (uint64_t{1} << 36) + 1), entry("/vm/huge", ARCO_REGULAR, 1ull << 62),
        part};
    for (const ArcoEntry& e : entries) {
        SCOPED_TRACE(e.name);
        Decoded d = roundTrip(e);
        EXPECT_EQ(fields(d.entry), fields(e));
        EXPECT_EQ(d.layout.payloadBlocks, (e.dataSize + 511) / 512);
    }
}

TEST(ArcoRoundTrip, NamesAndLinkTargetsOfEveryLength)
{
    // 1 to 400 characters fit the regular header, piece 159 (flag 64) used only past 170; longer
    // names take whole extended blocks.
    std::vector<size_t> lengths{401, 511, 512, 513, 4096, 20000};
    for (size_t n = 1; n <= ARCO_MAX_REGULAR_NAME; ++n)
        lengths.push_back(n);
    for (size_t n : lengths) {
        Decoded d = roundTrip(entry(pathOfLength(n), ARCO_REGULAR, 77));
        ASSERT_EQ(d.entry.name, pathOfLength(n)) << n;
        ASSERT_EQ(d.layout.extBlocks, n > 400 ? (n + 511) / 512 : 0) << n;
        EXPECT_EQ(d.layout.payloadBlocks, 1u) << n;
        EXPECT_EQ((arco_get_flags(d.header) & ARCO_FLAG_NAME_IN_LINKNAME) != 0, n > 170 && n <= 400) << n;
    }
    // A link's name and target hold 170 each; a hard link's size counts its extended blocks.
    for (char flag : {ARCO_SYMLINK, ARCO_HARDLINK}) {
        for (size_t nameLength : {1, 100, 101, 170, 171, 700}) {
            for (size_t targetLength : {2, 100, 170, 171, 900}) {
                SCOPED_TRACE(std::to_string(nameLength) + " -> " + std::to_string(targetLength) + " " + flag);
                ArcoEntry e = entry(pathOfLength(nameLength), flag, flag == ARCO_HARDLINK ? 5000 : 0,
                                    pathOfLength(targetLength));
                Decoded d = roundTrip(e);
                EXPECT_EQ(std::tie(d.entry.name, d.entry.link), std::tie(e.name, e.link));
                EXPECT_EQ(d.layout.extBlocks > 0, nameLength > 170 || targetLength > 170);
                EXPECT_EQ(d.layout.payloadBlocks, 0u);
            }
        }
    }
}

TEST(ArcoNames, PiecesOfTheRegularHeaderAndItsLimits)
{
    arco_header h{};
    const std::string name(100, 'x');
    memcpy(h.b, name.data(), 100);
    EXPECT_EQ(arco_get_name(h), name);  // nothing at 368
    memcpy(h.b + 368, "tail", 4);
    EXPECT_EQ(arco_get_name(h), name + "tail");  // byte 99 full: the reader goes on
    h.b[99] = 0;
    EXPECT_EQ(arco_get_name(h), std::string(99, 'x'));

    LogCapture quiet(0);
    EXPECT_EQ(arco_set_name(h, std::string(401, 'a')), -1);
    EXPECT_EQ(arco_set_link(h, std::string(171, 'a'), "t"), -1);
    EXPECT_EQ(arco_set_link(h, "n", std::string(171, 'b')), -1);
}

TEST(ArcoNames, LinkTargetsAreWrittenAndReadAsTheirUsersExpect)
{
    const struct { const char* name; char flag; const char* link; const char* back; } cases[] = {
        {"/a/link", ARCO_SYMLINK, "@@@:/real/target", "/real/target"},  // the prefix is dropped
        {"/data/dir/second", ARCO_HARDLINK, "first", "/data/dir/first"},  // bare target: link's directory
        {"second", ARCO_HARDLINK, "first", "first"},                     // no directory to borrow
    };
    for (const auto& c : cases)
        EXPECT_EQ(roundTrip(entry(c.name, c.flag, 10, c.link)).entry.link, c.back) << c.link;
}

TEST(ArcoBigSize, SixBitsPerCharacterLeastSignificantFirstAndBack)
{
    const struct { uint64_t value; const char* bytes; } cases[] = {  // 12 bytes, NUL-padded
        {0, "#......\0\0\0\0\0"}, {uint64_t{1} << 30, "#...../\0\0\0\0\0"},
        {(uint64_t{1} << 32) - 1, "#zzzzz1\0\0\0\0\0"}, {uint64_t{1} << 36, "#....../...."},
        {uint64_t{1} << 32, "#.....2....."},  // bit 32; the high word set, all 11 follow
        {(uint64_t{1} << 63) - 1, "#zzzzzzzzzz5"}, {~uint64_t{0}, "#zzzzzzzzzzD"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        char field[12];
        arco_encode_bigsize(field, c.value);
        EXPECT_EQ(std::string(field, 12), std::string(c.bytes, 12));
        arco_header h{};
        memcpy(h.b + ARCO_SIZE.offset, field, 12);
        EXPECT_EQ(arco_get_size(h), c.value);
    }
    // Size fields take the big form from 8 GiB on; below that 11 octal digits.
    arco_header h{};
    arco_set_size(h, (uint64_t{1} << 33) - 1);
    EXPECT_STREQ(reinterpret_cast<char*>(h.b + ARCO_SIZE.offset), "77777777777");
    arco_set_real_size(h, uint64_t{1} << 33);
    EXPECT_EQ(h.b[ARCO_REAL_SIZE.offset], '#');
}

TEST(ArcoFields, GarbageReadsAsItsPrefixWithinTheFieldAndWideValuesAreRefused)
{
    const struct { ArcoField field; const char* text; uint64_t value; } cases[] = {
        {ARCO_MODE, " \t0644x7", 0644}, {ARCO_UID, "12345678", 01234567} /* 8 is no octal digit */,
        {ARCO_SIZE, "zz99", 0}, {ARCO_SIZE, "777777777777", (uint64_t{1} << 36) - 1} /* no NUL */,
        {ARCO_SIZE, "#1-11111111", 3} /* '-' is outside the alphabet */, {ARCO_REAL_SIZE, "#zzzzzzzzzzz", ~0ull}};
    for (const auto& c : cases) {
        arco_header h;
        memset(h.b, '1', sizeof h.b);  // digits all around: a reader past the field would take them
        memcpy(h.b + c.field.offset, c.text, strlen(c.text));
        const bool size = c.field.offset == ARCO_SIZE.offset || c.field.offset == ARCO_REAL_SIZE.offset;
        EXPECT_EQ(size ? arco_get_size_field(h, c.field) : arco_get_octal(h, c.field), c.value) << c.text;
    }
    arco_header h{};
    ASSERT_EQ(arco_set_uid(h, 4242), 0);
    EXPECT_EQ(arco_set_uid(h, 010000000), -1);
    EXPECT_EQ(arco_get_uid(h), 4242u);
    EXPECT_EQ(arco_set_part_no(h, 01000), -1);
}

TEST(ArcoLayoutTest, HardLinkStoresOnlyWhatItsSizeExceedsItsRealSizeBy)
{
    Decoded d = roundTrip(entry("/a/b", ARCO_HARDLINK, 1 << 20, "/a/c"));
    EXPECT_EQ(arco_get_size(d.header), arco_get_real_size(d.header));
    EXPECT_EQ(arco_entry_blocks(d.layout), 1u);
    arco_set_size(d.header, (1 << 20) + 700);
    ArcoLayout layout;
    ASSERT_EQ(arco_entry_layout(d.header, &layout), 0);
    EXPECT_EQ(layout.payloadBlocks, 2u);
    EXPECT_EQ(layout.dataSize, 700u);
    LogCapture quiet(0);
    arco_set_size(d.header, (1 << 20) - 1);
    EXPECT_EQ(arco_entry_layout(d.header, &layout), -1) << "real size beyond the stated size";
}

TEST(ArcoCheck, RefusalsGiveTheirReasonsAndTheSentinelIsAccepted)
{
    // Bytes above 127 count negative: this header passes as written, and fails summed unsigned.
    const arco_header accented = roundTrip(entry("/home/jos\xC3\xA9/caf\xC3\xA9", ARCO_REGULAR, 1)).header;
    const struct { void (*spoil)(arco_header&); bool resum; const char* reason; } cases[] = {
        {[](arco_header& h) { h = arco_header{}; }, false, "checksum"},  // all zero
        {sumUnsigned, false, "checksum"},
        {[](arco_header& h) { h.b[ARCO_GID.offset] = '9'; }, true, "Gid"},
        {[](arco_header& h) { h.b[20] = 'x'; }, true, "Non-blank name"},  // after the name's NUL
        {[](arco_header& h) { h.b[200] = 'x'; }, true, "Non-blank linkname"},
        {[](arco_header& h) { h.b[200] = 'x'; arco_set_flags(h, ARCO_FLAG_NAME_IN_LINKNAME); }, true, nullptr}};
    for (const auto& c : cases) {
        arco_header h = accented;
        c.spoil(h);
        if (c.resum)
            arco_set_checksum(h);
        const char* reason = nullptr;
        EXPECT_EQ(is_tar(h.b, &reason), c.reason ? 0 : 1) << (c.reason ? c.reason : "flag 64: name text at 200");
        EXPECT_STREQ(reason, c.reason);
    }
    arco_header zero{}, sentinel;
    arco_make_sentinel(sentinel);
    EXPECT_STREQ(reinterpret_cast<char*>(sentinel.b + ARCO_CHKSUM.offset), "0000400");
    EXPECT_TRUE(arco_is_end(sentinel.b));
    EXPECT_FALSE(arco_is_end(zero.b));
    EXPECT_FALSE(arco_is_end(accented.b));
}

TEST(ArcoCheck, BlankGidIsAcceptedOnlyWithTarCompatibility)
{
    ferrytest::ApplianceRoot root;
    g_master_ini = root.masterIni();
    arco_header h = roundTrip(entry("/etc/hosts", ARCO_REGULAR, 42)).header;
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

TEST(ArcoExtended, BadSizesAndShortAreasAreRefusedWithoutReadingPastTheBuffer)
{
    LogCapture log(0);
    Decoded d = roundTrip(entry(pathOfLength(1500), ARCO_REGULAR, 0));  // 3 extended blocks
    arco_header h = d.header;
    const std::vector<char> ext(d.blocks.begin() + 512, d.blocks.end()), shorter(ext.begin(), ext.end() - 1);
    ArcoLayout layout;
    ArcoEntry e;
    EXPECT_EQ(arco_decode_entry(h, shorter.data(), shorter.size(), &e), -1);  // one byte short
    EXPECT_EQ(arco_decode_entry(h, nullptr, 0, &e), -1);
    arco_set_size(h, 2 * 512);  // too small for the names
    EXPECT_EQ(arco_entry_layout(h, &layout), -1);
    EXPECT_EQ(arco_decode_entry(h, ext.data(), ext.size(), &e), -1);
    EXPECT_EQ(countOf(log.text(), "Failed reading archive: name size greater than file size"), 2u);
    arco_set_size(h, 2 * 512 + 1);  // rounds up to the three blocks
    EXPECT_EQ(arco_entry_layout(h, &layout), 0);

    // A stated name length beyond the cap reads 32767 bytes of a name without a NUL.
    const size_t big = 40000, area = (big + 511) / 512 * 512;
    arco_set_octal(h, ARCO_EXT_NAME_LEN, big);
    arco_set_size(h, area);
    const std::vector<char> names(area, 'k');
    ASSERT_EQ(arco_decode_entry(h, names.data(), names.size(), &e), 0);
    EXPECT_EQ(e.name, std::string(ARCO_MAX_EXT_NAME, 'k'));
}

namespace {

// Reference text is parsed from buffers of its exact length, with no NUL behind.
long parsePrefix(const std::string& text, ArcoDedupPrefix* p)
{
    const std::vector<char> exact(text.begin(), text.end());
    return arco_parse_dedup_prefix(exact.data(), exact.size(), p);
}

struct Records {
    std::vector<std::pair<uint64_t, uint64_t>> seen;
    size_t stopAfter = 0;
    long result = 0;
};

Records walkRecords(const std::string& text, size_t stopAfter = 0)
{
    Records r{{}, stopAfter};
    const std::vector<char> exact(text.begin(), text.end());
    auto collect = [](uint64_t length, uint64_t hashId, void* context) -> uint64_t {
        auto* r = static_cast<Records*>(context);
        r->seen.emplace_back(length, hashId);
        return r->seen.size() == r->stopAfter ? ~uint64_t{0} : 0;
    };
    r.result = arco_walk_dedup_records(exact.data(), exact.size(), collect, &r);
    return r;
}

} // namespace

TEST(ArcoDedup, ReferenceTextParsesBackAndBadTextIsRefused)
{
    char buf[128];
    const int n = arco_format_dedup_prefix(buf, sizeof buf, "inlineDedup", 0x1A00, '0');
    EXPECT_STREQ(buf, "inlineDedup,0x1A00,0x30,dedup;");
    ArcoDedupPrefix p;
    EXPECT_EQ(parsePrefix(buf, &p), n);
    EXPECT_EQ(std::tie(p.program, p.headerOffset, p.linkflag), std::make_tuple("inlineDedup", 0x1A00u, '0'));
    EXPECT_EQ(arco_format_dedup_prefix(buf, 10, "inlineDedup", 0, '0'), -1);

    std::string text;
    for (auto [len, id] : {std::pair<uint64_t, uint64_t>{0x10000, 0x5}, {4096, 77}, {512, 0xFFFFFFFFFFull}}) {
        ASSERT_GT(arco_format_dedup_record(buf, sizeof buf, len, id), 0);
        text += buf;
    }
    text += std::string("100,010;\0" "9", 10);  // decimal and octal as C reads them; nothing after a NUL
    const Records all = walkRecords(text);
    EXPECT_EQ(all.result, 4);
    EXPECT_EQ(all.seen, (decltype(all.seen){{0x10000, 5}, {4096, 77}, {512, 0xFFFFFFFFFFull}, {100, 8}}));
    EXPECT_EQ(walkRecords(text, 2).result, 2) << "the callback stops the walk";

    LogCapture log(0);
    for (const char* bad : {"inlineDedup", "inlineDedup,0x10", "x,0x10,0x30,dedupe", "x,0x10,0x30,copy;",
                            "x,zz,0x30,dedup;", "x,0x10,0x130,dedup;", "x,,0x30,dedup;"})
        EXPECT_EQ(parsePrefix(bad, &p), -1) << bad;
    for (const char* bad : {"0x200,0x5", "0x200", "0x200;0x5,", "abc,1;", "1,2;3,x;"})
        EXPECT_EQ(walkRecords(bad).result, -1) << bad;
    EXPECT_EQ(countOf(log.text(), "Wrong reference header type at 0x10 (expecting dedup)"), 2u);
}

TEST(ArcoToken, TokenHeadersAreRecognisedAndBoundedToOneMiB)
{
    uint64_t total = 0;
    auto token = [&total](const ArcoEntry& e) { return arco_token_header(roundTrip(e).header.b, &total); };
    EXPECT_EQ(token(entry("QUILLMONT Encrypted TAR v2.1", ARCO_TOKEN, 1024)), 1);  // the name in any case
    EXPECT_EQ(total, 1536u);
    EXPECT_EQ(token(entry("Quillmont encrypted TAR v2", ARCO_TOKEN, ARCO_MAX_TOKEN - 512)), 1);
    EXPECT_EQ(total, ARCO_MAX_TOKEN);
    LogCapture log(0);
    EXPECT_EQ(token(entry("Quillmont encrypted TAR v2", ARCO_TOKEN, ARCO_MAX_TOKEN)), -1);
    EXPECT_EQ(countOf(log.text(), "Encrypted token too large"), 1u);
    EXPECT_EQ(token(entry("Quillmont encrypted TAR v2", ARCO_REGULAR, 1024)), 0);
    EXPECT_EQ(token(entry("Quillmont encrypted ZIP v1", ARCO_TOKEN, 1024)), 0);
}

TEST(ArcoStream, FirstBytesDecideTheCompression)
{
    const unsigned char gz[] = {0x1F, 0x8B, 0x08, 0x00}, lz4[] = {0x04, 0x22, 0x4D, 0x18}, plain[] = "/etc";
    EXPECT_EQ(arco_stream_compression(gz, sizeof gz), ARCO_GZIP);
    EXPECT_EQ(arco_stream_compression(lz4, sizeof lz4), ARCO_LZ4);
    EXPECT_EQ(arco_stream_compression(plain, 4), ARCO_NOT_COMPRESSED);
    LogCapture quiet(0);
    EXPECT_EQ(arco_stream_compression(gz, 3), ARCO_NOT_COMPRESSED);  // too short to tell
    EXPECT_EQ(arco_stream_compression(nullptr, 4), ARCO_NOT_COMPRESSED);
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
                            "backup_12.bz2", "backup_99999999999999999999", "/backup_1/other"})
        EXPECT_EQ(arco_backup_no_from_name(bad, &n), -1) << bad;
}
