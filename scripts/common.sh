# Shared by run.sh and test.sh: install what is missing, then configure and build.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
PACKAGES=(build-essential cmake ninja-build pkg-config qt6-base-dev libqt6sql6-sqlite libsqlite3-dev
          android-libutils-dev android-liblog-dev libcurl4-openssl-dev clang libclang-rt-14-dev)

install_packages() {
    local missing=()
    for p in "${PACKAGES[@]}" "$@"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    echo "Installing: ${missing[*]}"
    local sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" </dev/null
}

# build DIR [cmake args...]
build() {
    local dir="$1"; shift
    cmake -S "$ROOT" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-RelWithDebInfo}" "$@" >/dev/null
    cmake --build "$dir" -j "$(nproc)"
}
