#!/usr/bin/env bash
# Installs the build into a scratch prefix (through DESTDIR-free --prefix, as a user without root
# would) and builds the C test against the installed files twice: with pkg-config and with a
# CMake project that uses find_package. Both programs must run without LD_LIBRARY_PATH. Then
# every C and C++ block of the README is compiled as it stands against the installed headers and
# linked against the installed libraries.
# Arguments: the build folder, this folder, the C flags of the build (sanitizers), the README.
set -euo pipefail
build=$1
here=$2
cflags=${3:-}
readme=$4
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

# README blocks: one file each; a block without #include lists declarations of mertax.h, which
# must then agree with the header's.
snippets=$prefix/snippets
mkdir -p "$snippets"
awk -v dir="$snippets" '
    /^```(c|cpp)$/ { lang = substr($0, 4); n++; file = dir "/block" n "." lang; next }
    /^```/ { file = ""; next }
    file != "" { print > file }' "$readme"
for block in "$snippets"/block*; do
    grep -q '^#include' "$block" || sed -i '1i #include <mertax.h>' "$block"
done
ls "$snippets"/block*.c "$snippets"/block*.cpp >/dev/null
# A build against another HDF5 (HDF5_ROOT) finds that HDF5's pkg-config file first.
if [ -n "${HDF5_ROOT:-}" ]; then PKG_CONFIG_PATH="$PKG_CONFIG_PATH:$HDF5_ROOT/lib/pkgconfig"; fi
mkdir -p "$prefix/objects"
for block in "$snippets"/block*; do
    case $block in
        *.c) compile=(cc -std=c99) ;;
        *) compile=(c++ -std=c++17) ;;
    esac
    # shellcheck disable=SC2046,SC2086
    "${compile[@]}" -Wall -Wextra -Werror -fPIC $cflags -c "$block" -o "$prefix/objects/$(basename "$block").o" \
        $(pkg-config --cflags mertax-chunkio)
done
# The chunk I/O archive of a sanitizer build needs the sanitizers' runtime, hence the flags.
# shellcheck disable=SC2046,SC2086
c++ -shared -Wl,--no-undefined $cflags -o "$prefix/objects/snippets.so" "$prefix/objects"/*.o \
    $(pkg-config --libs mertax mertax-chunkio)

cmake -S "$here" -B "$prefix/consumer" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_FLAGS="$cflags" \
    -DCMAKE_CXX_FLAGS="$cflags" -DCMAKE_EXE_LINKER_FLAGS="$cflags" -DCMAKE_SHARED_LINKER_FLAGS="$cflags" -DSNIPPETS="$(echo "$snippets"/block* | tr ' ' ';')" >/dev/null
cmake --build "$prefix/consumer" >/dev/null
env -u LD_LIBRARY_PATH "$prefix/consumer/c_api_test"
