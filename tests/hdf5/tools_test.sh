#!/usr/bin/env bash
# The HDF5 command-line tools writing and reading through the plugin (HDF5_PLUGIN_PATH is set by
# the caller): h5repack compresses a plain file, h5diff finds no difference, h5dump shows the
# filter and the plain file's data, and h5repack reads through the filter into gzip.
# Arguments, for HDF5's Windows tools: the emulator, their bin folder[, the host build's plugin
# folder]; with the host's plugins, files also cross: the host's h5py reads what Windows wrote,
# and Windows reads what the host wrote.
set -euo pipefail
emulator=${1:-}
hdf5bin=${2:-}
hostPlugin=${3:-}
PYTHON=${PYTHON:-/usr/bin/python3}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
if [ -n "$emulator" ]; then
    export WINEDEBUG=-all WINEPATH="$hdf5bin"
    tool() { "$emulator" "$hdf5bin/$1.exe" "${@:2}"; }
else
    tool() { "$@"; }
fi

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

"$PYTHON" - <<'PY'
import h5py
import numpy as np

rng = np.random.default_rng(3)
with h5py.File("plain.h5", "w") as f:
    f["sinogram"] = rng.poisson(0.4, (90, 700)).astype("u2")
    f["prompts"] = rng.poisson(12, (50, 333)).astype("u2")
    f["singles"] = (rng.poisson(30, (64, 500)) + 70000).astype("u4")
PY

tool h5repack -f UD=32910,0,6,1,1,0,0,2,4 plain.h5 packed.h5 || fail "h5repack with the filter"
tool h5diff plain.h5 packed.h5 || fail "h5diff found differences after compression"

header=$(tool h5dump -p -H packed.h5)
grep -q "FILTER_ID 32910" <<<"$header" || fail "h5dump shows no filter 32910"
grep -q "COMMENT ZORV MERTAX Compression Filter" <<<"$header" || fail "h5dump shows no filter name"
grep -q "PARAMS { 1 1 126000 0 2 4 }" <<<"$header" || fail "sinogram client data without its chunk size"

# Apart from the file name in the first line, the printed data is the plain file's.
for name in sinogram singles; do
    diff <(tool h5dump -d /$name plain.h5 | tail -n +2) <(tool h5dump -d /$name packed.h5 | tail -n +2) ||
        fail "h5dump prints other data of $name through the filter"
done

plainSize=$(stat -c %s plain.h5)
packedSize=$(stat -c %s packed.h5)
[ "$packedSize" -lt $((plainSize / 2)) ] || fail "packed file $packedSize bytes, plain $plainSize"

# Reading through the filter to write another filter's file (a Windows HDF5 may lack zlib).
if [ -z "$emulator" ]; then
    h5repack -f GZIP=1 packed.h5 gzip.h5 || fail "h5repack from the filter to gzip"
    h5diff plain.h5 gzip.h5 || fail "h5diff found differences after recompression"
fi

if [ -n "$hostPlugin" ]; then
    HDF5_PLUGIN_PATH="$hostPlugin" "$PYTHON" - <<'PY' || fail "the host reads the file Windows wrote"
import h5py
import numpy as np

with h5py.File("plain.h5", "r") as p, h5py.File("packed.h5", "r") as q:
    for name in p:
        assert q[name].id.get_create_plist().get_filter(0)[0] == 32910, name
        np.testing.assert_array_equal(p[name][...], q[name][...])
with h5py.File("from_host.h5", "w") as f, h5py.File("plain.h5", "r") as p:
    for name in p:
        f.create_dataset(name, data=p[name][...], chunks=(16, 100), compression=32910,
                         compression_opts=(1, 1, 0, 0, p[name].dtype.itemsize, 4))
PY
    tool h5diff plain.h5 from_host.h5 || fail "Windows reads the file the host wrote"
fi
echo "tools test passed: plain $plainSize bytes, packed $packedSize bytes"
