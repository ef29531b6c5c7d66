// statements_test: every SQL statement the programs send, filled with sample
// values, must be accepted by the schema in sql/. A statement that names a
// missing table, column, sequence or function fails here, by name, before any
// program meets it on an appliance.
//
// ferryd's own statements are built below from their format constants, so the
// two cannot drift. The statements of the other programs are quoted in
// quoted_statements.sql (its header describes the format): add one there.
#include "sql_test_support.h"

#include "admin/tqsqlQueries.h"
#include "daemon/queueSql.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

auto* const pgEnv = ::testing::AddGlobalTestEnvironment(new ferrytest::PgClusterEnvironment);

using sqltest::sqlf;

// One statement: a name for the test, its text, and the words of the
// server's refusal when it must be refused ("" when it must be accepted).
struct Statement {
    std::string name;
    std::string sql;
    std::string refusal = {};
};

void PrintTo(const Statement& statement, std::ostream* out)
{
    *out << statement.name;
}

constexpr const char* kQueue = "tq.replication_queue";

std::vector<Statement> codeStatements()
{
    // The filters of the restore-group lookup: same kind of client, not SDS,
    // not purged, finished; the strict one also not failed.
    std::string loose = sqlf(adminsql::kLooseFilter, 32u, 0UL, 1u, 0xFFFFFFFFu, 64u);
    std::string strict = sqlf(adminsql::kStrictFilter, loose.c_str(), 36888u);
    using namespace queuesql;
    using namespace adminsql;
    return {
        {"queue_insert_row_sync_status", sqlf(kMarkSyncNeeded, 1, 42UL, 1)},
        {"queue_insert_row", sqlf(kInsertRow, kQueue, 42UL, "vault1", 1)},
        {"queue_get_status", sqlf(kGetStatus, kQueue, 42UL, "vault1")},
        {"queue_set_status", sqlf(kSetStatus, kQueue, 16u, 42UL, "vault1")},
        {"queue_complete_entry", sqlf(kSetStatusTrailing, kQueue, 2, 42UL, "vault1")},
        {"queue_remove_entry", sqlf(kRemoveEntry, kQueue, 42UL, "vault1")},
        {"queue_reset_in_progress", sqlf(kResetInProgress, kQueue, 1, 16)},
        {"queue_peek", sqlf(kPeek, kQueue, 1, 3)},
        {"queue_list_terminated", sqlf(kListTerminated, kQueue, 32, 16u)},
        {"queue_get_replication_status", sqlf(kGetReplicationStatus, 42ULL)},
        {"queue_dequeue_select", sqlf(kDequeueSelect, 1, -1, 208)},
        {"queue_dequeue_update", sqlf(kDequeueUpdate, kQueue, 16, 1700000000ULL, 42L, "vault1")},
        {"queue_enqueue_type", sqlf(kBackupType, 42UL)},
        {"queue_fifo_candidates", sqlf(kFifoCandidates, 1, 2048, 2048, 80, 2048, 2048, 512, 1u, 12u, 1031u)},
        {"queue_fifo_out_of_order", sqlf(kFifoNewerQueued, 42L, "vault1", 42L)},
        {"queue_clear_sync_needed", sqlf(kClearSyncNeeded, 1, 42)},
        {"queue_set_sync_done", sqlf(kSetSyncDone, 2, 42)},
        {"queue_lifo_instances", kLifoInstances},
        {"queue_lifo_newest", sqlf(kLifoNewest, 7ULL, 512, 512, 7ULL, 512, 512, 512, 7ULL)},
        {"queue_lifo_prior_marked", sqlf(kLifoSyntheticWaiting, 42L, 2048, 2048, 80, 1, 1, 42L)},
        {"queue_lifo_candidate_full", sqlf(kLifoSyntheticFull, 42L, 2048, 2048, 512, 1u, 12u, 1031u, 1, 1)},
        {"queue_prune_clear_sync", sqlf(kPruneClearSync, 1, 42, 42, 1, "vault1", 1024, 42, 42, 1024)},
        {"queue_prune_delete", sqlf(kPruneDelete, 42, 42, 1, "vault1", 1)},
        {"queue_swap", sqlf(kSwap, kQueue, 42UL, "vault1", kQueue, 43UL, "vault1", 43UL, "vault1", kQueue, 42UL,
                            "vault1", 42UL, 43UL)},
        {"queue_swap_vaults", sqlf(kSwapVaults, kQueue, "vault1", kQueue, 42UL, "vault2", "vault2", kQueue, 42UL,
                                   "vault1", 42UL, "vault1", "vault2")},
        {"queue_repair_backup", sqlf(kRepairBackupInfo, 42ULL)},
        {"queue_repair_later_complete", sqlf(kRepairLaterComplete, 7UL, 1700000000UL, 2)},
        {"queue_repair_later_rows", sqlf(kRepairLaterRows, 7UL, 1700000000UL)},
        {"queue_repair_delete", sqlf(kRepairDelete, 43ULL)},
        {"queue_repair_status", sqlf(kRepairReset, 1, 42ULL)},
        {"groups_synthesis_backup", sqlf(kSynthBackupAttributes, 42UL)},
        {"groups_synthesis_members", sqlf(kSynthGroup, "1,2,3", 3UL, 7UL, 42UL, 0, 2, 2048UL, 0, 1, 2048UL, 2, 1, 3UL,
                                          7UL, 42UL, 0, 2, 2048UL, 0, 1, 2048UL, 1, 3UL, 7UL, 42UL)},
        {"groups_restore_backup", sqlf(kRestoreBackupAttributes, 42UL)},
        {"groups_restore_sql_file_group", sqlf(kSqlFileGroup, kRestoreFields, 42UL, 9u, 9u, 10u, strict.c_str())},
        {"groups_restore_family_of_three", sqlf(kRestoreGroup3, 42UL, 12, 13, 14, strict.c_str())},
        {"groups_restore_family_of_two", sqlf(kRestoreGroup2, 42UL, 1034, 1035, strict.c_str())},
        {"groups_restore_own_type", sqlf(kRestoreGroup1, 42UL, 1UL, loose.c_str())},
        {"groups_application_info", sqlf(kApplicationInfo, 42UL)},
        {"groups_is_encrypted", sqlf(kIsEncrypted, 0x100UL, 42)},
        {"groups_instance_name", sqlf(kInstanceName, 7UL)},
        {"groups_column_exists", sqlf(kColumnExists, "$1", "$2")},
    };
}

