-- 80_restore_groups.sql: the restore group of a backup, the backups that a
-- restore of it needs, in the order they are restored.
SET search_path TO tq, public;
SET client_min_messages TO warning;

-- tqGetRestoreGroupOptimized(backup, family types, filter)
--
-- family types: the backup's family in the order full, differential,
-- incremental ('{12,13,14}'), or the two members of a two-member family
-- ('{1034,1035}'), or the backup's own type alone ('{1}'). filter: a
-- condition over the columns of backups that every member must pass (not
-- failed, not purged, same kind of client, ...); empty means none.
--
-- Returns, ordered by backup number, which is restore order: the newest full
-- before the backup, then for an incremental the newest differential after
-- that full and the incrementals after the differential (or after the full
-- when there is none), and last the backup itself. A full, or a backup of a
-- type outside the family, is a group of itself. Members are taken from the
-- backup's own client and instance only. Nothing is returned for an unknown
-- backup or one that fails the filter.
CREATE OR REPLACE FUNCTION tq.tqGetRestoreGroupOptimized(
    backup_number BIGINT, family_types INTEGER[], filter_condition TEXT)
RETURNS TABLE (t_backup_no BIGINT, t_status BIGINT, t_exit_code BIGINT,
               t_type INTEGER, t_start_time BIGINT)
LANGUAGE plpgsql STABLE
AS $$
DECLARE
  target RECORD;
  passes BOOLEAN;
  condition TEXT := coalesce(nullif(btrim(filter_condition), ''), 'TRUE');
  member_count INTEGER := coalesce(array_length(family_types, 1), 0);
  full_type INTEGER;
  differential_type INTEGER;
  incremental_type INTEGER;
  newest_before TEXT;
  master_no BIGINT;
  differential_no BIGINT;
  incrementals BIGINT[];
  members BIGINT[] := ARRAY[backup_number];
BEGIN
  SELECT b.node_no, b.instance_id, b.type INTO target
    FROM tq.backups b WHERE b.backup_no = backup_number;
  IF NOT FOUND THEN
    RETURN;
  END IF;
  -- A backup that fails the filter has no group, whatever it depends on.
  EXECUTE format('SELECT EXISTS (SELECT 1 FROM tq.backups WHERE backup_no = $1 AND (%s))', condition)
    INTO passes USING backup_number;
  IF NOT passes THEN
    RETURN;
  END IF;

  IF member_count >= 3 THEN
    full_type := family_types[1];
    differential_type := family_types[2];
    incremental_type := family_types[3];
  ELSIF member_count = 2 THEN
    full_type := family_types[1];
    -- Of the two-member families SharePoint (1036, 1037) has a differential
    -- as its second member and Oracle (1034, 1035) an incremental: the array
    -- cannot say which, the type number does.
    IF family_types[2] = 1037 THEN
      differential_type := family_types[2];
    ELSE
      incremental_type := family_types[2];
    END IF;
  ELSIF member_count = 1 AND family_types[1] = 2 THEN
    -- A file-level differential is asked for with its own type alone, yet
    -- it needs its master all the same.
    full_type := 1;
    differential_type := 2;
  END IF;

  IF target.type IS NOT DISTINCT FROM differential_type
     OR target.type IS NOT DISTINCT FROM incremental_type THEN
    -- The newest backup of a type before a number, of the same client and
    -- instance, that passes the filter.
    newest_before := format(
      'SELECT max(backup_no) FROM tq.backups WHERE type = $1'
      ' AND node_no IS NOT DISTINCT FROM $2 AND instance_id IS NOT DISTINCT FROM $3'
      ' AND backup_no > $4 AND backup_no < $5 AND (%s)', condition);

    EXECUTE newest_before INTO master_no
      USING full_type, target.node_no, target.instance_id, 0::BIGINT, backup_number;
    members := members || master_no;

    IF target.type IS NOT DISTINCT FROM incremental_type THEN
      IF differential_type IS NOT NULL THEN
        EXECUTE newest_before INTO differential_no
          USING differential_type, target.node_no, target.instance_id,
                coalesce(master_no, 0), backup_number;
        members := members || differential_no;
      END IF;
      EXECUTE format(
        'SELECT array_agg(backup_no) FROM tq.backups WHERE type = $1'
        ' AND node_no IS NOT DISTINCT FROM $2 AND instance_id IS NOT DISTINCT FROM $3'
        ' AND backup_no > $4 AND backup_no < $5 AND (%s)', condition)
        INTO incrementals
        USING incremental_type, target.node_no, target.instance_id,
              coalesce(differential_no, master_no, 0), backup_number;
      members := members || incrementals;
    END IF;
  END IF;

  RETURN QUERY EXECUTE format(
    'SELECT b.backup_no, b.status, b.exit_code, b.type, b.start_time'
    ' FROM tq.backups b WHERE b.backup_no = ANY($1) AND (%s) ORDER BY b.backup_no',
    condition) USING members;
END
$$;
