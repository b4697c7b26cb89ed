# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Valid calls of HStoredQuantise."""

from __future__ import annotations

import math

from drawing import Call, Draw


def _quantise(draw: Draw) -> Call:
    dtype, points = draw.choice((("int8", (-128, 127)), ("uint8", (0, 255)), ("int16", (0, 0))))
    attributes = {
        "T_out": dtype,
        "output_scale": math.ldexp(draw.uniform(0.5, 1), draw.randint(-20, 20)),
        "output_zero_point": draw.randint(*points),
    }
    values = draw.tensor("float32", draw.dims(draw.randint(0, 5)))
    return Call("HStoredQuantise", (values,), attributes)


CALLS = {"HStoredQuantise": _quantise}
