#!/usr/bin/env bash
# The project's one entry point.
#   ./run.sh test            install what is missing, build (normal and sanitizer builds), run every test
#   ./run.sh demo            install what is missing, build, write and read sample detector data
#                            through the HDF5 plugin next to gzip, from C++ and from Python, and
#                            inspect the file with the mertax tool
#   ./run.sh bench [--quick] build and print the benchmark tables: the codec per level and per
#                            kernel set, and against other compressors and HDF5 filters (also as CSV)
#   ./run.sh fuzz [SECONDS]  build the fuzz targets with clang, ASan and UBSan, and run each for
#                            SECONDS (default 60), starting from the saved corpus
#   ./run.sh mutants FILE... apply simple faults to a scratch copy of the files one at a time and
#                            list those that no test catches (slow; not part of CI)
#   ./run.sh test-arm64      install what is missing, cross-build for ARM64 (Debian's arm64 HDF5 and
#                            GoogleTest unpacked into build-arm64/sysroot) and run the tests under
#                            qemu-aarch64, files exchanged with this machine's build included
#   ./run.sh test-windows    install what is missing, cross-build for Windows x86-64 with mingw-w64 (the
#                            codec DLL, the tool's raw verbs, the tests) and run the tests under wine;
#                            with MERTAX_WINDOWS_HDF5=PREFIX (a MinGW HDF5, tools/build_hdf5.sh --windows)
#                            also the plugin, with that HDF5's tools and files exchanged with this machine
#   ./run.sh test-hdf5 PREFIX  build against the HDF5 installed under PREFIX (tools/build_hdf5.sh builds
#                            one from HDF5's source) and run the tests, that HDF5's tools first on PATH
#   ./run.sh package         build the Debian package (build-package/libmertax_*.deb) and, as root,
#                            install it, use it and remove it
set -euo pipefail
cd "$(dirname "$0")"

PACKAGES=(cmake make g++ pkg-config libgtest-dev libbenchmark-dev libboost-dev libhdf5-dev hdf5-tools python3-h5py python3-numpy
    openmpi-bin libhdf5-openmpi-dev python3-h5py-mpi python3-mpi4py
    python3-dev pybind11-dev python3-numcodecs python3-zarr python3-pytest python3-hypothesis libcli11-dev
    python3-venv python3-pip python3-setuptools python3-entrypoints python3-dask python3-distributed
    python3-xarray python3-h5netcdf python3-netcdf4 python3-tables netcdf-bin
    liblz4-dev libzstd-dev zlib1g-dev libblosc-dev)
# The HDF5 plugins that the benchmark compares with.
BENCH_PACKAGES=(hdf5-filter-plugin hdf5-filter-plugin-blosc-serial bitshuffle)
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
    echo "== ThreadSanitizer build of the threaded tests"
    cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DMERTAX_TSAN=ON -DMERTAX_BUILD_BENCH=OFF >/dev/null
    cmake --build build-tsan -j"$JOBS" --target codec_tests threaded_chunk_io_tests mertax
    TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
        ctest --test-dir build-tsan --output-on-failure -j"$JOBS" -R "Concurrency|ThreadCount|ThreadedChunkIO"
}

run_bench() {
    PACKAGES+=("${BENCH_PACKAGES[@]}")
    ensure_packages
    configure_and_build build -DCMAKE_BUILD_TYPE=Release
    mkdir -p build/bench-results
    local out=build/bench-results
    echo "== The codec alone, every level"
    ./build/bench/buffer_bench "$@"
    echo
    echo "== The kernel sets this processor runs, level 4"
    ./build/bench/kernel_set_bench "$@"
    echo
    echo "== Against other compressors, in memory"
    ./build/bench/codec_comparison_bench "$@" --csv "$out/in_memory.csv"
    echo
    echo "== Against other filters, through HDF5"
    HDF5_PLUGIN_PATH="$PWD/build/plugin:$(pkg-config --variable=PluginDir hdf5-serial)" \
        ./build/bench/hdf5_filter_bench "$out/scratch.h5" "$@" --csv "$out/through_hdf5.csv"
    echo
    echo "CSV files: $out/in_memory.csv, $out/through_hdf5.csv"
}

