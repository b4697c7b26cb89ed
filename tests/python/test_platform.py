# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The systems on which the installed library loads: those of the runtime's own wheels."""

from __future__ import annotations

import ctypes
import importlib.metadata
import math
import pathlib
import re
import shutil
import subprocess
import sys
import zipfile

import pytest
import support
import tensorflow as tf

import bitfold

sys.path.insert(0, str(support.ROOT / "scripts"))

import build_wheel

LIBRARY = pathlib.Path(bitfold.library_path())
RUNTIME = pathlib.Path(tf.sysconfig.get_lib()) / "libtensorflow_framework.so.2"

needs_objdump = pytest.mark.skipif(
    shutil.which("objdump") is None, reason="objdump is absent: apt binutils"
)


def _objdump(option: str, library: pathlib.Path) -> str:
    command = ("objdump", option, str(library))
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


def _symbols(library: pathlib.Path) -> list[tuple[str, str, str]]:
    """Return kind, version and name of each versioned symbol that a library takes from others."""
    pattern = r"(?m)\*UND\*\s+\S+\s+\(?([A-Z]+)_([\d.]+)\)?\s+(\S+)$"
    return re.findall(pattern, _objdump("-T", library))


def _newest(library: pathlib.Path) -> dict[str, list[int]]:
    newest: dict[str, list[int]] = {}
    for kind, version, _ in _symbols(library):
        newest[kind] = max(newest.get(kind, []), build_wheel.parts(version))
    return newest


@needs_objdump
def test_symbols_are_no_newer_than_the_runtime_s():
    """Where the runtime's wheel loads, so does the library."""
    limits = _newest(RUNTIME)
    assert {"GLIBC", "GLIBCXX", "CXXABI", "GCC"} <= set(limits)
    found = [
        f"{name}@{kind}_{version}"
        for kind, version, name in _symbols(LIBRARY)
        if build_wheel.parts(version) > limits[kind]
    ]
    assert not found, (
        "the library asks for more than the runtime does. Forward these to an older version in "
        "src/platform, or do without them:\n" + "\n".join(found)
    )


@needs_objdump
def test_needed_libraries():
    """The framework library and the system's, by names that every system has."""
    needed = set(re.findall(r"(?m)^\s+NEEDED\s+(\S+)$", _objdump("-p", LIBRARY)))
    system = {"libstdc++.so.6", "libm.so.6", "libgcc_s.so.1", "libc.so.6", "ld-linux-x86-64.so.2"}
    assert needed - system == {RUNTIME.name}


def _wheel_of_the_library(folder: pathlib.Path) -> pathlib.Path:
    """Return a wheel, under its plain name, of the installed library alone."""
    stem = f"bitfold-{bitfold.__version__}"
    wheel = folder / f"{stem}-py3-none-linux_x86_64.whl"
    with zipfile.ZipFile(wheel, "w") as archive:
        archive.write(LIBRARY, "bitfold/libbitfold.so")
        description = "Wheel-Version: 1.0\nRoot-Is-Purelib: false\nTag: py3-none-linux_x86_64\n"
        archive.writestr(f"{stem}.dist-info/WHEEL", description)
        archive.writestr(f"{stem}.dist-info/RECORD", "bitfold/libbitfold.so,,\n")
    return wheel


def _glibc(tag: str) -> list[int]:
    (version,) = re.findall(r"manylinux_(\d+_\d+)_x86_64", tag)
    return build_wheel.parts(version.replace("_", "."))


def test_a_wheel_gets_the_platform_of_its_symbols(tmp_path):
    """As auditwheel knows the platforms; it is no newer than the runtime's wheel says."""
    found = build_wheel.audit(_wheel_of_the_library(tmp_path))
    tag = build_wheel.platform_tag(found)
    of_runtime = importlib.metadata.distribution("tensorflow-cpu").read_text("WHEEL")
    assert _glibc(tag) <= _glibc(of_runtime)
    assert _glibc(tag) >= build_wheel.parts(build_wheel.newest_symbols(found)["GLIBC"])


@pytest.mark.parametrize(
    ("change", "what"),
    [
        ({"external_libs": {"libtensorflow_framework.so.2": None, "libz.so.1": None}}, "libz.so.1"),
        ({"unsupported_isa": True}, "instructions"),
    ],
)
def test_wheels_that_get_no_platform(change, what):
    """What would not load, or not run, elsewhere is refused."""
    found = {"sym_tag": "manylinux_2_27_x86_64", "external_libs": {}, "unsupported_isa": False}
    assert build_wheel.platform_tag(found) == "manylinux_2_27_x86_64"
    with pytest.raises(SystemExit, match=what):
        build_wheel.platform_tag(found | change)


def test_powers_of_two_by_their_old_version():
    """The form that the library is forwarded to is exact for all that it gives it."""
    libm = ctypes.CDLL("libm.so.6")
    find = ctypes.CDLL(None).dlvsym
    find.restype = ctypes.c_void_p
    address = find(ctypes.c_void_p(libm._handle), b"exp2", b"GLIBC_2.2.5")
    exp2 = ctypes.CFUNCTYPE(ctypes.c_double, ctypes.c_double)(address)
    for exponent in (*range(-1100, 1024), -(2**30), -(2**31)):
        assert exp2(exponent) == math.ldexp(1.0, exponent), exponent
    assert exp2(1024) == math.inf
    assert exp2(2**30) == math.inf


def test_no_folder_of_this_machine():
    """What is given away does not say where it was built."""
    content = LIBRARY.read_bytes()
    for folder in (support.ROOT, LIBRARY.parents[1]):
        assert f"{folder}/".encode() not in content
