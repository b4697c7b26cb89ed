# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""ADD and SUB: every pair of stored values, scales far apart, shifts for powers of two."""

from __future__ import annotations

import numpy as np
import pytest
from packed import compare, operator, tensor
from refusing import assert_refused

EVERY = np.arange(-128, 128).astype(np.int8)
# Multiplied by the first operand's scale: equal, powers of two and their neighbours, far apart.
RATIOS = (1.0, 2.0, 0.5, 1.9999999, 0.50000006, 2.0**-9, 3.3, 2.0**-29, 1e-6)
SHAPES = (
    ([1, 4, 5], [1, 4, 5]),
    ([2, 3, 4], [2, 3, 4]),
    ([2, 3, 4], [1, 3, 1]),
    ([1, 3, 2, 4], [1, 4]),
    ([1, 3, 2, 4], [2, 4]),
    ([1, 4], [3, 1, 4]),
    ([1, 2, 1, 3, 2], [1, 1, 4, 1, 2]),
)
ROW = [1, 257]


@pytest.mark.parametrize("kind", ["ADD", "SUB"])
@pytest.mark.parametrize("ratio", RATIOS)
def test_every_pair_of_stored_values(kind, ratio):
    """Zero points at the ends and between, every fused activation by turns."""
    first, second = (x.reshape(1, 256, 256) for x in np.meshgrid(EVERY, EVERY))
    for turn in (RATIOS.index(ratio), RATIOS.index(ratio) + 2):
        fused = ("NONE", "RELU", "RELU6", "RELU_N1_TO_1")[turn % 4]
        zero_points = [(-128, 127, 0)[(turn + i) % 3] for i in range(3)]
        scales = (0.07, 0.07 * ratio, 0.11)
        a, b, out = (
            tensor(first.shape, "int8", scale, zero_point)
            for scale, zero_point in zip(scales, zero_points, strict=True)
        )
        case = operator(kind, [a, b], [out], {"fused_activation_function": fused})
        compare(case, [first, second])


@pytest.mark.parametrize("kind", ["ADD", "SUB"])
@pytest.mark.parametrize(
    ("first", "second", "dtype"),
    [(*pair, ("int8", "int16")[turn % 2]) for turn, pair in enumerate(SHAPES)],
)
def test_operands_meet_within_their_image(kind, first, second, dtype):
    """Rows of several images, other ranks, constants of every shape."""
    out = tensor(np.broadcast_shapes(first, second), dtype, 0.3)
    a, b = tensor(first, dtype, 0.11), tensor(second, dtype, 0.2)
    options = {"pot_scale_int16": False}
    compare(operator(kind, [a, b], [out], options))
    compare(operator(kind, [b, a], [out], options))
    constant = tensor(second, dtype, 0.2, data=np.arange(np.prod(second)) - 5)
    compare(operator(kind, [a, constant], [out], options))
    compare(operator(kind, [constant, a], [out], options))


@pytest.mark.parametrize("kind", ["ADD", "SUB"])
@pytest.mark.parametrize("shift", [0, 1, 2, 7, 14, 15])
@pytest.mark.parametrize("swapped", [False, True])
def test_shifts_of_int16(kind, shift, swapped):
    """Where a file asks for them and scales are nearly powers of two: 1.0005 is, 1.001 is not."""
    for factor in (1.0, 1.0005, 1.001):
        scales = [factor * 2.0**-shift, factor]
        a, b = (tensor(ROW, "int16", scale) for scale in (scales[::-1] if swapped else scales))
        compare(operator(kind, [a, b], [tensor(ROW, "int16", factor)]))


def _refused(text, scales, dtype="int8", shapes=(ROW, ROW, ROW), **options):
    tensors = [tensor(s, dtype, scale) for s, scale in zip(shapes, scales, strict=True)]
    assert_refused(text, "ADD", tensors[:2], tensors[2:], options)


def test_refusals():
    """What ends the runtime's process, or reads what is not there, and what is no sum."""
    _refused("need the multiplier of the sum above 0 and below 1", (1.0, 1.0, 2.0**-19))
    _refused("need one operand of the output's scale", (0.5, 0.5, 1.0), "int16")
    _refused("need one operand of the output's scale", (2.0, 1.0, 1.0), "int16")
    _refused("need one operand of the output's scale", (1.0, 2.0**-16, 1.0), "int16")
    _refused("need operands of one shape for pot_scale_int16", (1.0, 0.5, 1.0), "int16",
             ([1, 4], [1, 1], [1, 4]))  # fmt: skip
    _refused("need operands that broadcast to each other", (1.0, 1.0, 1.0),
             shapes=([1, 4], [1, 3], [1, 4]))  # fmt: skip
    _refused("need the first operand quantised", (None, 1.0, 1.0))
    _refused("need fused_activation_function", (1.0, 1.0, 1.0), fused_activation_function="TANH")
    x, out = tensor(ROW, "int8", 1.0), [tensor(ROW, "int8", 1.0)]
    assert_refused("need 2 inputs, got 1", "ADD", [x], out)
    assert_refused("need one type", "ADD", [x, tensor(ROW, "int16", 1.0)], out)
