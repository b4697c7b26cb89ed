# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Valid calls of HAdd."""

from __future__ import annotations

from drawing import Call, Draw, addition_attributes, feed_repeat, shift, value_shape


def _add(draw: Draw) -> Call:
    attributes = addition_attributes(draw)
    t = attributes["T"]
    shape = value_shape(draw)
    inputs = (draw.tensor(t, shape), draw.tensor(t, shape), draw.tensor(t, (1,)))
    return Call("HAdd", (*inputs, feed_repeat(draw), shift(draw)), attributes)


CALLS = {"HAdd": _add}
