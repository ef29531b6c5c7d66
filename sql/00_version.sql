-- 00_version.sql: the schema tq, its place on the search path, and the
-- version of the schema that the files of this folder make together.
-- Loaded first; every file of the folder may be loaded again at any time.
SET client_min_messages TO warning;
CREATE SCHEMA IF NOT EXISTS tq;

-- Every program names tables without a schema and relies on tq being first:
-- the connection strings say so, and so does the database itself for the
-- connections that do not (psql, the hash tables' own connection).
DO $$
BEGIN
  EXECUTE format('ALTER DATABASE %I SET search_path TO tq, public', current_database());
END
$$;
SET search_path TO tq, public;

-- One row. The version is raised whenever a file of sql/ changes what a
-- statement may rely on; isam/applianceTables.h states the same number.
CREATE TABLE IF NOT EXISTS tq.schema_version (
  singleton BOOLEAN PRIMARY KEY DEFAULT TRUE CHECK (singleton),
  version INTEGER NOT NULL,
  loaded_at TIMESTAMPTZ NOT NULL DEFAULT now()
);

INSERT INTO tq.schema_version (singleton, version) VALUES (TRUE, 1)
  ON CONFLICT (singleton) DO UPDATE SET version = EXCLUDED.version, loaded_at = now();
