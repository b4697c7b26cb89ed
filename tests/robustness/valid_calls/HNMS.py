# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Valid calls of HNMS."""

from __future__ import annotations

from collections.abc import Sequence

from drawing import Call, Draw, Input


def _nms(draw: Draw) -> Call:
    batch, classes, boxes = draw.randint(1, 3), draw.randint(1, 5), draw.randint(1, 12)
    shape = (batch, classes * boxes, 5, 1)
    value = draw.tensor("float32", shape) if draw.chance(0.4) else _boxes(draw, shape)
    attributes = {
        "iou_threshold": draw.choice((0.0, 0.3, 0.5, 1.0, draw.uniform(-1, 3))),
        "max_output_size": float(draw.randint(1, 20)),
        "classes": float(classes),
        "debug_precise_numeric": draw.chance(0.5),
        "is_velquin": draw.chance(0.5),
    }
    threshold = Input("float32", (1,), (draw.choice((0.0, 0.1, 0.5, -1.0, 1e9)),))
    return Call("HNMS", (value, threshold), attributes)


def _boxes(draw: Draw, shape: Sequence[int]) -> Input:
    values: list[float] = []
    for _ in range(draw.choice((3, 12, 13))):
        y, x = draw.randint(0, 40), draw.randint(0, 40)
        values += [y, x, y + draw.randint(-2, 20), x + draw.randint(-2, 20), draw.randint(0, 9) / 8]
    return Input("float32", tuple(shape), tuple(values))


CALLS = {"HNMS": _nms}
