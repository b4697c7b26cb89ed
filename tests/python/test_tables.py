# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The table builders: the units with their tables against the real functions.

The ops compare as bits elsewhere. Here the units meet mathematics, and what is asserted is the
error that a table states, as an exact bound.
"""

from __future__ import annotations

import math

import hypothesis
import numpy as np
import pytest
from hypothesis import strategies as st

import bitfold
from bitfold import tables

# ---- Layer normalisation -----------------------------------------------------------------------


def layer_norm(x: np.ndarray, table: tables.LayerNormTable) -> np.ndarray:
    """Run the unit over vectors [count, size]; return real numbers."""
    value = x.astype(np.float32)[np.newaxis, np.newaxis]
    return table.dequantise(bitfold.ops.layer_norm(value, **table.keywords))[0, 0]


def spread(x: np.ndarray, table: tables.LayerNormTable) -> tuple[np.ndarray, np.ndarray]:
    """Return each vector's deviation and mean, in steps; in RMS mode its root mean square and 0."""
    centred = x.astype(np.float64) - table.scalars["zero_point"]
    if table.scalars["rms_mode_enable"]:
        return np.sqrt((centred**2).mean(axis=1)), np.zeros(len(x))
    return centred.std(axis=1), centred.mean(axis=1)


def normalised(x: np.ndarray, table: tables.LayerNormTable) -> np.ndarray:
    """Return the real function of the inputs, limited to what the output holds."""
    deviation, mean = spread(x, table)
    centred = x - table.scalars["zero_point"] - mean[:, np.newaxis]
    real = centred / np.sqrt(deviation**2 + table.epsilon)[:, np.newaxis]
    return np.clip(table.gain * real + table.bias, *table.output_limits)


def check_layer_norm(x: np.ndarray, table: tables.LayerNormTable) -> float:
    """Assert the stated error of every vector; return the largest error, in real units."""
    error = np.abs(layer_norm(x, table) - normalised(x, table)).max(axis=1)
    bounds = np.array([table.max_error(*pair) for pair in zip(*spread(x, table), strict=True)])
    assert (error <= bounds).all(), f"{(error - bounds).max()} above the stated error"
    return float(error.max())


def sums_of_squares(totals: np.ndarray, size: int) -> np.ndarray:
    """Return a vector of whole numbers for each total, whose squares add up to it."""
    rest, columns = totals.astype(np.int64), []
    for _ in range(size):
        columns.append(np.floor(np.sqrt(rest)).astype(np.int64))
        rest = rest - columns[-1] ** 2
    assert not rest.any()
    return np.stack(columns, axis=1)


def test_inverse_square_root_over_all_index_words():
    """The unit's inverse square root is within 0.156 % for each index word that it can form."""
    words = np.arange(2**14, 2**16)
    x = sums_of_squares(words, 16)  # var is 16 times the index word
    table = tables.layer_norm(
        16, input_range=(0, 255), epsilon=0, is_rms=True, is_16bit_output=True,
        output_scale=4 / 32767, output_zero_point=0,
    )  # fmt: skip
    check_layer_norm(x, table)
    inverse = layer_norm(x, table)[:, 0] / x[:, 0]
    rounding = 0.63 * table.output_scale / x[:, 0]
    real = 4 / np.sqrt(words)
    assert ((np.abs(inverse - real) - rounding) / real).max() <= 0.00156
    assert table.relative_error <= 0.00158
    assert (table.lut[64:] > 0).all()
    assert (table.lut == table.lut.astype(np.uint32)).all()


@pytest.mark.parametrize("is_16bit_output", [False, True])
@pytest.mark.parametrize("is_rms", [False, True])
@pytest.mark.parametrize("size", [1, 2, 3, 16, 100, 768, 4095, 4096])
def test_layer_norm_of_int8(size, is_rms, is_16bit_output):
    """Every int8 value in vectors of every spread, through 8-bit inputs."""
    rng = np.random.default_rng(size)
    deviations = np.geomspace(0.3, 120, 256)[:, np.newaxis]
    x = np.clip(np.rint(rng.normal(0, deviations, (256, size))), -128, 127)
    x[:, 0] = np.arange(-128, 128)
    table = tables.layer_norm(size, is_rms=is_rms, is_16bit_output=is_16bit_output)
    check_layer_norm(x, table)


