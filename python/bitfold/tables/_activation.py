# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Tables of the activation unit for a function."""

from __future__ import annotations

import math
from collections.abc import Callable
from dataclasses import dataclass
from typing import Any

import numpy as np

from bitfold._frame.checks import require
from bitfold.tables._lines import FRACTION_BITS, ROUNDING, Fit
from bitfold.tables._output import Output


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

_PADDING = 2**31 - 1  # a breakpoint that no input reaches


@dataclass(frozen=True, eq=False)
class ActivationTable(Output):
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
        is_velquin: selects the second variant of the unit, which shifts the signed product, so that
            quotients are rounded down and not towards 0.

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
    fit = Fit(x, target, output_range, 2 ** (slope_bits - 1) - 1, FRACTION_BITS - 8 * widens)
    pieces = fit.pieces(breakpoints + 1)
    exponents = [piece.exponent + 8 * widens for piece in pieces]
    options = {
        "ebias": FRACTION_BITS,
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
        [exponent - FRACTION_BITS for exponent in exponents + exponents[-1:] * last],
    )
    return ActivationTable(
        *(np.array([column], np.int64) for column in columns), options, output_scale,
        output_zero_point, output_scale * (fit.error(pieces) + ROUNDING),
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
