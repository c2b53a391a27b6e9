"""Plain h5py with the plugin (HDF5_PLUGIN_PATH set by the caller): refused parameters and
damaged chunks surface as Python exceptions with the filter's reason. Round trips through h5py
are in the Python package's suite; which damages are detected, in the plugin's C++ tests."""
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

    def tearDown(self):
        self.dir.cleanup()

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
