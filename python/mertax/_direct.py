"""Threaded direct chunk I/O for h5py datasets that use filter 32910.

Chunks are compressed (or expanded) by the codec on a pool of threads, with the GIL released
while it runs, and moved with h5py's write_direct_chunk / read_direct_chunk on the calling thread
in chunk order. At most twice the threads' chunks are in flight. The chunks are exactly what the
filter stores (filter mask 0), so the file is an ordinary filtered dataset.
"""
import concurrent.futures
import itertools
import os

import numpy as np

from . import _mertax
from ._h5filter import FILTER_ID


def _codec_settings(dset):
    plist = dset.id.get_create_plist()
    if dset.chunks is None or plist.get_nfilters() != 1 or plist.get_filter(0)[0] != FILTER_ID:
        raise ValueError(f"{dset.name} is not chunked with filter {FILTER_ID} as its only filter")
    cd = plist.get_filter_by_id(FILTER_ID)[1]
    cell_bytes = cd[4] if len(cd) > 4 and cd[4] else dset.dtype.itemsize
    level = min(cd[5] if len(cd) > 5 else 4, 9)  # levels above 9 code as 9
    return cell_bytes, level


def _chunk_origins(dset):
    ranges = [range(0, n, c) for n, c in zip(dset.shape, dset.chunks)]
    return itertools.product(*ranges)


def _region(dset, origin):
    """The dataset's slices covered by the chunk at origin, and the same region within the chunk."""
    ends = [min(o + c, n) for o, c, n in zip(origin, dset.chunks, dset.shape)]
    return (tuple(slice(o, e) for o, e in zip(origin, ends)),
            tuple(slice(0, e - o) for o, e in zip(origin, ends)))


def _threads(threads):
    return max(1, threads if threads else (os.cpu_count() or 1))


def _in_order(pool, threads, jobs, submit, finish):
    """Runs submit(job) on the pool for every job, at most 2 * threads ahead, and finish(job,
    result) on this thread in job order."""
    pending = []
    for job in jobs:
        pending.append((job, pool.submit(submit, job)))
        if len(pending) >= 2 * threads:
            job, future = pending.pop(0)
            finish(job, future.result())
    for job, future in pending:
        finish(job, future.result())


def _as_cells(array, dtype):
    """`array` as a C-contiguous array of `dtype`, refusing values that the conversion would
    change (-5 or 1.5 for uint16) rather than wrapping them."""
    array = np.asarray(array)
    if array.dtype == dtype or np.can_cast(array.dtype, dtype, "safe"):
        return np.ascontiguousarray(array, dtype=dtype)
    with np.errstate(invalid="ignore", over="ignore"):
        cells = np.ascontiguousarray(array.astype(dtype))
    if not np.array_equal(cells, array):
        raise ValueError(f"the array holds values that {dtype} cannot hold exactly")
    return cells


def write_direct(dset, array, threads=None):
    """Write the whole of `array` (the dataset's shape) into `dset` with the codec on `threads`
    threads (default: one per core). Edge chunks are padded with the fill value, as HDF5 pads them.
    A failure raises, after the chunks before it were written."""
    if dset.file.mode != "r+":
        raise OSError(f"cannot write {dset.name}: {dset.file.filename} is open read-only")
    cell_bytes, level = _codec_settings(dset)
    array = _as_cells(array, dset.dtype)
    if array.shape != dset.shape:
        raise ValueError(f"array of shape {array.shape} for dataset of shape {dset.shape}")
    threads = _threads(threads)
    fill = dset.fillvalue

    def compress(origin):
        data, within = _region(dset, origin)
        chunk = np.full(dset.chunks, fill, dtype=dset.dtype)
        chunk[within] = array[data]
        return _mertax.compress(chunk.reshape(-1).view(np.uint8), cell_bytes, level)

    def write(origin, blob):
        dset.id.write_direct_chunk(origin, blob, 0)

    with concurrent.futures.ThreadPoolExecutor(threads) as pool:
        _in_order(pool, threads, _chunk_origins(dset), compress, write)


def read_direct(dset, threads=None):
    """Read the whole of `dset` into a new array with the codec on `threads` threads (default: one
    per core); chunks never written read as the fill value, as HDF5 reads them. A damaged chunk
    raises ValueError with where it broke."""
    cell_bytes, _ = _codec_settings(dset)
    out = np.full(dset.shape, dset.fillvalue, dtype=dset.dtype)
    threads = _threads(threads)
    chunk_bytes = int(np.prod(dset.chunks)) * dset.dtype.itemsize

    def read(origin):
        info = dset.id.get_chunk_info_by_coord(origin)
        if info.byte_offset is None:  # never written: the fill value, already in out
            return origin, None, 0
        # The mask from the chunk index: read_direct_chunk reports 0 for a chunk stored unfiltered.
        _, blob = dset.id.read_direct_chunk(origin)
        return origin, blob, info.filter_mask

    def expand(job):
        origin, blob, mask = job
        if blob is None:
            return
        chunk = np.empty(dset.chunks, dtype=dset.dtype)
        if mask & 1:  # stored without the filter
            if len(blob) != chunk_bytes:
                raise ValueError(f"the chunk at {origin} is stored unfiltered with {len(blob)} bytes, "
                                 f"not {chunk_bytes}")
            chunk.reshape(-1).view(np.uint8)[:] = np.frombuffer(blob, np.uint8)
        else:
            _mertax.decompress_into(blob, cell_bytes, chunk.reshape(-1).view(np.uint8))
        data, within = _region(dset, origin)
        out[data] = chunk[within]

    with concurrent.futures.ThreadPoolExecutor(threads) as pool:
        _in_order(pool, threads, (read(o) for o in _chunk_origins(dset)), expand, lambda job, result: None)
    return out
