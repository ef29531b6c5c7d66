// blockOut: the bandwidth table in System V shared memory, the per-thread
// handles on it, and the parser of the "BlockOutPeriods" schedule.
#include "daemon/blockOut.h"

#include "foundation/logger.h"
#include "foundation/sysroot.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <string>
#include <sys/ipc.h>
#include <sys/shm.h>

namespace {

using Schedule = std::array<uint32_t, kBandwidthSlots>;

constexpr Schedule filledSchedule(uint32_t limit)
{
    Schedule s{};
    for (uint32_t& slot : s)
        slot = limit;
    return s;
}

// Stands in whenever a thread has no segment. It is never written: a process
// that could not get the shared table runs without any limit.
constexpr Schedule kUnlimitedTable = filledSchedule(kNoBandwidthLimit);

constexpr const char* kKeyPath = "/etc/default/tq.ini";
constexpr int kKeyProject = 's';
constexpr int kCreateRounds = 2;
constexpr int kLastWeekday = 6;
constexpr int kLastHour = 23;
constexpr unsigned kDefaultRunningLimit = kMinBandwidth;

// ---- per-thread handles --------------------------------------------------

pthread_once_t g_handleKeyOnce = PTHREAD_ONCE_INIT;
pthread_key_t g_handleKey;
int g_handleKeyError = 0;

void resetToBuiltIn(bandwidthHandle* h)
{
    h->attachedAddress = nullptr;
    h->table = kUnlimitedTable.data();
    h->shmId = -1;
    h->readOnly = 0;
}

void unmapHandle(bandwidthHandle* h)
{
    if (h->attachedAddress != nullptr)
        shmdt(h->attachedAddress);
    resetToBuiltIn(h);
}

// Key destructor: a thread that ends stops counting as a sender.
void destroyHandle(void* value)
{
    auto* h = static_cast<bandwidthHandle*>(value);
    unmapHandle(h);
    free(h);
}

void makeHandleKey()
{
    g_handleKeyError = pthread_key_create(&g_handleKey, destroyHandle);
}

bandwidthHandle* handleOrLog()
{
    bandwidthHandle* h = getBandwidthHandle();
    if (h == nullptr)
        log_printf(0, "%s:%d: Failed to get bandwidth thread handle.", __FILE__, __LINE__);
    return h;
}

// ---- schedule parser -----------------------------------------------------

bool isSeparator(char c)
{
    return c == ',' || isspace(static_cast<unsigned char>(c));
}

const char* skipBlanks(const char* p)
{
    while (isspace(static_cast<unsigned char>(*p)))
        ++p;
    return p;
}

// A number in any base strtoul takes with base 0 (so a leading 0 means
// octal and "08" stops after the "0"). Blanks in front are skipped; a sign
// is not a number here.
bool readNumber(const char*& p, unsigned long& out)
{
    const char* s = skipBlanks(p);
    if (!isdigit(static_cast<unsigned char>(*s)))
        return false;
    char* end = nullptr;
    out = strtoul(s, &end, 0);
    if (end == s)
        return false;
    p = end;
    return true;
}

// "=", blanks, a number and an optional k/m/g (either case) for 10/20/30
// bits. Below 4096 becomes 4096; 4 GiB a second or more is no limit at all.
bool readSize(const char*& p, uint32_t& out)
{
    if (*p != '=')
        return false;
    const char* s = p + 1;
    unsigned long value = 0;
    if (!readNumber(s, value))
        return false;
    unsigned shift = 0;
    switch (tolower(static_cast<unsigned char>(*s))) {
    case 'k': shift = 10; break;
    case 'm': shift = 20; break;
    case 'g': shift = 30; break;
    default: break;
    }
    if (shift != 0)
        ++s;
    uint64_t bytes = value;
    if (bytes > (UINT64_MAX >> shift))
        bytes = UINT64_MAX;
    else
        bytes <<= shift;
    out = bytes >= kNoBandwidthLimit ? kNoBandwidthLimit
                                     : std::max(static_cast<uint32_t>(bytes), kMinBandwidth);
    p = s;
    return true;
}

struct Range {
    unsigned long first = 0;
    unsigned long last = 0;
    const char* text = "";  // where it stands, for messages
    int length = 0;
};

// A number, or two numbers with "-" between them, blanks allowed around
// them. Blanks behind the range are not taken unless a "-" follows.
bool readRange(const char*& p, Range& r)
{
    const char* s = p;
    r.text = skipBlanks(p);
    if (!readNumber(s, r.first))
        return false;
    r.last = r.first;
    const char* dash = skipBlanks(s);
    if (*dash == '-') {
        const char* second = dash + 1;
        if (!readNumber(second, r.last))
            return false;
        s = second;
    }
    r.length = static_cast<int>(s - r.text);
    p = s;
    return true;
}

// Sets every slot of the weekdays first..last and hours first..last, each
// range wrapping: hours 22-6 are the night through midnight, weekdays 5-1
// Friday through Monday.
void fillSlots(Schedule& s, const Range& days, const Range& hours, uint32_t limit)
{
    for (unsigned long d = days.first;; d = (d + 1) % 7) {
        for (unsigned long h = hours.first;; h = (h + 1) % 24) {
            s[d * 24 + h] = limit;
            if (h == hours.last)
                break;
        }
        if (d == days.last)
            break;
    }
}

enum class TokenResult { Ok, Failed, Stop };

// One token that is not a bare "=size": range [":" range] ["=" size].
// A range out of bounds marks failure but the token is still read to its end.
TokenResult parseRangeToken(const char*& p, Schedule& s, uint32_t runningLimit)
{
    const char* start = p;
    Range first;
    if (!readRange(p, first)) {
        log_printf(0, "%s:%d: Bad blockout token: '%s'\n", __FILE__, __LINE__, start);
        return TokenResult::Stop;
    }
    Range days{0, static_cast<unsigned long>(kLastWeekday), "0-6", 3};
    Range hours = first;
    const char* colon = skipBlanks(p);
    if (*colon == ':') {
        days = first;
        p = colon + 1;
        // Nothing readable behind the colon: the whole day.
        if (!readRange(p, hours))
            hours = Range{0, static_cast<unsigned long>(kLastHour), "0-23", 4};
    }
    bool failed = false;
    if (days.first > kLastWeekday || days.last > kLastWeekday) {
        log_printf(0, "%s:%d: Weekdays '%.*s' must be 0-%d\n", __FILE__, __LINE__, days.length, days.text,
                   kLastWeekday);
        failed = true;
    }
    if (hours.first > kLastHour || hours.last > kLastHour) {
        log_printf(0, "%s:%d: Hours '%.*s' must be 0-%d\n", __FILE__, __LINE__, hours.length, hours.text,
                   kLastHour);
        failed = true;
    }
    uint32_t limit = runningLimit;
    const char* equals = skipBlanks(p);
    if (*equals == '=') {
        p = equals;
        if (!readSize(p, limit)) {
            log_printf(0, "%s:%d: Bandwidth limit must follow '=': '%s'\n", __FILE__, __LINE__, equals);
            return TokenResult::Stop;
        }
    }
    if (*p != '\0' && !isSeparator(*p)) {
        log_printf(0, "%s:%d: Bad blockout token: '%s'\n", __FILE__, __LINE__, start);
        return TokenResult::Stop;
    }
    if (failed)
        return TokenResult::Failed;
    fillSlots(s, days, hours, limit);
    return TokenResult::Ok;
}

// The list of tokens behind the default. False when a token failed or the
// parse stopped with text left over.
bool parseTokens(const char* p, Schedule& s)
{
    uint32_t runningLimit = kDefaultRunningLimit;
    bool ok = true;
    while (true) {
        while (isSeparator(*p))
            ++p;
        if (*p == '\0')
            return ok;
        if (*p == '=') {
            const char* start = p;
            if (!readSize(p, runningLimit) || (*p != '\0' && !isSeparator(*p))) {
                log_printf(0, "%s:%d: Bandwidth limit must follow '=': '%s'\n", __FILE__, __LINE__, start);
                return false;
            }
            continue;
        }
        TokenResult r = parseRangeToken(p, s, runningLimit);
        if (r == TokenResult::Stop)
            return false;
        if (r == TokenResult::Failed)
            ok = false;
    }
}

// "attach:<id>": 0 when this thread is on segment <id> afterwards.
int attachFromText(const char* idText)
{
    char* end = nullptr;
    errno = 0;
    long id = strtol(idText, &end, 0);
    if (end == idText || *skipBlanks(end) != '\0' || errno == ERANGE || id < INT32_MIN || id > INT32_MAX) {
        log_printf(0, "%s:%d: Shared memory id (integer) must follow attach: '%s'\n", __FILE__, __LINE__, idText);
        detachBandwidthTable();
        return -1;
    }
    return attachBandwidthTable(static_cast<int>(id));
}

// The only write of a live table: one memcpy of the whole schedule, so that a
// reader never sees half of an old and half of a new one.
void publishSchedule(bandwidthHandle* h, const Schedule& s)
{
    if (h->readOnly == 0 && h->attachedAddress != nullptr)
        memcpy(h->attachedAddress, s.data(), kBandwidthTableBytes);
}

// Senders sharing the segment: the kernel's attach count less the parent,
// which stays attached read-write; 1 when the count cannot be read.
uint32_t attachedSenders(int shmId)
{
    struct shmid_ds ds {};
    if (shmctl(shmId, IPC_STAT, &ds) != 0)
        return 1;
    if (ds.shm_nattch >= 2)
        return static_cast<uint32_t>(ds.shm_nattch - 1);
    return 1;
}

} // namespace

