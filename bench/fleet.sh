#!/usr/bin/env bash
# (e) Deliveries: the messages per second one ftc-server stores from many devices delivering at
# once, with SQLite and with PostgreSQL, beside what each database accepts for the same rows and
# batch size through its own tool (sqlite3; pgbench with a script of those inserts), and the
# server's peak memory as devices are added. Usage: bench/fleet.sh BUILD_DIR
# BENCH_DEVICES (1000), BENCH_BATCH (messages per delivery, 10), BENCH_BATCHES (per device, 5),
# BENCH_PG_CLIENTS (connections on both sides for PostgreSQL, 8).
set -euo pipefail

BUILD=$(cd "${1:?usage: bench/fleet.sh BUILD_DIR}" && pwd)
BIN=$BUILD/bin
DEVICES=${BENCH_DEVICES:-1000}
BATCH=${BENCH_BATCH:-10}
BATCHES=${BENCH_BATCHES:-5}
PG_CLIENTS=${BENCH_PG_CLIENTS:-8}
MESSAGES=$((DEVICES * BATCHES * BATCH))
WORK=$(mktemp -d /tmp/ftc-fleet-bench.XXXXXX)
chmod 755 "$WORK"
mkdir -p "$WORK/bundle"
SERVER=""
PG=""
as_pg=()
[ "$(id -u)" -eq 0 ] && as_pg=(runuser -u postgres --)

cleanup() {
  [ -n "$SERVER" ] && kill "$SERVER" 2>/dev/null && wait "$SERVER" 2>/dev/null
  [ -n "$PG" ] && "${as_pg[@]}" "$PG/pg_ctl" -D "$WORK/pg/data" -m fast -w stop >/dev/null 2>&1
  rm -rf "$WORK"
}
trap cleanup EXIT
ulimit -n 65536 2>/dev/null || ulimit -n "$(ulimit -Hn)" 2>/dev/null || true

for tool in sqlite3 "$BIN/bench_delivery" "$BIN/ftc-server"; do
  command -v "$tool" >/dev/null || { echo "bench: $tool is missing (make bench)"; exit 1; }
