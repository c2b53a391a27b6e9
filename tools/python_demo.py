"""The Python side of the demo: the codec on a NumPy array, and an h5py dataset written with the
filter helper and read back, with no HDF5_PLUGIN_PATH (importing mertax makes the filter available).
Run with the build's package on the path: PYTHONPATH=build/python /usr/bin/python3 tools/python_demo.py FILE"""
import sys

import h5py
import numpy as np

import mertax

path = sys.argv[1]
rng = np.random.default_rng(7)
sinogram = rng.poisson(0.4, (16, 128, 4096)).astype(np.uint16)

blob = mertax.compress(sinogram, level=4)
assert np.array_equal(mertax.decompress(blob, sinogram.dtype, sinogram.shape), sinogram)
print(f"mertax {mertax.__version__}: {sinogram.nbytes} bytes of u16 counts -> {len(blob)} bytes "
      f"(ratio {sinogram.nbytes / len(blob):.2f}) and back")

with h5py.File(path, "w") as f:
    f.create_dataset("sinogram", data=sinogram, chunks=(1, 128, 4096), **mertax.Mertax(level=4))
    direct = f.create_dataset("sinogram_threads", shape=sinogram.shape, dtype=sinogram.dtype,
                              chunks=(1, 128, 4096), **mertax.Mertax(level=4))
    mertax.write_direct(direct, sinogram)
with h5py.File(path, "r") as f:
    assert np.array_equal(f["sinogram"][...], sinogram)
    assert np.array_equal(mertax.read_direct(f["sinogram_threads"]), sinogram)
    _, cd, _ = f["sinogram"].id.get_create_plist().get_filter_by_id(mertax.FILTER_ID)
    print(f"h5py wrote and read {path} through filter {mertax.FILTER_ID}, client data {cd}; "
          f"stored {f['sinogram'].id.get_storage_size()} bytes; the threaded copy is identical")