run_demo() {
    ensure_packages
    configure_and_build build -DCMAKE_BUILD_TYPE=Release
    mkdir -p build/demo
    HDF5_PLUGIN_PATH="$PWD/build/plugin" ./build/tools/mertax_demo "$PWD/build/demo/mertax_demo.h5"
    echo
    echo "== From Python (the build's package, no HDF5_PLUGIN_PATH)"
    PYTHONPATH="$PWD/build/python" /usr/bin/python3 tools/python_demo.py "$PWD/build/demo/python_demo.h5"
    echo
    echo "== The command-line tool on the demo's file"
    ./build/bin/mertax inspect "$PWD/build/demo/mertax_demo.h5"
}

# Debian's arm64 HDF5, HDF5 tools and GoogleTest with every library they need, unpacked into $1
# (not installed: they are not co-installable with the host's own).
arm64_sysroot() {
    local root=$1 sudo=""
    [ -f "$root/.complete" ] && return 0
    [ "$(id -u)" -ne 0 ] && sudo=sudo
    if ! dpkg --print-foreign-architectures | grep -qx arm64; then
        $sudo dpkg --add-architecture arm64
        $sudo apt-get update -qq
    fi
    local debs="$root.debs" wanted
    rm -rf "$root" "$debs"
    mkdir -p "$root" "$debs"
    wanted=$(apt-cache depends --recurse --no-recommends --no-suggests --no-conflicts --no-breaks --no-replaces \
        --no-enhances --no-pre-depends libhdf5-dev:arm64 hdf5-tools:arm64 libgtest-dev:arm64 |
        grep -E '^[a-z0-9].*:arm64$' | grep -v -E 'nss-dev|openssl-dev|gnutls-dev|libcurl3-nss|nss-plugin' | sort -u)
    (cd "$debs" && apt-get download $wanted >/dev/null)
    for deb in "$debs"/*.deb; do dpkg -x "$deb" "$root"; done
    rm -rf "$debs"
    touch "$root/.complete"
}

run_test_arm64() {
    PACKAGES+=(g++-aarch64-linux-gnu qemu-user-static)
    ensure_packages
    echo "== Host build (its plugin exchanges files with the ARM64 one)"
    configure_and_build build -DCMAKE_BUILD_TYPE=Release
    echo "== ARM64 packages"
    arm64_sysroot "$PWD/build-arm64/sysroot"
    echo "== ARM64 cross build"
    MERTAX_ARM64_SYSROOT="$PWD/build-arm64/sysroot" configure_and_build build-arm64/build \
        -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake -DCMAKE_BUILD_TYPE=Release \
        -DMERTAX_BUILD_BENCH=OFF -DMERTAX_BUILD_PYTHON=OFF -DMERTAX_HOST_PLUGIN_DIR="$PWD/build/plugin"
    echo "== ARM64 tests under qemu-aarch64"
    ctest --test-dir build-arm64/build --output-on-failure -j"$JOBS"
}

run_test_windows() {
    PACKAGES+=(g++-mingw-w64-x86-64-posix wine64)
    ensure_packages
    # wine keeps its Windows folders inside the build folder; made once, before tests run in parallel.
    export WINEPREFIX="$PWD/build-windows/wine" WINEDEBUG=-all
    mkdir -p build-windows
    [ -d "$WINEPREFIX" ] || /usr/lib/wine/wine64 wineboot --init >/dev/null 2>&1
    # One wine server for the whole run: left to itself it stops 3 s after its last process, and a
    # test starting just then fails with no message (1 run in 10 here). Its services are started
    # now, with no test's output pipe to hold open. A server still running (the one wineboot
    # started) must stop first: -p refuses to start beside it.
    timeout 60 /usr/lib/wine/wineserver -w || { /usr/lib/wine/wineserver -k; sleep 1; } || true
    /usr/lib/wine/wineserver -p </dev/null >/dev/null 2>&1
    /usr/lib/wine/wine64 wineboot </dev/null >/dev/null 2>&1
    trap '/usr/lib/wine/wineserver -k || true' EXIT
    local options=(-DCMAKE_TOOLCHAIN_FILE=cmake/x86_64-w64-mingw32.cmake -DCMAKE_BUILD_TYPE=Release
        -DMERTAX_BUILD_BENCH=OFF -DMERTAX_BUILD_PYTHON=OFF)
    echo "== Windows cross build (mingw-w64): the codec"
    configure_and_build build-windows/build "${options[@]}" -DMERTAX_WITH_HDF5=OFF
    echo "== Windows tests under wine: the codec"
    ctest --test-dir build-windows/build --output-on-failure -j"$JOBS"
    if [ -z "${MERTAX_WINDOWS_HDF5:-}" ]; then
        echo "== The Windows plugin is not built: set MERTAX_WINDOWS_HDF5 to a MinGW build of HDF5"
        return 0
    fi
    echo "== Host build (its plugin exchanges files with the Windows one)"
    configure_and_build build -DCMAKE_BUILD_TYPE=Release
    echo "== Windows cross build (mingw-w64): the plugin, against $MERTAX_WINDOWS_HDF5"
    configure_and_build build-windows/plugin "${options[@]}" -DMERTAX_HOST_PLUGIN_DIR="$PWD/build/plugin"
    echo "== Windows tests under wine: the plugin"
    ctest --test-dir build-windows/plugin --output-on-failure -j"$JOBS"
}

# The tests built against the HDF5 installed under $1, its tools first on PATH. Python is left
# out: h5py and the package's module link the system's HDF5.
run_test_hdf5() {
    local prefix=${1:?usage: ./run.sh test-hdf5 PREFIX}
    prefix=$(cd "$prefix" && pwd)
    ensure_packages
    local dir
    dir="build-hdf5/$(basename "$prefix")"
    echo "== Build against $prefix"
    configure_and_build "$dir" -DCMAKE_BUILD_TYPE=Release -DHDF5_ROOT="$prefix" -DMERTAX_BUILD_BENCH=OFF \
        -DMERTAX_BUILD_PYTHON=OFF
    echo "== Tests, with $("$prefix/bin/h5dump" --version)"
    PATH="$prefix/bin:$PATH" ctest --test-dir "$dir" --output-on-failure -j"$JOBS"
}

run_package() {
    PACKAGES+=(dpkg-dev file)
    ensure_packages
    configure_and_build build-package -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
        -DMERTAX_BUILD_TESTS=OFF -DMERTAX_BUILD_BENCH=OFF
    rm -f build-package/libmertax_*.deb
    (cd build-package && cpack -G DEB >cpack.log 2>&1) || { cat build-package/cpack.log; return 1; }
    local deb
    deb=$(ls build-package/libmertax_*.deb)
    echo "== Built $deb"
    dpkg-deb -c "$deb" | awk '{print $6}' | grep -v '/$'
    bash tests/package/check_deb.sh "$deb"
}

run_fuzz() {
    local seconds=${1:-60} target status=0
    PACKAGES+=(clang)
    ensure_packages
    CC=clang CXX=clang++ configure_and_build build-fuzz -DCMAKE_BUILD_TYPE=Release -DMERTAX_SANITIZE=ON \
        -DMERTAX_FUZZ=ON -DMERTAX_BUILD_TESTS=OFF -DMERTAX_BUILD_BENCH=OFF
    for target in expand round_trip filter c_api hdf5_file; do
        echo "== Fuzzing $target for $seconds s"
        # New inputs go to the build folder; the saved corpus in fuzz/corpus is only read.
        mkdir -p "build-fuzz/corpus/$target" build-fuzz/artifacts
        local log="build-fuzz/$target.log"
        ./build-fuzz/fuzz/${target}_fuzzer "build-fuzz/corpus/$target" "fuzz/corpus/$target" \
            -max_total_time="$seconds" -max_len=20000 -timeout=10 -rss_limit_mb=2048 \
            -artifact_prefix=build-fuzz/artifacts/ -print_final_stats=1 >"$log" 2>&1 || status=1
        grep -E "stat::number_of_executed_units|ERROR|SUMMARY|Test unit written" "$log" || true
    done
    [ $status -eq 0 ] || echo "== A fuzz target failed: see build-fuzz/*.log and build-fuzz/artifacts/"
    return $status
}

case "${1:-}" in
test) run_tests ;;
demo) run_demo ;;
fuzz)
    shift
    run_fuzz "$@"
    ;;
bench)
    shift
    run_bench "$@"
    ;;
test-arm64) run_test_arm64 ;;
test-windows) run_test_windows ;;
test-hdf5)
    shift
    run_test_hdf5 "$@"
    ;;
package) run_package ;;
mutants)
    shift
    ensure_packages
    /usr/bin/python3 tools/mutants.py "$@"
    ;;
*)
    echo "usage: $0 test | test-arm64 | test-windows | test-hdf5 PREFIX | demo | bench [--quick] | fuzz [SECONDS] | package | mutants FILE..." >&2
    exit 2
    ;;
esac
