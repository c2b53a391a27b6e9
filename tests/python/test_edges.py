"""Every Python entry point at its edges: damaged and crafted streams, files with edited client
data, the fill value, read-only files and values out of range. Each case is one that a user or an
attacker can meet, and each must end in exact data or a clear exception, never in wrong data, a
crash or an allocation the input cannot justify."""
import struct
import subprocess
import sys

import h5py
import numpy as np
import pytest

import mertax
import mertax.numcodecs


def counts(dtype, shape, seed=1):
    return np.random.default_rng(seed).poisson(0.7, shape).astype(dtype)


def segment(word_fields, body=b""):
    """A segment header word from its fields, then body; compSegSize is the total length."""
    std, map_code, mode, seg_size = word_fields
    payload = (b"" if std else struct.pack("<H", seg_size)) + body
    length = 4 + len(payload)
    word = std | map_code << 1 | mode << 2 | length << 19
    return struct.pack("<I", word) + payload


def stored_segment(data, mode):
    return segment((0, 0, mode, len(data)), data + b"\0" * (-(len(data) + 6) % 4))


# Streams that the checked expansion must refuse, with the words its message must contain.
CRAFTED = [
    (segment((0, 1, 0, 0xFFFF), b"\0\0"), "claims 65535 bytes"),        # more than a segment holds
    (segment((0, 0, 0, 0), b"\0\0"), "claims 0 bytes"),                 # an empty segment
    (segment((0, 0, 1, 3), b"abc\0\0\0"), "claims 3 bytes of 16-bit"),  # a partial cell
    (stored_segment(b"x" * 8, 0) + b"\0\0\0", "too short or runs past"),  # bytes after the stream
    (stored_segment(b"x" * 8, 0)[:-4], "too short or runs past"),       # cut short
]


@pytest.mark.parametrize("blob, words", CRAFTED, ids=["widened", "empty", "partial-cell", "trailing", "cut"])
def test_crafted_streams_are_refused_before_anything_is_allocated(blob, words):
    with pytest.raises(ValueError, match=words):
        mertax.decompress(blob, np.uint8)
    with pytest.raises(ValueError, match=words):
        mertax.numcodecs.Mertax(cell_bytes=1).decode(blob, out=np.empty(65535, np.uint8))


def test_the_compiled_module_refuses_buffers_that_are_not_contiguous():
    strided = memoryview(np.arange(40, dtype="u1"))[::2]
    every_other_row = np.arange(40, dtype="u1").reshape(4, 10)[::2]
    for buffer in (strided, every_other_row):
        with pytest.raises(ValueError, match="C-contiguous"):
            mertax._mertax.compress(buffer, 1, 4)
    blob = mertax.compress(np.arange(20, dtype="u1"))
    with pytest.raises(ValueError, match="C-contiguous"):
        mertax._mertax.decompress_into(blob, 1, memoryview(bytearray(40))[::2])


def test_cells_of_another_width_are_refused():
    blob = mertax.compress(counts("u4", 1000))
    with pytest.raises(ValueError, match="holds 32-bit cells, not 16-bit ones"):
        mertax.decompress(blob, np.uint16)
    with pytest.raises(ValueError, match="holds 32-bit cells, not 64-bit ones"):
        mertax.numcodecs.Mertax(cell_bytes=8).decode(blob)
    # Without a width, numcodecs takes the stream's own.
    np.testing.assert_array_equal(mertax.numcodecs.Mertax().decode(blob).view("u4"), counts("u4", 1000))


def test_a_shape_or_an_out_that_does_not_match_is_refused_first():
    blob = mertax.compress(counts("u2", 4096))
    with pytest.raises(ValueError, match="4096 cells, not shape"):
        mertax.decompress(blob, np.uint16, (10**12,))
    with pytest.raises(ValueError, match="not the 10 of out"):
        mertax.numcodecs.Mertax(cell_bytes=2).decode(blob, out=np.empty(10, np.uint8))
    out = np.empty(4096, np.uint16)
    assert mertax.numcodecs.Mertax(cell_bytes=2).decode(blob, out=out) is out
    np.testing.assert_array_equal(out, counts("u2", 4096))


def test_damage_inside_a_segment_raises_and_never_returns_partial_data():
    blob = bytearray(mertax.compress(counts("u2", 20000)))
    # The map of the last segment runs out: the headers still add up, the decoding does not.
    offsets = []
    pos = 0
    while pos < len(blob):
        offsets.append(pos)
        pos += struct.unpack_from("<I", blob, pos)[0] >> 19
    last = offsets[-1]
    # The last segment loses the end of its map; its header is made to agree.
    word = struct.unpack_from("<I", blob, last)[0]
    struct.pack_into("<I", blob, last, word - (8 << 19))
    del blob[-8:]
    with pytest.raises(ValueError, match=f"segment {len(offsets) - 1} at byte offset {last}"):
        mertax.decompress(bytes(blob), np.uint16)


def patch_words(path, old, new):
    """Replaces the client data `old` by `new` in the file's bytes (both as little-endian words)."""
    raw = bytearray(path.read_bytes())
    old_bytes, new_bytes = struct.pack("<6I", *old), struct.pack("<6I", *new)
    at = raw.find(old_bytes)
    assert at >= 0 and raw.find(old_bytes, at + 1) < 0
    raw[at:at + len(old_bytes)] = new_bytes
    path.write_bytes(bytes(raw))


def test_a_file_whose_chunk_size_word_was_edited_fails_the_read(tmp_path):
    path = tmp_path / "edited.h5"
    data = counts("u2", (4, 16384))
    with h5py.File(path, "w") as f:
        f.create_dataset("d", data=data, chunks=(1, 16384), **mertax.Mertax(level=4))
    patch_words(path, (1, 1, 32768, 0, 2, 4), (1, 1, 16384, 0, 2, 4))
    with h5py.File(path, "r") as f:
        with pytest.raises(OSError, match="the data expands to 32768 bytes, not 16384"):
            f["d"][...]
        # Chunk I/O sizes chunks by the dataset's shape, not by the edited word.
        np.testing.assert_array_equal(mertax.read_direct(f["d"]), data)


