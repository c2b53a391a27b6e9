#!/usr/bin/env bash
# The project's one entry point.
#   ./run.sh test            install what is missing, build (normal and sanitizer builds), run every test
#   ./run.sh demo            install what is missing, build, write and read sample detector data
#                            through the HDF5 plugin next to gzip
#   ./run.sh bench [--quick] build and print the whole-buffer benchmark table
set -euo pipefail
cd "$(dirname "$0")"

PACKAGES=(cmake make g++ pkg-config libgtest-dev libbenchmark-dev libboost-dev libhdf5-dev hdf5-tools python3-h5py python3-numpy)
JOBS=$(nproc)

ensure_packages() {
    local missing=() p
    for p in "${PACKAGES[@]}"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    echo "== Installing: ${missing[*]}"
    local sudo=""
    [ "$(id -u)" -ne 0 ] && sudo=sudo
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

configure_and_build() {
    local dir=$1
    shift
    cmake -S . -B "$dir" "$@" >/dev/null
    cmake --build "$dir" -j"$JOBS"
}

run_tests() {
    ensure_packages
    echo "== Release build"
    configure_and_build build -DCMAKE_BUILD_TYPE=Release
    ctest --test-dir build --output-on-failure -j"$JOBS"
    echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
    configure_and_build build-sanitize -DCMAKE_BUILD_TYPE=Debug -DMERTAX_SANITIZE=ON
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        ctest --test-dir build-sanitize --output-on-failure -j"$JOBS"
}

run_bench() {
    ensure_packages
    configure_and_build build -DCMAKE_BUILD_TYPE=Release
    echo "CPU: $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//'), $(g++ --version | head -1), -O2"
    ./build/bench/buffer_bench "$@"
}

run_demo() {
    ensure_packages
    configure_and_build build -DCMAKE_BUILD_TYPE=Release
    mkdir -p build/demo
    HDF5_PLUGIN_PATH="$PWD/build/plugin" ./build/tools/mertax_demo "$PWD/build/demo/mertax_demo.h5"
}

case "${1:-}" in
test) run_tests ;;
demo) run_demo ;;
bench)
    shift
    run_bench "$@"
    ;;
*)
    echo "usage: $0 test | demo | bench [--quick]" >&2
    exit 2
    ;;
esac
