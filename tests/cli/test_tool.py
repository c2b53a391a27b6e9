"""The mertax command-line tool, run as users run it. MERTAX_TOOL names the program; the plugin
comes through HDF5_PLUGIN_PATH, except where a test shows that the tool finds it by itself."""
import json
import os
import re
import subprocess

import h5py
import numpy as np
import pytest

TOOL = os.environ["MERTAX_TOOL"]
CELLS = {1: "u1", 2: "u2", 4: "u4", 8: "u8"}


def run(*args, stdin=None, env=None):
    return subprocess.run([TOOL, *map(str, args)], input=stdin, capture_output=True, env=env)


def detector_like(dtype, count, seed=5):
    data = np.random.default_rng(seed).poisson(0.8, count).astype(dtype)
    data[::301] = np.iinfo(dtype).max
    return data


def filter_chunk(path, data, level):
    with h5py.File(path, "w") as f:
        d = f.create_dataset("d", data=data, chunks=data.shape, compression=32910,
                             compression_opts=(1, 1, 0, 0, data.itemsize, level))
        return bytes(d.id.read_direct_chunk((0,))[1])


@pytest.mark.parametrize("cell", CELLS)
@pytest.mark.parametrize("level", (0, 4, 9))
def test_compress_gives_the_filters_bytes_and_expand_gives_the_cells_back(tmp_path, cell, level):
    data = detector_like(CELLS[cell], 30011)
    raw, cmp, back = tmp_path / "in.raw", tmp_path / "out.mtx", tmp_path / "back.raw"
    data.tofile(raw)
    assert run("compress", "--cell", cell, "--level", level, raw, cmp).returncode == 0
    assert cmp.read_bytes() == filter_chunk(tmp_path / "f.h5", data, level)
    assert run("expand", "--cell", cell, cmp, back).returncode == 0
    assert back.read_bytes() == raw.read_bytes()


def test_standard_input_and_output():
    data = detector_like("u2", 5000).tobytes()
    compressed = run("compress", "--cell", 2, "-", "-", stdin=data)
    assert compressed.returncode == 0 and 0 < len(compressed.stdout) < len(data)
    expanded = run("expand", "--cell", 2, "-", "-", stdin=compressed.stdout)
    assert expanded.returncode == 0 and expanded.stdout == data
    for verb in ("compress", "expand"):  # nothing in, nothing out
        empty = run(verb, "--cell", 2, "-", "-", stdin=b"")
        assert (empty.returncode, empty.stdout) == (0, b"")
    partial = run("compress", "--cell", 2, "-", "-", stdin=b"12345")
    assert partial.returncode == 1 and partial.stdout == b""
    assert partial.stderr == b"mertax: - holds 5 bytes, not a whole number of 2-byte cells\n"


def test_damaged_stream_says_where_and_leaves_nothing(tmp_path):
    raw, cmp, out = tmp_path / "in.raw", tmp_path / "in.mtx", tmp_path / "out.raw"
    detector_like("u4", 20000).tofile(raw)
    assert run("compress", "--cell", 4, raw, cmp).returncode == 0
    cmp.write_bytes(cmp.read_bytes()[:-8])
    result = run("expand", "--cell", 4, cmp, out)
    assert result.returncode == 1
    message = result.stderr.decode()
    assert message.count("\n") == 1 and "segment" in message and "byte offset" in message
    assert sorted(tmp_path.iterdir()) == sorted([raw, cmp])


