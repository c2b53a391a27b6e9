"""libmertax: lossless compression of arrays of unsigned integers for detector data.

    import mertax
    blob = mertax.compress(counts, level=4)       # exactly the bytes HDF5 filter 32910 stores
    again = mertax.decompress(blob, counts.dtype, counts.shape)

    f.create_dataset("counts", data=counts, chunks=(64, 4096), **mertax.Mertax(level=4))

    mertax.write_direct(dset, counts, threads=8)  # the codec on 8 threads, direct chunk writes
    counts = mertax.read_direct(dset)

Importing the package makes the filter available to h5py in this process, without
HDF5_PLUGIN_PATH; PLUGIN_PATH names the plugin's folder for other programs. With numcodecs
installed, mertax.numcodecs.Mertax is registered as the codec "mertax" (for Zarr).
"""
import os as _os

import numpy as _np

from . import _mertax
from ._direct import read_direct, write_direct
from ._h5filter import FILTER_ID, Mertax

__all__ = ["compress", "decompress", "Mertax", "write_direct", "read_direct", "FILTER_ID", "PLUGIN_PATH",
           "__version__"]
__version__ = _mertax.version()
PLUGIN_PATH = _os.path.join(_os.path.dirname(_os.path.abspath(__file__)), "plugin")

_CELL_SIZES = (1, 2, 4, 8)


def _cell_dtype(dtype):
    dtype = _np.dtype(dtype)
    if dtype.hasobject or dtype.itemsize not in _CELL_SIZES:
        raise TypeError(f"mertax codes cells of 1, 2, 4 or 8 bytes, not dtype {dtype}")
    return dtype


def _thread_count(threads):
    threads = int(threads)
    if threads < 1:
        raise ValueError(f"threads must be 1 or more, not {threads}")
    return threads


def compress(array, level=4, threads=1):
    """Compress an array of cells of 1, 2, 4 or 8 bytes (its dtype's width) into the bytes that the
    HDF5 filter stores for it as one chunk, on up to `threads` threads of the library's pool (the
    bytes do not depend on the count)."""
    threads = _thread_count(threads)
    array = _np.asarray(array)
    _cell_dtype(array.dtype)
    cells = _np.ascontiguousarray(array).reshape(-1)
    return _mertax.compress(cells.view(_np.uint8), cells.dtype.itemsize, int(level), threads=threads)


def decompress(data, dtype, shape=None, threads=1):
    """Expand a compressed stream into a new array of `dtype` on up to `threads` threads; its size
    comes from the stream, or from `shape`, which must match it. A damaged stream, or one of cells
    of another width, raises ValueError."""
    threads = _thread_count(threads)
    dtype = _cell_dtype(dtype)
    size = _mertax.expanded_size(data, dtype.itemsize)  # from the headers: nothing allocated yet
    count = size // dtype.itemsize
    if shape is not None:
        shape = (shape,) if _np.isscalar(shape) else tuple(shape)
        if int(_np.prod(shape, dtype=_np.int64)) != count:
            raise ValueError(f"the data expands to {count} cells, not shape {shape}")
    out = _np.empty(count, dtype=dtype)
    _mertax.decompress_into(data, dtype.itemsize, out.view(_np.uint8), threads=threads)
    return out.reshape(shape) if shape is not None else out


def _register_with_h5py():
    try:
        import h5py
    except ImportError:
        return
    path = PLUGIN_PATH.encode()
    if path not in [h5py.h5pl.get(i) for i in range(h5py.h5pl.size())]:
        h5py.h5pl.prepend(path)


_register_with_h5py()

try:
    from . import numcodecs  # noqa: F401  (registers the codec "mertax")
except ImportError:
    pass
