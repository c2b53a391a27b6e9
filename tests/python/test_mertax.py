"""The Python package: the codec on NumPy arrays, the h5py helper, the numcodecs codec with Zarr,
and use from several threads. Runs with the package on PYTHONPATH and no HDF5_PLUGIN_PATH."""
import concurrent.futures
import os
import subprocess
import sys

import h5py
import numpy as np
import pytest
import zarr

import mertax
import mertax.numcodecs

LEVELS = (0, 4, 8, 9)
UNSIGNED = ("u1", "u2", "u4", "u8")


def detector_like(dtype, shape, seed=3):
    """Low counts with a few saturated cells, as detector raw data looks."""
    rng = np.random.default_rng(seed)
    data = rng.poisson(0.6, shape).astype(dtype)
    data.reshape(-1)[::97] = np.iinfo(dtype).max
    return data


def filter_chunk(tmp_path, array, level):
    """The bytes that the HDF5 filter stores for `array` written as one chunk."""
    path = tmp_path / "one_chunk.h5"
    with h5py.File(path, "w") as f:
        d = f.create_dataset("d", data=array, chunks=array.shape, **mertax.Mertax(level=level))
        _, chunk = d.id.read_direct_chunk((0,) * array.ndim)
    return bytes(chunk)


@pytest.mark.parametrize("dtype", UNSIGNED)
@pytest.mark.parametrize("level", LEVELS)
def test_round_trip_equals_the_filters_chunk(tmp_path, dtype, level):
    array = detector_like(dtype, (37, 211))
    blob = mertax.compress(array, level=level)
    assert blob == filter_chunk(tmp_path, array, level)
    np.testing.assert_array_equal(mertax.decompress(blob, dtype, array.shape), array)
    np.testing.assert_array_equal(mertax.decompress(blob, dtype), array.reshape(-1))


@pytest.mark.parametrize("level", LEVELS)
def test_16_bit_cells_that_fit_in_bytes_are_coded_as_the_filter_codes_them(tmp_path, level):
    array = np.random.default_rng(5).poisson(3, (40, 300)).astype("u2")  # byte segments of 8192 bytes
    assert mertax.compress(array, level=level) == filter_chunk(tmp_path, array, level)


def test_the_default_level_is_4():
    array = np.random.default_rng(2).poisson(3, 40000).astype("u2") + 0x1230  # the hint moves with the level
    assert mertax.compress(array) == mertax.compress(array, level=4) != mertax.compress(array, level=5)


def test_any_dtype_of_a_cell_width_is_raw_cells_and_others_are_refused():
    floats = np.linspace(0, 1, 1000, dtype="f4")
    np.testing.assert_array_equal(mertax.decompress(mertax.compress(floats), "f4"), floats)
    strided = detector_like("u2", (40, 60))[::3, ::2]  # not contiguous: copied
    np.testing.assert_array_equal(mertax.decompress(mertax.compress(strided), "u2", strided.shape), strided)
    for bad in (np.zeros(4, dtype="c16"), np.zeros(4, dtype=object), np.zeros(4, dtype="S3")):
        with pytest.raises(TypeError):
            mertax.compress(bad)
    with pytest.raises(TypeError):
        mertax.decompress(b"", "c16")
    with pytest.raises(ValueError, match="level"):
        mertax.compress(floats, level=10)
    assert mertax.compress(np.zeros(0, "u2")) == b""


def test_damaged_stream_raises_value_error_with_the_reason():
    array = detector_like("u2", 20000)
    blob = mertax.compress(array)
    with pytest.raises(ValueError, match=r"damaged data: segment \d+ at byte offset \d+ has a length"):
        mertax.decompress(blob[:-4], "u2")
    flipped = bytearray(blob)
    flipped[3] ^= 0x80
    with pytest.raises(ValueError, match=r"damaged data: segment \d+ at byte offset \d+"):
        mertax.decompress(bytes(flipped), "u2")
    with pytest.raises(ValueError, match="not shape"):
        mertax.decompress(blob, "u2", (3, 7))


@pytest.mark.parametrize("dtype", UNSIGNED + ("i1", "i2", "i4", "i8"))
def test_h5py_helper_writes_what_plain_h5py_reads(tmp_path, dtype):
    path = tmp_path / f"{dtype}.h5"
    array = detector_like(dtype.replace("i", "u"), (50, 300)).astype(dtype)
    with h5py.File(path, "w") as f:
        f.create_dataset("a", data=array, chunks=(16, 128), compression=mertax.Mertax(level=9))
        f.create_dataset("b", data=array, chunks=(50, 300), **mertax.Mertax(level=4))
        _, cd, _ = f["a"].id.get_create_plist().get_filter_by_id(mertax.FILTER_ID)
        assert cd == (1, 1, 16 * 128 * array.itemsize, 0, array.itemsize, 9)
    # Another process with plain h5py and the plugin's folder, which never imports mertax.
    reader = ("import sys, h5py, numpy as np; f = h5py.File(sys.argv[1], 'r'); "
              "np.save(sys.stdout.buffer, f['a'][...]); np.save(sys.stdout.buffer, f['b'][...])")
    env = {k: v for k, v in os.environ.items() if k != "PYTHONPATH"}
    env["HDF5_PLUGIN_PATH"] = mertax.PLUGIN_PATH
    out = subprocess.run([sys.executable, "-c", reader, str(path)], env=env, check=True,
                         capture_output=True).stdout
    import io
    stream = io.BytesIO(out)
    for _ in "ab":
        np.testing.assert_array_equal(np.load(stream), array)