def run_python(code):
    return subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, timeout=120)


@pytest.mark.parametrize("cd, words", [
    ((1, 2, 0, 0, 0, 4), "encode version must be 1, not 2"),
    ((1, 1, 0, 0, 0, 255), "compressLevel must be 0 to 9, not 255"),
    ((1, 1, 0, 0, 3, 4), "cellBytes must be 1, 2, 4 or 8, not 3"),
])
def test_set_local_refuses_what_could_never_be_read_back(tmp_path, cd, words):
    # A mandatory filter from the low-level interface, in a process of its own: a refusal must
    # raise, and the process must close the file and exit cleanly.
    code = f"""
import h5py, mertax
f = h5py.File({str(tmp_path / 'x.h5')!r}, "w")
dcpl = h5py.h5p.create(h5py.h5p.DATASET_CREATE)
dcpl.set_chunk((100,))
dcpl.set_filter(mertax.FILTER_ID, h5py.h5z.FLAG_MANDATORY, {cd!r})
try:
    h5py.h5d.create(f.id, b"d", h5py.h5t.STD_U16LE, h5py.h5s.create_simple((100,)), dcpl=dcpl)
except Exception as e:
    print("refused:", e)
f.close()
"""
    result = run_python(code)
    assert result.returncode == 0, result.stderr
    assert "refused:" in result.stdout
    assert words in result.stdout + result.stderr


def test_threaded_io_follows_the_fill_value(tmp_path):
    with h5py.File(tmp_path / "fill.h5", "w") as f:
        d = f.create_dataset("d", shape=(50, 300), dtype="u2", chunks=(16, 128), fillvalue=999,
                             maxshape=(None, None), **mertax.Mertax(level=4))
        d[16:32, 128:256] = counts("u2", (16, 128))
        expected = d[...]
        np.testing.assert_array_equal(mertax.read_direct(d, threads=2), expected)

        t = f.create_dataset("t", shape=(50, 300), dtype="u2", chunks=(16, 128), fillvalue=999,
                             maxshape=(None, None), **mertax.Mertax(level=4))
        mertax.write_direct(t, counts("u2", (50, 300)), threads=2)
        t.resize((64, 384))  # the cells added come from the edge chunks' padding
        assert (t[50:, :] == 999).all() and (t[:, 300:] == 999).all()


def test_write_direct_refuses_values_it_would_change(tmp_path):
    with h5py.File(tmp_path / "range.h5", "w") as f:
        d = f.create_dataset("d", shape=(4, 100), dtype="u2", chunks=(2, 100), **mertax.Mertax())
        for bad in (np.full((4, 100), -5), np.full((4, 100), 70000), np.full((4, 100), 1.5)):
            with pytest.raises(ValueError, match="cannot hold exactly"):
                mertax.write_direct(d, bad)
        mertax.write_direct(d, np.full((4, 100), 7, dtype=np.int64))  # exact: converted
        assert (d[...] == 7).all()


def test_write_direct_to_a_read_only_file_raises_and_the_process_survives(tmp_path):
    path = tmp_path / "ro.h5"
    with h5py.File(path, "w") as f:
        f.create_dataset("d", shape=(4, 100), dtype="u2", chunks=(2, 100), **mertax.Mertax())
    code = f"""
import h5py, numpy as np, mertax
with h5py.File({str(path)!r}, "r") as f:
    try:
        mertax.write_direct(f["d"], np.zeros((4, 100), "u2"))
    except OSError as e:
        print("refused:", e)
"""
    result = run_python(code)
    assert result.returncode == 0, result.stderr
    assert "is open read-only" in result.stdout


def test_read_direct_and_the_filter_agree_on_trailing_bytes(tmp_path):
    with h5py.File(tmp_path / "tail.h5", "w") as f:
        d = f.create_dataset("d", shape=(1000,), dtype="u2", chunks=(1000,), **mertax.Mertax())
        mertax.write_direct(d, counts("u2", 1000))
        _, blob = d.id.read_direct_chunk((0,))
        d.id.write_direct_chunk((0,), bytes(blob) + b"\0" * 8, 0)
        with pytest.raises(OSError, match="too short or runs past"):
            d[...]
        with pytest.raises(ValueError, match="too short or runs past"):
            mertax.read_direct(d)


@pytest.mark.parametrize("make, words", [
    (lambda: mertax.Mertax(level=10), "level must be 0 to 9, not 10"),
    (lambda: mertax.Mertax(level=-1), "level must be 0 to 9, not -1"),
    (lambda: mertax.Mertax(cell_bytes=3), "cell_bytes must be 0, 1, 2, 4 or 8, not 3"),
    (lambda: mertax.numcodecs.Mertax(level=10), "level must be 0 to 9, not 10"),
    (lambda: mertax.numcodecs.Mertax(cell_bytes=16), "cell_bytes must be 1, 2, 4 or 8, not 16"),
])
def test_helpers_refuse_what_the_filter_refuses(make, words):
    with pytest.raises(ValueError, match=words):
        make()


def test_helpers_default_to_level_4_and_the_dataset_cell_width():
    assert tuple(mertax.Mertax().filter_options) == (1, 1, 0, 0, 0, 4)
    assert mertax.numcodecs.Mertax().get_config() == {"id": "mertax", "level": 4, "cell_bytes": None}
    data = counts("u2", 5000)
    assert mertax.compress(data) == mertax.compress(data, level=4)
