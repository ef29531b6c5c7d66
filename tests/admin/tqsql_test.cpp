// The backup group lookups against a populated appliance: which backups a
// restore needs for each family, the refusals, the application details of
// the entries, and the small services beside them.
#include "admin/tqsql.h"
#include "foundation/logger.h"
#include "harness/appliance_fixture.h"
#include "harness/pg_cluster.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace ferrytest;

namespace {

auto* const pgEnv = ::testing::AddGlobalTestEnvironment(new PgClusterEnvironment);

struct Synthesis {
    int rc = 0;
    std::vector<int64_t> members;
    std::string text;
    int count = -1;
};

Synthesis synthesisGroup(int64_t backup, int ignoreDiffs = 0, int ignoreMasters = 0)
{
    Synthesis out;
    uint32_t* list = reinterpret_cast<uint32_t*>(1);  // must be cleared on failure
    char* text = reinterpret_cast<char*>(1);
    out.rc = tqGetSynthesisGroup(static_cast<uint64_t>(backup), ignoreDiffs, ignoreMasters, &list, &out.count, &text);
    for (int i = 0; list != nullptr && i < out.count; ++i)
        out.members.push_back(list[i]);
    if (out.rc != 0) {
        EXPECT_EQ(list, nullptr);
        EXPECT_EQ(text, nullptr);
        EXPECT_EQ(out.count, 0);
    }
    out.text = text ? text : "";
    free(list);
    free(text);
    return out;
}

struct Restore {
    int rc = 0;
    std::vector<restoreGroupEntry> entries;
    std::vector<int64_t> members;
};

Restore restoreGroup(int64_t backup)
{
    Restore out;
    restoreGroupEntry* list = nullptr;
    size_t count = 99;
    out.rc = tqGetRestoreGroupOptimized(static_cast<uint64_t>(backup), &list, &count);
    if (out.rc != 0) {
        EXPECT_EQ(list, nullptr);
        EXPECT_EQ(count, 0u);
    }
    for (size_t i = 0; i < count && list != nullptr; ++i) {
        out.entries.push_back(list[i]);
        out.members.push_back(list[i].backup_no);
    }
    free(list);
    return out;
}

using Numbers = std::vector<int64_t>;

class GroupTest : public ::testing::Test {
protected:
    void SetUp() override { a_ = populateAppliance(db_); }

    void setProperties(int64_t backup, const std::string& expr)
    {
        db_.exec("UPDATE tq.backups SET properties = " + expr + " WHERE backup_no = " + std::to_string(backup));
    }
    void setStatus(int64_t backup, uint64_t status)
    {
        db_.exec("UPDATE tq.backups SET status = " + std::to_string(status) +
                 " WHERE backup_no = " + std::to_string(backup));
    }

