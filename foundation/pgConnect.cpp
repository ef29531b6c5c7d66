// pgConnect: the connection table (30 slots by service name), opening with
// one retry, the staleness check with the forked-child rule, the reconnect
// that refuses inside a transaction, the signal masker, and the direct
// connections for code that keeps its own.
#include "foundation/pgConnect.h"

#include "foundation/logger.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <unistd.h>

pgResource* pgResourceArray[PG_RESOURCE_SLOTS];
pgResource* pgResourcePtr = nullptr;
char* lastHost = nullptr;

namespace {

const char kConnectTail[] = "dbname=tqdb options='-c search_path=tq,public -c client_encoding=UTF8'";
const char kDirectConnectTail[] = "dbname=tqdb user=postgres options='-c search_path=tq,public'";
const int kConnectTries = 2;
const int kCheckInterval = 120;   // seconds a connection counts as good after a check
const int kEvictSlack = 60;       // connect times this far in the future do not count

// The masker: the set is built once, the depth counter makes calls nest.
sigset_t maskSet;
sigset_t savedMask;
int maskDepth = 0;
bool maskReady = false;       // the set was built
bool maskInitFailed = false;  // building it failed once: work goes on unmasked
bool maskApplied = false;     // the outermost block succeeded, savedMask is valid

bool atexitRegistered = false;

void initMasker()
{
    if (maskReady || maskInitFailed)
        return;
    const int signals[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGCHLD, SIGALRM, SIGUSR1, SIGUSR2};
    bool ok = sigemptyset(&maskSet) == 0;
    for (int sig : signals)
        ok = ok && sigaddset(&maskSet, sig) == 0;
    if (!ok) {
        maskInitFailed = true;
        log_printf(0, "%s:%d: Failed to initialize pghelper signal masker, errno %d\n", __FILE__, __LINE__, errno);
        return;
    }
    maskReady = true;
    log_printf(2, "%s:%d: Successfully initialized pghelper signal masker\n", __FILE__, __LINE__);
}

// Opens the signals the masker holds for the life of the object (the
// connection retry sleeps with signals open), and closes them again after.
class SignalsOpen {
public:
    SignalsOpen()
    {
        if (maskDepth > 0 && maskApplied)
            reopened_ = sigprocmask(SIG_SETMASK, &savedMask, &held_) == 0;
    }
    ~SignalsOpen()
    {
        if (reopened_)
            sigprocmask(SIG_SETMASK, &held_, nullptr);
    }
    SignalsOpen(const SignalsOpen&) = delete;
    SignalsOpen& operator=(const SignalsOpen&) = delete;

private:
    sigset_t held_;
    bool reopened_ = false;
};

void noticeProcessor(void*, const char* message)
{
    int level = 3;
    if (strstr(message, "FATAL"))
        level = 0;
    else if (strstr(message, "WARNING"))
        level = 2;
    log_printf(level, "%s:%d: From libpq: %s", __FILE__, __LINE__, message);
}

void freeQueryCache(pgResource* res)
{
    for (int i = 0; i < res->queryCount; ++i) {
        free(res->queryCache[i].key);
        free(res->queryCache[i].statement);
        free(res->queryCache[i].typeCodes);
    }
    free(res->queryCache);
    res->queryCache = nullptr;
    res->queryCount = res->queryCapacity = 0;
}

void freeCEC(pgResource* res)
{
    if (res->cecTable) {
        for (int i = 0; i < res->cecCount; ++i) {
            free(res->cecTable[i].table);
            free(res->cecTable[i].column);
        }
        free(res->cecTable);
    }
    res->cecTable = nullptr;
    res->cecCount = 0;
}

void freeResource(pgResource* res)
{
    if (res == nullptr)
        return;
    free(res->hostname);
    freeQueryCache(res);
    freeCEC(res);
    free(res->paramValues);
    free(res->paramOffsets);
    free(res->paramFlags);
    delete res;
}

// A new resource for `host` with 16 cache entries and 32 parameters, or
// nullptr (logged).
pgResource* newResource(const char* host)
{
    pgResource* res = new (std::nothrow) pgResource;
    if (res) {
        res->queryCache = static_cast<pgQueryCacheEntry*>(calloc(PG_QUERY_CACHE_STEP, sizeof(pgQueryCacheEntry)));
        res->paramValues = static_cast<const char**>(calloc(PG_PARAM_STEP, sizeof(char*)));
        res->paramOffsets = static_cast<int*>(calloc(PG_PARAM_STEP, sizeof(int)));
        res->paramFlags = static_cast<int*>(calloc(PG_PARAM_STEP, sizeof(int)));
    }
    if (!res || !res->queryCache || !res->paramValues || !res->paramOffsets || !res->paramFlags) {
        log_printf(0, "%s:%d: Could not allocate and initialize pgResourcePtr\n", __FILE__, __LINE__);
        freeResource(res);
        return nullptr;
    }
    res->queryCapacity = PG_QUERY_CACHE_STEP;
    res->paramCapacity = PG_PARAM_STEP;
    res->hostname = strdup(host);
    if (res->hostname == nullptr) {
        log_printf(0, "%s:%d: Could not allocate memory for hostname\n", __FILE__, __LINE__);
        freeResource(res);
        return nullptr;
    }
    return res;
}

// A connection made by the parent process: this process must not speak on
// it, not even the goodbye PQfinish would send, or the parent's session
// ends. The descriptor is pointed at /dev/null first, so PQfinish frees the
// structure and closes only our copy; the server hears nothing.
void dropInheritedConnection(pgResource* res)
{
    if (res->connection == nullptr)
        return;
    int fd = PQsocket(res->connection);
    if (fd >= 0) {
        int devnull = open("/dev/null", O_RDWR | O_CLOEXEC);
        if (devnull < 0) {
            // No way to silence it: close our copy and forget the connection.
            close(fd);
            res->connection = nullptr;
            return;
        }
        dup2(devnull, fd);
        close(devnull);
    }
    PQfinish(res->connection);
    res->connection = nullptr;
}

int slotOf(const pgResource* res)
{
    for (int i = 0; i < PG_RESOURCE_SLOTS; ++i)
        if (pgResourceArray[i] == res)
            return i;
    return -1;
}

// libpq learns that the server went away only when it reads. An idle
// session has nothing to read unless the server ended it (its last words and
// the end of the stream wait on the socket), so a readable socket is handed
// to libpq first: a restarted server is then seen without a round trip.
bool libpqSaysGood(PGconn* conn)
{
    // The server's farewell and the end of the stream may take two reads.
    for (int reads = 0; reads < 4; ++reads) {
        int fd = PQsocket(conn);
        if (fd < 0 || PQstatus(conn) != CONNECTION_OK || PQisBusy(conn))
            break;
        struct pollfd pending = {fd, POLLIN, 0};
        if (poll(&pending, 1, 0) <= 0 || !PQconsumeInput(conn))
            break;
    }
    return PQstatus(conn) == CONNECTION_OK;
}

void closeAllAtExit()
{
    pgCloseAll();
}

// Makes `host` the name to open; 0, or -1 (logged).
int settleHostName(const char* host)
{
    if (!atexitRegistered) {
        atexit(closeAllAtExit);
        atexitRegistered = true;
    }
    if (host && *host) {
        if (lastHost == nullptr || strcmp(host, lastHost) != 0) {
            char* copy = strdup(host);
            if (copy == nullptr) {
                log_printf(0, "%s:%d: Could not allocate memory to store connection hostname\n", __FILE__, __LINE__);
                return -1;
            }
            free(lastHost);
            lastHost = copy;
        }
        log_printf(4, "%s:%d: lastHost is %s\n", __FILE__, __LINE__, lastHost);
        log_printf(3, "%s:%d: Connecting using hostname: %s\n", __FILE__, __LINE__, host);
        return 0;
    }
    if (lastHost == nullptr) {
        lastHost = strdup("localhost");
        if (lastHost == nullptr) {
            log_printf(0, "%s:%d: Could not allocate memory to store connection hostname\n", __FILE__, __LINE__);
            return -1;
        }
    }
    log_printf(4, "%s:%d: lastHost is %s\n", __FILE__, __LINE__, lastHost);
    log_printf(3, "%s:%d: Connecting using lastHost: %s\n", __FILE__, __LINE__, lastHost);
    return 0;
}

// The slot for a new connection: the first empty one, or the one of the
// oldest connection outside a transaction, which is closed. -1 (logged) if
// every slot holds a transaction.
int freeSlot()
{
    for (int i = 0; i < PG_RESOURCE_SLOTS; ++i)
        if (pgResourceArray[i] == nullptr)
            return i;
    log_printf(4, "%s:%d: Look for the oldest entry with no savepoints and replace it\n", __FILE__, __LINE__);
    time_t now = time(nullptr);
    int oldest = -1;
    for (int i = 0; i < PG_RESOURCE_SLOTS; ++i) {
        const pgResource* res = pgResourceArray[i];
        if (res->savepointCount != 0 || res->connectTime >= now + kEvictSlack)
            continue;
        if (oldest < 0 || res->connectTime < pgResourceArray[oldest]->connectTime)
            oldest = i;
    }
    if (oldest < 0) {
        log_printf(0, "%s:%d: No connection resource slots available\n", __FILE__, __LINE__);
        return -1;
    }
    log_printf(0, "%s:%d: Closing old connection resource to %s\n", __FILE__, __LINE__,
               pgResourceArray[oldest]->hostname);
    pgResourcePtr = pgResourceArray[oldest];
    pgClose();
    return oldest;
}

// PQconnectdb with one retry a second later. The connection, or nullptr
// (logged at level 0).
PGconn* connectWithRetry(const char* conninfo)
{
    for (int attempt = 1; attempt <= kConnectTries; ++attempt) {
        PGconn* conn = PQconnectdb(conninfo);
        if (conn == nullptr) {
            log_printf(0, "%s:%d: Can't allocate pgsql connection structure\n", __FILE__, __LINE__);
            return nullptr;
        }
        if (PQstatus(conn) == CONNECTION_OK)
            return conn;
        if (attempt < kConnectTries) {
            log_printf(3, "%s:%d: Connection failed, error: %s", __FILE__, __LINE__, PQerrorMessage(conn));
            log_printf(3, "%s:%d: Retrying connection (try %d of %d)\n", __FILE__, __LINE__, attempt + 1,
                       kConnectTries);
            PQfinish(conn);
            SignalsOpen open;
            sleep(1);
        } else {
            log_printf(0, "%s:%d: Connection failed, error: %s", __FILE__, __LINE__, PQerrorMessage(conn));
            log_printf(0, "%s:%d: Tried connecting %d times\n", __FILE__, __LINE__, kConnectTries);
            PQfinish(conn);
        }
    }
    return nullptr;
}

void logConnected(const pgResource* res, int prepared)
{
    PGconn* conn = res->connection;
    log_printf(2, "%s:%d: connected to: %s\n", __FILE__, __LINE__, res->hostname);
    log_printf(2, "%s:%d: Connection attributes: dbname='%s', user='%s', options = '%s'\n", __FILE__, __LINE__,
               PQdb(conn), PQuser(conn), PQoptions(conn));
    log_printf(2, "%s:%d: Postgres backend pid: %d\n", __FILE__, __LINE__, PQbackendPID(conn));
    if (prepared)
        log_printf(2, "%s:%d: Prepared statements currently enabled\n", __FILE__, __LINE__);
    else
        log_printf(2, "%s:%d: Prepared statements currently disabled\n", __FILE__, __LINE__);
}

// Opens a new connection to `host` in a free slot and makes it current.
int openNewConnection(const char* host, int prepared, int oldSavepoints)
{
    if (host == nullptr) {
        log_printf(0, "%s:%d: hostname must be supplied\n", __FILE__, __LINE__);
        return -1;
    }
    int slot = freeSlot();
    if (slot < 0)
        return -1;
    pgResource* res = newResource(host);
    if (res == nullptr)
        return -1;
    char* conninfo = nullptr;
    if (asprintf(&conninfo, "service=%s %s", host, kConnectTail) < 0 || conninfo == nullptr) {
        log_printf(0, "%s:%d: Could not generate connection string\n", __FILE__, __LINE__);
        freeResource(res);
        return -1;
    }
    res->connection = connectWithRetry(conninfo);
    free(conninfo);
    if (res->connection == nullptr) {
        freeResource(res);
        return -1;
    }
    res->connectTime = res->lastChecked = time(nullptr);
    // Prepared statements are on after every open; the caller's flag only
    // shows in the log line.
    res->prepared = 1;
    logConnected(res, prepared);
    if (oldSavepoints > 0) {
        log_printf(2, "%s:%d: Restoring old savepoint count: %d.\n", __FILE__, __LINE__, oldSavepoints);
        res->savepointCount = oldSavepoints;
    }
    int fd = PQsocket(res->connection);
    if (fd >= 0)
        fcntl(fd, F_SETFD, fcntl(fd, F_GETFD) | FD_CLOEXEC);
    res->ownerPid = getpid();
    PQsetNoticeProcessor(res->connection, noticeProcessor, nullptr);
    pgResourceArray[slot] = res;
    pgResourcePtr = res;
    return 0;
}

} // namespace

