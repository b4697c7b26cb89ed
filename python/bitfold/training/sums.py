# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The sums of a layer in an accumulator.

The public ops define the bits. Where the weights prove two things the stock op gives the same: no
partial sum reaches 2^24, so that floats hold all of them exactly in any order; and every addend is
at most 2^w, so that a sum that was wrapped after each addend is the wrap of the whole (theorem 1 of
docs/arithmetic.md). The proof is a look at the weights, which change with every step.
"""

from __future__ import annotations

import dataclasses
import re

import tensorflow as tf

from bitfold import ops
from bitfold._frame import warning_lines
from bitfold.network.arithmetic import Arithmetic
from bitfold.training import quantising
from bitfold.training.products import Product

GRADIENTS = ("straight", "zero_where_wrapped")
# Floats hold all whole numbers up to here.
_EXACT = 2.0**24
# Half precision changes the sign of sums from here on.
_HALF_LIMIT = 32768
# Where the lines of ops are counted: a step of training prints nothing.
_SCOPE = warning_lines.counting_scope("training")


@dataclasses.dataclass(frozen=True, eq=False)
class Sums:
    """The sums of a layer with their bias, [..., outputs].

    Attributes:
        real: float32, in full width, in floats; exact where that was proven. Has a gradient.
        held: int32, as the accumulator holds them at the end.
        is_wrong: whether each was changed by the accumulator's range; None where not asked for.
    """

    real: tf.Tensor
    held: tf.Tensor
    is_wrong: tf.Tensor | None


class Accumulator:
    """Adds up a layer's products and its bias."""

    def __init__(self, name: str, product: Product, arithmetic: Arithmetic, gradient: str) -> None:
        """Take the layer's name, its products, what they are added up in, and its gradient."""
        self._name = re.sub(r"[^\w.-]", "_", name)
        self._product = product
        self._arithmetic = arithmetic
        self._asks = gradient == "zero_where_wrapped"

    def __call__(
        self, data: tf.Tensor, filter: tf.Tensor, bias: tf.Tensor, grid: tf.Tensor
    ) -> Sums:
        """Return the sums.

        Args:
            data: centred integers.
            filter: whole numbers, float32, outputs last.
            bias: whole numbers, float64 [outputs].
            grid: of the data.
        """
        real = tf.nn.bias_add(self._product.stock(data, filter), tf.cast(bias, tf.float32))

        def by_stock() -> tuple[tf.Tensor, tf.Tensor]:
            whole = tf.cast(real, tf.int32)
            return _wrapped(whole, self._arithmetic.accumulator_size), whole

        def by_ops() -> tuple[tf.Tensor, tf.Tensor]:
            held = self._by_ops(data, filter, bias, self._arithmetic)
            if not self._asks:
                return held, held
            full = dataclasses.replace(self._arithmetic, accumulator_size=None, use_fp16_acc=False)
            return held, self._by_ops(data, filter, bias, full)

        if self._has_short_form:
            held, full = tf.cond(self._is_proven(filter, bias, grid), by_stock, by_ops)
        else:
            held, full = by_ops()
        return Sums(real, tf.stop_gradient(held), self._is_wrong(held, full))

    @property
    def _has_short_form(self) -> bool:
        """Whether the stock op may be proven to give the sums."""
        chosen = self._arithmetic
        return not chosen.mult_shift and not chosen.use_fp16_acc and chosen.accumulator_size != 0

    def _is_proven(self, filter: tf.Tensor, bias: tf.Tensor, grid: tf.Tensor) -> tf.Tensor:
        """Return whether the stock op gives the sums, by the weights."""
        low, high = quantising.bounds(grid)
        magnitude = tf.maximum(-low, high)
        bias = tf.abs(tf.cast(bias, tf.float32))
        weights = tf.abs(filter)
        sums = tf.reduce_sum(weights, axis=[0, 1, 2]) * magnitude + bias
        proven = tf.reduce_max(sums) < _EXACT
        width = self._arithmetic.accumulator_size
        if width is None:
            return proven
        largest = tf.maximum(tf.reduce_max(weights) * magnitude, tf.reduce_max(bias))
        proven = proven & (largest <= 2.0**width)
        if self._product.is_depthwise:
            # The unit reads weights as numbers of half the accumulator's bits.
            proven = proven & (tf.reduce_max(filter) < 2.0 ** (width // 2 - 1))
        return proven

    def _by_ops(
        self, data: tf.Tensor, filter: tf.Tensor, bias: tf.Tensor, arithmetic: Arithmetic
    ) -> tf.Tensor:
        """Return the sums of the public ops, int32."""
        is_half = arithmetic.use_fp16_acc
        shift = arithmetic.mult_shift
        dtype = tf.float32 if is_half else tf.int32
        width = arithmetic.accumulator_size
        datapath = dict(
            accumulator_size=32 if width is None else width,
            mult_shift=2**shift if is_half and shift else shift,
            use_fp16_acc=is_half,
        )
        bias = tf.cast(tf.cast(bias, tf.int32), dtype)
        with tf.name_scope(f"{_SCOPE}/{self._name}/"):
            sums = self._product.public(tf.cast(data, dtype), tf.cast(filter, dtype), **datapath)
            return tf.cast(ops.bias_add(sums, bias, **datapath), tf.int32)

    def _is_wrong(self, held: tf.Tensor, full: tf.Tensor) -> tf.Tensor | None:
        if not self._asks:
            return None
        if self._arithmetic.use_fp16_acc:
            return (full >= _HALF_LIMIT) | (full < -_HALF_LIMIT)
        return held != full


def _wrapped(sums: tf.Tensor, width: int | None) -> tf.Tensor:
    """Return the low bits of sums, with their sign."""
    if width is None or width >= 32:
        return sums
    spare = tf.constant(32 - width, tf.int32)
    return tf.bitwise.right_shift(tf.bitwise.left_shift(sums, spare), spare)
