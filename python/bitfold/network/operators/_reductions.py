# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What the operators share that reduce dimensions to one element each."""

from __future__ import annotations

import math
from collections.abc import Callable, Iterator

import numpy as np
import tensorflow as tf

from bitfold.network.graph import Node
from bitfold.network.operators import _checks
from bitfold.network.operators._moves import need_axis, need_elements, need_numbers, numbers


def reduction_problems(node: Node) -> Iterator[str]:
    """Yield unless there are stored data, a stored output, and constant axes among the data's."""
    before = list(_checks.need_counts(node, (2,)))
    before = before or [
        *_checks.need_stored("the data", node.inputs[0]),
        *_checks.need_stored("the output", node.outputs[0]),
        *_checks.need_same_type(node, node.inputs[0], node.outputs[0]),
        *need_elements(node.inputs[0]),
        *need_numbers("the axes", node.inputs[1], None, ("int32",)),
    ]
    yield from before
    if not before:
        rank = len(node.inputs[0].shape)
        yield from (p for axis in numbers(node.inputs[1]) for p in need_axis(axis, rank))


def axes_of(node: Node) -> list[int]:
    """Return the dimensions that are reduced, each once."""
    rank = len(node.inputs[0].shape)
    return sorted({axis % rank for axis in numbers(node.inputs[1])})


def elements_of(node: Node) -> int:
    """Return how many elements become one."""
    return math.prod(node.inputs[0].shape[axis] for axis in axes_of(node))


def need_narrow_sums(node: Node, exponent: int = 0) -> Iterator[str]:
    """Yield unless sums of stored elements less their zero point, times 2^exponent, fit 32 bits."""
    data, elements = node.inputs[0], elements_of(node)
    magnitude = abs(data.zero_point) - int(np.iinfo(data.dtype).min)
    if elements * magnitude * 2.0**exponent >= 2**31:
        yield f"need sums of 32 bits in the output's scale, got those of {elements} elements"


def reduced(node: Node, data: tf.Tensor, reduce: Callable[..., tf.Tensor]) -> tf.Tensor:
    """Reduce the axes of each image, [B, d0', ...] with what remains of its dimensions."""
    images = tf.reshape(data, [-1, *node.inputs[0].shape])
    axes = [axis + 1 for axis in axes_of(node)]
    return reduce(images, axes, keepdims=bool(node.option("keep_dims")))
