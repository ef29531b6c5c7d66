// schema_test: the schema in sql/ as the programs meet it: it loads again
// over itself, its oldest tables are exactly their statements, and its views
// and stored functions answer the group lookups in restore order.
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

const std::string kSqlDir = std::string(FERRY_SOURCE_DIR) + "/sql";

std::vector<std::string> sqlFilesInLoadOrder()
{
    std::vector<std::string> files;
    for (const auto& entry : fs::directory_iterator(kSqlDir))
        if (entry.is_regular_file() && entry.path().extension() == ".sql")
            files.push_back(entry.path().string());
    std::sort(files.begin(), files.end());
    return files;
}

std::string slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

// ---------------------------------------------------------------------------
// Loading

TEST(Schema, LoadsAgainOverItselfAndKeepsItsSeedRows)
{
    sqltest::Conn conn = sqltest::connect();
    ASSERT_TRUE(conn);
    const char* counts =
        "SELECT (SELECT count(*) FROM tq.schema_version) || ',' || (SELECT count(*) FROM tq.state) || ','"
        " || (SELECT count(*) FROM tq.application_lookup) || ',' || (SELECT count(*) FROM tq.operation_names)"
        " || ',' || (SELECT count(*) FROM tq.sync_type)";
    std::string before = column(conn.get(), counts).at(0);
    std::string installId = column(conn.get(), "SELECT install_id FROM state").at(0);

    std::vector<std::string> files = sqlFilesInLoadOrder();
    ASSERT_GE(files.size(), 2u);
    EXPECT_EQ(fs::path(files.front()).filename(), "00_version.sql") << "the version file must load first";
    for (const std::string& file : files) {
        std::string output;
        EXPECT_TRUE(ferrytest::pgRunSqlFile(file, &output)) << file << ":\n" << output;
        EXPECT_EQ(output.find("NOTICE"), std::string::npos) << file << " is noisy on reload:\n" << output;
    }

    EXPECT_EQ(column(conn.get(), counts).at(0), before);
    EXPECT_EQ(column(conn.get(), "SELECT install_id FROM state").at(0), installId);
    EXPECT_EQ(installId.size(), 36u);
}

TEST(Schema, VersionAgreesWithTheCode)
{
    sqltest::Conn conn = sqltest::connect();
    ASSERT_TRUE(conn);
    EXPECT_EQ(column(conn.get(), "SELECT version FROM tq.schema_version"),
              std::vector<std::string>{std::to_string(APPLIANCE_SCHEMA_VERSION)});
}

TEST(Schema, SearchPathPutsTqFirstWithoutConnectionOptions)
{
    sqltest::Conn conn = sqltest::connect();
    ASSERT_TRUE(conn);
    EXPECT_EQ(column(conn.get(), "SHOW search_path").at(0), "tq, public");
    EXPECT_EQ(column(conn.get(), "SELECT count(*) FROM backups").at(0), "0");
}

TEST(Schema, SingleRowTablesRefuseASecondRow)
{
    sqltest::Conn conn = sqltest::connect();
    ASSERT_TRUE(conn);
    std::string error;
    EXPECT_FALSE(exec(conn.get(), "INSERT INTO tq.state (install_id) VALUES ('another')", &error, true));
    EXPECT_NE(error.find("duplicate key"), std::string::npos) << error;
    EXPECT_FALSE(exec(conn.get(), "INSERT INTO tq.schema_version (version) VALUES (99)", &error, true));
}

// ---------------------------------------------------------------------------
// The seventeen oldest tables

TEST(ApplianceTables, GeneratedFileIsTheStatementsOfTheCode)
{
    std::string path = kSqlDir + "/10_appliance_tables.sql";
    std::string expected = applianceTablesScript();
    if (slurp(path) != expected) {
        std::string fresh = std::string(FERRY_BINARY_DIR) + "/10_appliance_tables.sql";
        std::ofstream(fresh, std::ios::binary) << expected;
        FAIL() << path << " differs from applianceTablesScript(); the expected text is in " << fresh
               << ": copy it over the file.";
    }
}

