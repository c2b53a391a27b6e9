#!/bin/bash
# The Python package as pip users get it: a wheel built offline from a clean copy of the sources,
# installed into a fresh venv that sees Debian's NumPy, h5py, numcodecs, Zarr and dask, and used
# from processes outside the source tree with neither PYTHONPATH nor HDF5_PLUGIN_PATH.
set -euo pipefail
source_dir=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/src"
(cd "$source_dir" && git ls-files -z --cached --others --exclude-standard | xargs -0 cp --parents -t "$work/src")
/usr/bin/python3 -m pip wheel -q --no-build-isolation --no-deps -w "$work/dist" "$work/src"
/usr/bin/python3 -m venv --system-site-packages "$work/venv"
"$work/venv/bin/pip" install -q --no-index --no-build-isolation "$work"/dist/mertax-*.whl
cd "$work"
unset PYTHONPATH HDF5_PLUGIN_PATH
"$work/venv/bin/python" -m pytest -q -p no:cacheprovider --basetemp="$work/pytest" "$source_dir/tests/package/installed_wheel.py"
