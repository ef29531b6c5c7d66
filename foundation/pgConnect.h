// pgConnect: the process-wide table of database connections, opened by
// libpq service name, checked and reopened by themselves when that is safe,
// plus the signal masker every libpq call runs under and the small interface
// for code that keeps a connection of its own.
//
// One current connection per process; a caller never holds one. The state
// here is for one thread of a process.
#pragma once

#include "foundation/smartbuffer.h"

#include <ctime>
#include <libpq-fe.h>
#include <sys/types.h>

// One prepared statement of a connection. Its index in the cache is its
// name on the server, in decimal.
struct pgQueryCacheEntry {
    char* key;        // the format after transformNullComparisons
    char* statement;  // the text sent to the server, with $1, $2...
    char* typeCodes;  // one code per conversion, see pghelper.cpp
    int codeCount;
    int paramCount;
};

// One answer of the column-exists cache.
struct pgCECentry {
    char* table;
    char* column;
    int value;
};

const int PG_RESOURCE_SLOTS = 30;
const int PG_QUERY_CACHE_STEP = 16;  // the query cache grows by this many entries
const int PG_PARAM_STEP = 32;        // the parameter arrays grow by this many
const int PG_CEC_SIZE = 16;          // answers kept by the column-exists cache

// One connection and what belongs to it. Made by pgOpen, freed by pgClose.
struct pgResource {
    char* hostname = nullptr;      // the service name it was opened under
    time_t connectTime = 0;        // when it was opened; the oldest is evicted
    PGconn* connection = nullptr;  // may be none
    pgQueryCacheEntry* queryCache = nullptr;
    time_t lastChecked = 0;        // when the connection was last known good
    int queryCount = 0;
    int queryCapacity = 0;
    int prepared = 0;              // 1: pgQuery uses server-side prepared statements
    int savepointCount = 0;        // 0 outside a transaction, 1 plain, +1 per push
    smartbuffer paramText;         // this call's parameters, each NUL-ended
    const char** paramValues = nullptr;
    int* paramOffsets = nullptr;   // into paramText; -1 is SQL NULL
    int* paramFlags = nullptr;     // per-parameter format for libpq: 0 text
    int paramCount = 0;
    int paramCapacity = 0;
    pid_t ownerPid = 0;            // the process that opened the connection
    int serverVersion = 0;         // cached by pgServerVersion, 0 until known
    pgCECentry* cecTable = nullptr;  // made on first pgCECset
    int cecCount = 0;
};

extern pgResource* pgResourceArray[PG_RESOURCE_SLOTS];
extern pgResource* pgResourcePtr;  // the current connection's resource, or none
extern char* lastHost;             // the name used when none is given

// Selects the connection opened under service `host` (nullptr: lastHost;
// the first call ever with nullptr uses "localhost"), opening it if needed;
// it becomes current. A found connection is checked (depth 2) and reopened
// if bad, keeping its savepoint count. With no free slot the oldest
// connection outside a transaction is closed. Connecting is tried twice, a
// second apart. `prepared` only changes the log line: prepared statements
// are always on after an open.
// Returns 0, or -1 (logged at level 0) when no connection could be made or
// no slot is free. The first call registers pgCloseAll with atexit.
int pgOpen(const char* host, int prepared);
// pgOpen("localhost", prepared).
int pgOpenLocal(int prepared);
// Closes the current connection and frees its resource and slot. In a
// forked child the parent's session is left alone: the socket is dropped
// without a goodbye to the server. Returns 0.
int pgClose();
// pgClose on every slot. Returns 0.
int pgCloseAll();

// Whether the current connection is good. Depth 0 trusts libpq's status,
// 1 always asks the server ("SELECT TRUE"), 2 asks only if the connection
// was not known good within the last 120 seconds. A connection inherited
// from the parent process is dropped here (bad). Returns 1 good, 0 bad.
int pgCheckConnection(int depth);
// Makes sure the current connection is good, reopening it when it is not;
// never inside a transaction, whose work would be lost silently.
// Returns 0, or -1 (logged) when no good connection can be had.
int pgEnsureConnected();
// The current libpq connection after pgEnsureConnected, or nullptr.
PGconn* pgConnection();

// Signal masker: blocks SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGCHLD, SIGALRM,
// SIGUSR1 and SIGUSR2 around libpq calls. Calls nest by a depth counter:
// only the outermost block and the matching unblock change the mask.
void pgMaskSignals();
void pgUnmaskSignals();
// Current nesting depth of the masker (0: signals as the process had them).
int pgSignalMaskDepth();

// Holds the masker for a scope.
class pgSignalGuard {
public:
    pgSignalGuard() { pgMaskSignals(); }
    ~pgSignalGuard() { pgUnmaskSignals(); }
    pgSignalGuard(const pgSignalGuard&) = delete;
    pgSignalGuard& operator=(const pgSignalGuard&) = delete;
};

// Direct connections, for code that keeps a connection of its own.
//
// Opens service `host` (nullptr: "localhost") as user postgres in tqdb; one
// attempt. Returns 0 with *conn set, or -1 (logged, *conn nullptr).
int pgsqlConnect(const char* host, PGconn** conn);
// PQfinish and *conn = nullptr. Returns 0, -1 for a missing pointer.
int pgsqlClose(PGconn** conn);
// Runs `statement`, replacing *result (the old one is cleared). A broken
// connection is reset and the statement run once more, unless `noRetry`.
// Returns 0 when a result other than a fatal error came back, else -1
// (logged). *result is the caller's to PQclear.
int pgsqlRetryExec(PGconn* conn, const char* statement, PGresult** result, int noRetry);
// pgsqlRetryExec, then the row count in *rows. On failure the server's
// words go into `errbuf` (size `size`). Returns 0/-1.
int pgsqlRows(PGconn* conn, const char* statement, PGresult** result, char* errbuf, int size, int* rows);
