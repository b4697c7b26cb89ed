#!/usr/bin/env python3
# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Counts the instructions of a multiply-add in the machine code of the product's kernel.

    scripts/device_instructions.py                  the text in the built library, for 7.5 and 9.0
    scripts/device_instructions.py FILE 80          that in another library or .ptx file, for 8.0

A GPU's driver makes machine code of the library's text when it first runs it; `ptxas` of .cuda does
so here. Each loop that reads tiles is walked on its shortest way round, which no warning, wrap or
overflow leaves; its instructions, those that fetch the next tile among them, are divided by the
products that it sums. Needs `nvdisasm`: of a CUDA toolkit, or the package nvidia-cuda-nvdisasm;
NVDISASM names another. Version 13 knows devices from 7.5 on.
"""

from __future__ import annotations

import collections
import heapq
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
from typing import NamedTuple

ROOT = pathlib.Path(__file__).resolve().parents[1]
LIBRARY = ROOT / "build" / "package" / "src" / "libbitfold.so"
KERNEL = "matrix_mul_opt_kernel"
DOT_PRODUCT = "IDP.4A.S8.S8"
TYPES = {"f": "float", "i": "int32"}

INSTRUCTION = re.compile(r"^\s+/\*([0-9a-f]+)\*/\s+(.*?)\s*;", re.MULTILINE)
FUNCTION = re.compile(r"(?m)^\.text\.(\S+):\n(.*?)(?=^\s+\.section|\Z)", re.DOTALL)


class Instruction(NamedTuple):
    """One instruction; `next` are those that may follow it, by their places."""

    text: str
    next: tuple[int, ...]

    @property
    def operation(self) -> str:
        """Return the name with its modifiers."""
        return re.sub(r"^@!?U?P\w+\s+", "", self.text).split()[0]

    @property
    def words(self) -> int:
        """Return how many words of shared memory it brings to a thread."""
        if not re.match(r"LDS\b", self.operation):
            return 0
        return {"128": 4, "64": 2}.get(self.operation.split(".")[-1], 1)


def parse(code: str) -> list[Instruction]:
    """Read the instructions of a disassembled function and what may follow each."""
    labels: dict[str, int] = {}
    texts: list[str] = []
    for line in code.splitlines():
        if label := re.match(r"(\.L_x_\d+):", line):
            labels[label[1]] = len(texts)
        elif match := INSTRUCTION.match(line):
            texts.append(match[2])
    instructions = []
    for place, text in enumerate(texts):
        following = {place + 1} if place + 1 < len(texts) else set()
        target = re.search(r"\bBRA\b.*`\((\.L_x_\d+)\)", text)
        if target and not re.search(r"@|BRA\S*\s+!?U?P", text):
            following = set()
        if re.match(r"(EXIT|RET)", text):
            following = set()
        if target:
            following.add(labels[target[1]])
        instructions.append(Instruction(text, tuple(sorted(following))))
    return instructions


def shortest(code: list[Instruction], begin: int, end: int) -> list[int]:
    """Return the places from `begin`, included, to `end`, not included; empty if it is not met."""
    came_from: dict[int, int] = {}
    waiting = [(1, following, begin) for following in code[begin].next]
    heapq.heapify(waiting)
    while waiting:
        length, place, before = heapq.heappop(waiting)
        if place in came_from:
            continue
        came_from[place] = before
        if place == end:
            way = [before]
            while way[-1] != begin:
                way.append(came_from[way[-1]])
            return way[::-1]
        for following in code[place].next:
            heapq.heappush(waiting, (length + 1, following, place))
    return []


def arithmetic(operations: collections.Counter[str], text: str, kind: str, products: int) -> str:
    """Say what a loop computes, by instructions that only such a loop has."""
    if products == 1:
        return "step by step"
    if DOT_PRODUCT in operations:
        return "bytes"
    if kind == "i":
        shifts = sum(n for name, n in operations.items() if name.startswith("SHF.R"))
        return "shift" if shifts >= products else "no scaling"
    half = "half precision, " if "FADD.RM" in operations or " 4097" in text else ""
    if "FCHK" in operations:
        return half + "division"
    multiplies = operations["FMUL"] / products
    if half:
        return half + ("division by a power of 2" if " 4097" in text else "no scaling")
    return "division by a power of 2" if multiplies >= 2 else "no scaling"


class Loop(NamedTuple):
    """What a loop computes, its instructions, and the products that it sums in a round."""

    name: str
    instructions: int
    products: int


def loops(code: list[Instruction], kind: str) -> list[Loop]:
    """Return the loops that read tiles, each once."""
    found: dict[frozenset[int], Loop] = {}
    for read in (place for place, instruction in enumerate(code) if instruction.words):
        way = shortest(code, read, read)
        if not way:
            continue
        operations = collections.Counter(code[place].operation for place in way)
        # A product takes a word of each factor; of bytes, a word has four.
        products = sum(code[place].words for place in way) // 2
        if DOT_PRODUCT in operations:
            products *= 4
        text = "\n".join(code[place].text for place in way)
        name = arithmetic(operations, text, kind, products)
        found[frozenset(way)] = Loop(name, len(way), products)
    return sorted(found.values(), key=lambda loop: (loop.products == 1, loop.instructions))


def disassembler() -> str:
    """Return the disassembler's path."""
    places = [os.environ.get("NVDISASM", ""), "nvdisasm", "/usr/local/cuda/bin/nvdisasm"]
    places += map(str, ROOT.glob(".venv/lib/python*/site-packages/nvidia/cu13/bin/nvdisasm"))
    found = next(filter(None, map(shutil.which, filter(None, places))), None)
    if found is None:
        sys.exit(
            "Need nvdisasm of a CUDA toolkit, got none. Install one, or the package "
            "nvidia-cuda-nvdisasm with pip, or name it: NVDISASM=..."
        )
    return found


def disassembled(ptx: bytes, architecture: str) -> str:
    """Assemble a text for the architecture and return what the machine code is."""
    with tempfile.TemporaryDirectory() as folder:
        source, cubin = pathlib.Path(folder, "text.ptx"), pathlib.Path(folder, "code.cubin")
        source.write_bytes(ptx)
        assembler = ROOT / ".cuda" / "bin" / "ptxas"
        command = [assembler, f"-arch=sm_{architecture}", "-o", cubin, source]
        subprocess.run(command, check=True)
        command = [disassembler(), "-c", cubin]
        return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def main(arguments: list[str]) -> None:
    """Print a table for each element type and architecture."""
    file = pathlib.Path(LIBRARY)
    if arguments and not arguments[0].isdigit():
        file = pathlib.Path(arguments.pop(0))
    if not file.exists():
        sys.exit(f"Need a library with device code or a .ptx file, got no file {file}")
    texts = re.findall(rb"\.version \d+\.\d+\s+\.target sm_[^\0]*", file.read_bytes())
    wanted = [text for text in texts if KERNEL.encode() in text]
    if not wanted:
        sys.exit(f"Need a file with the text of {KERNEL}, got none in {file}")
    for architecture in arguments or ["75", "90"]:
        for name, code in FUNCTION.findall(disassembled(wanted[0], architecture)):
            if match := re.search(KERNEL + r"I(\w)EEv", name):
                print(f"\n{TYPES[match[1]]}, compute capability {architecture}")
                for loop in loops(parse(code), match[1]):
                    each = loop.instructions / loop.products
                    print(f"  {each:6.1f} a multiply-add  {loop.products:3} a round  {loop.name}")


if __name__ == "__main__":
    main(sys.argv[1:])
