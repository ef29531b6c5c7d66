-- 70_views.sql: views over the backups that the group lookups read.
SET search_path TO tq, public;
SET client_min_messages TO warning;

-- Backups that finished (status bit 64), are not running (0x200), have no
-- failure bit (0x9018: failed, cancelled and the like), and are not logically
-- deleted (tape_no all ones, stored as -1 by some writers and as 4294967295
-- by others). All columns of backups, so that callers filter as on the table.
CREATE OR REPLACE VIEW tq.successful_backups AS
  SELECT *
    FROM tq.backups
   WHERE (status & 64) <> 0
     AND (status & 512) = 0
     AND (status & 36888) = 0
     AND tape_no IS DISTINCT FROM -1
     AND tape_no IS DISTINCT FROM 4294967295;
