// schema_test: the schema in sql/ as the programs meet it: it loads again
// over itself, its oldest tables are exactly their statements, and its views
// and stored functions answer the group lookups in restore order.
#include "admin/tqsqlQueries.h"
#include "daemon/queueSql.h"
#include "isam/applianceTables.h"
#include "sql_test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

auto* const pgEnv = ::testing::AddGlobalTestEnvironment(new ferrytest::PgClusterEnvironment);

namespace fs = std::filesystem;
using sqltest::column;
using sqltest::exec;
using sqltest::Rows;
using sqltest::rows;
using sqltest::sqlf;
using Strings = std::vector<std::string>;

const std::string kSqlDir = std::string(FERRY_SOURCE_DIR) + "/sql";

// A connection inside a transaction that is rolled back after the test.
class InTransaction : public ::testing::Test {
protected:
    void SetUp() override
    {
        conn_ = sqltest::connect();
        ASSERT_TRUE(conn_);
        c_ = conn_.get();
        ASSERT_TRUE(exec(c_, "BEGIN"));
    }
    void TearDown() override
    {
        if (conn_)
            exec(c_, "ROLLBACK", nullptr, true);
    }
    sqltest::Conn conn_;
    PGconn* c_ = nullptr;
};
using Rules = InTransaction;
using Tables = InTransaction;

// ---------------------------------------------------------------------------
// Loading, and what the schema refuses

TEST(Schema, LoadsAgainOverItselfAndKeepsItsSeedRows)
{
    sqltest::Conn conn = sqltest::connect();
    ASSERT_TRUE(conn);
    const char* seeds =
        "SELECT (SELECT count(*) FROM tq.schema_version) || ',' || (SELECT count(*) FROM tq.state) || ','"
        " || (SELECT count(*) FROM tq.application_lookup) || ',' || (SELECT count(*) FROM tq.operation_names)"
        " || ',' || (SELECT count(*) FROM tq.sync_type) || ',' || (SELECT install_id FROM state)";
    std::string before = column(conn.get(), seeds).at(0);

    std::vector<std::string> files;
    for (const auto& entry : fs::directory_iterator(kSqlDir))
        if (entry.path().extension() == ".sql")
            files.push_back(entry.path().string());
    std::sort(files.begin(), files.end());
    ASSERT_GE(files.size(), 2u);
    EXPECT_EQ(fs::path(files.front()).filename(), "00_version.sql") << "the version file must load first";
    for (const std::string& file : files) {
        std::string output;
        EXPECT_TRUE(ferrytest::pgRunSqlFile(file, &output)) << file << ":\n" << output;
        EXPECT_EQ(output.find("NOTICE"), std::string::npos) << file << " is noisy on reload:\n" << output;
    }
    EXPECT_EQ(column(conn.get(), seeds).at(0), before);
}

// Programs name tables without a schema and do not all set a search path.
TEST(Schema, VersionAgreesWithTheCodeAndTqIsFirstWithoutOptions)
{
    sqltest::Conn conn = sqltest::connect();
    ASSERT_TRUE(conn);
    EXPECT_EQ(column(conn.get(), "SELECT version FROM tq.schema_version"),
              Strings{std::to_string(APPLIANCE_SCHEMA_VERSION)});
    EXPECT_EQ(column(conn.get(), "SHOW search_path"), Strings{"tq, public"});
}

