# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Calls of the ops, written out so that any can be kept as a line of text, and random ones.

A random call is a valid one with a few mutations, so that most get past the first check. It depends
on its seed alone. The number of inputs is always right: with another the runtime itself reads what
it should not, whatever the op.
"""

from __future__ import annotations

import dataclasses
import json
import math
import random
from collections.abc import Callable, Sequence
from typing import Any

import numpy as np

MAX_ELEMENTS = 20_000  # of an input: calls stay fast and the memory limit is theirs alone


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


# ---- Valid calls -----------------------------------------------------------------------------


def _datapath(draw: Draw) -> dict[str, Any]:
    """Return the element type and the accumulator's attributes."""
    return {
        "T": draw.choice(("float32", "int32")),
        "accumulator_size": draw.choice((8, 16, 20, 24, 32, draw.randint(0, 32))),
        "use_fp16_acc": draw.chance(0.25),
    }


def _addition_attributes(draw: Draw) -> dict[str, Any]:
    return {**_datapath(draw), "data_format": "NHWC"}


def _shift(draw: Draw) -> Input:
    return draw.between("int8", 0, 12)


def _feed_repeat(draw: Draw) -> Input:
    if draw.chance(0.06):
        # Refused, or computed without a loop.
        edges = (math.nan, math.inf, -math.inf, -1.0, 0.0, 0.5, 2.0**31 + 256, 3e38, 1e-45)
        return Input("float32", (1,), (draw.choice(edges),))
    return draw.between("float32", 0, draw.choice((1, 4, 200)))


def _value_shape(draw: Draw) -> tuple[int, ...]:
    return draw.dims(draw.choice((2, 4)))


def _add(draw: Draw) -> Call:
    attributes = _addition_attributes(draw)
    t = attributes["T"]
    shape = _value_shape(draw)
    inputs = (draw.tensor(t, shape), draw.tensor(t, shape), draw.tensor(t, (1,)))
    return Call("HAdd", (*inputs, _feed_repeat(draw), _shift(draw)), attributes)


def _bias_add(draw: Draw) -> Call:
    attributes = _addition_attributes(draw)
    t = attributes["T"]
    shape = _value_shape(draw)
    inputs = (draw.tensor(t, shape), draw.tensor(t, shape[-1:]), draw.tensor(t, (1,)))
    return Call("HBiasAdd", (*inputs, _feed_repeat(draw), _shift(draw)), attributes)


def _decomposed_bias_add(draw: Draw) -> Call:
    attributes = _addition_attributes(draw)
    t = attributes["T"]
    shape = _value_shape(draw)
    shapes = (shape, shape[-1:], shape[-1:], (1,), (1,))
    inputs = tuple(draw.tensor(t, s) for s in shapes)
    return Call("HDecomposedBiasAdd", (*inputs, _feed_repeat(draw), _shift(draw)), attributes)


def _weighted_add(draw: Draw) -> Call:
    attributes = _addition_attributes(draw)
    t = attributes["T"]
    shape = _value_shape(draw)
    inputs = tuple(draw.tensor(t, s) for s in (shape, shape, (2 * shape[-1],)))
    return Call("HStandaloneElementwiseAdd", (*inputs, _shift(draw)), attributes)


def _matmul(draw: Draw) -> Call:
    attributes = _datapath(draw)
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
    return Call("HMatmul", (a, b, _shift(draw)), attributes)


def _decoder(op: str, anchor_inputs: int) -> Callable[[Draw], Call]:
    def build(draw: Draw) -> Call:
        attributes = _addition_attributes(draw)
        t = attributes["T"]
        n, h, w, anchors = draw.dims(4)
        detections = (n, h, w, 2 * anchors)
        shapes = (detections, detections, (h, 2 * anchors), (w, 2 * anchors))
        shapes += ((anchors,),) * anchor_inputs
        inputs = tuple(draw.tensor(t, s) for s in shapes)
        return Call(op, (*inputs, _shift(draw)), attributes)

    return build


def _bilinear(draw: Draw) -> Call:
    t = draw.choice(("float32", "int32"))
    shape = draw.dims(draw.choice((2, 4)))
    inputs = tuple(draw.tensor(t, shape if i < 4 else shape[1:]) for i in range(8))
    attributes = {
        "T": t,
        "accumulator_size": draw.choice((8, 16, 32, draw.randint(0, 32))),
        "float_accumulator": draw.chance(0.4),
    }
    return Call("HBilinear", (*inputs, _shift(draw), draw.tensor("float32", (1,))), attributes)


