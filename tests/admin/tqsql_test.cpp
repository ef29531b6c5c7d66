// The backup group lookups against a populated appliance: which backups a
// restore needs for each family, the refusals, the application details of
// the entries, and the small services beside them.
#include "admin/tqsql.h"
#include "harness/appliance_fixture.h"
#include "harness/pg_cluster.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace ferrytest;

namespace {

auto* const pgEnv = ::testing::AddGlobalTestEnvironment(new PgClusterEnvironment);

using Numbers = std::vector<int64_t>;

// What a lookup gave; a refusal must leave every output cleared.
struct Group {
    int rc = 0;
    Numbers members;
    std::string text;                        // synthesis only
    std::vector<restoreGroupEntry> entries;  // restore only
};

Group synthesisGroup(int64_t backup, int ignoreDiffs = 0, int ignoreMasters = 0)
{
    Group out;
    uint32_t* list = reinterpret_cast<uint32_t*>(1);
    char* text = reinterpret_cast<char*>(1);
    int count = -1;
    out.rc = tqGetSynthesisGroup(static_cast<uint64_t>(backup), ignoreDiffs, ignoreMasters, &list, &count, &text);
    EXPECT_TRUE(out.rc == 0 || (list == nullptr && text == nullptr && count == 0));
    for (int i = 0; list != nullptr && i < count; ++i)
        out.members.push_back(list[i]);
    out.text = text ? text : "";
    free(list);
    free(text);
    return out;
}

Group restoreGroup(int64_t backup)
{
    Group out;
    restoreGroupEntry* list = reinterpret_cast<restoreGroupEntry*>(1);
    size_t count = 99;
    out.rc = tqGetRestoreGroupOptimized(static_cast<uint64_t>(backup), &list, &count);
    EXPECT_TRUE(out.rc == 0 || (list == nullptr && count == 0));
    for (size_t i = 0; list != nullptr && i < count; ++i) {
        out.entries.push_back(list[i]);
        out.members.push_back(list[i].backup_no);
    }
    free(list);
    return out;
}

std::string joined(const Numbers& numbers)
{
    std::string text;
    for (int64_t n : numbers)
        text += (text.empty() ? "" : ",") + std::to_string(n);
    return text;
}

class GroupTest : public ::testing::Test {
protected:
    void SetUp() override { a_ = populateAppliance(db_); }

    void set(int64_t backup, const std::string& assignment)
    {
        db_.exec("UPDATE tq.backups SET " + assignment + " WHERE backup_no = " + std::to_string(backup));
    }

