// tqsqlQueries: the statements of the backup group lookups, as the formats
// the administration library sends. They stand here once, exactly as sent.
#pragma once

namespace adminsql {

// tqGetSynthesisGroup: the input backup, then its group.
inline constexpr const char* kSynthBackupAttributes =
    "SELECT node_no, instance_id, status, tape_no, properties, type FROM backups WHERE backup_no = %lu";
// (set, node, instance, backup, ignoreDiff, diffType, 2048, ignoreMaster, fullType, 2048, fullType, diffType,
//  node, instance, backup, ignoreDiff, diffType, 2048, ignoreMaster, fullType, 2048, fullType, node, instance,
//  backup).
inline constexpr const char* kSynthGroup =
    "SELECT backup_no FROM successful_backups WHERE type IN(%s) AND node_no=%lu AND instance_id=%lu AND "
    "backup_no <= %lu AND (CASE WHEN %d=1 THEN type != %d OR (properties & %lu) = 0 ELSE 1=1 END) AND (CASE WHEN "
    "%d=1 THEN type != %d OR (properties & %lu) = 0 ELSE 1=1 END) AND ((backup_no >= COALESCE((SELECT backup_no "
    "FROM successful_backups WHERE type IN(%d,%d) AND node_no=%lu AND instance_id=%lu AND backup_no <= %lu AND "
    "(CASE WHEN %d=1 THEN type != %d OR (properties & %lu) = 0 ELSE 1=1 END) AND (CASE WHEN %d=1 THEN type != %d "
    "OR (properties & %lu) = 0 ELSE 1=1 END) ORDER BY backup_no DESC LIMIT 1), 0)) OR (backup_no = (SELECT "
    "backup_no FROM successful_backups WHERE type=%d AND node_no=%lu AND instance_id=%lu AND backup_no <= %lu "
    "ORDER BY backup_no DESC LIMIT 1))) ORDER BY backup_no";

// tqGetRestoreGroupOptimized.
inline constexpr const char* kRestoreBackupAttributes =
    "SELECT status, type, properties, start_time, node_no, tape_no FROM backups WHERE backup_no = %lu";
// (32, own bit 32, 1, all ones, 64): same kind of client, not SDS, not
// purged, finished.
inline constexpr const char* kLooseFilter =
    " (properties & %u) = %lu AND (properties & %u) = 0 AND tape_no != %u AND (status & %u) > 0";
// (loose filter, 36888): and not failed.
inline constexpr const char* kStrictFilter = "%s AND (status & %u) = 0";
inline constexpr const char* kRestoreFields =
    "b.backup_no as t_backup_no, b.status as t_status, b.exit_code as t_exit_code, b.type as t_type, b.start_time "
    "as t_start_time";
// (fields, backup, full sql_type, full and differential sql_type, filter).
inline constexpr const char* kSqlFileGroup =
    "SELECT s.sql_type, %s FROM sql_backups AS s INNER JOIN sql_backups AS orig  ON(orig.node_no = s.node_no   "
    "AND LOWER(orig.database_name)     = LOWER(s.database_name)   AND LOWER(orig.server_instance_name)     = "
    "LOWER(s.server_instance_name)   AND orig.group_file_order = s.group_file_order  ) INNER JOIN backups AS b ON "
    "(s.sql_ref = b.backup_no) WHERE orig.sql_ref = %lu  AND (s.sql_type = %u   OR s.file_order_no >= (    SELECT "
    "file_order_no    FROM sql_backups WHERE node_no = orig.node_no     AND LOWER(database_name)       = "
    "LOWER(orig.database_name)     AND LOWER(server_instance_name)       = LOWER(orig.server_instance_name) AND "
    "group_file_order = orig.group_file_order AND file_order_no <= orig.file_order_no AND sql_type IN (%u, %u)    "
    "ORDER BY file_order_no DESC LIMIT 1   )  ) AND s.file_order_no <= orig.file_order_no AND %s ORDER BY "
    "backup_no";
inline constexpr const char* kRestoreGroup3 = "SELECT * FROM tq.tqGetRestoreGroupOptimized(%lu, '{%d,%d,%d}','%s')";
inline constexpr const char* kRestoreGroup2 = "SELECT * FROM tq.tqGetRestoreGroupOptimized(%lu, '{%d,%d}','%s')";
inline constexpr const char* kRestoreGroup1 = "SELECT * FROM tq.tqGetRestoreGroupOptimized(%lu, '{%lu}','%s')";
inline constexpr const char* kApplicationInfo =
    "SELECT b.instance_id, ai.app_id, al.name FROM backups b INNER JOIN application_instances ai USING "
    "(instance_id) INNER JOIN application_lookup al ON ai.app_id = al.app_id WHERE b.backup_no = %lu";

inline constexpr const char* kIsEncrypted =
    "SELECT (properties & %lu) > 0 AS encrypted FROM backups WHERE backup_no = %d";
inline constexpr const char* kInstanceName =
    "SELECT key1, key2, key3, key4, type FROM application_lookup JOIN application_instances USING(app_id) WHERE "
    "instance_id = %lu";
// Table and column travel as parameters of pgQuery.
inline constexpr const char* kColumnExists =
    "SELECT COUNT(*) FROM pg_catalog.pg_class c, pg_catalog.pg_namespace n, pg_catalog.pg_attribute a WHERE "
    "a.attnum > 0 AND NOT a.attisdropped AND a.attrelid = c.oid AND c.relnamespace = n.oid AND n.nspname = 'tq' "
    "AND c.relname = %s AND a.attname = %s";

} // namespace adminsql
