#!/usr/bin/env bash
# A file crosses between this machine and ARM64: x86-64 h5repack with the x86-64 plugin and arm64
# h5repack (Debian's, under qemu) with the arm64 plugin pack the same file; both files hold the
# same chunk bytes, and each side's h5dump reads the other's file back to the original values.
#   cross_arch_test.sh SYSROOT ARM64_PLUGIN_DIR HOST_PLUGIN_DIR
set -euo pipefail
sysroot=$1 arm_plugins=$2 host_plugins=$3
arm() { HDF5_PLUGIN_PATH=$arm_plugins qemu-aarch64-static -L "$sysroot" "$sysroot/usr/bin/$1" "${@:2}"; }
host() { HDF5_PLUGIN_PATH=$host_plugins "$@"; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

/usr/bin/python3 - <<'PY'
import h5py, numpy as np
rng = np.random.default_rng(5)
with h5py.File("plain.h5", "w") as f:
    for dtype in ("u1", "u2", "u4", "u8"):
        counts = rng.poisson(0.7, (96, 1500)).astype(dtype)
        counts[::7, ::13] = np.iinfo(dtype).max
        f.create_dataset(dtype, data=counts, chunks=(32, 1500))
PY
filter=UD=32910,0,6,1,1,0,0,0,4
host h5repack -f "$filter" plain.h5 x86.h5
arm h5repack -f "$filter" plain.h5 arm.h5

/usr/bin/python3 - <<'PY'
import h5py
with h5py.File("x86.h5") as a, h5py.File("arm.h5") as b:
    for name in a:
        for f in (a, b):
            assert f[name].id.get_create_plist().get_filter(0)[0] == 32910, name
        for i in range(3):
            ca = a[name].id.read_direct_chunk((32 * i, 0))
            cb = b[name].id.read_direct_chunk((32 * i, 0))
            assert ca == cb, f"{name} chunk {i}: the two architectures wrote different bytes"
PY
for ds in u1 u2 u4 u8; do
    host h5dump -d "/$ds" -w 0 plain.h5 | sed 1d >plain.txt
    arm h5dump -d "/$ds" -w 0 x86.h5 | sed 1d >arm_reads_x86.txt
    host h5dump -d "/$ds" -w 0 arm.h5 | sed 1d >x86_reads_arm.txt
    cmp -s plain.txt arm_reads_x86.txt || { echo "arm64 reads $ds differently"; exit 1; }
    cmp -s plain.txt x86_reads_arm.txt || { echo "x86-64 reads $ds differently"; exit 1; }
done
echo "cross-architecture files: identical chunks, each read back on the other side"
