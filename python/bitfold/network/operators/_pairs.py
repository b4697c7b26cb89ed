# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Operators of two operands, element by element, each broadcast to the other."""

from __future__ import annotations

import abc
from collections.abc import Iterator, Sequence

import numpy as np
import tensorflow as tf

from bitfold import ops
from bitfold.network.arithmetic import Arithmetic
from bitfold.network.graph import Node, Tensor
from bitfold.network.operators import _checks
from bitfold.network.operators._step import Step


def pair_problems(
    node: Node, dtypes: Sequence[str] = _checks.STORED, quantised: bool = True
) -> Iterator[str]:
    """Yield what is wrong with the two operands and the output; nothing is read after that."""
    before = list(_checks.need_counts(node, (2,)))
    yield from before
    if before:
        return
    named = zip(
        ("the first operand", "the second operand", "the output"),
        (*node.inputs, *node.outputs),
        strict=True,
    )
    for what, tensor in named:
        if quantised:
            yield from _checks.need_stored(what, tensor, dtypes)
        else:
            yield from _checks.need_type(what, tensor, dtypes)
    yield from _checks.need_same_type(node, *node.inputs, *node.outputs)
    try:
        broadcast_shape(node)
    except ValueError:
        yield f"need operands that broadcast to each other, got {node.inputs[0]}, {node.inputs[1]}"


def broadcast_shape(node: Node) -> tuple[int, ...]:
    """Return the shape of two operands broadcast to each other, for one image.

    Raises:
        ValueError: where they do not fit.
    """
    return np.broadcast_shapes(*(tensor.shape for tensor in node.inputs))


class Broadcast:
    """How the operands of a batch meet.

    Attributes:
        stacks: whether operands that are stacked, and aligned, give stacked results.
    """

    def __init__(self, node: Node) -> None:
        """Read the shapes; the operands broadcast."""
        shape = broadcast_shape(node)
        self.stacks = all(_stacks(tensor, shape) for tensor in node.inputs)
        self._rests = [_rest(tensor, len(shape)) for tensor in node.inputs]

    def aligned(self, i: int, operand: tf.Tensor) -> tf.Tensor:
        """Return an operand with its images in the dimension of the output's images."""
        rest = self._rests[i]
        return operand if rest is None else tf.reshape(operand, [-1, *rest])


def _stacks(tensor: Tensor, shape: tuple[int, ...]) -> bool:
    """Return whether an operand's rows of an image meet that image's rows of the output alone."""
    if tensor.is_constant:
        return len(tensor.shape) < len(shape) or tensor.shape[:1] in ((), (1,))
    if len(tensor.shape) < len(shape):
        return tensor.shape[0] == shape[0] == 1
    return tensor.shape[0] == shape[0]


def _rest(tensor: Tensor, rank: int) -> tuple[int, ...] | None:
    """Return the dimensions behind the images, ones in front; None where none are missing."""
    missing = rank - len(tensor.shape)
    if tensor.is_constant or not missing or tensor.shape[0] != 1:
        return None
    return (*(1,) * missing, *tensor.shape[1:])


def stored_result(
    node: Node, operation: str, first: tf.Tensor, second: tf.Tensor, bounds: tuple[int, int]
) -> tf.Tensor:
    """Return the stored sum, difference or product of stored operands."""
    a, b, output = *node.inputs, node.outputs[0]
    minimum, maximum = bounds
    return ops.stored_elementwise(
        first,
        second,
        operation=operation,
        first_scale=a.scale,
        first_zero_point=a.zero_point,
        second_scale=b.scale,
        second_zero_point=b.zero_point,
        output_scale=output.scale,
        output_zero_point=output.zero_point,
        minimum=minimum,
        maximum=maximum,
    )


class PairStep(Step):
    """Prepares each operand by itself, constants once, and combines the two."""

    def __init__(self, node: Node, arithmetic: Arithmetic) -> None:
        """Make what a subclass needs, then prepare constants."""
        super().__init__(node, arithmetic)
        self._broadcast = Broadcast(node)
        self.set_up()
        with tf.init_scope():
            self._constants = [
                self.prepare(i, tf.constant(tensor.data)).numpy() if tensor.is_constant else None
                for i, tensor in enumerate(node.inputs)
            ]

    @property
    def stacks(self) -> bool:
        """Whether stacked images give stacked results."""
        return self._broadcast.stacks

    def set_up(self) -> None:
        """Make what `prepare` and `combine` need."""

    @abc.abstractmethod
    def prepare(self, i: int, stored: tf.Tensor) -> tf.Tensor:
        """Return what the i-th operand brings, element by element."""

    @abc.abstractmethod
    def combine(self, first: tf.Tensor, second: tf.Tensor) -> tf.Tensor:
        """Return the stored output."""

    def run(self, inputs: Sequence[tf.Tensor | None]) -> list[tf.Tensor]:
        """Combine the two operands."""
        return [self.combine(*(self._prepared(i, operand) for i, operand in enumerate(inputs)))]

    def _prepared(self, i: int, operand: tf.Tensor) -> tf.Tensor:
        constant = self._constants[i]
        if constant is not None:
            return tf.constant(constant)
        return self._broadcast.aligned(i, self.prepare(i, operand))