// What the schema refuses, each case on its own against the loaded rows.
TEST_F(Rules, RefusesRowsThatWouldBreakItsReaders)
{
    const char* progress =
        "INSERT INTO tq.operation_progress ( name_id, start_time, snapshot_time, final_size, current_size,"
        " pid_to_kill, on_behalf_of, source, destination, backup_no, backup_type ) VALUES ( (SELECT name_id FROM"
        " tq.operation_names  WHERE name_value = '%s'), 1, 1, 1, 0, 1, 'c', 's', 'd', 42, 'Master' )";
    struct Case {
        std::string sql;
        const char* refusal;  // nullptr: accepted
    } cases[] = {
        {"INSERT INTO tq.state (install_id) VALUES ('another')", "duplicate key"},
        {"INSERT INTO tq.schema_version (version) VALUES (99)", "duplicate key"},
        {"INSERT INTO tq.hash_values (hash_type, hashed_length, hash_value) VALUES ('sha512', 65536, '\\x0102'),"
         " ('sha512', 65536, '\\x0102')",
         "duplicate key"},
        {"INSERT INTO tq.hash_values (hash_type, hashed_length, hash_value) VALUES ('sha512', 65536, '\\x0102'),"
         " ('sha512', 4096, '\\x0102'), ('md5', 65536, '\\x0102')",
         nullptr},
        {sqlf(progress, "processing"), nullptr},
        {sqlf(progress, "no_activity"), nullptr},
        {sqlf(progress, "no_such_operation"), "name_id"},  // a progress row never loses its name
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.sql);
        ASSERT_TRUE(exec(c_, "SAVEPOINT one_case"));
        std::string error;
        EXPECT_EQ(exec(c_, test.sql, &error, true), test.refusal == nullptr) << error;
        if (test.refusal) {
            EXPECT_NE(error.find(test.refusal), std::string::npos) << error;
        }
        ASSERT_TRUE(exec(c_, "ROLLBACK TO SAVEPOINT one_case"));
    }
}

// ---------------------------------------------------------------------------
// The seventeen oldest tables and the queue

TEST_F(Tables, GeneratedFileIsTheStatementsOfTheCode)
{
    std::string path = kSqlDir + "/10_appliance_tables.sql";
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    std::string expected = applianceTablesScript();
    if (text.str() != expected) {
        std::string fresh = std::string(FERRY_BINARY_DIR) + "/10_appliance_tables.sql";
        std::ofstream(fresh, std::ios::binary) << expected;
        FAIL() << path << " differs from applianceTablesScript(); the expected text is in " << fresh
               << ": copy it over the file.";
    }
}

// Columns (name, type, not null) in order, and constraints (kind and
// definition) of a table, as the catalog describes them.
struct TableShape {
    Rows columns;
    std::set<std::string> constraints;
};

TableShape shapeOf(PGconn* conn, const std::string& table)
{
    std::string relation = "'" + table + "'::regclass";
    TableShape shape;
    shape.columns = rows(conn, "SELECT attname, format_type(atttypid, atttypmod), attnotnull::text FROM"
                               " pg_attribute WHERE attrelid = " + relation +
                                   " AND attnum > 0 AND NOT attisdropped ORDER BY attnum");
    for (auto& row : rows(conn, "SELECT contype::text || ' ' || pg_get_constraintdef(oid) FROM pg_constraint WHERE "
                                "conrelid = " + relation))
        shape.constraints.insert(row[0]);
    return shape;
}

// Each loaded table must be what its statement makes, with later columns, if
// any, only behind the original ones.
TEST_F(Tables, SeventeenLoadedTablesAreExactlyTheirStatements)
{
    ASSERT_TRUE(exec(c_, "CREATE SCHEMA expected_shape"));
    ASSERT_TRUE(exec(c_, "SET LOCAL search_path TO expected_shape"));
    std::set<std::string> names, widened;
    std::set<int> fileStrings;
    for (const ApplianceTable& table : applianceTables()) {
        SCOPED_TRACE(table.name);
        names.insert(table.name);
        fileStrings.insert(table.fileNumber);
        EXPECT_EQ(findApplianceTable(table.name), &table);
        ASSERT_TRUE(exec(c_, table.tableDefinition));
        TableShape expected = shapeOf(c_, std::string("expected_shape.") + table.name);
        TableShape loaded = shapeOf(c_, std::string("tq.") + table.name);
        ASSERT_FALSE(expected.columns.empty());
        ASSERT_GE(loaded.columns.size(), expected.columns.size());
        EXPECT_EQ(Rows(loaded.columns.begin(), loaded.columns.begin() + expected.columns.size()), expected.columns);
        for (const std::string& constraint : expected.constraints)
            EXPECT_TRUE(loaded.constraints.count(constraint)) << "missing " << constraint;
        if (loaded.columns.size() > expected.columns.size())
            widened.insert(table.name);
    }
    EXPECT_EQ(names.size(), 17u);
    EXPECT_EQ(fileStrings.size(), 17u);
    EXPECT_EQ(findApplianceTable("replication_queue"), nullptr);
    EXPECT_EQ(findApplianceTable(nullptr), nullptr);
    EXPECT_EQ(widened, (std::set<std::string>{"backups", "devices", "nodes"}));
}