@pytest.mark.parametrize("largest_mean", [None, 500])
@pytest.mark.parametrize("size", [64, 1024])
def test_layer_norm_of_int16(size, largest_mean):
    """Every int16 value once, in vectors of random order."""
    x = np.random.default_rng(1).permutation(np.arange(-32767.0, 32768.0))
    x = np.append(x, 0).reshape(-1, size)
    x -= np.rint(x.mean(axis=1, keepdims=True)) if largest_mean else 0
    x = np.clip(x, -32767, 32767)
    table = tables.layer_norm(
        size, input_range=(-32767, 32767), is_16bit_output=True, largest_mean=largest_mean
    )
    assert (table.scalars["sum_of_x_shift"] == 0) == (largest_mean is not None)
    check_layer_norm(x, table)


@pytest.mark.parametrize(
    ("deviation", "bits", "is_16bit_output", "largest"),
    [(32, 8, False, 0.0533), (32, 8, True, 0.0238), (8192, 16, True, 0.0043)],
)
def test_layer_norm_errors_of_the_docstring(deviation, bits, is_16bit_output, largest):
    """What the docstring says to have been measured."""
    limit = 2 ** (bits - 1) - 1
    x = np.random.default_rng(0).normal(0, deviation, (1000, 64))
    x = np.clip(np.rint(x), -limit, limit)
    table = tables.layer_norm(64, input_range=(-limit, limit), is_16bit_output=is_16bit_output)
    assert check_layer_norm(x, table) <= largest


@pytest.mark.parametrize("gain", [0.02, 1.0, 37.5])
@pytest.mark.parametrize("epsilon", [0.0, 1e-3, 10.0])
def test_layer_norm_of_uint8_with_zero_point_gain_and_bias(gain, epsilon):
    """Inputs from 0 to 255 around a zero point, and every part of the output stage."""
    rng = np.random.default_rng(5)
    deviations = np.geomspace(0.3, 80, 256)[:, np.newaxis]
    x = np.clip(np.rint(rng.normal(110, deviations, (256, 48))), 0, 255)
    x[:, 0] = np.arange(256)
    table = tables.layer_norm(
        48, input_scale=0.05, zero_point=117, input_range=(0, 255), epsilon=epsilon, gain=gain,
        bias=-0.3 * gain, output_scale=gain / 40, output_zero_point=100,
    )  # fmt: skip
    check_layer_norm(x, table)


@hypothesis.settings(max_examples=60, derandomize=True, database=None, deadline=None)
@hypothesis.given(
    size=st.integers(1, 4096),
    bits=st.integers(4, 16),
    zero_share=st.floats(0, 1),
    deviation_share=st.floats(0.001, 0.5),
    mean_share=st.floats(0, 1),
    epsilon=st.floats(1e-6, 100),
    gain=st.floats(1e-3, 100),
    reach=st.floats(0.5, 30),
    is_rms=st.booleans(),
    is_16bit_output=st.booleans(),
    seed=st.integers(0, 99),
)
def test_layer_norm_with_any_settings(
    size, bits, zero_share, deviation_share, mean_share, epsilon, gain, reach, is_rms,
    is_16bit_output, seed,
):  # fmt: skip
    """The bound holds for any size, range, spread and output."""
    top = 2**bits - 1
    zero_point = round(top * (0.5 + (zero_share - 0.5) * (bits < 16)))
    top = min(top, zero_point + 32767)
    noise = np.random.default_rng(seed).normal(0, deviation_share * top, (8, size))
    x = np.clip(np.rint(mean_share * top + noise), max(0, zero_point - 32767), top)
    output_zero_point = 8000 if is_16bit_output else 60
    table = tables.layer_norm(
        size, zero_point=zero_point, input_range=(max(0, zero_point - 32767), top),
        epsilon=epsilon, gain=gain, is_rms=is_rms, is_16bit_output=is_16bit_output,
        output_scale=gain * reach / output_zero_point, output_zero_point=output_zero_point,
    )  # fmt: skip
    check_layer_norm(x, table)


