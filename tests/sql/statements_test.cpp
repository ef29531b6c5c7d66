// statements_test: every SQL statement the programs send, filled with sample
// values, must be accepted by the schema in sql/. A statement that names a
// missing table, column, sequence or function fails here, by name, before any
// program meets it on an appliance.
//
// To add a statement: append one entry to kStatements (a name made of
// letters, digits and underscores, how to check it, and a function building
// the text). Prefer the program's own format constant with sqlf() over a
// copy of its text, so the two cannot drift.
#include "sql_test_support.h"

#include "admin/tqsqlQueries.h"
#include "daemon/queueSql.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

auto* const pgEnv = ::testing::AddGlobalTestEnvironment(new ferrytest::PgClusterEnvironment);

using sqltest::sqlf;

// How a statement is checked.
enum class Check {
    // Parsed, analysed and planned by the server (PQprepare) without running:
    // for SELECT, INSERT, UPDATE, DELETE. $n parameters are typed by the
    // server, as for the statements that pgQuery prepares.
    Prepare,
    // Run inside a transaction that is rolled back: for LOCK, DECLARE and
    // other commands that the server only analyses when it runs them.
    RunRolledBack,
    // Must be refused by the server with `refusal` in its message. For
    // statements whose text PostgreSQL 15 rejects whatever the schema: kept
    // here so that the day their text changes is seen.
    Refused,
};

struct Statement {
    const char* name;
    Check check;
    std::string (*text)();
    const char* refusal = nullptr;  // for Check::Refused
};

void PrintTo(const Statement& statement, std::ostream* out)
{
    *out << statement.name;
}

constexpr const char* kQueue = "tq.replication_queue";
constexpr const char* kUuid = "0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0";

// The filters of the restore-group lookup: same kind of client, not SDS, not
// purged, finished; the strict one also not failed.
std::string looseFilter()
{
    return sqlf(adminsql::kLooseFilter, 32u, 0UL, 1u, 0xFFFFFFFFu, 64u);
}
std::string strictFilter()
{
    return sqlf(adminsql::kStrictFilter, looseFilter().c_str(), 36888u);
}

