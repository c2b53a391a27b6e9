"""Builds the Python package's compiled parts with the project's own CMake build: the extension
module over the codec core, and the HDF5 plugin that the package carries in mertax/plugin."""
import os
import re
import shutil
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = os.path.dirname(os.path.abspath(__file__))


def project_version():
    with open(os.path.join(ROOT, "CMakeLists.txt")) as f:
        return re.search(r"project\(mertax VERSION ([0-9.]+)", f.read()).group(1)


def entry_points():
    # One file for pip's metadata and cmake --install's: readers of Zarr arrays (and dask workers)
    # find the codec through it without importing mertax.
    with open(os.path.join(ROOT, "python", "entry_points.txt")) as f:
        return f.read()


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        build = os.path.abspath(self.build_temp)
        os.makedirs(build, exist_ok=True)
        subprocess.check_call([
            "cmake", "-S", ROOT, "-B", build, "-DCMAKE_BUILD_TYPE=Release",
            f"-DPython3_EXECUTABLE={sys.executable}", "-DMERTAX_BUILD_TESTS=OFF",
            "-DMERTAX_BUILD_BENCH=OFF", "-DMERTAX_BUILD_TOOLS=OFF"])
        subprocess.check_call(["cmake", "--build", build, "--target", "_mertax", "mertax",
                               f"-j{os.cpu_count()}"])
        module = self.get_ext_fullpath(ext.name)
        os.makedirs(os.path.join(os.path.dirname(module), "plugin"), exist_ok=True)
        shutil.copyfile(os.path.join(build, "python", "mertax", os.path.basename(module)), module)
        # A copy, not the build tree's link: the wheel must hold the library itself.
        shutil.copyfile(os.path.join(build, "plugin", "libmertax.so"),
                        os.path.join(os.path.dirname(module), "plugin", "libmertax.so"))


setup(version=project_version(), entry_points=entry_points(), ext_modules=[Extension("mertax._mertax", sources=[])],
      cmdclass={"build_ext": CMakeBuild})
