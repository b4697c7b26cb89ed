# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Valid calls of HBiasAdd."""

from __future__ import annotations

from drawing import Call, Draw, addition_attributes, feed_repeat, shift, value_shape


def _bias_add(draw: Draw) -> Call:
    attributes = addition_attributes(draw)
    t = attributes["T"]
    shape = value_shape(draw)
    inputs = (draw.tensor(t, shape), draw.tensor(t, shape[-1:]), draw.tensor(t, (1,)))
    return Call("HBiasAdd", (*inputs, feed_repeat(draw), shift(draw)), attributes)


CALLS = {"HBiasAdd": _bias_add}
