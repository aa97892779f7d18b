#!/usr/bin/env bash
# Side-by-side benchmarks on loopback: the plug-in's HTTP client and CRC-32 against curl and zlib,
# ftc-server against nginx, (bench/fleet.sh) deliveries against the databases' own tools,
# (bench/rollout.sh) a bundle's rollout to a fleet by multicast against HTTP alone, and
# (bench/load.sh) a fleet of devices at once beside idle and slow connections.
# Usage: bench/run.sh BUILD_DIR
# Sizes come from the environment: BENCH_BIG_MB (1024), BENCH_SMALL_FILES (10000), BENCH_FOLDERS
# (100), BENCH_WRK_SECONDS (5), BENCH_ROUNDS (3); BENCH_PARTS picks parts (abcdefg); BENCH_DIR keeps the data somewhere chosen
# (default: a fresh folder under /tmp, removed at the end unless BENCH_KEEP=1); BENCH_ON_DISK=1
# has part c write its files there too rather than under /dev/shm.
set -euo pipefail

BUILD=$(cd "${1:?usage: bench/run.sh BUILD_DIR}" && pwd)
BIN=$BUILD/bin
BIG_MB=${BENCH_BIG_MB:-1024}
SMALL=${BENCH_SMALL_FILES:-10000}
FOLDERS=${BENCH_FOLDERS:-100}
FEW=300
SECS=${BENCH_WRK_SECONDS:-5}
ROUNDS=${BENCH_ROUNDS:-3}
PARTS=${BENCH_PARTS:-abcdefg}
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

for tool in curl wrk nginx sha1sum crc32 perl; do
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
  [[ $PARTS != *f* ]] || { echo; "$(dirname "$0")/rollout.sh" "$BUILD"; }
  [[ $PARTS != *g* ]] || { echo; "$(dirname "$0")/load.sh" "$BUILD"; }
}
[[ $PARTS == *[abcd]* ]] || { run_fleet; exit 0; }

echo "== data: ${BIG_MB} MiB file, ${SMALL} small files twice (one folder; $FOLDERS folders), under $WORK"
mkdir -p "$DATA"
if [ ! -s "$DATA/big.bin" ] || [ "$(stat -c %s "$DATA/big.bin")" -ne $((BIG_MB << 20)) ]; then
  head -c $((BIG_MB << 20)) /dev/urandom >"$DATA/big.bin"
fi
head -c $((BIG_MB << 17)) "$DATA/big.bin" >"$DATA/eighth.bin"
head -c 16777216 /dev/urandom >"$WORK/pool"
# 1-16 KiB each, cut from the pool: one/fNNNNN.bin, and the same files as spread/dNNN/fNNNNN.bin.
perl -e '
  my ($pool, $data, $work, $n, $folders) = @ARGV;
  open(my $p, "<:raw", $pool) or die; local $/; my $bytes = <$p>;
  open(my $one, ">", "$work/names-one") or die; open(my $spread, ">", "$work/names-spread") or die;
  mkdir "$data/one"; mkdir "$data/spread";
  for my $i (0 .. $n - 1) {
    my $size = 1024 + ($i * 7919) % 15360;
    my $d = sprintf("spread/d%03d", $i % $folders); mkdir "$data/$d";
    for my $name (sprintf("one/f%05d.bin", $i), sprintf("%s/f%05d.bin", $d, $i)) {
      open(my $f, ">:raw", "$data/$name") or die; print $f substr($bytes, $i, $size); close $f;
    }
    print $one sprintf("one/f%05d.bin\n", $i); print $spread sprintf("%s/f%05d.bin\n", $d, $i);
  }' "$WORK/pool" "$DATA" "$WORK" "$SMALL" "$FOLDERS"
head -n "$FEW" "$WORK/names-one" >"$WORK/names-few"
mkdir -p "$DEV/bench"
head -c 4096 "$WORK/pool" >"$DATA/w4k.bin"
head -c 1048576 "$WORK/pool" >"$DATA/w1m.bin"
chmod -R a+rX "$DATA"
cat "$DATA/big.bin" >/dev/null  # page cache
find "$DATA/one" "$DATA/spread" -type f -exec cat {} + >/dev/null

