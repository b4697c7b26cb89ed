# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""A C program, and a C++ one, built against the installed header and library alone."""

from __future__ import annotations

import os
import pathlib
import shutil
import subprocess

import pytest
import support

import bitfold

SOURCE = support.ROOT / "tests" / "c" / "single_step_test.c"
LINES = support.warning("8388607.000000") + support.warning("2147483648.000000")


def _compiler(variable: str, *names: str) -> str:
    for name in (os.environ.get(variable), *names):
        if name and shutil.which(name):
            return name
    pytest.skip(f"no compiler: none of {', '.join(names)} is installed")


def _build(compiler: str, *options: str, program: pathlib.Path, link: bool = True) -> None:
    """Compile with every warning an error, linked to the package's library."""
    library = pathlib.Path(bitfold.library_path())
    command = [compiler, *options, "-Wall", "-Wextra", "-Werror", "-pedantic"]
    command += [f"-I{bitfold.include_dir()}", "-o", str(program)]
    if link:
        # The library finds the runtime by its own search path; the linker need not look for it.
        command += [str(library), f"-Wl,-rpath,{library.parent}", "-Wl,--allow-shlib-undefined"]
    result = subprocess.run(command, capture_output=True, text=True, check=False)
    assert result.returncode == 0, f"{' '.join(command)}\n{result.stderr}"


def _run(program: pathlib.Path) -> None:
    """Run in an empty environment, so that no search path of the caller helps."""
    result = subprocess.run([program], capture_output=True, text=True, check=False, env={})
    output = support.passes(result)
    *lines, last = output.splitlines(keepends=True)
    assert "".join(lines) == LINES
    assert last == "single_step: 24 checks passed\n"


def test_c_program(tmp_path):
    """ISO C, every warning an error."""
    program = tmp_path / "single_step_test"
    _build(_compiler("CC", "cc", "gcc", "clang"), "-std=c11", str(SOURCE), program=program)
    _run(program)


@pytest.mark.parametrize("standard", ["c++11", "c++17"])
def test_cpp_program(tmp_path, standard):
    """The header declares C linkage for C++."""
    source = tmp_path / "program.cc"
    source.write_text(
        '#include "bitfold/single_step.h"\n'
        '#include "bitfold/single_step.h"\n'  # twice: it guards itself
        "int main() { return shifter_int_acc_verification(7, 1) == 4 ? 0 : 1; }\n"
    )
    program = tmp_path / "program"
    compiler = _compiler("CXX", "c++", "g++", "clang++")
    _build(compiler, f"-std={standard}", str(source), program=program)
    result = subprocess.run([program], capture_output=True, check=False, env={})
    assert result.returncode == 0


@pytest.mark.parametrize(
    "header", ["device_lines", "image_threads", "single_step", "warning_counts"]
)
@pytest.mark.parametrize("standard", ["c99", "c11", "c17"])
def test_header_alone(tmp_path, standard, header):
    """The header needs no other before it."""
    source = tmp_path / "header.c"
    source.write_text(f'#include "bitfold/{header}.h"\nint nothing;\n')
    compiler = _compiler("CC", "cc", "gcc", "clang")
    options = (f"-std={standard}", "-Wstrict-prototypes", "-c", str(source))
    _build(compiler, *options, program=tmp_path / "header.o", link=False)


@pytest.mark.parametrize(("variable", "setting"), [(None, 0), ("0", 0), ("1", 1)])
def test_image_threads_from_c(tmp_path, variable, setting):
    """The environment decides as the library is loaded, a call after that."""
    source = tmp_path / "threads.c"
    source.write_text(
        '#include "bitfold/image_threads.h"\n'
        "int main(void) {\n"
        f"  if (bitfold_set_image_threads(7) != {setting}) return 1;\n"
        "  if (bitfold_set_image_threads(0) != 1) return 2;\n"
        "  return bitfold_set_image_threads(0);\n"
        "}\n"
    )
    program = tmp_path / "threads"
    _build(_compiler("CC", "cc", "gcc", "clang"), "-std=c11", str(source), program=program)
    environment = {} if variable is None else {"BITFOLD_IMAGE_THREADS": variable}
    result = subprocess.run([program], capture_output=True, check=False, env=environment)
    assert result.returncode == 0


def test_warning_counts_from_c(tmp_path):
    """The functions link; nothing has counted yet, and no listener is being called."""
    source = tmp_path / "counts.c"
    source.write_text(
        '#include "bitfold/warning_counts.h"\n'
        "static int visited = 0;\n"
        "static void visit(const char* op, const char* node, const BitfoldWarningCounts* n) {\n"
        "  visited += op != 0 && node != 0 && n->out_of_bounds >= 0;\n"
        "}\n"
        "int main(void) {\n"
        "  if (bitfold_set_warnings(1, visit) != 0 || bitfold_counting_word()[0] == 0) return 1;\n"
        "  bitfold_visit_warning_counts(1, visit);\n"
        "  return visited;\n"
        "}\n"
    )
    program = tmp_path / "counts"
    _build(_compiler("CC", "cc", "gcc", "clang"), "-std=c11", str(source), program=program)
    result = subprocess.run([program], capture_output=True, check=False, env={})
    assert result.returncode == 0, result.stderr
