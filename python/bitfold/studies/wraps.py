# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""How it is found what becomes of a layer's sums in an accumulator, as cheaply as it can be proven.

A sum is wrong if it differs from that of full width for the same inputs and shift. It is right
again if it is not wrong although some partial sum of full width was outside of the accumulator.

- **NOTHING.** No input of the stored type leads a partial sum out of the accumulator. Every sum is
  right, and none is looked at.
- **COUNT.** No addend is above 2^w in magnitude, so that by theorem 1 (docs/arithmetic.md) a sum is
  wrong exactly where it ends outside: it suffices to count sums that end outside, and that were.
- **COMPARISON.** An addend may be above. Then sums are computed in both, and compared. Addends are
  those of full width, so a sum of which no partial sum was outside is right; those that were
  outside and are not wrong are right again.
- **CHAIN.** Addends differ from those of full width (weights with another sign, a bias that was
  narrowed before its shift), or sums are rounded (half precision). A wrong sum need not have been
  outside, so it is followed, addend by addend, which sums were; only where any was.
"""

from __future__ import annotations

import dataclasses
import enum
from collections.abc import Callable, Sequence

import numpy as np
import tensorflow as tf

from bitfold.network.operators import SummingStep
from bitfold.network.operators._products import scaled
from bitfold.studies.bounds import bits_of, layer_bounds
from bitfold.studies.records import Counts

_WIDEST = 32
# Half precision holds no partial sum beyond 16 bits, and every whole number up to 2^12.
_HALF_WIDTH = 16
_HALF_EXACT = 1 << 12
# Of counts [channels, 3] the sums of which a partial sum was outside.
_WAS = 1


class Method(enum.Enum):
    """How sums are judged; see the module."""

    NOTHING = 0
    COUNT = 1
    COMPARISON = 2
    CHAIN = 3


@dataclasses.dataclass(frozen=True, eq=False)
class Wraps:
    """The sums of a layer in an arithmetic, beside those of full width.

    Attributes:
        step: the layer in the arithmetic.
        reference: the layer at full width, with the same shift.
        width: the bits that partial sums are compared with.
        method: how sums are judged.
        channels: of the output, those of which some input leads a partial sum of full width out of
            the accumulator.
        is_congruent: whether the accumulator adds up products as 32 bits do, but for the bits that
            it drops: no product is above 2^w, no weight has another sign, and 32 bits hold all that
            sums can be. A bias may be wider.
    """

    step: SummingStep
    reference: SummingStep
    width: int
    method: Method
    channels: tuple[int, ...]
    is_congruent: bool = False

    @property
    def needs_sums(self) -> bool:
        """Whether sums are computed in both arithmetics."""
        return self.method in (Method.COMPARISON, Method.CHAIN)

    def compared(
        self,
        inputs: Sequence[tf.Tensor | None],
        counts: tf.Tensor,
        differs: Callable[[], tf.Tensor],
    ) -> tf.Tensor:
        """Return how many sums are wrong and right again, int64 [2], where sums are needed.

        Args:
            inputs: of the layer.
            counts: of the width, int64 [channels, 3], as `bitfold.ops.partial_sums` has them.
            differs: returns which sums differ from those of full width.
        """
        was = tf.reduce_sum(counts[:, _WAS])
        if self.method is Method.COMPARISON:
            wrong = tf.cond(was > 0, lambda: tf.math.count_nonzero(differs()), _nothing)
            return tf.stack([wrong, was - wrong])
        is_wrong = differs()
        right_again = tf.cond(
            was > 0,
            lambda: tf.math.count_nonzero(
                self.reference.was_outside(inputs, self.width) & ~is_wrong
            ),
            _nothing,
        )
        return tf.stack([tf.math.count_nonzero(is_wrong), right_again])

    @staticmethod
    def counted(counts: tf.Tensor, wrong: tf.Tensor) -> tf.Tensor:
        """Return what `compared` does, of a number of wrong sums of which all were outside."""
        return tf.stack([wrong, tf.reduce_sum(counts[:, _WAS]) - wrong])


def counts_of(
    sums: int, counts: np.ndarray, first: np.ndarray, compared: np.ndarray | None
) -> Counts:
    """Return what became of sums.

    Args:
        sums: how many there are.
        counts: of the width, int64 [channels, 3], as `bitfold.ops.partial_sums` has them.
        first: int64 [channels], the same.
        compared: of `Wraps.compared`, where sums were needed.
    """
    ends, was, single = map(int, counts.sum(0))
    wrong, right_again = (ends, was - ends) if compared is None else map(int, compared)
    steps = first[first > 0]
    return Counts(sums, wrong, right_again, single, int(steps.min()) if steps.size else 0)


def _nothing() -> tf.Tensor:
    return tf.zeros([], tf.int64)


def wraps_of(step: SummingStep, reference: SummingStep, harmless_from: int) -> Wraps:
    """Choose how to judge a layer's sums.

    Args:
        step: in the arithmetic.
        reference: at full width with the same shift.
        harmless_from: of `bounds.layer_bounds` for this shift.
    """
    arithmetic = step.arithmetic
    size = arithmetic.accumulator_size
    is_half = arithmetic.use_fp16_acc
    width = _HALF_WIDTH if is_half else size or _WIDEST
    if size is None and not is_half:
        return Wraps(step, reference, width, Method.NOTHING, ())
    ranges = partial_ranges(reference)
    bits = [bits_of(low, high) for low, high in ranges]
    if corrected_weights(step) or _is_bias_narrowed(step):
        method = Method.CHAIN
    elif is_half:
        is_exact = all(low >= -_HALF_EXACT and high <= _HALF_EXACT for low, high in ranges)
        method = Method.NOTHING if is_exact else Method.CHAIN
    elif max(bits) <= width:
        method = Method.NOTHING
    elif width >= harmless_from and (step.products.is_wide or max(bits) <= _WIDEST):
        method = Method.COUNT
    else:
        method = Method.COMPARISON
    channels = tuple(channel for channel, needed in enumerate(bits) if needed > width)
    is_congruent = method in (Method.COUNT, Method.COMPARISON) and _is_congruent(reference, width)
    return Wraps(step, reference, width, method, channels, is_congruent)


def harmless_from(reference: SummingStep) -> int:
    """Return from which width on theorem 1 holds for any stored input, with the step's shift."""
    limits = np.iinfo(reference.data.dtype)
    return layer_bounds(
        reference, int(limits.min), int(limits.max), reference.arithmetic.mult_shift
    ).harmless_from


