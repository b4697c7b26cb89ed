# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The library's machine code: what each target of the vector loops really has.

A compiler that ignores a request for a target says nothing. The installed library has no names, so
they come from the one in the build tree, whose code must be the same.
"""

from __future__ import annotations

import collections
import functools
import pathlib
import platform
import re
import shutil
import subprocess
from typing import NamedTuple

import pytest
import support

import bitfold

BUILT = support.ROOT / "build" / "package" / "src" / "libbitfold.so"
# The registers that a target's vectors are in; the code for any x86-64 has none of them.
REGISTERS = {"avx2": "%ymm", "avx512": "%zmm", "avx512_vnni": "%zmm", "avx512_vbmi": "%zmm"}
WIDE = re.compile(r"%[yz]mm")
FUSED = re.compile(r"\tvfn?m(?:add|sub)\w+")

pytestmark = [
    pytest.mark.skipif(platform.machine() != "x86_64", reason="the library has one target here"),
    pytest.mark.skipif(shutil.which("objdump") is None, reason="objdump is absent: apt binutils"),
    pytest.mark.skipif(not BUILT.exists(), reason=f"{BUILT} is absent: install the package there"),
]


def _objdump(*arguments: str | pathlib.Path) -> str:
    result = subprocess.run(["objdump", *arguments], capture_output=True, text=True, check=True)
    return result.stdout


class Function(NamedTuple):
    """A function of the library's own; target is empty where it is code for any machine."""

    unit: str
    target: str
    name: str
    code: str


def _unit_of_address() -> dict[int, str]:
    """Return the source file of each function that is local to one."""
    unit = ""
    units = {}
    for line in _objdump("-t", BUILT).splitlines():
        words = line.split()
        if " df *ABS*" in line:
            unit = pathlib.Path(words[-1]).stem
        elif " l " in line and " F .text" in line:
            units[int(words[0], 16)] = unit
    return units


@functools.cache
def functions() -> tuple[Function, ...]:
    """Return the functions of the namespace bitfold, disassembled."""
    units = _unit_of_address()
    found = []
    text = _objdump("-d", "-C", "--no-show-raw-insn", BUILT)
    for match in re.finditer(r"(?m)^([0-9a-f]+) <(.*)>:\n((?:.+\n)*)", text):
        address, name, code = match.groups()
        own = re.match(r"(?:[^(]*? )?bitfold::(?:\(anonymous namespace\)::(\w+)::)?", name)
        if own and not name.endswith("[clone .cold]"):
            target = own[1] if own[1] in {*REGISTERS, "portable"} else ""
            found.append(Function(units.get(int(address, 16), ""), target, name, code))
    return tuple(found)


def _units() -> dict[str, set[str]]:
    """Return the targets that each source file with vector loops is compiled for."""
    units = {}
    for source in sorted((support.ROOT / "src").rglob("*.cc")):
        text = source.read_text()
        targets = {name for name in REGISTERS if f"\nBITFOLD_BEGIN_{name.upper()}\n" in text}
        if '#include "vector/vector_loops.inc"' in text:
            targets |= {"avx2", "avx512"}
        if targets:
            units[source.stem] = targets
    return units


def test_the_installed_code_is_the_built_code(tmp_path):
    """What the other tests read is what is installed."""
    code = []
    for number, library in enumerate((BUILT, bitfold.library_path())):
        section = tmp_path / str(number)
        subprocess.run(
            ["objcopy", "-O", "binary", "--only-section=.text", library, section], check=True
        )
        code.append(section.read_bytes())
    assert code[0], f"{BUILT} has no code"
    assert code[0] == code[1], (
        f"{bitfold.library_path()} is not the library of {BUILT.parent}: install the package anew"
    )


@pytest.mark.parametrize(
    ("unit", "target"), [(u, t) for u, targets in _units().items() for t in sorted(targets)]
)
def test_a_target_has_its_vectors(unit, target):
    """Most of a unit's functions for a target compute in its widest registers."""
    mine = [f for f in functions() if (f.unit, f.target) == (unit, target)]
    plain = [f.name for f in mine if REGISTERS[target] not in f.code]
    assert mine, f"the library has no code of {unit} for {target}; see src/vector/target_code.h"
    assert 2 * len(plain) < len(mine), (
        f"the compiler made no vectors of most loops of {unit} for {target}. What is there in its "
        "way, docs/design.md tells:\n" + "\n".join(plain)
    )


@pytest.mark.parametrize(
    ("instruction", "expected"),
    [
        ("vpdpbusd", {"avx512_vnni", "avx512_vbmi"}),
        ("vpdpwssd", {"avx512_vnni"}),
        ("vpermb", {"avx512_vbmi"}),
    ],
)
def test_dot_products_are_instructions(instruction, expected):
    """The last target has its dot products, with remainders where bytes are permuted."""
    targets = {f.target for f in functions() if f"\t{instruction} " in f.code}
    assert targets == expected


def test_code_for_any_machine_is_plain():
    """Outside the code of a target no instruction needs one."""
    portable = collections.Counter(f.unit for f in functions() if f.target == "portable")
    # What is there for dot products of bytes alone has no form for other machines.
    assert set(portable) == {unit for unit, of in _units().items() if of != {"avx512_vnni"}}
    wide = [f.name for f in functions() if f.target in ("", "portable") and WIDE.search(f.code)]
    assert not wide, "these run on every machine, but not there:\n" + "\n".join(wide)
    too_wide = [f.name for f in functions() if f.target == "avx2" and "%zmm" in f.code]
    assert not too_wide, "these need more than AVX2:\n" + "\n".join(too_wide)


def test_no_product_is_fused_with_a_sum():
    """A product and a sum are two roundings for every target."""
    fused = [f"{f.name}: {m}" for f in functions() for m in FUSED.findall(f.code)]
    assert not fused, (
        "cmake/numerics.cmake forbids this; these were compiled without its flags:\n"
        + "\n".join(fused)
    )