// Deleting a backup must drop its queue rows: the constraints compared
// include the cascading reference.
TEST_F(Tables, ReplicationQueueIsItsCreateStatementPlusRepStart)
{
    ASSERT_TRUE(exec(c_, "ALTER TABLE tq.replication_queue RENAME TO replication_queue_loaded"));
    ASSERT_TRUE(exec(c_, queuesql::kCreateTable));
    TableShape fresh = shapeOf(c_, "tq.replication_queue");
    TableShape loaded = shapeOf(c_, "tq.replication_queue_loaded");
    fresh.columns.push_back({"rep_start", "bigint", "false"});
    EXPECT_EQ(loaded.columns, fresh.columns);
    EXPECT_EQ(loaded.constraints, fresh.constraints);
}

// ---------------------------------------------------------------------------
// Restore and synthesis groups

constexpr long kGood = 0x40 | 0x400 | 0x800;  // finished, local job success
constexpr long kFailed = kGood | 0x1000;
constexpr long kPurged = 4294967295;

// Every chain on its own node or instance, so that all live side by side.
class Groups : public InTransaction {
protected:
    void SetUp() override
    {
        InTransaction::SetUp();
        struct Backup {
            long backupNo, node, instance, type, status, tape = 5;
        };
        const Backup backups[] = {
            // VMware, instance 7 of node 1, with another instance's and another node's backups woven in.
            {100, 1, 7, 12, kGood}, {101, 1, 7, 14, kGood}, {102, 1, 8, 12, kGood}, {103, 1, 7, 13, kGood},
            {104, 1, 7, 14, kGood}, {105, 1, 7, 14, kFailed}, {106, 1, 7, 14, kGood}, {107, 2, 7, 14, kGood},
            {108, 1, 7, 13, kGood},
            {200, 3, 9, 5, kGood}, {201, 3, 9, 7, kGood}, {202, 3, 9, 5, kGood}, {203, 3, 9, 7, kGood},
            {204, 3, 9, 7, kGood},
            {300, 4, 11, 1031, kGood}, {301, 4, 11, 1031, kFailed}, {302, 4, 11, 1033, kGood},
            {400, 5, 12, 4100, kGood}, {401, 5, 12, 4100, kGood},
            {500, 6, 13, 1036, kGood}, {501, 6, 13, 1037, kGood}, {502, 6, 13, 1037, kGood},
            {510, 6, 14, 1034, kGood}, {511, 6, 14, 1035, kGood}, {512, 6, 14, 1035, kGood},
            {600, 7, 15, 1, kGood}, {601, 7, 15, 3, kGood}, {602, 7, 15, 2, kFailed}, {603, 7, 15, 4, kGood},
            {700, 8, 16, 12, kGood}, {701, 8, 16, 14, kFailed}, {710, 8, 17, 12, kGood, kPurged},
            // Synthesis: unfinished, SDS and deleted backups are not successful.
            {800, 9, 17, 1, kGood}, {801, 9, 17, 3, kGood, -1}, {802, 9, 17, 2, kGood}, {803, 9, 17, 3, kFailed},
            {804, 9, 17, 3, 3072}, {805, 9, 17, 3, kGood | 0x200}, {806, 9, 17, 3, kGood},
        };
        for (const Backup& b : backups)
            ASSERT_TRUE(exec(c_, sqlf("INSERT INTO backups (backup_no, node_no, instance_id, type, status, properties,"
                                      " tape_no, exit_code, start_time) VALUES (%ld, %ld, %ld, %ld, %ld, 0, %ld, 0,"
                                      " %ld)",
                                      b.backupNo, b.node, b.instance, b.type, b.status, b.tape, 1000 + b.backupNo)));
    }