void pgMaskSignals()
{
    initMasker();
    if (maskDepth++ > 0 || !maskReady)
        return;
    maskApplied = sigprocmask(SIG_BLOCK, &maskSet, &savedMask) == 0;
    if (!maskApplied)
        log_printf(0, "%s:%d: Failed to mask signals, errno %d\n", __FILE__, __LINE__, errno);
}

void pgUnmaskSignals()
{
    if (maskDepth == 0)
        return;
    if (--maskDepth > 0 || !maskApplied)
        return;
    maskApplied = false;
    if (sigprocmask(SIG_SETMASK, &savedMask, nullptr) != 0)
        log_printf(0, "%s:%d: Failed to unmask signals, errno %d\n", __FILE__, __LINE__, errno);
}

int pgSignalMaskDepth()
{
    return maskDepth;
}

int pgOpen(const char* host, int prepared)
{
    pgSignalGuard masked;
    if (settleHostName(host) != 0)
        return -1;
    const char* name = lastHost;

    int oldSavepoints = 0;
    for (int i = 0; i < PG_RESOURCE_SLOTS; ++i) {
        pgResource* res = pgResourceArray[i];
        if (res == nullptr || res->hostname == nullptr || strcmp(res->hostname, name) != 0)
            continue;
        pgResourcePtr = res;
        log_printf(1, "%s:%d: Found a connection to %s, checking status...\n", __FILE__, __LINE__, name);
        if (pgCheckConnection(2)) {
            log_printf(3, "%s:%d: Connection good\n", __FILE__, __LINE__);
            return 0;
        }
        log_printf(1, "%s:%d: Connection bad, will attempt reconnect.\n", __FILE__, __LINE__);
        oldSavepoints = res->savepointCount;
        log_printf(4, "%s:%d: Old savepoint count is %d.\n", __FILE__, __LINE__, oldSavepoints);
        pgClose();
        break;
    }
    return openNewConnection(name, prepared, oldSavepoints);
}

