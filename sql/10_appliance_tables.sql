-- 10_appliance_tables.sql: the seventeen oldest tables of the appliance.
-- GENERATED from isam/applianceTables.cpp (applianceTablesScript); do not
-- edit by hand. tests/sql/schema_test.cpp fails when the two differ and
-- leaves the expected text in the build directory.
-- Each statement runs only when its table is missing, exactly as the table
-- layer would run it.
SET search_path TO tq, public;

-- file number 6
DO $$
BEGIN
  IF to_regclass('tq.d_master') IS NULL THEN
    CREATE TABLE d_master (  dir_no BIGINT PRIMARY KEY,  crc_32 char(8),  unreferenced boolean,  dname varchar(4096) NOT NULL);
  END IF;
END
$$;

-- file number 5
DO $$
BEGIN
  IF to_regclass('tq.f_master') IS NULL THEN
    CREATE TABLE f_master (  file_no BIGINT PRIMARY KEY,  crc_32 char(8),  unreferenced boolean,  fname varchar(256) NOT NULL);
  END IF;
END
$$;

-- file number 10
DO $$
BEGIN
  IF to_regclass('tq.jobs') IS NULL THEN
    CREATE TABLE jobs ( job_no BIGINT PRIMARY KEY UNIQUE, batch_no BIGINT, log_name VARCHAR(32), node_no INTEGER, node_group INTEGER, start_dir_no BIGINT, x_command VARCHAR(512), queued_date BIGINT, time_scheduled_for BIGINT, start_time BIGINT, elapsed_time INTEGER, status BIGINT, cmd_before VARCHAR(80), cmd_after VARCHAR(80), remote_cmd_before VARCHAR(80), remote_cmd_after VARCHAR(80), tape_no BIGINT, fileset_no BIGINT, device_no INTEGER, attempt_cnt INTEGER, time_stamp BIGINT, pid BIGINT, backup_no BIGINT, password BIGINT, blocksize INTEGER, verify_after INTEGER, jdt INTEGER, dependant_jobno BIGINT, comment VARCHAR(80), lcs_no INTEGER, percent_done INTEGER, operator_name VARCHAR(100), dependant_backupno BIGINT, jlast_message VARCHAR(248));
  END IF;
END
$$;

-- file number 9
DO $$
BEGIN
  IF to_regclass('tq.devices') IS NULL THEN
    CREATE TABLE devices ( device_no INTEGER PRIMARY KEY, dev_name VARCHAR(32) UNIQUE, device_type INTEGER, node_no INTEGER, capacity BIGINT, blocksize INTEGER, cur_fileset INTEGER, comment VARCHAR(80), status BIGINT, cur_k_position BIGINT, time_stamp BIGINT, scsi_blksize INTEGER, is_scsi BOOLEAN, dev_rw_name VARCHAR(32), dev_nr_name VARCHAR(32), dev_cmd_name VARCHAR(32), pid BIGINT, same_as_devices VARCHAR(32), auto_switch VARCHAR(32), tape_class CHAR(8), reservation_pid BIGINT, scsi_caps BIGINT, scsi_id INTEGER, scsi_lun INTEGER, scsi_ha INTEGER, tested BOOLEAN, drive_level INTEGER, fd INTEGER, tape_no BIGINT, properties BIGINT, juke_drive_no INTEGER, no_label BOOLEAN, mux_maxcnt INTEGER, mux_sched INTEGER, mux_running INTEGER, is_online BOOLEAN, slot_no INTEGER, dev_changer_name VARCHAR(30), use_juke BOOLEAN, juke_libno INTEGER, comment_short VARCHAR(44), total_write_usages BIGINT, total_write_time BIGINT, backup_no BIGINT, juke_slot_info INTEGER, juke_node_no INTEGER);
  END IF;
END
$$;

-- file number 17
DO $$
BEGIN
  IF to_regclass('tq.nodes') IS NULL THEN
    CREATE TABLE nodes ( node_no INTEGER PRIMARY KEY UNIQUE, node_name VARCHAR(32) UNIQUE, type INTEGER, os INTEGER, vendor BIGINT, status BIGINT, last_master BIGINT, last_master_start_time BIGINT, last_incremental BIGINT, last_incremental_start_time BIGINT, last_selective BIGINT, last_selective_start_time BIGINT, last_baremetal BIGINT, last_baremetal_start_time BIGINT, priority INTEGER, options BIGINT, features BIGINT, fstatus BIGINT, properties BIGINT, bm_media_test_date BIGINT);
  END IF;
