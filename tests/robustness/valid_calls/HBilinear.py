# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Valid calls of HBilinear."""

from __future__ import annotations

from drawing import Call, Draw, shift


def _bilinear(draw: Draw) -> Call:
    t = draw.choice(("float32", "int32"))
    shape = draw.dims(draw.choice((2, 4)))
    inputs = tuple(draw.tensor(t, shape if i < 4 else shape[1:]) for i in range(8))
    attributes = {
        "T": t,
        "accumulator_size": draw.choice((8, 16, 32, draw.randint(0, 32))),
        "float_accumulator": draw.chance(0.4),
    }
    return Call("HBilinear", (*inputs, shift(draw), draw.tensor("float32", (1,))), attributes)


CALLS = {"HBilinear": _bilinear}
