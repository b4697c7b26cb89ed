# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Translates the assembly text that a library embeds into C++, and plants defects in it.

    translate.py LIBRARY OUT.cc
    translate.py LIBRARY OUT.cc --defects COUNT --seed SEED

With defects, OUT.json lists them; the number of each is its place in the list.
"""

from __future__ import annotations

import argparse
import json
import pathlib
import sys
from collections.abc import Sequence

import ptx_cpp
import ptx_defects
import ptx_text


def by_place(defects: Sequence[ptx_defects.Defect]) -> ptx_cpp.Defects:
    """Return the defects as the writer takes them."""
    found: dict[tuple[str, int], list[tuple[int, ptx_text.Instruction | None]]] = {}
    for number, defect in enumerate(defects):
        found.setdefault((defect.kernel, defect.place), []).append((number, defect.altered))
    return found


def listed(defects: Sequence[ptx_defects.Defect]) -> str:
    """Return the defects as JSON."""
    return json.dumps(
        [
            {
                "number": number,
                "kernel": defect.kernel,
                "line": defect.original.line,
                "kind": defect.kind,
                "change": str(defect),
            }
            for number, defect in enumerate(defects)
        ],
        indent=1,
    )


def main() -> None:
    """Write the C++ of a library's texts."""
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("library", type=pathlib.Path)
    parser.add_argument("out", type=pathlib.Path)
    parser.add_argument("--defects", type=int, default=0)
    parser.add_argument("--seed", type=int, default=1)
    options = parser.parse_args()
    texts = ptx_text.texts_in(options.library.read_bytes())
    if not texts:
        sys.exit(f"Need a library with device code that is not compressed, got {options.library}")
    try:
        modules = [ptx_text.read(text) for text in texts]
        every = ptx_defects.all_defects(modules) if options.defects else []
        defects = ptx_defects.sample(every, options.defects, options.seed)
        options.out.write_text(ptx_cpp.cpp_of(modules, by_place(defects)))
    except ptx_text.UnknownTextError as error:
        sys.exit(f"{options.library}: {error}")
    if options.defects:
        print(f"{len(defects)} of {len(every)} defects")
        options.out.with_suffix(".json").write_text(listed(defects))


if __name__ == "__main__":
    main()
