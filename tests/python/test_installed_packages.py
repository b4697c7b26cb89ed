# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The C library and the headers as programs find them that know nothing of the checkout.

The tree that the wheel brings, moved elsewhere, by CMake and by pkg-config. With
BITFOLD_INSTALLED_LONG in the environment, which `make test-long` sets, also the one that
`cmake --install` lays out where there is no TensorFlow, and both by clang.
"""

from __future__ import annotations

import os
import pathlib
import platform
import re
import shutil
import subprocess

import forks
import pytest
import support

import bitfold

PACKAGE = pathlib.Path(bitfold.__file__).parent
SOURCES = support.ROOT / "tests" / "c" / "installed"
C_PROGRAMS = {
    "single_step_test": support.ROOT / "tests" / "c" / "single_step_test.c",
    "fpx_test": support.ROOT / "tests" / "c" / "fpx_test.c",
    "limits_test": SOURCES / "limits_test.c",
}
CPP_PROGRAM = SOURCES / "arithmetic_test.cc"

CASES = [("wheel", "")]
if os.environ.get("BITFOLD_INSTALLED_LONG"):
    CASES += [("wheel", "clang"), ("built", ""), ("built", "clang")]

# With fused instructions where the machine has them, which only the package's own flags keep away.
# In two parts: the flags of the house have one address.
CXXFLAGS = ("-O2 -m" + "arch=native") if platform.machine() == "x86_64" else "-O2"


def _call(*command: str | pathlib.Path, **environment: str) -> str:
    """Run a command without the virtual environment; return what it prints, errors included."""
    clean = {"PATH": "/usr/local/bin:/usr/bin:/bin", "CXXFLAGS": CXXFLAGS, **environment}
    result = subprocess.run(
        [str(word) for word in command],
        env=clean,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        check=False,
    )
    assert result.returncode == 0, f"{' '.join(map(str, command))}\n{result.stdout}"
    return result.stdout


def _compilers(name: str) -> dict[str, str]:
    """Return the environment that chooses compilers."""
    return (
        {"CC": "clang-19", "CXX": "clang++-19"} if name == "clang" else {"CC": "cc", "CXX": "c++"}
    )


def _lay_out(kind: str, prefix: pathlib.Path, build: pathlib.Path) -> None:
    if kind == "wheel":
        for folder in ("include", "lib"):
            shutil.copytree(PACKAGE / folder, prefix / folder)
        return
    _call("cmake", "-S", support.ROOT, "-B", build, "-DBITFOLD_BUILD_LIBRARY=OFF")
    assert "Python" not in (build / "CMakeCache.txt").read_text(), "the C library needs no Python"
    _call("cmake", "--build", build)
    assert not list(build.glob("**/bitfold_kernels.dir/**/*.o")), "nothing else is compiled"
    _call("cmake", "--install", build, "--prefix", prefix)


@pytest.fixture(scope="module", params=sorted({kind for kind, _ in CASES}))
def tree(request, tmp_path_factory) -> tuple[str, pathlib.Path]:
    """A tree of headers, library and packages; it is moved after it was laid out.

    The wheel's packages name its folder, so that keeps its name.
    """
    folder = tmp_path_factory.mktemp(request.param)
    _lay_out(request.param, folder / "laid_out" / "bitfold", folder / "build")
    return request.param, (folder / "laid_out").rename(folder / "moved") / "bitfold"


def _check_programs(folder: pathlib.Path) -> None:
    """Run the four programs in an empty environment."""
    for name in (*C_PROGRAMS, "arithmetic_test"):
        result = subprocess.run([folder / name], capture_output=True, text=True, env={})
        last = support.passes(result).splitlines()[-1]
        assert re.fullmatch(rf"{name.removesuffix('_test')}: \d+ checks passed", last)
        errors = (
            "bitfold: Wrong Explen\nbitfold: Possible bug in addition/subtraction: 0 1100 0010\n"
        )
        assert result.stderr == (errors if name == "limits_test" else "")


@pytest.mark.parametrize("compiler", sorted({compiler for _, compiler in CASES}))
def test_cmake(tree, compiler, tmp_path):
    """`find_package(bitfold)`, C11 and C++17, every warning an error."""
    options = [f"-Dbitfold_DIR={tree[1]}/lib/cmake/bitfold", "-DCMAKE_BUILD_TYPE=Release"]
    _call("cmake", "-G", "Unix Makefiles", "-S", SOURCES, "-B", tmp_path, *options,
          **_compilers(compiler))  # fmt: skip
    _call("cmake", "--build", tmp_path, "-j2")
    _check_programs(tmp_path)


@pytest.mark.parametrize("compiler", sorted({compiler for _, compiler in CASES}))
def test_pkg_config(tree, compiler, tmp_path):
    """The same by hand."""
    library = tree[1] / "lib"
    path = str(library / "pkgconfig")

    def flags(*packages: str) -> list[str]:
        return _call("pkg-config", "--cflags", "--libs", *packages, PKG_CONFIG_PATH=path).split()

    strict = ["-Wall", "-Wextra", "-Werror", "-pedantic", f"-Wl,-rpath,{library}"]
    compilers = _compilers(compiler)
    steps = flags("bitfold-steps")
    for name, source in C_PROGRAMS.items():
        _call(compilers["CC"], "-std=c11", *strict, source, "-o", tmp_path / name, *steps)
    both = [*CXXFLAGS.split(), *strict, "-o", tmp_path / "arithmetic_test"]
    _call(compilers["CXX"], "-std=c++17", *both, CPP_PROGRAM,
          *flags("bitfold-steps", "bitfold-arithmetic"))  # fmt: skip
    _check_programs(tmp_path)
    version = _call("pkg-config", "--modversion", "bitfold-steps", PKG_CONFIG_PATH=path)
    assert version.strip() == bitfold.__version__


def test_every_header_compiles(tree, tmp_path):
    """The definitions need each other and the standard library, in any C++17 program."""
    names = sorted(path.name for path in (tree[1] / "include" / "bitfold").glob("*.h"))
    assert names == sorted(p.name for p in (support.ROOT / "include" / "bitfold").glob("*.h"))
    source = tmp_path / "all.cc"
    source.write_text("".join(f'#include "bitfold/{name}"\n' for name in names))
    _call("c++", "-std=c++17", "-Wall", "-Wextra", "-Werror", "-pedantic", "-fsyntax-only",
          f"-I{tree[1]}/include", source)  # fmt: skip


def test_the_library_needs_c_and_cpp_alone(tree):
    """No runtime, and no search path, which would be the builder's."""
    text = _call("readelf", "-d", tree[1] / "lib" / "libbitfold_steps.so")
    needed = set(re.findall(r"\(NEEDED\).*\[(.*)\]", text))
    assert needed <= {"libstdc++.so.6", "libm.so.6", "libgcc_s.so.1", "libc.so.6"}
    assert "libc.so.6" in needed
    assert re.findall(r"\(SONAME\).*\[(.*)\]", text) == ["libbitfold_steps.so"]
    assert "PATH)" not in text


def test_the_library_exports_its_functions(tree):
    """And hides everything else; that the map is the headers', test_repository.py checks."""
    listing = _call("nm", "-D", "--defined-only", tree[1] / "lib" / "libbitfold_steps.so")
    exports = (support.ROOT / "cmake" / "steps_exports.map").read_text().split("local:")[0]
    assert {line.split()[-1] for line in listing.splitlines()} == set(
        re.findall(r"(?m)^\s*(\w+);", exports)
    )


def test_both_libraries_in_a_process():
    """The C library, also with its symbols before all others, is no second copy of the ops'."""
    code = """
import ctypes, sys
steps = ctypes.CDLL(sys.argv[1], mode=ctypes.RTLD_GLOBAL)
import bitfold
print(bitfold.ops.add([[100]], [[50]], accumulator_size=8).numpy().item())
print(steps.accumulator_int_verification(100, 50, 8), bitfold.fpx.counters()[0])
"""
    library = PACKAGE / "lib" / "libbitfold_steps.so"
    output = support.passes(forks.run(code, str(library)))
    assert output.split() == ["-106", "-106", "0"]
