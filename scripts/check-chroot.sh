#!/usr/bin/env bash
# The packages at work on a clean Debian 12 system, for scripts/check-install.sh (DLM_CHROOT=1):
# makes a chroot with mmdebstrap (or debootstrap) holding only a compiler, CMake and pkg-config,
# installs the three packages with apt, builds the example against the -dev package with CMake
# and with pkg-config, has the packaged service (started as its unit starts it) download a file,
# reaches it through the old /run/binder path, then purges the packages and compares the file
# list with the one before: nothing but the downloaded file may be left.
# Usage: scripts/check-chroot.sh WORK_DIR URL_OF_FILE_BIN_DIR DEB...
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

WORK="$1" URL="$2"; shift 2
C="$WORK/chroot"
MIRROR="${DLM_MIRROR:-http://deb.debian.org/debian}"
TOOLS=g++,make,cmake,pkg-config,systemd-standalone-tmpfiles
fail() {
    echo "check-install: FAILED in the chroot: $*" >&2
    exit 1
}
in_chroot() {
    chroot "$C" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 "$@"
}
SERVICE_PID=
cleanup() {
    [ -z "$SERVICE_PID" ] || kill "$SERVICE_PID" 2>/dev/null || true
    if mountpoint -q "$C/proc"; then umount "$C/proc" || true; fi
}
trap cleanup EXIT

echo "== a clean Debian 12 chroot ($MIRROR)"
start=$(date +%s)
if command -v mmdebstrap >/dev/null; then
    mmdebstrap --quiet --variant=apt --mode=root --include="$TOOLS" bookworm "$C" "$MIRROR" ||
        fail "mmdebstrap"
else
    debootstrap --variant=minbase --include="$TOOLS" bookworm "$C" "$MIRROR" >"$WORK/debootstrap.log" ||
        fail "debootstrap: $(tail -5 "$WORK/debootstrap.log")"
fi
cp /etc/resolv.conf "$C/etc/resolv.conf"
mount -t proc proc "$C/proc"
echo "chroot made in $(($(date +%s) - start)) s"

# The packages' dependencies first, so that the file lists before and after compare only ours.
mkdir "$C/debs"
cp "$@" "$C/debs/"
deps="$(for deb in "$@"; do dpkg-deb --field "$deb" Depends; done | tr ',' '\n' |
        sed -e 's/|.*//' -e 's/(.*)//' -e 's/ //g' | grep -v '^libdownloadmanager-client' | sort -u)"
in_chroot apt-get update -qq >"$WORK/chroot-apt.log" 2>&1 || fail "apt-get update: $(tail -5 "$WORK/chroot-apt.log")"
# shellcheck disable=SC2086
in_chroot env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $deps \
    >"$WORK/chroot-apt.log" 2>&1 || fail "dependencies: $(tail -5 "$WORK/chroot-apt.log")"
# Everything but the kernel's, the temporary and apt's and dpkg's own bookkeeping.
snapshot() {
    (cd "$C" && find . -xdev \( -path ./proc -o -path ./dev -o -path ./sys -o -path ./tmp \
        -o -path ./debs -o -path ./var/cache -o -path ./var/log -o -path ./var/lib/apt \
        -o -path ./var/lib/dpkg \) -prune -o -print | sort)
}
snapshot > "$WORK/before"

echo "== install, build the example, download, purge"
debs=()
for deb in "$@"; do debs+=("/debs/$(basename "$deb")"); done
in_chroot env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
    "${debs[@]}" >"$WORK/chroot-apt.log" 2>&1 || fail "apt install: $(tail -5 "$WORK/chroot-apt.log")"
[ "$(readlink "$C/run/binder/com.velta.DLService")" = /run/downloadmanager/com.velta.DLService ] ||
    fail "postinst made no /run/binder link"
cp -r "$ROOT/examples" "$C/tmp/examples"
in_chroot cmake -S /tmp/examples -B /tmp/example >/dev/null || fail "find_package(DownloadManagerClient)"
in_chroot cmake --build /tmp/example >/dev/null || fail "the example does not build with CMake"
in_chroot sh -c 'c++ -std=c++17 -o /tmp/example-pc /tmp/examples/download-example.cpp \
    $(pkg-config --cflags --libs downloadmanager-client)' || fail "the example does not build with pkg-config"

# The service as its unit starts it (StateDirectory made as systemd makes it), with the console
# on a pipe so that it ends with quit.
mkdir -m 0700 "$C/var/lib/downloadmanager"
mkdir "$C/srv/downloads"
unit="$C/usr/lib/systemd/system/downloadmanager.service"
mkfifo "$WORK/console"
exec 3<>"$WORK/console"
# shellcheck disable=SC2046
chroot "$C" env -i DL_CONSOLE_READER_ENABLE=1 \
    $(sed -n 's/^Environment=//p' "$unit") \
    $(sed -n 's/^ExecStart=//p' "$unit") <&3 >"$WORK/chroot-service.log" 2>&1 &
SERVICE_PID=$!
for _ in $(seq 100); do
    [ -S "$C/run/downloadmanager/com.velta.DLService" ] && break
    sleep 0.1
done
in_chroot dlctl set-path example /srv/downloads || fail "set-path: $(cat "$WORK/chroot-service.log")"
in_chroot /tmp/example/download-example "$URL/file.bin" example >"$WORK/example.log" 2>&1 ||
    fail "the example did not complete: $(cat "$WORK/example.log")"
cmp -s "$WORK/www/file.bin" "$C/srv/downloads/file.bin" || fail "downloaded file differs"
status=0
in_chroot /tmp/example-pc "$URL/missing.bin" example >"$WORK/example.log" 2>&1 || status=$?
[ "$status" = 1 ] || fail "example of a failing download exited $status: $(cat "$WORK/example.log")"
[ "$(in_chroot env BINDER_SOCKET_DIR=/run/binder dlctl list example | wc -l)" = 2 ] ||
    fail "a client of the old socket directory does not reach the service"
echo quit >&3
wait "$SERVICE_PID" || fail "the service ended with $?: $(tail -5 "$WORK/chroot-service.log")"
SERVICE_PID=

in_chroot dpkg --purge downloadmanager libdownloadmanager-client0 libdownloadmanager-client-dev \
    >"$WORK/chroot-apt.log" 2>&1 || fail "purge: $(tail -5 "$WORK/chroot-apt.log")"
snapshot > "$WORK/after"
left="$(diff "$WORK/before" "$WORK/after" | grep '^[<>]' |
        grep -vxE '> \./srv/downloads(/file\.bin)?' || true)"
[ -z "$left" ] || fail "the purge leaves more than the downloaded file: $left"
echo "chroot: install, example (CMake and pkg-config), download and purge are fine"
