"""The installed wheel, used as a user would: each check in a fresh interpreter, so that what one
imported cannot help another."""
import subprocess
import sys

import numpy as np
import pytest

ARRAY = "np.arange(60000, dtype='u2').reshape(200, 300) % 37"


def python(code, cwd):
    result = subprocess.run([sys.executable, "-c", "import numpy as np\n" + code], cwd=cwd,
                            capture_output=True, text=True, timeout=300)
    assert result.returncode == 0, result.stderr
    return result.stdout


@pytest.fixture(scope="module")
def files(tmp_path_factory):
    folder = tmp_path_factory.mktemp("files")
    python(f"""
import h5py, mertax, zarr, mertax.numcodecs
a = {ARRAY}
with h5py.File('counts.h5', 'w') as f:
    f.create_dataset('counts', data=a, chunks=(50, 300), **mertax.Mertax(level=4))
z = zarr.open('counts.zarr', mode='w', shape=a.shape, chunks=(50, 300), dtype=a.dtype,
              compressor=mertax.numcodecs.Mertax(level=4))
z[...] = a
assert mertax.__file__.startswith(__import__('sys').prefix), mertax.__file__
""", folder)
    return folder


def test_h5py_reads_after_import_without_a_plugin_path(files):
    assert python(f"import h5py, mertax; print(int((h5py.File('counts.h5')['counts'][...] == {ARRAY}).all()))",
                  files) == "1\n"


def test_zarr_opens_the_array_without_importing_mertax(files):
    code = f"import sys, zarr; z = zarr.open('counts.zarr', 'r'); print(int((z[...] == {ARRAY}).all()), 'mertax' in sys.modules)"
    assert python(code, files) == "1 True\n"  # the entry point imported it


def test_a_dask_cluster_computes_over_zarr_and_hdf5(files):
    code = f"""
import dask.array as da
from distributed import Client, LocalCluster
expected = int(({ARRAY}).sum())
def hdf5_block(start):
    import h5py, mertax  # the workers' import makes the filter available there
    with h5py.File('counts.h5', 'r') as f:
        return f['counts'][start:start + 50]
if __name__ == '__main__':
    with LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None) as cluster, \\
            Client(cluster) as client:
        print(int(da.from_zarr('counts.zarr').sum().compute()) == expected)
        blocks = client.gather(client.map(hdf5_block, range(0, 200, 50)))
        print(int(sum(int(b.sum()) for b in blocks)) == expected)
"""
    (files / "cluster.py").write_text("import numpy as np\n" + code)
    result = subprocess.run([sys.executable, "cluster.py"], cwd=files, capture_output=True, text=True, timeout=300)
    assert result.stdout == "True\nTrue\n", result.stderr
