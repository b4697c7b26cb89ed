# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Tables that requantise sums: the unit with them against the exact rule."""

from __future__ import annotations

from fractions import Fraction

import hypothesis
import numpy as np
import pytest
from hypothesis import strategies as st

import bitfold
from bitfold import tables

INT32 = np.iinfo(np.int32)


def by_unit(sums: np.ndarray, table: tables.RequantisationTable) -> np.ndarray:
    """Run the unit over sums [n, C]."""
    return bitfold.ops.activation(sums[np.newaxis, np.newaxis], **table.keywords).numpy()[0, 0]


def by_rule(sums: np.ndarray, multipliers, zero_point: int, low: int, high: int) -> np.ndarray:
    """Limit round(sum * multiplier) + zero_point, in rational numbers, ties to even."""
    multipliers = [Fraction(float(m)) for m in multipliers]
    results = [
        [
            min(max(round(int(x) * m) + zero_point, low), high)
            for x, m in zip(row, multipliers, strict=True)
        ]
        for row in sums
    ]
    return np.array(results).reshape(sums.shape)


def differences(sums: np.ndarray, table: tables.RequantisationTable) -> np.ndarray:
    """Return each channel's largest difference over sums [n, C]; limits must hold everywhere."""
    results = by_unit(sums, table)
    low, high = table.output_range
    assert low <= results.min()
    assert results.max() <= high
    return np.abs(results - table.exact(sums)).max(axis=0)


def everywhere(low: int, high: int, channels: int) -> np.ndarray:
    """Return all sums of a range, for every channel."""
    return np.repeat(np.arange(low, high + 1)[:, np.newaxis], channels, axis=1)


multipliers = st.floats(-400, 400).map(lambda x: x if abs(x) < 1 else 1 / x) | st.sampled_from(
    [0.0, 1.0, -1.0, 0.5, 0.75, 2.0**-10, 3 * 2.0**-12, 2.0**-31, 1e-300, 511.0, 100.5]
)


@hypothesis.given(
    st.lists(multipliers, min_size=1, max_size=5),
    st.integers(-300, 300),
    st.sampled_from([(-128, 127), (0, 255), (-128, -20), (5, 6), (-1000, 1500)]),
    st.integers(-3000, 2000),
    st.integers(0, 4000),
    st.sampled_from([12, 16, 24, 32]),
)
def test_stated_difference_is_the_largest(numbers, zero_point, limits, low, count, slope_bits):
    """Over every sum of the range, on the unit; any limits hold beyond it, too."""
    hypothesis.assume(max(map(abs, numbers)) < 2.0 ** (slope_bits - 8))
    table = tables.requantise(
        numbers, zero_point=zero_point, output_range=limits, sum_range=(low, low + count),
        slope_bits=slope_bits,
    )  # fmt: skip
    found = differences(everywhere(low, low + count, len(numbers)), table)
    assert (found == table.max_difference).all()
    far = np.random.default_rng(count).integers(INT32.min, INT32.max + 1, [200, len(numbers)])
    differences(far, table)


