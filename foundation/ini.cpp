// ini: readers and writers of the appliance's section/key text files.
// Every call opens the file, scans it from the top and closes it again; the
// writers keep the file's layout so that values can later change in place.
#include "foundation/ini.h"

#include "foundation/environment.h"
#include "foundation/logger.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <string>
#include <strings.h>
#include <unistd.h>

namespace {

constexpr int kLineSize = 16384;         // one line of a file as the readers take it
constexpr int kContinuationSize = 511;   // a continuation line of a value
constexpr int kNewLineWidth = 74;        // "  key=value" padded to 77 columns
constexpr int kCommentColumns = 80;      // a kept comment stays on the line within this

struct FileCloser {
    void operator()(FILE* f) const { fclose(f); }
};
using FileHolder = std::unique_ptr<FILE, FileCloser>;

class FdHolder {
public:
    explicit FdHolder(int fd) : fd_(fd) {}
    ~FdHolder()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    FdHolder(const FdHolder&) = delete;
    FdHolder& operator=(const FdHolder&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

bool isBlank(char c)
{
    return c == ' ' || c == '\t';
}

bool isLineEnd(char c)
{
    return c == '\n' || c == '\r';
}

bool isSpace(char c)
{
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

// Section and key names compare without regard to case, whole.
bool sameName(const char* a, size_t alen, const char* b)
{
    if (strlen(b) != alen)
        return false;
    for (size_t i = 0; i < alen; ++i) {
        if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    }
    return true;
}

void copyDefault(const char* dflt, char* buf, int size)
{
    if (dflt == nullptr || buf == nullptr || size <= 0)
        return;
    size_t n = strnlen(dflt, static_cast<size_t>(size) - 1);
    memcpy(buf, dflt, n);
    buf[n] = '\0';
}

// Reads one line of at most size - 1 bytes, line end included. The rest of
// a longer line is skipped, so that its tail is never taken for a line of
// its own. NUL bytes in the file end the line's text for the parsers below.
bool readLine(FILE* f, char* buf, int size)
{
    int n = 0;
    int c = EOF;
    while (n < size - 1 && (c = getc(f)) != EOF) {
        buf[n++] = static_cast<char>(c);
        if (c == '\n')
            break;
    }
    buf[n] = '\0';
    if (n == 0 && c == EOF)
        return false;
    if (n == size - 1 && buf[n - 1] != '\n') {
        while ((c = getc(f)) != EOF && c != '\n') {
        }
    }
    return true;
}

// ---- one line as the readers take it --------------------------------------

struct Name {
    const char* text = nullptr;
    size_t len = 0;
};

// A section header: first non-blank character "[", the name up to the last
// "]" (or the line end). `lastBracket` false takes the first "]" instead, as
// the writers do.
bool sectionHeader(const char* line, size_t lineLen, bool lastBracket, Name* name)
{
    size_t i = 0;
    while (i < lineLen && isBlank(line[i]))
        ++i;
    if (i >= lineLen || line[i] != '[')
        return false;
    const char* start = line + i + 1;
    size_t rest = lineLen - i - 1;
    size_t end = rest;
    for (size_t j = 0; j < rest; ++j) {
        if (start[j] == ']') {
            end = j;
            if (!lastBracket)
                break;
        }
    }
    if (end == rest) {
        while (end > 0 && isLineEnd(start[end - 1]))
            --end;
    }
    if (name != nullptr) {
        name->text = start;
        name->len = end;
    }
    return true;
}

// Empty lines and comment lines are passed over inside a section.
bool skippedLine(const char* line, size_t lineLen)
{
    size_t i = 0;
    while (i < lineLen && isBlank(line[i]))
        ++i;
    return i >= lineLen || line[i] == '\0' || isLineEnd(line[i]) || line[i] == ';' || line[i] == '#';
}

// Splits a key line at the first "=", tab, or line end. `value` is the rest
// of the line behind an "=" or tab, or null when nothing is left to read.
void splitKeyLine(const char* line, size_t lineLen, Name* key, const char** value)
{
    size_t i = 0;
    while (i < lineLen && isBlank(line[i]))
        ++i;
    size_t cut = i;
    while (cut < lineLen && line[cut] != '=' && line[cut] != '\t' && !isLineEnd(line[cut]))
        ++cut;
    size_t end = cut;
    while (end > i && (isBlank(line[end - 1]) || isLineEnd(line[end - 1])))
        --end;
    key->text = line + i;
    key->len = end - i;
    *value = nullptr;
    if (cut < lineLen && (line[cut] == '=' || line[cut] == '\t') && cut + 1 < lineLen)
        *value = line + cut + 1;
}

// Moves `f` behind the header of the first section named `section`.
bool seekSection(FILE* f, char* line, const char* section)
{
    while (readLine(f, line, kLineSize)) {
        Name name;
        if (sectionHeader(line, strlen(line), true, &name) && sameName(name.text, name.len, section))
            return true;
    }
    return false;
}

// Finds the first line of the current section whose key is `key`; the
// rest of that line (null if none is left) goes to *value. The file stays
// behind that line, where a continued value goes on.
bool seekKey(FILE* f, char* line, const char* key, const char** value)
{
    while (readLine(f, line, kLineSize)) {
        size_t len = strlen(line);
        if (sectionHeader(line, len, true, nullptr))
            return false;
        if (skippedLine(line, len))
            continue;
        Name name;
        splitKeyLine(line, len, &name, value);
        if (sameName(name.text, name.len, key))
            return true;
    }
    return false;
}

// ---- value syntax ----------------------------------------------------------

struct ValueParser {
    ValueParser(FILE* file, char* buf, int maxChars) : f(file), out(buf), limit(maxChars) {}

    FILE* f;
    char* out;
    int limit;  // characters that may be copied
    int n = 0;
    bool quoted = false;
    bool closed = false;
    int closePos = 0;
    bool inSingle = false;
    char cont[kContinuationSize];

    void put(char c) { out[n++] = c; }

    // Returns false when the value ends at `c`; may replace *p with the
    // next line of the file when a line end is escaped.
    bool take(char c, char prev, const char** p)
    {
        bool escaped = prev == '\\';
        switch (c) {
        case '\\':
            if (escaped || inSingle)
                put(c);
            return true;
        case 'n':
        case 't':
            put(escaped && !inSingle ? (c == 'n' ? '\n' : '\t') : c);
            return true;
        case '"':
            if (escaped || !quoted || closed)
                put(c);
            else {
                closed = true;
                closePos = n;
            }
            return true;
        case '\'':
            if (!escaped)
                inSingle = !inSingle;
            put(c);
            return true;
        case ';':
        case '#':
            if (!escaped && !(quoted && !closed))
                return false;
            put(c);
            return true;
        case '\n':
        case '\r':
            if (escaped) {
                if (f == nullptr || !readLine(f, cont, kContinuationSize))
                    return false;
                *p = cont;
            } else if (!inSingle) {
                put(c);
            }
            return true;
        default:
            put(c);
            return true;
        }
    }

    void parse(const char* p)
    {
        while (isBlank(*p))
            ++p;
        char prev = '\0';
        if (*p == '"') {
            quoted = true;
            prev = '"';
            ++p;
        }
        // `prev` is always the previous character of the input, so in "\\;"
        // the semicolon still counts as escaped by the second backslash.
        while (n < limit && *p != '\0') {
            char c = *p++;
            if (!take(c, prev, &p))
                break;
            prev = c;
        }
        int floor = closed ? closePos : 0;
        while (n > floor && isSpace(out[n - 1]))
            --n;
        out[n] = '\0';
    }
};

// Raw rest of the line without its trailing white space, or -1 if it does
// not fit into `size`.
int copyRawValue(const char* value, char* buf, int size)
{
    size_t len = strlen(value);
    while (len > 0 && isSpace(value[len - 1]))
        --len;
    if (len >= static_cast<size_t>(size)) {
        log_printf(2, "%s:%d: ini_get_data: Not enough room to hold the returned value (src_len = %d, dest_len = %d)\n",
                   __FILE__, __LINE__, static_cast<int>(len), size);
        return -1;
    }
    memcpy(buf, value, len);
    buf[len] = '\0';
    return 0;
}

// ---- listing mode ----------------------------------------------------------

// Names one after the other, each NUL-terminated; one byte stays for the
// empty name that ends the list. A name that no longer fits ends the list.
class NameList {
public:
    NameList(char* buf, int size) : buf_(buf), size_(size) { buf_[0] = '\0'; }
    bool add(const Name& name)
    {
        if (full_ || used_ + name.len + 2 > static_cast<size_t>(size_)) {
            full_ = true;
            return false;
        }
        memcpy(buf_ + used_, name.text, name.len);
        used_ += name.len;
        buf_[used_++] = '\0';
        buf_[used_] = '\0';
        return true;
    }

private:
    char* buf_;
    int size_;
    size_t used_ = 0;
    bool full_ = false;
};

void listSections(FILE* f, char* line, char* buf, int size)
{
    NameList list(buf, size);
    while (readLine(f, line, kLineSize)) {
        Name name;
        if (sectionHeader(line, strlen(line), true, &name))
            list.add(name);
    }
}

void listKeys(FILE* f, char* line, char* buf, int size)
{
    NameList list(buf, size);
    while (readLine(f, line, kLineSize)) {
        size_t len = strlen(line);
        if (sectionHeader(line, len, true, nullptr))
            return;
        if (skippedLine(line, len))
            continue;
        Name name;
        const char* value;
        splitKeyLine(line, len, &name, &value);
        if (name.len > 0)
            list.add(name);
    }
}

enum class ValueForm { Parsed, Raw };

int lookup(const char* section, const char* key, const char* dflt, char* buf, int size, const char* file,
           ValueForm form)
{
    if (buf == nullptr || size <= 0)
        return -1;
    FileHolder f(file != nullptr ? fopen(file, "r") : nullptr);
    if (!f) {
        copyDefault(dflt, buf, size);
        return -1;
    }
    char line[kLineSize];
    if (section == nullptr) {
        listSections(f.get(), line, buf, size);
        return 0;
    }
    if (!seekSection(f.get(), line, section)) {
        copyDefault(dflt, buf, size);
        return -1;
    }
    if (key == nullptr) {
        listKeys(f.get(), line, buf, size);
        return 0;
    }
    const char* value = nullptr;
    if (!seekKey(f.get(), line, key, &value) || value == nullptr) {
        copyDefault(dflt, buf, size);
        return -1;
    }
    if (form == ValueForm::Raw) {
        if (copyRawValue(value, buf, size) != 0) {
            copyDefault(dflt, buf, size);
            return -1;
        }
        return 0;
    }
    ValueParser parser(f.get(), buf, size - 1);
    parser.parse(value);
    return 0;
}

// 1 or 0 for a value that begins with one of the words, -1 otherwise.
int boolWord(const char* value)
{
    static const char* const kTrue[] = {"true", "yes", "on", "y", "1"};
    static const char* const kFalse[] = {"false", "no", "off", "n", "0"};
    for (const char* word : kTrue) {
        if (strncasecmp(value, word, strlen(word)) == 0)
            return 1;
    }
    for (const char* word : kFalse) {
        if (strncasecmp(value, word, strlen(word)) == 0)
            return 0;
    }
    return -1;
}

// ---- writers ---------------------------------------------------------------

struct LineSpan {
    size_t begin;
    size_t end;   // behind the text, before the line end
    size_t next;  // start of the next line
};

LineSpan lineAt(const std::string& text, size_t begin)
{
    size_t nl = text.find('\n', begin);
    size_t next = nl == std::string::npos ? text.size() : nl + 1;
    size_t end = nl == std::string::npos ? text.size() : nl;
    if (end > begin && text[end - 1] == '\r')
        --end;
    return {begin, end, next};
}

// Where a key goes: over a found line, in front of the next section's
// header, at the end of the file with or without a new section header.
struct Placement {
    enum Kind { Replace, InsertBefore, AppendKey, AppendSection } kind = AppendSection;
    LineSpan line{};
    size_t at = 0;
};

// A key line for the writers: it must hold an "=", and its key is cut as the
// readers cut it.
bool writerKeyMatches(const std::string& text, const LineSpan& l, const char* key)
{
    const char* s = text.data() + l.begin;
    size_t len = l.end - l.begin;
    if (skippedLine(s, len) || memchr(s, '=', len) == nullptr)
        return false;
    Name name;
    const char* value;
    splitKeyLine(s, len, &name, &value);
    return sameName(name.text, name.len, key);
}

Placement locateKey(const std::string& text, const char* section, const char* key)
{
    Placement place;
    size_t pos = 0;
    bool inSection = false;
    while (pos < text.size()) {
        LineSpan l = lineAt(text, pos);
        const char* s = text.data() + l.begin;
        size_t len = l.end - l.begin;
        Name name;
        bool header = sectionHeader(s, len, false, &name);
        if (inSection && header) {
            place.kind = Placement::InsertBefore;
            place.at = l.begin;
            return place;
        }
        if (!inSection && header && sameName(name.text, name.len, section)) {
            inSection = true;
        } else if (inSection && writerKeyMatches(text, l, key)) {
            place.kind = Placement::Replace;
            place.line = l;
            return place;
        }
        pos = l.next;
    }
    place.kind = inSection ? Placement::AppendKey : Placement::AppendSection;
    place.at = text.size();
    return place;
}

bool readWhole(int fd, std::string* text)
{
    char chunk[8192];
    for (;;) {
        ssize_t got = read(fd, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return false;
        if (got == 0)
            return true;
        text->append(chunk, static_cast<size_t>(got));
    }
}

bool writeAt(int fd, const std::string& data, size_t offset)
{
    size_t done = 0;
    while (done < data.size()) {
        ssize_t put = pwrite(fd, data.data() + done, data.size() - done, static_cast<off_t>(offset + done));
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0)
            return false;
        done += static_cast<size_t>(put);
    }
    return true;
}

std::string padded(std::string line, long width)
{
    if (width > 0)
        line.append(static_cast<size_t>(width), ' ');
    return line;
}

// "  key=value" padded to 77 columns, with its newline.
std::string newKeyLine(const char* key, const char* value)
{
    long width = kNewLineWidth - static_cast<long>(strlen(key)) - static_cast<long>(strlen(value));
    return padded(std::string("  ") + key + "=" + value, width) + "\n";
}

std::string lineEnding(const std::string& text, const LineSpan& l)
{
    return l.next > l.end ? text.substr(l.end, l.next - l.end) : std::string("\n");
}

// The old value behind "=" (quoted, or up to the next blank) and the
// comment from the first ";" or "#" behind it to the line end.
struct OldLine {
    size_t commentBegin;
    size_t commentLen;
};

OldLine measureOldLine(const std::string& text, const LineSpan& l)
{
    size_t i = text.find('=', l.begin);
    i = (i == std::string::npos || i > l.end) ? l.end : i + 1;
    while (i < l.end && isBlank(text[i]))
        ++i;
    if (i < l.end && text[i] == '"') {
        size_t close = i + 1;
        while (close < l.end && !(text[close] == '"' && text[close - 1] != '\\'))
            ++close;
        i = close < l.end ? close + 1 : l.end;
    } else {
        // An unquoted value also ends at an unescaped ";" or "#", so that a
        // comment written right behind it is kept as well.
        while (i < l.end && !isBlank(text[i]) &&
               !((text[i] == ';' || text[i] == '#') && text[i - 1] != '\\'))
            ++i;
    }
    while (i < l.end && text[i] != ';' && text[i] != '#')
        ++i;
    return {i, l.end - i};
}

// The text that replaces a found line for ini_put_string, plus whether it
// fits the old line's width.
std::string rewrittenLine(const std::string& text, const LineSpan& l, const char* key, const char* value, bool* inPlace)
{
    OldLine old = measureOldLine(text, l);
    std::string comment = text.substr(old.commentBegin, old.commentLen);
    long lineLen = static_cast<long>(l.end - l.begin);
    long keyLen = static_cast<long>(strlen(key));
    long valueLen = static_cast<long>(strlen(value));
    long room = lineLen - keyLen - valueLen - 3 - static_cast<long>(comment.size());
    std::string head = std::string("  ") + key + "=" + value;
    if (room >= 0) {
        // Same width as before: the comment keeps its column and nothing
        // behind this line has to move.
        *inPlace = true;
        return padded(head, room) + comment;
    }
    *inPlace = false;
    std::string ending = lineEnding(text, l);
    if (comment.empty())
        return padded(head, kNewLineWidth - keyLen - valueLen) + ending;
    if (static_cast<long>(head.size() + 1 + comment.size()) <= kCommentColumns)
        return head + " " + comment + ending;
    return head + ending + comment + ending;
}

// Opens `file` for update, creating it, and reads it whole.
int openForUpdate(const char* file, std::string* text)
{
    int fd = open(file, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0)
        return -1;
    if (!readWhole(fd, text)) {
        close(fd);
        return -1;
    }
    return fd;
}

enum class WriteMode { KeepLayout, Exact };

int putValue(const char* section, const char* key, const char* value, const char* file, WriteMode mode)
{
    if (section == nullptr || key == nullptr || file == nullptr)
        return -1;
    if (value == nullptr)
        value = "";
    std::string text;
    FdHolder fd(openForUpdate(file, &text));
    if (fd.get() < 0)
        return -1;
    std::string newLine = mode == WriteMode::Exact ? std::string("  ") + key + "=" + value + "\n"
                                                   : newKeyLine(key, value);
    Placement place = locateKey(text, section, key);
    std::string data;
    size_t offset = place.at;
    switch (place.kind) {
    case Placement::AppendSection:
        data = std::string("\n[") + section + "]\n" + newLine;
        if (!writeAt(fd.get(), data, offset)) {
            if (mode == WriteMode::Exact)
                log_printf(0, "%s: Unable to add section %s\n", "ini_put_data", section);
            else
                log_printf(0, "Unable to add section %s\n", section);
            return -1;
        }
        return 0;
    case Placement::AppendKey:
        data = (!text.empty() && text.back() != '\n' ? "\n" : "") + newLine;
        break;
    case Placement::InsertBefore:
        data = newLine + text.substr(offset);
        break;
    case Placement::Replace: {
        offset = place.line.begin;
        bool inPlace = false;
        if (mode == WriteMode::Exact)
            data = newLine;
        else
            data = rewrittenLine(text, place.line, key, value, &inPlace);
        if (!inPlace)
            data += text.substr(place.line.next);
        break;
    }
    }
    bool ok = writeAt(fd.get(), data, offset);
    // Only the exact writer may shorten the file; the layout-keeping one
    // never shrinks a line, so it never truncates.
    if (ok && mode == WriteMode::Exact)
        ok = ftruncate(fd.get(), static_cast<off_t>(offset + data.size())) == 0;
    if (!ok) {
        log_printf(0, "Unable to add field %s\n", key);
        return -1;
    }
    return 0;
}

} // namespace

int ini_get_string(const char* section, const char* key, const char* dflt, char* buf, int size, const char* file)
{
    return lookup(section, key, dflt, buf, size, file, ValueForm::Parsed);
}

int ini_get_data(const char* section, const char* key, const char* dflt, char* buf, int size, const char* file)
{
    return lookup(section, key, dflt, buf, size, file, ValueForm::Raw);
}

int ini_get_int(const char* section, const char* key, int dflt, const char* file)
{
    char buf[31];
    if (section == nullptr || key == nullptr)
        return dflt;
    if (ini_get_string(section, key, nullptr, buf, sizeof buf, file) != 0)
        return dflt;
    // As atoi: leading digits count, anything else reads as 0; only the
    // range is clamped so that a huge number cannot overflow.
    long v = strtol(buf, nullptr, 10);
    if (v > INT_MAX)
        return INT_MAX;
    if (v < INT_MIN)
        return INT_MIN;
    return static_cast<int>(v);
}

int ini_get_bool(const char* section, const char* key, int dflt, unsigned char* out, const char* file)
{
    char buf[9];
    int word = -1;
    int rc = -1;
    if (section != nullptr && key != nullptr && ini_get_string(section, key, nullptr, buf, sizeof buf, file) == 0 &&
        buf[0] != '\0') {
        rc = 0;
        word = boolWord(buf);
    }
    if (out != nullptr)
        *out = static_cast<unsigned char>(word >= 0 ? word : dflt);
    return rc;
}

int ini_put_string(const char* section, const char* key, const char* value, const char* file)
{
    return putValue(section, key, value, file, WriteMode::KeepLayout);
}

int ini_put_int(const char* section, const char* key, int value, const char* file)
{
    char text[16];
    snprintf(text, sizeof text, "%d", value);
    return ini_put_string(section, key, text, file);
}

int ini_put_data(const char* section, const char* key, const char* value, const char* file)
{
    return putValue(section, key, value, file, WriteMode::Exact);
}

int get_master_value(const char* section, const char* key, char* out)
{
    constexpr int kSize = 1024;
    if (out == nullptr)
        return -1;
    if (g_master_ini.empty()) {
        copyDefault("N/A", out, kSize);
        return -1;
    }
    ini_get_string(section, key, "N/A", out, kSize, g_master_ini.c_str());
    if (out[0] == '\0' || strstr(out, "N/A") != nullptr)
        return -1;
    return 0;
}