const std::string kQuotedFile = std::string(FERRY_SOURCE_DIR) + "/tests/sql/quoted_statements.sql";

// The entries of a quoted-statements text; the first fault found goes to
// `error` and stops the reading. (A name used twice or not fit for a test
// name is refused by the test framework itself.)
std::vector<Statement> parseQuoted(std::istream& in, std::string* error)
{
    const std::string namePrefix = "-- name: ", refusedMark = " refused: ";
    std::vector<Statement> entries;
    std::string line;
    auto fault = [&](int number, const std::string& what) {
        *error = "line " + std::to_string(number) + ": " + what;
        return std::vector<Statement>{};
    };
    int number = 1;
    for (; std::getline(in, line); ++number) {
        if (line.rfind(namePrefix, 0) == 0) {
            if (!entries.empty() && entries.back().sql.empty())
                return fault(number, "entry " + entries.back().name + " has no statement");
            std::string rest = line.substr(namePrefix.size());
            size_t mark = rest.find(refusedMark);
            entries.push_back({rest.substr(0, mark), "",
                               mark == std::string::npos ? "" : rest.substr(mark + refusedMark.size())});
        } else if (line.rfind("--", 0) != 0 && line.find_first_not_of(" \t") != std::string::npos) {
            if (entries.empty())
                return fault(number, "statement text before the first entry");
            entries.back().sql += (entries.back().sql.empty() ? "" : "\n") + line;
        }
    }
    if (!entries.empty() && entries.back().sql.empty())
        return fault(number, "entry " + entries.back().name + " has no statement");
    return entries;
}

