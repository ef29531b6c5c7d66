#!/usr/bin/env bash
# Installs what is missing, builds, and runs the replication daemon on a
# temporary appliance: its own root (FERRY_SYSROOT) and its own PostgreSQL
# cluster with the appliance schema. Sample backups are written by mkbackup,
# marked as needing replication, and the daemon queues them by itself in
# restore order; `ferryd util` then inspects and reorders the queue, and the
# daemon stops in order on SIGTERM.
set -euo pipefail
FERRY_TOP=$(cd "$(dirname "$0")/.." && pwd)
. "$FERRY_TOP/scripts/lib/deps.sh"
. "$FERRY_TOP/scripts/lib/pgcluster.sh"

ferry_install_deps
ferry_build "$FERRY_TOP/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
FERRYD="$FERRY_TOP/build/daemon/ferryd"
MKBACKUP="$FERRY_TOP/build/tools/mkbackup/mkbackup"

# The device directory is kept in a 32-character column: keep the root short.
root=$(mktemp -d /tmp/ferry-XXXXXX)
pg=$(mktemp -d /tmp/ferry-pg-XXXXXX)
chmod 755 "$pg"
trap 'ferry_pg_stop "$pg"; rm -rf "$root" "$pg"' EXIT
echo "== private PostgreSQL cluster for the appliance database (tqdb)"
ferry_pg_start "$pg"
sql() { ferry_psql "$pg" "$1"; }

export FERRY_SYSROOT=$root
mkdir -p "$root/etc/default" "$root/usr/tq/tqinit" "$root/var/run" "$root/dev/shm" "$root/backups"
printf '[Location Information]\nTQDIR=%s/usr/tq\n' "$root" > "$root/etc/default/tq.ini"
cat > "$root/usr/tq/tqinit/master.ini" <<'INI'
[Replication]
Enabled=true
SyncTo=vault
TimeDelay=1
MaxConcurrent=2
QueueScheme=1
BlockOutPeriods=1-5:8-18=100k,6:=1g

[debugging]
ferryd=4
INI
echo "== appliance root: $root"

echo "== sample backups: a master and two incrementals of one instance, a master of another"
sql "INSERT INTO tq.nodes (node_no, node_name) VALUES (1, 'alpha') ON CONFLICT DO NOTHING" >/dev/null 2>&1 || true
sql "INSERT INTO tq.application_instances (instance_id, app_id, node_no, key1) VALUES
     (1, 1, 1, '/usr/share/doc'), (2, 1, 1, '/etc')" >/dev/null
now=$(date +%s)
"$MKBACKUP" --db -b 101 -t 1 -i 1 -s $((now - 300)) --sync-status 1 /usr/share/doc/bash
"$MKBACKUP" --db -b 102 -t 2 -i 1 -s $((now - 200)) --sync-status 1 /usr/share/doc/libc6
"$MKBACKUP" --db -b 103 -t 2 -i 1 -s $((now - 100)) --sync-status 1 /usr/share/doc/coreutils
"$MKBACKUP" --db -b 104 -t 1 -i 2 -s $((now - 50)) --sync-status 1 /etc/apt
ls -l "$root/backups"
echo "-- a header of backup_101, read back from the archive:"
"$MKBACKUP" --list "$root/backups/backup_101" | head -3

echo "== starting ferryd (it daemonises behind $root/var/run/ferryd.pid)"
"$FERRYD"
for _ in $(seq 50); do [ -s "$root/var/run/ferryd.pid" ] && break; sleep 0.1; done
pid=$(cat "$root/var/run/ferryd.pid")
echo "== daemon running as pid $pid"
for _ in $(seq 100); do
    [ "$(sql 'SELECT count(*) FROM tq.replication_queue')" -ge 4 ] && break
    sleep 0.1
done
echo "== the queue the daemon filled by itself (backup_no|vault|position|status):"
sql "SELECT backup_no, vault, position, status FROM tq.replication_queue ORDER BY position"

echo "== ferryd util: next backup to send, then swap the first two rows"
echo "peek 0 -> $("$FERRYD" util peek 0 || true)"
"$FERRYD" util swap 101 vault 104 vault
echo "peek 0 -> $("$FERRYD" util peek 0 || true)"
sql "SELECT backup_no, position FROM tq.replication_queue ORDER BY position"

echo "== stopping the daemon with SIGTERM"
kill -TERM "$pid"
for _ in $(seq 100); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
echo "== its log"
cat "$root"/usr/tq/logs.dir/ferryd-[0-9]*.log
if [ -e "$root/var/run/ferryd.pid" ]; then
    echo "== pid file still there: FAILED"; exit 1
fi
echo "== pid file removed; daemon stopped"