const Statement kStatements[] = {
    // The replication queue (daemon/queueSql.h)
    {"queue_insert_row_sync_status", Check::Prepare, [] { return sqlf(queuesql::kMarkSyncNeeded, 1, 42UL, 1); }},
    {"queue_insert_row", Check::Prepare,
     [] { return sqlf(queuesql::kInsertRow, kQueue, 42UL, "vault1", 1); }},
    {"queue_get_status", Check::Prepare, [] { return sqlf(queuesql::kGetStatus, kQueue, 42UL, "vault1"); }},
    {"queue_set_status", Check::Prepare, [] { return sqlf(queuesql::kSetStatus, kQueue, 16u, 42UL, "vault1"); }},
    {"queue_complete_entry", Check::Prepare,
     [] { return sqlf(queuesql::kSetStatusTrailing, kQueue, 2, 42UL, "vault1"); }},
    {"queue_mark_for_cleanup", Check::Prepare,
     [] { return sqlf(queuesql::kSetStatusTrailing, kQueue, 32, 42UL, "vault1"); }},
    {"queue_remove_entry", Check::Prepare, [] { return sqlf(queuesql::kRemoveEntry, kQueue, 42UL, "vault1"); }},
    {"queue_reset_in_progress", Check::Prepare, [] { return sqlf(queuesql::kResetInProgress, kQueue, 1, 16); }},
    {"queue_peek", Check::Prepare, [] { return sqlf(queuesql::kPeek, kQueue, 1, 3); }},
    {"queue_list_terminated", Check::Prepare, [] { return sqlf(queuesql::kListTerminated, kQueue, 32, 16u); }},
    {"queue_get_replication_status", Check::Prepare,
     [] { return sqlf(queuesql::kGetReplicationStatus, 42ULL); }},
    {"queue_dequeue_select", Check::Prepare, [] { return sqlf(queuesql::kDequeueSelect, 1, -1, 208); }},
    {"queue_dequeue_update", Check::Prepare,
     [] { return sqlf(queuesql::kDequeueUpdate, kQueue, 16, 1700000000ULL, 42L, "vault1"); }},
    {"queue_enqueue_type", Check::Prepare, [] { return sqlf(queuesql::kBackupType, 42UL); }},
    {"queue_fifo_candidates", Check::Prepare,
     [] { return sqlf(queuesql::kFifoCandidates, 1, 2048, 2048, 80, 2048, 2048, 512, 1u, 12u, 1031u); }},
    {"queue_fifo_out_of_order", Check::Prepare,
     [] { return sqlf(queuesql::kFifoNewerQueued, 42L, "vault1", 42L); }},
    {"queue_clear_sync_needed", Check::Prepare, [] { return sqlf(queuesql::kClearSyncNeeded, 1, 42); }},
    {"queue_set_sync_done", Check::Prepare, [] { return sqlf(queuesql::kSetSyncDone, 2, 42); }},
    {"queue_lifo_instances", Check::Prepare, [] { return std::string(queuesql::kLifoInstances); }},
    {"queue_lifo_newest", Check::Prepare,
     [] { return sqlf(queuesql::kLifoNewest, 7ULL, 512, 512, 7ULL, 512, 512, 512, 7ULL); }},
    {"queue_lifo_prior_marked", Check::Prepare,
     [] { return sqlf(queuesql::kLifoSyntheticWaiting, 42L, 2048, 2048, 80, 1, 1, 42L); }},
    {"queue_lifo_candidate_full", Check::Prepare,
     [] { return sqlf(queuesql::kLifoSyntheticFull, 42L, 2048, 2048, 512, 1u, 12u, 1031u, 1, 1); }},
    {"queue_prune_clear_sync", Check::Prepare,
     [] { return sqlf(queuesql::kPruneClearSync, 1, 42, 42, 1, "vault1", 1024, 42, 42, 1024); }},
    {"queue_prune_delete", Check::Prepare,
     [] { return sqlf(queuesql::kPruneDelete, 42, 42, 1, "vault1", 1); }},
    {"queue_swap", Check::Prepare,
     [] {
         return sqlf(queuesql::kSwap, kQueue, 42UL, "vault1", kQueue, 43UL, "vault1", 43UL, "vault1", kQueue, 42UL,
                     "vault1", 42UL, 43UL);
     }},
    {"queue_swap_vaults", Check::Prepare,
     [] {
         return sqlf(queuesql::kSwapVaults, kQueue, "vault1", kQueue, 42UL, "vault2", "vault2", kQueue, 42UL,
                     "vault1", 42UL, "vault1", "vault2");
     }},
    {"queue_repair_backup", Check::Prepare, [] { return sqlf(queuesql::kRepairBackupInfo, 42ULL); }},
    {"queue_repair_later_complete", Check::Prepare,
     [] { return sqlf(queuesql::kRepairLaterComplete, 7UL, 1700000000UL, 2); }},
    {"queue_repair_later_rows", Check::Prepare,
     [] { return sqlf(queuesql::kRepairLaterRows, 7UL, 1700000000UL); }},
    {"queue_repair_delete", Check::Prepare, [] { return sqlf(queuesql::kRepairDelete, 43ULL); }},
    {"queue_repair_status", Check::Prepare, [] { return sqlf(queuesql::kRepairReset, 1, 42ULL); }},
    // Backup group lookups (admin/tqsqlQueries.h)
    {"groups_synthesis_backup", Check::Prepare, [] { return sqlf(adminsql::kSynthBackupAttributes, 42UL); }},
    {"groups_synthesis_members", Check::Prepare,
     [] {
         return sqlf(adminsql::kSynthGroup, "1,2,3", 3UL, 7UL, 42UL, 0, 2, 2048UL, 0, 1, 2048UL, 2, 1, 3UL, 7UL,
                     42UL, 0, 2, 2048UL, 0, 1, 2048UL, 1, 3UL, 7UL, 42UL);
     }},
    {"groups_restore_backup", Check::Prepare, [] { return sqlf(adminsql::kRestoreBackupAttributes, 42UL); }},
    {"groups_restore_sql_file_group", Check::Prepare,
     [] {
         return sqlf(adminsql::kSqlFileGroup, adminsql::kRestoreFields, 42UL, 9u, 9u, 10u, strictFilter().c_str());
     }},
    {"groups_restore_family_of_three", Check::Prepare,
     [] { return sqlf(adminsql::kRestoreGroup3, 42UL, 12, 13, 14, strictFilter().c_str()); }},
    {"groups_restore_family_of_two", Check::Prepare,
     [] { return sqlf(adminsql::kRestoreGroup2, 42UL, 1034, 1035, strictFilter().c_str()); }},
    {"groups_restore_own_type", Check::Prepare,
     [] { return sqlf(adminsql::kRestoreGroup1, 42UL, 1UL, looseFilter().c_str()); }},
    {"groups_application_info", Check::Prepare, [] { return sqlf(adminsql::kApplicationInfo, 42UL); }},
    {"groups_is_encrypted", Check::Prepare, [] { return sqlf(adminsql::kIsEncrypted, 0x100UL, 42); }},
    {"groups_instance_name", Check::Prepare, [] { return sqlf(adminsql::kInstanceName, 7UL); }},
    {"groups_column_exists", Check::Prepare, [] { return sqlf(adminsql::kColumnExists, "$1", "$2"); }},
    // The replication worker
    {"worker_local_status", Check::Prepare,
     [] { return sqlf("SELECT status FROM tq.backups WHERE backup_no=%ld", 42L); }},
    {"worker_local_tape", Check::Prepare,
     [] { return sqlf("SELECT tape_no FROM tq.backups WHERE backup_no=%ld", 42L); }},
    {"worker_device_no", Check::Prepare,
     [] { return sqlf("SELECT device_no FROM tq.devices WHERE dev_name=(SELECT tape_drive_name FROM "
                     "tq.filesets  WHERE fileset_no=(SELECT fileset_no FROM tq.backups WHERE "
                     "backup_no=%ld))", 42L); }},
    {"worker_is_hashed", Check::Prepare,
     [] { return sqlf("SELECT backup_no FROM tq.backups WHERE ((properties & %d)!=0) AND backup_no=%ld",
                     1536, 42L); }},
    {"worker_harco_directory", Check::Prepare,
     [] { return sqlf("SELECT dev_rw_name FROM tq.devices WHERE dev_name=(SELECT tape_drive_name FROM "
                     "tq.filesets  WHERE fileset_no=(SELECT fileset_no FROM tq.backups WHERE "
                     "backup_no=%ld))", 42L); }},
    // Utility commands
    {"util_create_types", Check::Prepare,
     [] { return sqlf("INSERT INTO tq.operation_names VALUES (%d,'%s');",
                     6, "prepare"); }},
    {"util_status_listing", Check::Prepare,
     [] { return sqlf("SELECT tq.replication_queue.backup_no,tq.replication_queue.status as "
                     "replication_queue_status,tq.backups.instance_id, "
                     "tq.backups.properties,tq.backups.status as "
                     "backups_status,tq.backups.type,tq.backups.start_time FROM tq.replication_queue "
                     "INNER JOIN tq.backups ON tq.replication_queue.backup_no=tq.backups.backup_no order "
                     "by tq.backups.instance_id, tq.replication_queue.position "); }},
    // Progress and statistics
    {"progress_type_name", Check::Prepare,
     [] { return sqlf("SELECT b.type AS btype, al.type AS atype FROM tq.backups b INNER JOIN "
                     "tq.application_instances ai USING (instance_id) INNER JOIN tq.application_lookup al "
                     "USING (app_id) WHERE backup_no=%ld", 42L); }},
    {"progress_total_megs", Check::Prepare,
     [] { return sqlf("SELECT total_megs FROM tq.backups WHERE backup_no=%ld", 42L); }},
    {"progress_client_name", Check::Prepare,
     [] { return sqlf("SELECT CASE WHEN (properties & %d)=0 THEN node_name ELSE gcname END AS client_name "
                     "FROM tq.nodes WHERE node_no=(SELECT node_no FROM tq.backups WHERE backup_no=%ld)",
                     32, 42L); }},
    {"progress_update", Check::Prepare,
     [] { return sqlf("UPDATE tq.operation_progress SET current_size = %ld, snapshot_time = %ld WHERE ( "
                     "start_time = %ld AND final_size = %lu AND backup_no = %ld AND backup_type = '%s' "
                     "AND on_behalf_of = '%s' AND source = '%s' AND destination = '%s' AND name_id = "
                     "(SELECT name_id FROM tq.operation_names  WHERE name_value = '%s') )",
                     10L, 1700000005L, 1700000000L, 100UL, 42L, "Master", "client1", "appliance1", "vault1",
                     "replicate"); }},
    {"progress_insert", Check::Prepare,
     [] { return sqlf("INSERT INTO tq.operation_progress ( name_id, start_time, snapshot_time, final_size, "
                     "current_size, pid_to_kill, on_behalf_of, source, destination, backup_no, "
                     "backup_type ) VALUES ( (SELECT name_id FROM tq.operation_names  WHERE name_value = "
                     "'%s'), %ld, %ld, %ld, %ld, %d, '%s', '%s', '%s', %ld, '%s' )",
                     "replicate", 1700000000L, 1700000005L, 100L, 0L, 4242, "client1", "appliance1", "vault1", 42L,
                     "Master"); }},
    {"progress_delete", Check::Prepare,
     [] { return sqlf("DELETE FROM tq.operation_progress WHERE (( backup_no = %ld AND backup_type = '%s' "
                     "AND on_behalf_of = '%s' AND source = '%s' AND destination = '%s' AND name_id = "
                     "(SELECT name_id FROM tq.operation_names WHERE name_value = '%s') ) OR ( "
                     "snapshot_time < %ld ))",
                     42L, "Master", "client1", "appliance1", "vault1", "replicate", 1699996400L); }},
    {"progress_summary_charts", Check::Prepare,
     [] { return sqlf("SELECT update_summary_charts('replication', %llu, %llu, %llu, %llu)",
                     1048576ULL, 4096ULL, 3ULL, 4ULL); }},
    {"progress_sds_stats", Check::Prepare,
     [] { return sqlf("INSERT INTO tq.sds_stats (client_name,  backup_no,  sync_type, presync_seconds, "
                     "sync_seconds, postsync_seconds, done_epoch, bytes_on_nlu, bytes_syncd, "
                     "bytes_on_nlv, message, destination)  VALUES ((SELECT CASE WHEN (properties & %d)=0 "
                     "THEN node_name ELSE gcname END AS client_name FROM tq.nodes where node_no=(SELECT "
                     "node_no FROM tq.backups WHERE  backup_no=%ld)), %ld, (SELECT type_id FROM "
                     "tq.sync_type WHERE type_name='%s'), %llu, %llu, %llu, %llu, (SELECT total_megs FROM "
                     "tq.backups WHERE backup_no=%ld)*1048576, %llu, (SELECT total_megs FROM tq.backups "
                     "WHERE backup_no=%ld)*1048576, $$%s$$, '%s')",
                     32, 42L, 42L, "Master", 1ULL, 2ULL, 3ULL, 1700000000ULL, 42L, 4096ULL, 42L, "Success: ",
                     "vault1"); }},
    {"progress_estimate_backup", Check::Prepare,
     [] { return sqlf("SELECT properties, type, total_megs from tq.backups WHERE (backup_no = %lu)",
                     42UL); }},
    {"progress_estimate_file_count", Check::Prepare,
     [] { return sqlf("SELECT count(*) FROM tq.backup_files WHERE (backup_no = %lu)",
                     42UL); }},
    {"progress_estimate_small_files", Check::Prepare,
     [] { return sqlf("SELECT sum(size) FROM tq.backup_files WHERE (backup_no = %lu and size<%d)",
                     42UL, 7681); }},
    {"progress_estimate_large_files", Check::Prepare,
     [] { return sqlf("SELECT sum(size) FROM tq.backup_files WHERE (backup_no = %lu and size>=%d)",
                     42UL, 7681); }},
    // Local block elimination
    {"elimination_properties", Check::Prepare,
     [] { return sqlf("SELECT properties FROM tq.backups WHERE backup_no=%ld", 42L); }},
    {"elimination_last_master", Check::Prepare,
     [] { return sqlf("SELECT backup_no FROM tq.backups WHERE sync_status=%u AND instance_id=(SELECT "
                     "instance_id FROM tq.backups WHERE backup_no=%llu) AND type IN (%d,%d,%d,%d,%d) AND "
                     "backup_no<%llu ORDER BY backup_no DESC LIMIT 1 ",
                     2u, 42ULL, 1, 5, 9, 12, 1031, 42ULL); }},
    {"elimination_last_group", Check::Prepare,
     [] { return sqlf("SELECT backup_no FROM tq.backups WHERE sync_status=%d AND instance_id=(SELECT "
                     "instance_id FROM tq.backups WHERE backup_no=%llu) AND backup_no>=%llu AND "
                     "backup_no<%llu ", 2, 42ULL, 40ULL, 42ULL); }},
    {"elimination_instance", Check::Prepare,
     [] { return sqlf("SELECT backup_no FROM tq.backups WHERE sync_status=%d AND instance_id=(SELECT "
                     "instance_id FROM tq.backups WHERE backup_no=%llu) ",
                     2, 42ULL); }},
    {"elimination_all_done", Check::Prepare,
     [] { return sqlf("SELECT backup_no FROM tq.backups WHERE sync_status=%d ", 2); }},
    // Backup identity
    {"ubi_check_local", Check::Prepare,
     [] { return sqlf("SELECT status, properties FROM tq.backups WHERE backup_no=%ld",
                     42L); }},
    {"ubi_backup_info", Check::Prepare,
     [] { return sqlf("SELECT identity, start_time, type FROM backups JOIN application_instances "
                     "USING(instance_id) WHERE backup_no = %ld",
                     42L); }},
    {"ubi_find_backup", Check::Prepare,
     [] { return sqlf("SELECT backup_no FROM backups JOIN application_instances USING(instance_id) WHERE "
                     "LOWER(identity) = LOWER('%s') AND type = %ld AND start_time = %ld AND (properties & "
                     "%d) = %d AND (status & %d) = 0 AND tape_no != %u ORDER BY backup_no DESC",
                     kUuid, 1L, 1700000000L, 0x4000, 0x4000, 0x9018, 0xFFFFFFFFu); }},
    // Metadata export
    {"export_backup", Check::Prepare,
     [] { return sqlf("SELECT node_no, instance_id, b.properties, system_id FROM backups b JOIN nodes "
                     "USING(node_no) WHERE backup_no = %ld AND tape_no != %u",
                     42L, 0xFFFFFFFFu); }},
    {"export_source_system", Check::Prepare,
     [] { return sqlf("SELECT name, identity AS appl_uuid FROM systems WHERE system_id = %ld",
                     1L); }},
    {"export_this_system_re_replicated", Check::Prepare,
     [] { return sqlf("SELECT name, install_id FROM systems, state WHERE is_local_system = true"); }},
    {"export_this_system", Check::Prepare,
     [] { return sqlf("SELECT name, install_id AS appl_uuid FROM systems, state WHERE is_local_system = "
                     "true"); }},
    {"export_client", Check::Prepare,
     [] { return sqlf("SELECT node_name, gcname, type, os, options, properties, identity, generic_property "
                     "FROM nodes JOIN application_instances USING(node_no) WHERE app_id = 1 AND node_no = "
                     "%ld", 3L); }},
    {"export_client_identity_set", Check::Prepare,
     [] { return sqlf("UPDATE application_instances SET identity = '%s' WHERE node_no = %ld AND app_id = 1 "
                     "AND identity IS NULL", kUuid, 3L); }},
    {"export_client_identity_get", Check::Prepare,
     [] { return sqlf("SELECT identity FROM application_instances WHERE node_no = %ld AND app_id = 1",
                     3L); }},
    {"export_instance", Check::Prepare,
     [] { return sqlf("SELECT app_id, key1, key2, key3, key4, type, identity FROM application_instances "
                     "JOIN application_lookup USING(app_id) WHERE instance_id = %ld",
                     7L); }},
    {"export_instance_identity_set", Check::Prepare,
     [] { return sqlf("UPDATE application_instances SET identity = '%s' WHERE instance_id = %ld AND "
                     "identity IS NULL", kUuid, 7L); }},
    {"export_instance_identity_get", Check::Prepare,
     [] { return sqlf("SELECT identity FROM application_instances WHERE instance_id = %ld",
                     7L); }},
    {"export_application_properties", Check::Prepare,
     [] { return sqlf("SELECT * FROM application_properties WHERE instance_id=%ld",
                     7L); }},
    {"export_backup_facts", Check::Prepare,
     [] { return sqlf("SELECT properties, type, start_time, total_megs, verify_after, is_verified::int, "
                     "x_command_short, snapshot_time FROM backups LEFT OUTER JOIN backup_snapshots "
                     "USING(backup_no) WHERE backup_no = %ld",
                     42L); }},
    {"export_vmware_change_id", Check::Prepare,
     [] { return sqlf("SELECT change_id FROM vmware_snapshots WHERE backup_no = %ld",
                     42L); }},
    {"export_vmware_hardware_hash", Check::Prepare,
     [] { return sqlf("SELECT hardware_hash FROM vmware_hardware_hashes WHERE backup_no = %ld",
                     42L); }},
    {"export_ndmp_vendor", Check::Prepare,
     [] { return sqlf("SELECT vendor FROM ndmp_nas WHERE node_no = %d ", 3); }},
    {"export_sql_backup", Check::Prepare,
     [] { return sqlf("SELECT server_instance_name, database_name, sql_type, group_file_order, "
                     "file_order_no FROM sql_backups WHERE sql_ref = %ld",
                     42L); }},
    // Metadata import
    {"import_source_system", Check::Prepare,
     [] { return sqlf("SELECT system_id FROM systems WHERE role = 'Replication Source' AND LOWER(identity) "
                     "= LOWER('%s')", kUuid); }},
    {"import_install_id", Check::Prepare,
     [] { return sqlf("SELECT install_id FROM state"); }},
    {"import_recovery_operation", Check::Prepare,
     [] { return sqlf("SELECT operation_id FROM operation_status WHERE subsystem = 'Disaster Recovery' AND "
                     "status = 'pending' AND description = 'Begin Disaster Recovery, initial system "
                     "metadata restore'"); }},
    {"import_source_device", Check::Prepare,
     [] { return sqlf("SELECT device_no FROM systems WHERE role = 'Replication Source' AND LOWER(identity) "
                     "= LOWER('%s')", kUuid); }},
    {"import_device_check", Check::Prepare,
     [] { return sqlf("SELECT is_scsi,is_deleted FROM devices WHERE device_no=%ld",
                     5L); }},
    {"import_recovery_client", Check::Prepare,
     [] { return sqlf("SELECT node_no, node_name FROM nodes WHERE options=%d AND (properties & %d) = 0",
                     1, 0x20); }},
    {"import_client", Check::Prepare,
     [] { return sqlf("SELECT gcname, node_name, node_no, properties FROM nodes JOIN application_instances "
                     "USING(node_no) WHERE app_id = 1 AND LOWER(identity) = LOWER(%s)",
                     "'0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0'"); }},
    {"import_node_number", Check::Prepare,
     [] { return sqlf("SELECT nextval('tq.nodes_node_no_seq') AS node_no"); }},
    {"import_grandclient_number", Check::Prepare,
     [] { return sqlf("SELECT nextval('tq.nodes_gclient_seq') AS gcn"); }},
    {"import_create_node", Check::Prepare,
     [] { return sqlf("INSERT INTO nodes (node_no, node_name, type, os, properties, priority, status, "
                     "vendor, last_master, last_master_start_time, last_incremental, "
                     "last_incremental_start_time, last_selective, last_selective_start_time, "
                     "last_baremetal, last_baremetal_start_time, features, fstatus, bm_media_test_date, "
                     "options, gcname, system_id, generic_property) VALUES (%ld, %s, %ld, %ld, %ld, 500, "
                     "0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, %ld, %s, %ld, %ld)",
                     3L, "'gc1'", 1L, 2L, 0x20L, 1L, "'realclient'", 1L, 0L); }},
    {"import_create_node_application", Check::Prepare,
     [] { return sqlf("INSERT INTO node_applications (node_no, app_id) VALUES (%ld, 1)",
                     3L); }},
    {"import_create_file_level_instance", Check::Prepare,
     [] { return sqlf("INSERT INTO application_instances (node_no, app_id, identity) VALUES (%ld, 1, '%s')",
                     3L, kUuid); }},
    {"import_update_node", Check::Prepare,
     [] { return sqlf("UPDATE nodes SET gcname = %s, properties = %ld WHERE node_no = %ld",
                     "'newname'", 0x20L, 3L); }},
    {"import_recovery_instance", Check::Prepare,
     [] { return sqlf("SELECT instance_id, identity FROM application_instances WHERE node_no = %ld AND "
                     "app_id = %ld", 3L, 10L); }},
    {"import_instance", Check::Prepare,
     [] { return sqlf("SELECT instance_id FROM application_instances WHERE node_no = %ld AND app_id = %ld "
                     "AND LOWER(identity) = LOWER('%s')",
                     3L, 4L, kUuid); }},
    {"import_add_node_application", Check::Prepare,
     [] { return sqlf("INSERT INTO node_applications (node_no, app_id) SELECT %ld, %ld WHERE NOT EXISTS "
                     "(SELECT node_no, app_id FROM node_applications WHERE node_no = %ld AND app_id = %ld)",
                     3L, 4L, 3L, 4L); }},
    {"import_instance_number", Check::Prepare,
     [] { return sqlf("SELECT nextval('tq.application_instances_instance_id_seq') AS instance_id"); }},
    // The presence flags are printed as 0 and 1, and CASE WHEN wants a boolean.
    {"import_create_instance", Check::Refused,
     [] { return sqlf("INSERT INTO application_instances (instance_id, app_id, node_no, key1, key2, key3, "
                     "key4, identity) VALUES (%ld, %ld, %ld, CASE WHEN %d THEN %s ELSE NULL END, CASE "
                     "WHEN %d THEN %s ELSE NULL END, CASE WHEN %d THEN %s ELSE NULL END, CASE WHEN %d "
                     "THEN %s ELSE NULL END, %s) ",
                     7L, 4L, 3L, 1, "'vcenter1'", 1, "'vm1'", 0, "NULL", 0, "NULL",
                     "'0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0'"); }, "argument of CASE/WHEN must be type boolean"},
    {"import_set_instance_identity", Check::Prepare,
     [] { return sqlf("UPDATE application_instances SET identity='%s' WHERE instance_id = %ld",
                     kUuid, 7L); }},
    {"import_add_property", Check::Prepare,
     [] { return sqlf("INSERT INTO application_properties (instance_id, prop_key, prop_value) SELECT %ld, "
                     "%s, %s WHERE NOT EXISTS (SELECT TRUE FROM application_properties WHERE instance_id "
                     "= %ld AND prop_key = %s)",
                     7L, "'key'", "'value'", 7L, "'key'"); }},
    {"import_update_property", Check::Prepare,
     [] { return sqlf("UPDATE application_properties SET prop_value = %s WHERE prop_key = %s AND "
                     "instance_id = %ld",
                     "'value'", "'key'", 7L); }},
    {"import_start_directory_add", Check::Prepare,
     [] { return sqlf("INSERT INTO dirs (dname) SELECT '@@@:/' WHERE NOT EXISTS (SELECT TRUE FROM dirs "
                     "WHERE dname = '@@@:/')"); }},
    {"import_start_directory", Check::Prepare,
     [] { return sqlf("SELECT dir_no FROM dirs WHERE dname = '@@@:/'"); }},
    {"import_backup_number", Check::Prepare,
     [] { return sqlf("SELECT nextval('tq.backups_backup_no_seq') AS new_backup_no"); }},
    {"import_fileset_number", Check::Prepare,
     [] { return sqlf("SELECT nextval('tq.filesets_fileset_no_seq') AS fileset_no"); }},
    {"import_job_number", Check::Prepare,
     [] { return sqlf("SELECT nextval('tq.jobs_job_no_seq') AS job_no"); }},
    {"import_create_backup", Check::Prepare,
     [] { return sqlf("INSERT INTO backups (backup_no, node_no, instance_id, properties, type, start_time, "
                     "fileset_no, tape_no, server_name, operator_name, multivolume, start_dir_no, status, "
                     "exit_code, total_megs, verify_after, is_verified, job_no, pid, x_command_short, "
                     "sync_status, attempt_cnt, elapsed_time, total_netpaths, sync_resv, incomplete, "
                     "notbacked, total_kilo, blocksize, lcs_no, data_bkno, all_filesets_present) VALUES "
                     "(%ld, %ld, %ld, %ld, %ld, %ld, %ld,(SELECT tape_no FROM devices WHERE device_no = "
                     "%ld), %s, %s, 1, %ld, %d, %d, %ld, %ld, %ld::bool, %ld, %ld, %s, 0,0,0,0,0, "
                     "0,0,0,0,0,0, 0::bool)",
                     44L, 3L, 7L, 0x4000L, 1L, 1700000000L, 45L, 5L, "'host1'", "'root'", 9L, 0x200, 15, 100L, 0L,
                     1L, 46L, 4242L, "'Replicated backup from source1'"); }},
    {"import_create_fileset", Check::Prepare,
     [] { return sqlf("INSERT INTO filesets (fileset_no, tape_no, backup_no, vol_no, job_no, start_time, "
                     "server_name, tape_drive_name, properties, data_format, no_label, ssn, elapsed_time, "
                     "total_megs, fileset_megs, total_netpaths, status, physical_fsno, v_koffset, btotal, "
                     "tape_dataset, is_multiplexed, is_encrypted, is_compressed, scsi_blksize, "
                     "os,ssn_blocksize, mux_fileset_no, import_no, guid, device_properties) VALUES (%ld, "
                     "(SELECT tape_no FROM devices WHERE device_no = %ld), %ld, 1, %ld, %lu, %s, (SELECT "
                     "dev_name FROM devices WHERE device_no = %ld), 0,%s,1::bool,0,0,0,0,0, 0,0,0,0,0, "
                     "0::bool,0::bool,0::bool,0,0, 0,0,0,0,0)",
                     45L, 5L, 44L, 46L, 1700000000UL, "'host1'", 5L, "'file'"); }},
    {"import_create_messages", Check::Prepare,
     [] { return sqlf("INSERT INTO backup_msg (backup_no, messages, comment) VALUES(%ld, (SELECT now()) || "
                     "' Replicated backup from source %s %s\n', 'Replicated backup from source %s %s\n')",
                     44L, "source1", kUuid, "source1", kUuid); }},
    {"import_append_messages", Check::Prepare,
     [] { return sqlf("UPDATE backup_msg SET messages = messages || '%s', comment = comment || '%s' WHERE "
                     "backup_no = %ld",
                     "Re-replicated from here", "Re-replicated from here", 44L); }},
    {"import_backup_snapshot", Check::Prepare,
     [] { return sqlf("INSERT INTO backup_snapshots (backup_no, snapshot_time) VALUES(%ld, %ld)",
                     44L, 1700000000L); }},
    {"import_vmware_snapshot", Check::Prepare,
     [] { return sqlf("INSERT INTO vmware_snapshots (backup_no, change_id) VALUES(%ld, %s)",
                     44L, "'52 8f 1a'"); }},
    {"import_vmware_hardware_hash", Check::Prepare,
     [] { return sqlf("INSERT INTO vmware_hardware_hashes (backup_no, hardware_hash) VALUES(%ld, %s)",
                     44L, "'a1b2c3'"); }},
    {"import_ndmp_lookup", Check::Prepare,
     [] { return sqlf("SELECT * from  ndmp_nas where node_no = %d", 3); }},
    {"import_ndmp_add", Check::Prepare,
     [] { return sqlf("INSERT INTO  ndmp_nas (node_no, address, port, vendor, version)VALUES(%ld, "
                     "'127.0.0.1', '10000', '%s', 'unknown')",
                     3L, "NetApp"); }},
    {"import_sql_backup", Check::Prepare,
     [] { return sqlf("INSERT INTO sql_backups (sql_ref, node_no, sql_type, server_instance_name, "
                     "database_name, group_file_order, file_order_no) VALUES (%ld, %ld, %ld, %s, %s, %ld, "
                     "%ld)",
                     44L, 3L, 1L, "'SQL1'", "'db1'", 5L, 6L); }},
    {"import_recovery_done", Check::Prepare,
     [] { return sqlf("UPDATE operation_status SET status = 'done' WHERE operation_id = %ld",
                     9L); }},
    {"import_out_of_order", Check::Prepare,
     [] { return sqlf("SELECT backup_no FROM backups WHERE instance_id = %ld AND start_time > %ld AND "
                     "(status & %d) = 0 AND tape_no != %d AND (type & %lu) > 0 AND (type != %d) AND (type "
                     "!= %d)",
                     7L, 1700000000L, 0x9018, -1, 0x140FUL, 0x400, 4); }},
    {"import_mark_failed", Check::Prepare,
     [] { return sqlf("UPDATE backups SET status = %d WHERE backup_no = %ld",
                     5184, 43L); }},
    {"import_mark_failed_message", Check::Prepare,
     [] { return sqlf("UPDATE backup_msg SET messages = messages || 'Mark backup as failed, out of "
                     "order.\n' WHERE backup_no = %ld", 43L); }},
    {"import_recovery_remove", Check::Prepare,
     [] { return sqlf("DELETE FROM operation_status WHERE operation_id = %ld", 9L); }},
    // Hash values tables
    {"hashes_column_types", Check::Prepare,
     [] { return sqlf("SELECT column_name, data_type FROM information_schema.columns WHERE (table_schema = "
                     "'tq') AND (table_name = 'hash_values') AND (column_name IN ( SELECT 'hash_type' "
                     "UNION ALL SELECT 'hashed_length' UNION ALL SELECT 'hash_value' UNION ALL SELECT "
                     "'sis_offset'))"); }},
    {"hashes_column_exists", Check::Prepare,
     [] { return sqlf("SELECT column_name FROM information_schema.columns WHERE table_schema = lower('%s') "
                     "AND table_name = lower('%s') AND column_name = lower('%s')",
                     "tq", "hash_values", "compressed_length"); }},
    {"hashes_get", Check::Prepare,
     [] { return sqlf("%sSELECT hash_id, hashed_length, sis_offset, hash_type, hash_value%s FROM "
                     "tq.hash_values WHERE (hash_id = %llu)", "", ", compressed_length", 5ULL)
                     + "\nUNION ALL\n"
                     + sqlf("%sSELECT hash_id, hashed_length, sis_offset, hash_type, hash_value%s FROM "
                     "tq.hash_values WHERE (hash_type = '%s') AND (hashed_length = %llu) AND (hash_value "
                     "= $%d::%s)", "", ", compressed_length", "sha512", 65536ULL, 1, "bytea"); }},
    {"hashes_lock_both", Check::RunRolledBack,
     [] { return sqlf("BEGIN;\nLOCK TABLE tq.hash_values, tq.backups_hash_values IN SHARE ROW EXCLUSIVE "
                     "MODE"); }},
    {"hashes_insert", Check::Prepare,
     [] { return sqlf("INSERT INTO tq.hash_values (hash_type, hashed_length, hash_value) SELECT hash_type, "
                     "hashed_length, hash_value FROM tq.hash_values\nNATURAL RIGHT OUTER JOIN\n (")
                     + sqlf("%sSELECT '%s'::%s AS hash_type, %llu::%s AS hashed_length, $%d::%s AS hash_value", "",
                     "sha512", "text", 65536ULL, "bigint", 1, "bytea")
                     + "\nUNION ALL\n"
                     + sqlf("%sSELECT '%s'::%s AS hash_type, %llu::%s AS hashed_length, $%d::%s AS hash_value", "",
                     "sha512", "text", 4096ULL, "bigint", 2, "bytea")
                     + sqlf(") AS new_data WHERE (hash_values.hash_type IS NULL)"); }},
    {"hashes_set_sis_offset", Check::Prepare,
     [] { return sqlf("UPDATE tq.hash_values SET sis_offset = %llu %s WHERE (hash_type = '%s') AND "
                     "(hashed_length = %llu) AND (hash_value = $1)",
                     1048576ULL, ", compressed_length = 2000", "sha512", 65536ULL); }},
    {"hashes_map", Check::Prepare,
     [] { return sqlf("INSERT INTO tq.backups_hash_values (backup_no, hash_id, file_offset%s) SELECT "
                     "backup_no, hash_id, file_offset%s FROM tq.backups_hash_values\nNATURAL RIGHT JOIN\n "
                     "(", "", "")
                     + sqlf("%sSELECT %lld AS backup_no, %llu AS hash_id, %lld AS file_offset%s", "", 42LL, 5ULL,
                     0LL, "")
                     + "\nUNION ALL\n"
                     + sqlf("%sSELECT %lld AS backup_no, %llu AS hash_id, %lld AS file_offset%s", "", 42LL, 6ULL,
                     65536LL, "")
                     + sqlf(") AS new_data WHERE (backups_hash_values.file_offset IS NULL)"); }},
    {"hashes_map_deduplicated", Check::Prepare,
     [] { return sqlf("INSERT INTO tq.backups_hash_values (backup_no, hash_id, file_offset%s) SELECT "
                     "backup_no, hash_id, file_offset%s FROM tq.backups_hash_values\nNATURAL RIGHT JOIN\n "
                     "(", ", deduplicated, hash_incomplete", ", deduplicated, hash_incomplete")
                     + sqlf("%sSELECT %lld AS backup_no, %llu AS hash_id, %lld AS file_offset%s", "", 42LL, 5ULL,
                     0LL, sqlf(", %lu AS deduplicated, FALSE AS hash_incomplete", 1UL).c_str())
                     + sqlf(") AS new_data WHERE (backups_hash_values.file_offset IS NULL)"); }},
    {"hashes_readable_copy", Check::Prepare,
     [] { return sqlf("SELECT hash_id FROM tq.backups_hash_values WHERE (hash_id = %llu) AND "
                     "(hash_incomplete = FALSE) AND (deduplicated IS NULL) LIMIT 1",
                     5ULL); }},
    {"hashes_mapping_exists", Check::Prepare,
     [] { return sqlf("SELECT file_offset FROM tq.backups_hash_values where backup_no=%lld AND "
                     "hash_id=%lld AND file_offset=%lld",
                     42LL, 5LL, 0LL); }},
    {"hashes_lock_values", Check::RunRolledBack,
     [] { return sqlf("BEGIN;\nLOCK TABLE tq.hash_values IN SHARE ROW EXCLUSIVE MODE"); }},
    {"hashes_update_info", Check::Prepare,
     [] { return sqlf("UPDATE tq.backups_hash_values  SET deduplicated = %lld", 1LL)
                     + sqlf("%c hash_incomplete = %s", ',', "FALSE")
                     + sqlf(" WHERE (backup_no = %lld)", 42LL)
                     + sqlf(" AND (hash_id = %lld)", 5LL)
                     + sqlf(" AND (file_offset = %lld) ", 0LL); }},
    {"hashes_update_info_default", Check::Prepare,
     [] { return sqlf("UPDATE tq.backups_hash_values  SET deduplicated = DEFAULT")
                     + sqlf("%c hash_incomplete = %s", ',', "TRUE")
                     + sqlf(" WHERE (backup_no = %lld)", 42LL)
                     + sqlf(" AND (file_offset >= %lld) ", 4096LL); }},
    {"hashes_update_info_complete", Check::Prepare,
     [] { return sqlf("UPDATE tq.backups_hash_values SET")
                     + sqlf("%c hash_incomplete = %s", ' ', "FALSE")
                     + sqlf(" WHERE (backup_no = %lld)", 42LL)
                     + sqlf(" AND (file_offset <= %lld) ", 65536LL); }},
    {"hashes_delete_mappings", Check::Prepare,
     [] { return sqlf("DELETE FROM tq.backups_hash_values WHERE (backup_no = %lld)", 42LL)
                     + sqlf(" AND (file_offset >= %lld)", 4096LL)
                     + sqlf(" AND (file_offset <= %lld)", 65536LL); }},
    {"hashes_orphans", Check::Prepare,
     [] { return sqlf("SELECT hash_id, hashed_length, sis_offset, hash_type, hash_value, backup_no FROM "
                     "tq.backups_hash_values NATURAL RIGHT OUTER JOIN (SELECT hash_id, hashed_length, "
                     "sis_offset, hash_type, hash_value FROM tq.hash_values WHERE (sis_offset IS NULL)) "
                     "AS nonSISfileHashes WHERE (backup_no IS NULL) LIMIT %d",
                     262144); }},
    {"hashes_delete", Check::Prepare,
     [] { return sqlf("DELETE FROM tq.hash_values WHERE (hash_id = %lld)", 5LL); }},
    {"hashes_by_sis_offset", Check::Prepare,
     [] { return sqlf("SELECT hash_id, hashed_length, sis_offset, backup_no%s FROM tq.backups_hash_values "
                     "NATURAL RIGHT OUTER JOIN (SELECT hash_id, hashed_length, sis_offset%s FROM "
                     "tq.hash_values WHERE (sis_offset >= %llu) ORDER BY sis_offset LIMIT %d) AS "
                     "SISfileHashes ORDER BY sis_offset LIMIT %d",
                     ", compressed_length", ", compressed_length", 0ULL, 131072, 131072); }},
    // Hashing a backup and hash lists
    {"lists_cursor", Check::RunRolledBack,
     [] { return sqlf("DECLARE %s SCROLL CURSOR WITH HOLD for SELECT * FROM tq.backups_hash_values WHERE "
                     "(backup_no=%llu) AND (hash_incomplete='f') ", "metaLeft1", 42ULL)
                     + sqlf("AND hash_id NOT IN (SELECT hash_id FROM tq.backups_hash_values WHERE "
                     "backup_no=%llu) ", 41ULL)
                     + "AND hash_id IS NOT NULL order by file_offset"; }},
    {"lists_cursor_distinct", Check::RunRolledBack,
     [] { return sqlf("DECLARE %s SCROLL CURSOR WITH HOLD for SELECT DISTINCT ON (hash_id) * FROM "
                     "tq.backups_hash_values WHERE (backup_no=%llu) AND (hash_incomplete='f') ", "metaLeft2", 42ULL)
                     + "AND hash_id IS NOT NULL order by hash_id"; }},
    {"lists_count", Check::Prepare,
     [] { return sqlf("SELECT count(hash_id) FROM tq.backups_hash_values WHERE backup_no=%lld",
                     42LL); }},
    {"lists_count_distinct", Check::Prepare,
     [] { return sqlf("SELECT count(distinct hash_id) FROM tq.backups_hash_values WHERE backup_no=%lld",
                     42LL); }},
    {"lists_candidates", Check::RunRolledBack,
     [] { return sqlf("DECLARE candidates CURSOR FOR SELECT backup_no, file_offset FROM "
                     "tq.backups_hash_values WHERE (backup_no = %lld) AND (hash_id = %lld) AND "
                     "(deduplicated IS NULL) AND (hash_incomplete = FALSE) UNION ALL (SELECT backup_no, "
                     "file_offset FROM tq.backups_hash_values WHERE (deduplicated IS NULL) AND "
                     "(hash_incomplete = FALSE) AND (hash_id = %lld) ORDER BY backup_no DESC)",
                     42LL, 5LL, 5LL); }},
    {"lists_properties", Check::Prepare,
     [] { return sqlf("SELECT properties FROM tq.backups WHERE (backup_no = %llu)",
                     42ULL); }},
    {"lists_directories", Check::Prepare,
     [] { return sqlf("SELECT dev_nr_name FROM tq.devices WHERE (device_type = %d) ORDER BY "
                     "octet_length(dev_nr_name) ASC", 128); }},
    // Single-instance store and storage manager
    {"sis_devices", Check::Prepare,
     [] { return sqlf("SELECT dev_nr_name, is_deleted, capacity FROM tq.devices WHERE (device_type = %d) "
                     "AND (dedup = TRUE) ORDER BY octet_length(dev_nr_name)",
                     128); }},
    {"smgr_device", Check::Prepare,
     [] { return sqlf("SELECT device_no FROM devices WHERE device_no = %d AND dev_name <> 'sctape'",
                     5); }},
    {"smgr_capacity", Check::Prepare,
     [] { return sqlf("SELECT dev_name, capacity FROM devices WHERE device_no = %d",
                     5); }},
    // Archive files and rehydration
    {"archive_location", Check::Prepare,
     [] { return sqlf("SELECT backups.properties, devices.dev_rw_name FROM backups JOIN devices USING "
                     "(tape_no) WHERE backups.backup_no = %d",
                     42); }},
    {"redup_type", Check::Prepare,
     [] { return sqlf("SELECT type FROM tq.backups WHERE (backup_no = %llu)", 42ULL); }},
    {"redup_header_offset", Check::Prepare,
     [] { return sqlf("SELECT blk_offset FROM tq.backup_files WHERE (backup_no = %llu) AND (blk_offset <= "
                     "%llu) AND (blk_offset >= 0) ORDER BY blk_offset DESC LIMIT 1",
                     42ULL, 100ULL); }},
    {"redup_references", Check::Prepare,
     [] { return sqlf("(SELECT hash_id, file_offset FROM tq.backups_hash_values WHERE (backup_no = %lld) "
                     "AND (hash_id IS NOT NULL) AND (deduplicated IS NOT NULL) AND (file_offset < %llu) "
                     "ORDER BY file_offset DESC LIMIT 1)\nUNION ALL\n(SELECT hash_id, file_offset FROM "
                     "tq.backups_hash_values WHERE (backup_no = %lld) AND (hash_id IS NOT NULL) AND "
                     "(deduplicated IS NOT NULL) AND (file_offset >= %llu) ORDER BY file_offset LIMIT %d)",
                     42LL, 1000ULL, 42LL, 1000ULL, 16); }},
    // Inline deduplication
    {"inline_set_instance", Check::Prepare,
     [] { return sqlf("UPDATE tq.application_instances SET inline_dedup = (inline_dedup %s%x) WHERE "
                     "instance_id = %llu", "| ", 1u, 7ULL); }},
    {"inline_clear_instance", Check::Prepare,
     [] { return sqlf("UPDATE tq.application_instances SET inline_dedup = (inline_dedup %s%x) WHERE "
                     "instance_id = %llu", "& ~", 1u, 7ULL); }},
    {"inline_application_type", Check::Prepare,
     [] { return sqlf("SELECT type from application_lookup where app_id = %d", 4); }},
    {"inline_client_instances", Check::Prepare,
     [] { return sqlf("SELECT app_id,instance_id FROM application_instances WHERE node_no = %ld ORDER by "
                     "instance_id DESC LIMIT %d", 3L, 2); }},
    {"inline_largest_device", Check::Prepare,
     [] { return sqlf("SELECT MAX(capacity) FROM tq.devices WHERE dedup=true AND is_deleted=false AND "
                     "is_online=true AND  device_type=%d", 128); }},
    {"inline_netware_node", Check::Prepare,
     [] { return sqlf("SELECT n.type FROM tq.nodes n INNER JOIN tq.application_instances i USING (node_no) "
                     "WHERE i.instance_id=%d AND n.type in (%d, %d, %d, %d, %d, %d)",
                     7, 6, 13, 26, 27, 28, 34); }},
    {"inline_mark_deduplicated", Check::Prepare,
     [] { return sqlf("UPDATE tq.backups SET properties=properties|%d WHERE backup_no=%llu",
                     1024, 42ULL); }},
    {"inline_backup_stats", Check::Prepare,
     [] { return sqlf("INSERT INTO tq.backup_dedup_stats (backup_no,operation,total_files_count,"
                     "total_file_bytes,deduped_files_count,deduped_files_bytes,total_header_bytes,"
                     "new_blocks_count,new_blocks_size,existing_blocks_count,existing_blocks_size,"
                     "total_library_sec,writing_sis_sec,writing_arco_sec,writing_ulf_sec,smgr_wait_sec,"
                     "metadata_sec) VALUES (%llu,%s,%llu,%llu,%llu,%llu,%llu,%llu,%llu,%llu,%llu,%llu,"
                     "%llu,%llu,%llu,%llu,%llu);",
                     42ULL, "'inline_dedup'", 1ULL, 2ULL, 3ULL, 4ULL, 5ULL, 6ULL, 7ULL, 8ULL, 9ULL, 10ULL, 11ULL,
                     12ULL, 13ULL, 14ULL, 15ULL); }},
    {"inline_stats", Check::Prepare,
     [] { return sqlf("INSERT INTO tq.dedup_stats (operation,done_epoch,bytes_processed,elapsed_seconds) "
                     "VALUES (%s,%lu,%llu,%lu);",
                     "'in_dedup'", 1700000000UL, 4096ULL, 3UL); }},
    // Backup synthesis
    {"synth_failure", Check::Prepare,
     [] { return sqlf("INSERT INTO synthesis_failures (backup_no, failure_time, reason) VALUES (%d, %ld, "
                     "%s)", 42, 1700000000L, "'no master'"); }},
    {"synth_end_backup", Check::Prepare,
     [] { return sqlf("SELECT node_no,instance_id FROM backups WHERE backup_no = %d",
                     42); }},
    {"synth_client_name", Check::Prepare,
     [] { return sqlf("SELECT CASE WHEN (properties & %d)=0 THEN node_name ELSE gcname END AS %s FROM "
                     "nodes WHERE node_no = %d",
                     32, "client_name", 3); }},
    {"synth_instance_name", Check::Prepare,
     [] { return sqlf("SELECT %s FROM application_instances WHERE node_no = %d AND instance_id = %d",
                     "key1", 3, 7); }},
    {"synth_client_os", Check::Prepare,
     [] { return sqlf("SELECT os FROM nodes WHERE node_no = %d", 3); }},
    {"synth_interval_end", Check::Prepare,
     [] { return sqlf("SELECT backup_no FROM backups WHERE node_no = %d AND instance_id = %d AND type IN "
                     "(%s) AND start_time <= %d ORDER BY backup_no DESC LIMIT 1",
                     3, 7, "1,2,3", 1700000000); }},
    {"synth_files", Check::Prepare,
     [] { return sqlf("SELECT * FROM ( SELECT DISTINCT ON (%s(fname)) fname, dname, backup_no, type, "
                     "blocks, blk_offset, size FROM backup_files JOIN dirs USING (dir_no) WHERE backup_no "
                     "IN (%s) AND end_backup_no > %d %s AND type NOT IN (83,84,115,116) ORDER BY "
                     "%s(fname), CASE WHEN type=53 THEN 0 ELSE 1 END ) AS subqry ORDER BY backup_no, "
                     "blk_offset",
                     "LOWER", "40,41,42", 42, "", "LOWER"); }},
    {"synth_hard_link", Check::Prepare,
     [] { return sqlf("SELECT DISTINCT ON (%s(fname)) fname, backup_no, blocks, blk_offset, size, type "
                     "FROM backup_files JOIN dirs USING (dir_no) WHERE backup_no IN (%s) AND "
                     "end_backup_no > %d AND %s(dname||fname) = %s('%s') AND type NOT IN (83,84,115,116) "
                     "ORDER BY %s(fname), CASE WHEN type=53 THEN 0 ELSE 1 END LIMIT 1",
                     "LOWER", "40,41,42", 42, "LOWER", "LOWER", "/data/file", "LOWER"); }},
    {"synth_hard_link_wide", Check::Prepare,
     [] { return sqlf("SELECT  fname, backup_no, blocks, blk_offset, size, type FROM backup_files JOIN "
                     "dirs USING (dir_no) WHERE backup_no IN (%s) AND %s(dname||fname) = %s('%s') AND "
                     "type NOT IN (83,84,115,116) ORDER BY end_backup_no DESC, CASE WHEN type=53 THEN 0 "
                     "ELSE 1 END LIMIT 1",
                     "40,41,42", "LOWER", "LOWER", "/data/file"); }},
    {"synth_references", Check::Prepare,
     [] { return sqlf("(SELECT hash_id, file_offset FROM tq.backups_hash_values WHERE (backup_no = %lld) "
                     "AND (hash_id IS NOT NULL) AND (file_offset < %llu) ORDER BY file_offset DESC LIMIT "
                     "1)\nUNION ALL\n(SELECT hash_id, file_offset FROM tq.backups_hash_values WHERE "
                     "(backup_no = %lld) AND (hash_id IS NOT NULL) AND (file_offset >= %llu) ORDER BY "
                     "file_offset LIMIT %d)",
                     42LL, 1000ULL, 42LL, 1000ULL, 16); }},
    {"synth_estimate", Check::RunRolledBack,
     [] { return sqlf("CREATE TEMPORARY TABLE backup_restore_files(pathname VARCHAR, is_inclusion BOOLEAN) "
                     "ON COMMIT DROP")
                     + ";\n"
                     + sqlf("INSERT INTO backup_restore_files (pathname, is_inclusion) VALUES ('%s', TRUE)", "")
                     + ";\n"
                     + sqlf("SELECT SUM(blocks) AS sum FROM backup_files bf JOIN dirs USING (dir_no), (SELECT "
                     "pathname FROM backup_restore_files WHERE is_inclusion = TRUE) AS incls WHERE "
                     "bf.backup_no IN (%s) AND bf.end_backup_no > %d AND bf.blk_offset >= 0 AND type NOT "
                     "IN (83,84,115,116) AND ( (incls.pathname = '') OR (%s(dirs.dname || bf.fname) = "
                     "%s(incls.pathname)) OR (%s(dirs.dname || bf.fname) LIKE "
                     "%s(REPLACE(REPLACE(incls.pathname, '%%', '|%%'), '_', '|_')) || '/%%' ESCAPE '|'))",
                          "40,41,42", 42, "", "", "", ""); }},
    {"synth_group_types", Check::Prepare,
     [] { return sqlf("SELECT backup_no,type FROM backups WHERE backup_no IN (%s)",
                     "40,41,42"); }},
    {"synth_not_deduplicated", Check::Prepare,
     [] { return sqlf("SELECT backup_no FROM backups WHERE (properties & %u)=0 AND backup_no in (%s)",
                     1024u, "40,41,42"); }},
    // Virtual disk
    {"vdisk_disks", Check::Prepare,
     [] { return sqlf("SELECT fname FROM backup_files WHERE backup_no = %d AND fname != '%s' ORDER BY fname",
                     42, "metadata.xml"); }},
    {"vdisk_meta_files", Check::Prepare,
     [] { return sqlf("SELECT fname FROM backup_files WHERE backup_no = %d AND fname LIKE '%%##meta##%%' "
                     "AND type=66 ORDER BY fname", 42); }},
    {"vdisk_data_files", Check::Prepare,
     [] { return sqlf("SELECT fname FROM backup_files WHERE backup_no = %d AND fname LIKE '%s%%##data##%%' "
                     "AND type=66 ORDER BY fname", 42, "disk1"); }},
    {"vdisk_newest_backup", Check::Prepare,
     [] { return sqlf("SELECT backup_no FROM backup_files WHERE fname='%s' ORDER BY backup_no DESC LIMIT 1",
                     "disk1##data##"); }},
    // ISAM emulation
    {"isam_table_exists", Check::Prepare,
     [] { return sqlf("SELECT * FROM pg_tables WHERE pg_tables.tablename = '%s' AND pg_tables.schemaname = "
                     "'tq';", "pids"); }},
    {"isam_pids_start", Check::Prepare,
     [] { return sqlf("SELECT pid, filename, operator_name, comment, time_stamp FROM %s", "pids")
                     + sqlf(" WHERE pid >= %u ORDER BY pid", 77u)
                     + sqlf(" LIMIT %d;", 2048); }},
    {"isam_pids_write_lookup", Check::Prepare,
     [] { return sqlf("SELECT pid FROM %s WHERE pid = %u;", "pids", 77u); }},
    {"isam_pids_insert", Check::Prepare,
     [] { return sqlf("INSERT INTO pids (pid, filename, operator_name, comment, time_stamp) VALUES (%u, "
                     "'%s', '%s', $TQtag$%s$TQtag$, %d);",
                     77u, "ferryd", "root", "a comment", 1700000000); }},
    {"isam_pids_update", Check::Prepare,
     [] { return sqlf("UPDATE pids SET filename = '%s', operator_name = '%s', comment = $TQtag$%s$TQtag$, "
                     "time_stamp = %d WHERE pid = %u;",
                     "ferryd", "root", "a comment", 1700000000, 77u); }},
    {"isam_pids_delete", Check::Prepare,
     [] { return sqlf("DELETE FROM pids WHERE pid = %u;", 77u); }},
};

