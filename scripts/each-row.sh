#!/usr/bin/env bash
# Runs every row of every test executable in BUILD_DIR on its own ("tst_x function:tag"), so a
# row that leans on an earlier one fails. End-to-end rows hold the lock on the test users
# (DLM_E2E_LOCK); -o keeps it from a child a failed row may leave behind.
set -uo pipefail
BUILD="${1:?usage: each-row.sh BUILD_DIR}"
export QT_QPA_PLATFORM=offscreen
e2e=" $(cd "$BUILD" && ctest -N -L e2e | sed -n 's/^ *Test *#[0-9]*: //p' | tr '\n' ' ')"
failed=0 rows=0
for exe in "$BUILD"/tests/bin/tst_*; do
    lock=()
    [[ "$e2e" == *" $(basename "$exe") "* ]] && lock=(flock -o "${DLM_E2E_LOCK:-/tmp/dlm-e2e.lock}")
    # -datatags prints "tst_X function tag" per row and "tst_X function" for a function without.
    while IFS= read -r line; do
        rest="${line#* }"
        fn="${rest%% *}"
        [ "$fn" = "$rest" ] && arg="$fn" || arg="$fn:${rest#* }"
        rows=$((rows + 1))
        if ! out=$("${lock[@]}" timeout 300 "$exe" "$arg" 2>&1); then
            echo "FAILED alone: $(basename "$exe") '$arg'"
            echo "$out" | grep -v '^PASS' | tail -20
            failed=$((failed + 1))
        fi
    done < <("$exe" -datatags)
done
echo "each-row: $((rows - failed)) passed, $failed failed"
[ "$failed" -eq 0 ]
