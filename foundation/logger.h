// logger: the one text log of every process of the appliance, with instance
// files, rotation, a stack of procedure names and a store of error messages
// (the error store has its own header, foundation/gerror.h).
//
// Line format: time by "%b %d %T", " : ", "[LOG%d] ", the message, a newline
// added when the format has none. Call sites begin their format with
// "%s:%d: " and pass __FILE__ and __LINE__.
//
// The full writer is safe for threads and signal handlers: all signals are
// blocked in the calling thread while the log lock is held. The simple
// writer, the name stack and the error store are for one thread of a process.
#pragma once

#include <cstdio>
#include <sys/stat.h>

extern int log_level;         // threshold; 200 = off; > 99 = simple mode + 100
extern int log_simple;        // simple writer: no lock, no rotation
extern int log_screen_level;  // copy on stderr up to this level; -1 none
extern char log_fname[1024];  // resolved path of the log being opened
extern char g_base_fname[1024];     // current log file, base of its rotation family
extern int g_logs_per_instance;     // files in one rotation family; 1 = no rotation
extern const char* const g_extns[2];  // ".log", ".log.gz"

// Where error_printf sends its text when set and g_shell_mode is 0; stderr
// otherwise. The logger reports its own failures through error_printf, at
// times while it holds the log lock: a sink that calls log_printf from there
// has its line written bare on stderr instead of deadlocking.
extern int (*g_errmsg_proc)(const char* msg);
extern int g_shell_mode;

// Settings of the program's log, read from master.ini by load_log_config.
struct LogConfig {
    int retentionDays = 1;       // "LogRetentionDays", at least 1
    int retentionInstances = 1;  // "LogRetentionInstances", at least 1
    int logsPerInstance = 4;     // "LogsPerInstance"; below 2 no rotation
    int maxLogKB = 3072;         // "MaxLogKB", at least 0; 0 no rotation
};
extern LogConfig g_log_config;

// Writes a line at `level` (0 always written unless logging is off). A log
// level above 99 is folded into simple mode at the first call. Opens
// "/tmp/program.log" when no log is open. Returns the characters written to
// the log, 0 when filtered (a line echoed only on stderr counts as filtered).
int log_printf(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
// Formats into 1024 bytes and logs it followed by " because...(%ld) %s " with
// errno and its text; a newline that ended the message moves to the end.
void log_errno_printf(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
// No prefix, no added newline, no rotation; echoed on stderr by
// log_screen_level. In simple mode the simple writer (with prefix) is used.
// Returns the characters written.
int log_raw_printf(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
// Logs each line of `path` (up to 2047 bytes a line) as a line at `level`.
// 0, or -1 after "logger: Cannot include contents of ..." when it can't be
// opened.
int log_include_file(int level, const char* path);

// Loads the log settings from master.ini, opens the program's instance log
// (or $TQLOGNAME), arms rotation and writes the start line. Returns 0.
int open_program_log(const char* name, int defaultInstances);
// Moves the current log family to a new instance of `name` and carries on
// writing there. Returns the result of the open (0 or -1).
int switch_program_log(const char* name);
// Reads LogRetentionDays, LogRetentionInstances (default `defaultInstances`),
// LogsPerInstance and MaxLogKB for `name` into g_log_config.
void load_log_config(const char* name, int defaultInstances);
// Chooses the instance number of `name` (first free one, one past its
// retention, or the oldest), records the path in "Location Information" of
// tq.ini (the old one under prev_<name>) and opens it. *instance gets the
// number. Returns the result of open_log.
int OpenInstanceLog(const char* name, int* instance);
// Opens a log by name (relative names go under g_logdir, else "/tmp");
// nullptr means "/tmp/program.log". Full mode first deletes the file and its
// rotated family (or, with the rename flag, moves the old family there).
// Simple mode appends to "<dir>/<name up to its last '-'>.log". 0 or -1.
int open_log(const char* name);
// Closes the log, deletes `path` unless the rename flag is set, opens it for
// appending with close-on-exec and mode 0664. On failure logs go to
// "/dev/null" and the result is -1; if even that fails the process exits 1.
int OpenLog(const char* path);
// Writes "<time> : pid=<pid> <ppid> : Log Closed" (unless logging is off) and
// closes the log. A log on stderr is forgotten, not closed.
void close_log();
// Arms rotation at `maxKB` KiB with `filesPerInstance` files when both allow
// it (files > 1, KiB > 0), disarms it otherwise. A null name or start time
// keeps the old one; they are printed in the header after a rotation.
void set_log_rotation(const char* name, int instance, int maxKB, int filesPerInstance,
                      const char* startTime);
// The next open_log moves the current family to its name instead of starting
// afresh.
void set_log_rename_flag(int flag);
void flush_log();
// With a stream: flushes the current one, writes to `stream` from now on
// (never rotated) and returns the old one. With nullptr: returns the current
// stream, opening "/dev/null" first when there is none and logging is off.
FILE* swap_log_stream(FILE* stream);
// Index into g_extns of the extension under which `pathWithoutExt` exists
// (".log" tried first), -1 if neither; fills *st when given.
int LogfileExists(const char* pathWithoutExt, struct stat* st);
// Deletes the file of `path` (".log" stripped, either extension) and its
// rotated _1, _2, ... files up to the first missing index. Returns how many
// went, -1 when one could not be deleted.
int CleanupOldLogs(const char* path);
// Paths recorded in "Location Information" of /etc/default/tq.ini under
// <name> and prev_<name>; "<name>.log" when not recorded. Return 0.
int get_log_name(const char* name, char* buf, int size);
int get_prev_log_name(const char* name, char* buf, int size);
// Deletes in g_logdir every instance family that the retention settings no
// longer cover. Returns the number of files retained, or -1 when the
// directory can't be read.
int PurgeOldLogs();
// Formats into 1024 bytes and passes it to g_errmsg_proc, or writes it on
// stderr. Returns the sink's result (characters written on stderr).
int error_printf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Procedure name stack: 50 entries of 63 characters, for one thread.
// push_name: -1 when the stack was full (it is then cleared, each entry logged
// at level 1), else 0. pop_name: -1 only for a corrupt index; it does not stop
// at an empty stack. dbproc_name: the top entry, "Not set:" when there is none.
int push_name(const char* name);
int pop_name();
const char* dbproc_name();

// Keeps a function's name on the name stack for the life of the object.
class NameStackScope {
public:
    explicit NameStackScope(const char* name) { push_name(name); }
    ~NameStackScope() { pop_name(); }
    NameStackScope(const NameStackScope&) = delete;
    NameStackScope& operator=(const NameStackScope&) = delete;
};
// Logs "Stack Procedure Trace Dump:" and every entry at level 1.
void dump_name_stack();
