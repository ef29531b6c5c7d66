-- 40_backup_records.sql: what a backup holds and what was noted about it:
-- its file list, snapshot facts, the NDMP servers, and the statistics of
-- deduplication and synthesis.
SET search_path TO tq, public;
SET client_min_messages TO warning;

-- Directory names by number, for the file lists of backups.
CREATE TABLE IF NOT EXISTS tq.dirs (
  dir_no BIGSERIAL PRIMARY KEY,
  dname TEXT NOT NULL
);
CREATE INDEX IF NOT EXISTS dirs_dname_idx ON tq.dirs USING hash (dname);

-- One row a file (or directory, link, disk image) in a backup. type is the
-- archive's link flag as a number (53 a directory, 66 a disk image; 83, 84,
-- 115 and 116 block-level metadata). blk_offset is where the file's header
-- starts in the archive, in 512-byte blocks; blocks is its length in them.
-- end_backup_no is the backup in which this version stops being current; a
-- version that is still current has the largest number there is.
CREATE TABLE IF NOT EXISTS tq.backup_files (
  backup_no BIGINT NOT NULL,
  dir_no BIGINT NOT NULL,
  fname TEXT NOT NULL,
  type INTEGER,
  blocks BIGINT,
  blk_offset BIGINT,
  size BIGINT,
  end_backup_no BIGINT NOT NULL DEFAULT 9223372036854775807
);
CREATE INDEX IF NOT EXISTS backup_files_offset_idx ON tq.backup_files (backup_no, blk_offset);

-- The time of the snapshot a backup was taken from, seconds since the epoch.
CREATE TABLE IF NOT EXISTS tq.backup_snapshots (
  backup_no BIGINT PRIMARY KEY,
  snapshot_time BIGINT
);

-- A VMware backup's changed-block tracking id and its virtual hardware hash.
CREATE TABLE IF NOT EXISTS tq.vmware_snapshots (
  backup_no BIGINT PRIMARY KEY,
  change_id TEXT
);
CREATE TABLE IF NOT EXISTS tq.vmware_hardware_hashes (
  backup_no BIGINT PRIMARY KEY,
  hardware_hash TEXT
);

-- The NDMP server behind a client of type NDMP.
CREATE TABLE IF NOT EXISTS tq.ndmp_nas (
  node_no INTEGER PRIMARY KEY,
  address TEXT,
  port INTEGER,
  vendor TEXT,
  version TEXT
);

-- Why a synthesis of a backup failed.
CREATE TABLE IF NOT EXISTS tq.synthesis_failures (
  backup_no BIGINT,
  failure_time BIGINT,
  reason TEXT
);

-- Statistics of deduplication: one row a backup and operation, and one row
-- a run of any deduplicating operation. Sizes in bytes, times in seconds.
CREATE TABLE IF NOT EXISTS tq.backup_dedup_stats (
  backup_no BIGINT,
  operation VARCHAR(32),
  total_files_count BIGINT,
  total_file_bytes BIGINT,
  deduped_files_count BIGINT,
  deduped_files_bytes BIGINT,
  total_header_bytes BIGINT,
  new_blocks_count BIGINT,
  new_blocks_size BIGINT,
  existing_blocks_count BIGINT,
  existing_blocks_size BIGINT,
  total_library_sec BIGINT,
  writing_sis_sec BIGINT,
  writing_arco_sec BIGINT,
  writing_ulf_sec BIGINT,
  smgr_wait_sec BIGINT,
  metadata_sec BIGINT
);
CREATE TABLE IF NOT EXISTS tq.dedup_stats (
  operation VARCHAR(32),
  done_epoch BIGINT,
  bytes_processed BIGINT,
  elapsed_seconds BIGINT
);
