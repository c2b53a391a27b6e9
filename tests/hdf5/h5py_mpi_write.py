"""Run under mpirun: h5py's MPI build writes a filtered dataset collectively, a slab per rank,
and every rank reads all of it back. Argument: the file to write."""
import sys

import h5py
import numpy as np
from mpi4py import MPI

ROWS_PER_RANK, COLS = 32, 2500


def expected(rows):
    grid = np.add.outer(np.arange(rows, dtype=np.uint64) * 31, np.arange(COLS, dtype=np.uint64))
    return np.where(grid % 9 == 0, grid % 200, 0).astype("u4")


def main(path):
    comm = MPI.COMM_WORLD
    rank, size = comm.Get_rank(), comm.Get_size()
    assert h5py.get_config().mpi, "h5py without MPI"
    data = expected(size * ROWS_PER_RANK)
    with h5py.File(path, "w", driver="mpio", comm=comm) as f:
        dset = f.create_dataset("singles", shape=data.shape, dtype="u4", chunks=(16, 1250),
                                compression=32910, compression_opts=(1, 1, 0, 0, 0, 9))
        rows = slice(rank * ROWS_PER_RANK, (rank + 1) * ROWS_PER_RANK)
        with dset.collective:
            dset[rows] = data[rows]
    with h5py.File(path, "r", driver="mpio", comm=comm) as f:
        np.testing.assert_array_equal(f["singles"][...], data)
        _, cd, _ = f["singles"].id.get_create_plist().get_filter_by_id(32910)
        assert cd == (1, 1, 16 * 1250 * 4, 0, 4, 9), cd


if __name__ == "__main__":
    main(sys.argv[1])