TEST(ApplianceTables, SeventeenWithDistinctNamesAndFileNumbers)
{
    std::set<std::string> names;
    std::set<int> numbers;
    for (const ApplianceTable& table : applianceTables()) {
        names.insert(table.name);
        numbers.insert(table.fileNumber);
        EXPECT_EQ(findApplianceTable(table.name), &table);
        EXPECT_EQ(std::string(table.tableDefinition).rfind(std::string("CREATE TABLE ") + table.name + " (", 0), 0u)
            << table.tableDefinition;
    }
    EXPECT_EQ(applianceTables().size(), 17u);
    EXPECT_EQ(names.size(), 17u);
    EXPECT_EQ(numbers.size(), 17u);
    EXPECT_EQ(findApplianceTable("replication_queue"), nullptr);
    EXPECT_EQ(findApplianceTable(nullptr), nullptr);
    EXPECT_EQ(findApplianceTable("pids")->fileNumber, 11);
    EXPECT_EQ(findApplianceTable("backups")->tableDefinition, BACKUPS_CREATE);
}

// Columns (name, type, not null) in order, and constraints (kind and
// definition) of a table, as the catalog describes them.
struct TableShape {
    Rows columns;
    std::set<std::string> constraints;
};

TableShape shapeOf(PGconn* conn, const std::string& schema, const std::string& table)
{
    std::string relation = "'" + schema + "." + table + "'::regclass";
    TableShape shape;
    shape.columns = rows(conn, "SELECT attname, format_type(atttypid, atttypmod), attnotnull::text FROM pg_attribute"
                               " WHERE attrelid = " + relation + " AND attnum > 0 AND NOT attisdropped ORDER BY attnum");
    for (auto& row : rows(conn, "SELECT contype::text || ' ' || pg_get_constraintdef(oid) FROM pg_constraint WHERE conrelid = " +
                                    relation))
        shape.constraints.insert(row[0]);
    return shape;
}

// The loaded table must be what its statement makes, with later columns, if
// any, only behind the original ones.
TEST(ApplianceTables, LoadedTablesAreExactlyTheirStatements)
{
    sqltest::Conn conn = sqltest::connect();
    ASSERT_TRUE(conn);
    PGconn* c = conn.get();
    ASSERT_TRUE(exec(c, "BEGIN"));
    ASSERT_TRUE(exec(c, "CREATE SCHEMA expected_shape"));
    ASSERT_TRUE(exec(c, "SET LOCAL search_path TO expected_shape"));
    std::set<std::string> widened;
    for (const ApplianceTable& table : applianceTables()) {
        SCOPED_TRACE(table.name);
        ASSERT_TRUE(exec(c, table.tableDefinition));
        TableShape expected = shapeOf(c, "expected_shape", table.name);
        TableShape loaded = shapeOf(c, "tq", table.name);
        ASSERT_FALSE(expected.columns.empty());
        ASSERT_GE(loaded.columns.size(), expected.columns.size());
        Rows original(loaded.columns.begin(), loaded.columns.begin() + expected.columns.size());
        EXPECT_EQ(original, expected.columns);
        for (const std::string& constraint : expected.constraints)
            EXPECT_TRUE(loaded.constraints.count(constraint)) << "missing " << constraint;
        if (loaded.columns.size() > expected.columns.size())
            widened.insert(table.name);
    }
    exec(c, "ROLLBACK");
    EXPECT_EQ(widened, (std::set<std::string>{"backups", "devices", "nodes"}));
}

