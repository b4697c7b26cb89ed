# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Fixtures: what runs the device code of the built package, and a GPU of host memory for ops."""

from __future__ import annotations

import ctypes
import importlib
import importlib.util
import os
import pathlib
import re
import shutil
import subprocess
import sys

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = ROOT / "build" / "device-text"
PACKAGE_BUILD = ROOT / "build" / "package" / "src"

# Before TensorFlow is imported: no chatter below error severity.
os.environ.setdefault("TF_CPP_MIN_LOG_LEVEL", "2")


def _installed() -> pathlib.Path:
    """Return the folder of the installed package, without importing it."""
    spec = importlib.util.find_spec("bitfold")
    assert spec is not None
    assert spec.submodule_search_locations is not None
    return pathlib.Path(spec.submodule_search_locations[0])


@pytest.fixture(scope="session")
def library() -> bytes:
    """The installed library's bytes; they must hold device code that clang made."""
    code = (_installed() / "libbitfold.so").read_bytes()
    if b"GPUDevice" not in code:
        pytest.skip("the package was built with BITFOLD_GPU=OFF")
    if not (ROOT / ".cuda" / "bin" / "ptxas").exists():
        pytest.skip("no .cuda: the package was built with another toolkit, whose text is another")
    return code


@pytest.fixture(scope="session")
def programs(library) -> pathlib.Path:
    """The folder of the programs, built with as many defects as BITFOLD_DEFECTS says."""
    if not list(PACKAGE_BUILD.glob("bitfold.device/*.o")):
        pytest.skip("no build/package with device code: scripts/install_package.sh makes it")
    environment = {"CMAKE_GENERATOR": "Ninja", **os.environ}
    environment["PATH"] = f"{pathlib.Path(sys.executable).parent}:{os.environ['PATH']}"
    defects = f"-DBITFOLD_DEFECTS={os.environ.get('BITFOLD_DEFECTS', '200')}"
    for command in (
        ("cmake", "--preset", BUILD.name, "-Wno-dev", defects),
        ("cmake", "--build", "--preset", BUILD.name, "-j", str(os.cpu_count())),
    ):
        done = subprocess.run(
            command, cwd=ROOT, env=environment, capture_output=True, text=True, check=False
        )
        assert done.returncode == 0, f"{done.stdout[-4000:]}{done.stderr[-4000:]}"
    return BUILD / "tests" / "ptx"


class HostGpu:
    """The runtime with a GPU, and the package on a library whose launches run on the host."""

    def __init__(self, programs: pathlib.Path) -> None:
        """Load the GPU into the runtime, which must not have looked for devices yet."""
        import tensorflow as tf
        from tensorflow.python.framework import load_library

        load_library.load_pluggable_device_library(str(programs / "libhost_gpu.so"))
        self._plugin = ctypes.CDLL(str(programs / "libhost_gpu.so"))
        self.tf = tf
        self.bitfold = importlib.import_module("bitfold")

    def copies(self) -> tuple[int, int]:
        """Return how many copies went to the device and to the host until now."""
        counts = (ctypes.c_int64 * 4)()
        self._plugin.host_gpu_copies(counts)
        return counts[0], counts[2]


@pytest.fixture(scope="session")
def gpu(programs, tmp_path_factory) -> HostGpu:
    """A GPU of host memory, and a copy of the package that has the library for it."""
    import tensorflow as tf

    if tf.test.is_built_with_cuda():
        pytest.skip("the runtime has GPUs of its own")
    assert "bitfold" not in sys.modules, "something imported the installed package"
    folder = tmp_path_factory.mktemp("package")
    installed = _installed()
    shutil.copytree(installed, folder / "bitfold")
    (folder / "tensorflow").symlink_to(installed.parent / "tensorflow")
    library = folder / "bitfold" / "libbitfold.so"
    shutil.copyfile(programs / "libbitfold.so", library)
    info = folder / "bitfold" / "_frame" / "build_info.py"
    size = f"LIBRARY_SIZE = {library.stat().st_size}"
    info.write_text(re.sub(r"(?m)^LIBRARY_SIZE = \d+", size, info.read_text()))
    sys.path.insert(0, str(folder))
    importlib.invalidate_caches()
    return HostGpu(programs)
