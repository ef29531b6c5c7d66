// arco: the archive header and its fields, the header check, long names
// through the fixed pieces and the extended header, the big-size form, and
// entry layout; encoding and decoding of whole entries.
#include "archive/arco.h"

#include "foundation/environment.h"
#include "foundation/ini.h"
#include "foundation/logger.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <strings.h>

namespace {

// The order in which a long name fills the fixed pieces.
const ArcoField kNamePieces[] = {ARCO_NAME1, ARCO_NAME2, ARCO_NAME3, ARCO_NAME4, ARCO_NAME5};
const ArcoField kLinkNamePieces[] = {ARCO_NAME1, ARCO_NAME2};
const ArcoField kLinkTargetPieces[] = {ARCO_LINKNAME, ARCO_NAME4};

const char kBigSizeAlphabet[] = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
const uint64_t kOctalSizeLimit = uint64_t{1} << 33;  // 11 octal digits
const char kTokenName[] = "Quillmont encrypted TAR v";

const char* field(const arco_header& h, ArcoField f)
{
    return reinterpret_cast<const char*>(h.b + f.offset);
}

char* field(arco_header& h, ArcoField f)
{
    return reinterpret_cast<char*>(h.b + f.offset);
}

int bigSizeDigit(char c)
{
    const char* p = c != '\0' ? strchr(kBigSizeAlphabet, c) : nullptr;
    return p != nullptr ? static_cast<int>(p - kBigSizeAlphabet) : -1;
}

bool isLinkFlag(char linkflag)
{
    return linkflag == ARCO_HARDLINK || linkflag == ARCO_SYMLINK;
}

uint64_t roundUpBlocks(uint64_t bytes)
{
    return bytes / ARCO_BLOCKSIZE + (bytes % ARCO_BLOCKSIZE != 0 ? 1 : 0);
}

bool allNul(const unsigned char* p, size_t n)
{
    return std::all_of(p, p + n, [](unsigned char c) { return c == 0; });
}

// Reads pieces in order while the previous piece was full (its last byte
// not NUL); each piece contributes its text up to its first NUL.
template <size_t N>
std::string readPieces(const arco_header& h, const ArcoField (&pieces)[N])
{
    std::string text;
    for (const ArcoField& piece : pieces) {
        const char* p = field(h, piece);
        text.append(p, strnlen(p, piece.width));
        if (p[piece.width - 1] == '\0') {
            break;
        }
    }
    return text;
}

template <size_t N>
void writePieces(arco_header& h, const ArcoField (&pieces)[N], const std::string& text)
{
    size_t at = 0;
    for (const ArcoField& piece : pieces) {
        char* p = field(h, piece);
        memset(p, 0, piece.width);
        size_t n = std::min(piece.width, text.size() - at);
        memcpy(p, text.data() + at, n);
        at += n;
    }
}

// ---- Header check state ----------------------------------------------------

int g_tarCompat = -1;              // INCL_TAR_COMPAT, read at first need
unsigned long g_notHeaderRun = 0;  // consecutive blocks refused

bool tarCompat()
{
    if (g_tarCompat < 0) {
        g_tarCompat = ini_get_int("Configuration Options", "INCL_TAR_COMPAT", 0, g_master_ini.c_str()) != 0;
    }
    return g_tarCompat != 0;
}

int refuse(const char* why, const char** reason)
{
    if (reason != nullptr) {
        *reason = why;
    }
    ++g_notHeaderRun;
    if (g_notHeaderRun <= 3 || g_notHeaderRun % 512 == 0) {
        char repeated[64] = "";
        if (g_notHeaderRun > 1) {
            snprintf(repeated, sizeof repeated, "(repeated %lu times)", g_notHeaderRun);
        }
        log_printf(5, "Not a header because %s%s\n", why, repeated);
    }
    return 0;
}

int accept(const char** reason)
{
    if (reason != nullptr) {
        *reason = nullptr;
    }
    g_notHeaderRun = 0;
    return 1;
}

// ---- Extended header -------------------------------------------------------

void setExtendedMarks(arco_header& h, bool hasLink)
{
    memset(h.b, 0, ARCO_NAME1.width);
    h.b[1] = 'L';
    h.b[8] = 'E';
    h.b[9] = hasLink ? 'E' : 0;
}

bool extendedHasLink(const arco_header& h)
{
    return h.b[9] == 'E';
}

// Copies `length` bytes at `offset` of the extended area, up to the first NUL
// and at most ARCO_MAX_EXT_NAME bytes. False when the area is too short.
bool extendedText(const void* ext, size_t extLen, uint64_t offset, uint64_t length, std::string* out)
{
    length = std::min<uint64_t>(length, ARCO_MAX_EXT_NAME);
    if (offset > extLen || length > extLen - offset) {
        return false;
    }
    const char* p = static_cast<const char*>(ext) + offset;
    out->assign(p, strnlen(p, static_cast<size_t>(length)));
    return true;
}

// A hard link's target without '/' is taken as relative to the link's own
// directory: writers may store only the base name of a target beside it.
void qualifyHardLinkTarget(ArcoEntry* e)
{
    if (e->link.find('/') != std::string::npos) {
        return;
    }
    size_t slash = e->name.rfind('/');
    if (slash == std::string::npos || slash + 1 + e->link.size() >= 32768) {
        return;
    }
    e->link = e->name.substr(0, slash + 1) + e->link;
}

// The entry's extended header fields and marks; returns its block count.
uint64_t writeExtended(arco_header& h, const ArcoEntry& e, const std::string& target, bool link)
{
    const uint64_t nameBlocks = roundUpBlocks(e.name.size());
    setExtendedMarks(h, link);
    arco_set_octal(h, ARCO_EXT_NAME_POS, 0);
    arco_set_octal(h, ARCO_EXT_NAME_LEN, e.name.size());
    arco_set_octal(h, ARCO_EXT_LINK_POS, link ? nameBlocks : 0);
    arco_set_octal(h, ARCO_EXT_LINK_LEN, link ? target.size() : 0);
    return link ? nameBlocks + roundUpBlocks(target.size()) : nameBlocks;
}

// Mode, ids, time, part numbers and sizes; values too wide for their field
// are cut to what it can hold.
void writeAttributes(arco_header& h, const ArcoEntry& e, uint64_t extBlocks)
{
    arco_set_mode(h, e.mode & 07777777);
    arco_set_uid(h, std::min<uint32_t>(e.uid, 07777777));
    arco_set_gid(h, std::min<uint32_t>(e.gid, 07777777));
    arco_set_mtime(h, std::max<int64_t>(e.mtime, 0));
    arco_set_linkflag(h, e.linkflag == 0 ? ARCO_REGULAR : e.linkflag);
    arco_set_part_no(h, std::min<uint32_t>(e.partNo, 0777));
    arco_set_part_count(h, std::min<uint32_t>(e.partCount, 0777));
    arco_set_real_size(h, e.realSize);
    const uint64_t linked = e.linkflag == ARCO_HARDLINK ? e.realSize : 0;
    arco_set_size(h, extBlocks * ARCO_BLOCKSIZE + e.dataSize + linked);
    arco_set_flags(h, arco_get_flags(h));
}

} // namespace