TEST(ApplianceTables, ColumnsThatLaterStatementsNeedAreThere)
{
    sqltest::Conn conn = sqltest::connect();
    ASSERT_TRUE(conn);
    Rows found = rows(conn.get(), "SELECT table_name || '.' || column_name, data_type FROM information_schema.columns"
                                  " WHERE table_schema = 'tq' AND (table_name, column_name) IN (('backups','instance_id'),"
                                  " ('nodes','gcname'), ('nodes','generic_property'), ('nodes','system_id'),"
                                  " ('devices','dedup'), ('devices','is_deleted')) ORDER BY 1");
    EXPECT_EQ(found, (Rows{{"backups.instance_id", "bigint"},
                           {"devices.dedup", "boolean"},
                           {"devices.is_deleted", "boolean"},
                           {"nodes.gcname", "character varying"},
                           {"nodes.generic_property", "bigint"},
                           {"nodes.system_id", "integer"}}));
}

// ---------------------------------------------------------------------------
// The queue table

TEST(ReplicationQueue, IsItsCreateStatementPlusRepStart)
{
    sqltest::Conn conn = sqltest::connect();
    ASSERT_TRUE(conn);
    PGconn* c = conn.get();
    ASSERT_TRUE(exec(c, "BEGIN"));
    ASSERT_TRUE(exec(c, "ALTER TABLE tq.replication_queue RENAME TO replication_queue_loaded"));
    ASSERT_TRUE(exec(c, "CREATE TABLE tq.replication_queue (backup_no BIGINT REFERENCES tq.backups (backup_no) ON "
                        "DELETE CASCADE, vault TEXT, position SERIAL, status INTEGER)"));
    TableShape fresh = shapeOf(c, "tq", "replication_queue");
    TableShape loaded = shapeOf(c, "tq", "replication_queue_loaded");
    exec(c, "ROLLBACK");
    Rows expected = fresh.columns;
    expected.push_back({"rep_start", "bigint", "false"});
    EXPECT_EQ(loaded.columns, expected);
    EXPECT_EQ(loaded.constraints, fresh.constraints);
}

TEST(ReplicationQueue, DeletingABackupDropsItsRows)
{
    sqltest::Conn conn = sqltest::connect();
    ASSERT_TRUE(conn);
    PGconn* c = conn.get();
    ASSERT_TRUE(exec(c, "BEGIN"));
    ASSERT_TRUE(exec(c, "INSERT INTO backups (backup_no, type) VALUES (9001, 1), (9002, 1)"));
    ASSERT_TRUE(exec(c, "INSERT INTO replication_queue (backup_no, vault, status) VALUES (9001, 'v1', 1),"
                        " (9001, 'v2', 1), (9002, 'v1', 1)"));
    Rows positions = rows(c, "SELECT position FROM replication_queue WHERE backup_no IN (9001, 9002) ORDER BY position");
    ASSERT_EQ(positions.size(), 3u);
    EXPECT_LT(std::stol(positions[0][0]), std::stol(positions[2][0]));
    ASSERT_TRUE(exec(c, "DELETE FROM backups WHERE backup_no = 9001"));
    EXPECT_EQ(column(c, "SELECT backup_no FROM replication_queue WHERE backup_no IN (9001, 9002)"),
              std::vector<std::string>{"9002"});
    exec(c, "ROLLBACK");
}

// ---------------------------------------------------------------------------
// Restore groups

// A backup row: number, node, instance, type, status.
struct BackupRow {
    long backupNo;
    int node;
    long instance;
    int type;
    long status;
};

constexpr long kGood = 0x40 | 0x400 | 0x800;  // finished, local job success
constexpr long kFailed = kGood | 0x1000;

class RestoreGroup : public ::testing::Test {
protected:
    void SetUp() override
    {
        conn_ = sqltest::connect();
        ASSERT_TRUE(conn_);
        ASSERT_TRUE(exec(conn_.get(), "BEGIN"));
    }
    void TearDown() override
    {
        if (conn_)
            exec(conn_.get(), "ROLLBACK", nullptr, true);
    }

    void insert(const std::vector<BackupRow>& backups)
    {
        for (const BackupRow& b : backups)
            ASSERT_TRUE(exec(conn_.get(), sqlf("INSERT INTO backups (backup_no, node_no, instance_id, type, status,"
                                               " properties, tape_no, exit_code, start_time) VALUES (%ld, %d, %ld, %d,"
                                               " %ld, 0, 5, 0, %ld)",
                                               b.backupNo, b.node, b.instance, b.type, b.status, 1000 + b.backupNo)));
    }

