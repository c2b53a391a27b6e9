"""Plain h5py with the plugin (HDF5_PLUGIN_PATH set by the caller): damaged chunks and refused
parameters surface as Python exceptions with the filter's reason. Round trips through h5py are
in the Python package's suite."""
import os
import tempfile
import unittest

import h5py
import numpy as np

FILTER_ID = 32910


class H5pyThroughThePlugin(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.TemporaryDirectory()
        self.path = os.path.join(self.dir.name, "h5py_test.h5")
        self.rng = np.random.default_rng(11)

    def tearDown(self):
        self.dir.cleanup()

    def test_damaged_chunk_raises_and_other_chunks_still_read(self):
        data = self.rng.poisson(0.5, 20000).astype("u2")
        with h5py.File(self.path, "w") as f:
            f.create_dataset("counts", data=data, chunks=(10000,), compression=FILTER_ID,
                             compression_opts=(1, 1, 0, 0, 2, 4))
        with h5py.File(self.path, "r+") as f:
            _, good = f["counts"].id.read_direct_chunk((0,))
        header = int.from_bytes(good[:4], "little")
        segment_length, stream_middle = header >> 19, 8 + ((header >> 7) & 0xFFF) // 2

        def flipped(offset, bit):
            return good[:offset] + bytes([good[offset] ^ bit]) + good[offset + 1:]

        detected = [good[: len(good) // 2], good[:-1], good[:3], flipped(3, 0x80), flipped(0, 0x0C)]
        # No checksum in the format: these may read as other data, but never as the original.
        undetected = [flipped(stream_middle, 0x10), flipped(segment_length - 6, 0x04)]
        for damaged in detected + undetected:
            with h5py.File(self.path, "r+") as f:
                f["counts"].id.write_direct_chunk((0,), damaged)
            with h5py.File(self.path, "r") as f:
                if damaged in detected:
                    with self.assertRaises(OSError):
                        f["counts"][...]
                else:
                    try:
                        self.assertFalse(np.array_equal(f["counts"][:10000], data[:10000]))
                    except OSError:
                        pass
                np.testing.assert_array_equal(f["counts"][10000:], data[10000:])

    def test_refusals_and_damage_say_why_in_the_exception(self):
        with h5py.File(self.path, "w") as f:
            with self.assertRaisesRegex(ValueError, "cellBytes must be 1, 2, 4 or 8, not 3"):
                f.create_dataset("bad", data=np.zeros(100, "u1"), chunks=(100,), compression=FILTER_ID,
                                 compression_opts=(1, 1, 0, 0, 3, 4))
            f.create_dataset("any", data=np.arange(100, dtype="u4"), chunks=(100,), compression=FILTER_ID,
                             compression_opts=(1, 1, 0, 0, 0, 4))
            _, cd, _ = f["any"].id.get_create_plist().get_filter_by_id(FILTER_ID)
            self.assertEqual(cd, (1, 1, 400, 0, 4, 4))
            _, chunk = f["any"].id.read_direct_chunk((0,))
            f["any"].id.write_direct_chunk((0,), chunk[:-4])
            with self.assertRaisesRegex(OSError, "MERTAX cannot expand the chunk: damaged data: segment 0"):
                f["any"][...]


if __name__ == "__main__":
    unittest.main()
