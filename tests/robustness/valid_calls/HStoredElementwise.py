# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Valid calls of HStoredElementwise."""

from __future__ import annotations

import math

from drawing import Call, Draw


def _elementwise(draw: Draw) -> Call:
    dtype = draw.choice(("int8", "int16"))
    lowest, highest = (-128, 127) if dtype == "int8" else (-32768, 32767)
    shape = draw.dims(draw.randint(0, 5))
    shapes = [tuple(draw.choice((1, n, n)) for n in shape) for _ in range(2)]
    shapes[0] = shapes[0][draw.choice((0, draw.randint(0, len(shape)))) :]
    scales = [math.ldexp(draw.uniform(0.5, 1), draw.randint(-4, 4)) for _ in range(2)]
    minimum = draw.choice((lowest, draw.randint(lowest, highest)))
    attributes = {
        "T": dtype,
        "operation": draw.choice(("add", "subtract", "multiply")),
        "first_scale": scales[0],
        "second_scale": scales[1],
        "output_scale": max(scales) * math.ldexp(draw.uniform(0.5, 1), draw.randint(-5, 5)),
        "minimum": minimum,
        "maximum": draw.choice((highest, draw.randint(minimum, highest))),
    }
    for place in ("first", "second", "output"):
        attributes[f"{place}_zero_point"] = draw.randint(-128, 127) if dtype == "int8" else 0
    inputs = tuple(draw.tensor(dtype, shape) for shape in draw.sample(shapes, 2))
    return Call("HStoredElementwise", inputs, attributes)


CALLS = {"HStoredElementwise": _elementwise}