std::string checkName(const ::testing::TestParamInfo<Statement>& info)
{
    return info.param.name;
}

class StatementTest : public ::testing::TestWithParam<Statement> {};

TEST_P(StatementTest, AcceptedBySchema)
{
    const Statement& statement = GetParam();
    std::string sql = statement.text();
    ASSERT_FALSE(sql.empty());
    sqltest::Conn conn = sqltest::connect();
    ASSERT_TRUE(conn);
    PGconn* c = conn.get();
    std::string error;
    switch (statement.check) {
    case Check::Prepare: {
        sqltest::Result res(PQprepare(c, "", sql.c_str(), 0, nullptr));
        EXPECT_EQ(PQresultStatus(res.get()), PGRES_COMMAND_OK) << PQerrorMessage(c) << "statement: " << sql;
        break;
    }
    case Check::RunRolledBack:
        ASSERT_TRUE(sqltest::exec(c, "BEGIN"));
        EXPECT_TRUE(sqltest::exec(c, sql));
        sqltest::exec(c, "ROLLBACK", nullptr, true);
        break;
    case Check::Refused:
        ASSERT_TRUE(sqltest::exec(c, "BEGIN"));
        EXPECT_FALSE(sqltest::exec(c, sql, &error, true)) << "now accepted: " << sql;
        ASSERT_NE(statement.refusal, nullptr);
        EXPECT_NE(error.find(statement.refusal), std::string::npos) << error;
        sqltest::exec(c, "ROLLBACK", nullptr, true);
        break;
    }
}