    // The lookup as the administration library sends it.
    static std::string restoreGroup(unsigned long backup, const std::vector<int>& types, bool strict)
    {
        std::string filter = sqlf(adminsql::kLooseFilter, 32u, 0UL, 1u, 0xFFFFFFFFu, 64u);
        if (strict)
            filter = sqlf(adminsql::kStrictFilter, filter.c_str(), 36888u);
        if (types.size() == 3)
            return sqlf(adminsql::kRestoreGroup3, backup, types[0], types[1], types[2], filter.c_str());
        if (types.size() == 2)
            return sqlf(adminsql::kRestoreGroup2, backup, types[0], types[1], filter.c_str());
        return sqlf(adminsql::kRestoreGroup1, backup, static_cast<unsigned long>(types.at(0)), filter.c_str());
    }
};

TEST_F(Groups, IncrementalRestoresFromMasterNewestDifferentialAndTheIncrementalsBetween)
{
    std::string good = std::to_string(kGood);
    EXPECT_EQ(rows(c_, restoreGroup(106, {12, 13, 14}, true)), (Rows{{"100", good, "0", "12", "1100"},
                                                                     {"103", good, "0", "13", "1103"},
                                                                     {"104", good, "0", "14", "1104"},
                                                                     {"106", good, "0", "14", "1106"}}));
}

TEST_F(Groups, RestoreGroupsOfEveryFamily)
{
    struct Case {
        const char* what;
        unsigned long backup;
        std::vector<int> types;
        bool strict;
        Strings members;
    } cases[] = {
        {"the loose filter lets a failed incremental through", 106, {12, 13, 14}, false,
         {"100", "103", "104", "105", "106"}},
        {"before any differential the incrementals go back to the master", 101, {12, 13, 14}, true, {"100", "101"}},
        {"a differential needs its master, not the earlier differential", 108, {12, 13, 14}, true, {"100", "108"}},
        {"a master is a group of itself", 100, {12, 13, 14}, true, {"100"}},
        {"a newer master starts a new chain", 204, {5, 6, 7}, true, {"202", "203", "204"}},
        {"a failed master is passed over", 302, {1031, 1032, 1033}, true, {"300", "302"}},
        {"incrementals without a master are their chain alone", 401, {4098, 4099, 4100}, true, {"400", "401"}},
        {"SharePoint: the second type is a differential", 502, {1036, 1037}, true, {"500", "502"}},
        {"Oracle: the second type is an incremental", 512, {1034, 1035}, true, {"510", "511", "512"}},
        {"a file-level differential by its own type, failed but loosely kept", 602, {2}, false, {"600", "602"}},
        {"any other single type stands alone", 603, {4}, false, {"603"}},
        {"an unknown backup", 799, {12, 13, 14}, true, {}},
        {"a backup its filter refuses", 701, {12, 13, 14}, true, {}},
        {"a purged backup", 710, {12, 13, 14}, true, {}},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.what);
        EXPECT_EQ(column(c_, restoreGroup(test.backup, test.types, test.strict)), test.members);
    }
}

