-- quoted_statements.sql: statements of the appliance's other programs (and
-- one of ferryd's whose format is private to its file), filled with sample
-- values. The schema in sql/ must accept every one of them. Read by
-- statements_test.cpp at run time; never loaded into a database.
--
-- Format
--   -- name: <id>                   starts an entry; its statement is every
--                                   following line up to the next entry
--   -- name: <id> refused: <text>   an entry the server must refuse, with
--                                   <text> in its message (kept so that the
--                                   day the program's text changes is seen)
--   any other line starting "--"    a comment, dropped
-- <id> is letters, digits and underscores, unique in the file. A statement
-- starting with SELECT, INSERT, UPDATE, DELETE or "(" is prepared (parsed,
-- analysed and planned, not run; $n parameters are typed by the server).
-- Any other (DECLARE, LOCK, CREATE ...) is run in a transaction that is
-- rolled back, because the server analyses those only when it runs them.

-- The replication worker
-- name: worker_local_status
SELECT status FROM tq.backups WHERE backup_no=42
-- name: worker_local_tape
SELECT tape_no FROM tq.backups WHERE backup_no=42
-- name: worker_device_no
SELECT device_no FROM tq.devices WHERE dev_name=(SELECT tape_drive_name FROM tq.filesets  WHERE fileset_no=(SELECT fileset_no FROM tq.backups WHERE backup_no=42))
-- name: worker_is_hashed
SELECT backup_no FROM tq.backups WHERE ((properties & 1536)!=0) AND backup_no=42
-- name: worker_harco_directory
SELECT dev_rw_name FROM tq.devices WHERE dev_name=(SELECT tape_drive_name FROM tq.filesets  WHERE fileset_no=(SELECT fileset_no FROM tq.backups WHERE backup_no=42))

-- Utility commands (util_create_types as daemon/utility.cpp sends it)
-- name: util_create_types
INSERT INTO tq.operation_names VALUES (6,'prepare');
-- name: util_status_listing
SELECT tq.replication_queue.backup_no,tq.replication_queue.status as replication_queue_status,tq.backups.instance_id, tq.backups.properties,tq.backups.status as backups_status,tq.backups.type,tq.backups.start_time FROM tq.replication_queue INNER JOIN tq.backups ON tq.replication_queue.backup_no=tq.backups.backup_no order by tq.backups.instance_id, tq.replication_queue.position

-- Progress and statistics
-- name: progress_type_name
SELECT b.type AS btype, al.type AS atype FROM tq.backups b INNER JOIN tq.application_instances ai USING (instance_id) INNER JOIN tq.application_lookup al USING (app_id) WHERE backup_no=42
-- name: progress_total_megs
SELECT total_megs FROM tq.backups WHERE backup_no=42
-- name: progress_client_name
SELECT CASE WHEN (properties & 32)=0 THEN node_name ELSE gcname END AS client_name FROM tq.nodes WHERE node_no=(SELECT node_no FROM tq.backups WHERE backup_no=42)
-- name: progress_update
UPDATE tq.operation_progress SET current_size = 10, snapshot_time = 1700000005 WHERE ( start_time = 1700000000 AND final_size = 100 AND backup_no = 42 AND backup_type = 'Master' AND on_behalf_of = 'client1' AND source = 'appliance1' AND destination = 'vault1' AND name_id = (SELECT name_id FROM tq.operation_names  WHERE name_value = 'replicate') )
-- name: progress_insert
INSERT INTO tq.operation_progress ( name_id, start_time, snapshot_time, final_size, current_size, pid_to_kill, on_behalf_of, source, destination, backup_no, backup_type ) VALUES ( (SELECT name_id FROM tq.operation_names  WHERE name_value = 'replicate'), 1700000000, 1700000005, 100, 0, 4242, 'client1', 'appliance1', 'vault1', 42, 'Master' )
-- name: progress_delete
DELETE FROM tq.operation_progress WHERE (( backup_no = 42 AND backup_type = 'Master' AND on_behalf_of = 'client1' AND source = 'appliance1' AND destination = 'vault1' AND name_id = (SELECT name_id FROM tq.operation_names WHERE name_value = 'replicate') ) OR ( snapshot_time < 1699996400 ))
-- name: progress_summary_charts
SELECT update_summary_charts('replication', 1048576, 4096, 3, 4)
-- name: progress_sds_stats
INSERT INTO tq.sds_stats (client_name,  backup_no,  sync_type, presync_seconds, sync_seconds, postsync_seconds, done_epoch, bytes_on_nlu, bytes_syncd, bytes_on_nlv, message, destination)  VALUES ((SELECT CASE WHEN (properties & 32)=0 THEN node_name ELSE gcname END AS client_name FROM tq.nodes where node_no=(SELECT node_no FROM tq.backups WHERE  backup_no=42)), 42, (SELECT type_id FROM tq.sync_type WHERE type_name='Master'), 1, 2, 3, 1700000000, (SELECT total_megs FROM tq.backups WHERE backup_no=42)*1048576, 4096, (SELECT total_megs FROM tq.backups WHERE backup_no=42)*1048576, $$Success: $$, 'vault1')
-- name: progress_estimate_backup
SELECT properties, type, total_megs from tq.backups WHERE (backup_no = 42)
-- name: progress_estimate_file_count
SELECT count(*) FROM tq.backup_files WHERE (backup_no = 42)
-- name: progress_estimate_small_files
SELECT sum(size) FROM tq.backup_files WHERE (backup_no = 42 and size<7681)
-- name: progress_estimate_large_files
SELECT sum(size) FROM tq.backup_files WHERE (backup_no = 42 and size>=7681)

-- Local block elimination
-- name: elimination_properties
SELECT properties FROM tq.backups WHERE backup_no=42
-- name: elimination_last_master
SELECT backup_no FROM tq.backups WHERE sync_status=2 AND instance_id=(SELECT instance_id FROM tq.backups WHERE backup_no=42) AND type IN (1,5,9,12,1031) AND backup_no<42 ORDER BY backup_no DESC LIMIT 1
-- name: elimination_last_group
SELECT backup_no FROM tq.backups WHERE sync_status=2 AND instance_id=(SELECT instance_id FROM tq.backups WHERE backup_no=42) AND backup_no>=40 AND backup_no<42
-- name: elimination_instance
SELECT backup_no FROM tq.backups WHERE sync_status=2 AND instance_id=(SELECT instance_id FROM tq.backups WHERE backup_no=42)
-- name: elimination_all_done
SELECT backup_no FROM tq.backups WHERE sync_status=2

-- Backup identity
-- name: ubi_check_local
SELECT status, properties FROM tq.backups WHERE backup_no=42
-- name: ubi_backup_info
SELECT identity, start_time, type FROM backups JOIN application_instances USING(instance_id) WHERE backup_no = 42
-- name: ubi_find_backup
SELECT backup_no FROM backups JOIN application_instances USING(instance_id) WHERE LOWER(identity) = LOWER('0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0') AND type = 1 AND start_time = 1700000000 AND (properties & 16384) = 16384 AND (status & 36888) = 0 AND tape_no != 4294967295 ORDER BY backup_no DESC

-- Metadata export
-- name: export_backup
SELECT node_no, instance_id, b.properties, system_id FROM backups b JOIN nodes USING(node_no) WHERE backup_no = 42 AND tape_no != 4294967295
-- name: export_source_system
SELECT name, identity AS appl_uuid FROM systems WHERE system_id = 1
-- name: export_this_system_re_replicated
SELECT name, install_id FROM systems, state WHERE is_local_system = true
-- name: export_this_system
SELECT name, install_id AS appl_uuid FROM systems, state WHERE is_local_system = true
-- name: export_client
SELECT node_name, gcname, type, os, options, properties, identity, generic_property FROM nodes JOIN application_instances USING(node_no) WHERE app_id = 1 AND node_no = 3
-- name: export_client_identity_set
UPDATE application_instances SET identity = '0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0' WHERE node_no = 3 AND app_id = 1 AND identity IS NULL
-- name: export_client_identity_get
SELECT identity FROM application_instances WHERE node_no = 3 AND app_id = 1
-- name: export_instance
SELECT app_id, key1, key2, key3, key4, type, identity FROM application_instances JOIN application_lookup USING(app_id) WHERE instance_id = 7
-- name: export_instance_identity_set
UPDATE application_instances SET identity = '0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0' WHERE instance_id = 7 AND identity IS NULL
-- name: export_instance_identity_get
SELECT identity FROM application_instances WHERE instance_id = 7
-- name: export_application_properties
SELECT * FROM application_properties WHERE instance_id=7
-- name: export_backup_facts
SELECT properties, type, start_time, total_megs, verify_after, is_verified::int, x_command_short, snapshot_time FROM backups LEFT OUTER JOIN backup_snapshots USING(backup_no) WHERE backup_no = 42
-- name: export_vmware_change_id
SELECT change_id FROM vmware_snapshots WHERE backup_no = 42
-- name: export_vmware_hardware_hash
SELECT hardware_hash FROM vmware_hardware_hashes WHERE backup_no = 42
-- name: export_ndmp_vendor
SELECT vendor FROM ndmp_nas WHERE node_no = 3
-- name: export_sql_backup
SELECT server_instance_name, database_name, sql_type, group_file_order, file_order_no FROM sql_backups WHERE sql_ref = 42

-- Metadata import
-- name: import_source_system
SELECT system_id FROM systems WHERE role = 'Replication Source' AND LOWER(identity) = LOWER('0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0')
-- name: import_install_id
SELECT install_id FROM state
-- name: import_recovery_operation
SELECT operation_id FROM operation_status WHERE subsystem = 'Disaster Recovery' AND status = 'pending' AND description = 'Begin Disaster Recovery, initial system metadata restore'
-- name: import_source_device
SELECT device_no FROM systems WHERE role = 'Replication Source' AND LOWER(identity) = LOWER('0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0')
-- name: import_device_check
SELECT is_scsi,is_deleted FROM devices WHERE device_no=5
-- name: import_recovery_client
SELECT node_no, node_name FROM nodes WHERE options=1 AND (properties & 32) = 0
-- name: import_client
SELECT gcname, node_name, node_no, properties FROM nodes JOIN application_instances USING(node_no) WHERE app_id = 1 AND LOWER(identity) = LOWER('0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0')
-- name: import_node_number
SELECT nextval('tq.nodes_node_no_seq') AS node_no
-- name: import_grandclient_number
SELECT nextval('tq.nodes_gclient_seq') AS gcn
-- name: import_create_node
INSERT INTO nodes (node_no, node_name, type, os, properties, priority, status, vendor, last_master, last_master_start_time, last_incremental, last_incremental_start_time, last_selective, last_selective_start_time, last_baremetal, last_baremetal_start_time, features, fstatus, bm_media_test_date, options, gcname, system_id, generic_property) VALUES (3, 'gc1', 1, 2, 32, 500, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 'realclient', 1, 0)
-- name: import_create_node_application
INSERT INTO node_applications (node_no, app_id) VALUES (3, 1)
-- name: import_create_file_level_instance
INSERT INTO application_instances (node_no, app_id, identity) VALUES (3, 1, '0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0')
-- name: import_update_node
UPDATE nodes SET gcname = 'newname', properties = 32 WHERE node_no = 3
-- name: import_recovery_instance
SELECT instance_id, identity FROM application_instances WHERE node_no = 3 AND app_id = 10
-- name: import_instance
SELECT instance_id FROM application_instances WHERE node_no = 3 AND app_id = 4 AND LOWER(identity) = LOWER('0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0')
-- name: import_add_node_application
INSERT INTO node_applications (node_no, app_id) SELECT 3, 4 WHERE NOT EXISTS (SELECT node_no, app_id FROM node_applications WHERE node_no = 3 AND app_id = 4)
-- name: import_instance_number
SELECT nextval('tq.application_instances_instance_id_seq') AS instance_id
-- The presence flags are printed as 0 and 1, and CASE WHEN wants a boolean.
-- name: import_create_instance refused: argument of CASE/WHEN must be type boolean
INSERT INTO application_instances (instance_id, app_id, node_no, key1, key2, key3, key4, identity) VALUES (7, 4, 3, CASE WHEN 1 THEN 'vcenter1' ELSE NULL END, CASE WHEN 1 THEN 'vm1' ELSE NULL END, CASE WHEN 0 THEN NULL ELSE NULL END, CASE WHEN 0 THEN NULL ELSE NULL END, '0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0')
-- name: import_set_instance_identity
UPDATE application_instances SET identity='0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0' WHERE instance_id = 7
-- name: import_add_property
INSERT INTO application_properties (instance_id, prop_key, prop_value) SELECT 7, 'key', 'value' WHERE NOT EXISTS (SELECT TRUE FROM application_properties WHERE instance_id = 7 AND prop_key = 'key')
-- name: import_update_property
UPDATE application_properties SET prop_value = 'value' WHERE prop_key = 'key' AND instance_id = 7
-- name: import_start_directory_add
INSERT INTO dirs (dname) SELECT '@@@:/' WHERE NOT EXISTS (SELECT TRUE FROM dirs WHERE dname = '@@@:/')
-- name: import_start_directory
SELECT dir_no FROM dirs WHERE dname = '@@@:/'
-- name: import_backup_number
SELECT nextval('tq.backups_backup_no_seq') AS new_backup_no
-- name: import_fileset_number
SELECT nextval('tq.filesets_fileset_no_seq') AS fileset_no
-- name: import_job_number
SELECT nextval('tq.jobs_job_no_seq') AS job_no
-- name: import_create_backup
INSERT INTO backups (backup_no, node_no, instance_id, properties, type, start_time, fileset_no, tape_no, server_name, operator_name, multivolume, start_dir_no, status, exit_code, total_megs, verify_after, is_verified, job_no, pid, x_command_short, sync_status, attempt_cnt, elapsed_time, total_netpaths, sync_resv, incomplete, notbacked, total_kilo, blocksize, lcs_no, data_bkno, all_filesets_present) VALUES (44, 3, 7, 16384, 1, 1700000000, 45,(SELECT tape_no FROM devices WHERE device_no = 5), 'host1', 'root', 1, 9, 512, 15, 100, 0, 1::bool, 46, 4242, 'Replicated backup from source1', 0,0,0,0,0, 0,0,0,0,0,0, 0::bool)
-- name: import_create_fileset
INSERT INTO filesets (fileset_no, tape_no, backup_no, vol_no, job_no, start_time, server_name, tape_drive_name, properties, data_format, no_label, ssn, elapsed_time, total_megs, fileset_megs, total_netpaths, status, physical_fsno, v_koffset, btotal, tape_dataset, is_multiplexed, is_encrypted, is_compressed, scsi_blksize, os,ssn_blocksize, mux_fileset_no, import_no, guid, device_properties) VALUES (45, (SELECT tape_no FROM devices WHERE device_no = 5), 44, 1, 46, 1700000000, 'host1', (SELECT dev_name FROM devices WHERE device_no = 5), 0,'file',1::bool,0,0,0,0,0, 0,0,0,0,0, 0::bool,0::bool,0::bool,0,0, 0,0,0,0,0)
-- name: import_create_messages
INSERT INTO backup_msg (backup_no, messages, comment) VALUES(44, (SELECT now()) || ' Replicated backup from source source1 0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0
', 'Replicated backup from source source1 0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0
')
-- name: import_append_messages
UPDATE backup_msg SET messages = messages || 'Re-replicated from here', comment = comment || 'Re-replicated from here' WHERE backup_no = 44
-- name: import_backup_snapshot
INSERT INTO backup_snapshots (backup_no, snapshot_time) VALUES(44, 1700000000)
-- name: import_vmware_snapshot
INSERT INTO vmware_snapshots (backup_no, change_id) VALUES(44, '52 8f 1a')
-- name: import_vmware_hardware_hash
INSERT INTO vmware_hardware_hashes (backup_no, hardware_hash) VALUES(44, 'a1b2c3')
-- name: import_ndmp_lookup
SELECT * from  ndmp_nas where node_no = 3
-- name: import_ndmp_add
INSERT INTO  ndmp_nas (node_no, address, port, vendor, version)VALUES(3, '127.0.0.1', '10000', 'NetApp', 'unknown')
-- name: import_sql_backup
INSERT INTO sql_backups (sql_ref, node_no, sql_type, server_instance_name, database_name, group_file_order, file_order_no) VALUES (44, 3, 1, 'SQL1', 'db1', 5, 6)
-- name: import_recovery_done
UPDATE operation_status SET status = 'done' WHERE operation_id = 9
-- name: import_out_of_order
SELECT backup_no FROM backups WHERE instance_id = 7 AND start_time > 1700000000 AND (status & 36888) = 0 AND tape_no != -1 AND (type & 5135) > 0 AND (type != 1024) AND (type != 4)
-- name: import_mark_failed
UPDATE backups SET status = 5184 WHERE backup_no = 43
-- name: import_mark_failed_message
UPDATE backup_msg SET messages = messages || 'Mark backup as failed, out of order.
' WHERE backup_no = 43
-- name: import_recovery_remove
DELETE FROM operation_status WHERE operation_id = 9

-- Hash values tables
-- name: hashes_column_types
SELECT column_name, data_type FROM information_schema.columns WHERE (table_schema = 'tq') AND (table_name = 'hash_values') AND (column_name IN ( SELECT 'hash_type' UNION ALL SELECT 'hashed_length' UNION ALL SELECT 'hash_value' UNION ALL SELECT 'sis_offset'))
-- name: hashes_column_exists
SELECT column_name FROM information_schema.columns WHERE table_schema = lower('tq') AND table_name = lower('hash_values') AND column_name = lower('compressed_length')
-- name: hashes_get
SELECT hash_id, hashed_length, sis_offset, hash_type, hash_value, compressed_length FROM tq.hash_values WHERE (hash_id = 5)
UNION ALL
SELECT hash_id, hashed_length, sis_offset, hash_type, hash_value, compressed_length FROM tq.hash_values WHERE (hash_type = 'sha512') AND (hashed_length = 65536) AND (hash_value = $1::bytea)
-- name: hashes_lock_both
BEGIN;
LOCK TABLE tq.hash_values, tq.backups_hash_values IN SHARE ROW EXCLUSIVE MODE
-- name: hashes_insert
INSERT INTO tq.hash_values (hash_type, hashed_length, hash_value) SELECT hash_type, hashed_length, hash_value FROM tq.hash_values
NATURAL RIGHT OUTER JOIN
 (SELECT 'sha512'::text AS hash_type, 65536::bigint AS hashed_length, $1::bytea AS hash_value
UNION ALL
SELECT 'sha512'::text AS hash_type, 4096::bigint AS hashed_length, $2::bytea AS hash_value) AS new_data WHERE (hash_values.hash_type IS NULL)
-- name: hashes_set_sis_offset
UPDATE tq.hash_values SET sis_offset = 1048576 , compressed_length = 2000 WHERE (hash_type = 'sha512') AND (hashed_length = 65536) AND (hash_value = $1)
-- name: hashes_map
INSERT INTO tq.backups_hash_values (backup_no, hash_id, file_offset) SELECT backup_no, hash_id, file_offset FROM tq.backups_hash_values
NATURAL RIGHT JOIN
 (SELECT 42 AS backup_no, 5 AS hash_id, 0 AS file_offset
UNION ALL
SELECT 42 AS backup_no, 6 AS hash_id, 65536 AS file_offset) AS new_data WHERE (backups_hash_values.file_offset IS NULL)
-- name: hashes_map_deduplicated
INSERT INTO tq.backups_hash_values (backup_no, hash_id, file_offset, deduplicated, hash_incomplete) SELECT backup_no, hash_id, file_offset, deduplicated, hash_incomplete FROM tq.backups_hash_values
NATURAL RIGHT JOIN
 (SELECT 42 AS backup_no, 5 AS hash_id, 0 AS file_offset, 1 AS deduplicated, FALSE AS hash_incomplete) AS new_data WHERE (backups_hash_values.file_offset IS NULL)
-- name: hashes_readable_copy
SELECT hash_id FROM tq.backups_hash_values WHERE (hash_id = 5) AND (hash_incomplete = FALSE) AND (deduplicated IS NULL) LIMIT 1
-- name: hashes_mapping_exists
SELECT file_offset FROM tq.backups_hash_values where backup_no=42 AND hash_id=5 AND file_offset=0
-- name: hashes_lock_values
BEGIN;
LOCK TABLE tq.hash_values IN SHARE ROW EXCLUSIVE MODE
-- name: hashes_update_info
UPDATE tq.backups_hash_values  SET deduplicated = 1, hash_incomplete = FALSE WHERE (backup_no = 42) AND (hash_id = 5) AND (file_offset = 0)
-- name: hashes_update_info_default
UPDATE tq.backups_hash_values  SET deduplicated = DEFAULT, hash_incomplete = TRUE WHERE (backup_no = 42) AND (file_offset >= 4096)
-- name: hashes_update_info_complete
UPDATE tq.backups_hash_values SET  hash_incomplete = FALSE WHERE (backup_no = 42) AND (file_offset <= 65536)
-- name: hashes_delete_mappings
DELETE FROM tq.backups_hash_values WHERE (backup_no = 42) AND (file_offset >= 4096) AND (file_offset <= 65536)
-- name: hashes_orphans
SELECT hash_id, hashed_length, sis_offset, hash_type, hash_value, backup_no FROM tq.backups_hash_values NATURAL RIGHT OUTER JOIN (SELECT hash_id, hashed_length, sis_offset, hash_type, hash_value FROM tq.hash_values WHERE (sis_offset IS NULL)) AS nonSISfileHashes WHERE (backup_no IS NULL) LIMIT 262144
-- name: hashes_delete
DELETE FROM tq.hash_values WHERE (hash_id = 5)
-- name: hashes_by_sis_offset
SELECT hash_id, hashed_length, sis_offset, backup_no, compressed_length FROM tq.backups_hash_values NATURAL RIGHT OUTER JOIN (SELECT hash_id, hashed_length, sis_offset, compressed_length FROM tq.hash_values WHERE (sis_offset >= 0) ORDER BY sis_offset LIMIT 131072) AS SISfileHashes ORDER BY sis_offset LIMIT 131072

-- Hashing a backup and hash lists
-- name: lists_cursor
DECLARE metaLeft1 SCROLL CURSOR WITH HOLD for SELECT * FROM tq.backups_hash_values WHERE (backup_no=42) AND (hash_incomplete='f') AND hash_id NOT IN (SELECT hash_id FROM tq.backups_hash_values WHERE backup_no=41) AND hash_id IS NOT NULL order by file_offset
-- name: lists_cursor_distinct
DECLARE metaLeft2 SCROLL CURSOR WITH HOLD for SELECT DISTINCT ON (hash_id) * FROM tq.backups_hash_values WHERE (backup_no=42) AND (hash_incomplete='f') AND hash_id IS NOT NULL order by hash_id
-- name: lists_count
SELECT count(hash_id) FROM tq.backups_hash_values WHERE backup_no=42
-- name: lists_count_distinct
SELECT count(distinct hash_id) FROM tq.backups_hash_values WHERE backup_no=42
-- name: lists_candidates
DECLARE candidates CURSOR FOR SELECT backup_no, file_offset FROM tq.backups_hash_values WHERE (backup_no = 42) AND (hash_id = 5) AND (deduplicated IS NULL) AND (hash_incomplete = FALSE) UNION ALL (SELECT backup_no, file_offset FROM tq.backups_hash_values WHERE (deduplicated IS NULL) AND (hash_incomplete = FALSE) AND (hash_id = 5) ORDER BY backup_no DESC)
-- name: lists_properties
SELECT properties FROM tq.backups WHERE (backup_no = 42)
-- name: lists_directories
SELECT dev_nr_name FROM tq.devices WHERE (device_type = 128) ORDER BY octet_length(dev_nr_name) ASC

-- Single-instance store and storage manager
-- name: sis_devices
SELECT dev_nr_name, is_deleted, capacity FROM tq.devices WHERE (device_type = 128) AND (dedup = TRUE) ORDER BY octet_length(dev_nr_name)
-- name: smgr_device
SELECT device_no FROM devices WHERE device_no = 5 AND dev_name <> 'sctape'
-- name: smgr_capacity
SELECT dev_name, capacity FROM devices WHERE device_no = 5

-- Archive files and rehydration
-- name: archive_location
SELECT backups.properties, devices.dev_rw_name FROM backups JOIN devices USING (tape_no) WHERE backups.backup_no = 42
-- name: redup_type
SELECT type FROM tq.backups WHERE (backup_no = 42)
-- name: redup_header_offset
SELECT blk_offset FROM tq.backup_files WHERE (backup_no = 42) AND (blk_offset <= 100) AND (blk_offset >= 0) ORDER BY blk_offset DESC LIMIT 1
-- name: redup_references
(SELECT hash_id, file_offset FROM tq.backups_hash_values WHERE (backup_no = 42) AND (hash_id IS NOT NULL) AND (deduplicated IS NOT NULL) AND (file_offset < 1000) ORDER BY file_offset DESC LIMIT 1)
UNION ALL
(SELECT hash_id, file_offset FROM tq.backups_hash_values WHERE (backup_no = 42) AND (hash_id IS NOT NULL) AND (deduplicated IS NOT NULL) AND (file_offset >= 1000) ORDER BY file_offset LIMIT 16)

-- Inline deduplication
-- name: inline_set_instance
UPDATE tq.application_instances SET inline_dedup = (inline_dedup | 1) WHERE instance_id = 7
-- name: inline_clear_instance
UPDATE tq.application_instances SET inline_dedup = (inline_dedup & ~1) WHERE instance_id = 7
-- name: inline_application_type
SELECT type from application_lookup where app_id = 4
-- name: inline_client_instances
SELECT app_id,instance_id FROM application_instances WHERE node_no = 3 ORDER by instance_id DESC LIMIT 2
-- name: inline_largest_device
SELECT MAX(capacity) FROM tq.devices WHERE dedup=true AND is_deleted=false AND is_online=true AND  device_type=128
-- name: inline_netware_node
SELECT n.type FROM tq.nodes n INNER JOIN tq.application_instances i USING (node_no) WHERE i.instance_id=7 AND n.type in (6, 13, 26, 27, 28, 34)
-- name: inline_mark_deduplicated
UPDATE tq.backups SET properties=properties|1024 WHERE backup_no=42
-- name: inline_backup_stats
INSERT INTO tq.backup_dedup_stats (backup_no,operation,total_files_count,total_file_bytes,deduped_files_count,deduped_files_bytes,total_header_bytes,new_blocks_count,new_blocks_size,existing_blocks_count,existing_blocks_size,total_library_sec,writing_sis_sec,writing_arco_sec,writing_ulf_sec,smgr_wait_sec,metadata_sec) VALUES (42,'inline_dedup',1,2,3,4,5,6,7,8,9,10,11,12,13,14,15);
-- name: inline_stats
INSERT INTO tq.dedup_stats (operation,done_epoch,bytes_processed,elapsed_seconds) VALUES ('in_dedup',1700000000,4096,3);

-- Backup synthesis
-- name: synth_failure
INSERT INTO synthesis_failures (backup_no, failure_time, reason) VALUES (42, 1700000000, 'no master')
-- name: synth_end_backup
SELECT node_no,instance_id FROM backups WHERE backup_no = 42
-- name: synth_client_name
SELECT CASE WHEN (properties & 32)=0 THEN node_name ELSE gcname END AS client_name FROM nodes WHERE node_no = 3
-- name: synth_instance_name
SELECT key1 FROM application_instances WHERE node_no = 3 AND instance_id = 7
-- name: synth_client_os
SELECT os FROM nodes WHERE node_no = 3
-- name: synth_interval_end
SELECT backup_no FROM backups WHERE node_no = 3 AND instance_id = 7 AND type IN (1,2,3) AND start_time <= 1700000000 ORDER BY backup_no DESC LIMIT 1
-- name: synth_files
SELECT * FROM ( SELECT DISTINCT ON (LOWER(fname)) fname, dname, backup_no, type, blocks, blk_offset, size FROM backup_files JOIN dirs USING (dir_no) WHERE backup_no IN (40,41,42) AND end_backup_no > 42  AND type NOT IN (83,84,115,116) ORDER BY LOWER(fname), CASE WHEN type=53 THEN 0 ELSE 1 END ) AS subqry ORDER BY backup_no, blk_offset
-- name: synth_hard_link
SELECT DISTINCT ON (LOWER(fname)) fname, backup_no, blocks, blk_offset, size, type FROM backup_files JOIN dirs USING (dir_no) WHERE backup_no IN (40,41,42) AND end_backup_no > 42 AND LOWER(dname||fname) = LOWER('/data/file') AND type NOT IN (83,84,115,116) ORDER BY LOWER(fname), CASE WHEN type=53 THEN 0 ELSE 1 END LIMIT 1
-- name: synth_hard_link_wide
SELECT  fname, backup_no, blocks, blk_offset, size, type FROM backup_files JOIN dirs USING (dir_no) WHERE backup_no IN (40,41,42) AND LOWER(dname||fname) = LOWER('/data/file') AND type NOT IN (83,84,115,116) ORDER BY end_backup_no DESC, CASE WHEN type=53 THEN 0 ELSE 1 END LIMIT 1
-- name: synth_references
(SELECT hash_id, file_offset FROM tq.backups_hash_values WHERE (backup_no = 42) AND (hash_id IS NOT NULL) AND (file_offset < 1000) ORDER BY file_offset DESC LIMIT 1)
UNION ALL
(SELECT hash_id, file_offset FROM tq.backups_hash_values WHERE (backup_no = 42) AND (hash_id IS NOT NULL) AND (file_offset >= 1000) ORDER BY file_offset LIMIT 16)
-- name: synth_estimate
CREATE TEMPORARY TABLE backup_restore_files(pathname VARCHAR, is_inclusion BOOLEAN) ON COMMIT DROP;
INSERT INTO backup_restore_files (pathname, is_inclusion) VALUES ('', TRUE);
SELECT SUM(blocks) AS sum FROM backup_files bf JOIN dirs USING (dir_no), (SELECT pathname FROM backup_restore_files WHERE is_inclusion = TRUE) AS incls WHERE bf.backup_no IN (40,41,42) AND bf.end_backup_no > 42 AND bf.blk_offset >= 0 AND type NOT IN (83,84,115,116) AND ( (incls.pathname = '') OR ((dirs.dname || bf.fname) = (incls.pathname)) OR ((dirs.dname || bf.fname) LIKE (REPLACE(REPLACE(incls.pathname, '%', '|%'), '_', '|_')) || '/%' ESCAPE '|'))
-- name: synth_group_types
SELECT backup_no,type FROM backups WHERE backup_no IN (40,41,42)
-- name: synth_not_deduplicated
SELECT backup_no FROM backups WHERE (properties & 1024)=0 AND backup_no in (40,41,42)

-- Virtual disk
-- name: vdisk_disks
SELECT fname FROM backup_files WHERE backup_no = 42 AND fname != 'metadata.xml' ORDER BY fname
-- name: vdisk_meta_files
SELECT fname FROM backup_files WHERE backup_no = 42 AND fname LIKE '%##meta##%' AND type=66 ORDER BY fname
-- name: vdisk_data_files
SELECT fname FROM backup_files WHERE backup_no = 42 AND fname LIKE 'disk1%##data##%' AND type=66 ORDER BY fname
-- name: vdisk_newest_backup
SELECT backup_no FROM backup_files WHERE fname='disk1##data##' ORDER BY backup_no DESC LIMIT 1

-- ISAM emulation
-- name: isam_table_exists
SELECT * FROM pg_tables WHERE pg_tables.tablename = 'pids' AND pg_tables.schemaname = 'tq';
-- name: isam_pids_start
SELECT pid, filename, operator_name, comment, time_stamp FROM pids WHERE pid >= 77 ORDER BY pid LIMIT 2048;
-- name: isam_pids_write_lookup
SELECT pid FROM pids WHERE pid = 77;
-- name: isam_pids_insert
INSERT INTO pids (pid, filename, operator_name, comment, time_stamp) VALUES (77, 'ferryd', 'root', $TQtag$a comment$TQtag$, 1700000000);
-- name: isam_pids_update
UPDATE pids SET filename = 'ferryd', operator_name = 'root', comment = $TQtag$a comment$TQtag$, time_stamp = 1700000000 WHERE pid = 77;
-- name: isam_pids_delete
DELETE FROM pids WHERE pid = 77;