done
calc() { awk "BEGIN { printf \"%.2f\", $* }"; }
field() { sed -n "s/.*[ ]$1=\([^ ]*\).*/\1/p" | head -1; }
verdict() { awk "BEGIN { exit !($1 >= $2) }" && echo "meets target" || echo "BELOW target"; }
now() { date +%s.%N; }
free_port() { python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'; }

# start_server DB_URL THREADS: sets SERVER (pid) and PORT.
start_server() {
  "$BIN/ftc-server" --root "$WORK/bundle" --port 0 --db "$1" --threads "$2" \
    >"$WORK/server.out" 2>"$WORK/server.err" &
  SERVER=$!
  for _ in $(seq 100); do grep -q listening "$WORK/server.out" 2>/dev/null && break; sleep 0.1; done
  PORT=$(sed -n 's/^listening on .*:\([0-9]*\)$/\1/p' "$WORK/server.out")
  [ -n "$PORT" ] || { echo "bench: ftc-server did not start"; cat "$WORK/server.err"; exit 1; }
}
stop_server() { kill "$SERVER"; wait "$SERVER" || true; SERVER=""; }
peak_kib() { awk '/^VmHWM/ { print $2 }' "/proc/$SERVER/status"; }
# deliver DEVICES [BATCHES]: prints messages per second; fails unless every message was stored
# once.
deliver() {
  local out
  out=$("$BIN/bench_delivery" run "$PORT" "$1" "${2:-$BATCHES}" "$BATCH")
  [ "$(echo "$out" | field ok)" = 1 ] || { echo "bench: delivery incomplete: $out" >&2; exit 1; }
  echo "$out" | field mps
}

echo "== (e) $DEVICES devices delivering $BATCHES batches of $BATCH messages each at once ($MESSAGES messages)"

start_server "sqlite:$WORK/server.db" "$(nproc)"
server_mps=$(deliver "$DEVICES")
stop_server
start_server "sqlite:$WORK/own.db" 1  # the same schema for sqlite3
stop_server
{
  echo "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;"
  "$BIN/bench_delivery" sqlite "$DEVICES" "$BATCHES" "$BATCH"
} >"$WORK/rows.sql"
t0=$(now)
sqlite3 "$WORK/own.db" <"$WORK/rows.sql" >/dev/null
t1=$(now)
own_mps=$(calc "$MESSAGES / ($t1 - $t0)")
[ "$(sqlite3 "$WORK/own.db" 'SELECT count(*) FROM messages')" -eq "$MESSAGES" ] ||
  { echo "bench: sqlite3 did not store every row"; exit 1; }
ratio=$(calc "$server_mps / $own_mps")
echo "SQLite      ftc-server $server_mps msg/s   sqlite3 $own_mps msg/s   ratio $ratio (target >= 0.5: $(verdict "$ratio" 0.5))"

# The same messages from ever more devices at once, so that only the number of devices changes.
line="server peak RSS for the same $MESSAGES messages:"
for n in $((DEVICES / 100)) $((DEVICES / 10)) "$DEVICES"; do
  [ "$n" -ge 1 ] || continue
  rm -f "$WORK"/mem.db*
  start_server "sqlite:$WORK/mem.db" "$(nproc)"
  deliver "$n" $((DEVICES * BATCHES / n)) >/dev/null
  line="$line  $n devices $(peak_kib) KiB"
  stop_server
done
echo "$line"

PG=$(dirname "$(ls /usr/lib/postgresql/*/bin/initdb 2>/dev/null | sort -V | tail -1)")
if [ ! -x "$PG/pg_ctl" ] || ! command -v pgbench >/dev/null; then
  PG=""
  echo "PostgreSQL  skipped: server programs or pgbench not installed (scripts/bootstrap.sh bench)"
  exit 0
fi
mkdir -p "$WORK/pg"
[ "$(id -u)" -eq 0 ] && chown postgres "$WORK/pg"
"${as_pg[@]}" "$PG/initdb" -D "$WORK/pg/data" -U ftc -A trust -E UTF8 --locale=C >/dev/null
pg_port=$(free_port)
# Durable commits, as in production: only the connection limit is raised for 1,000 devices' worth.
"${as_pg[@]}" "$PG/pg_ctl" -D "$WORK/pg/data" -l "$WORK/pg/log" -w -o "-p $pg_port \
  -c listen_addresses=127.0.0.1 -c unix_socket_directories=$WORK/pg -c max_connections=200" \
  start >/dev/null
url="postgresql://ftc@127.0.0.1:$pg_port/postgres"
start_server "$url" "$PG_CLIENTS"
server_mps=$(deliver "$DEVICES")
stop_server
"$PG/psql" -q "$url" -c 'TRUNCATE messages, devices' >/dev/null
"$BIN/bench_delivery" pgbench "$BATCH" >"$WORK/batch.pgb"
pg_out=$("$PG/pgbench" -n -M prepared -c "$PG_CLIENTS" -j 2 -t $((DEVICES * BATCHES / PG_CLIENTS)) \
  -f "$WORK/batch.pgb" "$url" 2>&1)
tps=$(echo "$pg_out" | sed -n 's/^tps = \([0-9.]*\).*/\1/p' | tail -1)
[ -n "$tps" ] || { echo "bench: pgbench failed: $pg_out"; exit 1; }
own_mps=$(calc "$tps * $BATCH")
ratio=$(calc "$server_mps / $own_mps")
echo "PostgreSQL  ftc-server $server_mps msg/s   pgbench $own_mps msg/s   ratio $ratio (target >= 0.5: $(verdict "$ratio" 0.5), $PG_CLIENTS connections each)"
