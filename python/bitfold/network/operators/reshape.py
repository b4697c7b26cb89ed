# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""RESHAPE, SQUEEZE and EXPAND_DIMS: the same elements in other dimensions."""

from __future__ import annotations

import math
from collections.abc import Iterator, Sequence

import numpy as np
import tensorflow as tf

from bitfold.network.graph import Node
from bitfold.network.operators import _checks
from bitfold.network.operators._step import Step


class Reshape(Step):
    """Elements keep their order, so the images of a batch stay one after the other."""

    stacks = True

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(_checks.need_counts(node, (1, 2)))
        yield from before
        if before:
            return
        yield from _checks.need_same_type(node, node.inputs[0], node.outputs[0])
        if node.input(1) is not None:
            yield from _checks.need_constant("the shape", node.input(1), ("int32", "int64"))
        elements = math.prod(node.inputs[0].shape)
        try:
            shape = target(node)
        except ValueError as error:
            yield str(error)
            return
        if math.prod(shape) != elements:
            yield f"need a shape of {elements} elements, got {list(shape)}"

    def run(self, inputs: Sequence[tf.Tensor | None]) -> list[tf.Tensor]:
        """Give the elements of each image their new dimensions."""
        shape = target(self.node)
        if not (shape and self.node.inputs[0].shape):
            # A number of the arithmetic on shapes; elsewhere the assembly refuses what has no
            # dimension for the images.
            return [tf.reshape(inputs[0], shape)]
        if math.prod(shape[1:]):
            return [tf.reshape(inputs[0], [-1, *shape[1:]])]
        images = tf.shape(inputs[0])[0] // self.node.inputs[0].shape[0]
        if inputs[0].shape[0] is not None:
            images = inputs[0].shape[0] // self.node.inputs[0].shape[0]
        return [tf.reshape(inputs[0], [images * shape[0], *shape[1:]])]


def target(node: Node) -> tuple[int, ...]:
    """Return the dimensions of an image afterwards.

    Raises:
        ValueError: for dimensions that cannot be, in words for a list of problems.
    """
    shape = node.inputs[0].shape
    if node.kind == "SQUEEZE":
        return _squeezed(shape, node.option("squeeze_dims"))
    if node.kind == "EXPAND_DIMS":
        axes = node.constant(1)
        if axes is None or axes.size != 1:
            raise ValueError("need one axis")
        return _expanded(shape, int(axes.reshape(())))
    new = node.constant(1)
    new = node.option("new_shape") if new is None else new
    if new is None:
        raise ValueError("need a shape, got none")
    return _completed([int(size) for size in np.reshape(new, -1)], math.prod(shape))


def _squeezed(shape: tuple[int, ...], axes: Sequence[int] | None) -> tuple[int, ...]:
    axes = [int(axis) for axis in axes] if axes is not None and len(axes) else None
    if axes is None:
        return tuple(size for size in shape if size != 1)
    axes = [axis + len(shape) if axis < 0 else axis for axis in axes]
    if any(not 0 <= axis < len(shape) or shape[axis] != 1 for axis in axes):
        raise ValueError(f"need axes of size 1 among {list(shape)}, got {axes}")
    return tuple(size for axis, size in enumerate(shape) if axis not in axes)


def _expanded(shape: tuple[int, ...], axis: int) -> tuple[int, ...]:
    place = axis + len(shape) + 1 if axis < 0 else axis
    if not 0 <= place <= len(shape):
        raise ValueError(f"need an axis of {list(shape)} and one more dimension, got {axis}")
    return (*shape[:place], 1, *shape[place:])


def _completed(shape: list[int], elements: int) -> tuple[int, ...]:
    known = math.prod(size for size in shape if size != -1)
    if min(shape, default=0) < -1 or shape.count(-1) > 1 or (-1 in shape and not known):
        raise ValueError(f"need a shape with at most one -1, got {shape}")
    return tuple(elements // known if size == -1 else size for size in shape)
