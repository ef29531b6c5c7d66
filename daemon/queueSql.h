// queueSql: the statements of the replication queue, as printf formats. Other
// parts of the appliance and scripts on it know these texts, so they stand
// here once, exactly as the queue sends them (odd blanks included).
// '%s' in quotes is always a vault name escaped with pgEscape first.
#pragma once

namespace queuesql {

inline constexpr const char* kCreateTable =
    "CREATE TABLE tq.replication_queue (backup_no BIGINT REFERENCES tq.backups (backup_no) ON DELETE CASCADE, "
    "vault TEXT, position SERIAL, status INTEGER)";

// insertRow: (1, backup, 1), then (table, backup, vault, 1).
inline constexpr const char* kMarkSyncNeeded =
    "UPDATE backups SET sync_status=%d WHERE backup_no=%lu AND sync_status != %d";
inline constexpr const char* kInsertRow = "INSERT INTO %s (backup_no, vault, status) VALUES (%lu,'%s',%d)";

inline constexpr const char* kGetStatus = "SELECT status FROM %s WHERE backup_no = %lu AND vault = '%s'";
inline constexpr const char* kSetStatus = "UPDATE %s SET status = %u WHERE backup_no = %lu AND vault = '%s'";
// completeEntry (2) and markForCleanup (32).
inline constexpr const char* kSetStatusTrailing = "UPDATE %s SET status = %d WHERE backup_no = %lu AND vault = '%s' ";
inline constexpr const char* kRemoveEntry = "DELETE FROM %s WHERE backup_no = %lu AND vault = '%s' ";
// resetInProgress: (table, 1, 16).
inline constexpr const char* kResetInProgress = "UPDATE %s SET status = %d WHERE status = %d ";
inline constexpr const char* kPeek = "SELECT backup_no FROM %s WHERE status = %d ORDER BY position LIMIT 1 OFFSET %d";
inline constexpr const char* kListTerminated =
    "SELECT backup_no,vault FROM %s WHERE status = %d ORDER BY position LIMIT %u";
inline constexpr const char* kGetReplicationStatus = "SELECT status FROM tq.replication_queue WHERE backup_no=%llu";

// dequeue: (1, -1, 208), then (table, 16, now, backup, vault).
inline constexpr const char* kDequeueSelect =
    "SELECT q.backup_no,q.vault FROM tq.replication_queue q JOIN tq.backups b ON (q.backup_no=b.backup_no) "
    "WHERE q.status= %d AND b.tape_no!= %d AND b.instance_id NOT IN (SELECT b.instance_id FROM "
    "tq.replication_queue q JOIN tq.backups b ON (q.backup_no=b.backup_no) WHERE (q.status & %d) != 0) "
    "ORDER BY position LIMIT 1";
inline constexpr const char* kDequeueUpdate =
    "UPDATE %s SET status = %d, rep_start = %llu WHERE backup_no = %ld AND vault = '%s'";

inline constexpr const char* kBackupType = "SELECT type FROM tq.backups WHERE backup_no = %lu ";

// swap_rq: (table, a, vaultA, table, b, vaultB, b, vaultB, table, a, vaultA, a, b).
inline constexpr const char* kSwap =
    "UPDATE %s  SET position = CASE backup_no  WHEN %lu THEN  CASE vault  WHEN '%s' THEN  (SELECT position FROM "
    "%s WHERE backup_no = %lu AND vault = '%s')  ELSE position  END  WHEN %lu THEN  CASE vault  WHEN '%s' THEN  "
    "(SELECT position FROM %s WHERE backup_no = %lu AND vault = '%s')  ELSE position  END  END  WHERE backup_no "
    "IN (%lu,%lu)";
// swap_rq of one backup on two vaults, which kSwap cannot do: both rows
// match its first WHEN. (table, vaultA, table, backup, vaultB, vaultB, table,
// backup, vaultA, backup, vaultA, vaultB).
inline constexpr const char* kSwapVaults =
    "UPDATE %s SET position = CASE vault WHEN '%s' THEN (SELECT position FROM %s WHERE backup_no = %lu AND "
    "vault = '%s') WHEN '%s' THEN (SELECT position FROM %s WHERE backup_no = %lu AND vault = '%s') ELSE position "
    "END WHERE backup_no = %lu AND vault IN ('%s','%s')";

// fifoEnqueue: (1, 2048, 2048, 80, 2048, 2048, 512, 1, 12, 1031).
inline constexpr const char* kFifoCandidates =
    "SELECT b.backup_no FROM tq.backups b left join tq.replication_queue q ON (b.backup_no=q.backup_no) WHERE "
    "q.position IS NULL AND sync_status=%d AND (instance_id NOT IN (SELECT DISTINCT instance_id FROM tq.backups "
    "WHERE (properties&%d)=%d AND (status&%d)=0) OR ((properties&%d)=%d AND (b.status&%d)=0 AND type IN "
    "(%u,%u,%u))) ORDER BY backup_no ASC";
// (backup, vault, backup).
inline constexpr const char* kFifoNewerQueued =
    "SELECT q.backup_no FROM tq.replication_queue q JOIN tq.backups b ON (q.backup_no=b.backup_no) WHERE "
    "q.backup_no>%ld AND q.vault = '%s' AND b.instance_id=(SELECT instance_id FROM tq.backups WHERE "
    "backup_no=%ld)";

// The sync bit updates were long written without a blank before WHERE
// ("~%dWHERE"). PostgreSQL 15 refuses "1WHERE" as trailing junk after a
// number, which would leave every bit update failing, so the blank is there.
inline constexpr const char* kClearSyncNeeded =
    "UPDATE tq.backups SET sync_status = sync_status & ~%d WHERE (backup_no = %d)";
inline constexpr const char* kSetSyncDone = "UPDATE tq.backups SET sync_status = sync_status | %d WHERE (backup_no = %d)";

inline constexpr const char* kLifoInstances = "SELECT instance_id FROM tq.application_instances ORDER BY priority DESC";
// (instance, 512, 512, instance, 512, 512, 512, instance).
inline constexpr const char* kLifoNewest =
    "SELECT backup_no,sync_status FROM tq.backups WHERE CASE WHEN (SELECT start_time FROM tq.backups WHERE "
    "instance_id=%llu AND (status & %d )=%d ORDER BY start_time DESC LIMIT 1) IS NOT NULL THEN start_time<(SELECT "
    "start_time FROM tq.backups WHERE instance_id=%llu AND (status & %d )=%d ORDER BY start_time DESC LIMIT 1) "
    "ELSE TRUE END AND(status & %d )=0 AND instance_id=%llu  ORDER BY start_time DESC LIMIT 1";
// (backup, 2048, 2048, 80, 1, 1, backup).
inline constexpr const char* kLifoSyntheticWaiting =
    "SELECT backup_no FROM tq.backups WHERE instance_id=(SELECT instance_id FROM tq.backups WHERE backup_no=%ld) "
    "AND (properties & %d)=%d AND (status & %d )=0 AND (sync_status & %d)=%d AND start_time<=(SELECT start_time "
    "FROM tq.backups WHERE backup_no=%ld) ";
// (backup, 2048, 2048, 512, 1, 12, 1031, 1, 1).
inline constexpr const char* kLifoSyntheticFull =
    "SELECT backup_no FROM tq.backups WHERE backup_no=%ld AND (properties&%d)=%d AND (status&%d)=0 AND type IN "
    "(%u,%u,%u) AND (sync_status & %d)=%d";

// pruneSuperseded: (1, M, M, 1, vault, 1024, M, M, 1024), then
// (M, M, 1, vault, 1).
inline constexpr const char* kPruneClearSync =
    "UPDATE tq.backups SET sync_status=(sync_status & ~%d) WHERE backup_no IN ( SELECT q.backup_no FROM "
    "tq.replication_queue q JOIN tq.backups b ON (q.backup_no = b.backup_no) WHERE b.instance_id=(SELECT "
    "instance_id FROM tq.backups WHERE backup_no=%d) AND b.start_time<(SELECT start_time FROM tq.backups WHERE "
    "backup_no=%d) AND q.status=%d AND q.vault='%s' AND b.type != %d) OR backup_no IN ( SELECT backup_no FROM "
    "tq.backups b WHERE backup_no NOT IN (SELECT backup_no FROM tq.replication_queue) AND b.instance_id=(SELECT "
    "instance_id FROM tq.backups WHERE backup_no=%d) AND b.start_time<(SELECT start_time FROM tq.backups WHERE "
    "backup_no=%d) AND b.type = %d ) ";
inline constexpr const char* kPruneDelete =
    "DELETE FROM tq.replication_queue WHERE backup_no IN ( SELECT q.backup_no FROM tq.replication_queue q JOIN "
    "tq.backups b ON (q.backup_no = b.backup_no) WHERE b.instance_id=(SELECT instance_id FROM tq.backups WHERE "
    "backup_no=%d) AND b.start_time<(SELECT start_time FROM tq.backups WHERE backup_no=%d) AND q.status=%d AND "
    "q.vault='%s' AND b.sync_status!=%d)";

// repairOutOfOrder.
inline constexpr const char* kRepairBackupInfo = "SELECT start_time, instance_id FROM tq.backups WHERE backup_no=%llu";
inline constexpr const char* kRepairLaterComplete =
    "SELECT q.backup_no FROM tq.replication_queue q JOIN tq.backups b ON (q.backup_no=b.backup_no) WHERE "
    "b.instance_id=%lu AND b.start_time>%lu AND q.status = %d";
inline constexpr const char* kRepairLaterRows =
    "SELECT q.backup_no FROM tq.replication_queue q JOIN tq.backups b ON (q.backup_no=b.backup_no) WHERE "
    "b.instance_id=%lu AND b.start_time>%lu";
inline constexpr const char* kRepairDelete = "DELETE FROM replication_queue WHERE backup_no=%llu";
inline constexpr const char* kRepairReset = "UPDATE tq.replication_queue SET status=%d WHERE backup_no=%llu";

} // namespace queuesql
