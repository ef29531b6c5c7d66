// The replication queue against a populated appliance database: which rows
// enqueue makes and in what order, which backup dequeue hands out, the row
// commands, the schemes, the repair of an out-of-order instance, and bad
// input that must neither hurt the queue nor reach SQL unescaped.
#include "admin/tqsql.h"
#include "daemon/common.h"
#include "daemon/replicationQueue.h"
#include "foundation/logger.h"
#include "harness/appliance_fixture.h"
#include "harness/pg_cluster.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace ferrytest;

namespace {

auto* const pgEnv = ::testing::AddGlobalTestEnvironment(new PgClusterEnvironment);

std::string row(int64_t backup, const std::string& vault, int status)
{
    return std::to_string(backup) + ":" + vault + ":" + std::to_string(status);
}

// The process log, captured in a temporary file for the whole binary.
class LogCapture {
public:
    LogCapture() : file_(tmpfile()) { swap_log_stream(file_); }
    void mark()
    {
        fflush(file_);
        fseek(file_, 0, SEEK_END);
        mark_ = ftell(file_);
    }
    // What was logged since the last mark.
    std::string since()
    {
        fflush(file_);
        fseek(file_, mark_, SEEK_SET);
        std::string text;
        char buf[4096];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, file_)) > 0)
            text.append(buf, n);
        fseek(file_, 0, SEEK_END);
        return text;
    }

private:
    FILE* file_;
    long mark_ = 0;
};

LogCapture& capturedLog()
{
    static LogCapture capture;
    return capture;
}

class QueueTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        a_ = populateAppliance(db_);
        capturedLog().mark();
        g_settings = ReplicationSettings{};
    }

    std::string log() { return capturedLog().since(); }

    ApplianceDb db_;
    Appliance a_;
};

TEST_F(QueueTest, DifferentialIsQueuedAfterItsMaster)
{
    ASSERT_EQ(enqueue(a_.files.diff1, kVault), 0);
    EXPECT_EQ(db_.queueRows(), (std::vector<std::string>{row(a_.files.master, kVault, 1),
                                                        row(a_.files.diff1, kVault, 1)}));
    // insertRow marks what it queues as needing a sync.
    EXPECT_EQ(db_.value("SELECT string_agg(sync_status::text, ',' ORDER BY backup_no) FROM tq.backups WHERE "
                        "backup_no IN (" + std::to_string(a_.files.master) + "," + std::to_string(a_.files.diff1) +
                        ")"),
              "1,1");
}

TEST_F(QueueTest, EveryFamilyIsQueuedInRestoreOrder)
{
    ASSERT_EQ(enqueue(a_.vm.incr2, kVault), 0);
    ASSERT_EQ(enqueue(a_.files.incr3, kVault), 0);  // a synthesis group
    ASSERT_EQ(enqueue(a_.sql.incr2, kOffsiteVault), 0);
    EXPECT_EQ(db_.queueRows(),
              (std::vector<std::string>{
                  row(a_.vm.full, kVault, 1), row(a_.vm.diff, kVault, 1), row(a_.vm.incr1, kVault, 1),
                  row(a_.vm.incr2, kVault, 1), row(a_.files.master, kVault, 1), row(a_.files.diff2, kVault, 1),
                  row(a_.files.incr3, kVault, 1), row(a_.sql.full, kOffsiteVault, 1),
                  row(a_.sql.diff, kOffsiteVault, 1), row(a_.sql.incr1, kOffsiteVault, 1),
                  row(a_.sql.incr2, kOffsiteVault, 1)}));
}