int pgOpenLocal(int prepared)
{
    return pgOpen("localhost", prepared);
}

int pgClose()
{
    pgSignalGuard masked;
    pgResource* res = pgResourcePtr;
    if (res == nullptr)
        return 0;
    if (res->connection) {
        if (res->ownerPid != getpid())
            dropInheritedConnection(res);
        else
            PQfinish(res->connection);
        res->connection = nullptr;
    }
    int slot = slotOf(res);
    if (slot >= 0)
        pgResourceArray[slot] = nullptr;
    freeResource(res);
    pgResourcePtr = nullptr;
    return 0;
}

int pgCloseAll()
{
    pgSignalGuard masked;
    for (int i = 0; i < PG_RESOURCE_SLOTS; ++i) {
        if (pgResourceArray[i] == nullptr)
            continue;
        pgResourcePtr = pgResourceArray[i];
        pgClose();
    }
    pgResourcePtr = nullptr;
    return 0;
}

int pgCheckConnection(int depth)
{
    pgResource* res = pgResourcePtr;
    if (res == nullptr)
        return 0;
    pgSignalGuard masked;
    if (res->ownerPid != getpid()) {
        if (res->connection) {
            log_printf(5, "%s:%d: Reinitializing child process connection to database\n", __FILE__, __LINE__);
            dropInheritedConnection(res);
        }
        // A transaction the parent had open is the parent's: the child starts
        // outside any, so that its first statement may open a connection.
        res->savepointCount = 0;
        return 0;
    }
    if (res->connection == nullptr || !libpqSaysGood(res->connection))
        return 0;
    if (depth == 0)
        return 1;
    time_t now = time(nullptr);
    if (depth == 2 && res->lastChecked <= now && now - res->lastChecked < kCheckInterval)
        return 1;

    PGresult* probe = PQexec(res->connection, "SELECT TRUE");
    // A session inside a failed transaction answers with an error and is
    // still alive; only a session that is gone counts as bad.
    bool good = PQresultStatus(probe) == PGRES_TUPLES_OK ||
                (PQstatus(res->connection) == CONNECTION_OK &&
                 PQtransactionStatus(res->connection) == PQTRANS_INERROR);
    PQclear(probe);
    res->lastChecked = now;
    log_printf(4, "%s:%d: Verified connection state: %s\n", __FILE__, __LINE__, good ? "good" : "bad");
    return good ? 1 : 0;
}

