#!/usr/bin/env bash
# Parallel writes through the plugin under mpirun with two ranks, from C (the MPI build of HDF5)
# and from h5py's MPI build; then serial h5py, in the same build of the plugin, reads both files.
# Arguments: the C test program and the folder of the test scripts.
set -euo pipefail
program=$1
scripts=$2
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
mpi=(mpirun -np 2 --oversubscribe)
[ "$(id -u)" -eq 0 ] && mpi+=(--allow-run-as-root)
# Open MPI's shared-memory transport needs a writable session folder; a private one avoids stale ones.
export OMPI_MCA_btl=self,tcp OMPI_MCA_orte_tmpdir_base="$dir"

"${mpi[@]}" "$program" "$dir/c.h5"
"${mpi[@]}" /usr/bin/python3 "$scripts/h5py_mpi_write.py" "$dir/py.h5"

/usr/bin/python3 - "$dir" <<'PY'
import sys
import h5py
import numpy as np
d = sys.argv[1]
with h5py.File(f"{d}/c.h5", "r") as f:
    counts = f["counts"][...]
    assert counts.shape == (80, 3000) and counts.dtype == np.uint16
    assert f["counts"].id.get_create_plist().get_filter_by_id(32910)[1] == (1, 1, 40000, 0, 2, 4)
with h5py.File(f"{d}/py.h5", "r") as f:
    singles = f["singles"][...]
    grid = np.add.outer(np.arange(64, dtype=np.uint64) * 31, np.arange(2500, dtype=np.uint64))
    np.testing.assert_array_equal(singles, np.where(grid % 9 == 0, grid % 200, 0).astype("u4"))
print("serial h5py read both files")
PY
