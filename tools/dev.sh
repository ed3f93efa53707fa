#!/usr/bin/env bash
# Developer entry point: installs what is missing (Debian 12, as root), configures, builds, and
# runs the demo or the tests.
#   tools/dev.sh demo [ARGS]   build and run the ovrin-sm main job
#   tools/dev.sh test          build and run every test
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(cmake ninja-build g++ clang pkg-config libxml2-dev zlib1g-dev nettle-dev
          libgtest-dev libgmock-dev libbenchmark-dev)

install_missing() {
    local missing=()
    for p in "${packages[@]}"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
    done
    if ((${#missing[@]})); then
        echo "installing: ${missing[*]}"
        local sudo=""
        [ "$(id -u)" -eq 0 ] || sudo="sudo"
        $sudo apt-get update -qq
        DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
    fi
}

build() {
    local dir=$1; shift
    cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
    cmake --build "$dir" -j "$(nproc)"
}

cmd=${1:-test}
shift || true
case "$cmd" in
    demo)
        install_missing
        build build -DOVRIN_TESTS=OFF
        exec ./build/ovrin-sm "$@"
        ;;
    test)
        install_missing
        build build -DOVRIN_TESTS=ON
        ctest --test-dir build --output-on-failure -j "$(nproc)"
        ;;
    *)
        echo "usage: tools/dev.sh demo|test" >&2
        exit 2
        ;;
esac