END
$$;

-- file number 8
DO $$
BEGIN
  IF to_regclass('tq.tapes') IS NULL THEN
    CREATE TABLE tapes ( tape_no BIGINT PRIMARY KEY UNIQUE, backup_no BIGINT, label VARCHAR(80), status BIGINT, media_pool INTEGER, magazine_no INTEGER, expiration_date BIGINT, soft_errors INTEGER, hard_errors INTEGER, total_uncompressed_data INTEGER, total_compressed_data INTEGER, total_megs BIGINT, location VARCHAR(80), capacity BIGINT, when_labelled BIGINT, usages INTEGER, scsi_blksize INTEGER, physical_fsno BIGINT, juke_slot INTEGER, juke_slot_info INTEGER, juke_drive_no INTEGER, juke_libno INTEGER, tape_class CHAR(8), sets_of_data BIGINT, blocksize INTEGER, scratch_cnt INTEGER, import_no BIGINT, no_label BOOLEAN);
  END IF;
END
$$;

-- file number 14
DO $$
BEGIN
  IF to_regclass('tq.backups') IS NULL THEN
    CREATE TABLE backups ( backup_no BIGINT PRIMARY KEY UNIQUE, attempt_cnt INTEGER, node_no INTEGER, start_time BIGINT, tape_no BIGINT, job_no BIGINT UNIQUE, fileset_no BIGINT, elapsed_time BIGINT, server_name VARCHAR(32), operator_name VARCHAR(100), properties BIGINT, total_netpaths BIGINT, total_megs BIGINT, multivolume INTEGER, sync_status INTEGER, sync_resv INTEGER, status BIGINT, start_dir_no BIGINT, incomplete INTEGER, notbacked INTEGER, type INTEGER, verify_after INTEGER, is_verified BOOLEAN, exit_code BIGINT, total_kilo BIGINT, blocksize INTEGER, lcs_no INTEGER, x_command_short VARCHAR(256), all_filesets_present BOOLEAN, pid BIGINT, data_bkno BIGINT);
  END IF;
END
$$;

-- file number 2
DO $$
BEGIN
  IF to_regclass('tq.filesets') IS NULL THEN
    CREATE TABLE filesets ( fileset_no BIGINT PRIMARY KEY UNIQUE, ssn BIGINT, vol_no BIGINT, tape_no BIGINT,  start_time BIGINT, elapsed_time BIGINT, total_megs BIGINT, fileset_megs BIGINT, total_netpaths BIGINT, server_name VARCHAR(32), tape_drive_name VARCHAR(32), status BIGINT, properties BIGINT, physical_fsno BIGINT, v_koffset BIGINT, btotal BIGINT, tape_dataset BIGINT, backup_no BIGINT, job_no BIGINT, data_format CHAR(5), is_multiplexed BOOLEAN, is_encrypted BOOLEAN, is_compressed BOOLEAN, no_label BOOLEAN, scsi_blksize INTEGER, os INTEGER, ssn_blocksize INTEGER, mux_fileset_no BIGINT, import_no BIGINT, guid BIGINT, device_properties BIGINT);
  END IF;
END
$$;

-- file number 13
DO $$
BEGIN
  IF to_regclass('tq.sql_backups') IS NULL THEN
    CREATE TABLE sql_backups ( sql_ref BIGINT PRIMARY KEY UNIQUE, node_no INTEGER, database_name VARCHAR(128), server_instance_name VARCHAR(32), group_file_order BIGINT, file_order_no BIGINT, sql_type INTEGER);
  END IF;
END
$$;

-- file number 15
DO $$
BEGIN
  IF to_regclass('tq.backup_msg') IS NULL THEN
    CREATE TABLE backup_msg ( backup_no BIGINT PRIMARY KEY UNIQUE, messages VARCHAR, comment VARCHAR(480));
  END IF;
END
$$;

