#!/usr/bin/env bash
# Measures the service against curl on loopback (nginx serves the files) and writes
# bench/RESULTS.md. Run by hand, as root, on an otherwise idle machine: bench/run.sh [ROUNDS]
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/../scripts/common.sh"

ROUNDS="${1:-3}"
install_packages nginx-light curl time sqlite3
build "$ROOT/build"

WORK="${BENCH_DIR:-/var/tmp/dlm-bench}"
PORT="${BENCH_PORT:-18080}"
mkdir -p "$WORK/www" "$WORK/nginx" "$WORK/svc/bin" "$WORK/svc/db" "$WORK/out" "$WORK/binder"
cp "$ROOT/build/bin/downloadmanager" "$WORK/svc/bin/"
printf '[General]\ndownload_database_path=%s\n' "$WORK/svc/db" > "$WORK/svc/bin/downloadmanager.ini"
DLCTL="$ROOT/build/bin/dlctl"
export BINDER_SOCKET_DIR="$WORK/binder"

# ---- content and server ----
[ -f "$WORK/www/big.bin" ] || head -c 1073741824 /dev/urandom > "$WORK/www/big.bin"
if [ ! -f "$WORK/www/small/199.bin" ]; then
    mkdir -p "$WORK/www/small"
    for i in $(seq 0 199); do head -c 4194304 /dev/urandom > "$WORK/www/small/$i.bin"; done
fi
cat > "$WORK/nginx/nginx.conf" <<CONF
daemon off;
worker_processes 1;
pid $WORK/nginx/nginx.pid;
error_log $WORK/nginx/error.log;
events { worker_connections 1024; }
http {
    access_log off;
    sendfile on;
    server {
        listen 127.0.0.1:$PORT;
        root $WORK/www;
    }
}
CONF
nginx -c "$WORK/nginx/nginx.conf" -p "$WORK/nginx" &
NGINX_PID=$!
SERVICE_PID=""
cleanup() {
    [ -n "$SERVICE_PID" ] && kill "$SERVICE_PID" 2>/dev/null || true
    kill "$NGINX_PID" 2>/dev/null || true
    exec 3>&- 2>/dev/null || true
}
trap cleanup EXIT
for _ in $(seq 50); do curl -sf -o /dev/null "http://127.0.0.1:$PORT/small/0.bin" && break; sleep 0.1; done
URL="http://127.0.0.1:$PORT"

# ---- measuring ----
# time_field FILE: "wall cpu maxrss_kib" from a /usr/bin/time -v report.
time_fields() {
    awk -F': ' '
        /Elapsed \(wall clock\)/ { n = split($2, p, ":"); w = 0; for (i = 1; i <= n; i++) w = w * 60 + p[i] }
        /User time/ { u = $2 } /System time/ { s = $2 } /Maximum resident/ { m = $2 }
        END { printf "%.3f %.3f %d\n", w, u + s, m }' "$1"
}

# Starts the service with its console on a fifo; commands go to fd 3, output to $WORK/svc.err.
start_service() {
    rm -f "$WORK/svc.in" "$WORK/svc.err"
    mkfifo "$WORK/svc.in"
    DL_CONSOLE_READER_ENABLE=1 /usr/bin/time -v -o "$WORK/svc.time" \
        "$WORK/svc/bin/downloadmanager" < "$WORK/svc.in" > /dev/null 2> "$WORK/svc.err" &
    SERVICE_PID=$!
    exec 3> "$WORK/svc.in"
    until grep -q "Enter your command:" "$WORK/svc.err"; do sleep 0.02; done
}
stop_service() {
    echo quit >&3
    exec 3>&-
    wait "$SERVICE_PID" || true
    SERVICE_PID=""
}
wait_completed() { # COUNT
    until [ "$(grep -c 'status:  "Completed"' "$WORK/svc.err")" -ge "$1" ]; do sleep 0.02; done
}
fresh_state() {
    rm -rf "$WORK/out" "$WORK/svc/db"
    mkdir -p "$WORK/out" "$WORK/svc/db"
}

