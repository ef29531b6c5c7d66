-- 35_systems.sql: this appliance and the appliances it deals with, and the
-- long-running operations of the appliance as a whole.
SET search_path TO tq, public;
SET client_min_messages TO warning;

-- One row an appliance. The row with is_local_system is this one; rows with
-- role 'Replication Source' are the appliances allowed to send backups here,
-- identity being their install_id, and device_no (when set) the device that
-- receives them. nodes.system_id of a grandclient points here.
CREATE TABLE IF NOT EXISTS tq.systems (
  system_id SERIAL PRIMARY KEY,
  name VARCHAR(64) NOT NULL,
  identity TEXT,
  role VARCHAR(64),
  device_no INTEGER,
  is_local_system BOOLEAN NOT NULL DEFAULT FALSE
);

-- One row: the identity of this installation, made once when the schema is
-- first loaded. A second row is refused, so that "SELECT install_id FROM
-- state" can never answer two values.
CREATE TABLE IF NOT EXISTS tq.state (
  singleton BOOLEAN PRIMARY KEY DEFAULT TRUE CHECK (singleton),
  install_id TEXT NOT NULL
);
INSERT INTO tq.state (singleton, install_id) VALUES (TRUE, gen_random_uuid()::text)
  ON CONFLICT (singleton) DO NOTHING;

-- Operations of the appliance that span processes, such as a disaster
-- recovery: status is 'pending' until the operation is 'done'.
CREATE TABLE IF NOT EXISTS tq.operation_status (
  operation_id BIGSERIAL PRIMARY KEY,
  subsystem VARCHAR(64) NOT NULL,
  status VARCHAR(32) NOT NULL,
  description TEXT
);