def _convolution(op: str) -> Callable[[Draw], Call]:
    def build(draw: Draw) -> Call:
        attributes = _addition_attributes(draw)
        t = attributes["T"]
        depthwise = draw.chance(0.9 if op == "HDepthWise" else 0.1)
        batch, height, width, channels = draw.dims(4)
        if draw.chance(0.05):
            batch = draw.randint(15, 45)  # more images than threads
        taps = (draw.choice((1, 2, 3, 3, 5)), draw.choice((1, 2, 3, 3, 5)))
        strides = (draw.choice((1, 1, 2, 3)), draw.choice((1, 1, 2, 3)))
        dilations = (draw.choice((1, 1, 2, 3)), draw.choice((1, 1, 2, 3)))
        outputs = channels if depthwise else draw.randint(1, 9)
        filter_shape = (*taps, 1 if depthwise else channels, outputs)
        if draw.chance(0.1):
            filter_shape = (batch, *filter_shape)
        attributes |= {
            "strides": [1, *strides, 1],
            "dilations": [1, *dilations, 1],
            "padding": draw.choice(("SAME", "VALID")),
            "use_cudnn_on_gpu": True,
            "is_depthwise": depthwise,
        }
        elementwise = (0,)
        if attributes["padding"] == "SAME" and draw.chance(0.3):
            rows, columns = (-(-n // s) for n, s in zip((height, width), strides, strict=True))
            elementwise = (batch, rows, columns, outputs)
        shapes = ((batch, height, width, channels), filter_shape, elementwise)
        return Call(op, (*(draw.tensor(t, s) for s in shapes), _shift(draw)), attributes)

    return build


def _layernorm(draw: Draw) -> Call:
    n, h, w, c = draw.dims(4, 9)
    value = draw.between("float32", 0, 255, (n, h, w, c))
    if draw.chance(0.1):
        value = draw.tensor("float32", (n, h, w, c))
    scalars = (
        (0, 255),  # zero_point
        (8, 24),  # exponent_sub_value
        (0, 65535),  # sum_of_x_mult
        (0, 8),  # sum_of_x_shift
        (0, 20),  # sum_of_x_mult_n_shift
        (0, 2 * c),  # x_squared_mult
        (0, 8),  # sum_of_x_squares_shift
        (1, 1000),  # epsilon
        (0, 65535),  # mul_act_man
        (0, 40),  # mul_act_exp
        (0, 5000),  # mul_act_bias
        (0, 1),  # rms_mode_enable
        (0, 1),  # activation_ebias_mode
        (0, 1),  # activation_output_mode
    )
    inputs = [value, *(draw.between("uint32", low, high) for low, high in scalars)]
    lut = draw.between("float32", 0, 2**24 - 1, (256,))
    return Call("HLayernorm", (*inputs, lut), {})


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


def _softmax(draw: Draw) -> Call:
    value = draw.tensor("float32", draw.dims(draw.randint(1, 4), 9))
    if draw.chance(0.6):
        value = draw.between("float32", 0, 255, value.shape)
    table = draw.between("uint32", 0, draw.choice((255, 2**16 - 1, 2**32 - 1)), (512,))
    return Call("HSoftmax", (value, table), {"is_velquin": draw.chance(0.5)})


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


OPS: dict[str, Callable[[Draw], Call]] = {
    "HAdd": _add,
    "HBboxDecoder": _decoder("HBboxDecoder", 6),
    "HBiasAdd": _bias_add,
    "HBilinear": _bilinear,
    "HDepthWise": _convolution("HDepthWise"),
    "HConv2d": _convolution("HConv2d"),
    "HConv2dDilation": _convolution("HConv2dDilation"),
    "HDecomposedBiasAdd": _decomposed_bias_add,
    "HLayernorm": _layernorm,
    "HMatmul": _matmul,
    "HNMS": _nms,
    "HSingleWeightPerProposalBboxDecoder": _decoder("HSingleWeightPerProposalBboxDecoder", 4),
    "HSoftmax": _softmax,
    "HStandaloneElementwiseAdd": _weighted_add,
    "HActivation": _activation,
}


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
