# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""ADD and SUB.

Both operands are brought to a common scale with 20 spare bits, in int16 with 15, then added; the
second is negated before it is rounded in SUB. The sum is multiplied by twice the larger scale /
(2^spare * the output's scale) in two roundings, shifted by the zero point and clamped.

In int16 a file may ask for shifts instead (pot_scale_int16, the default): where all scales are
powers of two. Then the operand of the smaller scale is divided by a power of two, halves away from
zero, and the sum is clamped.
"""

from __future__ import annotations

from collections.abc import Iterator

import numpy as np
import tensorflow as tf

from bitfold import ops
from bitfold.network.graph import Node, Tensor
from bitfold.network.operators import _checks
from bitfold.network.operators._pairs import PairStep, pair_problems, stored_result
from bitfold.network.operators._requantisation import FUSED, activation_range
from bitfold.network.operators._scaling import need_fraction, scale_problems, twice_larger_scale

# More bits than int16 has cannot be shifted out.
_MOST_SHIFT = 15
_SPARE = {"int8": 20, "int16": 15}


class Addition(PairStep):
    """ADD and SUB."""

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = [
            *pair_problems(node),
            *_checks.need_option(node, "fused_activation_function", *FUSED),
        ]
        yield from before
        if before:
            return
        if _exponents(node) is not None:
            yield from _shift_problems(node)
            return
        yield from scale_problems(node.inputs)
        yield from need_fraction("the multiplier of the sum", _multiplier(node))

    def set_up(self) -> None:
        """Make the shifts and the bounds."""
        output = self.node.outputs[0]
        fused = self.node.option("fused_activation_function")
        self._signs = (1, -1 if self.node.kind == "SUB" else 1)
        self._shifts = None if _exponents(self.node) is None else _shifts(self.node)
        self._bounds = activation_range(output, fused)

    def prepare(self, i: int, stored: tf.Tensor) -> tf.Tensor:
        """Bring an operand to the output's scale where that is done by shifts."""
        if self._shifts is None:
            return stored
        return self._signs[i] * _divided(tf.cast(stored, tf.int32), self._shifts[i])

    def combine(self, first: tf.Tensor, second: tf.Tensor) -> tf.Tensor:
        """Add and requantise."""
        if self._shifts is None:
            operation = "subtract" if self.node.kind == "SUB" else "add"
            return stored_result(self.node, operation, first, second, self._bounds)
        return tf.cast(tf.clip_by_value(first + second, *self._bounds), tf.int16)


def _spare(node: Node) -> int:
    return _SPARE[node.outputs[0].dtype.name]


def _multiplier(node: Node) -> float:
    """Return what the sum is multiplied by."""
    return twice_larger_scale(node.inputs) / (2.0 ** _spare(node) * node.outputs[0].scale)


# ---- Shifts -------------------------------------------------------------------------------------


def _exponents(node: Node) -> list[int] | None:
    """Return the powers of two that the scales are; None where the file does not ask for shifts."""
    if node.outputs[0].dtype != np.int16 or not node.option("pot_scale_int16", True):
        return None
    exponents = [_exponent(tensor) for tensor in (*node.inputs, *node.outputs)]
    return None if None in exponents else exponents


def _exponent(tensor: Tensor) -> int | None:
    """Return the logarithm of a scale if it is nearly whole, as single precision finds it."""
    logarithm = np.log(np.float32(tensor.scale)) * (np.float32(1) / np.log(np.float32(2)))
    nearest = np.rint(logarithm)
    return int(nearest) if abs(logarithm - nearest) < np.float32(1e-3) else None


def _shifts(node: Node) -> list[int]:
    """Return by how many bits each operand is shifted right."""
    *operands, output = _exponents(node)
    return [output - operand for operand in operands]


def _shift_problems(node: Node) -> Iterator[str]:
    """Yield unless one operand has the output's scale and the other a smaller one, unbroadcast."""
    shifts = _shifts(node)
    if min(shifts) != 0 or max(shifts) > _MOST_SHIFT:
        yield (
            "need one operand of the output's scale and one of at least 2^-15 and at most as much "
            f"for pot_scale_int16, got {node.inputs[0].scale:.9g}, {node.inputs[1].scale:.9g} and "
            f"{node.outputs[0].scale:.9g}"
        )
    if node.inputs[0].shape != node.inputs[1].shape:
        yield (
            "need operands of one shape for pot_scale_int16, got "
            f"{list(node.inputs[0].shape)} and {list(node.inputs[1].shape)}"
        )


def _divided(x: tf.Tensor, shift: int) -> tf.Tensor:
    """Return x / 2^shift, halves away from zero."""
    # The factor of 2 keeps the first of the two roundings exact.
    return ops.requantise(x * 2, [2.0 ** -(shift + 1)], rounding="two_roundings", dtype=tf.int32)
