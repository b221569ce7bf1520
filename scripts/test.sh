#!/usr/bin/env bash
# Installs what is missing, builds, runs every test, then checks the installed form and the
# Debian package (scripts/check-install.sh). With CI set (or SANITIZERS=1) it also runs the suite
# under AddressSanitizer+UBSan and ThreadSanitizer builds.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

"$ROOT/scripts/check-layers.sh" "$ROOT"
install_packages
# The package is built from this tree, so it is configured for the system's prefix.
build "$ROOT/build" -DCMAKE_INSTALL_PREFIX=/usr
cd "$ROOT/build"
ctest --output-on-failure -j 2 --timeout 600
"$ROOT/scripts/check-install.sh" "$ROOT/build"

if [ -n "${CI:-}" ] || [ "${SANITIZERS:-0}" = 1 ]; then
    export ASAN_OPTIONS="detect_leaks=0:abort_on_error=1"
    export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
    export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$ROOT/tests/tsan.supp"
    # GLib's dispatcher is not instrumented; Qt's own one is easier to account for.
    export QT_NO_GLIB=1
    for kind in address thread; do
        echo "== $kind sanitizer build"
        BUILD_TYPE=Debug build "$ROOT/build-$kind" -DDLM_SANITIZE=$kind
        (cd "$ROOT/build-$kind" && ctest --output-on-failure -j 2 --timeout 900 -LE nosanitize)
    done
fi