@pytest.mark.parametrize(
    ("limits", "zero_point", "reach"),
    [((-128, 127), 0, 40000), ((-128, 127), -128, 40000), ((0, 255), 3, 40000),
     ((-32768, 32767), 0, 400000), ((-32768, 32767), -500, 400000)],
)  # fmt: skip
@pytest.mark.parametrize("slope_bits", [8, 16, 32])
def test_stated_difference_of_every_sum(limits, zero_point, reach, slope_bits):
    """All channels at once, each with its own proven range."""
    numbers = np.random.default_rng(7).uniform(0.6, 1, 7) * (limits[1] - limits[0]) / reach
    ends = np.linspace(reach // 2, reach, 7).astype(np.int64)
    table = tables.requantise(
        numbers, zero_point=zero_point, output_range=limits, sum_range=(-ends, ends - 1),
        slope_bits=slope_bits,
    )  # fmt: skip
    sums = np.clip(everywhere(-reach, reach, 7), -ends, ends - 1)
    assert (differences(sums, table) == table.max_difference).all()


def test_exact_is_the_rule():
    """In rational numbers, for numbers whose product double precision holds."""
    rng = np.random.default_rng(9)
    numbers = np.float32([0.5, -0.25, 2.0**-9, 0.1, 1 / 3, -7e-4, 3e-9])
    sums = np.concatenate(
        [rng.integers(-600, 600, [300, 7]), rng.integers(-(2**28), 2**28, [300, 7])]
    )
    for zero_point, low, high in ((0, -128, 127), (-128, -128, 127), (10, 0, 255)):
        table = tables.requantise(numbers, zero_point=zero_point, output_range=(low, high))
        expected = by_rule(sums, numbers, zero_point, low, high)
        np.testing.assert_array_equal(table.exact(sums), expected)


@pytest.mark.parametrize("multiplier", [1.0, 0.5, 1 / 64, 3 / 64, -1.0, -5 / 32])
@pytest.mark.parametrize(
    ("zero_point", "limits"), [(0, (-128, 127)), (-128, (-128, 127)), (3, (0, 9))]
)
def test_slopes_without_a_rest_are_exact(multiplier, zero_point, limits):
    """Where the product has no more than six fraction bits."""
    table = tables.requantise([multiplier], zero_point=zero_point, output_range=limits)
    assert table.max_difference == [0]


def test_around_every_step_and_limit():
    """The sums next to each tie of the rule, and the ends of 32 bits."""
    numbers = 2.0 ** np.random.default_rng(11).uniform(-16, -4, 64)
    table = tables.requantise(numbers, zero_point=-7)
    ties = np.rint((np.arange(-130, 140)[:, np.newaxis] + 0.5) / numbers).astype(np.int64)
    ends = np.repeat([[INT32.min], [INT32.min + 1], [-1], [0], [1], [INT32.max]], 64, axis=1)
    sums = np.concatenate([ties - 1, ties, ties + 1, ends])
    assert (differences(sums, table) <= table.max_difference).all()
    assert (by_unit(ends, table)[[0, -1]] == [[-128], [127]]).all()


def test_the_clip_limits_alone_where_it_can():
    """Limits of [-c - 1, c] around the zero point need no breakpoints."""
    assert tables.requantise([0.01, 0.02]).x_points.shape == (2, 0)
    assert tables.requantise([0.01], zero_point=-1, output_range=(-9, 6)).x_points.shape == (1, 0)
    assert tables.requantise([0.01, 0.02], zero_point=1).x_points.shape == (2, 2)


@pytest.mark.parametrize(
    ("limits", "slope_bits", "most", "share"),
    [
        ((-128, 127), 16, 1, 1 / 100),
        ((-32768, 32767), 16, 2, 1 / 5),
        ((-32768, 32767), 24, 1, 1 / 100),
    ],
)
def test_errors_of_the_docstring(limits, slope_bits, most, share):
    """How many results are wrong, and by how much."""
    rng = np.random.default_rng(13)
    numbers = 2.0 ** rng.uniform(-12, -7, 200)
    table = tables.requantise(numbers, output_range=limits, slope_bits=slope_bits)
    assert table.max_difference.max() <= most
    sums = rng.integers(limits[0] / numbers, limits[1] / numbers, [2000, 200])
    assert (by_unit(sums, table) != table.exact(sums)).mean() < share


def test_no_channels():
    """A layer may have none."""
    table = tables.requantise([])
    assert table.max_difference.shape == (0,)
    assert by_unit(np.zeros([4, 0], np.int64), table).shape == (4, 0)


@pytest.mark.parametrize(
    ("arguments", "text"),
    [
        ({"multipliers": 0.5}, r"Need multipliers of shape \[C\], got \(\)"),
        ({"multipliers": [[0.5]]}, r"Need multipliers of shape \[C\], got \(1, 1\)"),
        ({"multipliers": [0.5, np.nan]}, "Need finite multipliers"),
        ({"multipliers": [np.inf]}, "Need finite multipliers"),
        ({"multipliers": [0.5, 512.0]}, r"Need multipliers of at most 511.98\d*, got \[512.\]"),
        ({"multipliers": [2.0], "slope_bits": 8}, "Need multipliers of at most 1.98"),
        ({"output_range": (3, 3)}, "Need output_range to hold 2 to 65536 values"),
        ({"output_range": (-32768, 32768)}, "Need output_range to hold 2 to 65536 values"),
        ({"zero_point": 65536}, "Need zero_point within 65535 of 0"),
        ({"output_range": (-65536, -5000)}, "Need output_range within 65535 of 0"),
        ({"slope_bits": 1}, r"Need slope_bits in \[2, 32\]"),
        ({"slope_bits": 33}, r"Need slope_bits in \[2, 32\]"),
        ({"sum_range": (5, 4)}, "Need sum_range to rise within 32 bits"),
        ({"sum_range": (-(2**31) - 1, 0)}, "Need sum_range to rise within 32 bits"),
        ({"sum_range": (0, 2**31)}, "Need sum_range to rise within 32 bits"),
        ({"sum_range": (0, [1, 2, 3])}, "Need sum_range to be two whole numbers or two vectors"),
        ({"sum_range": (0, 1, 2)}, "Need sum_range to be two whole numbers or two vectors of 2"),
        ({"sum_range": (0, 1.5)}, "Need sum_range to be two whole numbers or two vectors of 2"),
    ],
)
def test_refuses(arguments, text):
    """Before anything is computed."""
    with pytest.raises(ValueError, match=text):
        tables.requantise(**{"multipliers": [0.25, 0.5], **arguments})