def test_layer_norm_of_constant_vectors():
    """Without a shift of the sum they give the zero point; with one no error is stated."""
    x = np.full([2, 96], 100.0)
    table = tables.layer_norm(96)
    assert (layer_norm(x, table) == 0).all()
    assert table.max_error(0, 100) < math.inf
    wide = tables.layer_norm(96, input_range=(-32767, 32767))
    assert wide.max_error(0, 30000) == math.inf
    assert wide.max_error(5000, 30000) < math.inf


def test_layer_norm_never_ends_the_process_for_zeros():
    """An epsilon of 0 is 1 in the unit: a variance of 0 would end the process."""
    table = tables.layer_norm(8, epsilon=0)
    assert table.scalars["epsilon"] == 1
    assert (layer_norm(np.zeros([1, 8]), table) == 0).all()


@pytest.mark.parametrize(
    "arguments",
    [
        dict(vector_size=0),
        dict(vector_size=4097),
        dict(zero_point=-1),
        dict(input_range=(-40000, 0)),
        dict(largest_mean=1000),
        dict(epsilon=-1.0),
        dict(gain=0.0),
        dict(input_scale=0.0),
        dict(output_scale=-1.0),
        dict(bias=1e9),
        dict(bias=-1e9),
    ],
)
def test_layer_norm_refuses(arguments):
    """Numbers that the unit cannot take are named."""
    with pytest.raises(ValueError, match="got"):
        tables.layer_norm(**{"vector_size": 16, **arguments})


# ---- Softmax -----------------------------------------------------------------------------------


def check_softmax(x: np.ndarray, table: tables.SoftmaxTable) -> float:
    """Assert the stated error; return the largest, in steps of the result."""
    result = table.dequantise(bitfold.ops.softmax(x.astype(np.float32), **table.keywords))
    exponentials = np.exp(table.input_scale * (x - x.max(axis=1, keepdims=True)))
    real = exponentials / exponentials.sum(axis=1, keepdims=True)
    error = np.abs(result - real).max()
    assert error <= table.max_error(x.shape[1])
    return float(error / table.output_scale)


@pytest.mark.parametrize("is_velquin", [False, True])
@pytest.mark.parametrize("input_scale", [1 / 8, 1 / 16, 1 / 32])
def test_softmax_of_all_pairs(input_scale, is_velquin):
    """Every distance of two elements."""
    table = tables.softmax(input_scale, is_velquin=is_velquin)
    pairs = np.stack([np.zeros(256), -np.arange(256)], axis=1)
    assert check_softmax(pairs, table) <= 0.69


@pytest.mark.parametrize("is_velquin", [False, True])
@pytest.mark.parametrize("input_scale", [1 / 64, 1 / 16, 1 / 4])
@pytest.mark.parametrize("size", [1, 2, 7, 64, 255, 256])
def test_softmax_of_random_vectors(size, input_scale, is_velquin):
    """Vectors of every spread, up to the longest that no variant can overflow with."""
    rng = np.random.default_rng(size)
    widths = rng.integers(1, 257, (500, 1))
    x = np.floor(rng.random((500, size)) * widths)
    assert check_softmax(x, tables.softmax(input_scale, is_velquin=is_velquin)) <= 0.96


@pytest.mark.parametrize("is_velquin", [False, True])
def test_softmax_of_equal_elements(is_velquin, capfd):
    """Each length of equal elements: the reciprocal is the nearest one, and nothing overflows."""
    table = tables.softmax(1 / 16, is_velquin=is_velquin)
    for size in range(1, 257):
        result = bitfold.ops.softmax(np.zeros([1, size], np.float32), **table.keywords)
        assert (np.abs(np.asarray(result) - 255 / size) <= 0.51).all()
    assert "overflowed" not in capfd.readouterr().out


@pytest.mark.parametrize("size", [257, 1000, 4096])
def test_softmax_of_long_vectors(size):
    """The saturating variant takes any length, the other one with a table made for it."""
    rng = np.random.default_rng(size)
    x = np.concatenate([np.zeros([1, size]), np.floor(rng.random((50, size)) * 256)])
    assert check_softmax(x, tables.softmax(1 / 16, is_velquin=True)) <= 1.5
    table = tables.softmax(1 / 16, vector_size=size)
    assert table.largest_vector >= size
    check_softmax(x, table)
    assert tables.softmax(1 / 16).max_error(size) == math.inf


