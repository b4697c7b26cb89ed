# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Builders of the tables that ``layer_norm``, ``softmax`` and ``activation`` take.

Each builder starts from the mathematical function and from the scales of the whole numbers around
the unit, and returns a record: ``keywords`` are arguments of the op, ``dequantise`` turns its
results into real numbers, and ``max_error`` bounds how far these lie from the real function. The
docstrings derive the tables and the bounds; the project's tests hold the units to them.

Example:
    >>> import bitfold, numpy as np
    >>> from bitfold import tables
    >>> table = tables.softmax(1 / 16)
    >>> result = bitfold.ops.softmax(np.float32([[32, 16, 0]]), **table.keywords)
    >>> table.dequantise(result).round(3)  # of 2.0, 1.0 and 0.0
    array([[0.667, 0.247, 0.09 ]])
"""

from __future__ import annotations

import functools
import math
from collections.abc import Callable
from dataclasses import dataclass
from typing import Any, NamedTuple

import numpy as np

from bitfold._frame.checks import require

__all__ = [
    "FUNCTIONS",
    "ActivationTable",
    "LayerNormTable",
    "SoftmaxTable",
    "activation",
    "layer_norm",
    "softmax",
]


class _Output:
    """What all records share."""

    output_scale: float
    output_zero_point: int

    def dequantise(self, result: Any) -> np.ndarray:
        """Return what results stand for: output_scale * (result - output_zero_point), float64."""
        return self.output_scale * (np.asarray(result, np.float64) - self.output_zero_point)


# ---- Layer normalisation -----------------------------------------------------------------------

_MAX_VECTOR_SIZE = 4096
_SUM_LIMIT = 2**19 - 1  # of the rounded sum, 20 bits with a sign
_ELEMENT_LIMIT = 2**15 - 1  # of the mean, 16 bits with a sign
_SCALED_LIMIT = 2.0**29  # half the limit of a scaled element, 31 bits with a sign
_BIASED_LIMIT = 2**19  # of the output stage's sum
# Shifts drop what lies below three fraction bits before they round: half a step and an eighth.
_SHIFT_ERROR = 0.5 + 1 / 8
# A factor is this / sqrt(u) with u in [1/4, 1): twice it is the largest that 16 bits hold, less
# what the fit of the first interval adds.
_UNITY = 32760.0


@dataclass(frozen=True, eq=False)
class LayerNormTable(_Output):
    """What `layer_norm` returns.

    Attributes:
        lut: float32 [256], the inverse square roots.
        scalars: the other keyword arguments of ``bitfold.ops.layer_norm``.
        vector_size: the number of channels that they hold for.
        gain: the factor of the normalised value.
        bias: the real number added to it.
        epsilon: what is to be added to the variance, in squared steps of the input.
        output_scale: the real value of one step of the result.
        output_zero_point: the result that stands for 0.
        relative_error: bound of the relative error of the inverse square root, without what the
            rounding of the sums adds.
    """

    lut: np.ndarray
    scalars: dict[str, int]
    vector_size: int
    gain: float
    bias: float
    epsilon: float
    output_scale: float
    output_zero_point: int
    relative_error: float

    @property
    def keywords(self) -> dict[str, Any]:
        """Keyword arguments of ``bitfold.ops.layer_norm``."""
        return {"lut": self.lut, **self.scalars}

    @property
    def output_limits(self) -> tuple[float, float]:
        """The real values of the smallest and the largest result."""
        top = _output_top(self.scalars["activation_output_mode"] == 1)
        low, high = -self.output_zero_point, top - self.output_zero_point
        return self.output_scale * low, self.output_scale * high

    def max_error(self, deviation: float, mean: float = 0.0) -> float:
        """Bound the error for vectors of a given spread, as `layer_norm` derives it.

        Args:
            deviation: their standard deviation in steps of the input, the smallest of them; in RMS
                mode their root mean square.
            mean: how far their mean lies from the zero point, in steps, the largest of them.

        Returns:
            The bound in real units for results limited to `output_limits`; infinite where the
            rounding of the sum may outweigh the variance.
        """
        scalars, size = self.scalars, self.vector_size
        deviation, mean = float(deviation), abs(float(mean))
        is_rms = scalars["rms_mode_enable"] == 1
        shift = scalars["sum_of_x_shift"]
        step = 2.0**shift / size  # a unit of the rounded sum, as a mean
        sum_error = step * _SHIFT_ERROR if shift and not is_rms else 0.0
        variance = deviation**2 + self.epsilon
        lost = 2 * mean * sum_error + sum_error**2 + (step**2 * _SHIFT_ERROR if shift else 0.0)
        lost += abs(scalars["epsilon"] * step**2 - self.epsilon)
        if lost >= variance:
            return math.inf
        relative = (1 + self.relative_error) / math.sqrt(1 - lost / variance) - 1
        multiplier = scalars["sum_of_x_mult"] / 2.0 ** scalars["sum_of_x_mult_n_shift"]
        mean_error = sum_error + mean * abs(multiplier / step - 1) + _SHIFT_ERROR
        if is_rms:
            mean_error = 0.0
        unit = _output_unit(scalars["activation_output_mode"] == 1)
        element_step = scalars["mul_act_man"] / 2.0 ** (scalars["mul_act_exp"] + 6)
        rounding = 0.5 + (element_step + 1 + 1 / 64) / unit
        low, high = self.output_limits
        largest = min(max(high - self.bias, self.bias - low), self.gain * math.sqrt(size))
        return (
            self.gain * mean_error / math.sqrt(variance) * (1 + relative)
            + largest * relative
            + self.output_scale * rounding
        )


def layer_norm(
    vector_size: int,
    *,
    input_scale: float = 1.0,
    zero_point: int = 0,
    input_range: tuple[int, int] = (-128, 127),
    largest_mean: float | None = None,
    epsilon: float = 1e-3,
    gain: float = 1.0,
    bias: float = 0.0,
    output_scale: float | None = None,
    output_zero_point: int | None = None,
    is_16bit_output: bool = False,
    is_rms: bool = False,
) -> LayerNormTable:
    """Build the table and the scalars of the layer normalisation unit.

    The result stands for gain * (x - mean) / sqrt(variance + epsilon) + bias; in RMS mode for
    gain * x / sqrt(mean of x^2 + epsilon) + bias. Factors and biases of single channels are not in
    the unit: fold them into the layer that follows.

    Derivation, with n the vector's length, d = x - zero_point and S the sum of d:

    Sums. The unit rounds S to m = S / 2^s and forms var = n * sum(d^2) / 4^s + epsilon - m^2, which
    is the variance of d times (n / 2^s)^2; the integer epsilon is the real one in that unit. s is
    the smallest shift with which m stays within 20 bits: 0 for 8 bits around the zero point and n
    below 4096, and then var is exact. The mean is m * mult / 2^shift, with mult / 2^shift =
    2^s / n in 16 bits. The unit rounds it to a whole step of the input.

    Inverse square root. With k the leading one of var and h = (k + 2) div 2, var = 4^h * u and u in
    [1/4, 1). The unit's index word is 2^16 * u, cut to 16 bits, so 1 / sqrt(var) = 2^-h / sqrt(u)
    needs the entries 64 to 255 only. Entry j holds F / sqrt(u) at its start and its fall per step
    of the index word's low byte. F = 32760 fills 16 bits at u = 1/4. The fall lies between 2 and
    1/4 a step and is stored as a whole number, 2, 1 or 0: of the two neighbours the one with the
    smaller error is taken, and the entry is centred on its interval. What remains is a relative
    error of 0.16 % (2^-9.3), where the true fall is a half.

    Scaling. An element is (d - mean) * F / sqrt(u) * 2^(e - h), e = exponent_sub_value, which is
    z * F * 2^(e + s) / n for a normalised value z. e is the largest with which the largest z that
    the output holds stays below 2^29, half of the unit's limit, so what the right shift cuts off
    does not count.

    Output. The stage computes (man * element / 2^(exp + 6) + mul_act_bias) / T, T = 8 with
    16-bit and 1024 with 8-bit output. So man / 2^(exp + 6) is
    T * gain / output_scale * n / (F * 2^(e + s)) in 16 bits, and mul_act_bias is
    T * (output_zero_point + bias / output_scale).

    Error. To the relative error, half a step of the output and the mean's rounding add up:

        gain * 0.625 / deviation + 0.00156 * largest result + 0.502 (T = 1024) or 0.63 (T = 8) steps

    with the deviation in steps of the input; `LayerNormTable.max_error` has every term, those of
    s > 0 too. A mean that is no whole number is the largest error of 8-bit inputs: spread 8-bit
    inputs over their range, or give the unit 16-bit ones. With s > 0 the unit's var can even become
    negative, and the result meaningless, for vectors that are almost constant and far from the zero
    point; there `max_error` is infinite.

    Measured on the unit: the inverse square root, over all of its 49,152 index words, is wrong by
    at most 0.156 %. With 1,000 vectors of 64 normally distributed whole numbers and the default
    output the largest errors are

        inputs                   output    largest error    a step of the output
        int8, deviation 32       8 bits           0.0533                  0.0625
        int8, deviation 32      16 bits           0.0238                 0.00049
        int16, deviation 8192   16 bits           0.0043                 0.00049

    Args:
        vector_size: the number of channels, 1 to 4096.
        input_scale: the real value of one step of the input.
        zero_point: the input that stands for 0, 0 to 65535.
        input_range: the smallest and the largest input; at most 32767 from the zero point.
        largest_mean: how far the mean of a vector can lie from the zero point, in steps. By
            default as far as `input_range` reaches; a tighter one can keep s small.
        epsilon: the real number added to the variance.
        gain: the factor of the normalised value, above 0.
        bias: the real number added to it.
        output_scale: the real value of one step of the result. By default the range of the output
            covers 16 * gain.
        output_zero_point: the result that stands for 0. By default half the range of the output.
        is_16bit_output: results of 0 to 32767 instead of 0 to 255.
        is_rms: take the mean as 0.

    Returns:
        A `LayerNormTable`.

    Raises:
        ValueError: for numbers outside the limits above, or settings that the unit cannot hold.

    Example:
        >>> import bitfold, numpy as np
        >>> from bitfold import tables
        >>> table = tables.layer_norm(4, input_scale=0.1, output_scale=1 / 64)
        >>> x = np.float32([10, 20, 30, 40]).reshape(1, 1, 1, 4)  # 1.0 to 4.0
        >>> result = bitfold.ops.layer_norm(x, **table.keywords).numpy().ravel()
        >>> table.dequantise(result).round(2)
        array([-1.34, -0.45,  0.45,  1.34])
    """
    top = _output_top(is_16bit_output)
    output_scale = 16 * gain / (top + 1) if output_scale is None else output_scale
    output_zero_point = (top + 1) // 2 if output_zero_point is None else output_zero_point
    reach = max(abs(end - zero_point) for end in input_range)
    largest_mean = reach if largest_mean is None else largest_mean
    require(1 <= vector_size <= _MAX_VECTOR_SIZE, "vector_size must lie in [1, 4096]", vector_size)
    require(0 <= zero_point <= 65535, "zero_point must lie in [0, 65535]", zero_point)
    require(reach <= _ELEMENT_LIMIT, "inputs must lie within 32767 of the zero point", input_range)
    require(0 <= largest_mean <= reach, f"largest_mean must lie in [0, {reach}]", largest_mean)
    require(epsilon >= 0, "epsilon must not be negative", epsilon)
    for name, value in (
        ("gain", gain),
        ("input_scale", input_scale),
        ("output_scale", output_scale),
    ):
        require(value > 0, f"{name} must be above 0", value)

    real_epsilon = epsilon / input_scale**2
    shift = _sum_shift(vector_size, 0 if is_rms else largest_mean, real_epsilon)
    unit = _output_unit(is_16bit_output)
    act_bias = round(unit * (output_zero_point + bias / output_scale))
    require(0 <= act_bias < _BIASED_LIMIT, "the output must be able to hold its bias", act_bias)
    reach_out = output_scale * max(output_zero_point, top - output_zero_point) + abs(bias)
    largest = min(math.sqrt(vector_size), reach_out / gain)
    exponent = math.floor(math.log2(_SCALED_LIMIT * vector_size / (largest * _UNITY)) - shift)
    require(exponent >= 0, "the output's steps are too wide for this gain", output_scale)
    element = _UNITY * 2.0 ** (exponent + shift) / vector_size  # that of a normalised 1
    slope = unit * gain / (output_scale * element)
    man, exp = _mantissa(slope, 6, 64)
    mean_man, mean_shift = _mantissa(2.0**shift / vector_size, 0, 64)
    lut, table_error = _inverse_square_roots()
    scalars = {
        "zero_point": int(zero_point),
        "exponent_sub_value": exponent,
        "sum_of_x_mult": mean_man,
        "sum_of_x_shift": shift,
        "sum_of_x_mult_n_shift": mean_shift,
        "x_squared_mult": int(vector_size),
        "sum_of_x_squares_shift": 2 * shift,
        "epsilon": _integer_epsilon(real_epsilon, vector_size, shift),
        "mul_act_man": man,
        "mul_act_exp": exp - 6,
        "mul_act_bias": act_bias,
        "rms_mode_enable": int(is_rms),
        "activation_ebias_mode": 0,
        "activation_output_mode": int(is_16bit_output),
    }
    return LayerNormTable(
        lut.copy(), scalars, int(vector_size), float(gain), float(bias), real_epsilon,
        float(output_scale), int(output_zero_point),
        (1 + table_error) * (1 + abs(man / 2.0**exp / slope - 1)) - 1,
    )  # fmt: skip


def _output_top(is_16bit: bool) -> int:
    """Return the largest result of the layer normalisation unit."""
    return 32767 if is_16bit else 255


def _output_unit(is_16bit: bool) -> int:
    """Return how many units of the output stage's sum are one step of the result."""
    return 8 if is_16bit else 1024