bandwidthHandle* getBandwidthHandle()
{
    if (pthread_once(&g_handleKeyOnce, makeHandleKey) != 0) {
        log_printf(0, "%s:%d: Either the once_control or init_routine is invalid.", __FILE__, __LINE__);
        return nullptr;
    }
    if (g_handleKeyError != 0) {
        log_printf(0, "%s:%d: Can't create bandwidth handle key: %s", __FILE__, __LINE__,
                   strerror(g_handleKeyError));
        return nullptr;
    }
    if (auto* h = static_cast<bandwidthHandle*>(pthread_getspecific(g_handleKey)))
        return h;
    auto* h = static_cast<bandwidthHandle*>(malloc(sizeof(bandwidthHandle)));
    if (h == nullptr) {
        log_printf(0, "%s:%d: Failed to malloc bandwidth table handle", __FILE__, __LINE__);
        return nullptr;
    }
    resetToBuiltIn(h);
    int rc = pthread_setspecific(g_handleKey, h);
    if (rc != 0) {
        if (rc == ENOMEM)
            log_printf(0, "%s:%d: Insufficient memory exists to associate the value with the key.", __FILE__,
                       __LINE__);
        else
            log_printf(0, "%s:%d: The key value is invalid.", __FILE__, __LINE__);
        free(h);
        return nullptr;
    }
    return h;
}

