-- 60_hash_tables.sql: the hash index of metadata generation 0. One row of
-- hash_values a distinct block, one row of backups_hash_values a use of a
-- block by a backup at a file offset.
-- The programs read the column types of hash_values from the catalog and
-- cast to them, and join the two tables NATURALly: hash_id must stay the only
-- column name the two tables share.
SET search_path TO tq, public;
SET client_min_messages TO warning;

-- A block is named by (hash_type, hashed_length, hash_value). sis_offset is
-- where the single-instance store holds it, NULL when it holds no copy;
-- compressed_length its stored length when the store compressed it.
CREATE TABLE IF NOT EXISTS tq.hash_values (
  hash_id BIGSERIAL PRIMARY KEY,
  hash_type TEXT NOT NULL,
  hashed_length BIGINT NOT NULL,
  hash_value BYTEA NOT NULL,
  sis_offset BIGINT,
  compressed_length BIGINT,
  UNIQUE (hash_type, hashed_length, hash_value)
);
CREATE INDEX IF NOT EXISTS hash_values_sis_offset_idx ON tq.hash_values (sis_offset);

-- deduplicated is NULL while the backup's own file holds the bytes, otherwise
-- the writer's mark. A mapping starts incomplete (hash_incomplete true) until
-- its block is known to be fully written; incomplete rows are invisible to
-- hash lists and to the search for a readable copy. hash_id may be NULL for
-- an offset whose block is not hashed yet; readers skip such rows. Mapping the same triple
-- twice is left to the writers' anti-join, not to a constraint, so that one
-- duplicate never fails a whole batch.
CREATE TABLE IF NOT EXISTS tq.backups_hash_values (
  backup_no BIGINT NOT NULL,
  hash_id BIGINT,
  file_offset BIGINT NOT NULL,
  deduplicated BIGINT DEFAULT NULL,
  hash_incomplete BOOLEAN NOT NULL DEFAULT TRUE
);
CREATE INDEX IF NOT EXISTS backups_hash_values_offset_idx
  ON tq.backups_hash_values (backup_no, file_offset);
CREATE INDEX IF NOT EXISTS backups_hash_values_hash_idx
  ON tq.backups_hash_values (hash_id);