    // The group as the lookup asks for it, numbers in the order returned.
    std::vector<std::string> group(const std::string& statement)
    {
        return column(conn_.get(), statement);
    }

    sqltest::Conn conn_;
};

// The filters and statements of the lookup, with its own formats.
std::string looseFilter()
{
    return sqlf(" (properties & %u) = %lu AND (properties & %u) = 0 AND tape_no != %u AND (status & %u) > 0", 32u,
                0UL, 1u, 0xFFFFFFFFu, 64u);
}
std::string strictFilter()
{
    return sqlf("%s AND (status & %u) = 0", looseFilter().c_str(), 36888u);
}
std::string familyOfThree(unsigned long backup, int full, int differential, int incremental, const std::string& filter)
{
    return sqlf("SELECT * FROM tq.tqGetRestoreGroupOptimized(%lu, '{%d,%d,%d}','%s')", backup, full, differential,
                incremental, filter.c_str());
}
std::string familyOfTwo(unsigned long backup, int full, int second)
{
    return sqlf("SELECT * FROM tq.tqGetRestoreGroupOptimized(%lu, '{%d,%d}','%s')", backup, full, second,
                strictFilter().c_str());
}
std::string ownType(unsigned long backup, unsigned long type)
{
    return sqlf("SELECT * FROM tq.tqGetRestoreGroupOptimized(%lu, '{%lu}','%s')", backup, type, looseFilter().c_str());
}

// A VMware chain of instance 7 on node 1, with another instance's and another
// node's backups woven in.
TEST_F(RestoreGroup, IncrementalNeedsMasterNewestDifferentialAndTheIncrementalsBetween)
{
    insert({{100, 1, 7, 12, kGood},
            {101, 1, 7, 14, kGood},
            {102, 1, 8, 12, kGood},
            {103, 1, 7, 13, kGood},
            {104, 1, 7, 14, kGood},
            {105, 1, 7, 14, kFailed},
            {106, 1, 7, 14, kGood},
            {107, 2, 7, 14, kGood},
            {108, 1, 7, 13, kGood}});
    Rows members = rows(conn_.get(), familyOfThree(106, 12, 13, 14, strictFilter()));
    EXPECT_EQ(members, (Rows{{"100", std::to_string(kGood), "0", "12", "1100"},
                             {"103", std::to_string(kGood), "0", "13", "1103"},
                             {"104", std::to_string(kGood), "0", "14", "1104"},
                             {"106", std::to_string(kGood), "0", "14", "1106"}}));
    // The loose filter lets a failed incremental through.
    EXPECT_EQ(group(familyOfThree(106, 12, 13, 14, looseFilter())),
              (std::vector<std::string>{"100", "103", "104", "105", "106"}));
    // Before any differential the incrementals go back to the master.
    EXPECT_EQ(group(familyOfThree(101, 12, 13, 14, strictFilter())), (std::vector<std::string>{"100", "101"}));
    // A differential needs its master only, not the earlier differential.
    EXPECT_EQ(group(familyOfThree(108, 12, 13, 14, strictFilter())), (std::vector<std::string>{"100", "108"}));
    EXPECT_EQ(group(familyOfThree(103, 12, 13, 14, strictFilter())), (std::vector<std::string>{"100", "103"}));
    // A master is a group of itself.
    EXPECT_EQ(group(familyOfThree(100, 12, 13, 14, strictFilter())), (std::vector<std::string>{"100"}));
}

TEST_F(RestoreGroup, NewerMasterStartsANewChain)
{
    insert({{200, 3, 9, 5, kGood}, {201, 3, 9, 7, kGood}, {202, 3, 9, 5, kGood}, {203, 3, 9, 7, kGood},
            {204, 3, 9, 7, kGood}});
    EXPECT_EQ(group(familyOfThree(204, 5, 6, 7, strictFilter())), (std::vector<std::string>{"202", "203", "204"}));
}

