// programlog: the log of one program: its settings in master.ini, the choice
// of its instance file <name>-<instance>.log, and the record of the path in
// "Location Information" of /etc/default/tq.ini.
#include "foundation/logger.h"

#include "foundation/environment.h"
#include "foundation/ini.h"
#include "foundation/logger_internal.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <unistd.h>

LogConfig g_log_config;

namespace {

constexpr char kLocationSection[] = "Location Information";
constexpr char kStartTimeFormat[] = "%a %b %d %Y %X %Z";
constexpr long kSecondsPerDay = 86400;

// Key `default` of `section` first, then the program's own key with that
// result as its default.
int readLogSetting(const char* section, const char* name, int dflt)
{
    const char* ini = g_master_ini.c_str();
    int value = ini_get_int(section, "default", dflt, ini);
    if (name != nullptr && *name != '\0')
        value = ini_get_int(section, name, value, ini);
    return value;
}

std::string joinPath(const std::string& dir, const std::string& name)
{
    if (!dir.empty() && dir.back() == '/')
        return dir + name;
    return dir + "/" + name;
}

std::string instanceBase(const std::string& dir, const char* name, int instance)
{
    return joinPath(dir, std::string(name) + "-" + std::to_string(instance));
}

// The instance search: the first free number; else an instance whose file
// is older than the cutoff; else, once the retention count is reached, the
// instance with the oldest file. Numbers run up to and including
// `retentionInstances`.
int chooseInstance(const std::string& dir, const char* name, time_t cutoff, int retentionInstances)
{
    struct stat st {};
    time_t oldestTime = 0;
    int oldest = 0;
    if (LogfileExists(instanceBase(dir, name, 0).c_str(), &st) >= 0)
        oldestTime = st.st_mtime;
    for (int i = 0;; ++i) {
        if (LogfileExists(instanceBase(dir, name, i).c_str(), &st) < 0)
            return i;
        if (st.st_mtime < oldestTime || oldestTime == 0) {
            oldest = i;
            oldestTime = st.st_mtime;
        }
        if (st.st_mtime < cutoff)
            return i;
        if (i == retentionInstances)
            return oldest;
    }
}

void currentTimeText(char* buf, size_t size)
{
    time_t now = time(nullptr);
    struct tm tm {};
    localtime_r(&now, &tm);
    if (strftime(buf, size, kStartTimeFormat, &tm) == 0)
        buf[0] = '\0';
}

void logSettings()
{
    log_printf(6, "\tLogRetentionDays:%d\n", g_log_config.retentionDays);
    log_printf(6, "\tLogRetentionInstances:%d\n", g_log_config.retentionInstances);
    log_printf(6, "\tLogsPerInstance:%d\n", g_log_config.logsPerInstance);
    log_printf(6, "\tMaxLogSize:%d\n", g_log_config.maxLogKB);
}

} // namespace

void load_log_config(const char* name, int defaultInstances)
{
    int days = readLogSetting("LogRetentionDays", name, 1);
    int instances = readLogSetting("LogRetentionInstances", name, defaultInstances);
    int perInstance = readLogSetting("LogsPerInstance", name, 4);
    int maxKB = readLogSetting("MaxLogKB", name, 3072);
    g_log_config.retentionDays = days < 1 ? 1 : days;
    g_log_config.retentionInstances = instances < 1 ? 1 : instances;
    g_log_config.logsPerInstance = perInstance;
    g_log_config.maxLogKB = maxKB < 0 ? 0 : maxKB;
}

int OpenInstanceLog(const char* name, int* instance)
{
    int days = g_log_config.retentionDays < 1 ? 1 : g_log_config.retentionDays;
    time_t cutoff = time(nullptr) - days * kSecondsPerDay;
    std::string tqIni = tq_ini_path();
    char previous[1024];
    ini_get_string(kLocationSection, name, "", previous, sizeof previous, tqIni.c_str());
    ini_put_string(kLocationSection, (std::string("prev_") + name).c_str(), previous, tqIni.c_str());

    std::string dir = log_directory();
    fold_simple_log_level(name);
    if (log_simple) {
        std::string path = joinPath(dir, std::string(name) + ".log");
        close_log();
        if (instance != nullptr)
            *instance = 0;
        return open_log(path.c_str());
    }

    int chosen = chooseInstance(dir, name, cutoff, g_log_config.retentionInstances);
    std::string path = instanceBase(dir, name, chosen) + ".log";
    log_printf(6, "New Log Name: %s\n", path.c_str());
    log_printf(6, "Location....: %s\n", dir.c_str());
    log_printf(6, "AppName.....: %s\n", name);
    log_printf(6, "IniName.....: %s\n", tqIni.c_str());
    close_log();
    int rc = open_log(path.c_str());
    ini_put_string(kLocationSection, name, path.c_str(), tqIni.c_str());
    if (instance != nullptr)
        *instance = chosen;
    return rc;
}

int open_program_log(const char* name, int defaultInstances)
{
    load_log_config(name, defaultInstances);
    int instance = 0;
    if (const char* fixedName = getenv("TQLOGNAME"))
        open_log(fixedName);
    else
        OpenInstanceLog(name, &instance);
    char started[128];
    currentTimeText(started, sizeof started);
    set_log_rotation(name, instance, g_log_config.maxLogKB, g_log_config.logsPerInstance, started);
    log_printf(0, "%s[%s, pid = %d]: started on %s  (Log level=%d)\n", name, FERRY_VERSION,
               (int)getpid(), started, log_level);
    log_printf(6, "Program Log Loaded log configs\n");
    logSettings();
    return 0;
}

int switch_program_log(const char* name)
{
    load_log_config(name, g_log_config.retentionInstances);
    set_log_rename_flag(1);
    int instance = 0;
    int rc = OpenInstanceLog(name, &instance);
    set_log_rotation(name, instance, g_log_config.maxLogKB, g_log_config.logsPerInstance, nullptr);
    log_printf(6, "New log configs loaded for %s\n", name);
    logSettings();
    return rc;
}

int get_log_name(const char* name, char* buf, int size)
{
    std::string dflt = std::string(name) + ".log";
    ini_get_string(kLocationSection, name, dflt.c_str(), buf, size, tq_ini_path().c_str());
    return 0;
}

int get_prev_log_name(const char* name, char* buf, int size)
{
    std::string key = std::string("prev_") + name;
    std::string dflt = std::string(name) + ".log";
    ini_get_string(kLocationSection, key.c_str(), dflt.c_str(), buf, size, tq_ini_path().c_str());
    return 0;
}
