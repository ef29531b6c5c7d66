// pghelper: statements, results and transactions over the process's current
// database connection (see pgConnect.h). Every call finds or opens the
// connection by itself; a caller writes the statement and tests pgStatus.
//
//   pgResult* res = pgQuery("SELECT name FROM nodes WHERE node_no = %d", no);
//   if (pgStatus(res) == 0 && pgTuples(res) == 1) use(pgSVal(res, 0, "name"));
//   pgClear(res);
//
// Failures are logged at level 0 with the server's words and the statement
// where they happen; the caller sees a missing result or -1.
#pragma once

#include <cstddef>
#include <memory>
#include <libpq-fe.h>

// One column of a result: its name and number.
struct pgFieldMapEntry {
    const char* name;  // owned by the libpq result
    int column;
};

// What the statement calls return; the caller frees it with pgClear.
struct pgResult {
    PGresult* result;           // the libpq result; none for a pending pgSend
    pgFieldMapEntry* fieldMap;  // one entry per column
    int columnCount;
    int error;                  // 0; an accessor that fails sets -1
    char* query;                // pgSend's copy of the statement text
};

// "SHOW server_version" as major<<16 | minor<<8 | patch; 0 when the server
// gives fewer than three parts (every release since 10 gives two) or on
// failure. Cached per connection.
int pgServerVersion();

// Sends `text` as it stands. The result, or nullptr when the status is not
// command-ok, tuples-ok or copy-in (logged with the statement).
pgResult* pgExec(const char* text);
// vasprintf, then pgExec. Plain printf: the caller quotes and escapes.
pgResult* pgVExec(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// Formats into `buf` of `size` bytes, then pgExec. nullptr and "Query too
// long for buffer" logged when the statement does not fit; nothing is sent.
pgResult* pgSExec(char* buf, size_t size, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

// Formats a statement into a fixed buffer the way every caller must: 0, or
// -1 with "<file>:<line>: Query too long for buffer" logged at level 0 (the
// caller's file and line) when the result is empty, an error or does not fit.
int pgFormatQuery(char* buf, size_t size, const char* file, int line, const char* fmt, ...)
    __attribute__((format(printf, 5, 6)));

// Runs `fmt` as a server-side prepared statement, cached per connection by
// the format text. Conversions become parameters, never text in the
// statement: %s text (not quoted: "WHERE name = %s"), %c, %hd %hu, %d %u,
// %ld %lu, %lld %llu, %f %g (printed "%f"), %lf %lg (printed "%lf"), %z skips
// one integer or pointer argument, %Z one floating argument, %% is "%".
// A leading n (%ns, %nd, %nlld...) takes an int null flag before the value;
// a positive flag sends SQL NULL, and "= %n.." / "!= %n.." with a positive
// flag become "IS NULL" / "IS NOT NULL". Formats should be constants: each
// distinct text is one cache entry for the life of the connection.
// Returns the result, or nullptr (logged).
pgResult* pgQuery(const char* fmt, ...);

// Starts `text` without waiting. A result without a libpq result (wait for
// it with pgAsyncWait), or nullptr (logged).
pgResult* pgSend(const char* text);
pgResult* pgVSend(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// Waits up to `ms` milliseconds with signals open. 1 when the statement has
// finished (res->result set on success; left empty on failure, so pgStatus
// is -1), 0 when it has not yet, or a signal arrived (errno EINTR).
int pgAsyncWait(pgResult* res, int ms);
// Asks the server to cancel the running statement. 0/-1.
int pgAsyncCancel();

// 0 when res and its libpq result exist and the status is command-ok,
// tuples-ok or copy-in; -1 otherwise (no log line).
int pgStatus(const pgResult* res);
// Frees a result (nullptr is fine). Returns 0.
int pgClear(pgResult* res);
// pgClear(*res), then *res = nullptr. Returns 0.
int pgClearPtr(pgResult** res);

// Owns a pgResult and frees it with pgClear on every path.
struct pgResultDeleter {
    void operator()(pgResult* res) const { pgClear(res); }
};
using pgResultHolder = std::unique_ptr<pgResult, pgResultDeleter>;
// Rows in the result; 0 (logged) for none.
int pgTuples(const pgResult* res);
// Rows affected by the statement; 0 when none is reported.
long pgCmdTuples(const pgResult* res);

// Accessors by row and column name (exact match). On failure each logs its
// reason, sets res->error to -1 and returns the value given in brackets.
// pgSVal: the text, owned by the result ("" for SQL NULL) [nullptr].
const char* pgSVal(pgResult* res, int row, const char* column);
// pgDupVal: a malloc'ed copy the caller frees [nullptr].
char* pgDupVal(pgResult* res, int row, const char* column);
// pgBoolVal: "t..." 1, "f..." 0 [0].
int pgBoolVal(pgResult* res, int row, const char* column);
// Numbers, integers in base 10. A value without digits or out of range is
// logged; an empty value or SQL NULL sets the error without a log line [0].
double pgDoubleVal(pgResult* res, int row, const char* column);
unsigned long pgULongVal(pgResult* res, int row, const char* column);
long long pgLLongVal(pgResult* res, int row, const char* column);
long pgLongVal(pgResult* res, int row, const char* column);
// 1 for SQL NULL, 0 otherwise [-1].
int pgIsNull(pgResult* res, int row, const char* column);

// Escapes `text` for use inside '...' into `dest`, which must hold
// 2 * strlen(text) + 1 bytes. Returns the length written.
size_t pgEscape(char* dest, const char* text);
// The same into a new string in *out (caller frees). 0/-1.
int pgAEscape(char** out, const char* text);

// COPY `table` FROM STDIN with `delimiter`, sending `text` (rows ended by
// newlines, fields escaped with pgCopyEscape). 0/-1.
int pgCopyIn(const char* table, const char* delimiter, const char* text);
// Copies `text` into `dest` with a backslash before CR, LF, backslash and
// `delimiter`; `dest` must hold 2 * strlen(text) + 1 bytes. Returns the
// length written.
size_t pgCopyEscape(char* dest, const char* text, char delimiter);

// Transactions. 0/-1. pgCommit and pgRollback end the transaction in the
// books in every case, also when the server could not be reached.
int pgBegin();
int pgCommit();
int pgRollback();
// Outside a transaction: BEGIN, id 1. Inside: a savepoint, id = the new
// nesting depth. *id (may be nullptr) receives it. 0/-1.
int pgPushTransaction(int* id);
// Ends level `id` (0: the innermost): id 1 commits or rolls back the whole
// transaction, a higher id releases (or rolls back to and releases) its
// savepoint; the depth becomes id - 1. 0/-1; an unknown id changes nothing.
int pgPopTransaction(int commit, int id);
// 1 while a transaction is open on the current connection.
int pgInTransaction();

// Column-exists cache of the current connection (16 answers). pgCECget
// gives the stored value or -1 when unknown; pgCECset stores one (0/-1).
int pgCECset(const char* table, const char* column, int value);
int pgCECget(const char* table, const char* column);
