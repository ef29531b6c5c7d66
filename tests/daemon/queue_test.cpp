// The replication queue against a populated appliance database: which rows
// enqueue makes and in what order, which backup dequeue hands out, the row
// commands, the schemes, the repair of an out-of-order instance, and bad
// input that must neither hurt the queue nor reach SQL unescaped.
#include "daemon/common.h"
#include "daemon/replicationQueue.h"
#include "harness/appliance_fixture.h"
#include "harness/log_capture.h"
#include "harness/pg_cluster.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace ferrytest;
using Rows = std::vector<std::string>;

namespace {

auto* const pgEnv = ::testing::AddGlobalTestEnvironment(new PgClusterEnvironment);

std::string row(int64_t backup, const std::string& vault, int status = REPLICATION_NEEDED)
{
    return std::to_string(backup) + ":" + vault + ":" + std::to_string(status);
}

class QueueTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        a_ = populateAppliance(db_);
        g_settings = ReplicationSettings{};
        strcpy(g_settings.SyncTo, kVault);
    }

    bool logged(const std::string& line) { return log_.text().find(line) != std::string::npos; }
    // sync_status of the backups, comma-separated in backup order.
    std::string syncStatus(const std::vector<int64_t>& backups)
    {
        std::string list;
        for (int64_t b : backups)
            list += (list.empty() ? "" : ",") + std::to_string(b);
        return db_.value("SELECT string_agg(sync_status::text, ',' ORDER BY backup_no) FROM tq.backups "
                         "WHERE backup_no IN (" + list + ")");
    }
    ferrytest::LogCapture log_{5};
    ApplianceDb db_;
    Appliance a_;
};

TEST_F(QueueTest, EnqueueAddsWhatARestoreNeedsInRestoreOrder)
{
    ASSERT_EQ(enqueue(a_.files.diff1, kVault), 0);
    ASSERT_EQ(enqueue(a_.vm.incr2, kVault), 0);
    ASSERT_EQ(enqueue(a_.files.incr3, kVault), 0);  // a synthesis group: master, newest differential
    ASSERT_EQ(enqueue(a_.sql.incr2, kOffsiteVault), 0);
    EXPECT_EQ(db_.queueRows(),
              (Rows{row(a_.files.master, kVault), row(a_.files.diff1, kVault), row(a_.vm.full, kVault),
                    row(a_.vm.diff, kVault), row(a_.vm.incr1, kVault), row(a_.vm.incr2, kVault),
                    row(a_.files.diff2, kVault), row(a_.files.incr3, kVault), row(a_.sql.full, kOffsiteVault),
                    row(a_.sql.diff, kOffsiteVault), row(a_.sql.incr1, kOffsiteVault),
                    row(a_.sql.incr2, kOffsiteVault)}));
    EXPECT_EQ(syncStatus({a_.files.master, a_.files.diff1, a_.files.incr1}), "1,1,0");
}

TEST_F(QueueTest, EnqueueLeavesCompleteAndBusyRowsAndRenewsTheRest)
{
    db_.addQueueRow(a_.vm.full, kVault, REPLICATION_COMPLETE);
    db_.addQueueRow(a_.vm.diff, kVault, REPLICATION_ABANDONED);
    db_.addQueueRow(a_.vm.incr1, kVault, REPLICATION_IN_PROGRESS);
    db_.addQueueRow(a_.hv.full, kVault, REPLICATION_CANCELLED);
    ASSERT_EQ(enqueue(a_.vm.incr2, kVault), 0);
    // A full stands alone, and its own existing row is left as it is.
    ASSERT_EQ(enqueue(a_.hv.full, kVault), 0);
    ASSERT_EQ(enqueue(a_.files.bareMetal, kVault), 0);
    EXPECT_EQ(db_.queueRows(), (Rows{row(a_.vm.full, kVault, 2), row(a_.vm.diff, kVault), row(a_.vm.incr1, kVault, 16),
                                     row(a_.hv.full, kVault, 8), row(a_.vm.incr2, kVault),
                                     row(a_.files.bareMetal, kVault)}));
}

