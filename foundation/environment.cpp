// environment: start-up of a process of the appliance. Finds the install
// directory and master.ini, fills the process-wide paths and exports them.
#include "foundation/environment.h"

#include "foundation/gerror.h"
#include "foundation/ini.h"
#include "foundation/logger.h"
#include "foundation/platform_capabilites.h"
#include "foundation/sysroot.h"

#include <arpa/inet.h>
#include <cerrno>
#include <clocale>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <netdb.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

std::string g_appdir;
std::string g_master_ini;
std::string g_bindir;
std::string g_logdir;
std::string g_reportdir;
std::string g_initdir;
std::string g_xrdir;
std::string g_listdir;
std::string g_profiledir;
std::string g_infodir;
std::string g_utildir;
std::string g_libdir;

char ghAppName[32];

StateRecord State;
ProfileRecord Profile;
int g_nice;
char g_appname[64];
char g_month_names[12][16];
char g_day_names[7][16];

namespace {

constexpr const char* kLocation = "Location Information";
constexpr const char* kOptions = "Configuration Options";
constexpr const char* kDebugging = "Debugging";
constexpr const char* kProductName = "ferryd";  // OemName when master.ini has none
constexpr const char* kService = "tqd";
constexpr const char* kProtocol = "tcp";
constexpr long kDefaultServicePort = 1743;
constexpr size_t kPathLimit = 256;
constexpr int kNotAbsolute = 17;

// The environment table: what print_env_table walks and init_state exports.
struct EnvRow {
    const char* name;
    const std::string* value;
};

const EnvRow kEnvTable[] = {
    {"TQ_MASTER_INI", &g_master_ini}, {"TQ_APPDIR", &g_appdir},         {"TQ_BINDIR", &g_bindir},
    {"TQ_LOGDIR", &g_logdir},         {"TQ_REPORTDIR", &g_reportdir},   {"TQ_INITDIR", &g_initdir},
    {"TQ_XRDIR", &g_xrdir},           {"TQ_LISTDIR", &g_listdir},       {"TQ_PROFILEDIR", &g_profiledir},
    {"TQ_INFODIR", &g_infodir},       {"TQ_UTILDIR", &g_utildir},       {"TQ_LIBDIR", &g_libdir},
    {"TQDIR", &g_appdir},             {"BKUPBIN", &g_bindir},
};

template <size_t N>
void copyText(char (&dst)[N], const std::string& src)
{
    snprintf(dst, N, "%s", src.c_str());
}

std::string baseName(const char* path)
{
    const char* slash = strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

bool readable(const std::string& path)
{
    return access(path.c_str(), R_OK) == 0;
}

bool isDirectory(const std::string& path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// mkdir -p with mode 0777 (less the umask); true when the directory exists.
bool makeDirectory(const std::string& path)
{
    if (path.empty() || isDirectory(path))
        return !path.empty();
    for (size_t pos = path.find('/', 1); pos != std::string::npos; pos = path.find('/', pos + 1))
        mkdir(path.substr(0, pos).c_str(), 0777);
    if (mkdir(path.c_str(), 0777) != 0 && errno != EEXIST) {
        log_errno_printf(0, "%s:%d: Cannot create directory %s", __FILE__, __LINE__, path.c_str());
        return false;
    }
    return true;
}

void buildNameTables()
{
    struct tm day {};
    day.tm_year = 100;
    for (int m = 0; m < 12; ++m) {
        day.tm_mon = m;
        day.tm_mday = 1;
        strftime(g_month_names[m], sizeof g_month_names[m], "%b", &day);
    }
    for (int d = 0; d < 7; ++d) {
        day.tm_wday = d;
        strftime(g_day_names[d], sizeof g_day_names[d], "%a", &day);
    }
}

// The install directory: $TQDIR, else TQDIR of tq.ini, else "/usr/tq". A
// value of "N/A" (the lookup's default) counts as not set.
std::string findInstallDir()
{
    std::string dir;
    if (const char* env = getenv("TQDIR"))
        dir = env;
    else if (readable(tq_ini_path())) {
        char buf[1024];
        ini_get_string(kLocation, "TQDIR", "N/A", buf, sizeof buf, tq_ini_path().c_str());
        dir = buf;
    }
    if (dir.empty() || dir.find("N/A") != std::string::npos)
        dir = appliancePath("/usr/tq");
    return dir;
}

// NiceHigh, NiceNormal or NiceLow by the program's level in section "Nice".
void applyNice(const char* master)
{
    int levels[3] = {ini_get_int(kOptions, "NiceHigh", -1, master), ini_get_int(kOptions, "NiceNormal", -1, master),
                     ini_get_int(kOptions, "NiceLow", -1, master)};
    g_nice = ini_get_int("Nice", ghAppName, 0, master);
    if (g_nice < 1 || g_nice > 3 || levels[g_nice - 1] == -1)
        return;
    long value = levels[g_nice - 1];
    errno = 0;
    long priority = nice(static_cast<int>(value - 20));
    log_printf(0, "Nice is set to level %ld, resulting priority %ld\n", static_cast<long>(g_nice), priority);
}

// The paths of the environment table under `dir`, before the keys of
// master.ini that may move the log and reports directories.
void setDerivedPaths(const std::string& dir)
{
    g_appdir = dir;
    g_bindir = dir + "/bin";
    g_logdir = dir + "/logs.dir";
    g_reportdir = dir + "/reports.dir";
    g_initdir = dir + "/tqinit";
    g_xrdir = g_initdir + "/xresources";
    g_listdir = dir + "/lists.dir";
    g_profiledir = dir + "/profiles.dir";
    g_infodir = dir + "/info.dir";
    g_utildir = dir + "/util";
    g_libdir = dir + "/lib";
}

// A key of "Location Information" in master.ini, or `fallback`.
std::string locationValue(const char* key, const std::string& fallback)
{
    char buf[1024];
    return get_master_value(kLocation, key, buf) == 0 ? std::string(buf) : fallback;
}

void readTitleAndDirectories(const std::string& dir)
{
    char title[sizeof Profile.title];
    ini_get_string(kOptions, "Title", "", title, sizeof title, g_master_ini.c_str());
    title[strcspn(title, ";")] = '\0';
    copyText(Profile.title, title);
    copyText(State.catalogDir, locationValue("CatalogDir", dir + "/catalog.dir"));
    g_reportdir = locationValue("Reports-Dir", g_reportdir);
    g_logdir = locationValue("Logs-Dir", g_logdir);
}

void openCommonLog()
{
    copyText(State.logPath, locationValue("Logname", g_logdir + "/tq.log"));
    // The log directory is made here already, not only with the others
    // further on, so that a fresh install's first lines are not lost.
    makeDirectory(g_logdir);
    close_log();
    open_log(State.logPath);
}

void readProfileSettings(const char* master)
{
    Profile.testTries = ini_get_int(kOptions, "TestTries", -1, master);
    Profile.isClient = ini_get_int(kOptions, "IsClient", 0, master);
    Profile.catalogLines = ini_get_int(kOptions, "CatalogLines", 66, master);
    Profile.rewindDelay = ini_get_int(kOptions, "RewindDelay", 30, master);
    ini_get_bool(kOptions, "AlwaysSkip", 1, &Profile.alwaysSkip, master);
    ini_get_bool(kOptions, "SkipNoFiles", 0, &Profile.skipNoFiles, master);
    State.enableStackLevel = ini_get_int(kDebugging, "Enable-stack-level", 9, master);
}

// A scratch name in the log directory; whatever an earlier process of the
// same pid left under it goes.
void makeTempName()
{
    snprintf(Profile.tempName, sizeof Profile.tempName, "%s/.AAA%ld", g_logdir.c_str(), static_cast<long>(getpid()));
    log_printf(2, "Profile_Temp: %s\n", Profile.tempName);
    unlink(Profile.tempName);
}

void createWorkDirectories()
{
    for (const std::string& dir : {g_profiledir, g_listdir, g_infodir, std::string(State.catalogDir), g_logdir,
                                   g_reportdir})
        makeDirectory(dir);
}

void setDefaultProfile()
{
    char buf[1024];
    if (get_master_value(kLocation, "DefProfile", buf) != 0)
        copyText(Profile.defaultProfile, g_profiledir + "/Default.spr");
    else if (buf[0] == '/')
        copyText(Profile.defaultProfile, buf);
    else
        copyText(Profile.defaultProfile, g_profiledir + "/" + buf);
    log_printf(2, "Profile: %s\n", Profile.defaultProfile);
}

void exportEnvTable()
{
    for (const EnvRow& row : kEnvTable)
        set_env_var("%s=%s", row.name, row.value->c_str());
}

} // namespace

std::string tq_ini_path()
{
    return appliancePath("/etc/default/tq.ini");
}

int init_globals(const char* programName, const char* iniName, const char* defaultDir)
{
    std::string iniPath = appliancePath(std::string("/etc/default/") + (iniName ? iniName : "tq.ini"));
    const char* dflt = defaultDir ? defaultDir : "";
    char dir[1024];
    int rc = 0;
    std::string initdir;
    if (ini_get_string(kLocation, "TQDIR", dflt, dir, sizeof dir, iniPath.c_str()) == 0) {
        initdir = std::string(dir) + "/tqinit";
    } else {
        rc = ini_get_string(kLocation, "APPDIR", dflt, dir, sizeof dir, iniPath.c_str()) == 0 ? 0 : -1;
        initdir = std::string(dir) + "/config";
    }
    g_appdir = dir;
    g_initdir = initdir;
    std::string master = initdir + "/master.ini";
    // Without a readable master.ini the lookups go to the small ini file,
    // where they find nothing and give their defaults.
    g_master_ini = readable(master) ? master : iniPath;
    g_logdir = g_appdir + "/logs.dir";
    g_bindir = g_appdir + "/bin";
    if (programName != nullptr)
        log_level = ini_get_int("debugging", baseName(programName).c_str(), log_level, g_master_ini.c_str());
    return rc;
}

int init_state()
{
    setlocale(LC_ALL, "");
    buildNameTables();

    std::string dir = findInstallDir();
    std::string master = dir + "/tqinit/master.ini";
    if (dir.size() >= kPathLimit || master.size() >= kPathLimit) {
        log_printf(0, "Installed directory path is too long\n");
        return -1;
    }
    copyText(State.tqdir, dir);
    copyText(State.masterIni, master);
    g_master_ini = master;
    log_printf(5, "Master_ini: %s\n", g_master_ini.c_str());
    const char* mi = g_master_ini.c_str();

    applyNice(mi);
    if (dir[0] != '/') {
        log_printf(0, "TQ path: %s must start with / - re-install", dir.c_str());
        State.errorCode = kNotAbsolute;
    }
    if (makeDirectory(dir) && chdir(dir.c_str()) != 0)
        log_errno_printf(0, "%s:%d: Cannot change into %s", __FILE__, __LINE__, dir.c_str());

    ini_get_string(kOptions, "OemName", kProductName, g_appname, sizeof g_appname, mi);
    setDerivedPaths(dir);
    set_gerror_file((g_initdir + "/gerror.ini").c_str());

    readTitleAndDirectories(dir);
    openCommonLog();
    log_level = ini_get_int(kDebugging, ghAppName, 0, mi);
    readProfileSettings(mi);

    makeTempName();
    log_printf(2, "Tqdir: %s\n", g_appdir.c_str());
    log_printf(2, "Master_ini: %s\n", g_master_ini.c_str());
    createWorkDirectories();
    setDefaultProfile();
    load_net_settings();
    exportEnvTable();
    setSystemTMaxCallback(GiveUpProcessor);
    return 0;
}

int load_net_settings()
{
    const char* mi = g_master_ini.c_str();
    if (struct servent* se = getservbyname(kService, kProtocol)) {
        State.servicePort = ntohs(static_cast<uint16_t>(se->s_port));
    } else {
        log_printf(0, "%s:%d: Service %s/%s is not in the services table\n", __FILE__, __LINE__, kService,
                   kProtocol);
        log_printf(0, "Using %ld\n", kDefaultServicePort);
        State.servicePort = kDefaultServicePort;
    }
    State.dataPort = ini_get_int(kOptions, "data", 1744, mi);
    State.queueLength = ini_get_int(kOptions, "Queue", 4, mi);
    State.netPacket = ini_get_int(kOptions, "Netpacket", 768, mi);
    State.interChannel = ini_get_int(kOptions, "InterChannel", 0, mi);
    State.optNetPacket = ini_get_int(kOptions, "OptNetpacket", 4, mi);
    return 0;
}

int set_env_var(const char* fmt, ...)
{
    char buf[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    log_printf(5, "Env-> %s\n", buf);
    char* eq = strchr(buf, '=');
    if (eq == nullptr || eq == buf)
        return -1;
    *eq = '\0';
    if (setenv(buf, eq + 1, 1) != 0) {
        *eq = '=';
        if (errno == ENOMEM)
            log_printf(0, "Failed to set environment (no memory): %s\n", buf);
        return -1;
    }
    return 0;
}

void print_env_table(int shellForm)
{
    for (const EnvRow& row : kEnvTable)
        printf(shellForm ? ": ${%s:=%s}\n" : "%s=%s\n", row.name, row.value->c_str());
    fflush(stdout);
}

void app_name_from_argv(char* buf, int size, const char* path)
{
    if (buf == nullptr || size <= 0)
        return;
    buf[0] = '\0';
    if (path == nullptr)
        return;
    size_t len = strlen(path);
    size_t keep = static_cast<size_t>(size) - 1;
    const char* tail = len > keep ? path + len - keep : path;
    const char* slash = strrchr(tail, '/');
    snprintf(buf, static_cast<size_t>(size), "%s", slash != nullptr ? slash + 1 : tail);
}

void GiveUpProcessor()
{
    sched_yield();
}
