// ini: readers and writers of the appliance's configuration files (master.ini,
// /etc/default/tq.ini). Nothing is cached: every lookup opens, scans and
// closes the file, so a change takes effect at the next lookup.
//
// File format and value syntax: foundation/README.md. INI access is for one
// thread at a time per process.
#pragma once

// Lookups return 0, or -1 with `dflt` copied into `buf` (truncated to `size`,
// NUL-terminated); with no default or no buffer just -1. They never log,
// except ini_get_data when the value does not fit.
//
// ini_get_string: the value with quoting, escapes and comments interpreted,
// cut to size - 1 characters. With `section` NULL it lists all section names,
// with `key` NULL all keys of the section, each name NUL-terminated one after
// the other and the list ended by an empty name; a name that no longer fits
// ends the list (result 0).
int ini_get_string(const char* section, const char* key, const char* dflt,
                   char* buf, int size, const char* file);

// ini_get_data: the raw rest of the line, without line end and trailing
// blanks. A value that does not fit logs at level 2 and gives `dflt` and -1.
int ini_get_data(const char* section, const char* key, const char* dflt,
                 char* buf, int size, const char* file);

// The value as a decimal number; `dflt` on any failure, garbage reads as 0.
int ini_get_int(const char* section, const char* key, int dflt, const char* file);

// true/yes/on/y/1 give 1, false/no/off/n/0 give 0 (any case, by prefix), with
// result 0. Anything else: `dflt` in *out, result 0. Missing or empty: `dflt`
// in *out, result -1.
int ini_get_bool(const char* section, const char* key, int dflt,
                 unsigned char* out, const char* file);

// Writers: 0 or -1. ini_put_string keeps the file's layout (values changed in
// place where they fit); ini_put_data writes "  key=value" exactly and
// truncates the file at its new end. Neither locks the file.
int ini_put_string(const char* section, const char* key, const char* value, const char* file);
int ini_put_int(const char* section, const char* key, int value, const char* file);
int ini_put_data(const char* section, const char* key, const char* value, const char* file);

// Looks `key` up in master.ini with default "N/A" into `out` (1024 bytes).
// -1 when master.ini is not known yet, the value is empty or contains "N/A".
int get_master_value(const char* section, const char* key, char* out);