TEST_F(RestoreGroup, FailedMasterIsPassedOverByTheStrictFilter)
{
    insert({{300, 4, 11, 1031, kGood}, {301, 4, 11, 1031, kFailed}, {302, 4, 11, 1033, kGood}});
    EXPECT_EQ(group(familyOfThree(302, 1031, 1032, 1033, strictFilter())), (std::vector<std::string>{"300", "302"}));
}

TEST_F(RestoreGroup, IncrementalWithoutMasterIsItsChainAlone)
{
    insert({{400, 5, 12, 4100, kGood}, {401, 5, 12, 4100, kGood}});
    EXPECT_EQ(group(familyOfThree(401, 4098, 4099, 4100, strictFilter())), (std::vector<std::string>{"400", "401"}));
}

TEST_F(RestoreGroup, TwoMemberFamilies)
{
    // SharePoint: the second member is a differential.
    insert({{500, 6, 13, 1036, kGood}, {501, 6, 13, 1037, kGood}, {502, 6, 13, 1037, kGood}});
    EXPECT_EQ(group(familyOfTwo(502, 1036, 1037)), (std::vector<std::string>{"500", "502"}));
    // Oracle: the second member is an incremental.
    insert({{510, 6, 14, 1034, kGood}, {511, 6, 14, 1035, kGood}, {512, 6, 14, 1035, kGood}});
    EXPECT_EQ(group(familyOfTwo(512, 1034, 1035)), (std::vector<std::string>{"510", "511", "512"}));
}

TEST_F(RestoreGroup, FileLevelBackupsByTheirOwnType)
{
    insert({{600, 7, 15, 1, kGood}, {601, 7, 15, 3, kGood}, {602, 7, 15, 2, kFailed}, {603, 7, 15, 4, kGood}});
    // A differential is asked for with its type alone and still gets its master;
    // the loose filter keeps a failed one, which may be restored as far as it got.
    EXPECT_EQ(group(ownType(602, 2)), (std::vector<std::string>{"600", "602"}));
    EXPECT_EQ(group(ownType(600, 1)), (std::vector<std::string>{"600"}));
    EXPECT_EQ(group(ownType(603, 4)), (std::vector<std::string>{"603"}));
}

TEST_F(RestoreGroup, UnknownOrFilteredBackupGivesNoRows)
{
    insert({{700, 8, 16, 12, kGood}, {701, 8, 16, 14, kFailed}});
    EXPECT_TRUE(group(familyOfThree(799, 12, 13, 14, strictFilter())).empty());
    EXPECT_TRUE(group(familyOfThree(701, 12, 13, 14, strictFilter())).empty());
    ASSERT_TRUE(exec(conn_.get(), "UPDATE backups SET tape_no = 4294967295 WHERE backup_no = 700"));
    EXPECT_TRUE(group(familyOfThree(700, 12, 13, 14, strictFilter())).empty());
}