TEST_F(QueueTest, EnqueueLeavesCompleteAndBusyRowsAndRenewsTheRest)
{
    db_.addQueueRow(a_.vm.full, kVault, REPLICATION_COMPLETE);
    db_.addQueueRow(a_.vm.diff, kVault, REPLICATION_ABANDONED);
    db_.addQueueRow(a_.vm.incr1, kVault, REPLICATION_IN_PROGRESS);
    ASSERT_EQ(enqueue(a_.vm.incr2, kVault), 0);
    EXPECT_EQ(db_.queueRows(), (std::vector<std::string>{row(a_.vm.full, kVault, 2), row(a_.vm.diff, kVault, 1),
                                                        row(a_.vm.incr1, kVault, 16), row(a_.vm.incr2, kVault, 1)}));

    // A full stands alone, and an existing row of it is left as it is.
    db_.addQueueRow(a_.hv.full, kVault, REPLICATION_CANCELLED);
    ASSERT_EQ(enqueue(a_.hv.full, kVault), 0);
    EXPECT_EQ(db_.queueStatus(a_.hv.full, kVault), REPLICATION_CANCELLED);
    ASSERT_EQ(enqueue(a_.files.bareMetal, kVault), 0);
    EXPECT_EQ(db_.queueStatus(a_.files.bareMetal, kVault), REPLICATION_NEEDED);
    EXPECT_EQ(db_.queueStatus(a_.files.master, kVault), -1);
}

TEST_F(QueueTest, EnqueueOfABackupWithoutGroupAddsNothing)
{
    // A failed VMware differential has no restore group: logged, skipped, 0.
    EXPECT_EQ(enqueue(a_.failedVmDiff, kVault), 0);
    EXPECT_TRUE(db_.queueRows().empty());
    EXPECT_NE(log().find("ERROR:Could not determine restore group; Skipping backup " +
                         std::to_string(a_.failedVmDiff)),
              std::string::npos);
}

TEST_F(QueueTest, BadInputIsRefusedWithoutHarm)
{
    ASSERT_EQ(enqueue(a_.files.master, kVault), 0);

    // A backup that does not exist: a clear line, nothing queued.
    capturedLog().mark();
    EXPECT_EQ(enqueue(987654, kVault), -1);
    EXPECT_NE(log().find("Backup #987654 not found"), std::string::npos);
    EXPECT_EQ(insertRow(987654, kVault), -1);  // refused by the table's reference
    EXPECT_EQ(db_.queueRows(), (std::vector<std::string>{row(a_.files.master, kVault, 1)}));

    // Vault names with quotes reach SQL escaped: every row function works.
    const char* odd = "o'brien\\'; DROP TABLE tq.replication_queue; --";
    capturedLog().mark();
    ASSERT_EQ(enqueue(a_.files.diff1, odd), 0);
    EXPECT_EQ(getQueueStatus(a_.files.diff1, odd), REPLICATION_NEEDED);
    EXPECT_EQ(setQueueStatus(a_.files.diff1, odd, REPLICATION_NEED_ASSIST), 0);
    EXPECT_EQ(db_.queueStatus(a_.files.diff1, odd), REPLICATION_NEED_ASSIST);
    EXPECT_EQ(completeEntry(a_.files.master, odd), 0);
    EXPECT_EQ(markForCleanup(a_.files.master, kVault), 0);
    EXPECT_EQ(swap_rq(a_.files.master, odd, a_.files.diff1, odd), 0);
    char vault[QUEUE_VAULT_SIZE];
    EXPECT_EQ(dequeue(vault), 0);  // the instance is paused by the 64
    EXPECT_EQ(removeEntry(a_.files.diff1, odd), 0);
    EXPECT_EQ(log().find("Failed query"), std::string::npos);
    EXPECT_EQ(db_.queueRows(), (std::vector<std::string>{row(a_.files.master, kVault, 32),
                                                        row(a_.files.master, odd, 2)}));

    // A vault name too long for a statement buffer is refused before SQL.
    std::string huge(600, 'v');
    capturedLog().mark();
    EXPECT_EQ(getQueueStatus(a_.files.master, huge.c_str()), -1);
    EXPECT_NE(log().find("Query too long for buffer"), std::string::npos);
}

