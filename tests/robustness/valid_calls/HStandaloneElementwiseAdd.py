# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Valid calls of HStandaloneElementwiseAdd."""

from __future__ import annotations

from drawing import Call, Draw, addition_attributes, shift, value_shape


def _weighted_add(draw: Draw) -> Call:
    attributes = addition_attributes(draw)
    t = attributes["T"]
    shape = value_shape(draw)
    inputs = tuple(draw.tensor(t, s) for s in (shape, shape, (2 * shape[-1],)))
    return Call("HStandaloneElementwiseAdd", (*inputs, shift(draw)), attributes)


CALLS = {"HStandaloneElementwiseAdd": _weighted_add}
