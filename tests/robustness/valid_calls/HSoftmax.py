# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Valid calls of HSoftmax."""

from __future__ import annotations

from drawing import Call, Draw


def _softmax(draw: Draw) -> Call:
    value = draw.tensor("float32", draw.dims(draw.randint(1, 4), 9))
    if draw.chance(0.6):
        value = draw.between("float32", 0, 255, value.shape)
    table = draw.between("uint32", 0, draw.choice((255, 2**16 - 1, 2**32 - 1)), (512,))
    return Call("HSoftmax", (value, table), {"is_velquin": draw.chance(0.5)})


CALLS = {"HSoftmax": _softmax}