TEST_F(QueueTest, DequeueHandsOutOneBackupPerInstance)
{
    db_.addQueueRow(a_.vm.full, kVault, REPLICATION_NEEDED);
    db_.addQueueRow(a_.vm.diff, kVault, REPLICATION_NEEDED);
    db_.addQueueRow(a_.hv.full, kOffsiteVault, REPLICATION_NEEDED);
    char vault[QUEUE_VAULT_SIZE] = "";

    EXPECT_EQ(dequeue(vault), a_.vm.full);
    EXPECT_STREQ(vault, kVault);
    EXPECT_EQ(dequeue(vault), a_.hv.full);
    EXPECT_STREQ(vault, kOffsiteVault);  // the row's vault, not the setting
    EXPECT_EQ(dequeue(vault), 0);         // vm.diff waits for vm.full
    EXPECT_EQ(db_.queueRows(), (std::vector<std::string>{row(a_.vm.full, kVault, 16), row(a_.vm.diff, kVault, 1),
                                                        row(a_.hv.full, kOffsiteVault, 16)}));
    EXPECT_NE(db_.value("SELECT rep_start FROM tq.replication_queue WHERE backup_no = " + std::to_string(a_.vm.full)),
              "");

    ASSERT_EQ(completeEntry(a_.vm.full, kVault), 0);
    EXPECT_EQ(dequeue(vault), a_.vm.diff);
}