TEST_F(QueueTest, BadInputIsRefusedWithoutHarm)
{
    // Vault names with quotes reach SQL escaped: every row function works.
    const char* odd = "o'brien\\'; DROP TABLE tq.replication_queue; --";
    ASSERT_EQ(enqueue(a_.files.master, kVault), 0);
    ASSERT_EQ(enqueue(a_.files.diff1, odd), 0);
    EXPECT_EQ(getQueueStatus(a_.files.diff1, odd), REPLICATION_NEEDED);
    EXPECT_EQ(setQueueStatus(a_.files.diff1, odd, REPLICATION_NEED_ASSIST), 0);
    EXPECT_EQ(completeEntry(a_.files.master, odd), 0);
    EXPECT_EQ(markForCleanup(a_.files.master, kVault), 0);
    EXPECT_EQ(swap_rq(a_.files.master, odd, a_.files.diff1, odd), 0);
    char vault[QUEUE_VAULT_SIZE];
    EXPECT_EQ(dequeue(vault), 0);  // the instance is paused by the 64
    EXPECT_EQ(removeEntry(a_.files.diff1, odd), 0);
    EXPECT_FALSE(logged("Failed query"));
    const Rows rows{row(a_.files.master, kVault, 32), row(a_.files.master, odd, 2)};
    EXPECT_EQ(db_.queueRows(), rows);

    EXPECT_EQ(enqueue(987654, kVault), -1);
    EXPECT_TRUE(logged("Backup #987654 not found"));
    // A failed VMware differential has no restore group: logged, skipped, 0.
    EXPECT_EQ(enqueue(a_.failedVmDiff, kVault), 0);
    EXPECT_TRUE(logged("ERROR:Could not determine restore group; Skipping backup " + std::to_string(a_.failedVmDiff)));
    // A vault name too long for a statement buffer is refused before SQL.
    EXPECT_EQ(getQueueStatus(a_.files.master, std::string(600, 'v').c_str()), -1);
    EXPECT_TRUE(logged("Query too long for buffer"));
    EXPECT_EQ(db_.queueRows(), rows);
}

TEST_F(QueueTest, DequeueHandsOutOneBackupPerInstanceAndPassesOverPurgedOnes)
{
    db_.addQueueRow(a_.files.purgedMaster, kVault, REPLICATION_NEEDED);  // its medium is gone (tape_no -1)
    db_.addQueueRow(a_.files.master, kVault, REPLICATION_NEEDED);
    db_.addQueueRow(a_.vm.full, kVault, REPLICATION_NEEDED);
    db_.addQueueRow(a_.vm.diff, kVault, REPLICATION_NEEDED);
    db_.addQueueRow(a_.hv.full, kOffsiteVault, REPLICATION_NEEDED);
    char vault[QUEUE_VAULT_SIZE] = "";
    EXPECT_EQ(dequeue(vault), a_.files.master);
    EXPECT_EQ(dequeue(vault), a_.vm.full);
    EXPECT_STREQ(vault, kVault);
    EXPECT_EQ(dequeue(vault), a_.hv.full);
    EXPECT_STREQ(vault, kOffsiteVault);  // the row's vault, not the setting
    EXPECT_EQ(dequeue(vault), 0);        // vm.diff waits for vm.full
    EXPECT_EQ(db_.queueRows(), (Rows{row(a_.files.purgedMaster, kVault), row(a_.files.master, kVault, 16),
                                     row(a_.vm.full, kVault, 16), row(a_.vm.diff, kVault),
                                     row(a_.hv.full, kOffsiteVault, 16)}));
    EXPECT_NE(db_.value("SELECT rep_start FROM tq.replication_queue WHERE backup_no = " + std::to_string(a_.vm.full)),
              "");
    ASSERT_EQ(completeEntry(a_.vm.full, kVault), 0);
    EXPECT_EQ(dequeue(vault), a_.vm.diff);
}

