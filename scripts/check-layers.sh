#!/usr/bin/env bash
# Fails when a folder includes a header of a folder above it (or of a peer), so that the
# libraries keep pointing one way:
#   platform <- interface <- storage, transfer <- core <- clients <- app, tools, examples
# Prints every offending "file -> header" edge.
#
#   scripts/check-layers.sh [SOURCE_DIR]
set -euo pipefail
cd "${1:-$(dirname "${BASH_SOURCE[0]}")/..}"

level() {
    case "$1" in
    platform) echo 0 ;; interface) echo 1 ;; storage | transfer) echo 2 ;;
    core) echo 3 ;; clients) echo 4 ;; app | tools | examples) echo 5 ;; *) echo "" ;;
    esac
}

# Where each project header lives, by the name it is included as (bare or with a subfolder).
declare -A home
while IFS= read -r header; do
    folder="${header%%/*}"
    home["${header##*/}"]+="$folder "
    home["${header#*/include/}"]+="$folder "
done < <(git ls-files '*.h' | grep -Ev '^(tests|bench)/')

bad=0
while IFS= read -r file; do
    folder="${file%%/*}"
    mine="$(level "$folder")"
    [ -n "$mine" ] || continue
    while IFS= read -r inc; do
        owners="${home[$inc]:-}"
        [ -n "$owners" ] || continue # a system or library header
        # A name found in the includer's own folder is its own header.
        case " $owners" in *" $folder "*) continue ;; esac
        for owner in $owners; do
            theirs="$(level "$owner")"
            if [ -n "$theirs" ] && [ "$theirs" -ge "$mine" ]; then
                echo "upward: $file -> $inc ($owner)"
                bad=1
            fi
        done
    done < <(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([^"]*\)".*/\1/p' "$file")
done < <(git ls-files '*.cpp' '*.h' | grep -Ev '^(tests|bench)/')

if [ "$bad" = 0 ]; then
    echo "check-layers: every include points down"
fi
exit "$bad"