std::vector<Statement> quotedStatements(std::string* error)
{
    std::ifstream in(kQuotedFile);
    if (!in) {
        *error = "cannot read " + kQuotedFile;
        return {};
    }
    return parseQuoted(in, error);
}

// What the server says of `sql`: "" when it accepts it, else its message.
// SELECT, INSERT, UPDATE and DELETE are prepared, not run; anything else is
// run in a transaction that is rolled back.
std::string serverVerdict(PGconn* conn, const std::string& sql)
{
    bool preparable = false;
    for (const char* start : {"SELECT", "INSERT", "UPDATE", "DELETE", "("})
        preparable = preparable || sql.rfind(start, 0) == 0;
    if (preparable) {
        sqltest::Result res(PQprepare(conn, "", sql.c_str(), 0, nullptr));
        return PQresultStatus(res.get()) == PGRES_COMMAND_OK ? "" : PQerrorMessage(conn);
    }
    std::string error;
    sqltest::exec(conn, "BEGIN");
    sqltest::exec(conn, sql, &error, true);
    sqltest::exec(conn, "ROLLBACK", nullptr, true);
    return error;
}

class StatementTest : public ::testing::TestWithParam<Statement> {};

TEST_P(StatementTest, AcceptedOrRefusedAsStated)
{
    const Statement& statement = GetParam();
    sqltest::Conn conn = sqltest::connect();
    ASSERT_TRUE(conn);
    std::string verdict = serverVerdict(conn.get(), statement.sql);
    if (statement.refusal.empty())
        EXPECT_EQ(verdict, "") << "statement: " << statement.sql;
    else
        EXPECT_NE(verdict.find(statement.refusal), std::string::npos)
            << "expected a refusal; the server said \"" << verdict << "\" to: " << statement.sql;
}

std::string paramName(const ::testing::TestParamInfo<Statement>& info)
{
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Code, StatementTest, ::testing::ValuesIn(codeStatements()), paramName);
INSTANTIATE_TEST_SUITE_P(Quoted, StatementTest, ::testing::ValuesIn([] {
                             std::string ignored;  // reported by QuotedFile.ReadsWhole
                             return quotedStatements(&ignored);
                         }()),
                         paramName);

TEST(QuotedFile, ReadsWhole)
{
    std::string error;
    std::vector<Statement> entries = quotedStatements(&error);
    EXPECT_EQ(error, "");
    EXPECT_GT(entries.size(), 100u);

    // An editing slip must stop the reading, not lose entries silently.
    for (const char* bad : {"SELECT 1\n-- name: a\nSELECT 1\n", "-- name: a\n-- name: b\nSELECT 1\n",
                            "-- name: a\nSELECT 1\n-- name: b\n"}) {
        std::istringstream in(bad);
        std::string why;
        EXPECT_TRUE(parseQuoted(in, &why).empty() && !why.empty()) << bad;
    }
}

// The check itself must catch what it is for, by either way of asking.
TEST(StatementCheck, RefusesMissingNames)
{
    sqltest::Conn conn = sqltest::connect();
    ASSERT_TRUE(conn);
    for (const char* sql : {"SELECT no_such_column FROM tq.backups", "SELECT nextval('tq.no_such_seq')",
                            "LOCK TABLE tq.no_such_table IN SHARE ROW EXCLUSIVE MODE",
                            "DECLARE c CURSOR FOR SELECT no_such_column FROM tq.backups"})
        EXPECT_NE(serverVerdict(conn.get(), sql).find("no_such"), std::string::npos) << sql;
}

} // namespace
