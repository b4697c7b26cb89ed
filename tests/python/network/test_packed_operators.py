# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Each operator alone, in files that no converter writes, against the interpreter on bits.

The cases of an operator run to their end, so that a failure shows all of them.
"""

from __future__ import annotations

import numpy as np
import packed
import place_cases
import pytest
import sum_cases
import value_cases
from kinds import IMPORTED

CASES = sum_cases.CASES | value_cases.CASES | place_cases.CASES

# The runtime has no kernel of these for 16 bits, so there is nothing to compare with.
ONLY_INT8 = {
    "DEPTH_TO_SPACE",
    "HARD_SWISH",
    "RELU_N1_TO_1",
    "SPACE_TO_DEPTH",
    "SQUARED_DIFFERENCE",
    "TILE",
}


def test_every_operator_has_cases():
    """An operator that is imported is compared alone."""
    assert set(CASES) == IMPORTED


@pytest.mark.parametrize(
    ("kind", "dtype"),
    [(k, d) for k in CASES for d in ("int8", "int16") if d == "int8" or k not in ONLY_INT8],
)
def test_operator_equals_interpreter(kind, dtype):
    """All stored values; three images at once, and one."""
    failures = []
    cases = list(CASES[kind](dtype, np.random.default_rng(1)))
    for turn, case in enumerate(cases):
        try:
            packed.compare(case)
        except Exception as error:  # a refusal, too, is one of many
            failures.append(f"case {turn}, {type(error).__name__}: {error}")
    assert not failures, f"{len(failures)} of {len(cases)} fail\n" + "\n".join(failures)
