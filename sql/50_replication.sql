-- 50_replication.sql: the replication queue, the progress that the user
-- interface shows while an operation runs, and the statistics written when
-- it ends.
SET search_path TO tq, public;
SET client_min_messages TO warning;

-- The queue: one row a backup and vault. This is the statement the daemon
-- itself runs for "util createqueue"; it lacks rep_start, added below.
DO $$
BEGIN
  IF to_regclass('tq.replication_queue') IS NULL THEN
    CREATE TABLE tq.replication_queue (backup_no BIGINT REFERENCES tq.backups (backup_no) ON DELETE CASCADE, vault TEXT, position SERIAL, status INTEGER);
  END IF;
END
$$;
-- Time of the last dequeue of the row, seconds since the epoch.
ALTER TABLE tq.replication_queue ADD COLUMN IF NOT EXISTS rep_start BIGINT;
CREATE INDEX IF NOT EXISTS replication_queue_status_idx ON tq.replication_queue (status, position);
CREATE INDEX IF NOT EXISTS replication_queue_backup_idx ON tq.replication_queue (backup_no, vault);

-- Names of the operations that progress rows are about. "util createtypes"
-- adds prepare (6), replicate (7), wait (8) and rebuild (9); the two below
-- are used by the replication worker as well and come with the schema.
CREATE TABLE IF NOT EXISTS tq.operation_names (
  name_id INTEGER PRIMARY KEY,
  name_value VARCHAR(64) NOT NULL UNIQUE
);
INSERT INTO tq.operation_names (name_id, name_value) VALUES
  (10, 'processing'),
  (11, 'no_activity')
  ON CONFLICT DO NOTHING;

-- One row an operation in progress. Sizes in whole MiB, times in seconds
-- since the epoch. A row whose operation name is unknown is refused (the
-- name_id subselect gives NULL), so no row without a name is left behind.
CREATE TABLE IF NOT EXISTS tq.operation_progress (
  name_id INTEGER NOT NULL,
  start_time BIGINT,
  snapshot_time BIGINT,
  final_size BIGINT,
  current_size BIGINT,
  pid_to_kill INTEGER,
  on_behalf_of TEXT,
  source TEXT,
  destination TEXT,
  backup_no BIGINT,
  backup_type TEXT
);
CREATE INDEX IF NOT EXISTS operation_progress_backup_idx ON tq.operation_progress (backup_no);

-- The kinds of backup that statistics rows are about, by the display names
-- of the backup types.
CREATE TABLE IF NOT EXISTS tq.sync_type (
  type_id SERIAL PRIMARY KEY,
  type_name VARCHAR(64) NOT NULL UNIQUE
);
INSERT INTO tq.sync_type (type_name) VALUES
  ('Master'), ('Differential'), ('Incremental'), ('SQL'),
  ('MSExch Full'), ('MSExch Diff'), ('MSExch Incr'),
  ('MSSQL Full'), ('MSSQL Diff'), ('MSSQL Trans'),
  ('ESX VM Full'), ('ESX VM Diff'), ('ESX VM Incr'),
  ('BareMetal'), ('LocalDir'),
  ('Hyper-V Full'), ('Hyper-V Diff'), ('Hyper-V Incr'),
  ('Oracle Full'), ('Oracle Incr'),
  ('SharePoint Full'), ('SharePoint Diff'),
  ('System Metadata'),
  ('UCS Service Profile Full'), ('UCS Service Profile Diff'), ('UCS Service Profile Incr'),
  ('Generic Full'), ('Generic Diff'), ('Generic Incr'),
  ('NDMP Full'), ('NDMP Diff'), ('NDMP Incr'),
  ('unknown')
  ON CONFLICT (type_name) DO NOTHING;

-- One row a finished replication job. bytes_on_nlu and bytes_on_nlv are the
-- backup's size on the source and the target, bytes_syncd what was sent.
CREATE TABLE IF NOT EXISTS tq.sds_stats (
  client_name TEXT,
  backup_no BIGINT,
  sync_type INTEGER,
  presync_seconds BIGINT,
  sync_seconds BIGINT,
  postsync_seconds BIGINT,
  done_epoch BIGINT,
  bytes_on_nlu BIGINT,
  bytes_syncd BIGINT,
  bytes_on_nlv BIGINT,
  message TEXT,
  destination TEXT
);
CREATE INDEX IF NOT EXISTS sds_stats_backup_idx ON tq.sds_stats (backup_no);

-- Daily totals per kind of operation ('replication', ...), for the charts of
-- the management interface.
CREATE TABLE IF NOT EXISTS tq.summary_charts (
  chart_date DATE NOT NULL,
  operation VARCHAR(32) NOT NULL,
  runs BIGINT NOT NULL DEFAULT 0,
  read_size BIGINT NOT NULL DEFAULT 0,
  write_size BIGINT NOT NULL DEFAULT 0,
  read_time BIGINT NOT NULL DEFAULT 0,
  write_time BIGINT NOT NULL DEFAULT 0,
  PRIMARY KEY (chart_date, operation)
);

-- Adds one finished run to today's totals of its operation. Sizes in bytes,
-- times in seconds.
CREATE OR REPLACE FUNCTION tq.update_summary_charts(
    operation_name TEXT, read_bytes BIGINT, write_bytes BIGINT,
    read_seconds BIGINT, write_seconds BIGINT)
RETURNS VOID
LANGUAGE sql
AS $$
  INSERT INTO tq.summary_charts AS c
      (chart_date, operation, runs, read_size, write_size, read_time, write_time)
    VALUES (current_date, operation_name, 1, read_bytes, write_bytes, read_seconds, write_seconds)
  ON CONFLICT (chart_date, operation) DO UPDATE SET
    runs = c.runs + 1,
    read_size = c.read_size + EXCLUDED.read_size,
    write_size = c.write_size + EXCLUDED.write_size,
    read_time = c.read_time + EXCLUDED.read_time,
    write_time = c.write_time + EXCLUDED.write_time;
$$;