// ---- Fields ----------------------------------------------------------------

uint64_t arco_get_octal(const arco_header& h, ArcoField f)
{
    const char* p = field(h, f);
    const char* end = p + f.width;
    while (p < end && (*p == ' ' || *p == '\t')) {
        ++p;
    }
    uint64_t value = 0;
    for (; p < end && *p >= '0' && *p <= '7'; ++p) {
        value = (value << 3) | static_cast<uint64_t>(*p - '0');
    }
    return value;
}

int arco_set_octal(arco_header& h, ArcoField f, uint64_t value)
{
    char text[32];
    int digits = static_cast<int>(f.width) - 1;
    int n = snprintf(text, sizeof text, "%0*llo", digits, static_cast<unsigned long long>(value));
    if (n != digits) {
        return -1;
    }
    memcpy(field(h, f), text, f.width);  // the digits and their NUL
    return 0;
}

void arco_encode_bigsize(char out[12], uint64_t value)
{
    memset(out, 0, 12);
    out[0] = '#';
    // Plain base 64, least significant first: character 6 carries bits 30
    // and 31 in its low two bits and bits 32 to 35 in its upper four.
    const int characters = (value >> 32) == 0 ? 6 : 11;
    for (int i = 1; i <= characters; ++i) {
        out[i] = kBigSizeAlphabet[value & 63];
        value >>= 6;
    }
}

