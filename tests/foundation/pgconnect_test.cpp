// The connection table against a private server: opening by service name,
// healing after a server restart, refusing to heal inside a transaction,
// forked children, the 30 slots, the signal masker and direct connections.
#include "pg_test_support.h"

#include <csignal>
#include <cstring>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

auto* const pgEnv = ::testing::AddGlobalTestEnvironment(new ferrytest::PgClusterEnvironment);

using pgtest::backendPid;
using pgtest::layerValue;

class PgConnect : public pgtest::PgLayerTest {};

TEST_F(PgConnect, FirstStatementOpensLocalhostWithSearchPath)
{
    ASSERT_TRUE(ferrytest::pgExecSql("CREATE SCHEMA IF NOT EXISTS tq; CREATE TABLE IF NOT EXISTS tq.open_probe (v int);"
                                     "INSERT INTO tq.open_probe VALUES (41);"));
    EXPECT_EQ(pgResourcePtr, nullptr);
    // No pgOpen: the statement finds the connection by itself, with the
    // tq schema first on the search path.
    EXPECT_EQ(layerValue("SELECT v FROM open_probe"), "41");
    ASSERT_NE(pgResourcePtr, nullptr);
    EXPECT_STREQ(pgResourcePtr->hostname, "localhost");
    EXPECT_STREQ(lastHost, "localhost");
    EXPECT_EQ(pgResourcePtr->prepared, 1);
    EXPECT_EQ(pgResourcePtr->ownerPid, getpid());
    EXPECT_EQ(layerValue("SHOW client_encoding"), "UTF8");
    EXPECT_TRUE(log.has("connected to: localhost"));
    EXPECT_TRUE(log.has("Prepared statements currently enabled"));
}

TEST_F(PgConnect, OpenWithPreparedFlagOffStillPreparesAndSaysSo)
{
    ASSERT_EQ(pgOpenLocal(0), 0);
    EXPECT_EQ(pgResourcePtr->prepared, 1);
    EXPECT_TRUE(log.has("Prepared statements currently disabled"));
}

TEST_F(PgConnect, RestartBetweenStatementsIsHealed)
{
    int before = backendPid();
    ASSERT_GT(before, 0);
    ASSERT_TRUE(ferrytest::pgCluster()->restart());
    log.clear();
    // The next statement sees the old session is gone and opens a new one;
    // the statement itself runs once, on the new session.
    int after = backendPid();
    EXPECT_GT(after, 0);
    EXPECT_NE(after, before);
    EXPECT_TRUE(log.has("Not connected to Postgres or connection bad, reconnecting..."));
    EXPECT_EQ(pgResourcePtr->savepointCount, 0);
}

TEST_F(PgConnect, NoReconnectInsideATransaction)
{
    ASSERT_TRUE(ferrytest::pgExecSql("DROP TABLE IF EXISTS public.txn_lost; CREATE TABLE public.txn_lost (v int);"));
    ASSERT_EQ(pgBegin(), 0);
    pgClear(pgExec("INSERT INTO txn_lost VALUES (1)"));
    int before = pgResourcePtr->connection ? PQbackendPID(pgResourcePtr->connection) : 0;
    ASSERT_TRUE(ferrytest::pgCluster()->restart());
    log.clear();

    // The transaction died with the server: statements fail and the layer
    // keeps the books until the caller ends the transaction.
    pgResult* res = pgExec("INSERT INTO txn_lost VALUES (2)");
    EXPECT_EQ(pgStatus(res), -1);
    pgClear(res);
    EXPECT_TRUE(log.has("Connection bad; reset not attempted from within a transaction block"));
    EXPECT_EQ(pgInTransaction(), 1);
    EXPECT_EQ(pgResourcePtr->savepointCount, 1);
    res = pgQuery("SELECT %d AS one", 1);
    EXPECT_EQ(res, nullptr);

    EXPECT_EQ(pgRollback(), -1);
    EXPECT_EQ(pgInTransaction(), 0);

    // Outside the transaction the next statement heals the connection.
    int after = backendPid();
    EXPECT_GT(after, 0);
    EXPECT_NE(after, before);
    EXPECT_EQ(ferrytest::pgQueryValue("SELECT count(*) FROM public.txn_lost"), "0");
}