    ApplianceDb db_;
    Appliance a_;
};

TEST_F(GroupTest, GroupsOfEveryFamily)
{
    for (int64_t b : {a_.vm.full, a_.vm.diff, a_.vm.incr1, a_.vm.incr2, a_.hv.full, a_.hv.diff, a_.hv.incr1})
        set(b, "properties = properties | 4096");  // synthesis-capable
    // Synthetic (made by synthesis) members, which the flags may leave out.
    set(a_.files.diff2, "properties = properties | 2048");
    set(a_.betaMaster, "properties = properties | 4096 | 2048");
    enum Lookup { kRestore, kSynthesis, kWithoutSyntheticDiffs, kWithoutSyntheticMasters };
    struct Case {
        Lookup lookup;
        int64_t backup;
        Numbers members;
    };
    const Case cases[] = {
        // Back to the newest differential and the live full before it.
        {kSynthesis, a_.files.incr3, {a_.files.master, a_.files.diff2, a_.files.incr3}},
        {kSynthesis, a_.files.incr2, {a_.files.master, a_.files.diff1, a_.files.incr1, a_.files.incr2}},
        {kSynthesis, a_.files.diff1, {a_.files.master, a_.files.diff1}},
        {kSynthesis, a_.files.master, {a_.files.master}},  // not the purged older master
        {kSynthesis, a_.vm.incr2, {a_.vm.full, a_.vm.diff, a_.vm.incr1, a_.vm.incr2}},
        {kSynthesis, a_.hv.incr1, {a_.hv.full, a_.hv.diff, a_.hv.incr1}},
        {kWithoutSyntheticDiffs, a_.files.incr3,
         {a_.files.master, a_.files.diff1, a_.files.incr1, a_.files.incr2, a_.files.incr3}},
        {kWithoutSyntheticMasters, a_.betaMaster, {}},  // empty, and no failure
        {kRestore, a_.files.diff2, {a_.files.master, a_.files.diff2}},
        {kRestore, a_.files.master, {a_.files.master}},
        {kRestore, a_.files.bareMetal, {a_.files.bareMetal}},
        {kRestore, a_.systemMetadata, {a_.systemMetadata}},
        {kRestore, a_.vm.diff, {a_.vm.full, a_.vm.diff}},
        {kRestore, a_.vm.incr2, {a_.vm.full, a_.vm.diff, a_.vm.incr1, a_.vm.incr2}},
        {kRestore, a_.hv.incr1, {a_.hv.full, a_.hv.diff, a_.hv.incr1}},
        {kRestore, a_.sql.incr2, {a_.sql.full, a_.sql.diff, a_.sql.incr1, a_.sql.incr2}},
        {kRestore, a_.exchange.incr1, {a_.exchange.full, a_.exchange.diff, a_.exchange.incr1}},
        {kRestore, a_.betaDiff, {a_.betaMaster, a_.betaDiff}},
        // A failed file-level differential is restored as far as it got.
        {kRestore, a_.betaFailedDiff, {a_.betaMaster, a_.betaFailedDiff}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("lookup " + std::to_string(c.lookup) + " of " + std::to_string(c.backup));
        Group g = c.lookup == kRestore ? restoreGroup(c.backup)
                                       : synthesisGroup(c.backup, c.lookup == kWithoutSyntheticDiffs,
                                                        c.lookup == kWithoutSyntheticMasters);
        EXPECT_EQ(g.rc, 0) << tqGetLastError();
        EXPECT_EQ(g.members, c.members);
        EXPECT_EQ(g.text, c.lookup == kRestore ? "" : joined(c.members));
    }
    // Either output alone is enough.
    char* text = nullptr;
    int count = 0;
    ASSERT_EQ(tqGetSynthesisGroup(a_.files.incr1, 0, 0, nullptr, nullptr, &text), 0);
    EXPECT_EQ(std::string(text), joined({a_.files.master, a_.files.diff1, a_.files.incr1}));
    free(text);
    ASSERT_EQ(tqGetSynthesisGroup(a_.files.incr1, 0, 0, nullptr, &count, nullptr), 0);
    EXPECT_EQ(count, 3);
}

TEST_F(GroupTest, RefusalsSayWhy)
{
    set(a_.files.incr2, "status = " + std::to_string(kStatusFailed));
    set(a_.files.incr1, "properties = 1024");  // no synthesis capability
    set(a_.files.diff2, "status = 512");       // still running
    set(a_.files.incr3, "properties = properties | 1");
    set(a_.betaDiff, "status = 512");
    set(a_.vm.incr1, "properties = properties | 1");
    set(a_.hv.incr2, "type = 77");
    struct Case {
        bool restore;
        int64_t backup;
        std::string error;
    };
    const Case cases[] = {
        {false, a_.files.incr2, "Input backup was not successful."},
        {false, a_.files.diff2, "Input backup is not complete."},
        {false, a_.files.purgedMaster, "Input backup has been logically deleted."},
        {false, a_.files.incr1, "Input backup is not synthesis-capable."},
        {false, a_.sql.full, "Input backup must be a supported type."},
        {false, a_.files.incr3, "Cannot restore SDS backups."},
        {false, 987654, "Invalid backup id: 987654."},
        {true, a_.files.incr2, "Failed backups of this type cannot be restored"},
        {true, a_.failedVmDiff, "Failed backups of this type cannot be restored"},
        {true, a_.files.purgedMaster, "Purged backups cannot be restored"},
        {true, a_.betaDiff, "Active backups cannot be restored"},
        {true, a_.vm.incr1, "SDS backups cannot be restored"},
        {true, a_.hv.incr2, "Backup " + std::to_string(a_.hv.incr2) + " has an unknown or unsupported backup type (77)."},
        {true, 987654, "Backup #987654 not found in database."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE((c.restore ? "restore group of " : "synthesis group of ") + std::to_string(c.backup));
        EXPECT_EQ(c.restore ? restoreGroup(c.backup).rc : synthesisGroup(c.backup).rc, -1);
        EXPECT_EQ(std::string(tqGetLastError()), c.error);
    }
    size_t count = 0;
    EXPECT_EQ(tqGetRestoreGroupOptimized(a_.vm.full, nullptr, &count), -1);
    EXPECT_STREQ(tqGetLastError(), "List and count parameters cannot be null.");
}

// An entry as "node instance app_id app_name 'instance_name' status type".
std::string describe(const restoreGroupEntry& e)
{
    return std::to_string(e.node_no) + " " + std::to_string(e.instance_id) + " " + std::to_string(e.app_id) + " " +
           e.app_name + " '" + e.instance_name + "' " + std::to_string(e.status) + " " + std::to_string(e.type);
}

TEST_F(GroupTest, RestoreGroupEntriesCarryApplicationAndJobDetails)
{
    set(a_.vm.diff, "exit_code = 50");
    set(a_.vm.full, "status = " + std::to_string(kStatusGood | 0x4000));
    Group vm = restoreGroup(a_.vm.incr1);
    Group files = restoreGroup(a_.betaFailedDiff);
    ASSERT_EQ(vm.entries.size(), 3u);
    ASSERT_EQ(files.entries.size(), 2u);
    const std::string esx = std::to_string(a_.esx) + " " + std::to_string(a_.vm.instance) + " 4 VMware 'esx01|web01' ";
    EXPECT_EQ(describe(vm.entries[0]), esx + "1 12");  // status bit 14
    EXPECT_EQ(describe(vm.entries[1]), esx + "1 13");  // exit code 50
    EXPECT_EQ(describe(vm.entries[2]), esx + "0 14");
    // A file-level instance has no name of its own; a failed member shows 2.
    EXPECT_EQ(describe(files.entries[1]),
              std::to_string(a_.beta) + " " + std::to_string(a_.betaInstance) + " 1 File Level '' 2 2");
    EXPECT_GT(vm.entries[0].start_time, 1700000000u);
}

TEST_F(GroupTest, SqlFileGroupBackupsMatchTheirDatabaseInAnyCase)
{
    // Three file-group backups of one database: full, differential, full.
    for (int64_t b : {a_.sql.full, a_.sql.diff, a_.sql.incr1})
        set(b, "properties = properties | 128");
    std::string node = std::to_string(a_.alpha);
    db_.exec("INSERT INTO tq.sql_backups (sql_ref, node_no, database_name, server_instance_name, group_file_order, "
             "file_order_no, sql_type) VALUES (" +
             std::to_string(a_.sql.full) + ", " + node + ", 'Payroll', 'SQLEXPRESS', 1, 1, 9), (" +
             std::to_string(a_.sql.diff) + ", " + node + ", 'payroll', 'sqlexpress', 1, 2, 10), (" +
             std::to_string(a_.sql.incr1) + ", " + node + ", 'PAYROLL', 'SQLExpress', 1, 3, 11)");
    Group r = restoreGroup(a_.sql.incr1);
    ASSERT_EQ(r.rc, 0) << tqGetLastError();
    EXPECT_EQ(r.members, (Numbers{a_.sql.full, a_.sql.diff, a_.sql.incr1}));
    EXPECT_EQ(r.entries[1].type, 10u);  // the sql_type
}

TEST_F(GroupTest, EncryptionInstanceNamesAndColumns)
{
    set(a_.vm.full, "properties = properties | 256");
    unsigned char encrypted = 7;
    ASSERT_EQ(tq_is_backup_encrypted(a_.vm.full, &encrypted), 0);
    EXPECT_EQ(encrypted, 1);
    ASSERT_EQ(tq_is_backup_encrypted(a_.vm.diff, &encrypted), 0);
    EXPECT_EQ(encrypted, 0);
    EXPECT_EQ(tq_is_backup_encrypted(987654, &encrypted), -1);
    EXPECT_EQ(tq_is_backup_encrypted(a_.vm.full, nullptr), -1);

    int64_t lonely = db_.addInstance(a_.esx, app::kVMware, "esx01");  // one key missing: no name
    struct Name {
        int64_t instance;
        const char* expected;  // nullptr: no name
    };
    for (const Name& n : {Name{a_.vm.instance, "esx01|web01"}, Name{a_.sql.instance, "ALPHA\\SQLEXPRESS|payroll"},
                          Name{a_.hv.instance, "hv01|mail01"}, Name{a_.exchange.instance, "First Storage Group"},
                          Name{a_.metadataInstance, "System Metadata"}, Name{a_.files.instance, nullptr},
                          Name{lonely, nullptr}, Name{987654, nullptr}}) {
        char* name = tqGetInstanceName(n.instance);
        EXPECT_EQ(std::string(name ? name : "(none)"), n.expected ? n.expected : "(none)") << n.instance;
        free(name);
    }
    EXPECT_EQ(columnExists("backups", "instance_id"), 1);
    EXPECT_EQ(columnExists("backups", "no_such_column"), 0);
    EXPECT_EQ(columnExists("no_such_table", "x"), 0);
}

} // namespace