@pytest.mark.parametrize("args, says", [
    (("compress", "--cell", 3, "a", "b"), "--cell: 3 not in {1,2,4,8}"),
    (("expand", "--cell", 2, "/no/such/file", "b"), "cannot open /no/such/file: "),
    (("inspect", "/no/such/file.h5"), "cannot open /no/such/file.h5 as an HDF5 file"),
    (("bench", "--raw", "x"), "bench --raw FILE takes --cell N and no HDF5 file"),
    (("bench", "--raw", "x", "--cell", 5), "--cell: 5 not in"),
    (("bench", "--raw", "x", "--cell", 9), "--cell: 9 not in"),
    (("bench", "--raw", "x", "--cell", 2, "--repeat", 101), "--repeat: Value 101 not in range 1 to 100"),
    (("bench", "--raw", "x", "--cell", 2, "--threads", 1025), "--threads: Value 1025 not in range 1 to 1024"),
    (("bench", "f.h5"), "bench takes FILE.h5 DATASET, or --raw FILE --cell N"),
    (("frobnicate",), "A subcommand is required"),
])
def test_bad_usage_is_one_line_and_status_2(args, says):
    result = run(*args)
    assert result.returncode == 2
    message = result.stderr.decode()
    assert message.startswith("mertax: " + says) and message.count("\n") == 1, message


def test_help_for_the_program_and_each_verb():
    for verb in ((), ("compress",), ("expand",), ("inspect",), ("bench",)):
        result = run(*verb, "--help")
        assert result.returncode == 0 and b"Usage" in result.stdout
    version = run("--version")
    assert version.returncode == 0 and re.fullmatch(rb"\d+\.\d+\.\d+\n", version.stdout)


@pytest.fixture
def h5file(tmp_path):
    path = tmp_path / "data.h5"
    with h5py.File(path, "w") as f:
        for cell, dtype in CELLS.items():
            f.create_dataset(f"counts{8 * cell}", data=detector_like(dtype, (40, 1000)), chunks=(20, 1000),
                             compression=32910, compression_opts=(1, 1, 0, 0, 0, 4))
        f.create_dataset("unfiltered", data=np.arange(10))
    return path


def test_inspect_shows_every_filtered_dataset(h5file):
    result = run("inspect", h5file, "--chunks")
    assert result.returncode == 0
    text = result.stdout.decode()
    for cell in CELLS:
        assert f"/counts{8 * cell}: uint{8 * cell} [40, 1000], chunks [20, 1000]" in text
        assert (f"filter 32910: filter version 1, encode version 1, bufferSize {20000 * cell}, flags 0x00000000, "
                f"cellBytes {cell}, compressLevel 4") in text
    assert "unfiltered" not in text
    assert text.count("  chunk [") == 8


def test_inspect_segments_as_json_add_up(h5file):
    result = run("inspect", h5file, "/counts16", "--segments", "--json")
    assert result.returncode == 0
    (dataset,) = json.loads(result.stdout)["datasets"]
    segments = [s for c in dataset["chunks"] for s in c["segments"]]
    assert sum(s["length"] for s in segments) == dataset["stored_bytes"]
    totals = dataset["segment_totals"]
    assert totals["segments"] == len(segments)
    assert totals["stream_bytes"] == sum(s["stream_bytes"] for s in segments)
    assert all(s["cells"] in ("8-bit", "16-bit") for s in segments)


