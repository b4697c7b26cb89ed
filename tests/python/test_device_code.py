# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The device code inside the library: what is embedded, and what assembles it."""

from __future__ import annotations

import pathlib
import re
import struct
import subprocess

import pytest

import bitfold

ROOT = pathlib.Path(__file__).resolve().parents[2]
ADDITIONS = (
    "AddEwFeedRepeat_4D",
    "AddEwFeedRepeat_2D",
    "AddFeedRepeat",
    "AddDecomposedFeedRepeat",
    "AddStandaloneEw",
)
CONVOLUTION = ("ker2row_kernel", "im2col_kernel", "matrix_mul_opt_kernel")
# The embedded code is for the first; later ones compile its text when it is loaded.
ARCHITECTURES = (61, 70, 75, 80, 86, 89, 90, 100, 120)


@pytest.fixture(scope="module")
def library() -> bytes:
    """The library's bytes; they must hold device code unless it was left out on purpose."""
    code = pathlib.Path(bitfold.library_path()).read_bytes()
    if b"GPUDevice" not in code:
        pytest.skip("the package was built with BITFOLD_GPU=OFF")
    return code


@pytest.fixture(scope="module")
def texts(library) -> list[bytes]:
    """The embedded assembly texts, uncompressed."""
    return re.findall(rb"\.version \d+\.\d+\s+\.target sm_[^\0]*", library)


@pytest.mark.parametrize("kernel", ADDITIONS + CONVOLUTION)
@pytest.mark.parametrize("type_code", ["f", "i"])
def test_each_kernel_is_embedded(texts, kernel, type_code):
    """Every kernel under its name, for both element types."""
    name = f"_ZN7bitfold{len(kernel)}{kernel}I{type_code}EEv".encode()
    assert sum(b".entry " + name in text for text in texts) == 1


def test_the_text_is_for_the_oldest_device(texts):
    """A newer device compiles the text itself, an older one cannot."""
    assert texts
    for text in texts:
        assert re.search(rb"(?m)^\.target sm_61$", text)


def test_machine_code_is_embedded(library):
    """Beside each text its machine code: an ELF file of the device's kind for 6.1."""
    machines = []
    for match in re.finditer(rb"\x7fELF\x02\x01", library):
        header = library[match.start() : match.start() + 64]
        machine, _, _, _, _, flags = struct.unpack_from("<HIQQQI", header, 18)
        if machine == 190:
            machines.append(flags & 0xFF)
    assert len(machines) == 5  # a file of kernels for each op that has them
    assert set(machines) == {61}


@pytest.mark.parametrize("architecture", ARCHITECTURES)
def test_the_text_assembles(texts, architecture, tmp_path):
    """The assembler takes each text for its own device and for those that came later."""
    assembler = ROOT / ".cuda" / "bin" / "ptxas"
    if not assembler.exists():
        pytest.skip("no .cuda/bin/ptxas: the package was built with another toolkit")
    for i, text in enumerate(texts):
        source = tmp_path / f"{i}.ptx"
        source.write_bytes(text)
        command = [assembler, f"-arch=sm_{architecture}", "-o", tmp_path / f"{i}.cubin", source]
        done = subprocess.run(command, capture_output=True, text=True, check=False)
        assert done.returncode == 0, done.stderr
