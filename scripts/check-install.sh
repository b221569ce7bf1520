#!/usr/bin/env bash
# Checks the installed form of a build: the install rules, the three Debian packages built from
# them (which file goes where, dependencies, conffile, lintian), the hardening of the installed
# programs, the manual pages against the README and the code, and the packages at work: the
# example client built against the -dev package alone (CMake and pkg-config) downloads through
# the packaged service. That last part runs in a temporary prefix holding the packages' files;
# with DLM_CHROOT=1 also in a clean Debian 12 chroot made by debootstrap (a few minutes and
# Debian's mirror, DLM_MIRROR): the packages install with apt, work, and purge leaves nothing
# but the downloaded file. The last line says which was done.
# Usage: [DLM_CHROOT=1] scripts/check-install.sh [BUILD_DIR]   (default build/, built)
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

BUILD="$(cd "${1:-$ROOT/build}" && pwd)"
CHROOT="${DLM_CHROOT:-0}"
# systemd-analyze and lintian are optional: their checks are skipped where they cannot be had.
install_packages python3 file dpkg-dev bash-completion devscripts
install_packages systemd lintian || echo "check-install: could not install systemd/lintian"
[ "$CHROOT" = 1 ] && install_packages debootstrap

WORK="$(mktemp -d)"
C="$WORK/chroot"
PIDS=()
cleanup() {
    for pid in "${PIDS[@]}"; do
        kill "$pid" 2>/dev/null && wait "$pid" 2>/dev/null || true
    done
    # Never delete through a mount of the host's file systems.
    if mountpoint -q "$C/proc" 2>/dev/null; then
        umount "$C/proc" || { echo "check-install: $C/proc still mounted, $WORK kept" >&2; return; }
    fi
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
# files_of DEB: its files (no directories) as paths below /usr, or etc/... for /etc.
files_of() {
    dpkg-deb --contents "$1" | awk '$1 !~ /^d/ {print $6}' |
        sed -e 's|^\./etc/|etc/|' -e 's|^\./usr/||' | sort
}
ARCH="$(dpkg-architecture -qDEB_HOST_MULTIARCH)"
DEBARCH="$(dpkg-architecture -qDEB_HOST_ARCH)"
VERSION="$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$BUILD/CMakeCache.txt")"
SERVICE=downloadmanager LIB=libdownloadmanager-client0 DEV=libdownloadmanager-client-dev

echo "== install rules"
cmake --install "$BUILD" --prefix "$WORK/install" >/dev/null
(cd "$WORK/install" && find . ! -type d | sed 's|^\./||' | sort) > "$WORK/installed"
for f in sbin/downloadmanager bin/dlctl etc/downloadmanager/downloadmanager.ini \
         lib/systemd/system/downloadmanager.service lib/tmpfiles.d/downloadmanager.conf \
         share/bash-completion/completions/dlctl share/man/man8/downloadmanager.8.gz \
         "lib/$ARCH/libdownloadmanager-client.so.0" "lib/$ARCH/pkgconfig/downloadmanager-client.pc" \
         "lib/$ARCH/cmake/DownloadManagerClient/DownloadManagerClientConfig.cmake" \
         include/downloadmanager/IDLService.h include/downloadmanager/DownloadClient.h \
         include/downloadmanager/binder/ProcessState.h; do
    grep -qxF "$f" "$WORK/installed" || fail "$f is not installed"
done
# Public headers are the interface and the IPC runtime's; nothing of the service's internals.
internal="$(grep '^include/' "$WORK/installed" |
    grep -vE '^include/downloadmanager/(IDLService|IDLClient|IDownload|DownloadClient|binder/[A-Za-z]+)\.h$' || true)"
[ -z "$internal" ] || fail "headers that are not part of the client library: $internal"

echo "== Debian packages"
(cd "$BUILD" && cpack -G DEB -B "$WORK/pkg" >/dev/null)
declare -A DEB PATTERN
for p in $SERVICE $LIB $DEV; do
    DEB[$p]="$WORK/pkg/${p}_${VERSION}_$DEBARCH.deb"
    [ -f "${DEB[$p]}" ] || fail "no package $p: $(ls "$WORK/pkg")"
