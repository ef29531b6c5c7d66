// gerror: the error store. Up to ten messages in each of six classes (0 to 5),
// each with its number and the gerror level current when it was added, so a
// caller can gather what went wrong and show or log it at the end.
//
// For one thread of a process; no lock.
#pragma once

// Class value that gerror_text, last_gerror and log_gerrors take for all classes.
constexpr int GERROR_ALL_CLASSES = 17476;
constexpr int GERROR_CLASSES = 6;
constexpr int GERROR_MAX_MESSAGES = 10;

struct GerrorRecord {
    int cls;        // class as given to add_gerror
    int number;     // error number as given
    int level;      // gerror level when added (set_gerror_level)
    char text[512];
};

// Text of a registered class for an error number in its range.
typedef const char* (*GerrorTextFn)(int number);

// Stores a message in `cls`. The caller's text (at most 256 characters) is
// framed by class: 0 "(SYS) <text> <strerror>", 2 "(TQ) ..." from section
// "General" of the text file, 3 "(NET) ...", 4 the text alone, 5
// "(NETWORK) <text> <resolver error>", 1 and classes below 0 through
// add_gerror_class. Logged at level 4 as "add_gerror: ...". An eleventh
// message of a class clears the class first (warning at level 1). Returns 0,
// or -1 for a class above 5, which stores nothing. Messages of classes below
// 0 are kept with class 1.
int add_gerror(int cls, int number, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

// Registers (or replaces) class `cls` (1 or below 0) with numbers 0 to
// `maxNumber`, a prefix of up to 7 characters and the function that names a
// number. 0, or -1 when ten classes are registered already.
int add_gerror_class(int cls, int maxNumber, const char* prefix, GerrorTextFn textFn);

// Level recorded with the messages that follow; returns the previous one.
int set_gerror_level(int level);

// The ini file whose sections "General" and "Network" name error numbers of
// classes 2 and 3; "/dev/null" until init_state gives "<tqinit>/gerror.ini".
void set_gerror_file(const char* path);

void clear_gerror(int cls);
void clear_all_gerrors();

// The messages of `cls`, oldest first, through *records (valid until the next
// change of the store); returns their count (0 for an unknown class).
int gerror_list(int cls, const GerrorRecord** records);

// Text of the newest message of `cls` (any class for GERROR_ALL_CLASSES), or
// nullptr when there is none. Valid until the next change of the store.
const char* last_gerror(int cls);

// Logs "===== Gerror: <cls> =====", every message of `cls` whose gerror level
// is at most `level`, and "===== Gerror end =====", all at `level`.
void log_gerrors(int cls, int level);

// One malloc'd string with a line for each message of `cls` (all classes for
// GERROR_ALL_CLASSES), oldest first; nullptr when there are none. The caller
// frees it with free().
char* gerror_text(int cls);
