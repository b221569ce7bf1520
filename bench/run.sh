#!/usr/bin/env bash
# Measures the service on every shape of load a device sees, each against a reference in the
# same run, and writes bench/RESULTS.md. Run by hand, as root, on an otherwise quiet machine:
#
#   bench/run.sh [ROUNDS]                  # 3 rounds by default
#
# Knobs (environment), with their defaults:
#   BENCH_ROWS="small slow watch many stored big bigtmpfs onehost rate"   which loads to run
#   BIG_MIB=1024 WATCHERS=20                one large file, alone and with `dlctl watch` clients
#   SMALL_COUNT=1000 SMALL_KIB=64           small files created at once, written to tmpfs
#   SLOW_COUNT=50 SLOW_KIB=2048 SLOW_RATE_KIB=200 SLOW_CHUNK=4096   steady slow links
#   MANY_COUNT=200 MANY_MIB=4               many mid-size files at once, written to the disk
#   STORED=100000                           downloads in the database at start
#   ONEHOST_COUNT=50 ONEHOST_KIB=1024 ONEHOST_TIMEOUT_MS=3000   downloads from one host
#   RATE_KIB=200 RATE_S=5                   rate limits held and changed, and CPU at a limit against curl's
#   SETTLE_S=2                              quiet time before idle memory and wake-ups are read
#   BENCH_DIR=/var/tmp/dlm-bench BENCH_TMPFS=/dev/shm/dlm-bench   work and tmpfs directories
#   BENCH_PORT=18080 BENCH_SLOW_PORT=18100  nginx and the first steady link
#   BENCH_RESULTS=bench/RESULTS.md          where the table goes (its "## Findings" part stays)
# A smoke run (seconds, to prove the script works): ROUNDS=1 BIG_MIB=128 SMALL_COUNT=200
#   SLOW_COUNT=10 SLOW_KIB=512 MANY_COUNT=40 MANY_MIB=1 STORED=10000 ONEHOST_COUNT=12
#   ONEHOST_KIB=256 ONEHOST_TIMEOUT_MS=1000 SETTLE_S=1 BENCH_RESULTS=/tmp/smoke.md bench/run.sh
set -euo pipefail
BENCH="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
source "$BENCH/../scripts/common.sh"

export ROUNDS="${1:-${ROUNDS:-3}}"
export BENCH_DIR="${BENCH_DIR:-/var/tmp/dlm-bench}"
export BENCH_TMPFS="${BENCH_TMPFS:-/dev/shm/dlm-bench}"
export BENCH_RESULTS="${BENCH_RESULTS:-$BENCH/RESULTS.md}"
export BENCH_PORT="${BENCH_PORT:-18080}" BENCH_SLOW_PORT="${BENCH_SLOW_PORT:-18100}"
export SLOW_COUNT="${SLOW_COUNT:-50}" SLOW_RATE_KIB="${SLOW_RATE_KIB:-200}"
export SLOW_CHUNK="${SLOW_CHUNK:-4096}"
WORK="$BENCH_DIR"

install_packages nginx-light curl wget sqlite3 python3 gcc
BUILD="${BENCH_BUILD:-$ROOT/build-bench}"
build "$BUILD" -DDLM_BUILD_TESTS=OFF

mkdir -p "$WORK/svc/bin" "$WORK/svc/db" "$WORK/nginx" "$WORK/binder" "$WORK/www" "$BENCH_TMPFS"
if [ "$(stat -f -c %T "$BENCH_TMPFS")" != tmpfs ]; then
    mount -t tmpfs -o size=4g dlm-bench "$BENCH_TMPFS"
fi
# A copy next to its own settings file keeps the database in the work directory.
cp "$BUILD/bin/downloadmanager" "$WORK/svc/bin/"
printf '[General]\ndownload_database_path=%s\n' "$WORK/svc/db" > "$WORK/svc/bin/downloadmanager.ini"
cc -O2 -Wall -o "$WORK/fetch" "$BENCH/fetch.c"
cc -O2 -Wall -o "$WORK/rusage" "$BENCH/rusage.c"
export BENCH_SERVICE="$WORK/svc/bin/downloadmanager" BENCH_DLCTL="$BUILD/bin/dlctl"
export BENCH_FETCH="$WORK/fetch" BENCH_RUSAGE="$WORK/rusage" BINDER_SOCKET_DIR="$WORK/binder"

cat > "$WORK/nginx/nginx.conf" <<CONF
daemon off;
worker_processes 1;
pid $WORK/nginx/nginx.pid;
error_log $WORK/nginx/error.log;
events { worker_connections 1024; }
http {
    access_log off;
    sendfile on;
    keepalive_requests 100000;
    server {
        listen 127.0.0.1:$BENCH_PORT;
        root $WORK/www;
    }
}
CONF
NGINX_PID="" STEADY_PID=""
cleanup() {
    [ -n "$NGINX_PID" ] && kill "$NGINX_PID" 2>/dev/null || true
    [ -n "$STEADY_PID" ] && kill "$STEADY_PID" 2>/dev/null || true
    rm -rf "$BENCH_TMPFS/out" # downloaded files on tmpfs hold memory
}
trap cleanup EXIT
nginx -c "$WORK/nginx/nginx.conf" -p "$WORK/nginx" &
NGINX_PID=$!
python3 "$BENCH/steady_server.py" "$BENCH_SLOW_PORT" "$((SLOW_COUNT > 1 ? SLOW_COUNT : 1))" \
    "$((SLOW_RATE_KIB * 1024))" "$SLOW_CHUNK" > "$WORK/steady.out" &
STEADY_PID=$!
echo ok > "$WORK/www/ready"
for _ in $(seq 100); do
    curl -sf -o /dev/null "http://127.0.0.1:$BENCH_PORT/ready" && grep -q ready "$WORK/steady.out" && break
    sleep 0.1
done

python3 "$BENCH/measure.py"
