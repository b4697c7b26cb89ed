# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Valid calls of HRequantise."""

from __future__ import annotations

import math

from drawing import Call, Draw, Input


def _requantise(draw: Draw) -> Call:
    sums = draw.choice(("int32", "int64"))
    roundings = ("short_multiplier", "one_rounding", "two_roundings")
    rounding = draw.choice(roundings if sums == "int32" else roundings[:2])
    bits = draw.choice((8, 16, 32))
    lowest, highest = -(2 ** (bits - 1)), 2 ** (bits - 1) - 1
    shape = draw.dims(draw.randint(1, 5))
    count = draw.choice((1, shape[-1]))
    values = tuple(math.ldexp(draw.uniform(0.5, 1), draw.randint(-31, 2)) for _ in range(count))
    minimum = draw.choice((lowest, draw.randint(lowest, highest)))
    attributes = {
        "T": sums,
        "T_out": f"int{bits}",
        "rounding": rounding,
        "shift": draw.choice((0, draw.randint(0, 4))),
        "zero_point": draw.randint(lowest, highest),
        "minimum": minimum,
        "maximum": draw.choice((highest, draw.randint(minimum, highest))),
    }
    inputs = (draw.tensor(sums, shape), Input("float64", (count,), values))
    return Call("HRequantise", inputs, attributes)


CALLS = {"HRequantise": _requantise}