"$BIN/ftc-server" --root "$DATA" --port 0 >"$WORK/server.out" 2>"$WORK/server.err" &
PIDS+=($!)
for _ in $(seq 100); do grep -q listening "$WORK/server.out" 2>/dev/null && break; sleep 0.1; done
ADDR=$(sed -n 's/^listening on //p' "$WORK/server.out")
[ -n "$ADDR" ] || { echo "bench: ftc-server did not start"; cat "$WORK/server.err"; exit 1; }
URL=http://$ADDR
# The server computes each CRC once; do that before timing anything.
curl -s -I "$URL/big.bin" "$URL/eighth.bin" "$URL/w4k.bin" "$URL/w1m.bin" >/dev/null

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
echo "== (c) small files: the engine's GetFile per file (a connection each) vs curl, best of $ROUNDS"
# The client's fixed 50 ms pause after a file that took more than one read is scaled out
# (WINUX_TIME_SCALE=0, as tests and demos do); the count of such pauses is shown beside.
# Each measurement runs in a network namespace of its own with a server of its own: tens of
# thousands of connections a minute would otherwise fill the ports with TIME_WAIT sockets (and
# share them with whatever else the machine runs), so that later runs pay for earlier ones.
# What both write goes to a memory file system where there is one: on ext4 without a journal the
# inode allocator passes over inodes freed in the last minutes, so on disk each measurement pays
# for the files the ones before it deleted, by an amount that depends on the order of runs.
OUT=$WORK
if [ -z "${BENCH_ON_DISK:-}" ] && [ -d /dev/shm ] && [ -w /dev/shm ]; then
  OUT=$(mktemp -d /dev/shm/ftc-bench-c.XXXXXX)
  trap 'rm -rf "$OUT"; cleanup' EXIT
fi
echo "files written under $OUT ($(stat -f -c %T "$OUT"))"
DEV=$OUT/device
NS=()
unshare -n true 2>/dev/null && NS=(unshare -n)
declare -A best
keep() { best[$1]=$(awk "BEGIN { b = \"${best[$1]:-}\"; print (b == \"\" || $2 < b) ? $2 : b }"); }
measure() {  # key names-file ftc|close|keep -> best wall and CPU seconds under key and key.cpu
  local out
  out=$(BIN=$BIN DATA=$DATA WORK=$WORK OUT=$OUT DEV=$DEV NETNS=${NS[*]} "${NS[@]}" bash -s "$2" "$3" <<'INNER'
set -euo pipefail
names=$1 kind=$2
[ -z "$NETNS" ] || ip link set lo up
"$BIN/ftc-server" --root "$DATA" --port 0 >"$WORK/ns-server.out" 2>"$WORK/ns-server.err" &
server=$!
trap 'kill $server 2>/dev/null || true; wait 2>/dev/null || true' EXIT
for _ in $(seq 100); do grep -q listening "$WORK/ns-server.out" 2>/dev/null && break; sleep 0.1; done
url=http://$(sed -n 's/^listening on //p' "$WORK/ns-server.out")
sed "s|.*|url = \"$url/&\"|" "$names" | curl -s -I -K - >/dev/null  # each CRC once, untimed
if [ "$kind" = ftc ]; then
  rm -rf "$DEV"
  t=$(WINUX_ROOT="$DEV" WINUX_TIME_SCALE=0 "$BIN/bench_http_get" fetch "$url" "$names" '\bench')
  echo "$(echo "$t" | sed -n 's/.* seconds=\([^ ]*\).*/\1/p')" \
    "$(echo "$t" | sed -n 's/.* cpu_seconds=\([^ ]*\).*/\1/p')" \
    "$(echo "$t" | sed -n 's/.* folder_reads=\([^ ]*\).*/\1/p')" \
    "$(grep -c 'http file size match' "$DEV/tmp/FileXfer.txt" || true)"
else
  rm -rf "$OUT/curl"
  (cd "$DATA" && find one spread -type d) | sed "s|^|$OUT/curl/|" | xargs mkdir -p
  sed "s|.*|url = \"$url/&\"\noutput = \"$OUT/curl/&\"|" "$names" >"$WORK/curl.cfg"
  header=()
  [ "$kind" = close ] && header=(-H 'Connection: close')
  { /usr/bin/time -f '%e %U %S' curl -s "${header[@]}" -K "$WORK/curl.cfg" >/dev/null; } 2>&1 |
    tail -1 | awk '{ print $1, $2 + $3 }'
fi
INNER
)
  read -r wall cpu reads pauses <<<"$out"
  [ -n "${cpu:-}" ] || { echo "bench: $1 failed: $out"; exit 1; }
  keep "$1" "$wall"
  keep "$1.cpu" "$cpu"
  [ -z "${reads:-}" ] || echo "$reads" >"$WORK/$1.reads"
  [ -z "${pauses:-}" ] || echo "$pauses" >"$WORK/$1.pauses"
}
same() {  # copy-root shape
  diff -rq "$1/$2" "$DATA/$2" >/dev/null || { echo "bench: $1/$2 differs from $DATA/$2"; exit 1; }
}
for ((r = 0; r < ROUNDS; r++)); do
  for shape in one spread; do
    measure "ftc-$shape" "$WORK/names-$shape" ftc
    same "$DEV/bench" "$shape"
    measure "curl-close-$shape" "$WORK/names-$shape" close
    same "$OUT/curl" "$shape"
    measure "curl-keep-$shape" "$WORK/names-$shape" keep
  done
  measure ftc-few "$WORK/names-few" ftc
