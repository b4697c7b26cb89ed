# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Runs the comparisons with each planted defect and says which are found.

planting.py PROGRAM LIST.json
"""

from __future__ import annotations

import collections
import concurrent.futures
import json
import os
import pathlib
import re
import subprocess
import sys
from typing import NamedTuple

SECONDS = 3  # of a processor; the comparisons of a kernel take up to one

# Groups of comparisons by the kernel, up to its type.
_TYPES = {"f": "float", "i": "int32"}


class Planted(NamedTuple):
    """A defect and what became of it."""

    kernel: str
    line: int
    kind: str
    change: str
    verdict: str  # found, ended, endless, same
    reached: int
    differed: int

    @property
    def is_found(self) -> bool:
        """Whether a comparison failed, the process broke, or it did not end."""
        return self.verdict != "same"

    @property
    def why(self) -> str:
        """Return why it changed nothing, as far as the counts tell."""
        if not self.reached:
            return "never reached"
        return "changes what follows" if self.differed else "never gives anything else"


def groups(symbol: str) -> list[str]:
    """Return the groups of comparisons that run a kernel, by the begins of their names."""
    match = re.match(r"_ZN7bitfold\d+(\w+?)I([fi])EEv", symbol)
    assert match is not None
    name, type_ = match[1], _TYPES[match[2]]
    first = f"{name} {type_}" if name.startswith("Add") else f"convolution {type_}"
    return [first, f"printed lines of {type_}"]


def _run(program: pathlib.Path, defects: list[dict]) -> list[Planted]:
    lines = ["\t".join([str(d["number"]), *groups(d["kernel"])]) for d in defects]
    done = subprocess.run(
        [program, str(SECONDS)],
        input="\n".join(lines),
        text=True,
        capture_output=True,
        check=True,
    )
    verdicts = [line.split("\t") for line in done.stdout.splitlines()]
    assert [int(v[0]) for v in verdicts] == [d["number"] for d in defects]
    return [
        Planted(d["kernel"], d["line"], d["kind"], d["change"], v[1], int(v[2]), int(v[3]))
        for d, v in zip(defects, verdicts, strict=True)
    ]


def run(program: pathlib.Path, listed: pathlib.Path) -> list[Planted]:
    """Run the program on a list of defects, on all cores."""
    defects = json.loads(listed.read_text())
    parts = [defects[i :: os.cpu_count()] for i in range(os.cpu_count() or 1)]
    with concurrent.futures.ThreadPoolExecutor(len(parts)) as pool:
        results = pool.map(lambda part: _run(program, part), parts)
    return [planted for result in results for planted in result]


def report(all_planted: list[Planted]) -> str:
    """Return how many were found by kind, and each other with its reason."""
    lines = []
    for kind in sorted({p.kind for p in all_planted}):
        of_kind = [p for p in all_planted if p.kind == kind]
        reasons = collections.Counter(p.why for p in of_kind if not p.is_found)
        others = ", ".join(f"{count} {why}" for why, count in sorted(reasons.items()))
        found = sum(p.is_found for p in of_kind)
        lines.append(f"{kind:10} {found:5} of {len(of_kind):5} found; {others}".rstrip("; "))
    for p in sorted(all_planted):
        if not p.is_found:
            kernel = "".join(re.findall(r"_ZN7bitfold\d+(\w+?)I([fi])EEv", p.kernel)[0])
            lines.append(f"{kernel}:{p.line}: {p.kind}: {p.change}: {p.why}")
    return "\n".join(lines)


if __name__ == "__main__":
    print(report(run(pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]))))
