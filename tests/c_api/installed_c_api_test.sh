#!/usr/bin/env bash
# Installs the build into a scratch prefix (through DESTDIR-free --prefix, as a user without root
# would) and builds the C test against the installed files twice: with pkg-config and with a
# CMake project that uses find_package. Both programs must run without LD_LIBRARY_PATH.
# Arguments: the build folder, this folder, and the C flags of the build (sanitizers).
set -euo pipefail
build=$1
here=$2
cflags=${3:-}
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null
test -f "$prefix/include/mertax.h"
libdir=$(dirname "$(find "$prefix" -name 'libmertax.so.1' | head -n 1)")
test -L "$libdir/libmertax.so"
readelf -d "$libdir/libmertax.so.1" | grep -q 'SONAME.*libmertax.so.1'
if find "$prefix" -path '*hdf5/plugins/libmertax.so' | grep -q .; then :; else
    echo "no plugin under the prefix"; exit 1
fi

export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046,SC2086
cc -std=c99 -Wall -Wextra -Werror $cflags "$here/CApiTest.c" -o "$prefix/c_api_pkgconfig" \
    $(pkg-config --cflags --libs mertax)
env -u LD_LIBRARY_PATH "$prefix/c_api_pkgconfig"

cmake -S "$here" -B "$prefix/consumer" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_FLAGS="$cflags" \
    -DCMAKE_EXE_LINKER_FLAGS="$cflags" >/dev/null
cmake --build "$prefix/consumer" >/dev/null
env -u LD_LIBRARY_PATH "$prefix/consumer/c_api_test"
