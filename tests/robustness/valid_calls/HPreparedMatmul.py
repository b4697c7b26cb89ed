# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Valid calls of HPreparedMatmul."""

from __future__ import annotations

import math

from drawing import Call, Draw, Input


def _matmul(draw: Draw) -> Call:
    dtype, bits = draw.choice(("int8", "int16")), draw.choice((8, 16))
    front = draw.dims(draw.randint(0, 3))
    fronts = [tuple(draw.choice((1, n, n)) for n in front) for _ in range(2)]
    fronts[1] = fronts[1][draw.choice((0, draw.randint(0, len(front)))) :]
    rows, inner, columns = draw.dims(3)
    if draw.chance(0.3):
        rows, inner, columns = (draw.randint(1, 40) for _ in range(3))
    turned = [draw.chance(0.5) for _ in range(2)]
    shapes = [
        (*lead, *(reversed(shape) if is_turned else shape))
        for lead, shape, is_turned in zip(
            fronts, ((rows, inner), (inner, columns)), turned, strict=True
        )
    ]
    half = draw.chance(0.25)
    shift = draw.choice((0, 0, draw.randint(0, 6 if half else 31)))
    lowest, highest = -(2 ** (bits - 1)), 2 ** (bits - 1) - 1
    minimum = draw.choice((lowest, draw.randint(lowest, highest)))
    factors = tuple(
        math.ldexp(draw.uniform(0.5, 1), draw.randint(-31, 7 - shift))
        for _ in range(draw.choice((1, columns)))
    )
    inputs = (
        *(draw.tensor(dtype, shape) for shape in shapes),
        Input("float64", (len(factors),), factors),
    )
    attributes = {
        "T": dtype,
        "T_out": f"int{bits}",
        "transpose_first": turned[0],
        "transpose_second": turned[1],
        "first_zero_point": draw.choice((0, draw.randint(-128, 127))),
        "second_zero_point": draw.choice((0, draw.randint(-128, 127))),
        "accumulator_size": draw.choice((8, 16, 20, 24, 32, draw.randint(0, 32))),
        "mult_shift": shift,
        "use_fp16_acc": half,
        "rounding": draw.choice(("two_roundings", "short_multiplier", "one_rounding")),
        "zero_point": draw.randint(lowest, highest),
        "minimum": minimum,
        "maximum": draw.choice((highest, draw.randint(minimum, highest))),
    }
    return Call("HPreparedMatmul", inputs, attributes)


CALLS = {"HPreparedMatmul": _matmul}