def _mantissa(value: float, low: int, high: int) -> tuple[int, int]:
    """Return (m, e) with m / 2^e nearest to `value`, m in 16 bits and e in [low, high]."""
    exponent = min(15 - math.floor(math.log2(value)), high)
    mantissa = round(value * 2.0**exponent)
    if mantissa == 65536:
        mantissa, exponent = 32768, exponent - 1
    require(exponent >= low and mantissa > 0, "the scales are too far apart for 16 bits", value)
    return mantissa, exponent


def _integer_epsilon(real_epsilon: float, size: int, shift: int) -> int:
    """Return epsilon in the unit's variance; at least 1, since a variance of 0 ends the process."""
    # The op reads its scalars in single precision.
    return max(1, int(np.float32(round(real_epsilon * (size / 2.0**shift) ** 2))))


def _sum_shift(size: int, largest_mean: float, real_epsilon: float) -> int:
    """Return the smallest shift of the sum with which sum and epsilon fit."""
    shift = 0
    while (
        size * largest_mean > _SUM_LIMIT * 2.0**shift
        or _integer_epsilon(real_epsilon, size, shift) >= 2**32
    ):
        shift += 1
    require(shift <= 32, "epsilon is too large for this input_scale", real_epsilon)
    return shift


@functools.cache
def _inverse_square_roots() -> tuple[np.ndarray, float]:
    """Return the table and the bound of its relative error over all index words."""
    words = np.arange(64 * 256, 65536, dtype=np.float64).reshape(192, 256)
    ends = np.stack([words, words + 1])  # a word stands for all that is cut to it
    factors = _UNITY * 256 / np.sqrt(ends)
    low_bytes = np.arange(256.0)
    fall = (factors[0, :, 0] - factors[1, :, -1]) / 256
    best_entries, best_halves = np.zeros(192), np.full(192, np.inf)
    for slope in (np.floor(fall), np.ceil(fall)):
        starts = factors + slope[:, np.newaxis] * low_bytes
        low, high = starts.min(axis=(0, 2)), starts.max(axis=(0, 2))
        better = high - low < best_halves
        best_halves = np.where(better, high - low, best_halves)
        best_entries = np.where(better, slope * 65536 + np.rint((low + high) / 2), best_entries)
    slopes, values = np.divmod(best_entries[:, np.newaxis], 65536)
    error = np.abs((values - slopes * low_bytes) / factors - 1).max()
    lut = np.zeros(256, np.float32)
    lut[64:] = best_entries
    return lut, float(error)