TEST_F(PgConnect, PopAfterLostConnectionAdjustsTheCount)
{
    int id = 0;
    ASSERT_EQ(pgPushTransaction(&id), 0);
    ASSERT_EQ(pgPushTransaction(&id), 0);
    ASSERT_EQ(pgPushTransaction(&id), 0);
    ASSERT_EQ(id, 3);
    ASSERT_TRUE(ferrytest::pgCluster()->restart());
    EXPECT_EQ(pgStatus(pgExec("SELECT 1")), -1);  // nothing to free: no result
    log.clear();
    EXPECT_EQ(pgPopTransaction(0, 3), -1);
    EXPECT_TRUE(log.has("Adjusted savepoint count to 2"));
    EXPECT_EQ(pgPopTransaction(1, 0), -1);
    EXPECT_EQ(pgResourcePtr->savepointCount, 0);
    EXPECT_GT(backendPid(), 0);
}

// Runs `body` in a forked child; true when the child exited with 0.
template <typename Body>
bool inChild(Body body, bool plainExit)
{
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        int code = body() ? 0 : 1;
        if (plainExit)
            exit(code);  // runs the atexit pgCloseAll of the inherited table
        _exit(code);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST_F(PgConnect, ForkedChildOpensItsOwnConnectionAndLeavesTheParents)
{
    ASSERT_TRUE(ferrytest::pgExecSql("DROP TABLE IF EXISTS public.child_seen; CREATE TABLE public.child_seen (pid int);"));
    int parentBackend = backendPid();
    ASSERT_GT(parentBackend, 0);
    for (bool plainExit : {false, true}) {
        bool childOk = inChild(
            [&] {
                int mine = backendPid();
                pgResult* res = pgQuery("INSERT INTO child_seen VALUES (%d)", mine);
                bool ok = mine > 0 && mine != parentBackend && pgStatus(res) == 0 &&
                          pgResourcePtr->ownerPid == getpid();
                pgClear(res);
                return ok;
            },
            plainExit);
        EXPECT_TRUE(childOk) << (plainExit ? "exit()" : "_exit()");
        // The parent's session is the same one and still answers.
        EXPECT_EQ(backendPid(), parentBackend);
        pgResult* res = pgQuery("SELECT count(*) AS n FROM child_seen WHERE pid != %d", parentBackend);
        ASSERT_EQ(pgStatus(res), 0);
        EXPECT_EQ(pgLongVal(res, 0, "n"), plainExit ? 2 : 1);
        pgClear(res);
    }
    EXPECT_TRUE(log.has("Reinitializing child process connection to database"));
}

TEST_F(PgConnect, ChildForkedInsideATransactionStartsOutsideIt)
{
    ASSERT_EQ(pgBegin(), 0);
    int parentBackend = PQbackendPID(pgResourcePtr->connection);
    bool childOk = inChild([&] { return backendPid() > 0 && pgInTransaction() == 0; }, false);
    EXPECT_TRUE(childOk);
    EXPECT_EQ(pgInTransaction(), 1);
    EXPECT_EQ(backendPid(), parentBackend);
    EXPECT_EQ(pgCommit(), 0);
}

TEST_F(PgConnect, NamedConnectionsAreSelectedAndKeptApart)
{
    ferrytest::pgCluster()->addService("replica_a");
    ASSERT_EQ(pgOpenLocal(1), 0);
    pgResource* local = pgResourcePtr;
    int localBackend = backendPid();
    ASSERT_EQ(pgOpen("replica_a", 1), 0);
    EXPECT_NE(pgResourcePtr, local);
    EXPECT_STREQ(lastHost, "replica_a");
    EXPECT_NE(backendPid(), localBackend);
    // pgOpen of a known name selects its connection again.
    ASSERT_EQ(pgOpen("localhost", 1), 0);
    EXPECT_EQ(pgResourcePtr, local);
    EXPECT_EQ(backendPid(), localBackend);
    EXPECT_TRUE(log.has("Found a connection to localhost, checking status..."));
}

TEST_F(PgConnect, UnknownServiceFailsAfterTwoTries)
{
    EXPECT_EQ(pgOpen("no_such_service", 1), -1);
    EXPECT_EQ(pgResourcePtr, nullptr);
    EXPECT_TRUE(log.has("Retrying connection (try 2 of 2)"));
    EXPECT_TRUE(log.has("Tried connecting 2 times"));
    // A statement now has nothing to run on: lastHost names the bad service.
    EXPECT_EQ(pgExec("SELECT 1"), nullptr);
    EXPECT_TRUE(log.has("pgOpen failed, cannot open connection"));
}

TEST_F(PgConnect, FullTableEvictsTheOldestIdleConnection)
{
    for (int i = 0; i < PG_RESOURCE_SLOTS; ++i) {
        std::string name = "evict_" + std::to_string(i);
        ferrytest::pgCluster()->addService(name);
        ASSERT_EQ(pgOpen(name.c_str(), 1), 0) << name;
        pgResourcePtr->connectTime -= 1000 - i;  // evict_0 is the oldest
    }
    ferrytest::pgCluster()->addService("evict_new");
    ASSERT_EQ(pgOpen("evict_new", 1), 0);
    EXPECT_TRUE(log.has("Closing old connection resource to evict_0"));
    int named = 0;
    for (pgResource* res : pgResourceArray)
        if (res && strcmp(res->hostname, "evict_0") == 0)
            ++named;
    EXPECT_EQ(named, 0);
}

TEST_F(PgConnect, FullTableOfTransactionsRefusesANewName)
{
    for (int i = 0; i < PG_RESOURCE_SLOTS; ++i) {
        std::string name = "busy_" + std::to_string(i);
        ferrytest::pgCluster()->addService(name);
        ASSERT_EQ(pgOpen(name.c_str(), 1), 0) << name;
        ASSERT_EQ(pgBegin(), 0);
    }
    ferrytest::pgCluster()->addService("busy_new");
    EXPECT_EQ(pgOpen("busy_new", 1), -1);
    EXPECT_TRUE(log.has("No connection resource slots available"));
    for (pgResource* res : pgResourceArray)
        ASSERT_NE(res, nullptr);
}

bool signalBlocked(int sig)
{
    sigset_t current;
    sigprocmask(SIG_SETMASK, nullptr, &current);
    return sigismember(&current, sig) == 1;
}

TEST_F(PgConnect, MaskerNestsAndRestoresTheCallersMask)
{
    ASSERT_FALSE(signalBlocked(SIGUSR1));
    pgMaskSignals();
    EXPECT_EQ(pgSignalMaskDepth(), 1);
    for (int sig : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGCHLD, SIGALRM, SIGUSR1, SIGUSR2})
        EXPECT_TRUE(signalBlocked(sig)) << sig;
    EXPECT_FALSE(signalBlocked(SIGPIPE));
    pgMaskSignals();
    pgUnmaskSignals();
    EXPECT_TRUE(signalBlocked(SIGUSR1)) << "an inner unmask must not open the signals";
    pgUnmaskSignals();
    EXPECT_EQ(pgSignalMaskDepth(), 0);
    EXPECT_FALSE(signalBlocked(SIGUSR1));
}

