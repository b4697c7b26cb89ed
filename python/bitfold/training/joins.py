# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Several tensors to one, in integers: ADD, SUB, MUL and CONCATENATION of the runtime."""

from __future__ import annotations

from typing import Any

import keras
import tensorflow as tf

from bitfold import ops
from bitfold.training.clamping import Term, clamped
from bitfold.training.flow import Flow, current
from bitfold.training.layers import Ranged, known

# Operands are added with so many bits to spare.
_SPARE = 20


@keras.saving.register_keras_serializable("bitfold")
class EmulatedAddition(Ranged):
    """The sum or the difference of two tensors of one shape.

    Both operands are brought to twice the larger scale with 20 spare bits, added and requantised.
    """

    def __init__(self, *, subtracts: bool = False, **kwargs: Any) -> None:
        """Take whether the second operand is subtracted."""
        super().__init__(**kwargs)
        self.subtracts = subtracts
        self.kind = "SUB" if subtracts else "ADD"

    def call(
        self,
        values: tf.Tensor,
        grid: tf.Tensor,
        second: tf.Tensor,
        second_grid: tf.Tensor,
        training: bool = False,
    ) -> Any:
        """Compute a batch."""
        sign = -1 if self.subtracts else 1
        flow = current()
        if flow is not Flow.INTEGERS:
            if flow is Flow.EXPORT:
                self.note([known(grid), known(second_grid)])
            return self.in_floats(values - second if self.subtracts else values + second)
        output_grid = self.range.grid()
        scales = [tf.cast(given[0], tf.float64) for given in (grid, second_grid, output_grid)]
        unit = 2.0 * tf.maximum(scales[0], scales[1])
        first_part = _scaled(values, scales[0] / unit)
        second_part = _scaled(second, scales[1] / unit)
        total = tf.stop_gradient(first_part + sign * second_part)
        stored = ops.requantise(total, (unit / (2.0**_SPARE * scales[2]))[None], dtype=tf.int16)
        unclamped = tf.stop_gradient(tf.cast(stored, tf.float32))
        signs = (1.0, -1.0 if self.subtracts else 1.0)
        terms = [
            Term(given, tf.cast(s * scale / scales[2], tf.float32))
            for given, scale, s in zip((values, second), scales, signs, strict=False)
        ]
        centred = clamped(
            unclamped, terms, self.output_bounds(output_grid), log_scale=self.log_scale
        )
        self.observe(unclamped, output_grid, training)
        return self.result(centred, output_grid)

    def compute_output_spec(
        self, values: Any, grid: Any, second: Any, second_grid: Any, training: bool = False
    ) -> Any:
        """Return what a call gives, symbolically."""
        return self.spec(values.shape)

    def get_config(self) -> dict[str, Any]:
        """Return what `from_config` needs."""
        return {**super().get_config(), "subtracts": self.subtracts}


def _scaled(centred: tf.Tensor, multiplier: tf.Tensor) -> tf.Tensor:
    """Return an operand in the scale of both, int32."""
    sums = tf.cast(centred * 2.0**_SPARE, tf.int32)
    return ops.requantise(sums, multiplier[None], dtype=tf.int32)


@keras.saving.register_keras_serializable("bitfold")
class EmulatedProduct(Ranged):
    """The product of two tensors, element by element, each repeated where the other is larger."""

    kind = "MUL"

    def call(
        self,
        values: tf.Tensor,
        grid: tf.Tensor,
        second: tf.Tensor,
        second_grid: tf.Tensor,
        training: bool = False,
    ) -> Any:
        """Compute a batch."""
        flow = current()
        products = values * second
        if flow is not Flow.INTEGERS:
            if flow is Flow.EXPORT:
                self.note([known(grid), known(second_grid)])
            return self.in_floats(products)
        output_grid = self.range.grid()
        # In single precision, as the runtime has it.
        multiplier = tf.cast(grid[0] * second_grid[0] / output_grid[0], tf.float64)
        whole = tf.cast(tf.stop_gradient(products), tf.int32)
        stored = ops.requantise(whole, multiplier[None], dtype=tf.int16)
        unclamped = tf.stop_gradient(tf.cast(stored, tf.float32))
        centred = clamped(
            unclamped,
            [Term(products, tf.cast(multiplier, tf.float32))],
            self.output_bounds(output_grid),
            log_scale=self.log_scale,
        )
        self.observe(unclamped, output_grid, training)
        return self.result(centred, output_grid)

    def compute_output_spec(
        self, values: Any, grid: Any, second: Any, second_grid: Any, training: bool = False
    ) -> Any:
        """Return what a call gives, symbolically."""
        layer = keras.layers.Multiply()
        return self.spec(layer.compute_output_shape([values.shape, second.shape]))


@keras.saving.register_keras_serializable("bitfold")
class EmulatedConcatenation(Ranged):
    """Tensors one behind the other, each brought to one grid in two roundings."""

    def __init__(self, *, axis: int = -1, **kwargs: Any) -> None:
        """Take the dimension along which they lie behind one another."""
        super().__init__(**kwargs)
        self.axis = axis
        self.kind = "CONCATENATION"

    def call(self, *operands: tf.Tensor, training: bool = False) -> Any:
        """Compute a batch of centred integers and grids in turn."""
        values, grids = operands[::2], operands[1::2]
        flow = current()
        if flow is not Flow.INTEGERS:
            if flow is Flow.EXPORT:
                self.note([known(grid) for grid in grids])
            return self.in_floats(tf.concat(values, self.axis))
        output_grid = self.range.grid()
        parts = [_rescaled(*pair, output_grid) for pair in zip(values, grids, strict=True)]
        unclamped = tf.concat([part for part, _ in parts], self.axis)
        exact = tf.concat([term.values * term.factors for _, term in parts], self.axis)
        centred = clamped(
            tf.stop_gradient(unclamped),
            [Term(exact, tf.ones([]))],
            self.output_bounds(output_grid),
            log_scale=self.log_scale,
        )
        self.observe(unclamped, output_grid, training)
        return self.result(centred, output_grid)

    def compute_output_spec(self, *operands: Any, training: bool = False) -> Any:
        """Return what a call gives, symbolically."""
        layer = keras.layers.Concatenate(self.axis)
        return self.spec(layer.compute_output_shape([x.shape for x in operands[::2]]))

    def get_config(self) -> dict[str, Any]:
        """Return what `from_config` needs."""
        return {**super().get_config(), "axis": self.axis}


def _rescaled(values: tf.Tensor, grid: tf.Tensor, output_grid: tf.Tensor) -> tuple[tf.Tensor, Term]:
    """Return centred integers in another grid, and what they approximate."""
    ratio = tf.cast(grid[0], tf.float64) / tf.cast(output_grid[0], tf.float64)
    stored = ops.requantise(
        tf.cast(tf.stop_gradient(values), tf.int32), ratio[None], dtype=tf.int16
    )
    return tf.cast(stored, tf.float32), Term(values, tf.cast(ratio, tf.float32))