int pgEnsureConnected()
{
    pgSignalGuard masked;
    if (pgCheckConnection(2))
        return 0;
    log_printf(1, "%s:%d: Not connected to Postgres or connection bad, reconnecting...\n", __FILE__, __LINE__);
    if (pgResourcePtr && pgResourcePtr->savepointCount > 0) {
        log_printf(0, "%s:%d: Connection bad; reset not attempted from within a transaction block\n", __FILE__,
                   __LINE__);
        return -1;
    }
    pgClose();
    if (pgOpen(nullptr, 1) != 0) {
        log_printf(0, "%s:%d: pgOpen failed, cannot open connection\n", __FILE__, __LINE__);
        return -1;
    }
    return 0;
}

PGconn* pgConnection()
{
    pgSignalGuard masked;
    if (pgEnsureConnected() != 0)
        return nullptr;
    return pgResourcePtr->connection;
}

int pgsqlConnect(const char* host, PGconn** conn)
{
    if (conn == nullptr) {
        log_printf(0, "%s : %d : Invalid input to open.\n", __FILE__, __LINE__);
        return -1;
    }
    *conn = nullptr;
    const char* name = host ? host : "localhost";
    char conninfo[1023];
    int n = snprintf(conninfo, sizeof(conninfo), "service=%s %s", name, kDirectConnectTail);
    if (n < 0 || n >= static_cast<int>(sizeof(conninfo))) {
        log_printf(0, "Static buffer too small for connection string\n");
        log_printf(0, "Hostname: %s\n", name);
        return -1;
    }
    pgSignalGuard masked;
    PGconn* made = PQconnectdb(conninfo);
    if (made == nullptr || PQstatus(made) != CONNECTION_OK) {
        log_printf(0, "FATAL ERROR: Failed to connect to PostgreSQL database!\n%s\n",
                   made ? PQerrorMessage(made) : "out of memory");
        log_printf(0, "%s:%d: connection: %s", __FILE__, __LINE__, conninfo);
        PQfinish(made);
        return -1;
    }
    int fd = PQsocket(made);
    if (fd >= 0)
        fcntl(fd, F_SETFD, fcntl(fd, F_GETFD) | FD_CLOEXEC);
    *conn = made;
    return 0;
}

