# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Calls of the ops, written out so that any can be kept as a line of text, and what is drawn."""

from __future__ import annotations

import dataclasses
import json
import math
import random
from collections.abc import Callable, Sequence
from typing import Any

import numpy as np


@dataclasses.dataclass(frozen=True)
class Input:
    """A tensor: its elements are `values`, repeated as often as the shape needs."""

    dtype: str
    shape: tuple[int, ...]
    values: tuple[float, ...] = (0,)

    def array(self) -> np.ndarray:
        """Return the tensor's contents."""
        values = np.array(self.values, self.dtype)
        count = math.prod(self.shape)
        return np.resize(values, count).reshape(self.shape) if count else np.zeros(0, self.dtype)

    @property
    def is_empty(self) -> bool:
        """Whether the tensor holds nothing."""
        return 0 in self.shape


@dataclasses.dataclass(frozen=True)
class Call:
    """An op, its inputs in order and its attributes."""

    op: str
    inputs: tuple[Input, ...]
    attributes: dict[str, Any]

    def to_json(self) -> str:
        """Return the call as one line."""
        inputs = [[i.dtype, list(i.shape), list(i.values)] for i in self.inputs]
        return json.dumps({"op": self.op, "inputs": inputs, "attributes": self.attributes})

    @classmethod
    def from_json(cls, line: str) -> Call:
        """Read what `to_json` wrote."""
        record = json.loads(line)
        inputs = tuple(Input(d, tuple(s), tuple(v)) for d, s, v in record["inputs"])
        return cls(record["op"], inputs, record["attributes"])

    def with_input(self, index: int, **changes: Any) -> Call:
        """Return the call with an input changed."""
        inputs = list(self.inputs)
        inputs[index] = dataclasses.replace(inputs[index], **changes)
        return dataclasses.replace(self, inputs=tuple(inputs))

    def with_attributes(self, **changes: Any) -> Call:
        """Return the call with attributes changed."""
        return dataclasses.replace(self, attributes={**self.attributes, **changes})


# ---- Values ----------------------------------------------------------------------------------

INT32_MIN, INT32_MAX = -(2**31), 2**31 - 1
INT64_MIN, INT64_MAX = -(2**63), 2**63 - 1
SPECIAL = {
    "float32": (
        *(math.nan, math.inf, -math.inf, -0.0, 0.0, 1e-45, -1e-45, 1.17e-38, -1.1e-38, 3.4e38),
        *(-3.4e38, 2.0**31, -(2.0**31), 2.0**32, 2.0**63, -(2.0**63), 65504.0, 65520.0, -65536.0),
        *(6e-8, 16777217.0, 8388607.5, 0.5, -0.5, 1e9, -1e9, 32767.5, 32768.0),
    ),
    "int32": (INT32_MIN, INT32_MAX, INT32_MIN + 1, -1, 0, 1, 2**24, 2**24 + 1, -(2**16), 2**15),
    "int8": (-128, 127, -1, 0, 1, 31, 32, 33, 63, 64),
    "uint32": (0, 1, 2**32 - 1, 2**31, 2**31 - 1, 255, 256, 65535, 65536, 2**24 + 1, 64, 65),
    "int64": (INT64_MIN, INT64_MAX, -1, 0, 1, 2**31, -(2**31) - 1, 2**32, 63, 64, -64, 2**62),
}
SPECIAL["float64"] = SPECIAL["float32"]
RANGES = {
    "float32": 2**20,
    "int32": INT32_MAX,
    "int8": 127,
    "uint32": 2**32 - 1,
    "int64": 2**40,
    "int16": 2**15 - 1,
    "uint8": 255,
    "float64": 2**20,
    "float16": 2**12,
    "bool": 1,
}
OTHER_DTYPES = ("float32", "int32", "int8", "uint32", "int64", "int16", "uint8", "float64", "bool")


