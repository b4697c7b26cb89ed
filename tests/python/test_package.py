# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The installed package: files, versions, one load, and the exported functions by ctypes."""

from __future__ import annotations

import ctypes
import importlib.metadata
import pathlib
import re
import subprocess
import sys
import tomllib

import forks
import numpy as np
import pytest
import support

import bitfold
from bitfold._frame import build_info
from bitfold._frame.library import check_versions

sys.path.insert(0, str(support.ROOT / "scripts"))

import runtime_extras

# ---- Files and versions ------------------------------------------------------------------------


def test_files():
    """The library, the C header and the typing marker lie where the functions say."""
    package = pathlib.Path(bitfold.__file__).parent
    library, include = pathlib.Path(bitfold.library_path()), pathlib.Path(bitfold.include_dir())
    assert library.is_absolute()
    assert include.is_absolute()
    assert library.is_file()
    assert library.read_bytes()[:4] == b"\x7fELF"
    assert library.parent == package
    assert (include / "bitfold" / "single_step.h").is_file()
    assert (package / "py.typed").is_file()


def test_public_names():
    """What `import bitfold` offers."""
    assert sorted(bitfold.__all__) == [
        "Arithmetic",
        "Network",
        "Study",
        "UnsupportedModelError",
        "WorkerError",
        "__version__",
        "cmake_dir",
        "data",
        "detection",
        "flush_device_lines",
        "fpx",
        "include_dir",
        "library_path",
        "ops",
        "pkg_config_dir",
        "raw_ops",
        "resize",
        "set_image_threads",
        "set_warnings",
        "study",
        "tables",
        "training",
        "warning_counts",
    ]
    raw_names = {"h_add", "h_bias_add", "h_depth_wise", "h_conv2d", "h_conv2d_dilation"}
    raw_names |= {"h_activation", "h_layernorm", "h_softmax"}
    assert raw_names <= set(dir(bitfold.raw_ops))


def test_one_version():
    """Package, metadata and build agree on the version."""
    cmake = (support.ROOT / "CMakeLists.txt").read_text()
    (version,) = re.findall(r"(?m)^  VERSION ([0-9.]+)$", cmake)
    assert bitfold.__version__ == version
    project = tomllib.loads((support.ROOT / "pyproject.toml").read_text())
    assert "version" in project["project"]["dynamic"], "the version has one address: CMakeLists.txt"
    listing = support.passes(
        support.run_python("import importlib.metadata as m; print(m.version('bitfold'))")
    )
    assert listing.strip() == version


def test_runtime_of_the_metadata():
    """The build requires one version of the runtime; both extras take its patch releases."""
    project = tomllib.loads((support.ROOT / "pyproject.toml").read_text())
    pins = [p for p in project["build-system"]["requires"] if p.startswith("tensorflow")]
    assert pins == [f"tensorflow-cpu=={build_info.TENSORFLOW_VERSION}"]
    series = build_info.TENSORFLOW_VERSION.rpartition(".")[0]
    extras = [r for r in importlib.metadata.requires("bitfold") if r.startswith("tensorflow")]
    assert extras == [
        f'tensorflow-cpu=={series}.*; extra == "cpu"',
        f'tensorflow=={series}.*; extra == "gpu"',
    ]


@pytest.mark.parametrize(
    ("version", "accepted"),
    [("2.20.0", "==2.20.*"), ("2.21.3", "==2.21.*"), ("2.22.0rc1", "==2.22.0rc1")],
)
def test_extras_follow_the_build(monkeypatch, version, accepted):
    """A library that was built against another version says so; a pre-release has no patches."""
    monkeypatch.setattr(runtime_extras, "runtime_version", lambda: version)
    extras = runtime_extras.dynamic_metadata({}, {})["optional-dependencies"]
    assert extras == {"cpu": [f"tensorflow-cpu{accepted}"], "gpu": [f"tensorflow{accepted}"]}


def test_extras_without_the_runtime(monkeypatch):
    """A source distribution names what the build will bring."""

    def version(wheel):
        raise importlib.metadata.PackageNotFoundError(wheel)

    monkeypatch.setattr(importlib.metadata, "version", version)
    assert runtime_extras.runtime_version() == build_info.TENSORFLOW_VERSION


# ---- The version check -------------------------------------------------------------------------


def test_matching_versions_pass():
    """Nothing is raised where both are the same, whatever they are."""
    assert check_versions("2.21.0", "2.21.0") is None
    assert check_versions("2.22.0-dev20261122", "2.22.0-dev20261122") is None


