// gerror: the error store, ten messages in each of six classes, with texts
// framed by class and the numbers of classes 2 and 3 named by gerror.ini.
#include "foundation/gerror.h"

#include "foundation/ini.h"
#include "foundation/logger.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr int kCallerText = 257;  // the caller's part: 256 characters
constexpr int kMaxRegistered = 10;
constexpr int kMaxSysErrno = 254;
constexpr int kMaxTqNumber = 13;

struct ClassStore {
    GerrorRecord records[GERROR_MAX_MESSAGES];
    unsigned long added[GERROR_MAX_MESSAGES];  // order over all classes, for last_gerror
    int count;
};

struct RegisteredClass {
    int cls;
    int maxNumber;
    char prefix[8];
    GerrorTextFn textFn;
};

ClassStore stores[GERROR_CLASSES];
unsigned long addedCounter = 0;
int currentLevel = 0;
std::string textFile = "/dev/null";
RegisteredClass registered[kMaxRegistered];
int registeredCount = 0;

// Slot of a class: 0 to 5 as they are; the registered classes below 0 share
// class 1. -1 for a class above 5.
int slotOf(int cls)
{
    if (cls < 0)
        return 1;
    return cls < GERROR_CLASSES ? cls : -1;
}

// The name of an error number in `section` of the text file, "Unknown" if none.
std::string namedNumber(const char* section, int number)
{
    char name[256];
    ini_get_string(section, std::to_string(number).c_str(), "Unknown", name, sizeof name,
                   textFile.c_str());
    return name;
}

const char* resolverError(int number, int savedErrno)
{
    switch (number) {
    case -1: return strerror(savedErrno);
    case 0: return "No network error reported";
    case 1: return "Host was not found";
    case 2: return "Please try again";
    case 3: return "Non recoverable error";
    case 4: return "Name valid, no data record found";
    default: return "Unknown error";
    }
}

RegisteredClass* findRegistered(int cls)
{
    for (int i = 0; i < registeredCount; ++i)
        if (registered[i].cls == cls)
            return &registered[i];
    return nullptr;
}

void registeredText(int cls, int number, const char* text, char* out, size_t size)
{
    const RegisteredClass* reg = findRegistered(cls);
    if (reg == nullptr)
        snprintf(out, size, "Unknown error class: %d %s", cls, text);
    else if (number < 0 || number > reg->maxNumber)
        snprintf(out, size, "%s%s : Error %d is out of range (Max is %d)", reg->prefix, text, number,
                 reg->maxNumber);
    else
        snprintf(out, size, "%s%s %s", reg->prefix, text, reg->textFn ? reg->textFn(number) : "");
}

void frameText(int cls, int number, const char* text, int savedErrno, char* out, size_t size)
{
    switch (cls) {
    case 0:
        snprintf(out, size, "(SYS) %s %s", text,
                 number < 0 || number > kMaxSysErrno ? "Error number is out of bounds" : strerror(number));
        break;
    case 2:
        if (number > kMaxTqNumber)
            snprintf(out, size, "(TQ) %s TQ Error %d", text, number);
        else if (number == 1)
            snprintf(out, size, "%s", text);
        else
            snprintf(out, size, "(TQ) %s %s", namedNumber("General", number).c_str(), text);
        break;
    case 3:
        snprintf(out, size, "(NET) %s %s", text,
                 number < 2 ? namedNumber("Network", number).c_str() : strerror(number));
        break;
    case 4:
        snprintf(out, size, "%s", text);
        break;
    case 5:
        snprintf(out, size, "(NETWORK) %s %s", text, resolverError(number, savedErrno));
        break;
    default:
        registeredText(cls, number, text, out, size);
        break;
    }
}

void appendRecordLines(const ClassStore& store, std::string* out)
{
    for (int i = 0; i < store.count; ++i) {
        *out += store.records[i].text;
        *out += '\n';
    }
}

} // namespace

int add_gerror(int cls, int number, const char* fmt, ...)
{
    int savedErrno = errno;
    int slot = slotOf(cls);
    if (slot < 0)
        return -1;
    char text[kCallerText];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);

    ClassStore& store = stores[slot];
    GerrorRecord record {};
    record.cls = cls;
    record.number = number;
    record.level = currentLevel;
    frameText(cls, number, text, savedErrno, record.text, sizeof record.text);
    log_printf(4, "add_gerror: %s\n", record.text);
    if (store.count >= GERROR_MAX_MESSAGES) {
        log_printf(1, "add_gerror: WARNING - number of messages %d exceeds %d\n", store.count + 1,
                   GERROR_MAX_MESSAGES);
        log_printf(1, "Last message was \"%s\"\n", store.records[store.count - 1].text);
        store.count = 0;
    }
    store.records[store.count] = record;
    store.added[store.count] = ++addedCounter;
    ++store.count;
    return 0;
}

int add_gerror_class(int cls, int maxNumber, const char* prefix, GerrorTextFn textFn)
{
    RegisteredClass* reg = findRegistered(cls);
    if (reg == nullptr) {
        if (registeredCount >= kMaxRegistered)
            return -1;
        reg = &registered[registeredCount++];
    }
    reg->cls = cls;
    reg->maxNumber = maxNumber;
    snprintf(reg->prefix, sizeof reg->prefix, "%s", prefix ? prefix : "");
    reg->textFn = textFn;
    return 0;
}

int set_gerror_level(int level)
{
    int previous = currentLevel;
    currentLevel = level;
    return previous;
}

void set_gerror_file(const char* path)
{
    textFile = (path != nullptr && *path != '\0') ? path : "/dev/null";
}

void clear_gerror(int cls)
{
    int slot = slotOf(cls);
    if (slot >= 0)
        stores[slot].count = 0;
}

void clear_all_gerrors()
{
    for (ClassStore& store : stores)
        store.count = 0;
}

int gerror_list(int cls, const GerrorRecord** records)
{
    int slot = slotOf(cls);
    if (slot < 0) {
        if (records != nullptr)
            *records = nullptr;
        return 0;
    }
    if (records != nullptr)
        *records = stores[slot].records;
    return stores[slot].count;
}

const char* last_gerror(int cls)
{
    const GerrorRecord* newest = nullptr;
    unsigned long newestAdded = 0;
    for (int slot = 0; slot < GERROR_CLASSES; ++slot) {
        if (cls != GERROR_ALL_CLASSES && slot != slotOf(cls))
            continue;
        const ClassStore& store = stores[slot];
        if (store.count > 0 && store.added[store.count - 1] > newestAdded) {
            newest = &store.records[store.count - 1];
            newestAdded = store.added[store.count - 1];
        }
    }
    return newest ? newest->text : nullptr;
}

void log_gerrors(int cls, int level)
{
    log_printf(level, "===== Gerror: %d =====\n", cls);
    for (int slot = 0; slot < GERROR_CLASSES; ++slot) {
        if (cls != GERROR_ALL_CLASSES && slot != slotOf(cls))
            continue;
        for (int i = 0; i < stores[slot].count; ++i)
            if (stores[slot].records[i].level <= level)
                log_printf(level, "%s\n", stores[slot].records[i].text);
    }
    log_printf(level, "===== Gerror end =====\n");
}

char* gerror_text(int cls)
{
    std::string lines;
    if (cls == GERROR_ALL_CLASSES) {
        for (const ClassStore& store : stores)
            appendRecordLines(store, &lines);
    } else if (slotOf(cls) >= 0) {
        appendRecordLines(stores[slotOf(cls)], &lines);
    }
    if (lines.empty())
        return nullptr;
    return strdup(lines.c_str());
}