int pgsqlClose(PGconn** conn)
{
    if (conn == nullptr) {
        log_printf(0, "%s : %d : Invalid input to close\n", __FILE__, __LINE__);
        return -1;
    }
    pgSignalGuard masked;
    PQfinish(*conn);
    *conn = nullptr;
    log_printf(3, "%s:%d: connection closed\n", __FILE__, __LINE__);
    return 0;
}

int pgsqlRetryExec(PGconn* conn, const char* statement, PGresult** result, int noRetry)
{
    if (conn == nullptr || statement == nullptr || result == nullptr)
        return -1;
    pgSignalGuard masked;
    for (int attempt = 1; attempt <= 2; ++attempt) {
        if (*result) {
            PQclear(*result);
            *result = nullptr;
        }
        *result = PQexec(conn, statement);
        if (*result && PQresultStatus(*result) != PGRES_FATAL_ERROR)
            return 0;
        // With the connection still fine the statement itself was bad:
        // running it again would only fail again.
        if (noRetry || PQstatus(conn) == CONNECTION_OK || attempt == 2) {
            log_printf(0, "%s:%d: pgsqlRetryExec: %s\n", __FILE__, __LINE__, PQerrorMessage(conn));
            return -1;
        }
        log_printf(0, "%s:%d: Resetting connection\n", __FILE__, __LINE__);
        PQreset(conn);
        log_printf(2, "Connect reset. Connection attributes: dbname='%s', user='%s', options = '%s'\n", PQdb(conn),
                   PQuser(conn), PQoptions(conn));
    }
    return -1;
}

int pgsqlRows(PGconn* conn, const char* statement, PGresult** result, char* errbuf, int size, int* rows)
{
    log_printf(4, "Running query now ...\n");
    int rc = pgsqlRetryExec(conn, statement, result, 0);
    if (result == nullptr || *result == nullptr) {
        log_printf(0, "result is null\n");
        if (errbuf && size > 0)
            snprintf(errbuf, static_cast<size_t>(size), "No data received.\n");
        return -1;
    }
    if (rc != 0) {
        if (errbuf && size > 0)
            snprintf(errbuf, static_cast<size_t>(size), "%s : %s.", conn ? PQerrorMessage(conn) : "",
                     PQresultErrorMessage(*result));
        log_printf(0, "Failed to execute query : %s \n", errbuf ? errbuf : statement);
        return -1;
    }
    if (rows)
        *rows = PQntuples(*result);
    return 0;
}
