-- 20_core_columns.sql: columns that the current appliance has on its oldest
-- tables beyond their first definitions, and the indexes its statements need.
-- Programs that must also run on older tables ask columnExists first.
SET search_path TO tq, public;
SET client_min_messages TO warning;

-- The application instance a backup protects; NULL on backups older than
-- application instances.
ALTER TABLE tq.backups ADD COLUMN IF NOT EXISTS instance_id BIGINT;

-- A grandclient (properties bit 0x20) is a client of another appliance: its
-- node_name is generated here, its real name is gcname, and system_id names
-- the appliance in tq.systems that sent it.
ALTER TABLE tq.nodes ADD COLUMN IF NOT EXISTS gcname VARCHAR(256);
ALTER TABLE tq.nodes ADD COLUMN IF NOT EXISTS generic_property BIGINT;
ALTER TABLE tq.nodes ADD COLUMN IF NOT EXISTS system_id INTEGER;

-- dedup: the device holds single-instance store files. is_deleted: the
-- device is being removed and takes no new data.
ALTER TABLE tq.devices ADD COLUMN IF NOT EXISTS dedup BOOLEAN NOT NULL DEFAULT FALSE;
ALTER TABLE tq.devices ADD COLUMN IF NOT EXISTS is_deleted BOOLEAN NOT NULL DEFAULT FALSE;

CREATE INDEX IF NOT EXISTS backups_instance_id_idx ON tq.backups (instance_id, start_time);
CREATE INDEX IF NOT EXISTS backups_node_no_idx ON tq.backups (node_no, start_time);
CREATE INDEX IF NOT EXISTS backups_sync_status_idx ON tq.backups (sync_status);
CREATE INDEX IF NOT EXISTS filesets_backup_no_idx ON tq.filesets (backup_no);
CREATE INDEX IF NOT EXISTS sql_backups_group_idx
  ON tq.sql_backups (node_no, group_file_order, file_order_no);

-- Numbers that the metadata import draws for the records it creates. The
-- oldest tables have no defaults on their keys; the ISAM layer and the
-- import choose numbers themselves.
CREATE SEQUENCE IF NOT EXISTS tq.nodes_node_no_seq AS INTEGER OWNED BY tq.nodes.node_no;
CREATE SEQUENCE IF NOT EXISTS tq.backups_backup_no_seq AS BIGINT OWNED BY tq.backups.backup_no;
CREATE SEQUENCE IF NOT EXISTS tq.filesets_fileset_no_seq AS BIGINT OWNED BY tq.filesets.fileset_no;
CREATE SEQUENCE IF NOT EXISTS tq.jobs_job_no_seq AS BIGINT OWNED BY tq.jobs.job_no;
-- The number in a grandclient's generated node_name ("gc" and the number).
CREATE SEQUENCE IF NOT EXISTS tq.nodes_gclient_seq AS BIGINT;

-- A reload moves each sequence past the numbers already in use, so that an
-- appliance whose rows were numbered by hand before does not collide.
DO $$
DECLARE
  seq RECORD;
  used BIGINT;
BEGIN
  FOR seq IN SELECT * FROM (VALUES
      ('nodes_node_no_seq', 'node_no', 'nodes'),
      ('backups_backup_no_seq', 'backup_no', 'backups'),
      ('filesets_fileset_no_seq', 'fileset_no', 'filesets'),
      ('jobs_job_no_seq', 'job_no', 'jobs')) AS s(name, col, tab)
  LOOP
    EXECUTE format('SELECT max(%I) FROM tq.%I', seq.col, seq.tab) INTO used;
    IF used > (SELECT coalesce(last_value, 0) FROM pg_sequences
               WHERE schemaname = 'tq' AND sequencename = seq.name) THEN
      PERFORM setval(format('tq.%I', seq.name), used);
    END IF;
  END LOOP;
END
$$;
