// The connection table against a private server: healing after a restart
// (never inside a transaction), forked children, the slots, the masker.
#include "pg_test_support.h"

#include <csignal>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

auto* const pgEnv = ::testing::AddGlobalTestEnvironment(new ferrytest::PgClusterEnvironment);

using pgtest::backendPid;
using pgtest::layerValue;

class PgConnect : public pgtest::PgLayerTest {};

TEST_F(PgConnect, RestartBetweenStatementsIsHealed)
{
    ASSERT_TRUE(ferrytest::pgExecSql("CREATE TABLE tq.open_probe (v int); INSERT INTO tq.open_probe VALUES (41);"));
    // No pgOpen: the statement opens "localhost" by itself, tq first on the search path.
    EXPECT_EQ(layerValue("SELECT v FROM open_probe"), "41");
    EXPECT_STREQ(pgResourcePtr->hostname, "localhost");
    PGconn* direct = nullptr;
    ASSERT_EQ(pgsqlConnect(nullptr, &direct), 0);
    PGresult* result = nullptr;
    char err[256] = "";
    int rows = -1;
    // A bad statement on a good direct connection is reported, not run again.
    EXPECT_EQ(pgsqlRows(direct, "SELECT * FROM no_such_relation_x", &result, err, sizeof(err), &rows), -1);
    EXPECT_NE(strstr(err, "no_such_relation_x"), nullptr) << err;
    EXPECT_FALSE(logged("Resetting connection"));
    ASSERT_TRUE(ferrytest::pgCluster()->restart());
    mark();
    // The next statement finds its session gone, opens a new one and runs once, there.
    EXPECT_EQ(layerValue("INSERT INTO open_probe VALUES (42) RETURNING v"), "42");
    EXPECT_TRUE(logged("Not connected to Postgres or connection bad, reconnecting..."));
    EXPECT_EQ(ferrytest::pgQueryValue("SELECT count(*) FROM tq.open_probe WHERE v = 42"), "1");
    // A direct connection is reset and the statement run again, unless told not to.
    EXPECT_EQ(pgsqlRetryExec(direct, "SELECT 5", &result, 1), -1);
    EXPECT_FALSE(logged("Resetting connection"));
    ASSERT_EQ(pgsqlRows(direct, "SELECT generate_series(1, 3)", &result, err, sizeof(err), &rows), 0);
    EXPECT_TRUE(logged("Resetting connection"));
    EXPECT_EQ(rows, 3);
    PQclear(result);
    EXPECT_EQ(pgsqlClose(&direct), 0);
    EXPECT_EQ(pgsqlConnect("no_such_service", &direct), -1);
}

TEST_F(PgConnect, NoReconnectInsideATransaction)
{
    ASSERT_TRUE(ferrytest::pgExecSql("CREATE TABLE public.txn_lost (v int);"));
    struct { const char* how; int (*end)(); int depthAfter; const char* words; } ends[] = {
        {"rollback", [] { return pgRollback(); }, 0, "Failed to roll back transaction"},
        {"pop of level 3", [] { return pgPopTransaction(0, 3); }, 2, "Adjusted savepoint count to 2"},
    };
    for (const auto& e : ends) {
        SCOPED_TRACE(e.how);
        for (int i = 0; i < 3; ++i)
            ASSERT_EQ(pgPushTransaction(nullptr), 0);
        pgClear(pgExec("INSERT INTO txn_lost VALUES (1)"));
        int before = backendPid();
        ASSERT_TRUE(ferrytest::pgCluster()->restart());
        mark();
        // The transaction died with the server: statements fail, and the
        // books stay as they were until the caller ends the transaction.
        EXPECT_EQ(pgExec("INSERT INTO txn_lost VALUES (2)"), nullptr);
        EXPECT_EQ(pgQuery("SELECT %d AS one", 1), nullptr);
        EXPECT_TRUE(logged("Connection bad; reset not attempted from within a transaction block"));
        EXPECT_EQ(pgResourcePtr->savepointCount, 3);
        EXPECT_EQ(e.end(), -1);
        EXPECT_TRUE(logged(e.words));
        EXPECT_EQ(pgResourcePtr->savepointCount, e.depthAfter);
        EXPECT_EQ(pgInTransaction() ? pgRollback() : -1, -1);
        int after = backendPid();
        EXPECT_TRUE(after > 0 && after != before) << "healed once the transaction is over";
    }
    EXPECT_EQ(ferrytest::pgQueryValue("SELECT count(*) FROM public.txn_lost"), "0");
}