done
[ "$(ls "$WORK"/pkg/*.deb | wc -l)" = 3 ] || fail "packages other than the three: $(ls "$WORK/pkg")"
# Which files each package holds, as Debian splits a library; together exactly the installed ones.
PATTERN[$SERVICE]="(sbin/downloadmanager|bin/dlctl|etc/downloadmanager/downloadmanager\.ini|lib/systemd/system/downloadmanager\.service|lib/tmpfiles\.d/downloadmanager\.conf|share/man/man[18]/[a-z]+\.[18]\.gz|share/bash-completion/completions/dlctl|share/doc/$SERVICE/.*|share/lintian/overrides/$SERVICE)"
PATTERN[$LIB]="(lib/$ARCH/libdownloadmanager-client\.so\.0(\.[0-9.]+)?|share/doc/$LIB/.*|share/lintian/overrides/$LIB)"
PATTERN[$DEV]="(include/downloadmanager/.*|lib/$ARCH/libdownloadmanager-client\.so|lib/$ARCH/(cmake/DownloadManagerClient|pkgconfig)/.*|share/doc/$DEV/.*)"
for p in $SERVICE $LIB $DEV; do
    files_of "${DEB[$p]}" > "$WORK/files-$p"
    misplaced="$(grep -vxE "${PATTERN[$p]}" "$WORK/files-$p" || true)"
    [ -z "$misplaced" ] || fail "files that do not belong in $p: $misplaced"
    grep -qxF "share/doc/$p/copyright" "$WORK/files-$p" || fail "$p has no copyright file"
done
sort "$WORK"/files-* | diff "$WORK/installed" - || fail "packages and install rules disagree"
[ "$(dpkg-deb --info "${DEB[$SERVICE]}" conffiles)" = /etc/downloadmanager/downloadmanager.ini ] ||
    fail "the settings file is not a conffile"