def test_import_makes_the_filter_available_without_a_plugin_path():
    assert "HDF5_PLUGIN_PATH" not in os.environ
    assert h5py.h5z.filter_avail(mertax.FILTER_ID)
    assert os.path.exists(os.path.join(mertax.PLUGIN_PATH, "libmertax.so"))


@pytest.mark.parametrize("dtype", UNSIGNED)
def test_zarr_array_written_and_reopened(tmp_path, dtype):
    array = detector_like(dtype, (64, 500))
    array[:, :250] %= 200  # chunks of small 16-bit values are coded as bytes
    store = str(tmp_path / "array.zarr")
    z = zarr.open(store, mode="w", shape=array.shape, chunks=(32, 250), dtype=dtype,
                  compressor=mertax.numcodecs.Mertax(level=4))
    z[...] = array
    reopened = zarr.open(store, mode="r")
    assert reopened.compressor.codec_id == "mertax"
    np.testing.assert_array_equal(reopened[...], array)
    np.testing.assert_array_equal(reopened[5:40, 200:300], array[5:40, 200:300])


def test_numcodecs_config_round_trip_and_decode_into_out():
    import numcodecs
    codec = mertax.numcodecs.Mertax(level=8, cell_bytes=2)
    array = detector_like("u2", 5000)
    encoded = codec.encode(array)
    assert encoded == mertax.compress(array, level=8)
    assert codec.get_config() == {"id": "mertax", "level": 8, "cell_bytes": 2}
    again = numcodecs.get_codec(codec.get_config())
    assert isinstance(again, mertax.numcodecs.Mertax) and again.get_config() == codec.get_config()
    np.testing.assert_array_equal(np.frombuffer(again.decode(encoded), "u2"), array)
    out = np.empty_like(array)
    again.decode(encoded, out=out)
    np.testing.assert_array_equal(out, array)
    # Without a configured width, small 16-bit values stay 16-bit in the stream and come back so.
    small = array % 100
    free = mertax.numcodecs.Mertax(level=8)
    encoded = free.encode(small)
    assert free.get_config()["cell_bytes"] is None
    np.testing.assert_array_equal(np.frombuffer(mertax.numcodecs.Mertax().decode(encoded), "u2"), small)
    np.testing.assert_array_equal(mertax.decompress(encoded, "u2"), small)


def test_codec_from_several_threads_at_once():
    arrays = [detector_like(dtype, 30000, seed) for seed, dtype in enumerate(UNSIGNED * 6)]
    serial = [mertax.compress(a, level=9) for a in arrays]
    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        blobs = list(pool.map(lambda a: mertax.compress(a, level=9), arrays))
        back = list(pool.map(lambda ab: mertax.decompress(ab[1], ab[0].dtype), zip(arrays, blobs)))
    assert blobs == serial
    for a, b in zip(arrays, back):
        np.testing.assert_array_equal(a, b)


@pytest.mark.parametrize("level", (3, 9))
def test_threads_inside_the_codec_and_the_filter_give_the_same_bytes(tmp_path, monkeypatch, level):
    array = detector_like("u2", (300, 700))
    blob = mertax.compress(array, level=level)
    assert mertax.compress(array, level=level, threads=3) == blob
    np.testing.assert_array_equal(mertax.decompress(blob, "u2", array.shape, threads=4), array)
    monkeypatch.setenv("MERTAX_NTHREADS", "2")  # read by the plugin for every chunk
    assert filter_chunk(tmp_path, array, level) == blob
    with h5py.File(tmp_path / "one_chunk.h5") as f:
        np.testing.assert_array_equal(f["d"][...], array)
    with pytest.raises(ValueError, match="threads must be 1 or more, not 0"):
        mertax.compress(array, threads=0)


# Run in a fresh process: the threads it has before and after the operation, once on one thread
# and then on two (the pool starts its workers on first use and keeps them).
POOL_PROBE = """
import os, sys, h5py, numpy as np, mertax
a = np.random.default_rng(1).poisson(3, 1 << 19).astype("u2")  # one chunk of 1 MiB
blob = mertax.compress(a)
with h5py.File(sys.argv[1], "w") as f:
    f.create_dataset("d", data=a, chunks=a.shape, **mertax.Mertax())
def run(threads):
    os.environ["MERTAX_NTHREADS"] = str(threads)
    before = len(os.listdir("/proc/self/task"))
    OPERATION
    return len(os.listdir("/proc/self/task")) - before
print(run(1), run(2))
"""