TEST_F(RestoreGroup, SynthesisGroupThroughSuccessfulBackups)
{
    insert({{800, 9, 17, 1, kGood},
            {801, 9, 17, 3, kGood},
            {802, 9, 17, 2, kGood},
            {803, 9, 17, 3, kFailed},
            {804, 9, 17, 3, kGood},
            {805, 9, 17, 3, kGood | 0x200},
            {806, 9, 17, 3, kGood}});
    ASSERT_TRUE(exec(conn_.get(), "UPDATE backups SET status = 3072 WHERE backup_no = 804"));
    ASSERT_TRUE(exec(conn_.get(), "UPDATE backups SET tape_no = -1 WHERE backup_no = 801"));
    EXPECT_EQ(column(conn_.get(), "SELECT backup_no FROM successful_backups WHERE node_no = 9 ORDER BY backup_no"),
              (std::vector<std::string>{"800", "802", "806"}));

    std::string members = sqlf(
        "SELECT backup_no FROM successful_backups WHERE type IN(%s) AND node_no=%lu AND instance_id=%lu AND backup_no"
        " <= %lu AND (CASE WHEN %d=1 THEN type != %d OR (properties & %lu) = 0 ELSE 1=1 END) AND (CASE WHEN %d=1"
        " THEN type != %d OR (properties & %lu) = 0 ELSE 1=1 END) AND ((backup_no >= COALESCE((SELECT backup_no FROM"
        " successful_backups WHERE type IN(%d,%d) AND node_no=%lu AND instance_id=%lu AND backup_no <= %lu AND (CASE"
        " WHEN %d=1 THEN type != %d OR (properties & %lu) = 0 ELSE 1=1 END) AND (CASE WHEN %d=1 THEN type != %d OR"
        " (properties & %lu) = 0 ELSE 1=1 END) ORDER BY backup_no DESC LIMIT 1), 0)) OR (backup_no = (SELECT"
        " backup_no FROM successful_backups WHERE type=%d AND node_no=%lu AND instance_id=%lu AND backup_no <= %lu"
        " ORDER BY backup_no DESC LIMIT 1))) ORDER BY backup_no",
        "1,2,3", 9UL, 17UL, 806UL, 0, 2, 2048UL, 0, 1, 2048UL, 2, 1, 9UL, 17UL, 806UL, 0, 2, 2048UL, 0, 1, 2048UL, 1,
        9UL, 17UL, 806UL);
    EXPECT_EQ(column(conn_.get(), members), (std::vector<std::string>{"800", "802", "806"}));
}

// ---------------------------------------------------------------------------
// Hash index, sequences, statistics

TEST(HashTables, MappingsStartIncompleteAndHashesAreUniqueByTheirTriple)
{
    sqltest::Conn conn = sqltest::connect();
    ASSERT_TRUE(conn);
    PGconn* c = conn.get();
    ASSERT_TRUE(exec(c, "BEGIN"));
    std::string insertHash =
        "INSERT INTO tq.hash_values (hash_type, hashed_length, hash_value) SELECT hash_type, hashed_length, hash_value"
        " FROM tq.hash_values\nNATURAL RIGHT OUTER JOIN\n (SELECT 'sha512'::text AS hash_type, 65536::bigint AS"
        " hashed_length, '\\x0102'::bytea AS hash_value) AS new_data WHERE (hash_values.hash_type IS NULL)";
    ASSERT_TRUE(exec(c, insertHash));
    ASSERT_TRUE(exec(c, insertHash));
    std::vector<std::string> ids = column(c, "SELECT hash_id FROM tq.hash_values WHERE hash_value = '\\x0102'");
    ASSERT_EQ(ids.size(), 1u) << "the anti-join insert must not add a hash twice";
    ASSERT_TRUE(exec(c, "SAVEPOINT before_duplicate"));
    std::string error;
    EXPECT_FALSE(exec(c, "INSERT INTO tq.hash_values (hash_type, hashed_length, hash_value) VALUES ('sha512', 65536,"
                         " '\\x0102')", &error, true));
    EXPECT_NE(error.find("duplicate key"), std::string::npos) << error;
    ASSERT_TRUE(exec(c, "ROLLBACK TO SAVEPOINT before_duplicate"));

    ASSERT_TRUE(exec(c, "INSERT INTO tq.backups_hash_values (backup_no, hash_id, file_offset) VALUES (42, " + ids[0] +
                            ", 0)"));
    EXPECT_EQ(rows(c, "SELECT hash_incomplete::text, deduplicated IS NULL FROM tq.backups_hash_values WHERE"
                      " backup_no = 42"),
              (Rows{{"true", "t"}}));
    // The orphan search joins the two tables by their one shared column.
    EXPECT_TRUE(rows(c, "SELECT hash_id, backup_no FROM tq.backups_hash_values NATURAL RIGHT OUTER JOIN (SELECT"
                        " hash_id, hashed_length, sis_offset, hash_type, hash_value FROM tq.hash_values WHERE"
                        " (sis_offset IS NULL)) AS nonSISfileHashes WHERE (backup_no IS NULL) AND hash_id = " +
                        ids[0])
                    .empty());
    exec(c, "ROLLBACK");
}

