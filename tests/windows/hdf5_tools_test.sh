#!/usr/bin/env bash
# HDF5's own Windows tools under wine, with the Windows plugin: h5repack compresses a plain file,
# h5diff finds no difference, h5dump shows the filter and the plain file's data. With the host
# build's plugin folder (fourth argument), files also cross: the host's h5py reads what Windows
# wrote, and Windows reads what the host wrote.
# Arguments: the emulator, the Windows HDF5's bin folder, the Windows plugin folder[, host plugins].
set -euo pipefail
wine=$1
hdf5bin=$2
plugin=$3
hostPlugin=${4:-}
PYTHON=${PYTHON:-/usr/bin/python3}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
export WINEDEBUG=-all WINEPATH="$hdf5bin" HDF5_PLUGIN_PATH="$plugin"
win() { "$wine" "$hdf5bin/$1.exe" "${@:2}"; }

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
    f["singles"] = (rng.poisson(30, (64, 500)) + 70000).astype("u4")
PY

win h5repack -f UD=32910,0,6,1,1,0,0,2,4 plain.h5 packed.h5 || fail "h5repack with the filter"
win h5diff plain.h5 packed.h5 || fail "h5diff found differences after compression"
header=$(win h5dump -p -H packed.h5)
grep -q "FILTER_ID 32910" <<<"$header" || fail "h5dump shows no filter 32910"
grep -q "PARAMS { 1 1 126000 0 2 4 }" <<<"$header" || fail "sinogram client data without its chunk size"
diff <(win h5dump -d /singles plain.h5 | tail -n +2) <(win h5dump -d /singles packed.h5 | tail -n +2) ||
    fail "h5dump prints other data through the filter"
[ "$(stat -c %s packed.h5)" -lt $(($(stat -c %s plain.h5) / 2)) ] || fail "packed file $(stat -c %s packed.h5) bytes, plain $(stat -c %s plain.h5)"

if [ -n "$hostPlugin" ]; then
    HDF5_PLUGIN_PATH="$hostPlugin" "$PYTHON" - <<'PY' || fail "the host reads the file Windows wrote"
import h5py
import numpy as np

with h5py.File("plain.h5", "r") as p, h5py.File("packed.h5", "r") as q:
    for name in ("sinogram", "singles"):
        assert q[name].id.get_create_plist().get_filter(0)[0] == 32910, name
        np.testing.assert_array_equal(p[name][...], q[name][...])
with h5py.File("from_host.h5", "w") as f, h5py.File("plain.h5", "r") as p:
    for name in ("sinogram", "singles"):
        f.create_dataset(name, data=p[name][...], chunks=(16, 100), compression=32910,
                         compression_opts=(1, 1, 0, 0, p[name].dtype.itemsize, 4))
PY
    win h5diff plain.h5 from_host.h5 || fail "Windows reads the file the host wrote"
fi
echo "HDF5 tools under wine: all checks passed"
