"""Readers of the files other than h5py: xarray (h5netcdf and netcdf4 engines), PyTables and
netCDF-C's ncdump and nccopy. Each reads a mertax-filtered file once it has the plugin (its folder
from `mertax.PLUGIN_PATH`), and writes one where it can; ncdump without the plugin prints the error
the README explains."""
import os
import shutil
import subprocess
import sys

import h5py
import numpy as np
import pytest

import mertax

FILTER_OPTS = (1, 1, 0, 0, 0, 4)


def counts():
    rng = np.random.default_rng(11)
    return rng.poisson(0.8, (40, 700)).astype("u2")


def filter_of(path, name):
    with h5py.File(path) as f:
        plist = f[name].id.get_create_plist()
        return plist.get_filter(0)[0] if plist.get_nfilters() else None


def with_plugin(**extra):
    return dict(os.environ, HDF5_PLUGIN_PATH=mertax.PLUGIN_PATH, **extra)


@pytest.fixture(scope="module")
def xarray_file(tmp_path_factory):
    """A netCDF-4 file written by xarray's h5netcdf engine with the filter."""
    xr = pytest.importorskip("xarray")
    pytest.importorskip("h5netcdf")
    path = tmp_path_factory.mktemp("readers") / "counts.nc"
    ds = xr.Dataset({"counts": (("y", "x"), counts())})
    encoding = {"counts": {"compression": 32910, "compression_opts": FILTER_OPTS, "chunksizes": (16, 700)}}
    ds.to_netcdf(path, engine="h5netcdf", encoding=encoding)
    return path


def test_xarray_h5netcdf_writes_and_reads_the_filter(xarray_file):
    import xarray as xr
    assert filter_of(xarray_file, "counts") == 32910
    with xr.open_dataset(xarray_file, engine="h5netcdf") as ds:
        np.testing.assert_array_equal(ds["counts"].values, counts())


READ_WITH = {
    "xarray-netcdf4": "import xarray as xr; print(int(xr.open_dataset(sys.argv[1], engine='netcdf4')['counts'].values.sum()))",
    "pytables": "import tables; f = tables.open_file(sys.argv[1]); print(int(f.root.counts[:].sum()))",
}


@pytest.mark.parametrize("reader", sorted(READ_WITH))
def test_readers_in_a_process_with_the_plugin_path(xarray_file, reader):
    pytest.importorskip({"xarray-netcdf4": "netCDF4", "pytables": "tables"}[reader])
    code = "import sys; " + READ_WITH[reader]
    run = subprocess.run([sys.executable, "-c", code, str(xarray_file)], env=with_plugin(),
                         capture_output=True, text=True)
    assert run.returncode == 0, run.stderr
    assert int(run.stdout) == int(counts().sum())


needs_netcdf_bin = pytest.mark.skipif(
    shutil.which("ncdump") is None or "asan" in os.environ.get("LD_PRELOAD", ""),
    reason="netCDF-C's tools (netcdf-bin) absent, or a sanitizer build (they hang under its preload, as h5repack does)")


@needs_netcdf_bin
def test_ncdump_reads_with_the_plugin_and_names_the_filter_without_it(xarray_file):
    ok = subprocess.run(["ncdump", "-v", "counts", str(xarray_file)], env=with_plugin(), capture_output=True,
                        text=True)
    assert ok.returncode == 0, ok.stderr
    first_row = ", ".join(str(v) for v in counts()[0, :5])
    assert first_row in ok.stdout.replace("\n ", " ")
    env = dict(os.environ, HDF5_PLUGIN_PATH=os.devnull)
    without = subprocess.run(["ncdump", "-v", "counts", str(xarray_file)], env=env, capture_output=True, text=True)
    assert without.returncode != 0
    assert "Filter error" in without.stderr or "HDF error" in without.stderr, without.stderr


@needs_netcdf_bin
def test_nccopy_adds_the_filter(tmp_path, xarray_file):
    plain, packed = tmp_path / "plain.nc", tmp_path / "packed.nc"
    subprocess.run(["nccopy", "-F", "none", str(xarray_file), str(plain)], env=with_plugin(), check=True)
    assert filter_of(plain, "counts") != 32910
    filter_arg = "counts," + ",".join(str(w) for w in (32910,) + FILTER_OPTS)
    subprocess.run(["nccopy", "-F", filter_arg, str(plain), str(packed)], env=with_plugin(), check=True)
    assert filter_of(packed, "counts") == 32910
    with h5py.File(packed) as f:
        np.testing.assert_array_equal(f["counts"][...], counts())
