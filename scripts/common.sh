# Functions shared by the scripts. Sourced, not executed.

set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

say() { printf '== %s\n' "$*"; }
fail() {
    printf '%s: %s\n' "$(basename "$0")" "$*" >&2
    exit 1
}

build_packages=(g++ cmake dpkg-dev file ninja-build pkg-config python3 libasound2-dev
    libavahi-client-dev libavahi-core-dev libcli11-dev libglib2.0-dev libjack-jackd2-dev libseccomp-dev libsystemd-dev libxcb1-dev
    qt6-base-dev libgtest-dev)

# Installs the named Debian packages that are missing. Needs neither root nor apt-get if none is missing.
install_packages() {
    local missing=() package
    for package in "$@"; do
        [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    command -v apt-get >/dev/null || fail "these Debian packages are missing and there is no apt-get: ${missing[*]}"
    local root=()
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || fail "please install as root: apt-get install ${missing[*]}"
        root=(sudo)
    fi
    say "installing ${missing[*]}"
    local log
    log=$(mktemp)
    if ! { "${root[@]}" apt-get update -q &&
        "${root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -qy --no-install-recommends "${missing[@]}"; } \
        >"$log" 2>&1 </dev/null; then
        tail -n 20 "$log" >&2
        rm -f "$log"
        fail "installing packages failed; the lines above say why"
    fi
    rm -f "$log"
}

# Configures and builds a preset: all of it, or only the given targets.
build() {
    local preset=$1 targets=() log
    shift
    [ $# -eq 0 ] || targets=(--target "$@")
    log=$(mktemp)
    say "building $preset${1:+ ($*)}"
    if ! { cmake --preset "$preset" && cmake --build --preset "$preset" "${targets[@]}"; } >"$log" 2>&1; then
        tail -n 60 "$log" >&2
        rm -f "$log"
        fail "building $preset failed; the lines above say why"
    fi
    rm -f "$log"
}
