// replicationQueue: the tq.replication_queue table, the single source of truth
// for what is sent to which vault. There is no queue in memory: the parent,
// its workers and `ferryd util` all act on rows, and one SQL statement
// decides which backup goes next.
//
// Results: 0 success, -1 failure unless a function says otherwise. Every
// failure is logged where it happens ("Query too long for buffer",
// "Failed query\n"). Vault names reach SQL escaped, never raw.
#pragma once

#include <cstddef>
#include <cstdint>

// The exported name of the queue table.
extern const char* const QUEUE_DATABASE;

// Values of replication_queue.status: single bits, one per row at a time.
enum ReplicationStatus : int {
    REPLICATION_NEEDED = 1,
    REPLICATION_COMPLETE = 2,
    REPLICATION_ABANDONED = 4,
    REPLICATION_CANCELLED = 8,
    REPLICATION_IN_PROGRESS = 16,
    REPLICATION_TERMINATE = 32,
    REPLICATION_NEED_ASSIST = 64,
    REPLICATION_OUT_OF_ORDER = 128,
};
// A row in any of these states makes its instance busy or paused.
constexpr int REPLICATION_BUSY_MASK = REPLICATION_IN_PROGRESS | REPLICATION_NEED_ASSIST | REPLICATION_OUT_OF_ORDER;

// Bits of tq.backups.sync_status moved by the queue.
constexpr int ST_SYNC_NEEDED = 1;
constexpr int ST_SYNC_DONE = 2;

// Queue schemes (QueueScheme of section "Replication").
constexpr int QUEUE_SCHEME_NONE = 0;
constexpr int QUEUE_SCHEME_RETENTION = 1;
constexpr int QUEUE_SCHEME_RECENCY = 2;

// Vault names in the queue's buffers: 63 characters and the terminator.
constexpr size_t QUEUE_VAULT_SIZE = 64;

// Creates the table with the bare statement (no rep_start column: dequeue
// needs the schema's full table).
int create_replication_queue();

// Adds `backup_no` for `vault` together with the backups it needs to be
// restored, in restore order, so a master takes its position before the
// differentials that need it. Rows that are complete, in progress or paused
// are left alone; any other existing row goes back to REPLICATION_NEEDED.
// 0, also when the group cannot be found (logged, backup skipped); -1 when
// the backup's type cannot be read (missing backup included) or a row could
// not be written.
int enqueue(uint64_t backup_no, const char* vault);

// Marks the backup sync-needed and inserts its row in REPLICATION_NEEDED.
// -1 if either statement fails; a failed sync update is logged and the
// insert still tried.
int insertRow(uint64_t backup_no, const char* vault);

// Status of the row of `backup_no` on `vault`; 0 when there is none, -1 on
// failure.
int getQueueStatus(uint64_t backup_no, const char* vault);

int setQueueStatus(uint64_t backup_no, const char* vault, unsigned status);
// Row to REPLICATION_COMPLETE.
int completeEntry(uint64_t backup_no, const char* vault);
// Row to REPLICATION_TERMINATE, for the parent's terminated-row handling.
int markForCleanup(uint64_t backup_no, const char* vault);
// Deletes the row (0 also when there was none).
int removeEntry(uint64_t backup_no, const char* vault);

// Exchanges the positions of two rows in one statement; also for one backup
// on two vaults.
int swap_rq(uint64_t a, const char* vaultA, uint64_t b, const char* vaultB);

// Daemon start: every REPLICATION_IN_PROGRESS row back to REPLICATION_NEEDED.
int resetInProgress();

// The backup at `offset` among the waiting rows in queue order; 0 when there
// is none, -1 on failure.
int64_t peek(int offset);

// Up to `limit` rows in REPLICATION_TERMINATE, in queue order, into
// `backups` and `vaults`. Number of rows, -1 on failure.
int listTerminated(uint64_t* backups, char (*vaults)[QUEUE_VAULT_SIZE], unsigned limit);

// Picks the next backup: the lowest position in REPLICATION_NEEDED whose
// backup still has a medium, of an instance with no row in progress or
// paused on any vault. Its vault is copied into `vaultOut` (at most
// `vaultSize` - 1 characters) and the row goes to REPLICATION_IN_PROGRESS
// with rep_start now. The backup, 0 when there is nothing, -1 on failure.
// Only the parent calls it, one call at a time.
int64_t dequeue(char* vaultOut, size_t vaultSize = QUEUE_VAULT_SIZE);

// Status of the backup's only row; 0 unless exactly one row exists.
int getReplicationStatus(uint64_t backup_no);

// After the target accepted a forced restart of an out-of-order backup:
// drops the instance's later rows if a later backup already replicated, and
// sets the backup's row back to REPLICATION_NEEDED. 0 or -1.
int repairOutOfOrder(uint64_t backup_no);

// One pass of the queue scheme of g_settings.QueueScheme: 0 nothing,
// 1 Retention (fifoEnqueue), 2 Recency (fifoEnqueue then lifoEnqueue).
void updateQueue();

// Queues, oldest first, the sync-needed backups for g_settings.SyncTo that
// have no row on any vault. Number of candidates, -1 on failure; 0 when
// SyncTo is empty.
int fifoEnqueue();

// For each instance, most important first: its newest finished backup is
// queued when it needs sending, and what it supersedes is pruned. 0 or -1.
int lifoEnqueue();

// Drops the waiting rows of the backup's instance on `vault` that are older
// than the first full backup of its restore group, and their sync-needed
// bits; type 1024 rows stay. 0 or -1.
int pruneSuperseded(uint64_t backup_no, const char* vault);

// sync_status bit updates. 0 or -1 ("Failed to clear sync\n").
int clearSyncNeeded(uint64_t backup_no);
int setSyncDone(uint64_t backup_no);
