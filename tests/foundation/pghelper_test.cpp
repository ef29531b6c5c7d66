// Statements, results and transactions of the database layer against a
// private server, from the format of pgQuery to the nested savepoints.
#include "pg_test_support.h"

#include <climits>
#include <string>

namespace {

auto* const pgEnv = ::testing::AddGlobalTestEnvironment(new ferrytest::PgClusterEnvironment);

using pgtest::firstValue;
using pgtest::layerValue;

// Every test starts with three rows in a fresh public.people.
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
    // Rows matching `where`, seen from another session.
    static std::string count(const std::string& where)
    {
        return ferrytest::pgQueryValue("SELECT count(*) FROM public.people WHERE " + where);
    }
};

TEST_F(PgHelper, EveryConversionTravelsAsAParameter)
{
    short s = -7;
    unsigned short us = 65535;
    EXPECT_EQ(firstValue(pgQuery("SELECT concat_ws('|', %s::text, %c::text, %hd::text, %hu::text, %d::text, %u::text,"
                                 " %ld::text, %lu::text, %lld::text, %llu::text, %f::text, %lf::text, '100%%',"
                                 " %z%Z%d::text)",
                                 "it's \\ \"x\"", 'Q', s, us, INT_MIN, 4000000000u, -5000000000L, ULONG_MAX, LLONG_MIN,
                                 ULLONG_MAX, 0.5, 2.25, 99L, 9.5, 7)),
              "it's \\ \"x\"|Q|-7|65535|-2147483648|4000000000|-5000000000|18446744073709551615|"
              "-9223372036854775808|18446744073709551615|0.500000|2.250000|100%|7");
    ASSERT_EQ(pgResourcePtr->queryCount, 1);
    EXPECT_EQ(pgResourcePtr->queryCache[0].paramCount, 13);
}

TEST_F(PgHelper, NullComparisonsBecomeIsNullAndAreTheirOwnCacheEntries)
{
    const char* fmt = "SELECT count(*) FROM people WHERE name = %ns";
    EXPECT_EQ(firstValue(pgQuery(fmt, 1, static_cast<const char*>(nullptr))), "1");
    EXPECT_TRUE(logged("Output format string: SELECT count(*) FROM people WHERE name IS NULL %z%z"));
    // Every flag of 0 or below means "not NULL"; the two forms are reused.
    for (int flag : {0, -1})
        EXPECT_EQ(firstValue(pgQuery(fmt, flag, "ann")), "1") << flag;
    EXPECT_EQ(firstValue(pgQuery(fmt, 5, "ignored")), "1");
    ASSERT_EQ(pgResourcePtr->queryCount, 2);
    EXPECT_STREQ(pgResourcePtr->queryCache[0].statement, "SELECT count(*) FROM people WHERE name IS NULL ");
    EXPECT_STREQ(pgResourcePtr->queryCache[1].statement, "SELECT count(*) FROM people WHERE name = $1");
    EXPECT_EQ(firstValue(pgQuery("SELECT count(*) FROM people WHERE name != %ns", 1, "x")), "2");
    // Skipped NULL values must not shift the arguments after them; outside
    // "=" and "!=" a NULL travels as a NULL parameter.
    EXPECT_EQ(firstValue(pgQuery("SELECT count(*) FROM people WHERE score = %nlf AND big = %nlld AND id = %d"
                                 " AND %s = 'x'", 1, 3.5, 1, 77LL, 2, "x")), "1");
    EXPECT_EQ(firstValue(pgQuery("SELECT count(*) FROM people WHERE id >= %nd AND %nd::int IS NULL", 0, 2, 1, 99)),
              "2");
}

TEST_F(PgHelper, BadFormatsFailBeforeAnythingIsPrepared)
{
    EXPECT_EQ(pgQuery(nullptr), nullptr);
    EXPECT_EQ(pgQuery(""), nullptr);
    EXPECT_TRUE(logged("Null format string"));
    EXPECT_EQ(pgQuery("SELECT %x", 1), nullptr);
    EXPECT_TRUE(logged("Invalid format code: %x"));
    EXPECT_EQ(pgQuery("SELECT %ls", "a"), nullptr);
    EXPECT_EQ(pgQuery("SELECT 5 %"), nullptr);
    EXPECT_EQ(pgQuery("SELECT 5 %nl"), nullptr);
    EXPECT_EQ(pgResourcePtr->queryCount, 0);
}