uint64_t arco_decode_bigsize(const char in[12])
{
    if (in[0] != '#') {
        return 0;
    }
    uint64_t value = 0;
    for (int i = 1; i < 12; ++i) {
        int digit = bigSizeDigit(in[i]);
        if (digit < 0) {
            break;
        }
        value |= static_cast<uint64_t>(digit) << (6 * (i - 1));  // the shift stays below 64
    }
    return value;
}

uint64_t arco_get_size_field(const arco_header& h, ArcoField f)
{
    const char* p = field(h, f);
    return p[0] == '#' ? arco_decode_bigsize(p) : arco_get_octal(h, f);
}

void arco_set_size_field(arco_header& h, ArcoField f, uint64_t value)
{
    if (value < kOctalSizeLimit) {
        arco_set_octal(h, f, value);
    } else {
        arco_encode_bigsize(field(h, f), value);
    }
}

uint32_t arco_get_mode(const arco_header& h) { return static_cast<uint32_t>(arco_get_octal(h, ARCO_MODE)); }
uint32_t arco_get_uid(const arco_header& h) { return static_cast<uint32_t>(arco_get_octal(h, ARCO_UID)); }
uint32_t arco_get_gid(const arco_header& h) { return static_cast<uint32_t>(arco_get_octal(h, ARCO_GID)); }
uint64_t arco_get_size(const arco_header& h) { return arco_get_size_field(h, ARCO_SIZE); }
int64_t arco_get_mtime(const arco_header& h) { return static_cast<int64_t>(arco_get_octal(h, ARCO_MTIME)); }
uint32_t arco_get_chksum(const arco_header& h) { return static_cast<uint32_t>(arco_get_octal(h, ARCO_CHKSUM)); }
char arco_get_linkflag(const arco_header& h) { return static_cast<char>(h.b[ARCO_LINKFLAG.offset]); }
uint32_t arco_get_part_no(const arco_header& h) { return static_cast<uint32_t>(arco_get_octal(h, ARCO_PART_NO)); }
uint32_t arco_get_part_count(const arco_header& h)
{
    return static_cast<uint32_t>(arco_get_octal(h, ARCO_PART_COUNT));
}
uint64_t arco_get_real_size(const arco_header& h) { return arco_get_size_field(h, ARCO_REAL_SIZE); }
uint64_t arco_get_flags(const arco_header& h) { return arco_get_octal(h, ARCO_FLAGS); }

int arco_set_mode(arco_header& h, uint32_t mode) { return arco_set_octal(h, ARCO_MODE, mode); }
int arco_set_uid(arco_header& h, uint32_t uid) { return arco_set_octal(h, ARCO_UID, uid); }
int arco_set_gid(arco_header& h, uint32_t gid) { return arco_set_octal(h, ARCO_GID, gid); }
void arco_set_size(arco_header& h, uint64_t size) { arco_set_size_field(h, ARCO_SIZE, size); }
int arco_set_mtime(arco_header& h, int64_t mtime)
{
    return mtime < 0 ? -1 : arco_set_octal(h, ARCO_MTIME, static_cast<uint64_t>(mtime));
}
void arco_set_linkflag(arco_header& h, char linkflag)
{
    h.b[ARCO_LINKFLAG.offset] = static_cast<unsigned char>(linkflag);
}
int arco_set_part_no(arco_header& h, uint32_t part) { return arco_set_octal(h, ARCO_PART_NO, part); }
int arco_set_part_count(arco_header& h, uint32_t count) { return arco_set_octal(h, ARCO_PART_COUNT, count); }
void arco_set_real_size(arco_header& h, uint64_t size) { arco_set_size_field(h, ARCO_REAL_SIZE, size); }
int arco_set_flags(arco_header& h, uint64_t flags) { return arco_set_octal(h, ARCO_FLAGS, flags); }

