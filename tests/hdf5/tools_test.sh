#!/usr/bin/env bash
# The HDF5 command-line tools writing and reading through the plugin (HDF5_PLUGIN_PATH is set by
# the caller): h5repack compresses a plain file, h5diff finds no difference, h5dump shows the
# filter and the same data as the plain file.
set -euo pipefail
PYTHON=${PYTHON:-/usr/bin/python3}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

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
PY

h5repack -f UD=32910,0,6,1,1,0,0,2,4 plain.h5 packed.h5 || fail "h5repack with the filter"
h5diff plain.h5 packed.h5 || fail "h5diff found differences after compression"

header=$(h5dump -p -H packed.h5)
grep -q "FILTER_ID 32910" <<<"$header" || fail "h5dump shows no filter 32910"
grep -q "COMMENT ZORV MERTAX Compression Filter" <<<"$header" || fail "h5dump shows no filter name"
grep -q "PARAMS { 1 1 126000 0 2 4 }" <<<"$header" || fail "sinogram client data without its chunk size"

# Apart from the file name in the first line, the printed data is the plain file's.
diff <(h5dump -d /sinogram plain.h5 | tail -n +2) <(h5dump -d /sinogram packed.h5 | tail -n +2) ||
    fail "h5dump prints other data through the filter"

plainSize=$(stat -c %s plain.h5)
packedSize=$(stat -c %s packed.h5)
[ "$packedSize" -lt $((plainSize / 3)) ] || fail "packed file $packedSize bytes, plain $plainSize"

# Reading through the filter to write another filter's file.
h5repack -f GZIP=1 packed.h5 gzip.h5 || fail "h5repack from the filter to gzip"
h5diff plain.h5 gzip.h5 || fail "h5diff found differences after recompression"
echo "tools test passed: plain $plainSize bytes, packed $packedSize bytes"
