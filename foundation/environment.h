// environment: start-up of a process of the appliance. Finds the install
// directory, master.ini and the other directories, fills the process-wide
// paths and exports them as TQ_* variables for the programs it starts.
#pragma once

#include <string>

// Process-wide paths, computed once by init_globals/init_state.
extern std::string g_appdir;      // install directory (TQ_APPDIR, TQDIR)
extern std::string g_master_ini;  // <dir>/tqinit/master.ini (TQ_MASTER_INI)
extern std::string g_bindir;      // <dir>/bin (TQ_BINDIR, BKUPBIN)
extern std::string g_logdir;      // "Logs-Dir", else <dir>/logs.dir (TQ_LOGDIR)
extern std::string g_reportdir;   // "Reports-Dir", else <dir>/reports.dir
extern std::string g_initdir;     // <dir>/tqinit
extern std::string g_xrdir;       // <dir>/tqinit/xresources
extern std::string g_listdir;     // <dir>/lists.dir
extern std::string g_profiledir;  // <dir>/profiles.dir
extern std::string g_infodir;     // <dir>/info.dir
extern std::string g_utildir;     // <dir>/util
extern std::string g_libdir;      // <dir>/lib

// Program name: the last 31 characters of argv[0], from behind the last "/".
extern char ghAppName[32];

// The rest of what init_state finds out: the install directory and the
// master.ini path as it saw them, the catalog directory, the path of the
// common log, the last error code (17: the install directory is not
// absolute) and the network settings of load_net_settings.
struct StateRecord {
    char tqdir[256];
    char masterIni[256];
    char catalogDir[1024];
    char logPath[1024];
    int errorCode;
    long servicePort;     // service "tqd"/tcp, else 1743
    long dataPort;        // "data"
    int queueLength;      // "Queue"
    int netPacket;        // "Netpacket"
    int interChannel;     // "InterChannel"
    int optNetPacket;     // "OptNetpacket"
    int enableStackLevel; // "Enable-stack-level" of section "Debugging"
};

// The companion of State: defaults for the work a process does.
struct ProfileRecord {
    int testTries;       // "TestTries"
    int isClient;        // "IsClient"
    int catalogLines;    // "CatalogLines"
    int rewindDelay;     // "RewindDelay"
    unsigned char alwaysSkip;   // "AlwaysSkip"
    unsigned char skipNoFiles;  // "SkipNoFiles"
    char title[256];            // "Title", cut at the first ";"
    char defaultProfile[1024];  // "DefProfile", else <dir>/profiles.dir/Default.spr
    char tempName[1024];        // "<logdir>/.AAA<pid>"
};

extern StateRecord State;
extern ProfileRecord Profile;
extern int g_nice;          // key <ghAppName> of section "Nice"
extern char g_appname[64];  // "OemName", the product's display name
// Month and day names of the current locale, abbreviated ("%b", "%a").
extern char g_month_names[12][16];
extern char g_day_names[7][16];

// Path of "/etc/default/tq.ini" under the appliance root.
std::string tq_ini_path();

// Light start-up: "/etc/default/<iniName>" (under the appliance root)
// locates the install directory: key TQDIR of "Location Information" (init
// directory <dir>/tqinit), else APPDIR (init directory <dir>/config), else
// `defaultDir`, which is used as given (pass a fixed path through
// appliancePath). 0, or -1 when neither key was found. Sets g_appdir,
// g_initdir, g_master_ini (the ini file itself when master.ini cannot be
// read), g_logdir, g_bindir, and log_level from the key named after the
// base name of `programName` in section "debugging" of master.ini.
int init_globals(const char* programName, const char* iniName, const char* defaultDir);

// Full start-up after ghAppName is set: install directory from $TQDIR, else
// TQDIR of tq.ini, else "/usr/tq" (also for an empty value or "N/A"); all
// process-wide paths, State and Profile, the directories created, nice, the
// common log "<logdir>/tq.log" opened, log_level, net settings, the TQ_*
// table exported (so a later call in this process takes TQDIR from the
// environment) and GiveUpProcessor registered with SystemTMax. Changes the
// working directory to the install directory. 0, or -1 when a path is too
// long ("Installed directory path is too long" at level 0).
int init_state();

// The port of service "tqd"/tcp (else 1743, with an error logged) and the
// net keys of "Configuration Options" into State. Returns 0.
int load_net_settings();

// Formats "NAME=value" into 1024 bytes, logs "Env-> ..." at level 5 and sets
// the variable, overwriting. 0, or -1 without "=" or when setenv fails
// (out of memory is logged at level 0).
int set_env_var(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Prints the 14 rows of the TQ_* table on stdout as "%s=%s\n", or with
// `shellForm` set as ": ${%s:=%s}\n".
void print_env_table(int shellForm);

// Stores the program name of `path` into `buf`: of its last size - 1
// characters, what follows the last "/". Always NUL-terminated.
void app_name_from_argv(char* buf, int size, const char* path);

// Gives up the processor for a moment (sched_yield); SystemTMax runs it on
// each pass of its wait once init_state has registered it.
void GiveUpProcessor();