class Draw(random.Random):
    """A source of random shapes, values and choices."""

    def chance(self, probability: float) -> bool:
        """Return True with a probability."""
        return self.random() < probability

    def dims(self, rank: int, limit: int = 6) -> tuple[int, ...]:
        """Return dimensions of at least 1, mostly small ones."""
        return tuple(self.randint(1, limit if self.chance(0.3) else 3) for _ in range(rank))

    def small(self, dtype: str) -> tuple[float, ...]:
        """Return some values of a few bits."""
        low = 0 if dtype.startswith("u") else -8
        count = self.choice((1, 3, 7, 16, 61))
        if dtype.startswith("float"):
            step = self.choice((1.0, 1.0, 0.25, 2.0**-12, 300.0))
            return tuple(self.randint(low, 8) * step for _ in range(count))
        return tuple(self.randint(low, 8) for _ in range(count))

    def large(self, dtype: str) -> tuple[float, ...]:
        """Return some values over a wide range."""
        limit = RANGES[dtype]
        low = 0 if dtype.startswith("u") or dtype == "bool" else -limit
        count = self.choice((1, 5, 17, 64))
        if dtype.startswith("float"):
            return tuple(float(np.float32(self.uniform(low, limit))) for _ in range(count))
        return tuple(self.randint(low, limit) for _ in range(count))

    def special(self, dtype: str) -> tuple[float, ...]:
        """Return values at the edges of a type, mixed with small ones."""
        pool = SPECIAL.get(dtype)
        if pool is None:
            return self.large(dtype)
        values = [self.choice(pool) for _ in range(self.choice((1, 4, 13)))]
        if self.chance(0.5):
            values += self.small(dtype)
        self.shuffle(values)
        return tuple(values)

    def values(self, dtype: str) -> tuple[float, ...]:
        """Return values of any kind."""
        kind = self.random()
        if kind < 0.6:
            return self.small(dtype)
        return self.large(dtype) if kind < 0.8 else self.special(dtype)

    def tensor(self, dtype: str, shape: Sequence[int]) -> Input:
        """Return a tensor of any values."""
        return Input(dtype, tuple(shape), self.values(dtype))

    def between(self, dtype: str, low: float, high: float, shape: Sequence[int] = (1,)) -> Input:
        """Return a tensor of whole numbers from a range."""
        count = min(max(math.prod(shape), 1), 64)
        return Input(
            dtype, tuple(shape), tuple(self.randint(int(low), int(high)) for _ in range(count))
        )


# ---- What several ops have -------------------------------------------------------------------


def datapath(draw: Draw) -> dict[str, Any]:
    """Return the element type and the accumulator's attributes."""
    return {
        "T": draw.choice(("float32", "int32")),
        "accumulator_size": draw.choice((8, 16, 20, 24, 32, draw.randint(0, 32))),
        "use_fp16_acc": draw.chance(0.25),
    }


def addition_attributes(draw: Draw) -> dict[str, Any]:
    """Return the attributes of the additions and of what computes like them."""
    return {**datapath(draw), "data_format": "NHWC"}


def shift(draw: Draw) -> Input:
    """Return a usual mult_shift."""
    return draw.between("int8", 0, 12)


def feed_repeat(draw: Draw) -> Input:
    """Return how often an operand is added: few times, or a number that costs no time."""
    if draw.chance(0.06):
        # Refused, or computed without a loop.
        edges = (math.nan, math.inf, -math.inf, -1.0, 0.0, 0.5, 2.0**31 + 256, 3e38, 1e-45)
        return Input("float32", (1,), (draw.choice(edges),))
    return draw.between("float32", 0, draw.choice((1, 4, 200)))


def value_shape(draw: Draw) -> tuple[int, ...]:
    """Return a shape of a rank that the additions know."""
    return draw.dims(draw.choice((2, 4)))


def decoder(op: str, anchor_inputs: int) -> Callable[[Draw], Call]:
    """Return what draws the calls of a box decoder."""

    def build(draw: Draw) -> Call:
        attributes = addition_attributes(draw)
        t = attributes["T"]
        n, h, w, anchors = draw.dims(4)
        detections = (n, h, w, 2 * anchors)
        shapes = (detections, detections, (h, 2 * anchors), (w, 2 * anchors))
        shapes += ((anchors,),) * anchor_inputs
        inputs = tuple(draw.tensor(t, s) for s in shapes)
        return Call(op, (*inputs, shift(draw)), attributes)

    return build
