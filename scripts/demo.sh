#!/usr/bin/env bash
# Installs what is missing, builds, and runs the replication daemon under a
# temporary appliance root: a few passes of its main loop, its log, and an
# orderly stop on SIGTERM.
set -euo pipefail
FERRY_TOP=$(cd "$(dirname "$0")/.." && pwd)
. "$FERRY_TOP/scripts/lib/deps.sh"
. "$FERRY_TOP/scripts/lib/pgcluster.sh"

ferry_install_deps
ferry_build "$FERRY_TOP/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
FERRYD="$FERRY_TOP/build/daemon/ferryd"

root=$(mktemp -d /tmp/ferry-demo-XXXXXX)
pg=$(mktemp -d /tmp/ferry-demo-pg-XXXXXX)
chmod 755 "$pg"
trap 'ferry_pg_stop "$pg"; rm -rf "$root" "$pg"' EXIT
echo "== private PostgreSQL cluster for the appliance database (tqdb)"
ferry_pg_start "$pg"
export FERRY_SYSROOT=$root
mkdir -p "$root/etc/default" "$root/usr/tq/tqinit" "$root/var/run" "$root/dev/shm" "$root/backups"
printf '[Location Information]\nTQDIR=%s/usr/tq\n' "$root" > "$root/etc/default/tq.ini"
cat > "$root/usr/tq/tqinit/master.ini" <<'INI'
[Replication]
Enabled=true
SyncTo=vault
TimeDelay=1
MaxConcurrent=2
BlockOutPeriods=1-5:8-18=100k,6:=1g

[debugging]
ferryd=4
INI

echo "== appliance root: $root"
echo "== starting ferryd"
"$FERRYD"
for _ in $(seq 50); do [ -s "$root/var/run/ferryd.pid" ] && break; sleep 0.1; done
pid=$(cat "$root/var/run/ferryd.pid")
echo "== daemon running as pid $pid; pid file $root/var/run/ferryd.pid"
sleep 3.5
echo "== stopping it with SIGTERM"
kill -TERM "$pid"
for _ in $(seq 100); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
echo "== its log"
cat "$root"/usr/tq/logs.dir/ferryd-*.log
if [ -e "$root/var/run/ferryd.pid" ]; then
    echo "== pid file still there: FAILED"; exit 1
fi
echo "== pid file removed; daemon stopped"