TEST_F(QueueTest, DequeuePassesOverPurgedBackupsWithoutBlocking)
{
    db_.addQueueRow(a_.files.purgedMaster, kVault, REPLICATION_NEEDED);
    db_.addQueueRow(a_.files.master, kVault, REPLICATION_NEEDED);
    char vault[QUEUE_VAULT_SIZE];
    EXPECT_EQ(dequeue(vault), a_.files.master);
    ASSERT_EQ(completeEntry(a_.files.master, kVault), 0);
    EXPECT_EQ(dequeue(vault), 0);
    EXPECT_EQ(db_.queueStatus(a_.files.purgedMaster, kVault), REPLICATION_NEEDED);
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

TEST_F(QueueTest, PeekWalksTheWaitingRows)
{
    EXPECT_EQ(peek(0), 0);
    db_.addQueueRow(a_.vm.full, kVault, REPLICATION_NEEDED);
    db_.addQueueRow(a_.hv.full, kVault, REPLICATION_COMPLETE);
    db_.addQueueRow(a_.betaMaster, kVault, REPLICATION_NEEDED);
    EXPECT_EQ(peek(0), a_.vm.full);
    EXPECT_EQ(peek(1), a_.betaMaster);
    EXPECT_EQ(peek(2), 0);
    EXPECT_EQ(peek(1000), 0);
}

TEST_F(QueueTest, SwapExchangesPositions)
{
    db_.addQueueRow(a_.vm.full, kVault, REPLICATION_NEEDED);
    db_.addQueueRow(a_.hv.full, kVault, REPLICATION_NEEDED);
    db_.addQueueRow(a_.betaMaster, kVault, REPLICATION_NEEDED);
    ASSERT_EQ(swap_rq(a_.vm.full, kVault, a_.betaMaster, kVault), 0);
    EXPECT_EQ(db_.queueRows(), (std::vector<std::string>{row(a_.betaMaster, kVault, 1), row(a_.hv.full, kVault, 1),
                                                        row(a_.vm.full, kVault, 1)}));

    // One backup on two vaults, with a row of it on a third vault untouched.
    db_.addQueueRow(a_.sql.full, kVault, REPLICATION_NEEDED);
    db_.addQueueRow(a_.sql.full, "third", REPLICATION_NEEDED);
    db_.addQueueRow(a_.sql.full, kOffsiteVault, REPLICATION_NEEDED);
    ASSERT_EQ(swap_rq(a_.sql.full, kVault, a_.sql.full, kOffsiteVault), 0);
    std::vector<std::string> rows = db_.queueRows();
    ASSERT_EQ(rows.size(), 6u);
    EXPECT_EQ(rows[3], row(a_.sql.full, kOffsiteVault, 1));
    EXPECT_EQ(rows[4], row(a_.sql.full, "third", 1));
    EXPECT_EQ(rows[5], row(a_.sql.full, kVault, 1));
}

TEST_F(QueueTest, RowCommandsAndStatusLookups)
{
    ASSERT_EQ(enqueue(a_.vm.diff, kVault), 0);
    EXPECT_EQ(getQueueStatus(a_.vm.diff, kVault), REPLICATION_NEEDED);
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
    EXPECT_EQ(backups[0], static_cast<uint64_t>(a_.vm.full));
    EXPECT_STREQ(vaults[0], kVault);
    EXPECT_EQ(backups[1], static_cast<uint64_t>(a_.vm.diff));
    EXPECT_STREQ(vaults[1], kOffsiteVault);
    EXPECT_EQ(listTerminated(backups, vaults, 1), 1);

    EXPECT_EQ(removeEntry(a_.vm.diff, kOffsiteVault), 0);
    EXPECT_EQ(removeEntry(a_.vm.diff, kOffsiteVault), 0);  // nothing left: still fine
    EXPECT_EQ(db_.queueStatus(a_.vm.diff, kOffsiteVault), -1);

    db_.exec("DELETE FROM tq.backups WHERE backup_no = " + std::to_string(a_.vm.full));
    EXPECT_EQ(db_.queueStatus(a_.vm.full, kVault), -1);  // gone by cascade
}

TEST_F(QueueTest, ResetInProgressPutsRowsBackToWaiting)
{
    db_.addQueueRow(a_.vm.full, kVault, REPLICATION_IN_PROGRESS);
    db_.addQueueRow(a_.hv.full, kOffsiteVault, REPLICATION_IN_PROGRESS);
    db_.addQueueRow(a_.betaMaster, kVault, REPLICATION_OUT_OF_ORDER);
    ASSERT_EQ(resetInProgress(), 0);
    EXPECT_EQ(db_.queueRows(), (std::vector<std::string>{row(a_.vm.full, kVault, 1),
                                                        row(a_.hv.full, kOffsiteVault, 1),
                                                        row(a_.betaMaster, kVault, 128)}));
}

TEST_F(QueueTest, RetentionQueuesWhatNeedsSyncOldestFirst)
{
    strcpy(g_settings.SyncTo, kVault);
    g_settings.QueueScheme = QUEUE_SCHEME_RETENTION;
    db_.setSyncStatus({a_.vm.incr1, a_.hv.full, a_.betaDiff}, 1);
    db_.setSyncStatus({a_.sql.full}, 3);      // not exactly 1: left out
    db_.addQueueRow(a_.exchange.full, kOffsiteVault, REPLICATION_NEEDED);
    db_.setSyncStatus({a_.exchange.full}, 1);  // queued for another vault: left out

    updateQueue();
    EXPECT_EQ(db_.queueRows(),
              (std::vector<std::string>{row(a_.exchange.full, kOffsiteVault, 1), row(a_.hv.full, kVault, 1),
                                        row(a_.vm.full, kVault, 1), row(a_.vm.diff, kVault, 1),
                                        row(a_.vm.incr1, kVault, 1), row(a_.betaMaster, kVault, 1),
                                        row(a_.betaDiff, kVault, 1)}));
    // A second pass finds every candidate queued.
    EXPECT_EQ(fifoEnqueue(), 0);

    // Scheme 0 and an empty SyncTo add nothing.
    db_.setSyncStatus({a_.files.bareMetal}, 1);
    g_settings.QueueScheme = QUEUE_SCHEME_NONE;
    updateQueue();
    g_settings.QueueScheme = QUEUE_SCHEME_RETENTION;
    g_settings.SyncTo[0] = '\0';
    updateQueue();
    EXPECT_EQ(db_.queueStatus(a_.files.bareMetal, kVault), -1);
}

TEST_F(QueueTest, RetentionDoesNotQueueBehindANewerBackup)
{
    strcpy(g_settings.SyncTo, kVault);
    db_.addQueueRow(a_.vm.incr2, kVault, REPLICATION_COMPLETE);
    db_.setSyncStatus({a_.vm.incr1}, 1);
    capturedLog().mark();
    EXPECT_EQ(fifoEnqueue(), 1);
    EXPECT_EQ(db_.queueStatus(a_.vm.incr1, kVault), -1);
    EXPECT_NE(log().find("fifoEnqueue: Attempt was made to add backup " + std::to_string(a_.vm.incr1) +
                         " to the queue out of order."),
              std::string::npos);
    // Its sync-needed bit is cleared: it will never be queued.
    EXPECT_EQ(log().find("Failed to clear sync"), std::string::npos);
    EXPECT_EQ(db_.value("SELECT sync_status FROM tq.backups WHERE backup_no = " + std::to_string(a_.vm.incr1)), "0");
    EXPECT_EQ(fifoEnqueue(), 0);
}

TEST_F(QueueTest, RecencyKeepsOnlyTheNewestRestorePointWaiting)
{
    strcpy(g_settings.SyncTo, kVault);
    g_settings.QueueScheme = QUEUE_SCHEME_RECENCY;
    // Rows of the file chain and a bare metal backup from earlier passes.
    ASSERT_EQ(enqueue(a_.files.incr1, kVault), 0);
    ASSERT_EQ(enqueue(a_.files.bareMetal, kVault), 0);
    // Since then a new master and a differential on it need sending.
    BackupSpec spec;
    spec.node_no = a_.alpha;
    spec.instance_id = a_.files.instance;
    spec.properties = kPropDeduplicated | kPropSynthesisCapable;
    spec.sync_status = 1;
    int64_t master2 = db_.addBackup(spec);
    spec.type = btype::kDifferential;
    int64_t diff3 = db_.addBackup(spec);
    updateQueue();
    // The old chain is gone with its sync bits; the bare metal row stays.
    std::vector<std::string> rows = db_.queueRows();
    EXPECT_EQ(rows, (std::vector<std::string>{row(a_.files.bareMetal, kVault, 1), row(master2, kVault, 1),
                                             row(diff3, kVault, 1)}))
        << ::testing::PrintToString(rows);
    EXPECT_EQ(db_.value("SELECT string_agg(sync_status::text, ',' ORDER BY backup_no) FROM tq.backups WHERE "
                        "backup_no IN (" + std::to_string(a_.files.master) + "," + std::to_string(a_.files.diff1) +
                        "," + std::to_string(a_.files.incr1) + "," + std::to_string(a_.files.bareMetal) + ")"),
              "0,0,0,1");

    // A second pass changes nothing.
    updateQueue();
    EXPECT_EQ(db_.queueRows(), rows);
}

TEST_F(QueueTest, LifoQueuesTheNewestFinishedBackupOfEachInstance)
{
    strcpy(g_settings.SyncTo, kVault);
    // beta's newest backup is still running: the one before it is taken.
    db_.setSyncStatus({a_.files.incr3, a_.betaDiff, a_.betaRunning}, 1);
    db_.setSyncStatus({a_.vm.incr2}, 1);  // not the newest of its instance
    ASSERT_EQ(lifoEnqueue(), 0);
    EXPECT_EQ(db_.queueRows(), (std::vector<std::string>{row(a_.files.master, kVault, 1),
                                                        row(a_.files.diff2, kVault, 1),
                                                        row(a_.files.incr3, kVault, 1), row(a_.betaMaster, kVault, 1),
                                                        row(a_.betaDiff, kVault, 1)}));
    g_settings.SyncTo[0] = '\0';
    db_.exec("DELETE FROM tq.replication_queue");
    EXPECT_EQ(lifoEnqueue(), 0);
    EXPECT_TRUE(db_.queueRows().empty());
}

TEST_F(QueueTest, PruneDropsOlderWaitingRowsButKeepsBareMetal)
{
    db_.addQueueRow(a_.files.master, kVault, REPLICATION_NEEDED);
    db_.addQueueRow(a_.files.diff1, kVault, REPLICATION_NEEDED);
    db_.addQueueRow(a_.files.bareMetal, kVault, REPLICATION_NEEDED);
    db_.addQueueRow(a_.files.incr1, kOffsiteVault, REPLICATION_NEEDED);  // another vault: kept
    db_.setSyncStatus({a_.files.master, a_.files.diff1, a_.files.bareMetal, a_.files.incr1}, 1);
    // A newer master of the instance makes the waiting chain unnecessary.
    BackupSpec newer;
    newer.node_no = a_.alpha;
    newer.instance_id = a_.files.instance;
    newer.properties = kPropDeduplicated | kPropSynthesisCapable;
    int64_t newMaster = db_.addBackup(newer);

    ASSERT_EQ(pruneSuperseded(newMaster, kVault), 0);
    EXPECT_EQ(db_.queueRows(), (std::vector<std::string>{row(a_.files.bareMetal, kVault, 1),
                                                        row(a_.files.incr1, kOffsiteVault, 1)}));
    EXPECT_EQ(db_.value("SELECT string_agg(sync_status::text, ',' ORDER BY backup_no) FROM tq.backups WHERE "
                        "backup_no IN (" + std::to_string(a_.files.master) + "," + std::to_string(a_.files.diff1) +
                        "," + std::to_string(a_.files.bareMetal) + ")"),
              "0,0,1");
    EXPECT_EQ(pruneSuperseded(987654, kVault), -1);
}

TEST_F(QueueTest, RepairOutOfOrderDropsLaterRows)
{
    db_.addQueueRow(a_.vm.full, kVault, REPLICATION_COMPLETE);
    db_.addQueueRow(a_.vm.diff, kVault, REPLICATION_OUT_OF_ORDER);
    db_.addQueueRow(a_.vm.incr1, kVault, REPLICATION_COMPLETE);
    db_.addQueueRow(a_.vm.incr2, kVault, REPLICATION_NEEDED);
    db_.addQueueRow(a_.hv.incr2, kVault, REPLICATION_NEEDED);  // another instance
    ASSERT_EQ(getReplicationStatus(a_.vm.diff), REPLICATION_OUT_OF_ORDER);
    capturedLog().mark();
    ASSERT_EQ(repairOutOfOrder(a_.vm.diff), 0);
    EXPECT_EQ(db_.queueRows(), (std::vector<std::string>{row(a_.vm.full, kVault, 2), row(a_.vm.diff, kVault, 1),
                                                        row(a_.hv.incr2, kVault, 1)}));
    std::string text = log();
    EXPECT_NE(text.find("Delete 2 backups from the replication_queue that are out of order with " +
                        std::to_string(a_.vm.diff)),
              std::string::npos);
    EXPECT_NE(text.find("The status for backup " + std::to_string(a_.vm.diff) + " was updated"), std::string::npos);
}

TEST_F(QueueTest, RepairWithoutLaterReplicatedBackupsOnlyResets)
{
    db_.addQueueRow(a_.vm.diff, kVault, REPLICATION_OUT_OF_ORDER);
    db_.addQueueRow(a_.vm.incr1, kVault, REPLICATION_NEEDED);
    capturedLog().mark();
    ASSERT_EQ(repairOutOfOrder(a_.vm.diff), 0);
    EXPECT_EQ(db_.queueRows(), (std::vector<std::string>{row(a_.vm.diff, kVault, 1), row(a_.vm.incr1, kVault, 1)}));
    EXPECT_NE(log().find("There are no backups on the replication_queue that are out of order"), std::string::npos);

    EXPECT_EQ(repairOutOfOrder(a_.hv.full), -1);  // no row to reset
    EXPECT_EQ(repairOutOfOrder(987654), -1);
    EXPECT_NE(log().find("Failed to get backup information for 987654."), std::string::npos);
}

TEST_F(QueueTest, CreateQueueRefusesAnExistingTable)
{
    capturedLog().mark();
    EXPECT_EQ(create_replication_queue(), -1);
    EXPECT_NE(log().find("already exists"), std::string::npos);
}

} // namespace