uint32_t arco_checksum(const arco_header& h)
{
    int sum = 256;  // the checksum field counts as eight blanks
    for (size_t i = 0; i < ARCO_CHKSUM.offset; ++i) {
        sum += static_cast<signed char>(h.b[i]);
    }
    for (size_t i = ARCO_CHKSUM.offset + ARCO_CHKSUM.width; i < ARCO_BLOCKSIZE; ++i) {
        sum += static_cast<signed char>(h.b[i]);
    }
    return static_cast<uint32_t>(sum) & 0xFFFF;
}

void arco_set_checksum(arco_header& h)
{
    arco_set_octal(h, ARCO_CHKSUM, arco_checksum(h));
}

// ---- Names -----------------------------------------------------------------

std::string arco_get_name(const arco_header& h)
{
    if (isLinkFlag(arco_get_linkflag(h))) {
        return readPieces(h, kLinkNamePieces);
    }
    return readPieces(h, kNamePieces);
}

std::string arco_get_linkname(const arco_header& h)
{
    return readPieces(h, kLinkTargetPieces);
}

int arco_set_name(arco_header& h, const std::string& name)
{
    if (name.size() > ARCO_MAX_REGULAR_NAME) {
        log_printf(0, "%s:%d: Name too long for regular header: %s\n", __FILE__, __LINE__, name.c_str());
        return -1;
    }
    // Piece 159 shares the linkname area; only touch it when it is needed.
    const size_t beforePiece3 = ARCO_NAME1.width + ARCO_NAME2.width;
    if (name.size() > beforePiece3) {
        memset(field(h, ARCO_LINKNAME), 0, ARCO_LINKNAME.width);
        writePieces(h, kNamePieces, name);
        arco_set_flags(h, arco_get_flags(h) | ARCO_FLAG_NAME_IN_LINKNAME);
    } else {
        writePieces(h, kLinkNamePieces, name);
    }
    return 0;
}

int arco_set_link(arco_header& h, const std::string& name, const std::string& target)
{
    if (name.size() > ARCO_MAX_REGULAR_LINK || target.size() > ARCO_MAX_REGULAR_LINK) {
        log_printf(0, "%s:%d: Name/link too long for regular header: %s, %s\n", __FILE__, __LINE__, name.c_str(),
                   target.c_str());
        return -1;
    }
    writePieces(h, kLinkNamePieces, name);
    writePieces(h, kLinkTargetPieces, target);
    return 0;
}

// ---- Header check ------------------------------------------------------------

int is_tar(const void* block, const char** reason)
{
    const auto& h = *static_cast<const arco_header*>(block);
    uint32_t sum = arco_checksum(h);
    if (sum != arco_get_chksum(h)) {
        return refuse("checksum", reason);
    }
    if (sum == 256) {
        return accept(reason);  // the sentinel: nothing else to test
    }
    const unsigned char gid0 = h.b[ARCO_GID.offset];
    if (!((gid0 >= '0' && gid0 <= '7') || (gid0 == ' ' && tarCompat()))) {
        return refuse("Gid", reason);
    }
    if (arco_is_extended(h)) {
        log_printf(5, "%s:%d: EXTHEADER block\n", __FILE__, __LINE__);
        return accept(reason);
    }
    const auto* nul = static_cast<const unsigned char*>(memchr(h.b, 0, ARCO_NAME1.width));
    if (nul != nullptr && !allNul(nul, ARCO_NAME1.width - static_cast<size_t>(nul - h.b))) {
        return refuse("Non-blank name", reason);
    }
    if (!isLinkFlag(arco_get_linkflag(h)) && (arco_get_flags(h) & ARCO_FLAG_NAME_IN_LINKNAME) == 0 &&
        !allNul(h.b + ARCO_LINKNAME.offset, ARCO_LINKNAME.width)) {
        return refuse("Non-blank linkname", reason);
    }
    return accept(reason);
}

