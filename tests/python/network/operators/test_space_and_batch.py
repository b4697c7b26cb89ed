# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""SPACE_TO_BATCH_ND and BATCH_TO_SPACE_ND: images stay apart; there and back; refusals."""

from __future__ import annotations

import numpy as np
import pytest
from packed import compare, constant, network, operator, tensor
from refusing import assert_refused

CASES = [
    ([1, 5, 4, 3], [2, 3], [[0, 1], [1, 1]], [6, 3, 2, 3]),
    ([2, 5, 4, 3], [2, 3], [[0, 1], [1, 1]], [12, 3, 2, 3]),
    ([2, 5, 3], [2], [[0, 1]], [4, 3, 3]),
    ([1, 6, 6, 1], [1, 1], [[0, 0], [0, 0]], [1, 6, 6, 1]),
]


@pytest.mark.parametrize(("shape", "block", "margins", "parts"), CASES)
@pytest.mark.parametrize("dtype", ["int8", "int16"])
def test_both_directions(shape, block, margins, parts, dtype):
    """Around the image lies the zero point."""
    zero_point = 5 if dtype == "int8" else 0
    whole, cut = (tensor(s, dtype, 0.5, zero_point) for s in (shape, parts))
    inputs = [constant(block), constant(margins)]
    compare(operator("SPACE_TO_BATCH_ND", [whole, *inputs], [cut]))
    compare(operator("BATCH_TO_SPACE_ND", [cut, *inputs], [whole]))


def test_a_dilated_convolution():
    """As converters write it: parts of an image are images to the convolution."""
    rng = np.random.default_rng(3)
    x, y = tensor([1, 8, 8, 2], "int8", 0.5, 3), tensor([1, 4, 4, 3], "int8", 30.0, -3)
    cut, sums = tensor([4, 4, 4, 2], "int8", 0.5, 3), tensor([4, 2, 2, 3], "int8", 30.0, -3)
    block, none = constant([2, 2]), constant([[0, 0], [0, 0]])
    filter = tensor([3, 3, 3, 2], "int8", 0.1, data=rng.integers(-127, 127, [3, 3, 3, 2]))
    bias = tensor([3], "int32", 0.05, data=rng.integers(-900, 900, 3))
    options = {"padding": "VALID", "stride_h": 1, "stride_w": 1}
    compare(
        network(
            [
                ("SPACE_TO_BATCH_ND", [x, block, none], [cut], {}, 1),
                ("CONV_2D", [cut, filter, bias], [sums], options, 1),
                ("BATCH_TO_SPACE_ND", [sums, block, none], [y], {}, 1),
            ]
        )
    )


def test_refusals():
    """Blocks that do not fit, margins that leave nothing, other ranks and scales."""
    x, out = tensor([4, 4, 4, 1], "int8", 0.5), [tensor([1, 1, 1, 1], "int8", 0.5)]
    none = constant([[0, 0], [0, 0]])
    to_batch, to_space = "SPACE_TO_BATCH_ND", "BATCH_TO_SPACE_ND"
    assert_refused("need whole blocks [3, 2]", to_batch, [x, constant([3, 2]), none], out)
    assert_refused("need a block above 0", to_batch, [x, constant([0, 2]), none], out)
    assert_refused("need images for blocks [3, 1], got 4", to_space,
                   [x, constant([3, 1]), none], out)  # fmt: skip
    assert_refused("need pixels within the margins", to_space,
                   [x, constant([2, 2]), constant([[4, 4], [0, 0]])], out)  # fmt: skip
    assert_refused("need the data of rank 3 or 4", to_batch,
                   [tensor([1, 4], "int8", 0.5), constant([2, 2]), none], out)  # fmt: skip
    assert_refused("need one scale and zero point", to_batch, [x, constant([2, 2]), none],
                   [tensor([16, 2, 2, 1], "int8", 0.25)])  # fmt: skip