TEST_F(Groups, SynthesisGroupThroughSuccessfulBackups)
{
    EXPECT_EQ(column(c_, "SELECT backup_no FROM successful_backups WHERE node_no = 9 ORDER BY backup_no"),
              (Strings{"800", "802", "806"}));
    std::string members = sqlf(adminsql::kSynthGroup, "1,2,3", 9UL, 17UL, 806UL, 0, 2, 2048UL, 0, 1, 2048UL, 2, 1,
                               9UL, 17UL, 806UL, 0, 2, 2048UL, 0, 1, 2048UL, 1, 9UL, 17UL, 806UL);
    EXPECT_EQ(column(c_, members), (Strings{"800", "802", "806"}));
}

// ---------------------------------------------------------------------------
// Hash index, numbers, statistics

TEST_F(Rules, HashesInsertByAntiJoinAndMappingsStartIncomplete)
{
    std::string insertHash =
        "INSERT INTO tq.hash_values (hash_type, hashed_length, hash_value) SELECT hash_type, hashed_length, hash_value"
        " FROM tq.hash_values\nNATURAL RIGHT OUTER JOIN\n (SELECT 'sha512'::text AS hash_type, 65536::bigint AS"
        " hashed_length, '\\x0102'::bytea AS hash_value) AS new_data WHERE (hash_values.hash_type IS NULL)";
    ASSERT_TRUE(exec(c_, insertHash));
    ASSERT_TRUE(exec(c_, insertHash));
    Strings ids = column(c_, "SELECT hash_id FROM tq.hash_values WHERE hash_value = '\\x0102'");
    ASSERT_EQ(ids.size(), 1u) << "the anti-join insert must not add a hash twice";

    ASSERT_TRUE(exec(c_, "INSERT INTO tq.backups_hash_values (backup_no, hash_id, file_offset) VALUES (42, " +
                             ids[0] + ", 0)"));
    EXPECT_EQ(rows(c_, "SELECT hash_incomplete::text, deduplicated IS NULL FROM tq.backups_hash_values WHERE"
                       " backup_no = 42"),
              (Rows{{"true", "t"}}));
    // The orphan search joins the two tables by their one shared column.
    EXPECT_EQ(column(c_, "SELECT hash_id FROM tq.backups_hash_values NATURAL RIGHT OUTER JOIN (SELECT hash_id,"
                         " hashed_length, sis_offset, hash_type, hash_value FROM tq.hash_values WHERE (sis_offset IS"
                         " NULL)) AS nonSISfileHashes WHERE (backup_no IS NULL) AND hash_id = " + ids[0]),
              Strings{});
}

// The import draws instance numbers itself; a file-level instance inserted
// without one must draw from the same sequence, or the two collide.
TEST_F(Rules, InstanceNumbersComeFromOneSequence)
{
    long drawn = std::stol(column(c_, "SELECT nextval('tq.application_instances_instance_id_seq')").at(0));
    ASSERT_TRUE(exec(c_, "INSERT INTO application_instances (node_no, app_id, identity) VALUES (3, 1, 'x')"));
    EXPECT_EQ(column(c_, "SELECT instance_id FROM application_instances WHERE identity = 'x'"),
              Strings{std::to_string(drawn + 1)});
}

TEST_F(Rules, SummaryChartsAddUpPerDayAndOperationBeyond32Bits)
{
    ASSERT_TRUE(exec(c_, "SELECT update_summary_charts('replication', 4294967295, 10, 3, 4)"));
    ASSERT_TRUE(exec(c_, "SELECT update_summary_charts('replication', 1, 20, 5, 6)"));
    ASSERT_TRUE(exec(c_, "SELECT update_summary_charts('backup', 7, 7, 7, 7)"));
    EXPECT_EQ(rows(c_, "SELECT runs, read_size, write_size, read_time, write_time FROM summary_charts WHERE"
                       " chart_date = current_date AND operation = 'replication'"),
              (Rows{{"2", "4294967296", "30", "8", "10"}}));
}

} // namespace