TEST_F(PgHelper, FailuresAreReportedAndPreparedStatementsOutliveThemAndRestarts)
{
    EXPECT_EQ(pgExec("SELECT * FROM no_such_table_q"), nullptr);
    EXPECT_TRUE(logged("Execution of statement failed: ERROR:  relation \"no_such_table_q\" does not exist"));
    EXPECT_TRUE(logged("Query string was: SELECT * FROM no_such_table_q"));
    EXPECT_EQ(pgQuery("SELECT 1/%d", 0), nullptr);
    EXPECT_TRUE(logged("Execution of statement with index 0 failed: ERROR:  division by zero"));
    EXPECT_TRUE(logged("Query parameters [1]: $1: \"0\""));
    EXPECT_EQ(firstValue(pgQuery("SELECT 1/%d", 1)), "1");
    // The server forgets prepared statements with the session; the layer
    // forgets its cache with it and prepares anew.
    ASSERT_TRUE(ferrytest::pgCluster()->restart());
    EXPECT_EQ(firstValue(pgQuery("SELECT 1/%d", 1)), "1");
    EXPECT_EQ(pgResourcePtr->queryCount, 1);
    EXPECT_EQ(pgStatus(nullptr), -1);
}

enum Reader { Long, LLong, ULong, Double, Bool, Text, IsNull };

// Reads a value with `reader`; true when it gave the reader's failure value.
bool readFails(pgResult* res, Reader reader, int row, const char* column)
{
    switch (reader) {
    case Long: return pgLongVal(res, row, column) == 0;
    case LLong: return pgLLongVal(res, row, column) == 0;
    case ULong: return pgULongVal(res, row, column) == 0;
    case Double: return pgDoubleVal(res, row, column) == 0.0;
    case Bool: return pgBoolVal(res, row, column) == 0;
    case Text: return pgSVal(res, row, column) == nullptr;
    case IsNull: return pgIsNull(res, row, column) == -1;
    }
    return false;
}

TEST_F(PgHelper, AccessorsReportBadValuesAndSetTheErrorField)
{
    pgResult* res = pgExec("SELECT 'abc'::text AS word, '99999999999999999999'::text AS huge, ''::text AS empty,"
                           " NULL::int AS nothing, 'x'::text AS notbool, '1e999'::text AS inf");
    ASSERT_EQ(pgStatus(res), 0);
    // words "": the failure is silent, no "Could not retrieve value" line at all.
    const struct { Reader reader; int row; const char* column; const char* words; } cases[] = {
        {Long, 0, "word", "row 0, col word: invalid value(abc) in result"},
        {Long, 0, "huge", "col huge: strtol(99999999999999999999) failed with errno 34"},
        {LLong, 0, "huge", "col huge: strtoll(99999999999999999999) failed with errno 34"},
        {ULong, 0, "huge", "col huge: strtoul(99999999999999999999) failed with errno 34"},
        {Double, 0, "inf", "col inf: strtod(1e999) failed with errno 34"},
        {Bool, 0, "notbool", "col notbool: invalid value(x) in result"},
        {Long, 0, "empty", ""},
        {Double, 0, "nothing", ""},
        {Text, 0, "WORD", "Invalid column name: 'WORD'"},
        {IsNull, 0, "absent", "Invalid column name: 'absent'"},
        {Text, 0, nullptr, "Invalid null column name"},
        {Text, 5, "word", "Could not retrieve value for row 5, col word: getTextValue() failed"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.column ? c.column : "(null)") + " row " + std::to_string(c.row));
        mark();
        res->error = 0;
        EXPECT_TRUE(readFails(res, c.reader, c.row, c.column));
        EXPECT_EQ(res->error, -1);
        EXPECT_EQ(logged(*c.words ? c.words : "Could not retrieve value"), *c.words != '\0');
    }
    pgClear(res);
    EXPECT_EQ(pgSVal(nullptr, 0, "word"), nullptr);
    EXPECT_TRUE(logged("Cannot fetch value for null query result!"));

    res = pgQuery("SELECT name, big, flag FROM people ORDER BY id");
    ASSERT_EQ(pgTuples(res), 3);
    EXPECT_EQ(pgBoolVal(res, 0, "flag"), 1);
    EXPECT_EQ(pgBoolVal(res, 2, "flag"), 0);
    EXPECT_EQ(pgLLongVal(res, 2, "big"), 9000000000LL);
    EXPECT_STREQ(pgSVal(res, 1, "name"), "");
    EXPECT_EQ(pgIsNull(res, 1, "name"), 1);
    EXPECT_EQ(res->error, 0);
    pgClear(res);
}