volatile sig_atomic_t usr1Seen = 0;
volatile sig_atomic_t usr1Depth = -1;
void onUsr1(int)
{
    usr1Seen = 1;
    usr1Depth = pgSignalMaskDepth();
}

// A helper process holds an advisory lock, waits until our statement is
// blocked on it inside libpq, signals us, then lets the statement finish.
pid_t startLockHolder(int readyFd)
{
    pid_t parent = getpid();
    fflush(nullptr);
    pid_t pid = fork();
    if (pid != 0)
        return pid;
    PGconn* conn = PQconnectdb(ferrytest::pgCluster()->connString().c_str());
    PQclear(PQexec(conn, "SELECT pg_advisory_lock(4242)"));
    (void)!write(readyFd, "r", 1);
    bool waiting = false;
    for (int i = 0; i < 3000 && !waiting; ++i) {
        PGresult* r = PQexec(conn, "SELECT count(*) FROM pg_locks WHERE locktype = 'advisory' AND NOT granted");
        waiting = PQresultStatus(r) == PGRES_TUPLES_OK && strcmp(PQgetvalue(r, 0, 0), "1") == 0;
        PQclear(r);
        if (!waiting)
            usleep(10000);
    }
    kill(parent, SIGUSR1);
    usleep(100000);
    PQclear(PQexec(conn, "SELECT pg_advisory_unlock(4242)"));
    PQfinish(conn);
    _exit(waiting ? 0 : 1);
}

