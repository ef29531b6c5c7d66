// arco_dedup: the reference text at the start of a deduplicated ('D')
// entry's payload: "<program>,0x<header offset>,0x<linkflag>,dedup;" and then
// "length,hash_id;" records until a NUL or the end of the stated size.
#include "archive/arco.h"

#include "foundation/logger.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

const char kDedupWord[] = "dedup;";

// A bounded view over the text being parsed: nothing here reads past `end`.
struct Cursor {
    const char* p;
    const char* end;

    size_t left() const { return static_cast<size_t>(end - p); }
};

// Reads a number as strtoull with base 0 does, ending exactly at
// `terminator`, which is consumed. False for no digits, trailing garbage,
// overflow or a missing terminator.
bool takeNumber(Cursor& c, char terminator, uint64_t* value)
{
    const void* stop = memchr(c.p, terminator, c.left());
    if (stop == nullptr) {
        return false;
    }
    const size_t length = static_cast<size_t>(static_cast<const char*>(stop) - c.p);
    char text[32];
    if (length == 0 || length >= sizeof text || memchr(c.p, '\0', length) != nullptr) {
        return false;
    }
    memcpy(text, c.p, length);
    text[length] = '\0';
    if (text[0] == '-' || text[0] == '+' || text[0] == ' ') {
        return false;
    }
    char* parsedEnd = nullptr;
    errno = 0;
    unsigned long long n = strtoull(text, &parsedEnd, 0);
    if (errno != 0 || parsedEnd != text + length) {
        return false;
    }
    *value = n;
    c.p += length + 1;
    return true;
}

} // namespace

int arco_format_dedup_prefix(char* buf, size_t size, const char* program, uint64_t headerOffset, int linkflag)
{
    int n = snprintf(buf, size, "%s,0x%llX,0x%02X,dedup;", program, static_cast<unsigned long long>(headerOffset),
                     static_cast<unsigned>(linkflag) & 0xFF);
    return n < 0 || static_cast<size_t>(n) >= size ? -1 : n;
}

int arco_format_dedup_record(char* buf, size_t size, uint64_t length, uint64_t hashId)
{
    int n = snprintf(buf, size, "0x%llX,0x%llX;", static_cast<unsigned long long>(length),
                     static_cast<unsigned long long>(hashId));
    return n < 0 || static_cast<size_t>(n) >= size ? -1 : n;
}

long arco_parse_dedup_prefix(const void* data, size_t len, ArcoDedupPrefix* out)
{
    Cursor c{static_cast<const char*>(data), static_cast<const char*>(data) + len};
    const void* comma = memchr(c.p, ',', c.left());
    const void* nul = memchr(c.p, '\0', c.left());
    if (comma == nullptr || (nul != nullptr && nul < comma)) {
        log_printf(0, "%s:%d: No program name in dedup reference header\n", __FILE__, __LINE__);
        return -1;
    }
    ArcoDedupPrefix prefix;
    prefix.program.assign(c.p, static_cast<const char*>(comma));
    c.p = static_cast<const char*>(comma) + 1;
    uint64_t linkflag = 0;
    if (!takeNumber(c, ',', &prefix.headerOffset) || !takeNumber(c, ',', &linkflag) || linkflag > 0xFF) {
        log_printf(0, "%s:%d: Bad number in dedup reference header of %s\n", __FILE__, __LINE__,
                   prefix.program.c_str());
        return -1;
    }
    if (c.left() < strlen(kDedupWord) || memcmp(c.p, kDedupWord, strlen(kDedupWord)) != 0) {
        log_printf(0, "%s:%d: Wrong reference header type at 0x%llX (expecting dedup)\n", __FILE__, __LINE__,
                   static_cast<unsigned long long>(prefix.headerOffset));
        return -1;
    }
    c.p += strlen(kDedupWord);
    prefix.linkflag = static_cast<int>(linkflag);
    *out = std::move(prefix);
    return static_cast<long>(c.p - static_cast<const char*>(data));
}

long arco_walk_dedup_records(const void* data, size_t len, ArcoDedupRecordFn fn, void* context)
{
    Cursor c{static_cast<const char*>(data), static_cast<const char*>(data) + len};
    long count = 0;
    while (c.left() > 0 && *c.p != '\0') {
        const size_t at = len - c.left();
        uint64_t length = 0;
        uint64_t hashId = 0;
        if (!takeNumber(c, ',', &length)) {
            log_printf(0, "%s:%d: Can't find end of content length in reference at 0x%zX\n", __FILE__, __LINE__, at);
            return -1;
        }
        if (!takeNumber(c, ';', &hashId)) {
            log_printf(0, "%s:%d: Can't find end of reference at 0x%zX\n", __FILE__, __LINE__, at);
            return -1;
        }
        ++count;
        if (fn != nullptr && fn(length, hashId, context) == ~uint64_t{0}) {
            break;
        }
    }
    return count;
}
