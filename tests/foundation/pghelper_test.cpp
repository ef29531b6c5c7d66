// Statements, results and transactions of the database layer against a
// private server: prepared formats and their cache, NULL comparisons, typed
// accessors and their failures, escaping, COPY, asynchronous statements,
// nested savepoints and the column-exists cache.
#include "pg_test_support.h"

#include <climits>
#include <cstring>
#include <string>

namespace {

auto* const pgEnv = ::testing::AddGlobalTestEnvironment(new ferrytest::PgClusterEnvironment);

using pgtest::layerValue;

// Scratch tables live in public, made fresh by each test that needs them.
class PgHelper : public pgtest::PgLayerTest {
protected:
    void SetUp() override
    {
        PgLayerTest::SetUp();
        ASSERT_TRUE(ferrytest::pgExecSql(
            "DROP TABLE IF EXISTS public.people;"
            "CREATE TABLE public.people (id int, name text, score float8, big bigint, flag boolean);"
            "INSERT INTO public.people VALUES (1, 'ann', 1.5, 10, true), (2, NULL, NULL, NULL, NULL),"
            " (3, 'bob', -2.25, 9000000000, false);"));
    }
    std::string count(const std::string& where)
    {
        return ferrytest::pgQueryValue("SELECT count(*) FROM public.people WHERE " + where);
    }
};

TEST_F(PgHelper, QueryBindsEveryConversionAsAParameter)
{
    short s = -7;
    unsigned short us = 65535;
    pgResult* res = pgQuery("SELECT %s::text AS t, %c::text AS c, %hd::int AS hd, %hu::int AS hu, %d::int AS d,"
                            " %u::bigint AS u, %ld::bigint AS ld, %lu::numeric AS lu, %lld::bigint AS lld,"
                            " %llu::numeric AS llu, %f::float8 AS f, %lf::float8 AS lf, '100%%' AS pct",
                            "it's \\ \"x\"", 'Q', s, us, INT_MIN, 4000000000u, -5000000000L, ULONG_MAX, LLONG_MIN,
                            ULLONG_MAX, 0.5, 2.25);
    ASSERT_EQ(pgStatus(res), 0);
    EXPECT_STREQ(pgSVal(res, 0, "t"), "it's \\ \"x\"");
    EXPECT_STREQ(pgSVal(res, 0, "c"), "Q");
    EXPECT_EQ(pgLongVal(res, 0, "hd"), -7);
    EXPECT_EQ(pgLongVal(res, 0, "hu"), 65535);
    EXPECT_EQ(pgLongVal(res, 0, "d"), INT_MIN);
    EXPECT_EQ(pgLLongVal(res, 0, "u"), 4000000000LL);
    EXPECT_EQ(pgLLongVal(res, 0, "ld"), -5000000000LL);
    EXPECT_EQ(pgULongVal(res, 0, "lu"), ULONG_MAX);
    EXPECT_EQ(pgLLongVal(res, 0, "lld"), LLONG_MIN);
    EXPECT_STREQ(pgSVal(res, 0, "llu"), "18446744073709551615");
    EXPECT_DOUBLE_EQ(pgDoubleVal(res, 0, "f"), 0.5);
    EXPECT_DOUBLE_EQ(pgDoubleVal(res, 0, "lf"), 2.25);
    EXPECT_STREQ(pgSVal(res, 0, "pct"), "100%");
    EXPECT_EQ(res->error, 0);
    pgClear(res);
    EXPECT_EQ(pgResourcePtr->queryCache[0].paramCount, 12);
    EXPECT_NE(strstr(pgResourcePtr->queryCache[0].statement, "$12::float8"), nullptr);
}

TEST_F(PgHelper, NullComparisonsBecomeIsNullAndAreTheirOwnCacheEntries)
{
    const char* fmt = "SELECT count(*) AS n FROM people WHERE name = %ns";
    pgResult* res = pgQuery(fmt, 1, static_cast<const char*>(nullptr));
    ASSERT_EQ(pgStatus(res), 0);
    EXPECT_EQ(pgLongVal(res, 0, "n"), 1);
    pgClear(res);
    EXPECT_TRUE(log.has("Output format string: SELECT count(*) AS n FROM people WHERE name IS NULL %z%z"));
    ASSERT_EQ(pgResourcePtr->queryCount, 1);
    EXPECT_STREQ(pgResourcePtr->queryCache[0].statement, "SELECT count(*) AS n FROM people WHERE name IS NULL ");

    res = pgQuery(fmt, 0, "ann");
    ASSERT_EQ(pgStatus(res), 0);
    EXPECT_EQ(pgLongVal(res, 0, "n"), 1);
    pgClear(res);
    EXPECT_EQ(pgResourcePtr->queryCount, 2);
    EXPECT_STREQ(pgResourcePtr->queryCache[1].statement, "SELECT count(*) AS n FROM people WHERE name = $1");

    // A negative flag is "not NULL" too; the same two forms are reused.
    res = pgQuery(fmt, -1, "bob");
    EXPECT_EQ(pgLongVal(res, 0, "n"), 1);
    pgClear(res);
    res = pgQuery(fmt, 5, "ignored");
    EXPECT_EQ(pgLongVal(res, 0, "n"), 1);
    pgClear(res);
    EXPECT_EQ(pgResourcePtr->queryCount, 2);

    res = pgQuery("SELECT count(*) AS n FROM people WHERE name != %ns", 1, "x");
    EXPECT_EQ(pgLongVal(res, 0, "n"), 2);
    pgClear(res);
    EXPECT_NE(strstr(pgResourcePtr->queryCache[2].statement, "name IS NOT NULL"), nullptr);
}

TEST_F(PgHelper, NullFlagsKeepLaterArgumentsInStep)
{
    // A NULL double and a NULL long long in front of ordinary arguments:
    // the skipped values must not shift what follows.
    pgResult* res = pgQuery("SELECT count(*) AS n FROM people WHERE score = %nlf AND big = %nlld AND id = %d"
                            " AND %s = 'x'",
                            1, 3.5, 1, 77LL, 2, "x");
    ASSERT_EQ(pgStatus(res), 0);
    EXPECT_EQ(pgLongVal(res, 0, "n"), 1);
    pgClear(res);
    // A NULL value sent as a parameter, where no comparison is rewritten.
    res = pgQuery("SELECT %nd::int IS NULL AS isnull, %nd::int AS v", 1, 99, 0, 42);
    ASSERT_EQ(pgStatus(res), 0);
    EXPECT_EQ(pgBoolVal(res, 0, "isnull"), 1);
    EXPECT_EQ(pgLongVal(res, 0, "v"), 42);
    pgClear(res);
    // Comparisons that are not "=" or "!=" keep their operator.
    res = pgQuery("SELECT count(*) AS n FROM people WHERE id >= %nd", 0, 2);
    EXPECT_EQ(pgLongVal(res, 0, "n"), 2);
    pgClear(res);
}

TEST_F(PgHelper, BadFormatsFailBeforeAnythingIsPrepared)
{
    EXPECT_EQ(pgQuery(nullptr), nullptr);
    EXPECT_EQ(pgQuery(""), nullptr);
    EXPECT_TRUE(log.has("Null format string"));
    EXPECT_EQ(pgQuery("SELECT %x", 1), nullptr);
    EXPECT_TRUE(log.has("Invalid format code: %x"));
    EXPECT_TRUE(log.has("No modifier for format code"));
    EXPECT_EQ(pgQuery("SELECT %ls", "a"), nullptr);
    EXPECT_TRUE(log.has("Modifier was: l"));
    EXPECT_EQ(pgResourcePtr->queryCount, 0);
}

TEST_F(PgHelper, FailedStatementsAreReportedWithTheirText)
{
    EXPECT_EQ(pgExec("SELECT * FROM no_such_table_q"), nullptr);
    EXPECT_TRUE(log.has("Execution of statement failed: ERROR:  relation \"no_such_table_q\" does not exist"));
    EXPECT_TRUE(log.has("Query string was: SELECT * FROM no_such_table_q"));
    EXPECT_TRUE(log.has("executeTextQuery returned null result"));
    log.clear();
    EXPECT_EQ(pgQuery("SELECT 1/%d AS x", 0), nullptr);
    EXPECT_TRUE(log.has("Execution of statement with index 0 failed: ERROR:  division by zero"));
    EXPECT_TRUE(log.has("Query parameters [1]: $1: \"0\""));
    EXPECT_TRUE(log.has("executePrepared returned null result"));
    // The prepared statement stays cached and works with a good value.
    pgResult* res = pgQuery("SELECT 1/%d AS x", 1);
    EXPECT_EQ(pgLongVal(res, 0, "x"), 1);
    pgClear(res);
    EXPECT_EQ(pgResourcePtr->queryCount, 1);
    EXPECT_EQ(pgStatus(nullptr), -1);
}

TEST_F(PgHelper, StatementsWithoutPreparingUseTheSameParameters)
{
    ASSERT_EQ(pgOpenLocal(1), 0);
    pgResourcePtr->prepared = 0;
    pgResult* res = pgQuery("SELECT %s || %d AS v", "n", 5);
    ASSERT_EQ(pgStatus(res), 0);
    EXPECT_STREQ(pgSVal(res, 0, "v"), "n5");
    pgClear(res);
    EXPECT_FALSE(log.has("Storing as a prepared statement"));
}

TEST_F(PgHelper, CacheIsPerConnectionAndPreparedAgainAfterReconnect)
{
    const char* fmt = "SELECT name FROM people WHERE id = %d";
    pgResult* res = pgQuery(fmt, 1);
    EXPECT_STREQ(pgSVal(res, 0, "name"), "ann");
    pgClear(res);
    ASSERT_TRUE(ferrytest::pgCluster()->restart());
    res = pgQuery(fmt, 3);
    ASSERT_EQ(pgStatus(res), 0);
    EXPECT_STREQ(pgSVal(res, 0, "name"), "bob");
    pgClear(res);
    EXPECT_EQ(pgResourcePtr->queryCount, 1);
}

TEST_F(PgHelper, AccessorsReportBadValuesAndSetTheErrorField)
{
    pgResult* res = pgExec("SELECT 'abc'::text AS word, '99999999999999999999'::text AS huge, ''::text AS empty,"
                           " NULL::int AS nothing, '12'::text AS twelve, 'x'::text AS notbool, '1e999'::text AS inf");
    ASSERT_EQ(pgStatus(res), 0);

    EXPECT_EQ(pgLongVal(res, 0, "twelve"), 12);
    EXPECT_EQ(res->error, 0);

    EXPECT_EQ(pgLongVal(res, 0, "word"), 0);
    EXPECT_EQ(res->error, -1);
    EXPECT_TRUE(log.has("Could not retrieve value for row 0, col word: invalid value(abc) in result"));

    res->error = 0;
    EXPECT_EQ(pgLongVal(res, 0, "huge"), 0);
    EXPECT_EQ(res->error, -1);
    EXPECT_TRUE(log.has("col huge: strtol(99999999999999999999) failed with errno 34: "));
    res->error = 0;
    EXPECT_EQ(pgLLongVal(res, 0, "huge"), 0);
    EXPECT_TRUE(log.has("strtoll(99999999999999999999) failed with errno 34"));
    EXPECT_EQ(pgULongVal(res, 0, "huge"), 0UL);
    EXPECT_TRUE(log.has("strtoul(99999999999999999999) failed with errno 34"));
    EXPECT_EQ(pgDoubleVal(res, 0, "inf"), 0.0);
    EXPECT_TRUE(log.has("strtod(1e999) failed with errno 34"));
    EXPECT_EQ(res->error, -1);

    // Empty and NULL: error field, no log line.
    log.clear();
    res->error = 0;
    EXPECT_EQ(pgLongVal(res, 0, "empty"), 0);
    EXPECT_EQ(res->error, -1);
    res->error = 0;
    EXPECT_EQ(pgDoubleVal(res, 0, "nothing"), 0.0);
    EXPECT_EQ(res->error, -1);
    EXPECT_FALSE(log.has("Could not retrieve value"));

    res->error = 0;
    EXPECT_EQ(pgBoolVal(res, 0, "notbool"), 0);
    EXPECT_EQ(res->error, -1);

    res->error = 0;
    EXPECT_EQ(pgSVal(res, 0, "no_such_col"), nullptr);
    EXPECT_EQ(res->error, -1);
    EXPECT_TRUE(log.has("Invalid column name: 'no_such_col'"));
    EXPECT_EQ(pgSVal(res, 0, nullptr), nullptr);
    EXPECT_TRUE(log.has("Invalid null column name"));
    EXPECT_EQ(pgSVal(res, 5, "word"), nullptr);
    EXPECT_TRUE(log.has("Could not retrieve value for row 5, col word: getTextValue() failed"));
    // Column names compare exactly.
    EXPECT_EQ(pgSVal(res, 0, "WORD"), nullptr);

    EXPECT_EQ(pgIsNull(res, 0, "nothing"), 1);
    EXPECT_EQ(pgIsNull(res, 0, "word"), 0);
    res->error = 0;
    EXPECT_EQ(pgIsNull(res, 0, "absent"), -1);
    EXPECT_EQ(res->error, -1);

    char* copy = pgDupVal(res, 0, "word");
    ASSERT_NE(copy, nullptr);
    EXPECT_STREQ(copy, "abc");
    free(copy);
    pgClear(res);

    EXPECT_EQ(pgSVal(nullptr, 0, "word"), nullptr);
    EXPECT_TRUE(log.has("Cannot fetch value for null query result!"));
    EXPECT_EQ(pgTuples(nullptr), 0);
}

TEST_F(PgHelper, TypedValuesOfRealColumns)
{
    pgResult* res = pgQuery("SELECT id, name, score, big, flag FROM people ORDER BY id");
    ASSERT_EQ(pgStatus(res), 0);
    ASSERT_EQ(pgTuples(res), 3);
    EXPECT_EQ(pgBoolVal(res, 0, "flag"), 1);
    EXPECT_EQ(pgBoolVal(res, 2, "flag"), 0);
    EXPECT_EQ(pgLLongVal(res, 2, "big"), 9000000000LL);
    EXPECT_DOUBLE_EQ(pgDoubleVal(res, 2, "score"), -2.25);
    EXPECT_STREQ(pgSVal(res, 1, "name"), "");
    EXPECT_EQ(pgIsNull(res, 1, "name"), 1);
    EXPECT_EQ(res->error, 0);
    pgClearPtr(&res);
    EXPECT_EQ(res, nullptr);

    res = pgExec("UPDATE people SET score = 0 WHERE id > 1");
    EXPECT_EQ(pgCmdTuples(res), 2);
    pgClear(res);
}

TEST_F(PgHelper, QuotesAndBackslashesRoundTrip)
{
    const char* value = "O'Brien \\ \"q\" \\\\ '' \\' end\\";
    char escaped[128];
    ASSERT_LT(strlen(value) * 2 + 1, sizeof(escaped));
    pgEscape(escaped, value);
    pgResult* res = pgVExec("INSERT INTO people (id, name) VALUES (10, '%s')", escaped);
    ASSERT_EQ(pgStatus(res), 0);
    pgClear(res);

    char* allocated = nullptr;
    ASSERT_EQ(pgAEscape(&allocated, value), 0);
    EXPECT_STREQ(allocated, escaped);
    res = pgVExec("SELECT count(*) AS n FROM people WHERE name = '%s'", allocated);
    EXPECT_EQ(pgLongVal(res, 0, "n"), 1);
    pgClear(res);
    free(allocated);

    res = pgQuery("INSERT INTO people (id, name) VALUES (11, %s)", value);
    ASSERT_EQ(pgStatus(res), 0);
    pgClear(res);
    res = pgQuery("SELECT name FROM people WHERE id = %d", 10);
    EXPECT_STREQ(pgSVal(res, 0, "name"), value);
    pgClear(res);
    res = pgQuery("SELECT name FROM people WHERE id = %d", 11);
    EXPECT_STREQ(pgSVal(res, 0, "name"), value);
    pgClear(res);
    // Seen from another session the two rows are the same text.
    EXPECT_EQ(ferrytest::pgQueryValue("SELECT count(DISTINCT name) FROM public.people WHERE id IN (10, 11)"), "1");
}

TEST_F(PgHelper, CopyInWithEscapedFields)
{
    const char* tricky = "tab\there|pipe\\back\nnewline";
    char field[128];
    pgCopyEscape(field, tricky, '|');
    EXPECT_STREQ(field, "tab\there\\|pipe\\\\back\\\nnewline");
    std::string rows = std::string("20|") + field + "\n21|plain\n";
    ASSERT_EQ(pgCopyIn("people (id, name)", "|", rows.c_str()), 0);
    pgResult* res = pgQuery("SELECT name FROM people WHERE id = %d", 20);
    EXPECT_STREQ(pgSVal(res, 0, "name"), tricky);
    pgClear(res);
    EXPECT_EQ(count("id = 21 AND name = 'plain'"), "1");

    EXPECT_EQ(pgCopyIn("people (id, name)", "|", "not_a_number|x\n"), -1);
    EXPECT_TRUE(log.has("Execution of copy (people (id, name)) statement failed"));
    EXPECT_EQ(pgCopyIn("no_such_table_c", "|", "1\n"), -1);
    // The connection is usable after both failures.
    EXPECT_EQ(layerValue("SELECT 3"), "3");
}

TEST_F(PgHelper, TooLongStatementIsNotSent)
{
    std::string name(200, 'z');
    char small[64];
    EXPECT_EQ(pgSExec(small, sizeof(small), "INSERT INTO people (id, name) VALUES (30, '%s')", name.c_str()), nullptr);
    EXPECT_TRUE(log.has("Query too long for buffer"));
    EXPECT_FALSE(log.has("Executing query with text: INSERT"));
    EXPECT_EQ(count("id = 30"), "0");

    char buf[64];
    log.clear();
    EXPECT_EQ(pgFormatQuery(buf, sizeof(buf), "caller.cpp", 77, "SELECT '%s'", name.c_str()), -1);
    EXPECT_TRUE(log.has("caller.cpp:77: Query too long for buffer"));
    EXPECT_EQ(pgFormatQuery(buf, sizeof(buf), "caller.cpp", 78, "%s", ""), -1);

    // A statement that fits is sent.
    pgResult* res = pgSExec(small, sizeof(small), "INSERT INTO people (id) VALUES (%d)", 31);
    EXPECT_EQ(pgStatus(res), 0);
    pgClear(res);
    EXPECT_EQ(count("id = 31"), "1");
}

TEST_F(PgHelper, AsyncStatementFinishesAndCanBeCancelled)
{
    pgResult* res = pgSend("SELECT 6 * 7 AS answer");
    ASSERT_NE(res, nullptr);
    EXPECT_EQ(pgStatus(res), -1);
    int done = 0;
    for (int i = 0; i < 1000 && !done; ++i)
        done = pgAsyncWait(res, 100);
    ASSERT_EQ(done, 1);
    ASSERT_EQ(pgStatus(res), 0);
    EXPECT_EQ(pgLongVal(res, 0, "answer"), 42);
    pgClear(res);

    res = pgVSend("SELECT pg_sleep(%d)", 60);
    ASSERT_NE(res, nullptr);
    EXPECT_EQ(pgAsyncWait(res, 1), 0);
    EXPECT_EQ(pgAsyncCancel(), 0);
    EXPECT_TRUE(log.has("Cancel request successfully dispatched"));
    done = 0;
    for (int i = 0; i < 1000 && !done; ++i)
        done = pgAsyncWait(res, 100);
    EXPECT_EQ(done, 1);
    EXPECT_EQ(pgStatus(res), -1);
    EXPECT_TRUE(log.has("canceling statement due to user request"));
    EXPECT_TRUE(log.has("Query string was: SELECT pg_sleep(60)"));
    pgClear(res);
    EXPECT_EQ(pgAsyncWait(nullptr, 1), 1);
    // The session goes on after a cancelled statement.
    EXPECT_EQ(layerValue("SELECT 'after'"), "after");
}

TEST_F(PgHelper, NestedSavepointsCommitAndRollBack)
{
    int id = -1;
    ASSERT_EQ(pgPushTransaction(&id), 0);
    EXPECT_EQ(id, 1);
    pgClear(pgExec("INSERT INTO people (id) VALUES (101)"));
    ASSERT_EQ(pgPushTransaction(&id), 0);
    EXPECT_EQ(id, 2);
    pgClear(pgExec("INSERT INTO people (id) VALUES (102)"));
    ASSERT_EQ(pgPushTransaction(&id), 0);
    EXPECT_EQ(id, 3);
    pgClear(pgExec("INSERT INTO people (id) VALUES (103)"));
    EXPECT_TRUE(log.has("SAVEPOINT pghelper_savepoint_3;"));

    EXPECT_EQ(pgPopTransaction(0, 3), 0);  // roll back the innermost
    EXPECT_EQ(pgResourcePtr->savepointCount, 2);
    EXPECT_TRUE(log.has("pgPopTransaction was successful; rolled back to and released savepoint 3"));
    EXPECT_EQ(pgPopTransaction(1, 5), -1);  // above the count: nothing changes
    EXPECT_TRUE(log.has("Invalid savepoint identifier \"5\""));
    EXPECT_EQ(pgResourcePtr->savepointCount, 2);
    EXPECT_EQ(pgPopTransaction(1, 0), 0);  // 0: the innermost, here 2
    EXPECT_EQ(pgResourcePtr->savepointCount, 1);
    // Nothing is visible outside before the outer commit.
    EXPECT_EQ(count("id > 100"), "0");
    EXPECT_EQ(pgPopTransaction(1, 1), 0);
    EXPECT_EQ(pgInTransaction(), 0);
    EXPECT_EQ(count("id > 100"), "2");
    EXPECT_EQ(count("id = 103"), "0");

    // Popping id 2 with rollback leaves the count at 1; then a rollback
    // of the whole leaves nothing.
    ASSERT_EQ(pgPushTransaction(nullptr), 0);
    pgClear(pgExec("INSERT INTO people (id) VALUES (201)"));
    ASSERT_EQ(pgPushTransaction(&id), 0);
    pgClear(pgExec("INSERT INTO people (id) VALUES (202)"));
    EXPECT_EQ(pgPopTransaction(0, 2), 0);
    EXPECT_EQ(pgResourcePtr->savepointCount, 1);
    EXPECT_EQ(pgCommit(), 0);
    EXPECT_EQ(count("id > 200"), "1");

    ASSERT_EQ(pgPushTransaction(nullptr), 0);
    ASSERT_EQ(pgPushTransaction(nullptr), 0);
    pgClear(pgExec("INSERT INTO people (id) VALUES (301)"));
    EXPECT_EQ(pgPopTransaction(0, 1), 0);  // id 1 rolls back everything
    EXPECT_EQ(pgResourcePtr->savepointCount, 0);
    EXPECT_EQ(count("id > 300"), "0");

    log.clear();
    EXPECT_EQ(pgPopTransaction(1, 0), 0);  // outside a transaction
    EXPECT_TRUE(log.has("pgPopTransaction: nothing to do, returning SUCCESS"));
}

TEST_F(PgHelper, CommitOfAFailedTransactionIsAFailure)
{
    ASSERT_EQ(pgBegin(), 0);
    pgClear(pgExec("INSERT INTO people (id) VALUES (401)"));
    EXPECT_EQ(pgExec("SELECT * FROM no_such_table_t"), nullptr);
    EXPECT_EQ(pgCommit(), -1);
    EXPECT_TRUE(log.has("Failed to commit transaction; rollback performed"));
    EXPECT_EQ(pgInTransaction(), 0);
    EXPECT_EQ(count("id = 401"), "0");
    EXPECT_EQ(layerValue("SELECT 'usable'"), "usable");
}

TEST_F(PgHelper, ColumnExistsCacheKeepsSixteenAnswersPerConnection)
{
    EXPECT_EQ(pgCECset("backups", "sync_status", 1), -1);
    EXPECT_TRUE(log.has("no pgResourcePtr"));
    ASSERT_EQ(pgOpenLocal(1), 0);
    EXPECT_EQ(pgCECget("backups", "sync_status"), -1);
    EXPECT_EQ(pgCECset("backups", "sync_status", 1), 0);
    EXPECT_EQ(pgCECset("backups", "gone", 0), 0);
    EXPECT_EQ(pgCECget("backups", "sync_status"), 1);
    EXPECT_EQ(pgCECget("backups", "gone"), 0);
    EXPECT_EQ(pgCECset(nullptr, "c", 1), -1);
    EXPECT_TRUE(log.has("table is NULL"));
    EXPECT_EQ(pgCECset("t", nullptr, 1), -1);
    EXPECT_TRUE(log.has("column is NULL"));
    EXPECT_EQ(pgCECset("", "c", 1), -1);
    EXPECT_TRUE(log.has("table or column name length is zero"));
    for (int i = 2; i < PG_CEC_SIZE; ++i)
        EXPECT_EQ(pgCECset("t", ("c" + std::to_string(i)).c_str(), i), 0);
    EXPECT_EQ(pgCECset("t", "one_too_many", 1), -1);
    EXPECT_TRUE(log.has("CEC table overflow"));
    EXPECT_EQ(pgCECget("t", "one_too_many"), -1);
    EXPECT_EQ(pgCECget("t", "c15"), 15);
    // The answers die with the connection.
    pgClose();
    ASSERT_EQ(pgOpenLocal(1), 0);
    EXPECT_EQ(pgCECget("backups", "sync_status"), -1);
}

TEST_F(PgHelper, ServerVersionOfTwoPartReleasesIsZero)
{
    // PostgreSQL 15 says "15.x": fewer than three parts read as 0.
    EXPECT_EQ(pgServerVersion(), 0);
    ASSERT_NE(pgResourcePtr, nullptr);
    EXPECT_EQ(pgResourcePtr->serverVersion, 0);
}

} // namespace