    ApplianceDb db_;
    Appliance a_;
};

TEST_F(GroupTest, SynthesisGroupGoesBackToTheNewestDifferentialAndTheFull)
{
    Synthesis g = synthesisGroup(a_.files.incr3);
    ASSERT_EQ(g.rc, 0) << tqGetLastError();
    EXPECT_EQ(g.members, (Numbers{a_.files.master, a_.files.diff2, a_.files.incr3}));
    EXPECT_EQ(g.text, std::to_string(a_.files.master) + "," + std::to_string(a_.files.diff2) + "," +
                          std::to_string(a_.files.incr3));

    EXPECT_EQ(synthesisGroup(a_.files.incr2).members,
              (Numbers{a_.files.master, a_.files.diff1, a_.files.incr1, a_.files.incr2}));
    EXPECT_EQ(synthesisGroup(a_.files.diff1).members, (Numbers{a_.files.master, a_.files.diff1}));
    // The purged older master is not successful: the group starts at the live one.
    EXPECT_EQ(synthesisGroup(a_.files.master).members, (Numbers{a_.files.master}));
}

TEST_F(GroupTest, SynthesisOutputsAreOptional)
{
    char* text = nullptr;
    ASSERT_EQ(tqGetSynthesisGroup(a_.files.incr1, 0, 0, nullptr, nullptr, &text), 0);
    EXPECT_EQ(std::string(text), std::to_string(a_.files.master) + "," + std::to_string(a_.files.diff1) + "," +
                                     std::to_string(a_.files.incr1));
    free(text);
    int count = 0;
    ASSERT_EQ(tqGetSynthesisGroup(a_.files.incr1, 0, 0, nullptr, &count, nullptr), 0);
    EXPECT_EQ(count, 3);
}

TEST_F(GroupTest, SyntheticMembersCanBeLeftOut)
{
    // diff2 was made by synthesis: without synthetic differentials the
    // incremental's group reaches back to diff1.
    setProperties(a_.files.diff2, "properties | 2048");
    EXPECT_EQ(synthesisGroup(a_.files.incr3, 1, 0).members,
              (Numbers{a_.files.master, a_.files.diff1, a_.files.incr1, a_.files.incr2, a_.files.incr3}));
    EXPECT_EQ(synthesisGroup(a_.files.incr3, 0, 0).members, (Numbers{a_.files.master, a_.files.diff2,
                                                                    a_.files.incr3}));

    // A synthetic master left out of its own group: empty, and no failure.
    setProperties(a_.files.master, "properties | 2048");
    Synthesis g = synthesisGroup(a_.files.master, 0, 1);
    EXPECT_EQ(g.rc, 0) << tqGetLastError();
    EXPECT_TRUE(g.members.empty());
    EXPECT_EQ(g.count, 0);
}

TEST_F(GroupTest, SynthesisRefusals)
{
    struct Case {
        int64_t backup;
        std::string error;
    };
    setStatus(a_.files.incr2, kStatusFailed);
    setProperties(a_.files.incr1, "1024");  // no synthesis capability
    setStatus(a_.files.diff2, 0x200);       // still running
    std::vector<Case> cases = {
        {a_.files.incr2, "Input backup was not successful."},
        {a_.files.diff2, "Input backup is not complete."},
        {a_.files.purgedMaster, "Input backup has been logically deleted."},
        {a_.files.incr1, "Input backup is not synthesis-capable."},
        {a_.sql.full, "Input backup must be a supported type."},
        {987654, "Invalid backup id: 987654."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.backup);
        EXPECT_EQ(synthesisGroup(c.backup).rc, -1);
        EXPECT_EQ(std::string(tqGetLastError()), c.error);
    }
    setProperties(a_.files.incr3, "properties | 1");
    EXPECT_EQ(synthesisGroup(a_.files.incr3).rc, -1);
    EXPECT_STREQ(tqGetLastError(), "Cannot restore SDS backups.");
}

TEST_F(GroupTest, RestoreGroupsOfEveryFamily)
{
    struct Case {
        int64_t backup;
        Numbers members;
    };
    std::vector<Case> cases = {
        {a_.files.diff2, {a_.files.master, a_.files.diff2}},
        {a_.files.master, {a_.files.master}},
        {a_.files.bareMetal, {a_.files.bareMetal}},
        {a_.systemMetadata, {a_.systemMetadata}},
        {a_.vm.diff, {a_.vm.full, a_.vm.diff}},
        {a_.vm.incr2, {a_.vm.full, a_.vm.diff, a_.vm.incr1, a_.vm.incr2}},
        {a_.hv.incr1, {a_.hv.full, a_.hv.diff, a_.hv.incr1}},
        {a_.sql.incr2, {a_.sql.full, a_.sql.diff, a_.sql.incr1, a_.sql.incr2}},
        {a_.exchange.incr1, {a_.exchange.full, a_.exchange.diff, a_.exchange.incr1}},
        {a_.betaDiff, {a_.betaMaster, a_.betaDiff}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.backup);
        Restore r = restoreGroup(c.backup);
        EXPECT_EQ(r.rc, 0) << tqGetLastError();
        EXPECT_EQ(r.members, c.members);
    }
}

TEST_F(GroupTest, RestoreGroupEntriesCarryApplicationAndJobDetails)
{
    db_.exec("UPDATE tq.backups SET exit_code = 50 WHERE backup_no = " + std::to_string(a_.vm.diff));
    setStatus(a_.vm.full, kStatusGood | 0x4000);
    Restore r = restoreGroup(a_.vm.incr1);
    ASSERT_EQ(r.rc, 0) << tqGetLastError();
    ASSERT_EQ(r.entries.size(), 3u);
    EXPECT_EQ(r.entries[0].type, 12u);
    EXPECT_EQ(r.entries[0].status, 1u);  // bit 14
    EXPECT_EQ(r.entries[1].status, 1u);  // exit code 50
    EXPECT_EQ(r.entries[2].status, 0u);
    EXPECT_EQ(r.entries[2].type, 14u);
    for (const restoreGroupEntry& e : r.entries) {
        EXPECT_EQ(e.node_no, static_cast<uint32_t>(a_.esx));
        EXPECT_EQ(e.instance_id, static_cast<uint32_t>(a_.vm.instance));
        EXPECT_EQ(e.app_id, 4u);
        EXPECT_STREQ(e.app_name, "VMware");
        EXPECT_STREQ(e.instance_name, "esx01|web01");
        EXPECT_GT(e.start_time, 1700000000u);
    }
    // A file-level instance has no name of its own.
    Restore files = restoreGroup(a_.files.diff1);
    ASSERT_EQ(files.rc, 0);
    EXPECT_STREQ(files.entries[0].instance_name, "");
    EXPECT_STREQ(files.entries[0].app_name, "File Level");
}

TEST_F(GroupTest, FailedFileLevelBackupsMayStillBeRestored)
{
    // A failed type 2 passes the refusals and is restored as far as it got.
    Restore failedDiff = restoreGroup(a_.betaFailedDiff);
    EXPECT_EQ(failedDiff.rc, 0) << tqGetLastError();
    EXPECT_EQ(failedDiff.members, (Numbers{a_.betaMaster, a_.betaFailedDiff}));
    ASSERT_EQ(failedDiff.entries.size(), 2u);
    EXPECT_EQ(failedDiff.entries[1].status, 2u);

    // A failed type 3 is refused by both lookups.
    setStatus(a_.files.incr1, kStatusFailed);
    EXPECT_EQ(restoreGroup(a_.files.incr1).rc, -1);
    EXPECT_STREQ(tqGetLastError(), "Failed backups of this type cannot be restored");
    EXPECT_EQ(synthesisGroup(a_.files.incr1).rc, -1);
    EXPECT_EQ(restoreGroup(a_.failedVmDiff).rc, -1);
}

TEST_F(GroupTest, RestoreRefusals)
{
    setStatus(a_.betaDiff, 0x200);
    setProperties(a_.vm.incr1, "properties | 1");
    db_.exec("UPDATE tq.backups SET type = 77 WHERE backup_no = " + std::to_string(a_.hv.incr2));
    struct Case {
        int64_t backup;
        std::string error;
    };
    std::vector<Case> cases = {
        {a_.files.purgedMaster, "Purged backups cannot be restored"},
        {a_.betaDiff, "Active backups cannot be restored"},
        {a_.vm.incr1, "SDS backups cannot be restored"},
        {a_.hv.incr2, "Backup " + std::to_string(a_.hv.incr2) + " has an unknown or unsupported backup type (77)."},
        {987654, "Backup #987654 not found in database."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.backup);
        EXPECT_EQ(restoreGroup(c.backup).rc, -1);
        EXPECT_EQ(std::string(tqGetLastError()), c.error);
    }
    size_t count = 0;
    EXPECT_EQ(tqGetRestoreGroupOptimized(a_.vm.full, nullptr, &count), -1);
    EXPECT_STREQ(tqGetLastError(), "List and count parameters cannot be null.");
}

TEST_F(GroupTest, SqlFileGroupBackups)
{
    // Three file-group backups of one database: full, differential, full.
    for (int64_t b : {a_.sql.full, a_.sql.diff, a_.sql.incr1})
        setProperties(b, "properties | 128");
    db_.exec("INSERT INTO tq.sql_backups (sql_ref, node_no, database_name, server_instance_name, group_file_order, "
             "file_order_no, sql_type) VALUES (" +
             std::to_string(a_.sql.full) + ", " + std::to_string(a_.alpha) + ", 'Payroll', 'SQLEXPRESS', 1, 1, 9), (" +
             std::to_string(a_.sql.diff) + ", " + std::to_string(a_.alpha) + ", 'payroll', 'sqlexpress', 1, 2, 10), (" +
             std::to_string(a_.sql.incr1) + ", " + std::to_string(a_.alpha) + ", 'PAYROLL', 'SQLExpress', 1, 3, 11)");
    Restore r = restoreGroup(a_.sql.incr1);
    ASSERT_EQ(r.rc, 0) << tqGetLastError();
    EXPECT_EQ(r.members, (Numbers{a_.sql.full, a_.sql.diff, a_.sql.incr1}));
    ASSERT_EQ(r.entries.size(), 3u);
    EXPECT_EQ(r.entries[1].type, 10u);  // the sql_type
}

TEST_F(GroupTest, EncryptedInstanceNamesAndColumns)
{
    setProperties(a_.vm.full, "properties | 256");
    unsigned char encrypted = 7;
    ASSERT_EQ(tq_is_backup_encrypted(a_.vm.full, &encrypted), 0);
    EXPECT_EQ(encrypted, 1);
    ASSERT_EQ(tq_is_backup_encrypted(a_.vm.diff, &encrypted), 0);
    EXPECT_EQ(encrypted, 0);
    EXPECT_EQ(tq_is_backup_encrypted(987654, &encrypted), -1);
    EXPECT_EQ(tq_is_backup_encrypted(a_.vm.full, nullptr), -1);
    EXPECT_STREQ(tqGetLastError(), "Invalid input to function");

    struct Name {
        int64_t instance;
        const char* expected;  // nullptr: no name
    };
    for (const Name& n : std::vector<Name>{{a_.vm.instance, "esx01|web01"},
                                           {a_.sql.instance, "ALPHA\\SQLEXPRESS|payroll"},
                                           {a_.hv.instance, "hv01|mail01"},
                                           {a_.exchange.instance, "First Storage Group"},
                                           {a_.metadataInstance, "System Metadata"},
                                           {a_.files.instance, nullptr},
                                           {987654, nullptr}}) {
        char* name = tqGetInstanceName(n.instance);
        if (n.expected)
            EXPECT_STREQ(name, n.expected);
        else
            EXPECT_EQ(name, nullptr);
        free(name);
    }
    // A VMware instance with one key missing has no name.
    int64_t lonely = db_.addInstance(a_.esx, app::kVMware, "esx01");
    EXPECT_EQ(tqGetInstanceName(lonely), nullptr);

    EXPECT_EQ(columnExists("backups", "instance_id"), 1);
    EXPECT_EQ(columnExists("backups", "instance_id"), 1);  // from the cache
    EXPECT_EQ(columnExists("backups", "no_such_column"), 0);
    EXPECT_EQ(columnExists("no_such_table", "x"), 0);
}

TEST(LastError, KeepsTheNewestText)
{
    tqSetLastError("%s %d", "code", 42);
    EXPECT_STREQ(tqGetLastError(), "code 42");
    const char* none = nullptr;
    tqSetLastError(none);
    EXPECT_STREQ(tqGetLastError(), "(null)");
}

TEST(Families, TypeRanges)
{
    EXPECT_TRUE(tqIsVMwareType(13));
    EXPECT_FALSE(tqIsVMwareType(15));
    EXPECT_TRUE(tqIsHyperVType(1033));
    EXPECT_TRUE(tqIsNdmpType(4100));
    EXPECT_FALSE(tqIsExchangeType(4));
    EXPECT_TRUE(tqIsSqlServerType(11));
    for (int full : {1, 5, 9, 12, 1024, 1031, 1034, 1036, 1038, 1039, 4098})
        EXPECT_TRUE(tqIsFullType(full)) << full;
    for (int other : {2, 3, 4, 13, 1032, 1035, 4096, 4099})
        EXPECT_FALSE(tqIsFullType(other)) << other;
}

} // namespace
