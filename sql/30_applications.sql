-- 30_applications.sql: what a client protects. An application instance is
-- one protected thing of a client (its files, a database, a virtual
-- machine); backups.instance_id names one. Identities are the UUIDs that name
-- an instance across appliances, assigned by the first metadata export.
SET search_path TO tq, public;
SET client_min_messages TO warning;

-- The kinds of application. type is the word the programs test ("VMware",
-- "SQL Server", ...); name is what the management interface shows.
CREATE TABLE IF NOT EXISTS tq.application_lookup (
  app_id INTEGER PRIMARY KEY,
  name VARCHAR(48) NOT NULL,
  type VARCHAR(64) NOT NULL
);

-- app_id 1 is the file level of a client: every client has that instance.
-- The other numbers are this appliance's own.
INSERT INTO tq.application_lookup (app_id, name, type) VALUES
  (1, 'File Level', 'file-level'),
  (2, 'Microsoft Exchange', 'Exchange'),
  (3, 'Microsoft SQL Server', 'SQL Server'),
  (4, 'VMware', 'VMware'),
  (5, 'Hyper-V', 'Hyper-V'),
  (6, 'Oracle', 'Oracle'),
  (7, 'SharePoint', 'SharePoint'),
  (8, 'UCS Service Profile', 'UCS Service Profile'),
  (9, 'NDMP Device', 'NDMP Device'),
  (10, 'System Metadata', 'System Metadata')
  ON CONFLICT (app_id) DO NOTHING;

-- key1 to key4 name the instance within its application (server and
-- database, host and virtual machine, ...). priority orders the instances
-- for the queue's recency scheme, highest first. Bit 0 of inline_dedup turns
-- on deduplication while a backup arrives.
CREATE TABLE IF NOT EXISTS tq.application_instances (
  instance_id BIGSERIAL PRIMARY KEY,
  app_id INTEGER NOT NULL,
  node_no INTEGER NOT NULL,
  key1 TEXT,
  key2 TEXT,
  key3 TEXT,
  key4 TEXT,
  identity TEXT,
  priority INTEGER NOT NULL DEFAULT 0,
  inline_dedup INTEGER NOT NULL DEFAULT 0
);
CREATE INDEX IF NOT EXISTS application_instances_node_idx
  ON tq.application_instances (node_no, app_id);
CREATE INDEX IF NOT EXISTS application_instances_identity_idx
  ON tq.application_instances (lower(identity));

-- Free key/value settings of an instance, carried along by replication.
CREATE TABLE IF NOT EXISTS tq.application_properties (
  instance_id BIGINT NOT NULL,
  prop_key TEXT NOT NULL,
  prop_value TEXT,
  PRIMARY KEY (instance_id, prop_key)
);

-- Which applications a client has.
CREATE TABLE IF NOT EXISTS tq.node_applications (
  node_no INTEGER NOT NULL,
  app_id INTEGER NOT NULL,
  PRIMARY KEY (node_no, app_id)
);