def test_patch_releases_pass():
    """Older ones and newer ones; the library is looked at when it is loaded."""
    assert check_versions("2.21.13", "2.21.0") is None
    assert check_versions("2.21.0", "2.21.1") is None


@pytest.mark.parametrize(
    "running", ["2.20.1", "2.22.0", "3.21.0", "2.2.0", "2.21.1rc0", "2.21.1-dev1", "2.21.0+gpu"]
)
def test_other_versions_are_refused(running):
    """The error names both versions and both remedies."""
    with pytest.raises(ImportError) as error:
        check_versions(running, "2.21.0")
    text = str(error.value)
    assert f"bitfold {bitfold.__version__} was built for TensorFlow 2.21.0" in text
    assert f"TensorFlow {running} is running" in text
    assert "pip install tensorflow-cpu==2.21.0" in text
    assert "rebuild bitfold" in text
    tools = "pip install scikit-build-core cmake ninja"
    assert f"{tools} && pip install --no-build-isolation" in text


def test_no_patch_release_of_a_pre_release():
    """What was built for a release candidate is for it alone."""
    with pytest.raises(ImportError, match=r"TensorFlow 2\.22\.0 is running"):
        check_versions("2.22.0", "2.22.0rc1")


def test_import_beside_another_version(tmp_path):
    """`import bitfold` fails clearly, before the library is loaded."""
    stub = tmp_path / "tensorflow"
    stub.mkdir()
    (stub / "__init__.py").write_text('__version__ = "1.2.3"\n')
    result = support.run_python("import bitfold", python_path=str(tmp_path))
    assert result.returncode == 1
    last = result.stderr.rstrip().splitlines()[-1]
    assert last.startswith("ImportError: bitfold ")
    assert f"was built for TensorFlow {build_info.TENSORFLOW_VERSION}" in last
    assert "TensorFlow 1.2.3 is running" in last
    assert "pip install" in last


def test_import_without_the_runtime():
    """`import bitfold` says what to install."""
    result = support.run_python("import sys; sys.modules['tensorflow'] = None; import bitfold")
    assert result.returncode == 1
    last = result.stderr.rstrip().splitlines()[-1]
    version = build_info.TENSORFLOW_VERSION
    assert last.startswith("ImportError: bitfold ")
    assert f"needs TensorFlow {version}" in last
    assert f"pip install tensorflow-cpu=={version}" in last


_IMPORT_TWICE = """
import os
os.environ["TF_CPP_MIN_LOG_LEVEL"] = "3"
import tensorflow as tf
loads = []
load = tf.load_op_library
tf.load_op_library = lambda path: loads.append(path) or load(path)
import bitfold
import bitfold.ops
from bitfold import raw_ops
assert loads == [bitfold.library_path()], loads
assert tf.load_op_library(bitfold.library_path()) is raw_ops
maps = {line.split()[-1] for line in open("/proc/self/maps") if "libbitfold" in line}
assert maps == {bitfold.library_path()}, maps
import importlib
importlib.reload(bitfold)
print(bitfold.ops.add([[1]], [[2]]).numpy().item())
"""


def test_import_loads_once():
    """One load however often the package is imported; a reload is harmless."""
    assert support.passes(forks.run(_IMPORT_TWICE)).strip() == "3"


def test_import_is_quiet():
    """Importing prints nothing of its own."""
    result = support.run_python(
        "import tensorflow, keras, os; os.write(1, b'|'); os.write(2, b'|'); import bitfold"
    )
    assert result.returncode == 0
    assert result.stdout == "|"
    assert result.stderr.split("|")[1] == ""


# ---- The exported functions --------------------------------------------------------------------


@pytest.fixture(scope="module")
def library() -> ctypes.CDLL:
    """The library as a foreign-function caller loads it."""
    functions = ctypes.CDLL(bitfold.library_path())
    for name in (
        "accumulator_int_verification",
        "multiplier_verification",
        "shifter_int_acc_verification",
    ):
        getattr(functions, name).restype = ctypes.c_int
    functions.accumulator_fp16_verification.restype = ctypes.c_float
    functions.accumulator_fp16_verification.argtypes = [ctypes.c_float, ctypes.c_float]
    functions.shifter_fp16_acc_verification.restype = ctypes.c_float
    functions.shifter_fp16_acc_verification.argtypes = [ctypes.c_int]
    return functions


