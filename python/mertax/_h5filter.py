"""The h5py filter helper, in the style of hdf5plugin's classes."""
try:
    from h5py.filters import FilterRefBase as _Base
except ImportError:  # without h5py: a plain mapping of the same keyword arguments
    from collections.abc import Mapping as _Mapping

    class _Base(_Mapping):
        filter_id = None
        filter_options = ()

        def __getitem__(self, key):
            return {"compression": self.filter_id, "compression_opts": self.filter_options}[key]

        def __iter__(self):
            return iter(("compression", "compression_opts"))

        def __len__(self):
            return 2

from ._mertax import FILTER_ID
_CLIENT_DATA_VERSION = (1, 1)


class Mertax(_Base):
    """Filter 32910 for h5py: ``create_dataset(..., **Mertax(level=4))`` or
    ``compression=Mertax(level=4)``.

    cell_bytes 0 (the default) lets the plugin take each dataset's datatype size, so one helper
    serves every integer type. h5py adds third-party filters as optional: a chunk that fails to
    compress is then stored raw. See the README for making the filter mandatory.
    """

    filter_id = FILTER_ID

    def __init__(self, level=4, cell_bytes=0):
        level, cell_bytes = int(level), int(cell_bytes)
        if not 0 <= level <= 9:
            raise ValueError(f"level must be 0 to 9, not {level}")
        if cell_bytes not in (0, 1, 2, 4, 8):
            raise ValueError(f"cell_bytes must be 0, 1, 2, 4 or 8, not {cell_bytes}")
        self.level, self.cell_bytes = level, cell_bytes
        # filter version, encode version, bufferSize (filled in by the plugin), flags, cellBytes, level
        self.filter_options = _CLIENT_DATA_VERSION + (0, 0, cell_bytes, level)

    def __repr__(self):
        return f"Mertax(level={self.level}, cell_bytes={self.cell_bytes})"