void arco_reload_settings()
{
    g_tarCompat = -1;
}

bool arco_is_end(const void* block)
{
    const auto* b = static_cast<const unsigned char*>(block);
    return b[0] == 0 && b[1] == 0 && is_tar(block);
}

void arco_make_sentinel(arco_header& h)
{
    memset(h.b, 0, sizeof h.b);
    arco_set_checksum(h);
}

bool arco_is_extended(const arco_header& h)
{
    return h.b[0] == 0 && h.b[1] == 'L' && h.b[2] == 0;
}

// ---- Entries -----------------------------------------------------------------

long arco_encode_entry(const ArcoEntry& e, std::string* out)
{
    if (e.name.empty()) {
        return -1;
    }
    const bool link = isLinkFlag(e.linkflag);
    std::string target = e.link;
    if (link && target.compare(0, 4, "@@@:") == 0) {
        target.erase(0, 4);
    }
    const bool extended = link ? (e.name.size() > ARCO_MAX_REGULAR_LINK || target.size() > ARCO_MAX_REGULAR_LINK)
                               : e.name.size() > ARCO_MAX_REGULAR_NAME;

    arco_header h{};
    uint64_t extBlocks = 0;
    if (extended) {
        extBlocks = writeExtended(h, e, target, link);
    } else if (link) {
        arco_set_link(h, e.name, target);
    } else {
        arco_set_name(h, e.name);
    }
    writeAttributes(h, e, extBlocks);
    arco_set_checksum(h);

    out->assign(reinterpret_cast<const char*>(h.b), ARCO_BLOCKSIZE);
    if (extended) {
        std::string area(extBlocks * ARCO_BLOCKSIZE, '\0');
        memcpy(area.data(), e.name.data(), e.name.size());
        if (link) {
            memcpy(area.data() + roundUpBlocks(e.name.size()) * ARCO_BLOCKSIZE, target.data(), target.size());
        }
        out->append(area);
    }
    return static_cast<long>(1 + extBlocks);
}

int arco_entry_layout(const arco_header& h, ArcoLayout* layout)
{
    ArcoLayout l;
    l.statedSize = arco_get_size(h);
    const char linkflag = arco_get_linkflag(h);
    if (arco_is_extended(h)) {
        l.nameOffset = arco_get_octal(h, ARCO_EXT_NAME_POS) * ARCO_BLOCKSIZE;
        l.nameLength = arco_get_octal(h, ARCO_EXT_NAME_LEN);
        uint64_t end = l.nameOffset + l.nameLength;
        if (isLinkFlag(linkflag)) {
            l.linkOffset = arco_get_octal(h, ARCO_EXT_LINK_POS) * ARCO_BLOCKSIZE;
            l.linkLength = arco_get_octal(h, ARCO_EXT_LINK_LEN);
            end = std::max(end, l.linkOffset + l.linkLength);
        }
        l.extBlocks = roundUpBlocks(end);
    }
    // A hard link stores only what its size exceeds the real size by.
    uint64_t content = l.statedSize;
    bool bad = roundUpBlocks(l.statedSize) < l.extBlocks;
    if (!bad && linkflag == ARCO_HARDLINK) {
        const uint64_t real = arco_get_real_size(h);
        bad = real > l.statedSize || roundUpBlocks(l.statedSize - real) < l.extBlocks;
        content = bad ? 0 : l.statedSize - real;
    }
    if (bad) {
        log_printf(0, "%s:%d: Failed reading archive: name size greater than file size\n", __FILE__, __LINE__);
        return -1;
    }
    l.payloadBlocks = roundUpBlocks(content) - l.extBlocks;
    const uint64_t extBytes = l.extBlocks * ARCO_BLOCKSIZE;
    l.dataSize = content > extBytes ? content - extBytes : 0;
    *layout = l;
    return 0;
}