@pytest.mark.skipif(not os.path.isdir("/proc/self/task"), reason="threads counted in /proc")
@pytest.mark.parametrize("operation", (
    "mertax.compress(a, threads=threads)",
    "mertax.decompress(blob, 'u2', threads=threads)",
    "h5py.File(sys.argv[1], 'a').create_dataset(f'w{threads}', data=a, chunks=a.shape, **mertax.Mertax())",
    "h5py.File(sys.argv[1], 'r')['d'][...]",
))
def test_a_thread_count_above_one_reaches_the_pool(tmp_path, operation):
    # Two threads give the same bytes as one, so only the threads the process has can tell that a
    # count was passed on and not dropped on the way: one worker beside the calling thread.
    script = POOL_PROBE.replace("OPERATION", operation)
    result = subprocess.run([sys.executable, "-c", script, str(tmp_path / "probe.h5")], capture_output=True,
                            text=True, check=True)
    assert result.stdout.split() == ["0", "1"], result.stderr


@pytest.mark.skipif(not hasattr(os, "fork"), reason="no fork on this platform")
def test_a_forked_child_gets_a_pool_of_its_own():
    array = detector_like("u4", 200000)
    blob = mertax.compress(array, threads=2)  # the parent's pool is running
    pid = os.fork()
    if pid == 0:
        ok = mertax.compress(array, threads=2) == blob and (mertax.decompress(blob, "u4", threads=2) == array).all()
        os._exit(0 if ok else 1)
    _, status = os.waitpid(pid, 0)
    assert os.waitstatus_to_exitcode(status) == 0


@pytest.mark.parametrize("threads", (1, 2, 5))
def test_threaded_direct_chunk_io_matches_the_filter_pipeline(tmp_path, threads):
    path = tmp_path / "direct.h5"
    # Partial edge chunks in both dimensions; 16 segments a chunk and counts near a level, so that
    # the bias hint changes within a chunk and the level's hint period shows in the bytes.
    array = np.random.default_rng(2).poisson(3, (45, 4500)).astype("u2") + 0x1230
    with h5py.File(path, "w") as f:
        piped = f.create_dataset("pipeline", data=array, chunks=(16, 2048), **mertax.Mertax(level=6))
        direct = f.create_dataset("direct", shape=array.shape, dtype=array.dtype, chunks=(16, 2048),
                                  **mertax.Mertax(level=6))
        mertax.write_direct(direct, array, threads=threads)
        for origin in ((0, 0), (32, 4096), (16, 2048)):
            assert direct.id.read_direct_chunk(origin) == piped.id.read_direct_chunk(origin)
        np.testing.assert_array_equal(direct[...], array)
        np.testing.assert_array_equal(mertax.read_direct(piped, threads=threads), array)
    dump = subprocess.run(["h5dump", "-d", "/direct", "-s", "44,4499", "-c", "1,1", str(path)], check=True,
                          capture_output=True, env={**os.environ, "HDF5_PLUGIN_PATH": mertax.PLUGIN_PATH}).stdout
    assert f"(44,4499): {array[44, 4499]}".encode() in dump


def test_threaded_direct_chunk_io_refuses_and_reports(tmp_path):
    with h5py.File(tmp_path / "bad.h5", "w") as f:
        gzip = f.create_dataset("gzip", shape=(100,), dtype="u2", chunks=(10,), compression="gzip")
        with pytest.raises(ValueError, match="not chunked with filter 32910"):
            mertax.write_direct(gzip, np.zeros(100, "u2"))
        d = f.create_dataset("d", shape=(20000,), dtype="u2", chunks=(10000,), **mertax.Mertax())
        mertax.write_direct(d, detector_like("u2", 20000))
        _, blob = d.id.read_direct_chunk((10000,))
        d.id.write_direct_chunk((10000,), blob[:-8])
        with pytest.raises(ValueError, match="damaged data: segment"):
            mertax.read_direct(d, threads=2)
        empty = f.create_dataset("empty", shape=(30,), dtype="u4", chunks=(10,), **mertax.Mertax())
        np.testing.assert_array_equal(mertax.read_direct(empty), np.zeros(30, "u4"))
        # A chunk HDF5 stored with the filter skipped (filter mask 1) holds its cells as they are.
        raw = f.create_dataset("raw", shape=(20,), dtype="u2", chunks=(10,), **mertax.Mertax())
        raw.id.write_direct_chunk((0,), np.arange(10, dtype="u2").tobytes(), 1)
        np.testing.assert_array_equal(mertax.read_direct(raw), np.r_[np.arange(10), np.zeros(10)])
        raw.id.write_direct_chunk((10,), b"\0" * 18, 1)
        with pytest.raises(ValueError, match=r"chunk at \(10,\) is stored unfiltered with 18 bytes, not 20"):
            mertax.read_direct(raw)
