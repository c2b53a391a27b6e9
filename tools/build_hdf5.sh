#!/usr/bin/env bash
# Builds HDF5 (the library and its tools, C only) from a source folder and installs it under a
# prefix, to build and test the plugin against another HDF5 than the system's: for this machine, or
# with --windows for Windows x86-64 with mingw-w64 (its tools then run under wine).
#   tools/build_hdf5.sh SOURCE PREFIX [--windows]
# Then: ./run.sh test-hdf5 PREFIX, or MERTAX_WINDOWS_HDF5=PREFIX ./run.sh test-windows.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
source=$(cd "$1" && pwd)
prefix=$2
build=$(mktemp -d)
trap 'rm -rf "$build"' EXIT
options=(-DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$prefix" -DBUILD_TESTING=OFF
    -DBUILD_STATIC_LIBS=OFF -DHDF5_BUILD_EXAMPLES=OFF -DHDF5_BUILD_FORTRAN=OFF -DHDF5_BUILD_JAVA=OFF
    -DHDF5_BUILD_CPP_LIB=OFF -DHDF5_BUILD_TOOLS=ON -DHDF5_ENABLE_SZIP_SUPPORT=OFF)
if [ "${3:-}" = "--windows" ]; then
    export WINEPREFIX="$build/wine" WINEDEBUG=-all
    options+=(-DCMAKE_TOOLCHAIN_FILE="$here/cmake/x86_64-w64-mingw32.cmake" -DHDF5_BUILD_HL_LIB=OFF
        -DHDF5_ENABLE_Z_LIB_SUPPORT=OFF)
else
    options+=(-DHDF5_BUILD_HL_LIB=ON -DHDF5_ENABLE_Z_LIB_SUPPORT=ON)
fi
cmake -S "$source" -B "$build" "${options[@]}" >"$build.configure.log" 2>&1 ||
    { tail -30 "$build.configure.log"; exit 1; }
cmake --build "$build" -j"$(nproc)" >"$build.build.log" 2>&1 || { tail -30 "$build.build.log"; exit 1; }
cmake --install "$build" >/dev/null
rm -f "$build.configure.log" "$build.build.log"
echo "$(grep -m1 -o "HDF5 Version: [0-9.]*" "$prefix/lib/libhdf5.settings" || echo HDF5) installed under $prefix"