TEST_F(PgHelper, QuotesAndBackslashesRoundTripThroughEscapeAndParameters)
{
    const char* value = "O'Brien \\ \"q\" \\\\ '' \\' end\\";
    char escaped[128];
    pgEscape(escaped, value);
    char* allocated = nullptr;
    ASSERT_EQ(pgAEscape(&allocated, value), 0);
    EXPECT_STREQ(allocated, escaped);
    free(allocated);
    pgClear(pgVExec("INSERT INTO people (id, name) VALUES (10, '%s')", escaped));
    pgClear(pgQuery("INSERT INTO people (id, name) VALUES (11, %s)", value));
    for (int id : {10, 11})
        EXPECT_EQ(firstValue(pgQuery("SELECT name FROM people WHERE id = %d", id)), value) << id;
}

TEST_F(PgHelper, CopyInTakesEscapedFieldsAndReportsBadRows)
{
    const char* tricky = "tab\there|pipe\\back\nnewline\rreturn";
    char field[128];
    pgCopyEscape(field, tricky, '|');
    EXPECT_STREQ(field, "tab\there\\|pipe\\\\back\\\nnewline\\\rreturn");
    ASSERT_EQ(pgCopyIn("people (id, name)", "|", (std::string("20|") + field + "\n21|plain\n").c_str()), 0);
    EXPECT_EQ(firstValue(pgQuery("SELECT name FROM people WHERE id = %d", 20)), tricky);
    EXPECT_EQ(count("id = 21 AND name = 'plain'"), "1");
    EXPECT_EQ(pgCopyIn("people (id, name)", "|", "not_a_number|x\n"), -1);
    EXPECT_TRUE(logged("Execution of copy (people (id, name)) statement failed"));
    EXPECT_EQ(layerValue("SELECT 3"), "3");
}

TEST_F(PgHelper, TooLongStatementIsLoggedAndNotSent)
{
    std::string name(200, 'z');
    char buf[64];
    EXPECT_EQ(pgSExec(buf, sizeof(buf), "INSERT INTO people (id, name) VALUES (30, '%s')", name.c_str()), nullptr);
    EXPECT_TRUE(logged("Query too long for buffer"));
    EXPECT_FALSE(logged("Executing query with text: INSERT"));
    EXPECT_EQ(count("id = 30"), "0");
    // 63 characters and the NUL fit, 64 do not; an empty statement is refused.
    EXPECT_EQ(pgFormatQuery(buf, sizeof(buf), "caller.cpp", 76, "%s", std::string(63, 'a').c_str()), 0);
    EXPECT_EQ(pgFormatQuery(buf, sizeof(buf), "caller.cpp", 77, "%s", std::string(64, 'a').c_str()), -1);
    EXPECT_TRUE(logged("caller.cpp:77: Query too long for buffer"));
    EXPECT_EQ(pgFormatQuery(buf, sizeof(buf), "caller.cpp", 78, "%s", ""), -1);
    pgClear(pgSExec(buf, sizeof(buf), "INSERT INTO people (id) VALUES (%d)", 31));
    EXPECT_EQ(count("id = 31"), "1");
}