TEST_F(QueueTest, PausedInstanceOnOneVaultIsPausedOnAll)
{
    for (int paused : {REPLICATION_NEED_ASSIST, REPLICATION_OUT_OF_ORDER}) {
        SCOPED_TRACE(paused);
        db_.exec("DELETE FROM tq.replication_queue");
        db_.addQueueRow(a_.vm.full, kOffsiteVault, paused);
        db_.addQueueRow(a_.vm.diff, kVault, REPLICATION_NEEDED);
        db_.addQueueRow(a_.hv.full, kVault, REPLICATION_NEEDED);
        char vault[QUEUE_VAULT_SIZE];
        EXPECT_EQ(dequeue(vault), a_.hv.full);
        EXPECT_EQ(dequeue(vault), 0);
        EXPECT_EQ(db_.queueStatus(a_.vm.diff, kVault), REPLICATION_NEEDED);
    }
}

TEST_F(QueueTest, PeekWalksTheWaitingRowsAndSwapExchangesPositions)
{
    EXPECT_EQ(peek(0), 0);
    db_.addQueueRow(a_.vm.full, kVault, REPLICATION_NEEDED);
    db_.addQueueRow(a_.hv.full, kVault, REPLICATION_COMPLETE);
    db_.addQueueRow(a_.betaMaster, kVault, REPLICATION_NEEDED);
    EXPECT_EQ(peek(0), a_.vm.full);
    EXPECT_EQ(peek(1), a_.betaMaster);
    EXPECT_EQ(peek(2), 0);

    ASSERT_EQ(swap_rq(a_.vm.full, kVault, a_.betaMaster, kVault), 0);
    EXPECT_EQ(peek(0), a_.betaMaster);
    // One backup on two vaults, with a row of it on a third vault untouched.
    db_.addQueueRow(a_.sql.full, kVault, REPLICATION_NEEDED);
    db_.addQueueRow(a_.sql.full, "third", REPLICATION_NEEDED);
    db_.addQueueRow(a_.sql.full, kOffsiteVault, REPLICATION_NEEDED);
    ASSERT_EQ(swap_rq(a_.sql.full, kVault, a_.sql.full, kOffsiteVault), 0);
    EXPECT_EQ(db_.queueRows(), (Rows{row(a_.betaMaster, kVault), row(a_.hv.full, kVault, 2), row(a_.vm.full, kVault),
                                     row(a_.sql.full, kOffsiteVault), row(a_.sql.full, "third"),
                                     row(a_.sql.full, kVault)}));
}

TEST_F(QueueTest, StatusLookupsAndTerminatedRows)
{
    ASSERT_EQ(enqueue(a_.vm.diff, kVault), 0);
    EXPECT_EQ(getQueueStatus(a_.vm.diff, kOffsiteVault), 0);
    EXPECT_EQ(getReplicationStatus(a_.vm.diff), REPLICATION_NEEDED);
    EXPECT_EQ(getReplicationStatus(a_.hv.full), 0);  // no row
    ASSERT_EQ(enqueue(a_.vm.diff, kOffsiteVault), 0);
    EXPECT_EQ(getReplicationStatus(a_.vm.diff), 0);  // two rows

    EXPECT_EQ(markForCleanup(a_.vm.diff, kOffsiteVault), 0);
    EXPECT_EQ(markForCleanup(a_.vm.full, kVault), 0);
    uint64_t backups[4];
    char vaults[4][QUEUE_VAULT_SIZE];
    ASSERT_EQ(listTerminated(backups, vaults, 4), 2);
    EXPECT_EQ(row(backups[0], vaults[0]) + row(backups[1], vaults[1]),
              row(a_.vm.full, kVault) + row(a_.vm.diff, kOffsiteVault));
    EXPECT_EQ(listTerminated(backups, vaults, 1), 1);
}

TEST_F(QueueTest, RetentionQueuesOldestFirstButNeverBehindANewerBackup)
{
    db_.addQueueRow(a_.vm.incr2, kVault, REPLICATION_COMPLETE);
    db_.setSyncStatus({a_.betaDiff, a_.vm.incr1, a_.hv.full}, 1);
    EXPECT_EQ(fifoEnqueue(), 3);
    EXPECT_EQ(db_.queueRows(), (Rows{row(a_.vm.incr2, kVault, 2), row(a_.hv.full, kVault), row(a_.betaMaster, kVault),
                                     row(a_.betaDiff, kVault)}));
    EXPECT_TRUE(logged("fifoEnqueue: Attempt was made to add backup " + std::to_string(a_.vm.incr1) +
                       " to the queue out of order."));
    // Its sync-needed bit is cleared: it will never be queued.
    EXPECT_EQ(syncStatus({a_.vm.incr1}), "0");
    EXPECT_EQ(fifoEnqueue(), 0);
}