TEST_F(PgConnect, SignalDuringAStatementIsHandledAfterIt)
{
    struct sigaction sa = {};
    struct sigaction old = {};
    sa.sa_handler = onUsr1;
    sigaction(SIGUSR1, &sa, &old);
    usr1Seen = 0;
    usr1Depth = -1;
    ASSERT_EQ(pgOpenLocal(1), 0);
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t holder = startLockHolder(ready[1]);
    char c;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    // Blocks inside libpq until the holder lets go; its signal arrives then.
    pgResult* res = pgExec("SELECT pg_advisory_lock(4242)");
    EXPECT_EQ(pgStatus(res), 0);
    pgClear(res);
    EXPECT_EQ(layerValue("SELECT pg_advisory_unlock(4242)"), "t");
    int status = 0;
    waitpid(holder, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the helper never saw the statement wait";
    EXPECT_EQ(usr1Seen, 1);
    EXPECT_EQ(usr1Depth, 0) << "the handler ran while a libpq call was in progress";
    close(ready[0]);
    close(ready[1]);
    sigaction(SIGUSR1, &old, nullptr);
}

TEST_F(PgConnect, CheckAtDepthOneAsksTheServer)
{
    ASSERT_EQ(pgOpenLocal(1), 0);
    EXPECT_EQ(pgCheckConnection(1), 1);
    EXPECT_TRUE(log.has("Verified connection state: good"));
    log.clear();
    // Within 120 seconds of the last check depth 2 trusts it.
    EXPECT_EQ(pgCheckConnection(2), 1);
    EXPECT_FALSE(log.has("Verified connection state"));
    pgResourcePtr->lastChecked -= 121;
    EXPECT_EQ(pgCheckConnection(2), 1);
    EXPECT_TRUE(log.has("Verified connection state: good"));
    EXPECT_NE(pgConnection(), nullptr);
}

TEST_F(PgConnect, DirectConnectionRunsStatementsAndResetsAfterRestart)
{
    PGconn* conn = nullptr;
    ASSERT_EQ(pgsqlConnect(nullptr, &conn), 0);
    ASSERT_NE(conn, nullptr);
    EXPECT_STREQ(PQuser(conn), "postgres");
    PGresult* result = nullptr;
    char err[256] = "";
    int rows = -1;
    ASSERT_EQ(pgsqlRows(conn, "SELECT generate_series(1, 3)", &result, err, sizeof(err), &rows), 0);
    EXPECT_EQ(rows, 3);

    // A bad statement on a good connection is not run again.
    EXPECT_EQ(pgsqlRows(conn, "SELECT * FROM no_such_relation_x", &result, err, sizeof(err), &rows), -1);
    EXPECT_NE(std::string(err).find("no_such_relation_x"), std::string::npos) << err;
    EXPECT_FALSE(log.has("Resetting connection"));

    // A connection the server dropped is reset and the statement run again.
    ASSERT_TRUE(ferrytest::pgCluster()->restart());
    EXPECT_EQ(pgsqlRetryExec(conn, "SELECT 5", &result, 0), 0);
    EXPECT_TRUE(log.has("Resetting connection"));
    ASSERT_EQ(PQresultStatus(result), PGRES_TUPLES_OK);
    EXPECT_STREQ(PQgetvalue(result, 0, 0), "5");
    PQclear(result);
    EXPECT_EQ(pgsqlClose(&conn), 0);
    EXPECT_EQ(conn, nullptr);

    EXPECT_EQ(pgsqlConnect("no_such_service", &conn), -1);
    EXPECT_TRUE(log.has("FATAL ERROR: Failed to connect to PostgreSQL database!"));
    EXPECT_EQ(pgsqlConnect("x", nullptr), -1);
}

} // namespace
