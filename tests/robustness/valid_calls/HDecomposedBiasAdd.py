# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Valid calls of HDecomposedBiasAdd."""

from __future__ import annotations

from drawing import Call, Draw, addition_attributes, feed_repeat, shift, value_shape


def _decomposed_bias_add(draw: Draw) -> Call:
    attributes = addition_attributes(draw)
    t = attributes["T"]
    shape = value_shape(draw)
    shapes = (shape, shape[-1:], shape[-1:], (1,), (1,))
    inputs = tuple(draw.tensor(t, s) for s in shapes)
    return Call("HDecomposedBiasAdd", (*inputs, feed_repeat(draw), shift(draw)), attributes)


CALLS = {"HDecomposedBiasAdd": _decomposed_bias_add}
