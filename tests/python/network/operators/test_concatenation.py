# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""CONCATENATION beyond the cases of every operator: constants, several rows, scales, refusals."""

from __future__ import annotations

import numpy as np
import pytest
from packed import compare, operator, tensor
from refusing import assert_refused


@pytest.mark.parametrize("axis", [0, 1, -1])
@pytest.mark.parametrize("dtype", ["int8", "int16", "int32", "float32"])
def test_images_of_several_rows_beside_constants(axis, dtype):
    """A constant stands beside the rows of each image, the first dimension included."""
    scale = 0.5 if dtype.startswith("int") and dtype != "int32" else None
    shape, longer = np.array([2, 3, 4]), np.array([2, 3, 4])
    longer[axis] = 5
    out = shape.copy()
    out[axis] += 2 * 5
    data = np.arange(longer.prod()) - 7
    inputs = [
        tensor(longer, dtype, scale, data=data),
        tensor(shape, dtype, scale),
        tensor(longer, dtype, scale),
    ]
    compare(operator("CONCATENATION", inputs, [tensor(out, dtype, scale)], {"axis": axis}))


def test_int16_is_not_rescaled():
    """Stored elements move as they are where scales differ."""
    inputs = [tensor([1, 40], "int16", scale) for scale in (0.5, 0.125)]
    compare(operator("CONCATENATION", inputs, [tensor([1, 80], "int16", 2.0)], {"axis": 1}))


def _refused(text, shapes=((1, 2), (1, 3)), scales=(0.5, 0.5, 0.5), **options):
    inputs = [tensor(shape, "int8", s) for shape, s in zip(shapes, scales, strict=False)]
    assert_refused(text, "CONCATENATION", inputs, [tensor([1, 5], "int8", scales[2])], options)


def test_refusals():
    """What the runtime does not do, and shapes that do not fit."""
    _refused("need one scale and zero point for", scales=(0.5, 0.25, 0.5), axis=1)
    _refused("need one scale and zero point for", scales=(0.5, 0.5, 0.25), axis=1)
    _refused("need fused_activation_function NONE, got 'RELU'", axis=1,
             fused_activation_function="RELU")  # fmt: skip
    _refused("need an axis of 2 dimensions, got 2", axis=2)
    _refused("of the shape of tensor 0", shapes=((1, 2), (2, 3)), axis=1)
    _refused("of the shape of tensor 0", shapes=((1, 2), (1, 2, 2)), axis=1)
    _refused("need an element in each dimension", shapes=((1, 0), (1, 5)), axis=1)
