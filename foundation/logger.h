// logger: the one text log of every process of the appliance, with instance
// files, rotation, a stack of procedure names and a store of error messages.
//
// Line format: time by "%b %d %T", " : ", "[LOG%d] ", the message, a newline
// added when the format has none. Call sites begin their format with
// "%s:%d: " and pass __FILE__ and __LINE__.
//
// The full writer is safe for threads and signal handlers: all signals are
// blocked in the calling thread while the log lock is held. The name stack
// and the error store are for one thread of a process.
#pragma once

#include <cstdio>
#include <sys/stat.h>

extern int log_level;         // threshold; 200 = off; > 99 = simple mode + 100
extern int log_simple;        // simple writer: no lock, no rotation
extern int log_screen_level;  // copy on stderr up to this level; -1 none

// Writes a line at `level` (0 always written unless logging is off).
// Returns characters written, 0 when filtered.
int log_printf(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
// As log_printf, then " because...(%ld) %s " with errno and its text.
void log_errno_printf(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
// No prefix, no added newline, no rotation.
int log_raw_printf(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
int log_include_file(int level, const char* path);

// Loads the log settings from master.ini, opens the program's instance log
// (or $TQLOGNAME), arms rotation and writes the start line. Returns 0.
int open_program_log(const char* name, int defaultInstances);
int switch_program_log(const char* name);
void load_log_config(const char* name, int defaultInstances);
int OpenInstanceLog(const char* name, int* instance);
int open_log(const char* name);
int OpenLog(const char* path);
void close_log();
void set_log_rotation(const char* name, int instance, int maxKB, int filesPerInstance,
                      const char* startTime);
void set_log_rename_flag(int flag);
void flush_log();
FILE* swap_log_stream(FILE* stream);
int LogfileExists(const char* pathWithoutExt, struct stat* st);
int get_log_name(const char* name, char* buf, int size);
int get_prev_log_name(const char* name, char* buf, int size);
int PurgeOldLogs();
int error_printf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Procedure name stack: 50 entries of 63 characters.
int push_name(const char* name);
int pop_name();
const char* dbproc_name();
