#!/usr/bin/env bash
# The Debian package as a user meets it: install it with apt, use the filter from the HDF5 tools and
# h5py with no HDF5_PLUGIN_PATH, use the Python package and the C library, then remove it and
# check that nothing is left. Needs root (it installs into the system). Argument: the .deb file.
set -euo pipefail
deb=$(realpath "$1")
if [ "$(id -u)" -ne 0 ]; then
    echo "== Package check skipped: installing a package needs root"
    exit 0
fi
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
unset HDF5_PLUGIN_PATH PYTHONPATH

echo "== Installing $(basename "$deb")"
DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "$deb" >/dev/null
plugin=$(pkg-config --variable=PluginDir hdf5-serial)/libmertax.so
test -f "$plugin"

echo "== h5py and h5dump through the installed plugin"
cd "$dir"
/usr/bin/python3 - <<'PY'
import h5py
import numpy as np
data = (np.arange(20000) % 7 == 0).astype("u2") * 3
with h5py.File("plain.h5", "w") as f:
    f.create_dataset("counts", data=data, chunks=(5000,), compression=32910,
                     compression_opts=(1, 1, 0, 0, 0, 4))
with h5py.File("plain.h5", "r") as f:
    assert (f["counts"][...] == data).all()
    assert f["counts"].id.get_storage_size() < data.nbytes // 4
import mertax
assert mertax.decompress(mertax.compress(data), "u2").tolist() == data.tolist()
print("h5py and the mertax package:", mertax.__version__)
PY
h5dump -d counts -s 7 -c 1 plain.h5 | grep -q "(7): 3"

echo "== The C library through pkg-config"
cat >version.c <<'C'
#include <mertax.h>
#include <stdio.h>
int main(void) { unsigned char c[8] = {1}, z[64]; printf("%s %zu\n", mertax_version(), mertax_compress(c, 8, 1, 4, z, 64)); return 0; }
C
# shellcheck disable=SC2046
cc version.c -o version $(pkg-config --cflags --libs mertax)
./version

echo "== Removing the package"
DEBIAN_FRONTEND=noninteractive apt-get remove -y -qq libmertax >/dev/null
test ! -e "$plugin"
! /usr/bin/python3 -c "import mertax" 2>/dev/null
echo "== Package check passed"