def test_inspect_reports_each_segments_form_and_fields(tmp_path):
    cells = np.full(2048, 0x12345, "u4")
    cells[5] += 1  # the first segment differs from its minimum in one cell's lowest nibble
    cells[1024:] = np.random.default_rng(1).integers(0, 1 << 32, 1024)  # the second is stored
    path = tmp_path / "known.h5"
    with h5py.File(path, "w") as f:
        f.create_dataset("known", data=cells, compression=32910, compression_opts=(1, 1, 0, 0, 0, 9))
    result = run("inspect", path, "--segments", "--json")
    (dataset,) = json.loads(result.stdout)["datasets"]
    assert list(dataset["client_data"].values()) == [1, 1, 8192, 0, 4, 9]
    (chunk,) = dataset["chunks"]
    coded, stored = chunk["segments"]
    assert {k: coded[k] for k in ("form", "cells", "segment_size", "segmin", "bias", "coded_planes", "offset")} == {
        "form": "compressed", "cells": "32-bit", "segment_size": 4096, "segmin": 0x12345, "bias": 0,
        "coded_planes": 1, "offset": 0}
    assert 0 < coded["stream_bytes"] and 0 < coded["map_bytes"] and coded["stream_bytes"] + coded["map_bytes"] < 16
    assert (stored["form"], stored["offset"], stored["length"]) == ("stored", coded["length"], 4100)
    assert stored["stream_bytes"] == stored["map_bytes"] == 0
    text = run("inspect", path, "--segments").stdout.decode()
    assert (f"segment at 0: compressed, 32-bit, 4096 bytes, bias 0x0, segmin 0x12345, 1 of 8 planes coded, "
            f"stream {coded['stream_bytes']}, map {coded['map_bytes']}, {coded['length']} bytes in all\n") in text
    assert f"segment at {coded['length']}: stored, 32-bit, 4096 bytes, 4100 bytes in all\n" in text
    fields = coded["length"] - coded["stream_bytes"] - coded["map_bytes"] + 4
    assert (f"segments: 2 (1 compressed, 1 stored); headers and fields {fields} bytes, non-match streams "
            f"{coded['stream_bytes']} bytes, maps {coded['map_bytes']} bytes, stored data 4096 bytes\n") in text