int createBandwidthTable()
{
    bandwidthHandle* h = handleOrLog();
    if (h == nullptr)
        return -1;
    unmapHandle(h);
    std::string keyPath = appliancePath(kKeyPath);
    for (int round = 0; round < kCreateRounds; ++round) {
        key_t key = ftok(keyPath.c_str(), kKeyProject);
        if (key == -1) {
            log_printf(0, "%s:%d: Can't get shared memory key: %s, %s\n", __FILE__, __LINE__, keyPath.c_str(),
                       strerror(errno));
            continue;
        }
        int id = shmget(key, kBandwidthTableBytes, IPC_CREAT | 0600);
        if (id < 0) {
            log_printf(0, "%s:%d: Can't get shared memory id for key %d: %s\n", __FILE__, __LINE__,
                       static_cast<int>(key), strerror(errno));
            continue;
        }
        void* addr = shmat(id, nullptr, 0);
        if (addr == reinterpret_cast<void*>(-1)) {
            log_printf(0, "%s:%d: Can't attach to shared memory %d: %s\n", __FILE__, __LINE__, id, strerror(errno));
            // Drop the segment nobody can use, so the next round gets a fresh
            // key and id instead of the same one again.
            shmctl(id, IPC_RMID, nullptr);
            continue;
        }
        memcpy(addr, kUnlimitedTable.data(), kBandwidthTableBytes);
        h->attachedAddress = addr;
        h->table = static_cast<const uint32_t*>(addr);
        h->shmId = id;
        h->readOnly = 0;
        // Marked for removal while attached: the segment lives exactly as long
        // as someone is attached, crash or not, and Linux still lets children
        // attach it by id.
        if (shmctl(id, IPC_RMID, nullptr) != 0)
            log_printf(3, "%s:%d: Can't mark shared memory %d to be destroyed: %s\n", __FILE__, __LINE__, id,
                       strerror(errno));
        return 0;
    }
    return -1;
}