TEST(Sequences, ImportNumbersComeFromTheirSequences)
{
    sqltest::Conn conn = sqltest::connect();
    ASSERT_TRUE(conn);
    PGconn* c = conn.get();
    ASSERT_TRUE(exec(c, "BEGIN"));
    for (const char* sequence : {"tq.nodes_node_no_seq", "tq.nodes_gclient_seq", "tq.backups_backup_no_seq",
                                 "tq.filesets_fileset_no_seq", "tq.jobs_job_no_seq",
                                 "tq.application_instances_instance_id_seq", "tq.replication_queue_position_seq"}) {
        Rows first = rows(c, std::string("SELECT nextval('") + sequence + "')");
        Rows second = rows(c, std::string("SELECT nextval('") + sequence + "')");
        ASSERT_EQ(first.size(), 1u) << sequence;
        ASSERT_EQ(second.size(), 1u) << sequence;
        EXPECT_EQ(std::stol(second[0][0]), std::stol(first[0][0]) + 1) << sequence;
    }
    // A file-level instance inserted without a number draws one.
    long drawn = std::stol(column(c, "SELECT nextval('tq.application_instances_instance_id_seq')").at(0));
    ASSERT_TRUE(exec(c, "INSERT INTO application_instances (node_no, app_id, identity) VALUES (3, 1, 'x')"));
    EXPECT_EQ(std::stol(column(c, "SELECT instance_id FROM application_instances WHERE identity = 'x'").at(0)),
              drawn + 1);
    exec(c, "ROLLBACK");
}

TEST(Statistics, SummaryChartsAddUpPerDayAndOperation)
{
    sqltest::Conn conn = sqltest::connect();
    ASSERT_TRUE(conn);
    PGconn* c = conn.get();
    ASSERT_TRUE(exec(c, "BEGIN"));
    ASSERT_TRUE(exec(c, "SELECT update_summary_charts('replication', 4294967295, 10, 3, 4)"));
    ASSERT_TRUE(exec(c, "SELECT update_summary_charts('replication', 1, 20, 5, 6)"));
    ASSERT_TRUE(exec(c, "SELECT update_summary_charts('backup', 7, 7, 7, 7)"));
    EXPECT_EQ(rows(c, "SELECT runs, read_size, write_size, read_time, write_time FROM summary_charts WHERE"
                      " chart_date = current_date AND operation = 'replication'"),
              (Rows{{"2", "4294967296", "30", "8", "10"}}));
    exec(c, "ROLLBACK");
}

TEST(Statistics, ProgressRowNeedsAKnownOperationName)
{
    sqltest::Conn conn = sqltest::connect();
    ASSERT_TRUE(conn);
    PGconn* c = conn.get();
    const char* insert =
        "INSERT INTO tq.operation_progress ( name_id, start_time, snapshot_time, final_size, current_size,"
        " pid_to_kill, on_behalf_of, source, destination, backup_no, backup_type ) VALUES ( (SELECT name_id FROM"
        " tq.operation_names  WHERE name_value = '%s'), 1, 1, 1, 0, 1, 'c', 's', 'd', 42, 'Master' )";
    ASSERT_TRUE(exec(c, "BEGIN"));
    EXPECT_TRUE(exec(c, sqlf(insert, "processing")));
    EXPECT_TRUE(exec(c, sqlf(insert, "no_activity")));
    ASSERT_TRUE(exec(c, "SAVEPOINT known"));
    std::string error;
    EXPECT_FALSE(exec(c, sqlf(insert, "no_such_operation"), &error, true));
    EXPECT_NE(error.find("name_id"), std::string::npos) << error;
    exec(c, "ROLLBACK");
}

} // namespace
