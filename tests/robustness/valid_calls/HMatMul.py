# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Valid calls of HMatmul."""

from __future__ import annotations

from drawing import Call, Draw, datapath, shift


def _matmul(draw: Draw) -> Call:
    attributes = datapath(draw)
    t = attributes["T"]
    batch = draw.dims(draw.choice((0, 0, 1, 1, 2)))
    rows, inner, columns = draw.dims(3, 9)
    a = draw.tensor(t, (*batch, rows, inner))
    b = draw.tensor(t, (*batch, inner, columns))
    if draw.chance(0.2):  # the product takes the ranks of both
        a = draw.tensor(t, (1, draw.randint(1, 4), rows, inner))
        b = draw.tensor(t, (inner, columns))
    flags = ("transpose_a", "transpose_b", "adj_x", "adj_y")
    attributes |= {flag: draw.chance(0.1) for flag in flags}
    return Call("HMatmul", (a, b, shift(draw)), attributes)


CALLS = {"HMatmul": _matmul}
