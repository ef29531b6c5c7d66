# Sourced by the demo: a private PostgreSQL 15 cluster for one appliance,
# reached over a Unix socket as libpq service "localhost", database tqdb,
# with the appliance schema of sql/ loaded.
#
#   ferry_pg_start <dir>   initdb + start + schema; exports PGSERVICEFILE
#   ferry_pg_stop <dir>    stops the server (the caller removes <dir>)

FERRY_PG_BIN=/usr/lib/postgresql/15/bin

# Runs a command as the postgres system user when we are root: the server
# refuses to run as root.
ferry_pg_as() {
    if [ "$(id -u)" -eq 0 ]; then
        runuser -u postgres -- "$@"
    else
        "$@"
    fi
}

ferry_pg_start() {
    local dir=$1
    mkdir -p "$dir/data" "$dir/socket"
    [ "$(id -u)" -eq 0 ] && chown -R postgres: "$dir"
    ferry_pg_as "$FERRY_PG_BIN/initdb" -D "$dir/data" -U postgres -A trust -E UTF8 >"$dir/initdb.log" 2>&1 || {
        cat "$dir/initdb.log"; return 1; }
    cat >>"$dir/data/postgresql.conf" <<CONF
listen_addresses = ''
unix_socket_directories = '$dir/socket'
fsync = off
CONF
    ferry_pg_as "$FERRY_PG_BIN/pg_ctl" start -D "$dir/data" -l "$dir/server.log" -w -t 120 >/dev/null || {
        cat "$dir/server.log"; return 1; }
    ferry_pg_as "$FERRY_PG_BIN/psql" -h "$dir/socket" -U postgres -d postgres -qAt \
        -c "CREATE DATABASE tqdb" >/dev/null || return 1
    local f
    for f in "$FERRY_TOP"/sql/*.sql; do
        ferry_pg_as "$FERRY_PG_BIN/psql" -h "$dir/socket" -U postgres -d tqdb -q -v ON_ERROR_STOP=1 \
            -f "$f" >/dev/null || { echo "schema file $f failed"; return 1; }
    done
    printf '[localhost]\nhost=%s\nuser=postgres\ndbname=tqdb\n' "$dir/socket" >"$dir/pg_service.conf"
    chmod 644 "$dir/pg_service.conf"
    export PGSERVICEFILE="$dir/pg_service.conf"
}

ferry_pg_stop() {
    local dir=$1
    [ -d "$dir/data" ] && ferry_pg_as "$FERRY_PG_BIN/pg_ctl" stop -D "$dir/data" -m fast -w >/dev/null 2>&1
    return 0
}

# ferry_psql <dir> <sql>: runs SQL in tqdb and prints unaligned rows.
ferry_psql() {
    ferry_pg_as "$FERRY_PG_BIN/psql" -h "$1/socket" -U postgres -d tqdb -qAt -c "$2"
}
