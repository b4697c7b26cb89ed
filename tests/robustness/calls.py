# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Calls of the ops: valid ones, and random ones.

A random call is a valid one with a few mutations, so that most get past the first check. It depends
on its seed alone. The number of inputs is always right: with another the runtime itself reads what
it should not, whatever the op.
"""

from __future__ import annotations

import dataclasses
import importlib
import math
import pathlib
from collections.abc import Callable
from typing import Any

from drawing import INT32_MAX, INT32_MIN, INT64_MAX, OTHER_DTYPES, Call, Draw, Input

__all__ = ["INT32_MAX", "INT32_MIN", "OPS", "Call", "Input", "random_call", "valid_call"]

MAX_ELEMENTS = 20_000  # of an input: calls stay fast and the memory limit is theirs alone


# ---- Valid calls -----------------------------------------------------------------------------


def _collected() -> dict[str, Callable[[Draw], Call]]:
    """Return what draws the calls of each op, in the order of the modules' names."""
    found: dict[str, Callable[[Draw], Call]] = {}
    for path in sorted(pathlib.Path(__file__).with_name("valid_calls").glob("*.py")):
        found |= importlib.import_module(f"valid_calls.{path.stem}").CALLS
    return found


OPS = _collected()


def valid_call(op: str, seed: int) -> Call:
    """Return a call of an op without mutations."""
    return OPS[op](Draw(f"valid {op} {seed}"))


# ---- Mutations -------------------------------------------------------------------------------

HUGE = (2**31 - 1, 2**31, 2**20, 65536, 2**40, 3_000_000, 2**32, 2**30)


def huge_but_empty(draw: Draw, rank: int) -> tuple[int, ...]:
    """Return a shape of no elements with a huge dimension; the runtime allows products to 2^63."""
    shape = [draw.choice((1, 2, 3, 5)) for _ in range(max(rank, 2))]
    zero, huge, other = (draw.randrange(len(shape)) for _ in range(3))
    shape[other] = draw.choice((shape[other], 65536))
    shape[huge] = draw.choice(HUGE)
    shape[zero] = 0
    return tuple(shape)


def _change_dimension(draw: Draw, call: Call, index: int) -> Call:
    shape = list(call.inputs[index].shape)
    if not shape:
        return call
    axis = draw.randrange(len(shape))
    shape[axis] = draw.choice((0, 1, shape[axis] - 1, shape[axis] + 1, draw.randint(0, 9)))
    shape[axis] = max(shape[axis], 0)
    return call.with_input(index, shape=tuple(shape))


def _change_rank(draw: Draw, call: Call, index: int) -> Call:
    shape = list(call.inputs[index].shape)
    kind = draw.random()
    if kind < 0.3 and shape:
        shape.pop(draw.randrange(len(shape)))
    elif kind < 0.6 and len(shape) < 6:
        shape.insert(draw.randint(0, len(shape)), draw.choice((0, 1, 1, 2)))
    elif kind < 0.8:
        shape = [math.prod(shape)]
    else:
        shape = [draw.randint(0, 9) if draw.chance(0.3) else 2 for _ in range(draw.randint(0, 6))]
    return call.with_input(index, shape=tuple(shape))


def _change_type(draw: Draw, call: Call, index: int) -> Call:
    dtype = draw.choice(OTHER_DTYPES)
    if _is_feed_repeat(call, index):
        return call
    return call.with_input(index, dtype=dtype, values=draw.values(dtype))


def _change_values(draw: Draw, call: Call, index: int) -> Call:
    dtype = call.inputs[index].dtype
    values = draw.special(dtype) if draw.chance(0.8) else draw.large(dtype)
    if _is_feed_repeat(call, index):
        return call
    return call.with_input(index, values=values)


def _is_feed_repeat(call: Call, index: int) -> bool:
    """Whether an input counts repeats: they are as slow as they are many."""
    feeds = {"HAdd": 3, "HBiasAdd": 3, "HDecomposedBiasAdd": 5}
    return feeds.get(call.op) == index


def _empty_huge(draw: Draw, call: Call, index: int) -> Call:
    rank = len(call.inputs[index].shape)
    return call.with_input(index, shape=huge_but_empty(draw, rank))


def _swap_inputs(draw: Draw, call: Call, index: int) -> Call:
    inputs = list(call.inputs)
    other = draw.randrange(len(inputs))
    inputs[index], inputs[other] = inputs[other], inputs[index]
    if any(_is_feed_repeat(call, i) for i in (index, other)):
        return call
    return dataclasses.replace(call, inputs=tuple(inputs))


EDGES = (INT32_MIN, INT32_MAX, -1, 0, 1, 2, 31, 32, 33, 40, 64, 65, 1000, -30000, 2**31, INT64_MAX)


def _change_attribute(draw: Draw, call: Call, index: int) -> Call:
    del index
    if not call.attributes:
        return call
    name = draw.choice(sorted(call.attributes))
    value = call.attributes[name]
    if draw.chance(0.06):
        return dataclasses.replace(
            call, attributes={k: v for k, v in call.attributes.items() if k != name}
        )
    return call.with_attributes(**{name: _changed(draw, value)})


def _changed(draw: Draw, value: Any) -> Any:
    if isinstance(value, bool):
        return not value
    if isinstance(value, int):
        return draw.choice((*EDGES, value + 1, value - 1))
    if isinstance(value, float):
        edges = (math.nan, math.inf, -math.inf, 0.0, -1.0, 0.5, 1.5, 2.0, 3.0, 2.0**31, 1e9, 3.0e38)
        return draw.choice((*edges, value + 1, value - 1))
    if isinstance(value, list):
        changed = list(value)
        kind = draw.random()
        if kind < 0.1 and changed:
            changed.pop()
        elif kind < 0.2:
            changed.append(1)
        elif changed:
            changed[draw.randrange(len(changed))] = draw.choice(EDGES)
        return changed
    return draw.choice(("float32", "int32", "int8", "SAME", "VALID", "EXPLICIT", "NHWC", "NCHW"))


MUTATIONS = (
    (30, _change_dimension),
    (12, _change_rank),
    (5, _change_type),
    (18, _change_values),
    (8, _empty_huge),
    (5, _swap_inputs),
    (19, _change_attribute),
)


def random_call(seed: int) -> Call:
    """Return the call of a seed."""
    draw = Draw(f"call {seed}")
    call = draw.choice(tuple(OPS.values()))(draw)
    weights, mutations = zip(*MUTATIONS, strict=True)
    for _ in range(draw.choice((0, 0, 1, 1, 1, 2, 2, 3, 4))):
        if call.inputs:
            (mutate,) = draw.choices(mutations, weights)
            call = mutate(draw, call, draw.randrange(len(call.inputs)))
    return _bounded(call)


def _bounded(call: Call) -> Call:
    """Return the call with the largest dimensions lowered until inputs are small."""
    for index, tensor in enumerate(call.inputs):
        shape = list(tensor.shape)
        while math.prod(shape) > MAX_ELEMENTS:
            shape[shape.index(max(shape))] //= 2
        call = call.with_input(index, shape=tuple(shape))
    return call