done
rate() { calc "$1 / $2"; }
printf '%-30s %12s %12s %12s %9s %9s\n' "$SMALL files of 1-16 KiB" "files/s" "CPU us/file" \
  "vs curl close" "pauses" "dir reads"
for shape in one spread; do
  label=$([ "$shape" = one ] && echo "in one folder" || echo "over $FOLDERS folders")
  printf '%-30s %12s %12s %12s %9s %9s\n' "  CHTTPClient $label" \
    "$(rate "$SMALL" "${best[ftc-$shape]}")" "$(calc "${best[ftc-$shape.cpu]} * 1e6 / $SMALL")" \
    "$(calc "${best[curl-close-$shape]} / ${best[ftc-$shape]}")" "$(cat "$WORK/ftc-$shape.pauses")" \
    "$(cat "$WORK/ftc-$shape.reads")"
  for mode in close keep; do
    printf '%-30s %12s %12s\n' "  curl $([ $mode = close ] && echo 'Connection: close' || echo keep-alive)" \
      "$(rate "$SMALL" "${best[curl-$mode-$shape]}")" \
      "$(calc "${best[curl-$mode-$shape.cpu]} * 1e6 / $SMALL")"
  done
done
printf '%-30s %12s %12s\n' "  CHTTPClient, $FEW files" "$(rate "$FEW" "${best[ftc-few]}")" \
  "$(calc "${best[ftc-few.cpu]} * 1e6 / $FEW")"
for shape in one spread; do
  r=$(calc "${best[curl-close-$shape]} / ${best[ftc-$shape]}")
  c=$(calc "${best[curl-close-$shape.cpu]} / ${best[ftc-$shape.cpu]}")
  echo "vs curl with a connection per file, $shape: $r (target >= 1.0: $(verdict "$r" 1.0)), in CPU time $c"
done
flat=$(calc "($SMALL / ${best[ftc-one]}) / ($FEW / ${best[ftc-few]})")
flat_cpu=$(calc "($SMALL / ${best[ftc-one.cpu]}) / ($FEW / ${best[ftc-few.cpu]})")
echo "files/s at $SMALL over files/s at $FEW: $flat (target >= 0.8: $(verdict "$flat" 0.8)), in CPU time $flat_cpu"

# The one-folder bundle, complete on the device, validated as the engine does, against reading
# it once with sha1sum and with zlib's crc32 (the crc32 tool), in the same order.
measure ftc-last "$WORK/names-one" ftc
timed() {  # key command... -> best wall and CPU seconds under key and key.cpu
  local t
  t=$( { /usr/bin/time -f '%e %U %S' "${@:2}" >/dev/null; } 2>&1 | tail -1)
  keep "$1" "$(echo "$t" | awk '{ print $1 }')"
  keep "$1.cpu" "$(echo "$t" | awk '{ print $2 + $3 }')"
}
sed "s|^|$DEV/bench/|" "$WORK/names-one" >"$WORK/device-files"
for ((r = 0; r < ROUNDS; r++)); do
  out=$(WINUX_ROOT=$DEV WINUX_TIME_SCALE=0 "$BIN/bench_http_get" validate "$DATA" "$WORK/names-one" '\bench')
  [ "$(echo "$out" | field ok)" = 1 ] || { echo "bench: validation fetched or failed: $out"; exit 1; }
  keep validate "$(echo "$out" | field seconds)"
  keep validate.cpu "$(echo "$out" | field cpu_seconds)"
  timed sha1sum xargs -a "$WORK/device-files" sha1sum
  timed crc32 xargs -a "$WORK/device-files" crc32
done
read_once=$(awk "BEGIN { a = ${best[sha1sum]}; b = ${best[crc32]}; print (a < b) ? a : b }")
read_cpu=$(awk "BEGIN { a = ${best[sha1sum.cpu]}; b = ${best[crc32.cpu]}; print (a < b) ? a : b }")
v=$(calc "${best[validate]} / $read_once")
v_cpu=$(calc "${best[validate.cpu]} / $read_cpu")
echo "validating $SMALL files, seconds (CPU): ValidateFiles ${best[validate]} (${best[validate.cpu]})" \
  "  sha1sum ${best[sha1sum]} (${best[sha1sum.cpu]})   crc32 ${best[crc32]} (${best[crc32.cpu]})"
echo "validation over one read: $v (target <= 1.5: $(verdict 1.5 "$v")), in CPU time $v_cpu"

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
