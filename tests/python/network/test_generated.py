# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Random networks against the interpreter: every quantised tensor, on bits.

The long form, `make test-long`, compares BITFOLD_NETWORKS networks from the seed
BITFOLD_FIRST_NETWORK on.
"""

from __future__ import annotations

import os

import comparing
import generated
import numpy as np
import pytest
from kinds import IMPORTED
from witness import Witness

# A round of the blocks.
COUNT = int(os.environ.get("BITFOLD_NETWORKS", len(generated.BLOCKS)))
FIRST = int(os.environ.get("BITFOLD_FIRST_NETWORK", 0))
SEEDS = range(FIRST, FIRST + COUNT)
_QUICK = 4  # of these without the mark: for make check
_BATCH = 3

# What a round holds: every kind that the converter writes for such blocks. Of a squeeze it makes a
# RESHAPE; products are those of shapes.
KINDS = IMPORTED - {"SQUEEZE"} | {"REDUCE_PROD"}
_compared: dict[int, set[str]] = {}


@pytest.mark.parametrize(
    "seed", [s if s < FIRST + _QUICK else pytest.param(s, marks=pytest.mark.slow) for s in SEEDS]
)
def test_network_equals_interpreter(seed):
    """Three images of all stored values at once, and one alone."""
    made = generated.network(seed)
    reference = Witness(made.content)
    rng = np.random.default_rng(seed)
    inputs = [
        comparing.stored_values(
            rng, reference.dtype(i), (_BATCH, *reference.shape(i)[1:]), is_near=seed % 2 == 0
        )
        for i in reference.inputs
    ]
    reproducer = f"seed {seed} (generated.network({seed}), {made.activation_bits} bits)"
    comparing.assert_equals_witness(made.content, inputs, reproducer)
    _compared[seed] = set(reference.kinds)


@pytest.mark.slow
def test_every_kind_occurred():
    """The networks hold every kind of operator that is meant."""
    if set(_compared) != set(SEEDS) or len(generated.BLOCKS) > COUNT:
        pytest.skip("some networks were left out, or failed")
    missing = KINDS - set().union(*_compared.values())
    assert not missing, f"no network has {sorted(missing)}: add a block, or seeds"