int arco_decode_entry(const arco_header& h, const void* ext, size_t extLen, ArcoEntry* e)
{
    ArcoLayout l;
    if (arco_entry_layout(h, &l) != 0) {
        return -1;
    }
    ArcoEntry out;
    out.linkflag = arco_get_linkflag(h);
    const bool link = isLinkFlag(out.linkflag);
    if (arco_is_extended(h)) {
        const bool linkInArea = link && extendedHasLink(h);
        if (ext == nullptr || extLen < l.extBlocks * ARCO_BLOCKSIZE ||
            !extendedText(ext, extLen, l.nameOffset, l.nameLength, &out.name) ||
            (linkInArea && !extendedText(ext, extLen, l.linkOffset, l.linkLength, &out.link))) {
            log_printf(0, "%s:%d: Extended header names lie past the %zu bytes given\n", __FILE__, __LINE__,
                       extLen);
            return -1;
        }
        if (link && !linkInArea) {
            out.link = arco_get_linkname(h);
        }
    } else {
        out.name = arco_get_name(h);
        if (link) {
            out.link = arco_get_linkname(h);
        }
    }
    if (out.linkflag == ARCO_HARDLINK) {
        qualifyHardLinkTarget(&out);
    }
    out.mode = arco_get_mode(h);
    out.uid = arco_get_uid(h);
    out.gid = arco_get_gid(h);
    out.mtime = arco_get_mtime(h);
    out.realSize = arco_get_real_size(h);
    out.dataSize = l.dataSize;
    out.partNo = arco_get_part_no(h);
    out.partCount = arco_get_part_count(h);
    *e = std::move(out);
    return 0;
}

// ---- Encryption token and stream type ----------------------------------------

int arco_token_header(const void* header, uint64_t* total)
{
    const auto& h = *static_cast<const arco_header*>(header);
    if (arco_get_linkflag(h) != ARCO_TOKEN || strncasecmp(field(h, ARCO_NAME1), kTokenName, 25) != 0 ||
        !is_tar(header)) {
        return 0;
    }
    const uint64_t body = arco_get_size(h);
    if (body > ARCO_MAX_TOKEN - ARCO_BLOCKSIZE) {
        log_printf(0, "%s:%d: Encrypted token too large", __FILE__, __LINE__);
        log_printf(0, "%s:%d: Limit of 1MB token size\n", __FILE__, __LINE__);
        return -1;
    }
    if (total != nullptr) {
        *total = ARCO_BLOCKSIZE + body;
    }
    return 1;
}

int arco_stream_compression(const void* data, size_t len)
{
    if (data == nullptr) {
        log_printf(0, "%s:%d: Invalid argument: memory buffer is NULL.\n", __FILE__, __LINE__);
        return ARCO_NOT_COMPRESSED;
    }
    if (len < 4) {
        log_printf(0, "%s:%d: Invalid argument: not enough data (%d < %d).\n", __FILE__, __LINE__,
                   static_cast<int>(len), 4);
        return ARCO_NOT_COMPRESSED;
    }
    const auto* b = static_cast<const unsigned char*>(data);
    if (b[0] == 0x1F && b[1] == 0x8B) {
        return ARCO_GZIP;
    }
    if (b[0] == 0x04 && b[1] == 0x22 && b[2] == 0x4D && b[3] == 0x18) {
        return ARCO_LZ4;
    }
    return ARCO_NOT_COMPRESSED;
}
