#!/usr/bin/env bash
# Side-by-side benchmarks on loopback: the plug-in's HTTP client and CRC-32 against curl and zlib,
# ftc-server against nginx, (bench/fleet.sh) deliveries against the databases' own tools and
# (bench/load.sh) a fleet of devices at once beside idle and slow connections.
# Usage: bench/run.sh BUILD_DIR
# Sizes come from the environment: BENCH_BIG_MB (1024), BENCH_SMALL_FILES (2000),
# BENCH_WRK_SECONDS (5), BENCH_ROUNDS (3); BENCH_PARTS picks parts (abcdef); BENCH_DIR keeps the data somewhere chosen
# (default: a fresh folder under /tmp, removed at the end unless BENCH_KEEP=1).
set -euo pipefail

BUILD=$(cd "${1:?usage: bench/run.sh BUILD_DIR}" && pwd)
BIN=$BUILD/bin
BIG_MB=${BENCH_BIG_MB:-1024}
SMALL=${BENCH_SMALL_FILES:-2000}
SECS=${BENCH_WRK_SECONDS:-5}
ROUNDS=${BENCH_ROUNDS:-3}
PARTS=${BENCH_PARTS:-abcdef}
WORK=${BENCH_DIR:-$(mktemp -d /tmp/ftc-bench.XXXXXX)}
mkdir -p "$WORK"
chmod 755 "$WORK"  # nginx workers may run as another user
DATA=$WORK/data
DEV=$WORK/device
PIDS=()

cleanup() {
  for p in "${PIDS[@]}"; do kill "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  if [ -z "${BENCH_KEEP:-}" ] && [ -z "${BENCH_DIR:-}" ]; then rm -rf "$WORK"; fi
}
trap cleanup EXIT
ulimit -n 65536 2>/dev/null || ulimit -n "$(ulimit -Hn)" 2>/dev/null || true

for tool in curl wrk nginx; do
  command -v "$tool" >/dev/null || { echo "bench: $tool is missing (scripts/bootstrap.sh bench)"; exit 1; }
done
[ -x "$BIN/ftc-server" ] && [ -x "$BIN/bench_http_get" ] && [ -x "$BIN/bench_crc" ] ||
  { echo "bench: build $BUILD with -DFTC_BENCH=ON first"; exit 1; }

calc() { awk "BEGIN { printf \"%.2f\", $* }"; }
field() { sed -n "s/.*[ ]$1=\([^ ]*\).*/\1/p" | head -1; }
verdict() { awk "BEGIN { exit !($1 >= $2) }" && echo "meets target" || echo "BELOW target"; }
now() { date +%s.%N; }

run_fleet() {
  [[ $PARTS != *e* ]] || { echo; "$(dirname "$0")/fleet.sh" "$BUILD"; }
  [[ $PARTS != *f* ]] || { echo; "$(dirname "$0")/load.sh" "$BUILD"; }
}
[[ $PARTS == *[abcd]* ]] || { run_fleet; exit 0; }

echo "== data: ${BIG_MB} MiB file, ${SMALL} small files, under $WORK"
mkdir -p "$DATA/small" "$DEV/bench/small"
if [ ! -s "$DATA/big.bin" ] || [ "$(stat -c %s "$DATA/big.bin")" -ne $((BIG_MB << 20)) ]; then
  head -c $((BIG_MB << 20)) /dev/urandom >"$DATA/big.bin"
fi
head -c $((BIG_MB << 17)) "$DATA/big.bin" >"$DATA/eighth.bin"
head -c 16777216 /dev/urandom >"$WORK/pool"
: >"$WORK/names"
: >"$WORK/curl-small.cfg"
for ((i = 0; i < SMALL; i++)); do
  name=$(printf 'small/f%04d.bin' "$i")
  size=$((1024 + (i * 7919) % 15360))
  dd if="$WORK/pool" of="$DATA/$name" bs="$size" count=1 skip="$i" iflag=skip_bytes status=none
  echo "$name" >>"$WORK/names"
