# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Functions of float32 element by element, between DEQUANTIZE and QUANTIZE, by TensorFlow's ops.

Operands are broadcast to each other; the last bits are those of the ops, not of the runtime's
kernels. CAST is here, too, from and to integers.
"""

from __future__ import annotations

from collections.abc import Callable, Iterator, Sequence

import numpy as np
import tensorflow as tf

from bitfold.network.arithmetic import Arithmetic
from bitfold.network.graph import Node
from bitfold.network.operators import _checks
from bitfold.network.operators._pairs import Broadcast, broadcast_shape
from bitfold.network.operators._requantisation import FUSED
from bitfold.network.operators._step import Step

_BOUNDS = {"RELU": (0.0, np.inf), "RELU6": (0.0, 6.0), "RELU_N1_TO_1": (-1.0, 1.0)}

_UNARY: dict[str, Callable[[tf.Tensor], tf.Tensor]] = {
    "ABS": tf.abs,
    "CEIL": tf.math.ceil,
    "COS": tf.cos,
    "ELU": tf.nn.elu,
    "EXP": tf.exp,
    "FLOOR": tf.floor,
    "HARD_SWISH": lambda x: x * tf.nn.relu6(x + 3.0) / 6.0,
    "LOG": tf.math.log,
    "LOGISTIC": tf.sigmoid,
    "NEG": tf.negative,
    "RELU": tf.nn.relu,
    "RELU6": tf.nn.relu6,
    "RELU_0_TO_1": lambda x: tf.clip_by_value(x, 0.0, 1.0),
    "RELU_N1_TO_1": lambda x: tf.clip_by_value(x, -1.0, 1.0),
    "ROUND": tf.round,
    "RSQRT": tf.math.rsqrt,
    "SIGN": tf.sign,
    "SIN": tf.sin,
    "SQRT": tf.sqrt,
    "SQUARE": tf.square,
    "TANH": tf.tanh,
}
_BINARY: dict[str, Callable[[tf.Tensor, tf.Tensor], tf.Tensor]] = {
    "ADD": tf.add,
    "DIV": tf.divide,
    "FLOOR_DIV": tf.math.floordiv,
    "FLOOR_MOD": tf.math.floormod,
    "MAXIMUM": tf.maximum,
    "MINIMUM": tf.minimum,
    "MUL": tf.multiply,
    "POW": tf.pow,
    "PRELU": lambda x, alpha: tf.where(x >= 0, x, x * alpha),
    "SQUARED_DIFFERENCE": tf.math.squared_difference,
    "SUB": tf.subtract,
}
_COMPARISONS: dict[str, Callable[[tf.Tensor, tf.Tensor], tf.Tensor]] = {
    "EQUAL": tf.equal,
    "GREATER": tf.greater,
    "GREATER_EQUAL": tf.greater_equal,
    "LESS": tf.less,
    "LESS_EQUAL": tf.less_equal,
    "NOT_EQUAL": tf.not_equal,
}
# Functions that read an option.
_WITH_OPTIONS: dict[str, Callable[[tf.Tensor, Node], tf.Tensor]] = {
    "CAST": lambda x, node: tf.cast(x, node.outputs[0].dtype),
    "GELU": lambda x, node: tf.nn.gelu(x, approximate=bool(node.option("approximate"))),
    "LEAKY_RELU": lambda x, node: tf.where(x >= 0, x, x * np.float32(node.option("alpha"))),
}
_CHOICES = ("SELECT", "SELECT_V2")
_FUSING = ("ADD", "DIV", "MUL", "SUB")
_CASTS = ("bool", "float32", "int32", "int64")
KINDS = (*_UNARY, *_BINARY, *_COMPARISONS, *_WITH_OPTIONS, *_CHOICES)


def activated(x: tf.Tensor, fused: str) -> tf.Tensor:
    """Return floats within the bounds of a fused activation."""
    return x if fused == "NONE" else tf.clip_by_value(x, *_BOUNDS[fused])


class Elementwise(Step):
    """A function of one operand, or of several that broadcast."""

    is_float = True

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(_checks.need_counts(node, (_operands(node.kind),)))
        before = before or list(_type_problems(node))
        yield from before
        if before:
            return
        if node.kind in _FUSING:
            yield from _checks.need_option(node, "fused_activation_function", *FUSED)
        try:
            broadcast_shape(node)
        except ValueError:
            shapes = " and ".join(str(list(tensor.shape)) for tensor in node.inputs)
            yield f"need operands that broadcast to each other, got {shapes}"

    def __init__(self, node: Node, arithmetic: Arithmetic) -> None:
        """Note how the operands meet."""
        super().__init__(node, arithmetic)
        self._broadcast = Broadcast(node)

    @property
    def stacks(self) -> bool:
        """Whether stacked images give stacked results."""
        return self._broadcast.stacks

    def run(self, inputs: Sequence[tf.Tensor | None]) -> list[tf.Tensor]:
        """Compute every element."""
        operands = [self._broadcast.aligned(i, x) for i, x in enumerate(inputs)]
        kind = self.node.kind
        if kind in _WITH_OPTIONS:
            return [_WITH_OPTIONS[kind](*operands, self.node)]
        if kind in _CHOICES:
            return [tf.where(*operands)]
        result = {**_UNARY, **_BINARY, **_COMPARISONS}[kind](*operands)
        fused = self.node.option("fused_activation_function") if kind in _FUSING else "NONE"
        return [activated(result, fused)]


def _operands(kind: str) -> int:
    if kind in _CHOICES:
        return 3
    return 2 if kind in _BINARY or kind in _COMPARISONS else 1


def _type_problems(node: Node) -> Iterator[str]:
    output = node.outputs[0]
    if node.kind == "CAST":
        yield from _checks.need_type("the data", node.inputs[0], _CASTS)
        yield from _checks.need_type("the output", output, _CASTS)
        return
    operands = node.inputs
    if node.kind in _CHOICES:
        yield from _checks.need_type("the condition", operands[0], ("bool",))
        operands = operands[1:]
    for operand in operands:
        yield from _checks.need_type("every operand", operand, ("float32",))
    result = "bool" if node.kind in _COMPARISONS else "float32"
    yield from _checks.need_type("the output", output, (result,))