def test_inspect_tells_why_each_chunk_is_damaged_and_lists_only_stored_chunks(tmp_path):
    good = filter_chunk(tmp_path / "a.h5", detector_like("u4", 1000), 4)
    chunks = {  # chunk index: what is stored there, why inspect calls it damaged
        0: (good[:-8], "segment 0 at byte offset 0 has a length that is too short or runs past the data"),
        1: (filter_chunk(tmp_path / "b.h5", detector_like("u4", 2000), 4),
            "the data expands to 8000 bytes, not 4000"),
        2: (filter_chunk(tmp_path / "c.h5", detector_like("u1", 4000), 4), "holds 8-bit cells, not 32-bit ones"),
        4: (good, None),
        5: (detector_like("u4", 1000).tobytes(), None),  # stored without the filter
    }
    path = tmp_path / "damaged.h5"
    with h5py.File(path, "w") as f:
        d = f.create_dataset("d", shape=(6000,), dtype="u4", chunks=(1000,), compression=32910,
                             compression_opts=(1, 1, 0, 0, 0, 4))
        for index, (chunk, _) in chunks.items():
            d.id.write_direct_chunk((1000 * index,), chunk, filter_mask=int(index == 5))
    result = run("inspect", path, "--chunks")
    assert result.returncode == 1 and result.stderr.decode() == f"mertax: {path} has damaged chunks\n"
    text = result.stdout.decode()
    listed = re.findall(r"  chunk \[(\d+)\]: (\d+) bytes, ratio ([\d.]+)(, stored without the filter)?\n", text)
    # Chunk 3 was never written; chunk 5 is listed as stored without the filter.
    assert [(int(offset) // 1000, bool(raw)) for offset, _, _, raw in listed] == [(i, i == 5) for i in chunks]
    for _, stored, ratio, _ in listed:
        assert ratio == f"{4000 / int(stored):.2f}"
    stored = sum(int(size) for _, size, _, _ in listed)
    assert f"raw 24000 bytes, stored {stored} bytes, ratio {24000 / stored:.2f}, 5 chunks" in text
    reported = json.loads(run("inspect", path, "--json").stdout)["datasets"][0]["chunks"]
    for index, (_, why) in chunks.items():
        damage = re.search(rf"chunk \[{1000 * index}\] is damaged: .*", text)
        assert (damage and damage.group().endswith(why)) if why else not damage
    assert [c["damage"][-len(why):] for c, (_, why) in zip(reported, chunks.values()) if why] == [
        why for _, why in chunks.values() if why]
    with h5py.File(tmp_path / "plain.h5", "w") as f:
        f.create_dataset("plain", data=np.arange(10))
    plain = run("inspect", tmp_path / "plain.h5")
    assert plain.returncode == 0
    assert plain.stdout.decode() == f"no dataset of {tmp_path / 'plain.h5'} uses filter 32910\n"


def test_inspect_reports_a_damaged_chunk_and_goes_on(h5file):
    with h5py.File(h5file, "r+") as f:
        d = f["counts32"]
        _, chunk = d.id.read_direct_chunk((0, 0))
        d.id.write_direct_chunk((0, 0), chunk[:-8])
    result = run("inspect", h5file)
    assert result.returncode == 1
    assert "chunk [0, 0] is damaged" in result.stdout.decode()
    assert "/counts64" in result.stdout.decode()
    assert run("inspect", h5file, "/missing").returncode == 2


def test_bench_compares_filters_on_raw_data(tmp_path):
    raw = tmp_path / "counts.raw"
    detector_like("u2", 200000).tofile(raw)
    result = run("bench", "--raw", raw, "--cell", 2, "--repeat", 1, "--threads", 2)
    assert result.returncode == 0, result.stderr
    text = result.stdout.decode()
    assert "mertax level 0" in text and "mertax level 9" in text and "recommended:" in text
    assert "mertax level 4, 2 threads, direct chunk I/O" in text
    assert not list(tmp_path.glob("*.h5"))


def test_bench_reports_the_files_chunks_each_filters_ratio_and_only_filters_hdf5_has(tmp_path):
    path = tmp_path / "counts.h5"
    data = detector_like("u2", (40, 3000))
    with h5py.File(path, "w") as f:
        f.create_dataset("d", data=data, chunks=(10, 3000), compression=32910, compression_opts=(1, 1, 0, 0, 0, 4))
        f.create_dataset("pairs", data=np.zeros(4, "u2,u2"))
    result = run("bench", path, "/d", "--repeat", 1, "--threads", 2)
    assert (result.returncode, result.stderr) == (0, b"")  # no filter tried that HDF5 cannot load
    text = result.stdout.decode()
    assert text.startswith("240000 bytes of 16-bit cells, chunks of 60000 bytes; best of 1 interleaved rounds")
    with h5py.File(path, "r") as f:
        ratio = f"{240000 / f['d'].id.get_storage_size():.2f}"
    for row in ("mertax level 4 ", "mertax level 4, 2 threads, direct chunk I/O "):
        assert re.search(rf"^{row} *{ratio} ", text, re.M), (row, ratio, text)
    for name, filter_id in (("lz4 plugin", 32004), ("blosc lz4+bitshuffle plugin", 32001)):  # plugins: same path
        assert (f"\n{name} " in text) == h5py.h5z.filter_avail(filter_id), name
    for args, status, says in (((path, "/none"), 2, f"no dataset /none in {path}"),
                               ((path, "/pairs"), 2, "dataset /pairs does not hold cells of 1, 2, 4 or 8 bytes")):
        refused = run("bench", *args)
        assert (refused.returncode, refused.stderr.decode()) == (status, f"mertax: {says}\n")
    odd = tmp_path / "odd.raw"
    odd.write_bytes(b"12345")
    refused = run("bench", "--raw", odd, "--cell", 2)
    assert (refused.returncode, refused.stderr.decode()) == (1, f"mertax: {odd} is empty or not a whole number of "
                                                                 "2-byte cells\n")


def test_bench_reads_a_filtered_file_without_a_plugin_path(tmp_path):
    path = tmp_path / "counts.h5"
    filter_chunk(path, detector_like("u2", 100000), 4)
    env = {k: v for k, v in os.environ.items() if k != "HDF5_PLUGIN_PATH"}
    result = run("bench", path, "/d", "--repeat", 1, env=env)
    assert result.returncode == 0, result.stderr
    assert "mertax level 4" in result.stdout.decode()
