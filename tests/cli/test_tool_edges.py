"""The tool's output files written as coreutils write them, and its input taken as an attacker
would craft it: each case ends in the right bytes at the right place or in one line on standard
error with a non-zero status, never a clobbered file, a leftover or a runaway allocation."""
import os
import resource
import signal
import stat
import struct
import subprocess
import time

import h5py
import numpy as np
import pytest

from test_tool import TOOL, detector_like, filter_chunk, run


@pytest.fixture
def stream(tmp_path):
    """A raw file of 16-bit cells and its compressed form."""
    raw, cmp = tmp_path / "in.raw", tmp_path / "in.mtx"
    detector_like("u2", 20000).tofile(raw)
    assert run("compress", "--cell", 2, raw, cmp).returncode == 0
    return raw, cmp


def leftovers(folder):
    return [p.name for p in folder.iterdir() if "mertax-" in p.name]


def test_a_regular_file_is_replaced_and_keeps_its_mode(tmp_path, stream):
    raw, cmp = stream
    out = tmp_path / "out.raw"
    out.write_bytes(b"old")
    out.chmod(0o640)
    assert run("expand", "--cell", 2, cmp, out).returncode == 0
    assert out.read_bytes() == raw.read_bytes()
    assert stat.S_IMODE(out.stat().st_mode) == 0o640
    assert leftovers(tmp_path) == []


def test_a_symlink_is_written_through_and_stays(tmp_path, stream):
    raw, cmp = stream
    target, link = tmp_path / "target.raw", tmp_path / "link.raw"
    target.write_bytes(b"old")
    link.symlink_to(target)
    assert run("expand", "--cell", 2, cmp, link).returncode == 0
    assert link.is_symlink() and target.read_bytes() == raw.read_bytes()


def test_a_symlink_planted_at_a_temporary_name_is_not_followed(tmp_path, stream):
    _, cmp = stream
    victim = tmp_path / "victim"
    victim.write_bytes(b"precious")
    for name in ("out.raw.mertax-partial", ".out.raw.mertax-partial"):
        (tmp_path / name).symlink_to(victim)
    assert run("expand", "--cell", 2, cmp, tmp_path / "out.raw").returncode == 0
    assert victim.read_bytes() == b"precious"


def test_devices_fifos_and_standard_output_are_written_to(tmp_path, stream):
    raw, cmp = stream
    assert run("expand", "--cell", 2, cmp, "/dev/null").returncode == 0
    assert stat.S_ISCHR(os.stat("/dev/null").st_mode)
    # /dev/stdout into a pipe, and into a file opened for appending: the shell's file is kept.
    piped = run("expand", "--cell", 2, cmp, "/dev/stdout")
    assert piped.returncode == 0 and piped.stdout == raw.read_bytes()
    appended = tmp_path / "appended"
    appended.write_bytes(b"head")
    with open(appended, "ab") as sink:
        assert subprocess.run([TOOL, "expand", "--cell", "2", str(cmp), "/dev/stdout"], stdout=sink).returncode == 0
    assert appended.read_bytes() == b"head" + raw.read_bytes()
    with open(appended, "ab") as sink:  # the same through /dev/fd/N
        fd = sink.fileno()
        assert subprocess.run([TOOL, "expand", "--cell", "2", str(cmp), f"/dev/fd/{fd}"], pass_fds=(fd,)).returncode == 0
    assert appended.read_bytes() == b"head" + 2 * raw.read_bytes()

    fifo = tmp_path / "fifo"
    os.mkfifo(fifo)
    writer = subprocess.Popen([TOOL, "expand", "--cell", "2", str(cmp), str(fifo)])
    with open(fifo, "rb") as reader:
        got = reader.read()
    assert writer.wait(timeout=60) == 0
    assert got == raw.read_bytes() and stat.S_ISFIFO(fifo.stat().st_mode)


def test_failures_name_their_cause_and_leave_nothing(tmp_path, stream):
    _, cmp = stream
    missing = run("expand", "--cell", 2, tmp_path / "nothing.mtx", tmp_path / "out.raw")
    assert missing.returncode == 2 and b"No such file or directory" in missing.stderr
    folder = tmp_path / "locked"
    folder.mkdir()
    folder.chmod(0o500)
    try:
        denied = run("expand", "--cell", 2, cmp, folder / "out.raw")
        if os.geteuid() != 0:
            assert denied.returncode == 2 and b"Permission denied" in denied.stderr
        full = run("expand", "--cell", 2, cmp, "/dev/full")
        assert full.returncode == 2 and b"No space left on device" in full.stderr
    finally:
        folder.chmod(0o700)
    dangling = tmp_path / "dangling"
    dangling.symlink_to(tmp_path / "gone" / "x")
    result = run("expand", "--cell", 2, cmp, dangling)
    assert result.returncode == 2 and b"symbolic link to nothing" in result.stderr
    assert leftovers(tmp_path) == []