INSTANTIATE_TEST_SUITE_P(Programs, StatementTest, ::testing::ValuesIn(kStatements), checkName);

// The check itself must catch what it is for: a statement naming a column
// that does not exist is refused at preparation.
TEST(StatementCheck, MissingColumnIsRefused)
{
    sqltest::Conn conn = sqltest::connect();
    ASSERT_TRUE(conn);
    sqltest::Result res(PQprepare(conn.get(), "", "SELECT no_such_column FROM tq.backups WHERE backup_no = 1", 0,
                                  nullptr));
    EXPECT_EQ(PQresultStatus(res.get()), PGRES_FATAL_ERROR);
    EXPECT_NE(std::string(PQerrorMessage(conn.get())).find("no_such_column"), std::string::npos);
}

TEST(StatementCheck, MissingSequenceIsRefused)
{
    sqltest::Conn conn = sqltest::connect();
    ASSERT_TRUE(conn);
    sqltest::Result res(PQprepare(conn.get(), "", "SELECT nextval('tq.no_such_seq')", 0, nullptr));
    EXPECT_EQ(PQresultStatus(res.get()), PGRES_FATAL_ERROR);
}

TEST(StatementCheck, NamesAreUnique)
{
    std::set<std::string> names;
    for (const Statement& statement : kStatements)
        EXPECT_TRUE(names.insert(statement.name).second) << "two statements named " << statement.name;
}

} // namespace