TEST_F(PgHelper, AsyncStatementCanBeCancelled)
{
    pgResult* res = pgVSend("SELECT pg_sleep(%d)", 60);
    ASSERT_NE(res, nullptr);
    EXPECT_EQ(pgAsyncWait(res, 1), 0);
    EXPECT_EQ(pgAsyncCancel(), 0);
    int done = 0;
    for (int i = 0; i < 1000 && !done; ++i)
        done = pgAsyncWait(res, 100);
    EXPECT_EQ(done, 1);
    EXPECT_EQ(pgStatus(res), -1);
    EXPECT_TRUE(logged("canceling statement due to user request"));
    pgClear(res);
    EXPECT_EQ(layerValue("SELECT 'after'"), "after");
}

TEST_F(PgHelper, NestedSavepointsCommitAndRollBack)
{
    auto insert = [](int id) { pgClear(pgQuery("INSERT INTO people (id) VALUES (%d)", id)); };
    int id = 0;
    for (int level = 1; level <= 3; ++level) {
        ASSERT_EQ(pgPushTransaction(&id), 0);
        EXPECT_EQ(id, level);
        insert(100 + level);
    }
    EXPECT_EQ(pgPopTransaction(0, 3), 0);   // rolls back the innermost
    EXPECT_EQ(pgPopTransaction(1, 5), -1);  // above the depth: nothing changes
    EXPECT_EQ(pgResourcePtr->savepointCount, 2);
    EXPECT_EQ(pgPopTransaction(1, 0), 0);  // 0: the innermost, here 2
    EXPECT_EQ(pgResourcePtr->savepointCount, 1);
    EXPECT_EQ(count("id > 100"), "0");
    EXPECT_EQ(pgPopTransaction(1, 1), 0);
    EXPECT_EQ(count("id IN (101, 102)"), "2");
    EXPECT_EQ(count("id = 103"), "0");

    // Rolling back level 1 drops the inner levels with it.
    ASSERT_EQ(pgPushTransaction(nullptr), 0);
    ASSERT_EQ(pgPushTransaction(nullptr), 0);
    insert(301);
    EXPECT_EQ(pgPopTransaction(0, 1), 0);
    EXPECT_EQ(pgInTransaction(), 0);
    EXPECT_EQ(pgPopTransaction(1, 0), 0);  // outside a transaction: nothing to do

    // A commit after a failed statement rolls back and says so.
    ASSERT_EQ(pgBegin(), 0);
    insert(401);
    EXPECT_EQ(pgExec("SELECT * FROM no_such_table_t"), nullptr);
    EXPECT_EQ(pgCommit(), -1);
    EXPECT_TRUE(logged("Failed to commit transaction; rollback performed"));
    EXPECT_EQ(pgInTransaction(), 0);
    EXPECT_EQ(count("id IN (301, 401)"), "0");
}

TEST_F(PgHelper, ColumnExistsCacheHoldsSixteenAnswersPerConnection)
{
    EXPECT_EQ(pgCECset("backups", "sync_status", 1), -1);  // no connection yet
    ASSERT_EQ(pgOpenLocal(1), 0);
    EXPECT_EQ(pgCECset(nullptr, "c", 1) + pgCECset("t", nullptr, 1) + pgCECset("", "c", 1), -3);
    for (int i = 0; i < PG_CEC_SIZE; ++i)
        EXPECT_EQ(pgCECset("t", ("c" + std::to_string(i)).c_str(), i % 2), 0);
    EXPECT_EQ(pgCECset("t", "one_too_many", 1), -1);
    EXPECT_EQ(pgCECget("t", "one_too_many"), -1);
    EXPECT_EQ(pgCECget("t", "c0"), 0);
    EXPECT_EQ(pgCECget("t", "c15"), 1);
    pgClose();
    ASSERT_EQ(pgOpenLocal(1), 0);
    EXPECT_EQ(pgCECget("t", "c15"), -1) << "the answers die with the connection";
    // Every release since 10 has two parts ("15.x"), which read as 0.
    EXPECT_EQ(pgServerVersion(), 0);
}

} // namespace
