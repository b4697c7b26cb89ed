# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Valid calls of HActivation."""

from __future__ import annotations

from typing import Any

from drawing import Call, Draw, Input


def _activation(draw: Draw) -> Call:
    n, h, w, c = draw.dims(4)
    splits = [0]
    while sum(splits) < c:
        splits.append(draw.randint(0, c - sum(splits)))
    splits = splits[draw.choice((0, 1)) :]
    groups, points = len(splits), draw.randint(0, 9)
    pieces = (groups, points + 1)
    inputs = (
        draw.tensor("int64", (n, h, w, c)),
        draw.tensor("int64", (groups, points)),
        draw.tensor("int64", pieces),
        draw.tensor("int64", pieces),
        draw.between("int64", 0, 40, pieces) if draw.chance(0.8) else draw.tensor("int64", pieces),
        Input("int64", (groups,), tuple(splits)),
    )
    flags = (
        *("is_8bit_to_16bit_mode", "is_velquin"),
        *("is_16bit_precision_mode", "is_signed_output"),
    )
    attributes: dict[str, Any] = {flag: draw.chance(0.5) for flag in flags}
    attributes |= {"ebias": draw.randint(-8, 8), "clip_bits": draw.randint(1, 32)}
    return Call("HActivation", inputs, {**attributes, "beta": draw.randint(-8, 8)})


CALLS = {"HActivation": _activation}