-- file number 18
DO $$
BEGIN
  IF to_regclass('tq.lcs') IS NULL THEN
    CREATE TABLE lcs ( lcs_no INTEGER PRIMARY KEY UNIQUE, is_online BOOLEAN, start_time BIGINT,  sched_name VARCHAR(80) UNIQUE NOT NULL, device_no INTEGER, status BIGINT, last_start_time BIGINT, last_end_time BIGINT, total_netpaths BIGINT, total_megs BIGINT, job_no BIGINT,  failure_report_is_online BOOLEAN, failure_report_notification_type INTEGER, backup_summary_is_online BOOLEAN, backup_summary_notification_type INTEGER, weekly_summary_is_online BOOLEAN, weekly_summary_notification_type INTEGER, cmd_before VARCHAR (80), cmd_after VARCHAR (80), server_name VARCHAR (32), last_message VARCHAR (256), working_element INTEGER, is_recurring BOOLEAN);
  END IF;
END
$$;

-- file number 20
DO $$
BEGIN
  IF to_regclass('tq.lcs_client') IS NULL THEN
    CREATE TABLE lcs_client ( lcs_no INTEGER, node_no INTEGER, type INTEGER, freq INTEGER, element_freq INTEGER, seq_no INTEGER, profile_path VARCHAR(256), is_online BOOLEAN, comment VARCHAR(80), status BIGINT, last_job BIGINT, last_job_status BIGINT, last_backup BIGINT, last_verify_job BIGINT, last_verify_status BIGINT, last_verify_backup BIGINT, last_message VARCHAR(256), retries_cnt INTEGER, last_queued_time BIGINT, use_juke BOOLEAN, verify_after INTEGER, priority INTEGER, sub_type INTEGER, PRIMARY KEY (lcs_no, node_no, type, freq, element_freq, seq_no));
  END IF;
END
$$;

-- file number 21
DO $$
BEGIN
  IF to_regclass('tq.lcs_hist') IS NULL THEN
    CREATE TABLE lcs_hist ( lcs_no INTEGER, start_time BIGINT, node_no INTEGER, job_no BIGINT, last_verify_job BIGINT, backup_no BIGINT, last_verify_backup BIGINT, status BIGINT, verify_after INTEGER, type INTEGER, comment VARCHAR(80), PRIMARY KEY (lcs_no, start_time, node_no, job_no));
  END IF;
END
$$;

-- file number 1
DO $$
BEGIN
  IF to_regclass('tq.netpaths') IS NULL THEN
    CREATE TABLE netpaths ( node_no INTEGER, dir_no BIGINT, file_no BIGINT, lib_inst_no INTEGER, link_to_dir_no BIGINT, link_to_file_no BIGINT, media_size BIGINT, fileset_no BIGINT, size BIGINT, mod_date BIGINT, owner_id INTEGER, group_id INTEGER, perms_mode BIGINT, attributes BIGINT, detail_ref_cnt INTEGER, tmp INTEGER, file_type INTEGER, ext_attr_blks INTEGER, prop1 INTEGER, PRIMARY KEY (node_no, dir_no, file_no, lib_inst_no));
  END IF;
END
$$;

-- file number 3
DO $$
BEGIN
  IF to_regclass('tq.detail') IS NULL THEN
    CREATE TABLE detail ( fileset_no BIGINT, index_no BIGINT, f_offset BIGINT, node_no INTEGER, dir_no BIGINT, file_no BIGINT, lib_inst_no INTEGER, prop1 INTEGER, PRIMARY KEY (fileset_no, index_no));
  END IF;
END
$$;

-- file number 12
DO $$
BEGIN
  IF to_regclass('tq.library') IS NULL THEN
    CREATE TABLE library ( total_netpaths BIGINT, location VARCHAR(80), dispatcher INTEGER, library_no INTEGER PRIMARY KEY, dispatch_pid BIGINT, comment VARCHAR(80), unref_netpaths BIGINT, purge_status BIGINT, f_master_version BIGINT, lcs_client_version BIGINT);
  END IF;
END
$$;

-- file number 11
DO $$
BEGIN
  IF to_regclass('tq.pids') IS NULL THEN
    CREATE TABLE pids ( pid BIGINT PRIMARY KEY, filename VARCHAR(128), operator_name VARCHAR(100), comment VARCHAR(80), misc1 BIGINT, time_stamp BIGINT);
  END IF;
END
$$;