# ---- Softmax -----------------------------------------------------------------------------------

_LARGEST_EXPONENTIAL = 2**16 - 1
_LARGEST_SUM = 2**24 - 1
_LARGEST_RECIPROCAL = 255


@dataclass(frozen=True, eq=False)
class SoftmaxTable(_Output):
    """What `softmax` returns.

    Attributes:
        lut_table: uint32 [512], the exponentials and the reciprocals.
        is_velquin: the variant of the unit.
        input_scale: the real value of one step of the input.
        output_scale: the real value of one step of the result.
        largest_exponential: the exponential of the largest element, E below.
        largest_vector: the longest vector whose sum stays within 24 bits whatever it holds.
    """

    lut_table: np.ndarray
    is_velquin: bool
    input_scale: float
    output_scale: float
    largest_exponential: int
    largest_vector: int
    output_zero_point: int = 0

    @property
    def keywords(self) -> dict[str, Any]:
        """Keyword arguments of ``bitfold.ops.softmax``."""
        return {"lut_table": self.lut_table, "is_velquin": self.is_velquin}

    def max_error(self, vector_size: int) -> float:
        """Bound the error for vectors of a length, as `softmax` derives it.

        Args:
            vector_size: the number of elements.

        Returns:
            The bound in real units, for inputs at most 255 below the maximum; infinite where the
            sum may wrap.
        """
        if vector_size > self.largest_vector and not self.is_velquin:
            return math.inf
        reciprocal = 0.5 if vector_size <= self.largest_vector else 1.0
        exponentials = 0.5 * vector_size / self.largest_exponential / self.output_scale
        return self.output_scale * (
            reciprocal * (self.largest_exponential + 1) / 65536 + exponentials + 0.5 + 1 / 2048
        )


