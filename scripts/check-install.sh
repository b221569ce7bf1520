#!/usr/bin/env bash
# Checks the installed form of a build: installs it into a temporary prefix, runs the installed
# service and the example client built against that prefix only, verifies the systemd unit, and
# builds the Debian package and checks its files, conffiles, dependencies and lintian's verdict.
# Usage: scripts/check-install.sh [BUILD_DIR]   (default build/, configured and built)
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

BUILD="$(cd "${1:-$ROOT/build}" && pwd)"
# systemd-analyze and lintian are optional: their checks are skipped where they cannot be had.
install_packages python3 file dpkg-dev bash-completion
install_packages systemd lintian || echo "check-install: could not install systemd/lintian"

WORK="$(mktemp -d)"
P="$WORK/prefix"
PIDS=()
cleanup() {
    for pid in "${PIDS[@]}"; do
        kill "$pid" 2>/dev/null && wait "$pid" 2>/dev/null || true
    done
    rm -rf "$WORK"
}
trap cleanup EXIT
fail() {
    echo "check-install: FAILED: $*" >&2
    exit 1
}
# wait_for SECONDS COMMAND...: polls until COMMAND succeeds.
wait_for() {
    local tries=$(($1 * 10)); shift
    until "$@"; do
        tries=$((tries - 1))
        [ "$tries" -gt 0 ] || return 1
        sleep 0.1
    done
}
ARCH="$(dpkg-architecture -qDEB_HOST_MULTIARCH)"
VERSION="$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$BUILD/CMakeCache.txt")"

echo "== install into a temporary prefix"
cmake --install "$BUILD" --prefix "$P" >/dev/null
(cd "$P" && find . ! -type d | sed 's|^\./||' | sort) > "$WORK/installed"
for f in sbin/downloadmanager bin/dlctl etc/downloadmanager/downloadmanager.ini \
         lib/systemd/system/downloadmanager.service share/bash-completion/completions/dlctl \
         "lib/$ARCH/libdownloadmanager-client.so.0" "lib/$ARCH/pkgconfig/downloadmanager-client.pc" \
         "lib/$ARCH/cmake/DownloadManagerClient/DownloadManagerClientConfig.cmake" \
         include/downloadmanager/IDLService.h include/downloadmanager/binder/ProcessState.h; do
    grep -qxF "$f" "$WORK/installed" || fail "$f is not installed"
done
# Public headers are the interface and the IPC runtime's; nothing of the service's internals.
internal="$(grep '^include/' "$WORK/installed" |
    grep -vE '^include/downloadmanager/(IDLService|IDLClient|IDownload|binder/[A-Za-z]+)\.h$' || true)"
[ -z "$internal" ] || fail "headers that are not part of the client library: $internal"
[ "$("$P/bin/dlctl" --version)" = "dlctl $VERSION" ] || fail "dlctl --version"

echo "== build the example client against the prefix"
cmake -S "$ROOT/examples" -B "$WORK/example" -G Ninja -DCMAKE_PREFIX_PATH="$P" >/dev/null
cmake --build "$WORK/example" >/dev/null
export PKG_CONFIG_PATH="$P/lib/$ARCH/pkgconfig"
# shellcheck disable=SC2046
c++ -std=c++17 -o "$WORK/example-pc" "$ROOT/examples/download-example.cpp" \
    $(pkg-config --cflags --libs downloadmanager-client) || fail "pkg-config flags do not build a client"

echo "== run the installed service and the example"
mkdir -p "$WORK/db" "$WORK/binder" "$WORK/www" "$WORK/downloads"
# The installed, commented settings file with the database moved into the work directory.
sed "s|^download_database_path=/var/lib/downloadmanager$|download_database_path=$WORK/db|" \
    "$P/etc/downloadmanager/downloadmanager.ini" > "$WORK/settings.ini"
