# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""BATCH_MATMUL: products of matrices, those of the leading dimensions repeated where they must be.

sum = the sum over the inner dimension of (first - zero point) * (second - zero point); the second
operand is the accelerator's weights. Two roundings in int8, a short multiplier in int16, whose sums
have 64 bits. Of the multiplier the product of the two scales is formed in single precision.

Sums of 32 bits, whatever is stored, are one op together with their requantisation.
"""

from __future__ import annotations

import functools
import math
from collections.abc import Callable, Iterator, Sequence

import numpy as np
import tensorflow as tf

from bitfold import ops
from bitfold.network.arithmetic import Arithmetic
from bitfold.network.graph import Node
from bitfold.network.operators import _checks
from bitfold.network.operators._accumulator import datapath, element_type
from bitfold.network.operators._moves import need_elements
from bitfold.network.operators._partial_sums import Chain
from bitfold.network.operators._prepared import arithmetic_keywords, can_be_prepared
from bitfold.network.operators._products import Products
from bitfold.network.operators._requantisation import Requantiser, stored_range
from bitfold.network.operators._step import SummingStep
from bitfold.ops._partial_sums import PartialSums

# Products of a byte, with or without sign, and an int16: below 2^23, so that so many fit 32 bits.
_BYTES = 255


class MatrixProduct(SummingStep):
    """BATCH_MATMUL."""

    def __init__(self, node: Node, arithmetic: Arithmetic) -> None:
        """Make the requantiser."""
        super().__init__(node, arithmetic)
        self.data, second = node.inputs
        self.weights_tensor = second if second.is_constant else None
        self._keywords = datapath(arithmetic)
        self._type = element_type(arithmetic)
        self._is_wide = self.data.dtype == np.int16
        self._requantise = Requantiser(
            node.outputs[0],
            _multiplier(node),
            "NONE",
            arithmetic,
            "short_multiplier" if self._is_wide else "two_roundings",
        )
        self._prepared = self._prepare()

    def _prepare(self) -> Callable[..., tf.Tensor] | None:
        """Return the whole operator as one op; None where it is several, one after the other."""
        if self._has_wide_sums:
            return None
        if not can_be_prepared(self.arithmetic, self.data.dtype, self.node.outputs[0].dtype):
            return None
        first, second = self.node.inputs
        return functools.partial(
            ops.prepared_matmul,
            transpose_first=_is_transposed(self.node, 0),
            transpose_second=_is_transposed(self.node, 1),
            first_zero_point=first.zero_point,
            second_zero_point=second.zero_point,
            **arithmetic_keywords(self.arithmetic),
            **self._requantise.keywords,
        )

    @property
    def _has_wide_sums(self) -> bool:
        """Whether sums are those of 64 bits."""
        is_exact = self.arithmetic.accumulator_size is None and not self.arithmetic.use_fp16_acc
        return self._is_wide and is_exact

    @property
    def _is_one_matrix(self) -> bool:
        """Whether all rows meet one constant matrix: they are rows of one product."""
        weights = self.weights_tensor
        return weights is not None and math.prod(weights.shape[:-2]) == 1

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(_checks.need_counts(node, (2,)))
        before = before or [
            *_checks.need_stored("the first operand", node.inputs[0]),
            *_checks.need_stored("the second operand", node.inputs[1]),
            *_checks.need_stored("the output", node.outputs[0]),
            *_checks.need_same_type(node, *node.inputs, node.outputs[0]),
            *need_elements(node.inputs[0]),
            *need_elements(node.inputs[1]),
        ]
        before = before or [
            f"need matrices, got {tensor}" for tensor in node.inputs if len(tensor.shape) < 2
        ]
        yield from before
        if before:
            return
        (*front, _, inner), (*others, rows, _) = _shapes(node)
        if inner != rows:
            yield f"need one inner dimension, got {inner} and {rows}"
        pairs = zip(reversed(front), reversed(others), strict=False)
        if any(a != b and 1 not in (a, b) for a, b in pairs):
            yield f"need leading dimensions that are alike or 1, got {front} and {others}"
        elif node.option("adj_x") and others[-1:] == [1] and front[-1:] > [1]:
            # The runtime leaves all results but the first unwritten.
            yield f"need adj_x with as many second matrices as first ones, got {others} for {front}"

    @property
    def multiply_adds(self) -> int:
        """Products for one image."""
        return math.prod(self._output_shape) * _shapes(self.node)[0][-1]

    @property
    def products(self) -> Products:
        """What the sums are sums of: each output meets the rows of one matrix."""
        second = self.node.inputs[1]
        *others, rows, columns = _shapes(self.node)[1]
        if second.is_constant:
            weights = second.data.astype(np.int64) - second.zero_point
            if _is_transposed(self.node, 1):
                weights = weights.swapaxes(-1, -2)
            least = greatest = weights.reshape(math.prod(others), 1, rows, columns)
        else:
            least, greatest = (
                np.full((1, 1, rows, columns), limit - second.zero_point, np.int64)
                for limit in stored_range(second.dtype)
            )
        return Products(
            least,
            greatest,
            rows=None,
            columns=np.ones((1, 1), bool),
            is_wide=self._is_wide,
            has_half_weights=True,
        )

    @property
    def _output_shape(self) -> tuple[int, ...]:
        """That of an image."""
        (*front, rows, _), (*others, _, columns) = _shapes(self.node)
        return (*np.broadcast_shapes(tuple(front), tuple(others)), rows, columns)

    def sums(self, inputs: Sequence[tf.Tensor | None]) -> tf.Tensor:
        """Return the sums."""
        total = self._product(*self._numbers(inputs))
        return tf.reshape(total, [-1, *self._output_shape[1:]])

    def partial_sums(
        self,
        inputs: Sequence[tf.Tensor | None],
        accumulator_sizes: Sequence[int],
        known_extremes: tf.Tensor | None = None,
        channels: Sequence[int] | None = None,
    ) -> PartialSums:
        """Return what the partial sums of full width reach."""
        first, second = self._operands(inputs)
        if channels is not None:
            second = tf.gather(second, channels, axis=-1)
        return ops.matmul_partial_sums(
            first,
            second,
            a_zero_point=self.node.inputs[0].zero_point,
            b_zero_point=self.node.inputs[1].zero_point,
            mult_shift=self.arithmetic.mult_shift,
            accumulator_sizes=accumulator_sizes,
            known_extremes=known_extremes,
        )

    def was_outside(self, inputs: Sequence[tf.Tensor | None], accumulator_size: int) -> tf.Tensor:
        """Return for each of the sums whether one of its partial sums was outside of a width."""
        first, second = (tf.cast(operand, tf.int64) for operand in self._numbers(inputs))
        chain = Chain(self.arithmetic.mult_shift, accumulator_size)
        shape = tf.concat([tf.shape(first)[:-1], tf.shape(second)[-1:]], 0)
        _, outside = chain.add_all(
            chain.start(shape),
            lambda k: [first[..., k, None] * second[..., k, None, :]],
            first.shape[-1],
        )
        return tf.reshape(outside, [-1, *self._output_shape[1:]])

    def _numbers(self, inputs: Sequence[tf.Tensor | None]) -> list[tf.Tensor]:
        """Return the operands less their zero points, int32, as `_operands` has them."""
        return [
            tf.cast(operand, tf.int32) - tensor.zero_point
            for operand, tensor in zip(self._operands(inputs), self.node.inputs, strict=True)
        ]

    def _operands(self, inputs: Sequence[tf.Tensor | None]) -> tuple[tf.Tensor, tf.Tensor]:
        """Return the stored matrices to multiply, [rows, inner] or [matrices, rows, inner]."""
        first, second = (self._matrices(i, inputs[i]) for i in (0, 1))
        if self._is_one_matrix:
            first = tf.reshape(first, [-1, first.shape[-1]])
            return first, tf.reshape(second, second.shape[-2:])
        return self._side_by_side(first, second)

    def run(self, inputs: Sequence[tf.Tensor | None]) -> list[tf.Tensor]:
        """Compute the stored output."""
        if self._prepared is None:
            return super().run(inputs)
        if self._is_one_matrix:
            second = tf.reshape(inputs[1], inputs[1].shape[-2:])
        else:
            second = self._aligned(1, inputs[1])
        product = self._prepared(self._aligned(0, inputs[0]), second)
        return [tf.reshape(product, [-1, *self._output_shape[1:]])]

    def _aligned(self, i: int, operand: tf.Tensor) -> tf.Tensor:
        """Return an operand as [B, ..., rows, columns], of as many dimensions as the other one."""
        shape = self.node.inputs[i].shape
        missing = len(self._output_shape) - len(shape)
        return tf.reshape(operand, [-1, *[1] * missing, *shape])

    def _matrices(self, i: int, stored: tf.Tensor) -> tf.Tensor:
        """Return a stored operand, [B, ..., rows, columns], transposed if need be."""
        images = tf.reshape(stored, [-1, *self.node.inputs[i].shape])
        return tf.linalg.matrix_transpose(images) if _is_transposed(self.node, i) else images

    def _side_by_side(self, first: tf.Tensor, second: tf.Tensor) -> tuple[tf.Tensor, tf.Tensor]:
        """Return [matrices, rows, inner] and [matrices, inner, columns], repeated to match."""
        front = self._output_shape[:-2]
        images = tf.maximum(tf.shape(first)[0], tf.shape(second)[0])
        matched = []
        for operand in (first, second):
            _, *own, rows, columns = operand.shape
            ones = [1] * (len(front) - len(own))
            aligned = tf.reshape(operand, [-1, *ones, *own, rows, columns])
            repeated = tf.broadcast_to(aligned, [images, *front, rows, columns])
            matched.append(tf.reshape(repeated, [-1, rows, columns]))
        return matched[0], matched[1]

    def _product(self, first: tf.Tensor, second: tf.Tensor) -> tf.Tensor:
        """Multiply matrices in the operator's arithmetic."""
        if self._has_wide_sums:
            return self._in_64_bits(first, second)
        return ops.matmul(tf.cast(first, self._type), tf.cast(second, self._type), **self._keywords)

    def _in_64_bits(self, first: tf.Tensor, second: tf.Tensor) -> tf.Tensor:
        """Add up sums over so few elements that none leaves 32 bits."""
        shift = self.arithmetic.mult_shift
        if shift:
            # A product is below 2^30 in magnitude, or just that.
            return self._in_groups(first, second, 1 << shift)
        low = tf.bitwise.bitwise_and(first, 255)
        high = tf.bitwise.right_shift(first, 8)
        return 256 * self._in_groups(high, second, _BYTES) + self._in_groups(low, second, _BYTES)

    def _in_groups(self, first: tf.Tensor, second: tf.Tensor, size: int) -> tf.Tensor:
        """Return the sum in 64 bits of products of so many elements of the inner dimension."""
        groups = [slice(i, i + size) for i in range(0, first.shape[-1], size)]
        parts = [
            ops.matmul(first[..., group], second[..., group, :], **self._keywords)
            for group in groups
        ]
        return tf.add_n([tf.cast(part, tf.int64) for part in parts])

    def finish(self, sums: tf.Tensor) -> list[tf.Tensor]:
        """Requantise."""
        return [self._requantise(sums)]


def _is_transposed(node: Node, i: int) -> bool:
    return bool(node.option(("adj_x", "adj_y")[i]))


def _shapes(node: Node) -> tuple[tuple[int, ...], tuple[int, ...]]:
    """Return the operands' shapes with the inner dimension last and last but one."""
    first, second = (
        (*t.shape[:-2], t.shape[-1], t.shape[-2]) if _is_transposed(node, i) else t.shape
        for i, t in enumerate(node.inputs)
    )
    return first, second


def _multiplier(node: Node) -> np.ndarray:
    """Return first scale x second scale / output scale."""
    first, second = (np.float32(tensor.scale) for tensor in node.inputs)
    return np.array([np.float64(first * second) / node.outputs[0].scale])