def softmax(
    input_scale: float, *, vector_size: int = 256, is_velquin: bool = False
) -> SoftmaxTable:
    """Build the table of the softmax unit.

    The result stands for exp(x) / sum(exp(x)); its zero point is 0.

    Derivation:

    Exponentials. An element k steps below the maximum has the exponential
    E * exp(-k * input_scale), rounded; E = 65535 fills 16 bits. The maximum itself counts E.

    Sum. It has 24 bits, so up to (2^24 - 1) div E elements are safe whatever they are: 256 with
    E = 65535. Beyond that one variant saturates, which costs at most half a step more, since every
    result is then below one step. The other wraps, and its results are meaningless; so for
    it E is lowered to (2^24 - 1) div vector_size, and the steps of the result become coarser by as
    much. No sum lies below E.

    Reciprocals. The result is exponential * inv / 2^16. With inv = c / sum that is
    c / 2^16 times the softmax, so output_scale = 2^16 / c. inv has 8 bits and is largest, 255,
    where the sum is E; so c = 255 * (E + 1), and with E = 65535 output_scale is 1/255. The unit's
    binary search finds the first row whose sum is not above the one sought, and row 255 where
    there is none; the sum of row 255 is never looked at. With inv = r in row r, that row has to
    hold from c / (r + 1/2) on, where r becomes the nearest whole number: sum_value =
    ceil(c / (r + 1/2)). No sum needs row 0 (it would start at 2c), which gets the largest sum and
    an inv of 1.

    Error, in steps of the result. inv is wrong by at most 1/2, which counts
    1/2 * (E + 1) / 2^16 for an exponential of E; the two roundings add 1/2 + 1/2048; exponentials
    wrong by 1/2 each add at most vector_size / (2 * E * output_scale). Together 1.0 step for short
    vectors and 1.5 for 256 elements (`SoftmaxTable.max_error`), with E = 65535. Inputs of 8 bits
    are never further than 255 below their maximum; what is, counts as 0, and the dropped
    exp(-256 * input_scale) per element comes on top.

    Measured on the unit with E = 65535: over all 256 pairs (0, -k), for input scales of 1/8, 1/16
    and 1/32, at most 0.69 steps of 1/255; over random vectors of 2 to 256 elements at most 0.96.

    Args:
        input_scale: the real value of one step of the input, above 0.
        vector_size: the longest vector, where `is_velquin` is False.
        is_velquin: the variant of the unit whose sum saturates.

    Returns:
        A `SoftmaxTable`.

    Raises:
        ValueError: for an `input_scale` that is not above 0, or a `vector_size` outside
            [1, 65793], beyond which no exponential of 8 bits is left.

    Example:
        >>> from bitfold import tables
        >>> table = tables.softmax(1 / 16)
        >>> round(table.max_error(16) / table.output_scale, 2)  # in steps
        1.03
        >>> table.largest_vector, tables.softmax(1 / 16, vector_size=1000).largest_vector
        (256, 1000)
    """
    require(input_scale > 0, "input_scale must be above 0", input_scale)
    require(
        1 <= vector_size <= _LARGEST_SUM // 255, "vector_size must lie in [1, 65793]", vector_size
    )
    largest = _LARGEST_EXPONENTIAL
    if not is_velquin:
        largest = min(largest, _LARGEST_SUM // vector_size)
    exponentials = np.rint(largest * np.exp(-input_scale * np.arange(256.0))).astype(np.uint64)
    product = _LARGEST_RECIPROCAL * (largest + 1)
    reciprocals = np.arange(256, dtype=np.uint64)
    sums = np.minimum(np.ceil(product / (reciprocals + 0.5)), _LARGEST_SUM).astype(np.uint64)
    reciprocals[0] = 1
    rows = exponentials | sums << np.uint64(16) | reciprocals << np.uint64(40)
    lut_table = np.stack([rows & np.uint64(2**32 - 1), rows >> np.uint64(32)], axis=1)
    return SoftmaxTable(
        lut_table.astype(np.uint32).ravel(), bool(is_velquin), float(input_scale),
        65536 / product, largest, _LARGEST_SUM // largest,
    )  # fmt: skip


# ---- Activation --------------------------------------------------------------------------------


def _gelu(x: np.ndarray) -> np.ndarray:
    return x * 0.5 * np.vectorize(math.erfc, otypes=[float])(-x / math.sqrt(2))


def _sigmoid(x: np.ndarray) -> np.ndarray:
    return 0.5 * (1 + np.tanh(x / 2))


FUNCTIONS: dict[str, Callable[[np.ndarray], np.ndarray]] = {
    "sigmoid": _sigmoid,
    "tanh": np.tanh,
    "gelu": _gelu,
    "silu": lambda x: x * _sigmoid(x),
    "hard_swish": lambda x: x * np.clip(x + 3, 0, 6) / 6,
}
"""The functions that `activation` knows by name."""

# The unit keeps six fraction bits of a product, cuts off what lies below, and rounds.
_FRACTION_BITS = 6
_ROUNDING = 0.5 + 1 / 64
_LONGEST_SHIFT = 40
_SAMPLES = 1024
_PADDING = 2**31 - 1  # a breakpoint that no input reaches


class _Piece(NamedTuple):
    """The line mantissa * x / 2^exponent + offset on the inputs from index `start` on."""

    start: int
    mantissa: int
    exponent: int
    offset: int

    def values(self, x: np.ndarray) -> np.ndarray:
        """Return the line without its offset."""
        return x * (self.mantissa / 2.0**self.exponent)


@dataclass(frozen=True, eq=False)
class ActivationTable(_Output):
    """What `activation` returns.

    Attributes:
        x_points: int64 [1, breakpoints].
        offsets: int64 [1, breakpoints + 1].
        slopes_m: int64 [1, breakpoints + 1].
        slopes_e: int64 [1, breakpoints + 1].
        options: the other keyword arguments of ``bitfold.ops.activation``.
        output_scale: the real value of one step of the result.
        output_zero_point: the result that stands for 0.
        max_error: bound of the error in real units, against the function limited to what
            `output_range` holds, over `input_range`.
    """

    x_points: np.ndarray
    offsets: np.ndarray
    slopes_m: np.ndarray
    slopes_e: np.ndarray
    options: dict[str, int | bool]
    output_scale: float
    output_zero_point: int
    max_error: float

    @property
    def keywords(self) -> dict[str, Any]:
        """Keyword arguments of ``bitfold.ops.activation``."""
        return {
            "x_points": self.x_points,
            "offsets": self.offsets,
            "slopes_m": self.slopes_m,
            "slopes_e": self.slopes_e,
            **self.options,
        }


def activation(
    function: str | Callable[[np.ndarray], np.ndarray],
    *,
    input_scale: float,
    input_zero_point: int = 0,
    output_scale: float | None = None,
    output_zero_point: int | None = None,
    breakpoints: int = 15,
    input_range: tuple[int, int] = (-128, 127),
    output_range: tuple[int, int] = (-128, 127),
    slope_bits: int = 16,
    is_velquin: bool = False,
) -> ActivationTable:
    """Fit the pieces of the activation unit to a function.

    An input x stands for input_scale * (x - input_zero_point). Ranges of up to 256 values make an
    8-bit mode, wider ones a 16-bit mode; from 8 to 16 bits the unit's own mode for that is taken.

    Derivation. In steps of the result the function is t(x) = function / output_scale +
    output_zero_point, limited to `output_range`. Within a piece the unit computes
    round(m * x / 2^e) + offset (times 2^8 under the rounding in the mode from 8 to 16 bits), a line
    whose slope acts on x itself, not on the distance from the breakpoint: a line through (x0, t0)
    has the offset t0 - slope * x0. The clip acts before the offset, so it cannot limit the result;
    it is set to the smallest 2^b - 1 that never binds, and the lines are kept within
    `output_range` instead, by less than the half step that would round out of it.

    Breakpoints. The largest error over all pieces is minimised by bisection: for an error, pieces
    are made from the left, each as long as a line with whole offset and slope m / 2^e exists that
    stays within the error; if they are too many, the error is too small. Whether a line exists
    is searched from the offset of the best real line over the piece: with a whole offset, each
    input x bounds the slope by (t(x) - offset -+ error) / x, and the room between these bounds is a
    concave function of the offset. m has `slope_bits` bits with its sign. At x = 0 the result is
    the offset itself, so choose scales that put the function's value there on a whole step: 1/256
    and not 1/255 for the sigmoid.

    Error. The largest distance of the lines from t, found over all inputs, and for the rounding
    1/2 + 1/64, since the unit cuts the product off below six fraction bits before it rounds; in
    steps of the result (`ActivationTable.max_error` is in real units).

    With 15 breakpoints and inputs from -8 to 8 the bounds are, in steps of the result (the errors
    measured over all inputs are up to 0.07 steps smaller):

        function      8 bits    output_scale    16 bits    output_scale
        sigmoid         0.87           1/256       91.5         1/65536
        tanh            0.85           1/128       99.7         1/32768
        gelu            0.58            1/16        9.3          1/4096
        silu            0.59            1/16       13.9          1/4096
        hard_swish      0.58            1/16       16.2          1/4096

    Args:
        function: "sigmoid", "tanh", "gelu" (with the error function), "silu", "hard_swish", or a
            function of a float64 array that returns one.
        input_scale: the real value of one step of the input, above 0.
        input_zero_point: the input that stands for 0.
        output_scale: the real value of one step of the result. By default the function's own range
            over the inputs fills `output_range`.
        output_zero_point: the result that stands for 0; by default likewise.
        breakpoints: how many breakpoints the tables have. Those that are not needed are 2^31 - 1.
        input_range: the smallest and the largest input.
        output_range: the smallest and the largest result.
        slope_bits: the bits of a slope's mantissa, 2 to 32.
        is_velquin: the variant of the unit.

    Returns:
        An `ActivationTable` of one group. For several groups put the rows of their tables one after
        the other (``np.concatenate``) and take the largest of their `clip_bits`.

    Raises:
        ValueError: for a function of another name, numbers that make no sense, and values that are
            not finite.

    Example:
        >>> import bitfold, numpy as np
        >>> from bitfold import tables
        >>> table = tables.activation("tanh", input_scale=1 / 32, output_scale=1 / 127,
        ...                           output_zero_point=0)
        >>> x = np.array([-127, -32, 0, 32]).reshape(1, 1, 1, 4)  # -4.0, -1.0, 0.0, 1.0
        >>> result = bitfold.ops.activation(x, **table.keywords).numpy().ravel()
        >>> (result / 127).round(2).tolist()
        [-1.0, -0.76, 0.0, 0.76]
    """
    for name, (low, high) in (("input_range", input_range), ("output_range", output_range)):
        require(0 < high - low < 65536, f"{name} must hold 2 to 65536 values", (low, high))
        require(low > -65536 and high < 65536, f"{name} must lie within 65535 of 0", (low, high))
    require(input_scale > 0, "input_scale must be above 0", input_scale)
    require(breakpoints >= 0, "breakpoints must not be negative", breakpoints)
    require(2 <= slope_bits <= 32, "slope_bits must lie in [2, 32]", slope_bits)

    x = np.arange(input_range[0], input_range[1] + 1, dtype=np.float64)
    real = _evaluate(function, input_scale * (x - input_zero_point))
    output_scale, output_zero_point = _output_steps(
        real, output_range, output_scale, output_zero_point
    )
    target = np.clip(real / output_scale + output_zero_point, *output_range)
    is_wide_in, is_wide_out = x.size > 256, output_range[1] - output_range[0] >= 256
    widens = is_wide_out and not is_wide_in
    fit = _Fit(x, target, output_range, 2 ** (slope_bits - 1) - 1, _FRACTION_BITS - 8 * widens)
    pieces = fit.pieces(breakpoints + 1)
    exponents = [piece.exponent + 8 * widens for piece in pieces]
    options = {
        "ebias": _FRACTION_BITS,
        "clip_bits": 2 ** int(fit.largest_product(pieces) + 1).bit_length() - 1,
        "is_8bit_to_16bit_mode": widens,
        "is_16bit_precision_mode": is_wide_in,
        "is_velquin": bool(is_velquin),
    }
    starts = [int(x[piece.start]) for piece in pieces[1:]]
    starts += [_PADDING] * (breakpoints - len(starts))
    last = breakpoints + 1 - len(pieces)
    columns = (
        starts,
        [piece.offset for piece in pieces] + [pieces[-1].offset] * last,
        [piece.mantissa for piece in pieces] + [pieces[-1].mantissa] * last,
        [exponent - _FRACTION_BITS for exponent in exponents + exponents[-1:] * last],
    )
    return ActivationTable(
        *(np.array([column], np.int64) for column in columns), options, output_scale,
        output_zero_point, output_scale * (fit.error(pieces) + _ROUNDING),
    )  # fmt: skip


def _evaluate(function: Any, x: np.ndarray) -> np.ndarray:
    """Return the values of a function given by name or as one."""
    if not callable(function):
        require(function in FUNCTIONS, f"function must be one of {', '.join(FUNCTIONS)}", function)
        function = FUNCTIONS[function]
    values = np.asarray(function(x), np.float64)
    what = "the function must return an array of its argument's shape"
    require(values.shape == x.shape, what, values.shape)
    what = "the function must be finite over the inputs"
    require(bool(np.isfinite(values).all()), what, "NaN or infinity")
    return values


def _output_steps(
    real: np.ndarray, limits: tuple[int, int], scale: float | None, zero_point: int | None
) -> tuple[float, int]:
    """Return scale and zero point of the output; what is None follows from the values."""
    low, high = min(float(real.min()), 0.0), max(float(real.max()), 0.0)
    if scale is None:
        if zero_point is None:
            scale = (high - low) / (limits[1] - limits[0])
        else:
            require(limits[0] < zero_point < limits[1], "output_zero_point must lie within "
                   "output_range where output_scale is not given", zero_point)  # fmt: skip
            scale = max(high / (limits[1] - zero_point), low / (limits[0] - zero_point))
        scale = scale or 1.0  # the function is 0
    require(scale > 0, "output_scale must be above 0", scale)
    if zero_point is None:
        zero_point = min(max(round(limits[0] - low / scale), limits[0]), limits[1])
    return float(scale), int(zero_point)


class _Fit:
    """Lines with whole offsets and slopes of few bits along a function on whole numbers."""

    def __init__(
        self,
        x: np.ndarray,
        target: np.ndarray,
        limits: tuple[int, int],
        largest_mantissa: int,
        smallest_exponent: int,
    ) -> None:
        """Fit to `target` at `x`; results are to lie within `limits`."""
        self.x, self.target = x, target
        # A line that stays within these rounds into the limits.
        self.floor, self.ceiling = limits[0] - (1 - _ROUNDING), limits[1] + (1 - _ROUNDING)
        self.largest_mantissa, self.smallest_exponent = largest_mantissa, smallest_exponent
        self.steepest = largest_mantissa / 2.0**smallest_exponent

    def pieces(self, count: int) -> list[_Piece]:
        """Return at most `count` pieces whose largest error is as small as it can be."""
        middle = round(float(self.target.min() + self.target.max()) / 2)
        best = [_Piece(0, 0, self.smallest_exponent, middle)]  # whatever else fails
        low, high = 0.0, self.error(best)
        while high - low > max(0.002, 0.002 * high):
            middle = (low + high) / 2
            found = self._cover(middle, count)
            if found is None:
                low = middle
            else:
                best, high = found, middle
        return best

    def error(self, pieces: list[_Piece]) -> float:
        """Return the largest distance of the lines from the function."""
        return max(
            float(np.abs(piece.values(self.x[span]) + piece.offset - self.target[span]).max())
            for piece, span in self._spans(pieces)
        )

    def largest_product(self, pieces: list[_Piece]) -> float:
        """Return the largest magnitude before the offset."""
        return max(
            float(np.abs(piece.values(self.x[span])).max()) for piece, span in self._spans(pieces)
        )

    def _spans(self, pieces: list[_Piece]) -> list[tuple[_Piece, slice]]:
        ends = [piece.start for piece in pieces[1:]] + [self.x.size]
        return [(p, slice(p.start, end)) for p, end in zip(pieces, ends, strict=True)]

    def _cover(self, error: float, count: int) -> list[_Piece] | None:
        """Cover all inputs with pieces within the error; None where they would be too many."""
        pieces: list[_Piece] = []
        start = 0
        while start < self.x.size:
            if len(pieces) == count:
                return None
            piece, start = self._longest(start, error)
            if piece is None:
                return None
            pieces.append(piece)
        return pieces

    def _longest(self, start: int, error: float) -> tuple[_Piece | None, int]:
        """Return the longest piece from an input on, and where the next one starts."""
        best, good, bad = None, start, self.x.size + 1
        step = 1
        while bad - good > 1:  # doubles the length, then halves what is between
            end = min(start + step, self.x.size) if bad > self.x.size else (good + bad) // 2
            piece = self._line(start, end, error)
            if piece is None:
                bad = end
            else:
                best, good = piece, end
                if end == self.x.size:
                    break
            step *= 2
        return best, good

    def _line(self, start: int, end: int, error: float) -> _Piece | None:
        """Return a line within the error on inputs [start, end), or None."""
        index = np.arange(start, end)
        if index.size > 2 * _SAMPLES:
            index = np.unique(np.linspace(start, end - 1, _SAMPLES).astype(np.int64))
        x, target = self.x[index], self.target[index]
        low = np.maximum(target - error, self.floor)
        high = np.minimum(target + error, self.ceiling)
        # The room between the slopes is a concave function of the offset: climb, then bisect.
        offset, step = round(_best_offset(x, target)), 1
        below, above = -math.inf, math.inf
        while above - below > 1:
            least, most, direction = _slopes_between(x, low - offset, high - offset, self.steepest)
            short = self._shortest(least, most) if least <= most else None
            if short is not None:
                return _Piece(start, *short, offset)
            if direction == 0:
                return None
            below, above = (offset, above) if direction > 0 else (below, offset)
            if math.isfinite(above - below):
                offset = (above + below) // 2
            else:
                offset += direction * step
                step *= 2
        return None

    def _shortest(self, low: float, high: float) -> tuple[int, int] | None:
        """Return (m, e) with m / 2^e in [low, high], near its middle; None where there is none."""
        if low <= 0 <= high:
            return 0, self.smallest_exponent
        middle = (low + high) / 2
        exponent = math.floor(math.log2(self.largest_mantissa / abs(middle)))
        exponent = min(exponent, _LONGEST_SHIFT)
        mantissa = round(middle * 2.0**exponent)
        if exponent < self.smallest_exponent or not low <= mantissa / 2.0**exponent <= high:
            return None
        return mantissa, exponent


def _slopes_between(
    x: np.ndarray, low: np.ndarray, high: np.ndarray, steepest: float
) -> tuple[float, float, int]:
    """Return the range of slopes with low <= slope * x <= high everywhere, none above `steepest`.

    With it, whether the range widens as an offset that is subtracted from low and high grows (1) or
    falls (-1), or neither (0). An empty range has its first end above the second.
    """
    zero = x == 0
    if (low[zero] > 0).any():
        return math.inf, -math.inf, 1
    if (high[zero] < 0).any():
        return math.inf, -math.inf, -1
    x, low, high = x[~zero], low[~zero], high[~zero]
    if x.size == 0:
        return -steepest, steepest, 0
    least, most = np.where(x > 0, low, high) / x, np.where(x > 0, high, low) / x
    first, second = int(least.argmax()), int(most.argmin())
    rise = 1 / x[first] if least[first] > -steepest else 0.0
    rise -= 1 / x[second] if most[second] < steepest else 0.0
    return max(least[first], -steepest), min(most[second], steepest), int(np.sign(rise))


def _best_offset(x: np.ndarray, target: np.ndarray) -> float:
    """Return the offset of the real line with the smallest largest distance from the target.

    The width of the residual target - slope * x is a convex function of the slope, made of straight
    parts. Two of them, one falling and one rising, meet above or at the minimum's place; the part
    found there replaces the one of its direction.
    """
    if x.size == 1:
        return float(target[0])
    rise, run = target[-1] - target[0], x[-1] - x[0]
    falling, rising = (rise, -run), (-rise, run)  # width = first + second * slope
    slope = rise / run
    while True:
        residual = target - slope * x
        top, bottom = int(residual.argmax()), int(residual.argmin())
        width = residual[top] - residual[bottom]
        if width <= falling[0] + falling[1] * slope + 1e-9 * (1 + abs(width)):
            break
        part = (target[top] - target[bottom], x[bottom] - x[top])
        if part[1] == 0:
            break
        if part[1] < 0:
            falling = part
        else:
            rising = part
        slope = (falling[0] - rising[0]) / (rising[1] - falling[1])
    return float(residual[top] + residual[bottom]) / 2