depends="$(dpkg-deb --field "${DEB[$SERVICE]}" Depends)"
for d in libqt6core6 libqt6sql6 libcurl4 android-libutils android-liblog libc6; do
    [[ "$depends" =~ (^|, )$d\ \(\>= ]] || fail "$SERVICE Depends lacks $d: $depends"
done
# HTTP is libcurl's on the service's own thread: Qt's network module is not even loaded.
[[ "$depends" != *libqt6network6* ]] || fail "$SERVICE depends on Qt's network module: $depends"
[[ "$depends" =~ (^|, )libqt6sql6-sqlite(,|$) ]] || fail "Depends lacks the SQLite driver: $depends"
depends="$(dpkg-deb --field "${DEB[$LIB]}" Depends)"
for d in android-libutils android-liblog libc6 libstdc\\+\\+6; do
    [[ "$depends" =~ (^|, )$d\ \(\>= ]] || fail "$LIB Depends lacks $d: $depends"
done
[[ "$(dpkg-deb --info "${DEB[$LIB]}" shlibs)" == "libdownloadmanager-client 0 $LIB (>= $VERSION)" ]] ||
    fail "$LIB shlibs: $(dpkg-deb --info "${DEB[$LIB]}" shlibs)"
depends="$(dpkg-deb --field "${DEB[$DEV]}" Depends)"
for d in "$LIB (= $VERSION)" android-libutils-dev android-liblog-dev; do
    [[ ", $depends," == *", $d,"* ]] || fail "$DEV Depends lacks $d: $depends"
done

R="$WORK/root"
for p in $SERVICE $LIB $DEV; do
    dpkg-deb -x "${DEB[$p]}" "$R"
done
[ "$("$R/usr/bin/dlctl" --version)" = "dlctl $VERSION" ] || fail "dlctl --version"
if command -v systemd-analyze >/dev/null; then
    # Verified as packaged, with its program and manual page looked up in the package's tree.
    mkdir "$WORK/unit"
    sed "s|^ExecStart=|ExecStart=$R|" "$R/usr/lib/systemd/system/downloadmanager.service" \
        > "$WORK/unit/downloadmanager.service"
    MANPATH="$R/usr/share/man" systemd-analyze verify "$WORK/unit/downloadmanager.service" ||
        fail "systemd-analyze verify"
    # The link that keeps /run/binder working for clients built with the old default.
    mkdir "$WORK/tmpfiles"
    systemd-tmpfiles --create --root="$WORK/tmpfiles" "$R/usr/lib/tmpfiles.d/downloadmanager.conf"
    [ "$(readlink "$WORK/tmpfiles/run/binder/com.velta.DLService")" = \
      /run/downloadmanager/com.velta.DLService ] || fail "tmpfiles.d makes no /run/binder link"
else
    echo "check-install: systemd-analyze is not available; the unit is not verified"
fi
if command -v lintian >/dev/null; then
    verdict=0
    lintian --fail-on warning "${DEB[@]}" >"$WORK/lintian.log" 2>&1 || verdict=$?
    grep -v 'running with root privileges' "$WORK/lintian.log" || true
    [ "$verdict" = 0 ] || fail "lintian reports warnings or errors"
else
    echo "check-install: lintian is not available; the packages are not checked by it"
fi

echo "== hardening"
# Stack protector, fortified functions, RELRO, BIND_NOW and PIE, as packaged (stripped).
# Control-flow marking is not asked for: Debian 12's C start files (Scrt1.o, crti.o) carry no
# IBT/SHSTK property, so no program linked there has it (/bin/ls neither).
hardening-check --nocfprotection "$R/usr/sbin/downloadmanager" "$R/usr/bin/dlctl" ||
    fail "hardening-check: the programs are not built with the hardening flags"
for program in "$R/usr/sbin/downloadmanager" "$R/usr/bin/dlctl"; do
    ! ldd "$program" | grep -q libQt6Network || fail "$program links Qt's network module"
done

echo "== manual pages"
# man_words PAGE: the page's text with roff's escapes and font changes removed.
man_words() {
    sed -e 's/\\f[BIRP]//g' -e 's/\\-/-/g' "$ROOT/dist/$1"
}
page8="$(man_words downloadmanager.8)" page1="$(man_words dlctl.1)"
# Every setting key (in the README and read by the service) and every environment name of the
# README is in downloadmanager(8); DLM_ names of the scripts and the build are not the service's.
keys="$(grep -o 'key `[a-z_]*`' "$ROOT/README.md" | tr -d '`' | cut -d' ' -f2)
$(grep -ohE '(count|text)\(QStringLiteral\("[a-z_]+"' "$ROOT"/core/*.cpp |
    sed 's/.*("\(.*\)"/\1/')"
names="$(grep -oE '\b(DLM|DL|BINDER|MAX|APM)_[A-Z_]+\b' "$ROOT/README.md" |
    grep -vxE 'DLM_(HOME|CHROOT|MIRROR|SANITIZE|HARDENING|BUILD_[A-Z_]+)' || true)"
for w in $(echo "$keys" "$names" | tr ' ' '\n' | sort -u); do
    grep -qw -- "$w" <<<"$page8" || fail "downloadmanager(8) does not mention $w"
done
# Every command and option the README gives dlctl is in dlctl(1).
for w in $(grep -oE '`dlctl [^`]*`' "$ROOT/README.md" | tr -d '`' | tr ' ' '\n' |
           grep -E '^(--?[a-z][a-z-]*|[a-z][a-z-]+)$' | grep -vx dlctl | sort -u); do
    grep -qE -- "(^|[^a-z-])$w([^a-z-]|$)" <<<"$page1" || fail "dlctl(1) does not mention $w"
done

echo "== the packages at work, in a temporary prefix"
# The example client built against the -dev package's files alone, with CMake and pkg-config.
cmake -S "$ROOT/examples" -B "$WORK/example" -G Ninja -DCMAKE_PREFIX_PATH="$R/usr" >/dev/null
cmake --build "$WORK/example" >/dev/null
# shellcheck disable=SC2046
c++ -std=c++17 -o "$WORK/example-pc" "$ROOT/examples/download-example.cpp" \
    $(PKG_CONFIG_PATH="$R/usr/lib/$ARCH/pkgconfig" pkg-config --cflags --libs downloadmanager-client) ||
    fail "pkg-config flags do not build a client"

mkdir -p "$WORK/db" "$WORK/www" "$WORK/downloads"
# The packaged, commented settings file with the database moved into the work directory.
sed "s|^download_database_path=/var/lib/downloadmanager$|download_database_path=$WORK/db|" \
    "$R/etc/downloadmanager/downloadmanager.ini" > "$WORK/settings.ini"
head -c 300000 /dev/urandom > "$WORK/www/file.bin"
# The socket directory is made by the service, as it is when run outside the unit.
export BINDER_SOCKET_DIR="$WORK/run/downloadmanager"
DLM_SETTINGS="$WORK/settings.ini" "$R/usr/sbin/downloadmanager" </dev/null >"$WORK/service.log" 2>&1 &
PIDS+=($!)
python3 -u -m http.server --bind 127.0.0.1 --directory "$WORK/www" 0 </dev/null >"$WORK/http.log" 2>&1 &
PIDS+=($!)
wait_for 10 test -S "$BINDER_SOCKET_DIR/com.velta.DLService" || fail "no service socket: $(cat "$WORK/service.log")"
wait_for 10 grep -q ' port ' "$WORK/http.log" || fail "the HTTP server did not start"
URL="http://127.0.0.1:$(sed -n 's/.* port \([0-9]*\) .*/\1/p' "$WORK/http.log")"
grep -qF "settings file : $WORK/settings.ini" "$WORK/service.log" || fail "DLM_SETTINGS was not used"

"$R/usr/bin/dlctl" set-path example "$WORK/downloads/"
"$WORK/example/download-example" "$URL/file.bin" example >"$WORK/example.log" 2>&1 ||
    fail "example did not complete: $(cat "$WORK/example.log")"
cmp -s "$WORK/www/file.bin" "$WORK/downloads/file.bin" || fail "downloaded file differs"
[ -s "$WORK/db/dlm_download.db" ] || fail "no database in the configured directory"
status=0
LD_LIBRARY_PATH="$R/usr/lib/$ARCH" "$WORK/example-pc" "$URL/missing.bin" example \
    >"$WORK/example.log" 2>&1 || status=$?
[ "$status" = 1 ] || fail "example of a failing download exited $status: $(cat "$WORK/example.log")"
grep -q "failed: HTTP 404" "$WORK/example.log" || fail "the example was not told why: $(cat "$WORK/example.log")"
# A client that looks in the old socket directory reaches the service through a link there.
mkdir -p "$WORK/run/binder"
ln -s "$BINDER_SOCKET_DIR/com.velta.DLService" "$WORK/run/binder/com.velta.DLService"
[ "$(BINDER_SOCKET_DIR="$WORK/run/binder" "$R/usr/bin/dlctl" list example | wc -l)" = 2 ] ||
    fail "a client of the old socket directory does not reach the service through the link"

if [ -r /usr/share/bash-completion/bash_completion ]; then
    ids="$(bash -c 'source /usr/share/bash-completion/bash_completion
                    source "$1"; PATH="$2:$PATH"
                    COMP_WORDS=(dlctl status ""); COMP_CWORD=2; COMP_LINE="dlctl status "
                    COMP_POINT=${#COMP_LINE}; _dlctl; echo "${COMPREPLY[@]}"' _ \
          "$R/usr/share/bash-completion/completions/dlctl" "$R/usr/bin")"
    [ "$(echo "$ids" | wc -w)" = 2 ] || fail "completion of identifiers gave: $ids"
fi

if [ "$CHROOT" != 1 ]; then
    echo "check-install: install rules, packages, hardening, manual pages and the packages at" \
         "work are fine (in a temporary prefix; DLM_CHROOT=1 also checks a clean Debian 12 chroot)"
    exit 0
fi
"$ROOT/scripts/check-chroot.sh" "$WORK" "$URL" "${DEB[@]}"
echo "check-install: install rules, packages, hardening, manual pages and the packages at" \
     "work are fine (in a temporary prefix and in a clean Debian 12 chroot)"