@pytest.mark.parametrize(
    ("a", "b", "width", "result", "line"),
    [
        (127, 1, 8, -128, ""),
        (-128, -1, 8, 127, ""),
        (127, 300, 8, 171, ""),  # one wrap only
        (8388607, 0, 32, 8388607, "8388607.000000"),
        (8388606, 0, 32, 8388606, ""),
        (-8388607, 0, 32, -8388607, ""),
        (-8388608, 0, 32, -8388608, "-8388608.000000"),
        (2**31 - 1, 2**31 - 1, 32, 0, "4294967296.000000"),
        # 2^31 is not above 2^31 - 1, which a float does not hold: no wrap, and no int holds it.
        (2**31 - 1, 0, 32, -(2**31), "2147483648.000000"),
        (0, 0, 0, -1, ""),  # above 0.5 - 1: minus 1
    ],
)
def test_accumulator_int(library, printed, a, b, width, result, line):
    """One addition in single precision, its line and its wrap."""
    with printed() as text:
        assert library.accumulator_int_verification(a, b, width) == result
    assert text.out == (support.warning(line) if line else "")


@pytest.mark.parametrize(
    ("a", "b", "result"),
    [
        (2.0**-11, 0.0, 0.0),
        (3 * 2.0**-11, 0.0, 2.0**-9),
        (1.5, 0.0, 1.5),
        (1.5, 2.25, 3.75),
        (40000.0, 0.0, -20000.0),
        (0.0, 40000.0, -20000.0),
        # The first operand is quantised twice: 32768, then -16384.
        (32767.9, 0.0, -16384.0),
        (0.0, 32767.9, -16384.0),  # the sum of 32768 is quantised
        (-0.0, -0.0, -0.0),
    ],
)
def test_accumulator_fp16(library, assert_bits, a, b, result):
    """One addition of quantised operands, quantised."""
    found = library.accumulator_fp16_verification(a, b)
    assert_bits(np.float32(found), np.float32(result))


def test_multiplier_and_shifters(library):
    """The product modulo 2^32, the conversion, and the shift with halves to even."""
    assert library.multiplier_verification(65536, 65536) == 0
    assert library.multiplier_verification(-7, 6) == -42
    assert library.multiplier_verification(2**31 - 1, 2) == -2
    assert library.shifter_fp16_acc_verification(5) == 5.0
    assert library.shifter_fp16_acc_verification(2**24 + 1) == 2.0**24
    shift = library.shifter_int_acc_verification
    cases = {(5, 1): 2, (7, 1): 4, (6, 2): 2, (-5, 1): -2, (123, 0): 123, (-(2**31), 31): -1}
    for arguments, result in cases.items():
        assert shift(*arguments) == result, arguments


def test_exported_functions_against_the_oracle(
    library, reference, printed, assert_bits, assert_lines
):
    """Boundary values crossed with each other, lines included."""
    values = support.INT32_BOUNDARY.tolist()
    for a in values:
        for shift in (*range(-3, 40), 127, -128):
            found = library.shifter_int_acc_verification(a, shift)
            assert found == reference.shift_int(a, shift), (a, shift)
        assert library.shifter_fp16_acc_verification(a) == reference.shift_half(a)
    for a in values:
        for b in values:
            assert library.multiplier_verification(a, b) == reference.multiply(a, b), (a, b)
    for width in (0, 1, 8, 24, 26, 32, 40, 128, 200, -1):
        pairs = [(a, b) for a in values[::2] for b in values]
        with printed() as text:
            found = [library.accumulator_int_verification(a, b, width) for a, b in pairs]
        expected = [reference.accumulator_int(a, b, width) for a, b in pairs]
        assert found == [result for result, _ in expected], width
        assert_lines(text.out, "".join(line for _, line in expected), width=width)
    first, second = support.boundary_pairs(np.float32)
    pairs = list(zip(first.ravel().tolist(), second.ravel().tolist(), strict=True))
    found, expected = (
        np.array([function(a, b) for a, b in pairs], np.float32).reshape(first.shape)
        for function in (library.accumulator_fp16_verification, reference.accumulator_half)
    )
    assert_bits(found, expected, a=first, b=second)


def test_exported_functions_need_no_runtime():
    """A process loads the library by ctypes without importing TensorFlow or bitfold."""
    code = (
        "import ctypes, sys\n"
        "library = ctypes.CDLL(sys.argv[1])\n"
        "print(library.accumulator_int_verification(127, 300, 8), 'tensorflow' in sys.modules)\n"
    )
    result = subprocess.run(
        [sys.executable, "-c", code, bitfold.library_path()],
        capture_output=True,
        text=True,
        check=False,
        env={},
    )
    assert support.passes(result).strip() == "171 False"