def partial_ranges(reference: SummingStep) -> list[tuple[int, int]]:
    """Return the least and greatest partial sum of each channel that any stored input can give."""
    products, shift = reference.products, reference.arithmetic.mult_shift
    limits = np.iinfo(reference.data.dtype)
    data = [int(limit) - reference.data.zero_point for limit in (limits.min, limits.max)]
    weights = [products.least]
    if products.greatest is not products.least:
        weights.append(products.greatest)
    corners = [scaled(weight * number, shift) for weight in weights for number in data]
    least = np.minimum(np.minimum.reduce(corners), 0).sum((0, 1, 2)).tolist()
    greatest = np.maximum(np.maximum.reduce(corners), 0).sum((0, 1, 2)).tolist()
    biases = [0] * len(least)
    if reference.bias_tensor is not None:
        biases = [_scaled(int(b), shift) for b in reference.bias_tensor.data.reshape(-1)]
    return [
        (min(low, low + bias), max(high, high + bias))
        for low, high, bias in zip(least, greatest, biases, strict=True)
    ]


def _is_congruent(reference: SummingStep, width: int) -> bool:
    """Return whether products add up modulo 2^w, and 32 bits hold every sum, by magnitudes."""
    weights = np.maximum(np.abs(reference.products.least), np.abs(reference.products.greatest))
    limits, zero_point = np.iinfo(reference.data.dtype), reference.data.zero_point
    data = max(int(limits.max) - zero_point, zero_point - int(limits.min))
    largest = weights.sum((0, 1, 2)) * data
    if reference.bias_tensor is not None:
        largest = largest + np.abs(reference.bias_tensor.data.reshape(-1).astype(np.int64))
    is_held = int(largest.max(initial=0)) < 1 << (_WIDEST - 1)
    return is_held and int(weights.max(initial=0)) * data <= 1 << width


def corrected_weights(step: SummingStep) -> int:
    """Return how many weights the unit reads with another sign in a step's arithmetic.

    Of a second operand that is data, how many of its elements may be: at least one counts.
    """
    products = step.products
    if not products.has_half_weights:
        return 0
    size = step.arithmetic.accumulator_size
    half = (_WIDEST if size is None else size) // 2
    largest = (1 << (half - 1)) - 1 if half else 0
    if step.weights_tensor is None:
        return int(products.greatest.max(initial=0) > largest)
    return int((products.greatest > largest).sum())


def _is_bias_narrowed(step: SummingStep) -> bool:
    """Return whether a bias loses bits before it is shifted."""
    if step.bias_tensor is None or not step.arithmetic.mult_shift:
        return False
    bias = step.bias_tensor.data
    return bool((bias != bias.astype(np.int32)).any())


def _scaled(number: int, shift: int) -> int:
    """Return a whole number divided by 2^shift, halves to even."""
    if not shift:
        return number
    below_half = (1 << (shift - 1)) - 1
    return (number + below_half + (number >> shift & 1)) >> shift