head -c 300000 /dev/urandom > "$WORK/www/file.bin"
export BINDER_SOCKET_DIR="$WORK/binder"
DLM_SETTINGS="$WORK/settings.ini" "$P/sbin/downloadmanager" </dev/null >"$WORK/service.log" 2>&1 &
PIDS+=($!)
python3 -u -m http.server --bind 127.0.0.1 --directory "$WORK/www" 0 </dev/null >"$WORK/http.log" 2>&1 &
PIDS+=($!)
wait_for 10 test -S "$BINDER_SOCKET_DIR/com.velta.DLService" || fail "no service socket: $(cat "$WORK/service.log")"
wait_for 10 grep -q ' port ' "$WORK/http.log" || fail "the HTTP server did not start"
URL="http://127.0.0.1:$(sed -n 's/.* port \([0-9]*\) .*/\1/p' "$WORK/http.log")"
grep -qF "settings file : $WORK/settings.ini" "$WORK/service.log" || fail "DLM_SETTINGS was not used"

"$P/bin/dlctl" set-path example "$WORK/downloads/"
"$WORK/example/download-example" "$URL/file.bin" example >"$WORK/example.log" 2>&1 ||
    fail "example did not complete: $(cat "$WORK/example.log")"
cmp -s "$WORK/www/file.bin" "$WORK/downloads/file.bin" || fail "downloaded file differs"
[ -s "$WORK/db/dlm_download.db" ] || fail "no database in the configured directory"
status=0
"$WORK/example/download-example" "$URL/missing.bin" example >"$WORK/example.log" 2>&1 || status=$?
[ "$status" = 1 ] || fail "example of a failing download exited $status: $(cat "$WORK/example.log")"

if [ -r /usr/share/bash-completion/bash_completion ]; then
    ids="$(bash -c 'source /usr/share/bash-completion/bash_completion
                    source "$1"; PATH="$2:$PATH"
                    COMP_WORDS=(dlctl status ""); COMP_CWORD=2; COMP_LINE="dlctl status "
                    COMP_POINT=${#COMP_LINE}; _dlctl; echo "${COMPREPLY[@]}"' _ \
          "$P/share/bash-completion/completions/dlctl" "$P/bin")"
    [ "$(echo "$ids" | wc -w)" = 2 ] || fail "completion of identifiers gave: $ids"
fi

echo "== build and check the Debian package"
(cd "$BUILD" && cpack -G DEB -B "$WORK/pkg" >/dev/null)
DEB="$(ls "$WORK"/pkg/*.deb)"
# The package holds exactly what the install rules install, at /usr and /etc.
dpkg-deb --contents "$DEB" | awk '$1 !~ /^d/ {print $6}' |
    sed -e 's|^\./etc/|etc/|' -e 's|^\./usr/||' | sort > "$WORK/packaged"
diff "$WORK/installed" "$WORK/packaged" || fail "package and install rules disagree"
[ "$(dpkg-deb --info "$DEB" conffiles)" = /etc/downloadmanager/downloadmanager.ini ] ||
    fail "the settings file is not a conffile"
depends="$(dpkg-deb --field "$DEB" Depends)"
for p in libqt6core6 libqt6network6 libqt6sql6 android-libutils android-liblog libc6; do
    [[ "$depends" =~ (^|, )$p\ \(\>= ]] || fail "Depends lacks $p: $depends"
done
[[ "$depends" =~ (^|, )libqt6sql6-sqlite(,|$) ]] || fail "Depends lacks the SQLite driver: $depends"

if command -v systemd-analyze >/dev/null; then
    # Verified as packaged, with its program and manual page looked up in the package's tree.
    dpkg-deb -x "$DEB" "$WORK/root"
    mkdir "$WORK/unit"
    sed "s|^ExecStart=|ExecStart=$WORK/root|" "$WORK/root/usr/lib/systemd/system/downloadmanager.service" \
        > "$WORK/unit/downloadmanager.service"
    MANPATH="$WORK/root/usr/share/man" systemd-analyze verify "$WORK/unit/downloadmanager.service" ||
        fail "systemd-analyze verify"
else
    echo "check-install: systemd-analyze is not available; the unit is not verified"
fi
if command -v lintian >/dev/null; then
    verdict=0
    lintian --fail-on error "$DEB" >"$WORK/lintian.log" 2>&1 || verdict=$?
    grep -v 'running with root privileges' "$WORK/lintian.log" || true
    [ "$verdict" = 0 ] || fail "lintian reports errors"
else
    echo "check-install: lintian is not available; the package is not checked by it"
fi
echo "check-install: installed tree, example client, unit and package are fine"