def test_a_write_cut_short_keeps_the_old_file_and_a_new_file_takes_the_umask(tmp_path, stream):
    raw, cmp = stream
    out = tmp_path / "out.raw"
    out.write_bytes(b"old")

    def limit_file_size():  # writes past 1000 bytes fail with EFBIG, after a partial one
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
        resource.setrlimit(resource.RLIMIT_FSIZE, (1000, 1000))

    result = subprocess.run([TOOL, "expand", "--cell", "2", str(cmp), str(out)], capture_output=True,
                            preexec_fn=limit_file_size)
    assert result.returncode == 2 and b"File too large" in result.stderr
    assert out.read_bytes() == b"old" and leftovers(tmp_path) == []
    fresh = tmp_path / "fresh.raw"
    old_mask = os.umask(0o027)
    try:
        assert run("expand", "--cell", 2, cmp, fresh).returncode == 0
    finally:
        os.umask(old_mask)
    assert stat.S_IMODE(fresh.stat().st_mode) == 0o640 and fresh.read_bytes() == raw.read_bytes()


def test_an_interrupted_write_leaves_nothing(tmp_path):
    # Standard input that never ends keeps the tool busy until the signal comes.
    big = tmp_path / "big.raw"
    big.write_bytes(bytes(64 << 20))
    for sig in (signal.SIGINT, signal.SIGTERM):
        child = subprocess.Popen([TOOL, "compress", "--cell", "1", str(big), str(tmp_path / "out.mtx")])
        deadline = time.time() + 30
        while not leftovers(tmp_path) and child.poll() is None and time.time() < deadline:
            time.sleep(0.001)
        child.send_signal(sig)
        child.wait(timeout=60)
        assert leftovers(tmp_path) == []


def segment(mode, seg_size, body, std=0):
    payload = (b"" if std else struct.pack("<H", seg_size)) + body
    word = std | 1 << 1 | mode << 2 | (4 + len(payload)) << 19
    return struct.pack("<I", word) + payload


@pytest.mark.parametrize("blob, cell, words", [
    (segment(0, 0xFFFF, b"\0\0") * 8192, 1, "claims 65535 bytes"),  # 64 KiB claiming 536 MB
    (segment(0, 0, b"\0\0"), 1, "claims 0 bytes"),
    (struct.pack("<I", 3 << 19 | 2) + b"\0" * 20, 1, "too short or runs past"),
], ids=["widened", "empty", "short"])
def test_crafted_streams_fail_fast_and_small(tmp_path, blob, cell, words):
    src, out = tmp_path / "crafted.mtx", tmp_path / "out.raw"
    src.write_bytes(blob)

    def limit_memory():
        resource.setrlimit(resource.RLIMIT_AS, (512 << 20, 512 << 20))

    # AddressSanitizer reserves terabytes of address space, so there it limits allocations itself.
    sanitized = "asan" in os.environ.get("LD_PRELOAD", "")
    env = dict(os.environ, ASAN_OPTIONS="detect_leaks=0:max_allocation_size_mb=512:allocator_may_return_null=0")
    result = subprocess.run([TOOL, "expand", "--cell", str(cell), str(src), str(out)], capture_output=True,
                            preexec_fn=None if sanitized else limit_memory, env=env)
    assert result.returncode == 1, result.stderr
    assert words.encode() in result.stderr and result.stderr.count(b"\n") == 1
    assert not out.exists()


def test_the_cell_width_must_match_the_stream(tmp_path):
    raw, cmp, out = tmp_path / "in.raw", tmp_path / "in.mtx", tmp_path / "out.raw"
    detector_like("u1", 4097).tofile(raw)
    assert run("compress", "--cell", 1, raw, cmp).returncode == 0
    result = run("expand", "--cell", 4, cmp, out)
    assert result.returncode == 1 and b"holds 8-bit cells, not 32-bit ones" in result.stderr
    assert not out.exists()


def test_inspect_sees_through_fletcher32_and_names_other_filters_without_calling_them_damage(tmp_path):
    path = tmp_path / "checked.h5"
    with h5py.File(path, "w") as f:
        f.create_dataset("checked", data=detector_like("u2", (40, 1000)), chunks=(20, 1000), fletcher32=True,
                         compression=32910, compression_opts=(1, 1, 0, 0, 0, 4))
    with h5py.File(path, "a") as f:  # a filter after ours, through the low-level interface
        dcpl = h5py.h5p.create(h5py.h5p.DATASET_CREATE)
        dcpl.set_chunk((1000,))
        dcpl.set_filter(32910, h5py.h5z.FLAG_MANDATORY, (1, 1, 0, 0, 0, 4))
        dcpl.set_shuffle()
        d = h5py.Dataset(h5py.h5d.create(f.id, b"after", h5py.h5t.STD_U16LE, h5py.h5s.create_simple((2000,)),
                                         dcpl=dcpl))
        d[...] = detector_like("u2", 2000)
        # A chunk the shuffle skipped (its bit in the chunk's filter mask) can be checked.
        d.id.write_direct_chunk((1000,), filter_chunk(tmp_path / "one.h5", detector_like("u2", 1000), 4),
                                filter_mask=0b10)
        f["checked"].id.write_direct_chunk((20, 0), b"ab")
    result = run("inspect", path, "/checked", "/after", "--chunks", "--segments")
    assert result.returncode == 0, result.stdout
    text = result.stdout.decode()
    assert "damaged" not in text and text.count("  chunk [") == 6  # 4 chunks, 2 of them not checked
    assert text.count("not checked: filter 2 runs after filter 32910") == 1
    assert text.count("not checked: too short for its Fletcher-32 checksum") == 1
