"""The numcodecs codec against the checks numcodecs runs on its own codecs, on arrays of every
cell width, of other item sizes (coded as bytes) and in Fortran order."""
import os
import shutil

import numpy as np
import pytest
from numcodecs.tests import common

from mertax.numcodecs import Mertax

FIXTURE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "fixture")
CODECS = [Mertax(level=0), Mertax(level=4), Mertax(level=9), Mertax(level=4, cell_bytes=2)]
ARRAYS = [
    np.arange(1000, dtype="u1"),
    (np.arange(5000, dtype="u2") % 300).reshape(50, 100, order="F"),
    np.random.default_rng(2).poisson(3, 4000).astype("u4"),
    np.linspace(0, 1000, 2000, dtype="u8").reshape(10, 200),
    np.arange(3000, dtype="i2") - 1500,
    np.array([b"abc", b"de", b"fghij"] * 101, dtype="S5"),  # item size 5, an odd byte count: coded as bytes
    np.zeros(300, dtype="u2,u1"),  # structured, item size 3
]


@pytest.mark.parametrize("codec", CODECS, ids=repr)
@pytest.mark.parametrize("array", ARRAYS, ids=lambda a: f"{a.dtype}{a.shape}")
def test_encode_decode(codec, array):
    if codec.cell_bytes and array.nbytes % codec.cell_bytes:
        with pytest.raises(ValueError, match="whole number of 2-byte cells"):
            codec.encode(array)
        return
    common.check_encode_decode(array, codec)


@pytest.mark.parametrize("codec", CODECS, ids=repr)
def test_config_and_object_buffers(codec):
    common.check_config(codec)
    common.check_err_decode_object_buffer(codec)
    common.check_err_encode_object_buffer(codec)


def test_backwards_compatibility(tmp_path, monkeypatch):
    # The check reads the committed streams from ./fixture (and removes that folder): a copy.
    shutil.copytree(FIXTURE, tmp_path / "fixture")
    monkeypatch.chdir(tmp_path)
    arrays = [a for a in ARRAYS if a.dtype.kind in "ui"]
    common.check_backwards_compatibility(Mertax.codec_id, arrays, CODECS[:3])