done
head -c 4096 "$WORK/pool" >"$DATA/w4k.bin"
head -c 1048576 "$WORK/pool" >"$DATA/w1m.bin"
chmod -R a+rX "$DATA"
cat "$DATA/big.bin" "$DATA"/small/* >/dev/null  # page cache

"$BIN/ftc-server" --root "$DATA" --port 0 >"$WORK/server.out" 2>"$WORK/server.err" &
PIDS+=($!)
for _ in $(seq 100); do grep -q listening "$WORK/server.out" 2>/dev/null && break; sleep 0.1; done
ADDR=$(sed -n 's/^listening on //p' "$WORK/server.out")
[ -n "$ADDR" ] || { echo "bench: ftc-server did not start"; cat "$WORK/server.err"; exit 1; }
URL=http://$ADDR
while read -r n; do printf 'url = "%s/%s"\noutput = "%s/curl-small/%s"\n' "$URL" "$n" "$WORK" "$n"; done \
  <"$WORK/names" >"$WORK/curl-small.cfg"
mkdir -p "$WORK/curl-small/small"
# The server computes each CRC once; do that before timing anything.
curl -s -I "$URL/big.bin" "$URL/eighth.bin" "$URL/w4k.bin" "$URL/w1m.bin" >/dev/null
sed '/^output/d' "$WORK/curl-small.cfg" | curl -s -I -K - >/dev/null

if [[ $PARTS == *a* ]]; then
echo
echo "== (a) one ${BIG_MB} MiB file: CHTTPClient::Get with its CRC check vs curl -o"
best_ftc=0 best_curl=0 rss=0
for ((r = 0; r < ROUNDS; r++)); do
  rm -f "$DEV/bench/big.bin" "$WORK/curl.bin"
  out=$(WINUX_ROOT=$DEV "$BIN/bench_http_get" one "$URL/big.bin" '\bench\big.bin')
  [ "$(echo "$out" | field ok)" = 1 ] || { echo "bench: download failed: $out"; exit 1; }
  mbps=$(echo "$out" | field mbps)
  rss=$(echo "$out" | field maxrss_kib)
  best_ftc=$(awk "BEGIN { print ($mbps > $best_ftc) ? $mbps : $best_ftc }")
  rm -f "$DEV/bench/big.bin"
  t0=$(now)
  curl_rss=$( { /usr/bin/time -f '%M' curl -s -o "$WORK/curl.bin" "$URL/big.bin"; } 2>&1)
  t1=$(now)
  cmp -s "$WORK/curl.bin" "$DATA/big.bin" || { echo "bench: curl copy differs"; exit 1; }
  mbps=$(calc "$((BIG_MB << 20)) / ($t1 - $t0) / 1e6")
  best_curl=$(awk "BEGIN { print ($mbps > $best_curl) ? $mbps : $best_curl }")
done
rm -f "$WORK/curl.bin" "$DEV/bench/big.bin"
small_out=$(WINUX_ROOT=$DEV "$BIN/bench_http_get" one "$URL/eighth.bin" '\bench\eighth.bin')
small_rss=$(echo "$small_out" | field maxrss_kib)
rm -f "$DEV/bench/eighth.bin"
ratio_a=$(calc "$best_ftc / $best_curl")
echo "CHTTPClient::Get + CRC: $best_ftc MB/s   curl -o: $best_curl MB/s   ratio $ratio_a (target >= 0.9: $(verdict "$ratio_a" 0.9))"
echo "client max RSS: $rss KiB for ${BIG_MB} MiB, $small_rss KiB for $((BIG_MB / 8)) MiB (curl: $curl_rss KiB)"

fi

if [[ $PARTS == *b* ]]; then
echo
echo "== (b) FileCRC32 vs zlib crc32() on the cached ${BIG_MB} MiB file"
out=$(WINUX_ROOT=$DATA "$BIN/bench_crc" '\big.bin' "$DATA/big.bin" 3)
crc_ftc=$(echo "$out" | grep '^filecrc32' | field mbps)
crc_zlib=$(echo "$out" | grep '^zlib' | field mbps)
[ "$(echo "$out" | grep '^filecrc32' | field ok)" = 1 ] || { echo "bench: CRCs differ: $out"; exit 1; }
ratio_b=$(calc "$crc_ftc / $crc_zlib")
echo "FileCRC32: $crc_ftc MB/s   zlib: $crc_zlib MB/s   ratio $ratio_b (target >= 1.5: $(verdict "$ratio_b" 1.5))"

fi

if [[ $PARTS == *c* ]]; then
echo
echo "== (c) $SMALL small files over one connection vs curl keep-alive"
best_ftc=1e9 best_curl=1e9
for ((r = 0; r < ROUNDS; r++)); do
  rm -rf "$DEV/bench/small" && mkdir -p "$DEV/bench/small"
  out=$(WINUX_ROOT=$DEV "$BIN/bench_http_get" list "$URL" "$WORK/names" '\bench')
  [ "$(echo "$out" | field ok)" = 1 ] || { echo "bench: list download failed: $out"; exit 1; }
  s=$(echo "$out" | field seconds)
  best_ftc=$(awk "BEGIN { print ($s < $best_ftc) ? $s : $best_ftc }")
  t0=$(now)
  curl -s -K "$WORK/curl-small.cfg"
  t1=$(now)
  s=$(calc "$t1 - $t0")
  best_curl=$(awk "BEGIN { print ($s < $best_curl) ? $s : $best_curl }")
done
diff -rq "$WORK/curl-small/small" "$DATA/small" >/dev/null || { echo "bench: curl copies differ"; exit 1; }
ratio_c=$(calc "$best_curl / $best_ftc")
echo "CHTTPClient: $(calc "$SMALL / $best_ftc") files/s   curl: $(calc "$SMALL / $best_curl") files/s   ratio $ratio_c"

fi

[[ $PARTS == *d* ]] || { run_fleet; exit 0; }
echo
echo "== (d) ftc-server vs nginx (same folder, wrk ${SECS}s per run)"
NG=$WORK/nginx
mkdir -p "$NG/tmp"
NPORT=0
for _ in $(seq 20); do
  NPORT=$((20000 + RANDOM % 30000))
  cat >"$NG/nginx.conf" <<CONF
worker_processes $(nproc);
daemon off;
pid $NG/nginx.pid;
error_log $NG/error.log warn;
$( [ "$(id -u)" -eq 0 ] && echo "user root root;" )
events { worker_connections 8192; }
http {
  access_log off;
  sendfile on;
  tcp_nopush on;
  tcp_nodelay on;
  keepalive_requests 1000000;
  client_body_temp_path $NG/tmp/body;
  proxy_temp_path $NG/tmp/proxy;
  fastcgi_temp_path $NG/tmp/fastcgi;
  uwsgi_temp_path $NG/tmp/uwsgi;
  scgi_temp_path $NG/tmp/scgi;
  default_type application/octet-stream;
  server { listen 127.0.0.1:$NPORT; root $DATA; }
}
CONF
  nginx -p "$NG" -c "$NG/nginx.conf" 2>"$NG/start.err" &
  npid=$!
  sleep 0.5
  if kill -0 "$npid" 2>/dev/null && curl -sf -o /dev/null "http://127.0.0.1:$NPORT/w4k.bin"; then
    PIDS+=("$npid")
    break
  fi
  kill "$npid" 2>/dev/null || true
  NPORT=0
done
[ "$NPORT" -ne 0 ] || { echo "bench: nginx did not start"; cat "$NG/start.err"; exit 1; }

to_mb() {  # wrk's "Transfer/sec" value with unit -> MB/s
  awk '{ v=$1; u=$1; gsub(/[0-9.]/, "", u); gsub(/[A-Za-z]/, "", v);
         m = (u=="GB") ? 1073.741824 : (u=="MB") ? 1.048576 : (u=="KB") ? 0.001024 : 0.000001;
         printf "%.1f", v*m }'
}
run_wrk() {  # url connections -> "req/s MB/s"
  local out
  out=$(wrk -t2 -c"$2" -d"${SECS}s" "$1" 2>&1)
  echo "$(echo "$out" | awk '/Requests\/sec/ { print $2 }') $(echo "$out" | awk '/Transfer\/sec/ { print $2 }' | to_mb)"
}
worst=99
for file in w4k.bin w1m.bin; do
  for conns in 100 1000; do
    read -r f_rps f_mbs <<<"$(run_wrk "$URL/$file" "$conns")"
    read -r n_rps n_mbs <<<"$(run_wrk "http://127.0.0.1:$NPORT/$file" "$conns")"
    r=$(calc "$f_rps / $n_rps")
    worst=$(awk "BEGIN { print ($r < $worst) ? $r : $worst }")
    printf '%-8s c=%-5s ftc-server %10s req/s %8s MB/s   nginx %10s req/s %8s MB/s   ratio %s\n' \
      "$file" "$conns" "$f_rps" "$f_mbs" "$n_rps" "$n_mbs" "$r"
  done
done
echo "lowest ratio $worst (target >= 0.8: $(verdict "$worst" 0.8))"
run_fleet
