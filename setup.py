# SPDX-License-Identifier: Apache-2.0
"""Builds the library with our engines inside, by CMake, into the Python wheel. CMAKE_ARGS in the environment holds more
options of CMake's; CXX and CXXFLAGS count too."""
import os
import re
import shlex
import shutil
import subprocess
from pathlib import Path

from setuptools import Distribution, setup
from setuptools.command.build_py import build_py

try:
    from setuptools.command.bdist_wheel import bdist_wheel
except ImportError:  # before setuptools 70
    from wheel.bdist_wheel import bdist_wheel

ROOT = Path(__file__).resolve().parent
HEADER = (ROOT / "include/kesaudio/version.h").read_text()
VERSION = re.findall(r"define KESAUDIO_VERSION_(?:MAJOR|MINOR|PATCH) (\d+)", HEADER)


class WithLibrary(build_py):
    def run(self):
        super().run()
        build = Path(self.get_finalized_command("build").build_temp, "library").resolve()
        off = [f"-DKESAUDIO_{what}=OFF" for what in ("BUILD_TESTS", "BUILD_TOOLS", "BUILD_BENCH", "INSTALL")]
        subprocess.run(["cmake", "-S", ROOT, "-B", build, "-DCMAKE_BUILD_TYPE=Release", "-DKESAUDIO_ENGINES=bundled",
                        "-DKESAUDIO_LEVELS=", *off, *shlex.split(os.environ.get("CMAKE_ARGS", ""))], check=True)
        subprocess.run(["cmake", "--build", build, "--target", "kesaudio", "-j", str(os.cpu_count())], check=True)
        library = f"libkesaudio.so.{VERSION[0]}"
        shutil.copy(build / library, Path(self.build_lib, "kesaudio", library))


class Wheel(bdist_wheel):
    """For every Python of one machine."""

    def get_tag(self):
        return "py3", "none", super().get_tag()[2]


class NotPure(Distribution):
    def has_ext_modules(self):
        return True


setup(version=".".join(VERSION), distclass=NotPure, cmdclass={"build_py": WithLibrary, "bdist_wheel": Wheel})