TEST_F(PgConnect, ForkedChildOpensItsOwnConnectionAndTheParentsKeepsWorking)
{
    ASSERT_TRUE(ferrytest::pgExecSql("CREATE TABLE public.child_seen (pid int);"));
    int parent = backendPid();
    ASSERT_GT(parent, 0);
    // Second round: the child is forked inside the parent's transaction and
    // ends with exit(), which runs the atexit pgCloseAll of the table it got.
    for (bool inTransaction : {false, true}) {
        SCOPED_TRACE(inTransaction ? "in a transaction, exit()" : "_exit()");
        ASSERT_EQ(inTransaction ? pgBegin() : 0, 0);
        fflush(nullptr);
        pid_t pid = fork();
        if (pid == 0) {
            int mine = backendPid();
            pgResult* res = pgQuery("INSERT INTO child_seen VALUES (%d)", mine);
            int code = mine > 0 && mine != parent && pgStatus(res) == 0 && pgInTransaction() == 0 ? 0 : 1;
            pgClear(res);
            if (inTransaction)
                exit(code);
            _exit(code);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        EXPECT_EQ(backendPid(), parent);
        EXPECT_EQ(pgInTransaction(), inTransaction ? 1 : 0);
        EXPECT_EQ(inTransaction ? pgCommit() : 0, 0);
    }
    EXPECT_EQ(ferrytest::pgQueryValue("SELECT count(DISTINCT pid) FROM public.child_seen WHERE pid != " +
                                      std::to_string(parent)),
              "2");
    EXPECT_TRUE(logged("Reinitializing child process connection to database"));
}

TEST_F(PgConnect, FullTableEvictsTheOldestConnectionOutsideATransaction)
{
    pgResource* opened[PG_RESOURCE_SLOTS];
    for (int i = 0; i < PG_RESOURCE_SLOTS; ++i) {
        std::string name = "slot_" + std::to_string(i);
        ferrytest::pgCluster()->addService(name);
        ASSERT_EQ(pgOpen(name.c_str(), 1), 0) << name;
        ASSERT_EQ(pgBegin(), 0);
        opened[i] = pgResourcePtr;
    }
    ferrytest::pgCluster()->addService("slot_new");
    EXPECT_EQ(pgOpen("slot_new", 1), -1);
    EXPECT_TRUE(logged("No connection resource slots available"));
    for (int i : {5, 9}) {
        ASSERT_EQ(pgOpen(("slot_" + std::to_string(i)).c_str(), 1), 0);
        EXPECT_EQ(pgResourcePtr, opened[i]) << "a known name selects its own connection";
        ASSERT_EQ(pgCommit(), 0);
    }
    // Of the two idle ones the older goes; slot_0, older still, is in a transaction.
    opened[9]->connectTime -= 1000;
    opened[0]->connectTime -= 2000;
    ASSERT_EQ(pgOpen("slot_new", 1), 0);
    EXPECT_TRUE(logged("Closing old connection resource to slot_9"));
    ASSERT_EQ(pgOpen("slot_5", 1), 0);
    EXPECT_EQ(pgResourcePtr, opened[5]);
}

TEST_F(PgConnect, UnknownServiceFailsAfterTwoTries)
{
    EXPECT_EQ(pgOpen("no_such_service", 1), -1);
    EXPECT_EQ(pgResourcePtr, nullptr);
    EXPECT_TRUE(logged("Tried connecting 2 times"));
    // lastHost now names the bad service: a statement has nothing to run on.
    EXPECT_EQ(pgExec("SELECT 1"), nullptr);
    EXPECT_TRUE(logged("pgOpen failed, cannot open connection"));
}

int logFd = -1;
volatile off_t logSizeInHandler = -1;

TEST_F(PgConnect, SignalMaskerNestsAndHoldsSignalsUntilTheStatementIsOver)
{
    auto blocked = [](int sig) {
        sigset_t now;
        sigprocmask(SIG_SETMASK, nullptr, &now);
        return sigismember(&now, sig) == 1;
    };
    pgMaskSignals();
    pgMaskSignals();
    for (int sig : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGCHLD, SIGALRM, SIGUSR1, SIGUSR2})
        EXPECT_TRUE(blocked(sig)) << sig;
    EXPECT_FALSE(blocked(SIGPIPE));
    pgUnmaskSignals();
    EXPECT_TRUE(blocked(SIGUSR1)) << "an inner unmask must keep the signals blocked";
    pgUnmaskSignals();
    EXPECT_FALSE(blocked(SIGUSR1));

    // A timer fires early in a statement that sleeps, then raises a notice,
    // which the layer logs. The handler notes how long the log is: it must
    // run after the whole statement, so after the notice.
    ASSERT_EQ(pgOpenLocal(1), 0);
    // The capture's stream, found by swapping it out and straight back.
    FILE* logStream = swap_log_stream(stderr);
    swap_log_stream(logStream);
    logFd = fileno(logStream);
    struct sigaction sa = {}, old = {};
    sa.sa_handler = [](int) {
        struct stat st;
        logSizeInHandler = fstat(logFd, &st) == 0 ? st.st_size : -2;
    };
    sigaction(SIGALRM, &sa, &old);
    itimerval timer = {{0, 0}, {0, 200000}};
    setitimer(ITIMER_REAL, &timer, nullptr);
    pgResult* res = pgExec("DO $$ BEGIN PERFORM pg_sleep(1); RAISE NOTICE 'statement over'; END $$");
    sigaction(SIGALRM, &old, nullptr);
    EXPECT_EQ(pgStatus(res), 0);
    pgClear(res);
    size_t notice = log.text().find("NOTICE:  statement over");
    ASSERT_NE(notice, std::string::npos);
    EXPECT_GT(logSizeInHandler, static_cast<off_t>(notice)) << "-1: no signal; less: it came inside libpq";
}

} // namespace