TEST_F(QueueTest, RecencyKeepsOnlyTheNewestRestorePointWaiting)
{
    ASSERT_EQ(enqueue(a_.files.incr1, kVault), 0);
    ASSERT_EQ(enqueue(a_.files.bareMetal, kVault), 0);
    // Since then a new master and a differential on it need sending.
    BackupRow backup;
    backup.node_no = a_.alpha;
    backup.instance_id = a_.files.instance;
    backup.properties = kPropDeduplicated | kPropSynthesisCapable;
    backup.sync_status = 1;
    int64_t master2 = db_.addBackup(backup);
    backup.type = btype::kDifferential;
    int64_t diff3 = db_.addBackup(backup);
    g_settings.QueueScheme = QUEUE_SCHEME_NONE;
    updateQueue();
    EXPECT_EQ(db_.queueRows().size(), 4u) << "scheme 0 adds nothing";
    g_settings.QueueScheme = QUEUE_SCHEME_RECENCY;
    updateQueue();
    // The old chain is gone with its sync bits; the bare metal row stays.
    Rows rows = db_.queueRows();
    EXPECT_EQ(rows, (Rows{row(a_.files.bareMetal, kVault), row(master2, kVault), row(diff3, kVault)}));
    EXPECT_EQ(syncStatus({a_.files.master, a_.files.diff1, a_.files.incr1, a_.files.bareMetal}), "0,0,0,1");
    updateQueue();
    EXPECT_EQ(db_.queueRows(), rows) << "a second pass changes nothing";
}

TEST_F(QueueTest, LifoQueuesTheNewestFinishedBackupOfEachInstance)
{
    // beta's newest backup is still running: the one before it is taken.
    db_.setSyncStatus({a_.files.incr3, a_.betaDiff, a_.betaRunning}, 1);
    db_.setSyncStatus({a_.vm.incr2}, 1);  // not the newest of its instance
    ASSERT_EQ(lifoEnqueue(), 0);
    EXPECT_EQ(db_.queueRows(), (Rows{row(a_.files.master, kVault), row(a_.files.diff2, kVault),
                                     row(a_.files.incr3, kVault), row(a_.betaMaster, kVault),
                                     row(a_.betaDiff, kVault)}));
}

TEST_F(QueueTest, RepairOutOfOrderDropsLaterRowsOnlyAfterALaterReplication)
{
    db_.addQueueRow(a_.vm.full, kVault, REPLICATION_COMPLETE);
    db_.addQueueRow(a_.vm.diff, kVault, REPLICATION_OUT_OF_ORDER);
    db_.addQueueRow(a_.vm.incr1, kVault, REPLICATION_COMPLETE);
    db_.addQueueRow(a_.vm.incr2, kVault, REPLICATION_NEEDED);
    db_.addQueueRow(a_.hv.diff, kVault, REPLICATION_OUT_OF_ORDER);  // another instance
    db_.addQueueRow(a_.hv.incr1, kVault, REPLICATION_NEEDED);
    ASSERT_EQ(repairOutOfOrder(a_.vm.diff), 0);
    EXPECT_TRUE(logged("Delete 2 backups from the replication_queue that are out of order with " +
                       std::to_string(a_.vm.diff)));
    // Nothing later of hv was replicated: its row is only reset.
    ASSERT_EQ(repairOutOfOrder(a_.hv.diff), 0);
    EXPECT_TRUE(logged("There are no backups on the replication_queue that are out of order"));
    EXPECT_EQ(db_.queueRows(), (Rows{row(a_.vm.full, kVault, 2), row(a_.vm.diff, kVault), row(a_.hv.diff, kVault),
                                     row(a_.hv.incr1, kVault)}));

    EXPECT_EQ(repairOutOfOrder(a_.hv.full), -1);  // no row to reset
    EXPECT_EQ(repairOutOfOrder(987654), -1);
    EXPECT_TRUE(logged("Failed to get backup information for 987654."));
}

} // namespace
