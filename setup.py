"""setuptools drives the project's CMake for the Python package (see pyproject.toml): the library, the
mesh library and the module are built in build-python/, installed into a staging folder laid out as the
package (python/tessaline/_core*.so beside the Python files, the shared libraries in tessaline/lib, which the
module finds through its RPATH $ORIGIN/lib), and that package is what pip installs."""
import os
import pathlib
import re
import shutil
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = pathlib.Path(__file__).resolve().parent


def version():
    text = (ROOT / "CMakeLists.txt").read_text()
    return re.search(r"project\(Tessaline VERSION ([0-9.]+)", text).group(1)


class CMakeExtension(Extension):
    def __init__(self, name):
        super().__init__(name, sources=[])


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        build = pathlib.Path(os.environ.get("TESSALINE_PIP_BUILD_DIR", ROOT / "build-python"))
        stage = pathlib.Path(self.build_temp).resolve() / "stage"
        subprocess.run(["cmake", "-S", str(ROOT), "-B", str(build), "-DCMAKE_BUILD_TYPE=Release",
                        "-DTESSALINE_BUILD_PYTHON=ON", "-DTESSALINE_BUILD_TOOLS=OFF", "-DTESSALINE_BUILD_TESTS=OFF",
                        f"-DPython3_EXECUTABLE={sys.executable}", "-DTESSALINE_PYTHON_INSTALL_DIR:STRING=python",
                        "-DCMAKE_INSTALL_LIBDIR:STRING=python/tessaline/lib"], check=True)
        jobs = os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL", "2")  # a shared machine: two jobs unless told
        subprocess.run(["cmake", "--build", str(build), "-j", jobs], check=True)
        shutil.rmtree(stage, ignore_errors=True)
        subprocess.run(["cmake", "--install", str(build), "--prefix", str(stage)], check=True, stdout=subprocess.DEVNULL)
        target = pathlib.Path(self.get_ext_fullpath(ext.name)).parent
        shutil.copytree(stage / "python" / "tessaline", target, dirs_exist_ok=True,
                        ignore=shutil.ignore_patterns("*.a", "cmake", "pkgconfig"))


setup(
    version=version(),
    packages=["tessaline", "tessaline.distributed"],
    package_dir={"": "python/package"},
    ext_modules=[CMakeExtension("tessaline._core")],
    cmdclass={"build_ext": CMakeBuild},
    # setuptools' own folders apart from the CMake build folder build/ of the README.
    options={"build": {"build_base": "build-python/setuptools"}},
)
