"""Builds the Python module camm: CMake makes the native part, setuptools packs it."""

import pathlib
import re
import shutil
import subprocess
import sys

from setuptools import Distribution, setup
from setuptools.command.build_py import build_py

ROOT = pathlib.Path(__file__).resolve().parent
VERSION = re.search(r"VERSION ([\d.]+)\n", (ROOT / "CMakeLists.txt").read_text())[1]


class Build(build_py):
    def run(self):
        super().run()
        build = ROOT / "build" / "pip"
        off = [f"-DMOTRACE_BUILD_{part}=OFF" for part in ("TESTS", "BENCH", "IMAGE_ENGINES")]
        subprocess.run(
            ["cmake", "-S", ROOT, "-B", build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release", *off]
            + ["-DMOTRACE_BUILD_PYTHON=ON", "-DMOTRACE_INSTALL=OFF", f"-DCAMM_PYTHON={sys.executable}"],
            check=True,
        )
        subprocess.run(["cmake", "--build", build, "--target", "camm_python"], check=True)
        (native,) = (build / "python" / "camm").glob("_camm*.so")
        shutil.copy(native, pathlib.Path(self.build_lib, "camm"))


class BinaryDistribution(Distribution):
    def has_ext_modules(self):
        return True


setup(
    version=VERSION,
    packages=["camm"],
    package_dir={"camm": "camm/python/camm"},
    package_data={"camm": ["*.pyi", "py.typed"]},
    cmdclass={"build_py": Build},
    distclass=BinaryDistribution,
)
