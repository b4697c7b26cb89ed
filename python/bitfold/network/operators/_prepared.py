# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Layers as one op each, from stored tensors to stored tensors."""

from __future__ import annotations

import dataclasses
from collections.abc import Iterator, Sequence
from typing import Any

import numpy as np
import tensorflow as tf

from bitfold import ops
from bitfold.network.arithmetic import Arithmetic
from bitfold.network.operators._accumulator import narrowed
from bitfold.ops._prepared import WatchedConvolution

_STORED = (np.int8, np.int16)
_LARGEST_SHIFT = 31
_WIDE = 64


@dataclasses.dataclass(frozen=True)
class Placement:
    """Where a layer's windows lie, each pair for rows and columns.

    Attributes:
        strides: from a window to the next.
        dilations: from a tap to the next.
        padding: SAME or VALID, by which the convolutions place them.
        zeros: written out above, below, left and right of the image.
        depthwise: whether channels are summed each for itself.
    """

    strides: tuple[int, int] = (1, 1)
    dilations: tuple[int, int] = (1, 1)
    padding: str = "VALID"
    zeros: tuple[int, int, int, int] = (0, 0, 0, 0)
    depthwise: bool = False


def can_be_prepared(arithmetic: Arithmetic, *stored: np.dtype) -> bool:
    """Return whether a layer is one op in an arithmetic.

    The activation unit requantises in an op of its own.
    """
    return (
        arithmetic.requantisation == "model"
        and arithmetic.mult_shift <= _LARGEST_SHIFT
        and all(dtype in _STORED for dtype in stored)
    )


def arithmetic_keywords(arithmetic: Arithmetic) -> dict[str, Any]:
    """Return what ops of stored integers are told of an arithmetic, exact within 32 bits."""
    return dict(
        accumulator_size=32 if arithmetic.accumulator_size is None else arithmetic.accumulator_size,
        mult_shift=arithmetic.mult_shift,
        use_fp16_acc=arithmetic.use_fp16_acc,
    )


class PreparedLayer:
    """A layer of stored integers with stored weights, in one arithmetic.

    It plans and packs once for all its calls.
    """

    def __init__(
        self,
        weights: np.ndarray,
        bias: np.ndarray | None,
        multipliers: np.ndarray,
        arithmetic: Arithmetic,
        placement: Placement,
        is_wide: bool = False,
        **stored: Any,
    ) -> None:
        """Make it.

        Args:
            weights: int8 [height, width, inputs, outputs].
            bias: [outputs] or None; of a wide one the low 32 bits count, unless `is_wide`.
            multipliers: from sums to the output.
            arithmetic: the layer's.
            placement: of the windows.
            is_wide: whether sums have 64 bits, which nothing wraps.
            **stored: what `bitfold.ops.prepared_conv2d` is told of the input and the output.
        """
        if bias is None:
            bias = np.zeros(0, np.int64)
        bias = bias.astype(np.int64) if is_wide else narrowed(bias)
        summed = arithmetic_keywords(arithmetic)
        if is_wide:
            summed["accumulator_size"] = _WIDE
        self._constants = (np.ascontiguousarray(weights), bias, multipliers)
        self._keywords = dict(
            dataclasses.asdict(placement),
            constant_weights=True,
            **summed,
            **stored,
        )
        self._tensors: tuple[tf.Tensor, ...] | None = None

    def __call__(self, data: tf.Tensor) -> tf.Tensor:
        """Return the stored output of stored data [N, H, W, inputs]."""
        return ops.prepared_conv2d(data, *self._shared(), **self._keywords)

    def watched(self, data: tf.Tensor, accumulator_sizes: Sequence[int]) -> WatchedConvolution:
        """Return the stored output, and what the final sums of full width reach."""
        sizes = tuple(accumulator_sizes)
        return ops.watched_conv2d(data, *self._shared(), accumulator_sizes=sizes, **self._keywords)

    def _shared(self) -> tuple[tf.Tensor | np.ndarray, ...]:
        """Return the constants: the same tensors for all functions, which know them by memory."""
        if not (tf.executing_eagerly() or tf.inside_function()):
            return self._constants
        if self._tensors is None:
            with tf.init_scope():
                self._tensors = tuple(map(tf.constant, self._constants))
        return self._tensors


class GroupedLayer:
    """A convolution in groups of channels: a layer for each, side by side."""

    def __init__(
        self,
        groups: int,
        weights: np.ndarray,
        bias: np.ndarray | None,
        multipliers: np.ndarray,
        **keywords: Any,
    ) -> None:
        """Make it of what a layer is made of; outputs lie group after group, as inputs do."""

        def split(x: np.ndarray | None) -> list[np.ndarray | None]:
            return [x] * groups if x is None or x.size == 1 else np.split(x, groups, axis=-1)

        parts = zip(*map(split, (weights, bias, multipliers)), strict=True)
        self._layers = [
            PreparedLayer(weights, bias, multipliers=multipliers, **keywords)
            for weights, bias, multipliers in parts
        ]

    def __call__(self, data: tf.Tensor) -> tf.Tensor:
        """Return the stored output of stored data [N, H, W, inputs]."""
        return tf.concat([layer(part) for layer, part in self._parts(data)], axis=3)

    def watched(self, data: tf.Tensor, accumulator_sizes: Sequence[int]) -> WatchedConvolution:
        """Return the stored output, and what the final sums of full width reach."""
        found = [layer.watched(part, accumulator_sizes) for layer, part in self._parts(data)]
        return WatchedConvolution(*(tf.concat(same, -1) for same in zip(*found, strict=True)))

    def _parts(self, data: tf.Tensor) -> Iterator[tuple[PreparedLayer, tf.Tensor]]:
        return zip(self._layers, tf.split(data, len(self._layers), axis=3), strict=True)
