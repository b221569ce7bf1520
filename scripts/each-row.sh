#!/usr/bin/env bash
# Runs every row of every test executable in BUILD_DIR on its own ("tst_x function:tag"), so a
# row that leans on an earlier one fails. The end-to-end executables run under the shared lock.
set -uo pipefail
BIN="${1:?usage: each-row.sh BUILD_DIR}/tests/bin"
export QT_QPA_PLATFORM=offscreen
failed=0 rows=0
for exe in "$BIN"/tst_*; do
    [ -x "$exe" ] || continue
    # -datatags prints "tst_X function tag" per row and "tst_X function" for a function without.
    while IFS= read -r line; do
        rest="${line#* }"
        fn="${rest%% *}"
        [ "$fn" = "$rest" ] && arg="$fn" || arg="$fn:${rest#* }"
        rows=$((rows + 1))
        if ! out=$(flock /tmp/dlm-e2e.lock timeout 300 "$exe" "$arg" 2>&1); then
            echo "FAILED alone: $(basename "$exe") '$arg'"
            echo "$out" | grep -v '^PASS' | tail -20
            failed=$((failed + 1))
        fi
    done < <("$exe" -datatags)
done
echo "each-row: $rows rows, $failed failed"
[ "$failed" -eq 0 ]
