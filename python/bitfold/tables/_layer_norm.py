# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Tables of the layer normalisation unit."""

from __future__ import annotations

import functools
import math
from dataclasses import dataclass
from typing import Any

import numpy as np

from bitfold._frame.checks import require
from bitfold.tables._output import Output

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
class LayerNormTable(Output):
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
