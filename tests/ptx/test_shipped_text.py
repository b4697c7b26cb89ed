# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The device code that ships, run on the host: against the definitions, and with defects planted.

BITFOLD_DEVICE_TEXT_LONG=1 makes the long form of the comparisons; BITFOLD_DEFECTS is how many
defects are planted.
"""

from __future__ import annotations

import collections
import os
import re
import subprocess

import planting
import ptx_text
import pytest
from conftest import PACKAGE_BUILD

IS_LONG = bool(os.environ.get("BITFOLD_DEVICE_TEXT_LONG"))


def _run(*command) -> str:
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    assert done.returncode == 0, f"{done.stdout[-6000:]}{done.stderr[-2000:]}"
    return done.stdout


def test_the_text_is_the_installed_librarys(library):
    """What is translated is what the build linked, which is what is installed."""
    built = (PACKAGE_BUILD / "libbitfold.so").read_bytes()
    assert ptx_text.texts_in(library) == ptx_text.texts_in(built)


def test_the_instructions(programs):
    """As the definition of the text has them, in each rounding."""
    assert _run(programs / "instructions_test").endswith("0 failures\n")


def test_the_text_computes_what_is_defined(programs):
    """Every kernel, type, arithmetic, geometry and printed line that the program has."""
    output = _run(programs / "shipped_test", *(["--all"] if IS_LONG else []))
    print("", *output.splitlines()[-2:], sep="\n")
    passed, failed = re.search(r"(\d+) passed, (\d+) failed\n$", output).groups()
    assert int(failed) == 0
    assert int(passed) > 20000


@pytest.fixture(scope="module")
def planted(programs) -> list[planting.Planted]:
    """What became of each defect."""
    listed = programs / "planted_test_text.json"
    return planting.run(programs / "planted_test", listed)


def test_planted_defects_are_reached(planted):
    """The comparisons execute every instruction that the sample alters."""
    print(f"\n{planting.report(planted)}")
    assert len(planted) >= 200
    if IS_LONG:
        return  # which has those that need more than a quick comparison to get to
    assert not [str(p) for p in planted if not p.reached]


# In hundred. What is not found has no effect on any result: see docs/testing.md.
FOUND = {"barrier": 100, "constant": 80, "operator": 65, "predicate": 90, "register": 85}
# Of those that gave something else. How many do not is for the sample to say: a larger one has more
# of the product's instructions, many of which are exact.
FOUND_OF_OTHERS = {"barrier": 100, "constant": 85, "operator": 75, "predicate": 90, "register": 85}


@pytest.mark.parametrize("kind", FOUND)
def test_planted_defects_are_found(planted, kind):
    """Those that give something else, but for the few without effect; of roundings see below."""
    of_kind = [p for p in planted if p.kind == kind]
    found = sum(p.is_found for p in of_kind)
    others = sum(p.differed > 0 for p in of_kind)
    assert 100 * found >= FOUND_OF_OTHERS[kind] * others, planting.report(of_kind)
    if len(of_kind) < 100:
        assert 100 * found >= FOUND[kind] * len(of_kind), planting.report(of_kind)


def test_planted_roundings_are_found(planted):
    """Where one rounds otherwise at all: most operations there are exact."""
    differed = [p for p in planted if p.kind == "rounding" and p.differed]
    verdicts = collections.Counter(p.is_found for p in differed)
    assert verdicts[True] > verdicts[False], planting.report(differed)