int getBandwidthTableId()
{
    bandwidthHandle* h = handleOrLog();
    return h == nullptr ? -1 : h->shmId;
}

int attachBandwidthTable(int shmId)
{
    bandwidthHandle* h = handleOrLog();
    if (h == nullptr)
        return -1;
    if (h->shmId == shmId && h->attachedAddress != nullptr)
        return 0;
    unmapHandle(h);
    void* addr = shmat(shmId, nullptr, SHM_RDONLY);
    if (addr == reinterpret_cast<void*>(-1)) {
        log_printf(0, "%s:%d: Can't attach to shared memory %d: %s\n", __FILE__, __LINE__, shmId, strerror(errno));
        return -1;
    }
    h->attachedAddress = addr;
    h->table = static_cast<const uint32_t*>(addr);
    h->shmId = shmId;
    h->readOnly = 1;
    return 0;
}

void detachBandwidthTable()
{
    if (bandwidthHandle* h = handleOrLog())
        unmapHandle(h);
}

int parseBlockOutPeriods(const char* text)
{
    bandwidthHandle* h = handleOrLog();
    if (h == nullptr)
        return -1;
    if (text == nullptr)
        text = "";
    const char* p = skipBlanks(text);
    int result = 0;
    if (strncmp(p, "attach:", 7) == 0) {
        if (attachFromText(p + 7) == 0)
            return 0;
        result = -1;  // not attached: parsed as a schedule all the same
    }
    if (h->readOnly != 0)
        return -1;  // a worker cannot change the table

    uint32_t defaultLimit = kNoBandwidthLimit;
    const char* rest = p;
    if (*p == '=' && !readSize(rest, defaultLimit)) {
        log_printf(0, "%s:%d: Bad default bandwidth: '%s'\n", __FILE__, __LINE__, p);
        result = -1;
        rest = p + 1;
        while (*rest != '\0' && !isSeparator(*rest))
            ++rest;
    }
    Schedule s = filledSchedule(defaultLimit);
    // "default" is looked for at the start of the text, before any "=" part.
    if (strncmp(p, "default", 7) == 0) {
        publishSchedule(h, s);
        return result;
    }
    if (!parseTokens(rest, s) || result < 0) {
        s = filledSchedule(kNoBandwidthLimit);
        result = -1;
    }
    publishSchedule(h, s);
    return result;
}

uint32_t getThreadBandwidth(time_t when)
{
    bandwidthHandle* h = handleOrLog();
    if (h == nullptr || h->table == nullptr)
        return kNoBandwidthLimit;
    struct tm local {};
    if (localtime_r(&when, &local) == nullptr)
        return kNoBandwidthLimit;
    uint32_t limit = h->table[local.tm_wday * 24 + local.tm_hour];
    if (limit == kNoBandwidthLimit)
        return limit;
    // Every sender takes an equal share; at the floor the sum may exceed the
    // limit (3 senders of a 9000 limit get 4096 each).
    return std::max(limit / attachedSenders(h->shmId), kMinBandwidth);
}