@pytest.mark.parametrize("size", [1, 256, 257, 4096, 65793])
def test_softmax_table(size):
    """The packed rows: sums fall, and each one's reciprocal is nearest from there on."""
    table = tables.softmax(0.1, vector_size=size)
    low, high = table.lut_table.reshape(256, 2).astype(np.int64).T
    sums, reciprocals = (low >> 16) | (high & 0xFF) << 16, high >> 8
    assert low[0] & 0xFFFF == table.largest_exponential
    assert (np.diff(sums) < 0).all()
    product = 65536 / table.output_scale
    for row in range(1, 255):
        assert abs(product / sums[row] - reciprocals[row]) <= 0.5
        assert abs(product / (sums[row] - 1) - reciprocals[row + 1]) <= 0.5


@pytest.mark.parametrize(("scale", "size"), [(0, 1), (-1, 1), (1, 0), (1, 65794)])
def test_softmax_refuses(scale, size):
    """Numbers without sense are named."""
    with pytest.raises(ValueError, match="got"):
        tables.softmax(scale, vector_size=size)


# ---- Activation --------------------------------------------------------------------------------

INT8, UINT8, INT16 = (-128, 127), (0, 255), (-32768, 32767)


def check_activation(name, table: tables.ActivationTable, x: np.ndarray, real, limits) -> float:
    """Assert the stated error over all inputs; return it, in steps of the result."""
    result = bitfold.ops.activation(x.reshape(1, 1, -1, 1), **table.keywords).numpy().ravel()
    assert limits[0] <= result.min(), name
    assert result.max() <= limits[1], name
    held = np.clip(real, *table.dequantise(np.array(limits)))
    error = np.abs(table.dequantise(result) - held).max()
    assert error <= table.max_error, name
    return float(error / table.output_scale)


@pytest.mark.parametrize("breakpoints", [0, 1, 7, 31])
@pytest.mark.parametrize(
    ("input_range", "output_range"),
    [(INT8, INT8), (UINT8, UINT8), (INT8, INT16), (INT16, INT16), (INT16, INT8)],
)
@pytest.mark.parametrize("name", sorted(tables.FUNCTIONS))
def test_activation(name, input_range, output_range, breakpoints):
    """Each function over every input, in each mode and variant."""
    scale = 16 / (input_range[1] - input_range[0])
    zero_point = (input_range[0] + input_range[1]) // 2
    table = tables.activation(
        name, input_scale=scale, input_zero_point=zero_point, breakpoints=breakpoints,
        input_range=input_range, output_range=output_range,
    )  # fmt: skip
    assert table.x_points.shape == (1, breakpoints)
    for column in (table.offsets, table.slopes_m, table.slopes_e):
        assert column.shape == (1, breakpoints + 1)
    assert (np.diff(table.x_points) >= 0).all()
    assert (table.slopes_e >= 0).all()
    x = np.arange(input_range[0], input_range[1] + 1)
    real = tables.FUNCTIONS[name](scale * (x - zero_point))
    for is_velquin in (False, True):
        table.options["is_velquin"] = is_velquin
        check_activation(name, table, x, real, output_range)


@hypothesis.settings(max_examples=40, derandomize=True, database=None, deadline=None)
@hypothesis.given(
    name=st.sampled_from(sorted(tables.FUNCTIONS)),
    reach=st.floats(0.1, 40),
    zero_point=st.integers(-140, 140),
    output_scale=st.floats(1e-3, 1.0),
    output_zero_point=st.integers(-140, 140),
    breakpoints=st.integers(0, 20),
    slope_bits=st.integers(2, 32),
)
def test_activation_with_any_scales(
    name, reach, zero_point, output_scale, output_zero_point, breakpoints, slope_bits
):
    """The bound holds for any scales and zero points, also those that saturate."""
    x = np.arange(-128, 128)
    table = tables.activation(
        name, input_scale=reach / 128, input_zero_point=zero_point, output_scale=output_scale,
        output_zero_point=output_zero_point, breakpoints=breakpoints, slope_bits=slope_bits,
    )  # fmt: skip
    real = tables.FUNCTIONS[name](reach / 128 * (x - zero_point))
    check_activation(name, table, x, real, INT8)