declare -A SAMPLES
record() { SAMPLES["$1"]+="$2"$'\n'; }
median() { printf '%s' "${SAMPLES[$1]}" | awk 'NF' | sort -g | awk '{ v[NR] = $1 } END { if (NR % 2) print v[(NR + 1) / 2]; else printf "%.3f\n", (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

verify() { # FILE REFERENCE
    cmp -s "$1" "$2" || { echo "MISMATCH: $1 differs from $2" >&2; exit 1; }
}

ours_single() { # label, extra watchers
    fresh_state
    start_service
    local watchers=()
    for _ in $(seq "${2:-0}"); do "$DLCTL" watch > /dev/null & watchers+=($!); done
    # Registration is logged only at DEBUG, which would slow the service down: give it a moment.
    [ "${2:-0}" -gt 0 ] && sleep 2
    echo "download_path $WORK/out/" >&3
    local t0 t1
    t0=$(date +%s.%N)
    echo "create $URL/big.bin" >&3
    wait_completed 1
    t1=$(date +%s.%N)
    [ ${#watchers[@]} -gt 0 ] && kill "${watchers[@]}" 2>/dev/null || true
    stop_service
    verify "$WORK/out/big.bin" "$WORK/www/big.bin"
    read -r wall cpu rss < <(time_fields "$WORK/svc.time")
    record "$1.wall" "$(printf '%.3f' "$(echo "$t1 - $t0" | bc)")"
    record "$1.cpu" "$cpu"
    record "$1.rss" "$rss"
}

curl_single() {
    fresh_state
    /usr/bin/time -v -o "$WORK/curl.time" curl -s -o "$WORK/out/big.bin" "$URL/big.bin"
    verify "$WORK/out/big.bin" "$WORK/www/big.bin"
    read -r wall cpu rss < <(time_fields "$WORK/curl.time")
    record curl1.wall "$wall"; record curl1.cpu "$cpu"; record curl1.rss "$rss"
}

ours_many() {
    fresh_state
    start_service
    echo "download_path $WORK/out/" >&3
    local t0 t1
    t0=$(date +%s.%N)
    for i in $(seq 0 199); do echo "create $URL/small/$i.bin"; done >&3
    wait_completed 200
    t1=$(date +%s.%N)
    stop_service
    for i in $(seq 0 199); do verify "$WORK/out/$i.bin" "$WORK/www/small/$i.bin"; done
    read -r wall cpu rss < <(time_fields "$WORK/svc.time")
    record many.wall "$(printf '%.3f' "$(echo "$t1 - $t0" | bc)")"; record many.cpu "$cpu"; record many.rss "$rss"
}

curl_many() {
    fresh_state
    local args=()
    for i in $(seq 0 199); do args+=(-o "$WORK/out/$i.bin" "$URL/small/$i.bin"); done
    /usr/bin/time -v -o "$WORK/curl.time" curl -s --parallel --parallel-max 200 "${args[@]}"
    for i in $(seq 0 199); do verify "$WORK/out/$i.bin" "$WORK/www/small/$i.bin"; done
    read -r wall cpu rss < <(time_fields "$WORK/curl.time")
    record curlmany.wall "$wall"; record curlmany.cpu "$cpu"; record curlmany.rss "$rss"
}

ours_startup() {
    rm -rf "$WORK/svc/db" && mkdir -p "$WORK/svc/db"
    # 10,000 stored downloads: mostly completed, some paused, a few failed on a missing path.
    sqlite3 "$WORK/svc/db/dlm_download.db" <<SQL
CREATE TABLE downloads (uniqueID TEXT UNIQUE ON CONFLICT REPLACE, clientID TEXT, name TEXT, contentURL TEXT, filePath TEXT, state NUMERIC, failureCode NUMERIC, totalSize NUMERIC, amountDownloaded NUMERIC, startTime NUMERIC);
WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < 9999)
INSERT INTO downloads SELECT printf('id%05d', i), 'bench', 'f' || i, '$URL/small/' || (i % 200) || '.bin',
    '$WORK/out/f' || i, CASE WHEN i % 10 < 7 THEN 1 ELSE 4 END, 4, 4194304,
    CASE WHEN i % 10 < 7 THEN 4194304 ELSE 1024 END, 1700000000000 FROM n;
SQL
    local t0 t1
    t0=$(date +%s.%N)
    start_service
    echo list >&3
    until grep -q 'uniqueID: "id09999"' "$WORK/svc.err"; do sleep 0.02; done
    t1=$(date +%s.%N)
    stop_service
    read -r wall cpu rss < <(time_fields "$WORK/svc.time")
    record startup.wall "$(printf '%.3f' "$(echo "$t1 - $t0" | bc)")"; record startup.rss "$rss"
}

command -v bc > /dev/null || install_packages bc
for round in $(seq "$ROUNDS"); do
    echo "== round $round of $ROUNDS"
    curl_single; ours_single ours1 0
    curl_many; ours_many
    ours_single watch20 20
    ours_startup
done

ratio() { printf '%.2f' "$(echo "scale=4; $1 / $2" | bc)"; }
mib() { printf '%.1f' "$(echo "scale=2; $1 / 1024" | bc)"; }
c1w=$(median curl1.wall); c1c=$(median curl1.cpu); c1m=$(median curl1.rss)
o1w=$(median ours1.wall); o1c=$(median ours1.cpu); o1m=$(median ours1.rss)
cmw=$(median curlmany.wall); cmc=$(median curlmany.cpu); cmm=$(median curlmany.rss)
omw=$(median many.wall); omc=$(median many.cpu); omm=$(median many.rss)
w2w=$(median watch20.wall); w2c=$(median watch20.cpu)
suw=$(median startup.wall); sum=$(median startup.rss)

RESULTS="$ROOT/bench/RESULTS.md"
{
    echo "# Benchmark results"
    echo
    echo "Written by \`bench/run.sh\` on $(date -u +%Y-%m-%d), $(nproc) cores, medians of $ROUNDS rounds"
    echo "in alternation with the reference; nginx on 127.0.0.1 serves the files. Ratios are ours / reference."
    echo
    echo "| case | measure | ours | reference | ratio | target |"
    echo "|---|---|---|---|---|---|"
    echo "| 1 GiB file | wall s | $o1w | curl $c1w | $(ratio "$o1w" "$c1w") | <= 1.0 |"
    echo "| 1 GiB file | CPU s | $o1c | curl $c1c | $(ratio "$o1c" "$c1c") | <= 1.0 |"
    echo "| 1 GiB file | peak RSS MiB | $(mib "$o1m") | curl $(mib "$c1m") | $(ratio "$o1m" "$c1m") | <= 48 MiB |"
    echo "| 200 x 4 MiB | wall s | $omw | curl --parallel $cmw | $(ratio "$omw" "$cmw") | |"
    echo "| 200 x 4 MiB | CPU s | $omc | curl --parallel $cmc | $(ratio "$omc" "$cmc") | |"
    echo "| 200 x 4 MiB | peak RSS MiB | $(mib "$omm") | curl --parallel $(mib "$cmm") | $(ratio "$omm" "$cmm") | |"
    echo "| 1 GiB + 20 watchers | wall s | $w2w | ours alone $o1w | $(ratio "$w2w" "$o1w") | <= 1.10 |"
    echo "| 1 GiB + 20 watchers | CPU s (service) | $w2c | ours alone $o1c | $(ratio "$w2c" "$o1c") | |"
    echo "| start with 10,000 stored | s until \"list\" answered | $suw | | | |"
    echo "| start with 10,000 stored | peak RSS MiB | $(mib "$sum") | | | |"
    echo
    echo "Service wall time runs from the \"create\" line to the last \"Completed\" update line; curl's is"
    echo "its whole run. CPU and memory are whole-process figures from /usr/bin/time -v."
} > "$RESULTS"
cat "$RESULTS"
