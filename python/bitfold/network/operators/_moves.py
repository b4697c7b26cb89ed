# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What the operators share that move elements about: every image of a batch by itself.

The rows of a stack are split into images, [B * d0, d1, ...] into [B, d0, d1, ...], the operator
works on the dimensions behind the first, and the rows are stacked again. So any of them may touch
the first dimension of an image. Stored elements move as they are, whatever they stand for.
"""

from __future__ import annotations

import abc
import math
from collections.abc import Iterator, Sequence

import tensorflow as tf

from bitfold.network.graph import Node, Tensor
from bitfold.network.operators import _checks
from bitfold.network.operators._step import Step

# The stock ops take eight, of which one counts the images and one may be new.
_MOST_DIMENSIONS = 6
ELEMENTS = ("int8", "int16", "int32", "int64", "float32", "bool")


class Move(Step):
    """An operator that moves elements about within an image."""

    stacks = True
    # The positions of what is moved among the inputs; the others are constants. None for all.
    moved: tuple[int, ...] | None = (0,)
    # Whether the runtime insists on one scale for what is moved, where it is quantised.
    keeps_scale = False

    @classmethod
    def data(cls, node: Node) -> list[Tensor | None]:
        """Return the tensors that are moved."""
        return [node.input(i) for i in cls.moved] if cls.moved is not None else [*node.inputs]

    @classmethod
    def element_problems(cls, node: Node) -> Iterator[str]:
        """Yield unless what is moved is there, has elements, and all is of one type."""
        data = cls.data(node)
        if None in data:
            yield "need every input, one is left out"
            return
        for tensor in data:
            yield from _checks.need_type("the data", tensor, ELEMENTS)
            yield from need_elements(tensor)
            if len(tensor.shape) > _MOST_DIMENSIONS:
                yield f"need at most {_MOST_DIMENSIONS} dimensions, got {tensor}"
        for output in node.outputs:
            yield from _checks.need_same_type(node, *data, output)
        if cls.keeps_scale:
            yield from need_one_scale([*data, *node.outputs])

    @abc.abstractmethod
    def move(self, images: Sequence[tf.Tensor]) -> list[tf.Tensor]:
        """Move the elements of images [B, d0, d1, ...]; B is 1 for constants."""

    def run(self, inputs: Sequence[tf.Tensor | None]) -> list[tf.Tensor]:
        """Move the elements of each image."""
        places = range(len(inputs)) if self.moved is None else self.moved
        images = [tf.reshape(inputs[i], [-1, *self.node.inputs[i].shape]) for i in places]
        return [stacked(image) for image in self.move(images)]


def stacked(images: tf.Tensor) -> tf.Tensor:
    """Return [B, d0, d1, ...] as [B * d0, d1, ...].

    Scalars, which the assembly refuses of images, remain what a constant may be.
    """
    if images.shape.rank == 1:
        return tf.reshape(images, [])
    return tf.reshape(images, [-1, *images.shape[2:]])


def alike(images: Sequence[tf.Tensor]) -> list[tf.Tensor]:
    """Repeat constants, [1, ...], as often as there are images beside them."""
    counts = [image.shape[0] for image in images]
    if len(set(counts)) == 1 and counts[0] is not None:
        return list(images)
    most = tf.reduce_max(tf.stack([tf.shape(image)[0] for image in images]))
    return [tf.broadcast_to(image, [most, *image.shape[1:]]) for image in images]


def need_elements(tensor: Tensor) -> Iterator[str]:
    """Yield unless a tensor has elements."""
    if not math.prod(tensor.shape):
        yield f"need an element in each dimension, got {tensor}"


def need_one_scale(tensors: Sequence[Tensor]) -> Iterator[str]:
    """Yield unless no tensor is quantised, or all with one scale and zero point."""
    if any(tensor.is_quantised for tensor in tensors):
        bad = [p for t in tensors for p in _checks.need_stored("the data", t, ELEMENTS)]
        yield from bad or _checks.need_same_quantisation(*tensors)


def need_axis(axis: int, rank: int) -> Iterator[str]:
    """Yield unless a number, from the end where it is negative, is that of a dimension."""
    if not -rank <= axis < rank:
        yield f"need an axis of {rank} dimensions, got {axis}"


def need_numbers(
    what: str, tensor: Tensor | None, count: int | None, types: Sequence[str] = ("int32", "int64")
) -> Iterator[str]:
    """Yield unless a tensor is a constant of integers, so many where a count is given."""
    before = list(_checks.need_constant(what, tensor, types))
    yield from before
    if not before and count is not None and tensor.data.size != count:
        yield f"need {count} numbers for {what}, got {tensor.data.size}"


def numbers(tensor: Tensor) -> list[int]:
    """Return the elements of a constant."""
    return [int(number) for number in tensor.data.reshape(-1)]
