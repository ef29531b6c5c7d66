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

// Path of "/etc/default/tq.ini" under the appliance root.
std::string tq_ini_path();

// Light start-up: "/etc/default/<iniName>" locates the install directory
// (key TQDIR, else APPDIR, of "Location Information"). 0, or -1 when neither
// key was found. Sets g_appdir, g_initdir, g_master_ini, g_logdir, g_bindir and
// log_level from section "debugging".
int init_globals(const char* programName, const char* iniName, const char* defaultDir);

// Full start-up after ghAppName is set: paths, directories, the common log,
// log level, net settings, TQ_* export. 0, or -1 when a path is too long.
int init_state();

int load_net_settings();

// Formats "NAME=value" into 1024 bytes and sets it in the environment.
int set_env_var(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Prints the 14 rows of the TQ_* table as "%s=%s\n" or ": ${%s:=%s}\n".
void print_env_table(int shellForm);

// Stores the program name of `path` into `buf` (see ghAppName).
void app_name_from_argv(char* buf, int size, const char* path);