# Bounds with 15 breakpoints, in steps of the result, as the docstring has them.
STATED = {
    "sigmoid": (1 / 256, -128, 0.87, 91.5),
    "tanh": (1 / 128, 0, 0.85, 99.7),
    "gelu": (1 / 16, 0, 0.58, 9.3),
    "silu": (1 / 16, 0, 0.59, 13.9),
    "hard_swish": (1 / 16, 0, 0.58, 16.2),
}


@pytest.mark.parametrize("name", STATED)
@pytest.mark.parametrize("bits", [8, 16])
def test_activation_errors_of_the_docstring(name, bits):
    """The bounds that the docstring lists."""
    scale, zero_point, *bounds = STATED[name]
    widening = 2 ** (bits - 8)
    limits = (-128 * widening, 128 * widening - 1)
    table = tables.activation(
        name, input_scale=1 / 16 / widening, output_scale=scale / widening,
        output_zero_point=zero_point * widening, input_range=limits, output_range=limits,
    )  # fmt: skip
    x = np.arange(limits[0], limits[1] + 1)
    real = tables.FUNCTIONS[name](x / 16 / widening)
    check_activation(name, table, x, real, limits)
    assert table.max_error / table.output_scale <= bounds[bits == 16]


def test_activation_of_a_callable():
    """Any function; and one that few pieces hold exactly leaves the others unused."""
    table = tables.activation(
        lambda x: np.maximum(x, 0), input_scale=0.25, output_scale=0.25, output_zero_point=0
    )
    x = np.arange(-128, 128)
    result = bitfold.ops.activation(x.reshape(1, 1, -1, 1), **table.keywords).numpy().ravel()
    assert (result == np.maximum(x, 0)).all()
    assert (table.x_points[0, 1:] == 2**31 - 1).all()


def test_activation_of_short_mantissas():
    """Eight bits of slope still keep the error that they state."""
    x = np.arange(-128, 128)
    for name, function in tables.FUNCTIONS.items():
        table = tables.activation(name, input_scale=1 / 32, slope_bits=8)
        assert (np.abs(table.slopes_m) <= 127).all()
        check_activation(name, table, x, function(x / 32), INT8)


def test_activation_of_two_groups():
    """The tables of two functions, one after the other, for two groups of channels."""
    first, second = (
        tables.activation(name, input_scale=1 / 16, output_scale=1 / 16, output_zero_point=0)
        for name in ("gelu", "silu")
    )
    keys = ("x_points", "offsets", "slopes_m", "slopes_e")
    merged = {k: np.concatenate([getattr(first, k), getattr(second, k)]) for k in keys}
    options = first.options | {
        "clip_bits": max(first.options["clip_bits"], second.options["clip_bits"])
    }
    x = np.repeat(np.arange(-128, 128)[:, np.newaxis], 3, axis=1).reshape(1, 16, 16, 3)
    result = bitfold.ops.activation(x, **merged, size_splits=[1, 2], **options).numpy()
    single = [bitfold.ops.activation(x, **t.keywords).numpy() for t in (first, second)]
    assert (result[..., :1] == single[0][..., :1]).all()
    assert (result[..., 1:] == single[1][..., 1:]).all()


@pytest.mark.parametrize(
    "arguments",
    [
        dict(function="softplus"),
        dict(function=np.log),
        dict(function=lambda x: 1.0),
        dict(input_scale=0.0),
        dict(output_scale=-1.0),
        dict(breakpoints=-1),
        dict(input_range=(5, 5)),
        dict(output_range=(0, 70000)),
        dict(input_range=(70000, 70010)),
        dict(slope_bits=1),
        dict(output_zero_point=127),
    ],
)
def test_activation_refuses(arguments):
    """Numbers without sense, and functions without values, are named."""
    with np.errstate(all="ignore"), pytest.raises(ValueError, match="got"):
        tables.activation(**{"function": "tanh", "input_scale": 1 / 16, **arguments})
