# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Valid calls of HStoredPool and HStoredMean."""

from __future__ import annotations

import math

from drawing import Call, Draw


def _pool(draw: Draw) -> Call:
    dtype = draw.choice(("int8", "int16"))
    lowest, highest = (-128, 127) if dtype == "int8" else (-32768, 32767)
    shape = draw.dims(4)
    padding = draw.choice(("SAME", "VALID"))
    minimum = draw.choice((lowest, draw.randint(lowest, highest)))
    attributes = {
        "T": dtype,
        "pooling": draw.choice(("max", "average")),
        "window_height": draw.randint(1, 9 if padding == "SAME" else shape[1]),
        "window_width": draw.randint(1, 9 if padding == "SAME" else shape[2]),
        "stride_height": draw.randint(1, 3),
        "stride_width": draw.randint(1, 3),
        "padding": padding,
        "minimum": minimum,
        "maximum": draw.choice((highest, draw.randint(minimum, highest))),
    }
    return Call("HStoredPool", (draw.tensor(dtype, shape),), attributes)


def _mean(draw: Draw) -> Call:
    dtype = draw.choice(("int8", "int16"))
    attributes = {"T": dtype}
    for place in ("data", "output"):
        attributes[f"{place}_scale"] = math.ldexp(draw.uniform(0.5, 1), draw.randint(-2, 2))
        attributes[f"{place}_zero_point"] = draw.randint(-128, 127) if dtype == "int8" else 0
    return Call("HStoredMean", (draw.tensor(dtype, draw.dims(3)),), attributes)


CALLS = {"HStoredPool": _pool, "HStoredMean": _mean}
