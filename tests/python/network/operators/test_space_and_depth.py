# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""SPACE_TO_DEPTH and DEPTH_TO_SPACE: rows of several images, every type, refusals."""

from __future__ import annotations

import pytest
from packed import compare, operator, tensor
from refusing import assert_refused

CASES = [
    ([2, 4, 6, 3], 2, [2, 2, 3, 12]),
    ([1, 3, 6, 2], 3, [1, 1, 2, 18]),
    ([1, 2, 2, 1], 1, [1, 2, 2, 1]),
]


@pytest.mark.parametrize(("wide", "block", "deep"), CASES)
@pytest.mark.parametrize("dtype", ["int8", "int32", "float32"])
def test_both_directions(wide, block, deep, dtype):
    """The runtime has none for 16 bits."""
    scale = 0.5 if dtype == "int8" else None
    one, other = tensor(wide, dtype, scale), tensor(deep, dtype, scale)
    compare(operator("SPACE_TO_DEPTH", [one], [other], {"block_size": block}))
    compare(operator("DEPTH_TO_SPACE", [other], [one], {"block_size": block}))


def test_refusals():
    """Blocks that do not fit."""
    x, out = tensor([1, 4, 6, 4], "int8", 0.5), [tensor([1, 1, 1, 1], "int8", 0.5)]
    assert_refused("need whole blocks of 4 pixels", "SPACE_TO_DEPTH", [x], out, {"block_size": 4})
    assert_refused("need channels for 3 x 3 pixels", "DEPTH_TO_SPACE", [x], out, {"block_size": 3})
    assert_refused("need block_size >= 1, got 0", "DEPTH_TO_SPACE", [x], out, {"block_size": 0})
    assert_refused("need the data of rank 4", "SPACE_TO_DEPTH", [tensor([4, 4], "int8", 0.5)], out,
                   {"block_size": 2})  # fmt: skip
