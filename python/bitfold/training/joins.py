# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Sums, differences and concatenations in integers: ADD, SUB, CONCATENATION of the runtime."""

from __future__ import annotations

from typing import Any

import keras
import tensorflow as tf

from bitfold import ops
from bitfold.network import trained
from bitfold.network.arithmetic import Arithmetic
from bitfold.training.clamping import Term, clamped
from bitfold.training.flow import Flow, current
from bitfold.training.layers import Ranged, eagerly, known

# Operands are added with so many bits to spare.
_SPARE = 20


@keras.saving.register_keras_serializable("bitfold")
class EmulatedAddition(Ranged):
    """The sum or the difference of two tensors of one shape.

    Both operands are brought to twice the larger scale with 20 spare bits, added and requantised.
    """

    operands = 2

    def __init__(self, *, subtracts: bool = False, **kwargs: Any) -> None:
        """Take whether the second operand is subtracted."""
        super().__init__(**kwargs)
        self.subtracts = subtracts
        self.kind = "SUB" if subtracts else "ADD"

    def build(
        self, values_shape: Any, grid_shape: Any, second_shape: Any, second_grid_shape: Any
    ) -> None:
        """Build nothing."""
        self.built = True

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
                self._note(known(grid))
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

    def _note(self, grid: Any) -> None:
        output = eagerly(self.range.grid)
        trained.notes().append(
            trained.Trained(
                name=self.name,
                kind=self.kind,
                arithmetic=Arithmetic(),
                filter=None,
                filter_scales=None,
                axis=0,
                bias=None,
                data=(float(grid[0]), int(grid[1])),
                output=(float(output[0]), int(output[1])),
            )
        )

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
class EmulatedConcatenation(Ranged):
    """Tensors one behind the other, each brought to one grid in two roundings."""

    def __init__(self, *, axis: int = -1, **kwargs: Any) -> None:
        """Take the dimension along which they lie behind one another."""
        super().__init__(**kwargs)
        self.axis = axis
        self.kind = "CONCATENATION"

    def build(self, *shapes: Any, **named: Any) -> None:
        """Build nothing."""
        self.built = True

    def call(self, *operands: tf.Tensor, training: bool = False) -> Any:
        """Compute a batch of centred integers and grids in turn."""
        values, grids = operands[::2], operands[1::2]
        if current() is not Flow.INTEGERS:
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
