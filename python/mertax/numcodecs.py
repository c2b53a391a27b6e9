"""The codec as a numcodecs codec, "mertax", for Zarr and other chunk stores."""
import numpy as np
from numcodecs.abc import Codec
from numcodecs.compat import ensure_contiguous_ndarray
from numcodecs.registry import register_codec

from . import _mertax

_CELLS = (1, 2, 4, 8)


class Mertax(Codec):
    """Compresses chunks with the codec of HDF5 filter 32910.

    With cell_bytes given (1, 2, 4 or 8), each chunk becomes exactly the bytes that the filter stores
    for it, and the width is kept in the configuration so that decoding widens 16-bit cells that
    were coded as bytes. Without it, the width comes from each chunk's dtype and 16-bit chunks are
    coded without that reduction, so that every stream records its own width: stores such as Zarr
    save a codec's configuration before they see a chunk, and still decode every chunk right.
    """

    codec_id = "mertax"

    def __init__(self, level=4, cell_bytes=None):
        if not 0 <= int(level) <= 9:
            raise ValueError(f"level must be 0 to 9, not {level}")
        if cell_bytes is not None and int(cell_bytes) not in _CELLS:
            raise ValueError(f"cell_bytes must be 1, 2, 4 or 8, not {cell_bytes}")
        self.level = int(level)
        self.cell_bytes = None if cell_bytes is None else int(cell_bytes)

    def get_config(self):
        return {"id": self.codec_id, "level": self.level, "cell_bytes": self.cell_bytes}

    def encode(self, buf):
        array = ensure_contiguous_ndarray(buf)
        if array.dtype.hasobject:
            raise TypeError("mertax cannot code an array of Python objects")
        # A chunk of another item size (strings, structured types) is coded as bytes.
        cell_bytes = self.cell_bytes or (array.dtype.itemsize if array.dtype.itemsize in _CELLS else 1)
        if array.nbytes % cell_bytes:
            raise ValueError(f"the chunk's {array.nbytes} bytes are not a whole number of {cell_bytes}-byte cells")
        return _mertax.compress(array.reshape(-1).view(np.uint8), cell_bytes, self.level,
                                reduce=self.cell_bytes is not None)

    def decode(self, buf, out=None):
        data = ensure_contiguous_ndarray(buf).view(np.uint8)
        cell_bytes = self.cell_bytes or _mertax.stream_cell_hint(data)
        size = _mertax.expanded_size(data, cell_bytes)  # from the headers: nothing allocated yet
        if out is not None:
            target = ensure_contiguous_ndarray(out).view(np.uint8)
            if target.nbytes != size:
                raise ValueError(f"the data expands to {size} bytes, not the {target.nbytes} of out")
            _mertax.decompress_into(data, cell_bytes, target)
            return out
        expanded = np.empty(size, dtype=np.uint8)
        _mertax.decompress_into(data, cell_bytes, expanded)
        return expanded

    def __repr__(self):
        return f"Mertax(level={self.level}, cell_bytes={self.cell_bytes})"


register_codec(Mertax)
