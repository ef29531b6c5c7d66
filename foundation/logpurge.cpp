// logpurge: deletes the log families in the log directory that the retention
// settings of their program (LogRetentionDays, LogRetentionInstances in
// master.ini) no longer cover.
#include "foundation/logger.h"

#include "foundation/environment.h"
#include "foundation/ini.h"
#include "foundation/logger_internal.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <string>

namespace {

constexpr int kGrowBy = 50;
constexpr long kSecondsPerDay = 86400;
constexpr int kPurgeDefaultInstances = 20;

// Retention of one program; entry 0 holds the `default` keys.
struct RetentionEntry {
    int days;
    int instances;
    char name[256];
};

struct RetentionList {
    RetentionEntry* entries = nullptr;
    int count = 0;
    int capacity = 0;
    RetentionList() = default;
    RetentionList(const RetentionList&) = delete;
    RetentionList& operator=(const RetentionList&) = delete;
    ~RetentionList() { free(entries); }
};

RetentionEntry* appendEntry(RetentionList& list, const char* name, int days, int instances)
{
    if (list.count == list.capacity) {
        void* grown = realloc(list.entries, sizeof(RetentionEntry) * (list.capacity + kGrowBy));
        if (grown == nullptr) {
            log_printf(0, "Could not allocate memory for RetConf list\n");
            return nullptr;
        }
        list.entries = static_cast<RetentionEntry*>(grown);
        list.capacity += kGrowBy;
    }
    RetentionEntry& entry = list.entries[list.count++];
    entry.days = days;
    entry.instances = instances;
    snprintf(entry.name, sizeof entry.name, "%s", name);
    return &entry;
}

// The program's entry, added with its own keys (entry 0 as defaults) when new.
RetentionEntry* retentionFor(RetentionList& list, const std::string& program)
{
    for (int i = 1; i < list.count; ++i)
        if (program == list.entries[i].name)
            return &list.entries[i];
    const RetentionEntry defaults = list.entries[0];
    const char* ini = g_master_ini.c_str();
    int days = ini_get_int("LogRetentionDays", program.c_str(), defaults.days, ini);
    int instances = ini_get_int("LogRetentionInstances", program.c_str(), defaults.instances, ini);
    return appendEntry(list, program.c_str(), days, instances);
}

// Splits "<program>-<n>" or "<program>-<n>_<m>" (the name without its
// extension). False for any other form and for an empty program name.
bool parseFamilyName(const std::string& stem, std::string* program, int* instance)
{
    size_t end = stem.size();
    size_t pos = end;
    while (pos > 0 && isdigit((unsigned char)stem[pos - 1]))
        --pos;
    if (pos == end || pos == 0)
        return false;
    size_t numberStart = pos;
    size_t numberEnd = end;
    if (stem[pos - 1] == '_') {
        numberEnd = pos - 1;
        numberStart = numberEnd;
        while (numberStart > 0 && isdigit((unsigned char)stem[numberStart - 1]))
            --numberStart;
        if (numberStart == numberEnd || numberStart == 0)
            return false;
    }
    if (stem[numberStart - 1] != '-')
        return false;
    *program = stem.substr(0, numberStart - 1);
    *instance = atoi(stem.substr(numberStart, numberEnd - numberStart).c_str());
    return !program->empty();
}

// The name without ".log" or ".log.gz"; false when it has neither or nothing
// stands before it.
bool stripExtension(const char* name, std::string* stem)
{
    size_t len = strlen(name);
    for (const char* ext : g_extns) {
        size_t extLen = strlen(ext);
        if (len > extLen && strcmp(name + len - extLen, ext) == 0) {
            stem->assign(name, len - extLen);
            return true;
        }
    }
    return false;
}

// 1 when the entry is retained, 0 when it was purged (or is gone).
int ScanFilter(RetentionList& list, const std::string& dir, const char* entryName)
{
    std::string stem;
    std::string program;
    int instance = 0;
    if (!stripExtension(entryName, &stem) || !parseFamilyName(stem, &program, &instance))
        return 1;
    RetentionEntry* retention = retentionFor(list, program);
    if (retention == nullptr) {
        log_printf(0, "ScanFilter: Error! Could not allocate memory");
        return 1;
    }
    int days = retention->days < 1 ? 1 : retention->days;
    time_t cutoff = time(nullptr) - days * kSecondsPerDay;
    std::string mainBase = dir + "/" + program + "-" + std::to_string(instance);
    struct stat st {};
    int instances = retention->instances < 1 ? 1 : retention->instances;
    if (LogfileExists(mainBase.c_str(), &st) >= 0 && st.st_mtime >= cutoff && instance <= instances) {
        log_printf(5, "Retaining log %s", entryName);
        return 1;
    }
    if (CleanupOldLogs((mainBase + ".log").c_str()) > 0) {
        log_printf(5, "Purged log %s \n", entryName);
        return 0;
    }
    // Nothing went: either an earlier entry took this family already, or a
    // rotated file outlived its main file and stays.
    return stat((dir + "/" + entryName).c_str(), &st) == 0 ? 1 : 0;
}

int ScanLogsDir(RetentionList& list, const std::string& dir)
{
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) {
        int saved = errno;
        log_printf(0, "ScanLogsDir: Could not perform opendir on logs directory\n");
        errno = saved;
        return -1;
    }
    int retained = 0;
    errno = 0;
    while (struct dirent* entry = readdir(d)) {
        if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
            retained += ScanFilter(list, dir, entry->d_name);
        errno = 0;
    }
    if (errno != 0)
        log_printf(0, "ScanLogsDir: Error reading directory entries \n");
    if (closedir(d) != 0)
        log_printf(0, "ScanLogsDir: Error performing closedir - %s \n", strerror(errno));
    return retained;
}

} // namespace

int PurgeOldLogs()
{
    RetentionList list;
    list.entries = static_cast<RetentionEntry*>(malloc(sizeof(RetentionEntry) * kGrowBy));
    if (list.entries == nullptr) {
        log_printf(0, "PurgeOldLogs: Error allocating memory \n");
        return -1;
    }
    list.capacity = kGrowBy;
    const char* ini = g_master_ini.c_str();
    appendEntry(list, "default", ini_get_int("LogRetentionDays", "default", 1, ini),
                ini_get_int("LogRetentionInstances", "default", kPurgeDefaultInstances, ini));
    int retained = ScanLogsDir(list, log_directory());
    if (retained < 0)
        log_printf(0, "Error purging old logs because %s \n", strerror(errno));
    else
        log_printf(3, "Suceesfully clean-up old logs. %d log files retained \n", retained);
    return retained;
}
