# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What a study counts of single layers: against the plain definition, addend by addend."""

from __future__ import annotations

import dataclasses
import os

import chains
import layer_files
import numpy as np
import packed
import plain_sums
import pytest
from witness import Witness

import bitfold
from bitfold.studies.records import Counts

A = bitfold.Arithmetic
IS_LONG = bool(os.environ.get("BITFOLD_COUNTS_LONG"))  # make test-long
HALF_WEIGHTS = ("DEPTHWISE_CONV_2D", "BATCH_MATMUL")


def expected_counts(sums: np.ndarray, arithmetic: A, kind: str, is_wide: bool) -> Counts:
    """Return what becomes of a layer's sums, lists of addends, in an arithmetic."""
    wrong = right_again = outside = 0
    first = []
    width = 16 if arithmetic.use_fp16_acc else arithmetic.accumulator_size
    limit = None if width is None else 2 ** (width - 1)
    for chain in sums.reshape(-1):
        if limit is None:
            continue
        partial = chains.partial_sums(chain, arithmetic.mult_shift)
        left = [k for k, p in enumerate(partial, 1) if not -limit <= p < limit]
        exact = partial[-1] if partial else 0
        if not is_wide:  # full width is an accumulator of 32 bits itself
            exact = (exact + 2**31) % 2**32 - 2**31
        found = chains.accumulated(chain, arithmetic, kind in HALF_WEIGHTS)
        wrong += found != exact
        right_again += found == exact and bool(left)
        outside += len(left)
        first += left[:1]
    return Counts(sums.size, wrong, right_again, outside, min(first, default=0))


def bits(low: int, high: int) -> int:
    """Return the least width that holds both."""
    return next(w for w in range(1, 99) if -(2 ** (w - 1)) <= low and high < 2 ** (w - 1))


def counts_of_sample(sums: np.ndarray, every: int, *arguments) -> Counts:
    """Return `expected_counts` where partial sums of one image in so many are looked at."""
    whole = expected_counts(sums, *arguments)
    looked = expected_counts(sums[::every], *arguments)
    return dataclasses.replace(
        looked, sums=whole.sums, wrong=whole.wrong, looked_at=sums[::every].size
    )


def check_sample(case: packed.Case, arithmetics: list[A]) -> None:
    """Study a layer whose partial sums are looked at of every other image; compare all counts."""
    file, data = Witness(case.content), packed.stored_values(case, 3)
    known = dict(zip(file.inputs, data, strict=True))
    sums = plain_sums.plain_sums(file, 0, known, chains.ChainOps())
    sums = sums.reshape(3, -1, sums.shape[-1])
    named = {str(i): arithmetic for i, arithmetic in enumerate(arithmetics)}
    study = bitfold.study(
        bitfold.Network.from_tflite(case.content),
        data if len(data) > 1 else data[0],
        arithmetics=named,
        partial_sums=2,
    )
    (layer,) = study.layers
    looked = sums[::2]
    final = [chains.partial_sums(chain, 0)[-1] for chain in sums.reshape(-1)]
    every = [p for chain in looked.reshape(-1) for p in chains.partial_sums(chain, 0)]
    assert (layer.sums, layer.looked_at) == (sums.size, looked.size)
    assert layer.needed == bits(min(final), max(final))
    assert layer.on_the_way == bits(min(final + every), max(final + every))
    for arithmetic, result in zip(arithmetics, study.results, strict=True):
        given = (arithmetic, layer.operator, data[0].dtype == np.int16)
        expected = counts_of_sample(sums, 2, *given)
        assert result.layers[0].alone == expected, (arithmetic, case.label)
        assert result.layers[0].end_to_end == expected, (arithmetic, case.label)


def check(case: packed.Case, arithmetics: list[A], images: int = 2, batch_size=None) -> int:
    """Study a layer, and compare every number; return how many sums came right again."""
    file, data = Witness(case.content), packed.stored_values(case, images)
    known = dict(zip(file.inputs, data, strict=True))
    sums = plain_sums.plain_sums(file, 0, known, chains.ChainOps())
    network = bitfold.Network.from_tflite(case.content)
    named = {str(i): arithmetic for i, arithmetic in enumerate(arithmetics)}
    given = data if len(data) > 1 else data[0]
    study = bitfold.study(network, given, arithmetics=named, batch_size=batch_size)
    (layer,) = study.layers
    _check_bits(study, layer, sums)
    is_wide = data[0].dtype == np.int16
    healed = 0
    for arithmetic, result in zip(arithmetics, study.results, strict=True):
        expected = expected_counts(sums, arithmetic, layer.operator, is_wide)
        (found,) = result.layers
        assert found.alone == expected, (arithmetic, case.label)
        assert found.end_to_end == expected, (arithmetic, case.label)
        assert found.out_of_bounds == 0 or arithmetic.use_fp16_acc
        healed += expected.right_again
    return healed


def _check_bits(study: bitfold.Study, layer, sums: np.ndarray) -> None:
    channels = study.channels(layer.name)
    assert len(channels) == layer.channels == sums.shape[-1]
    assert layer.sums == sums.size
    for c, channel in enumerate(channels):
        partial = [chains.partial_sums(chain, 0) or [0] for chain in sums[..., c].reshape(-1)]
        final = [chain[-1] for chain in partial]
        every = [p for chain in partial for p in chain]
        assert (channel.smallest_sum, channel.largest_sum) == (min(final), max(final))
        assert channel.needed == bits(min(final), max(final))
        assert channel.on_the_way == bits(min(every), max(every))
    for name in ("needed", "on_the_way", "proven", "proven_for_range"):
        assert getattr(layer, name) == max(getattr(channel, name) for channel in channels)


WINDOWS = dict(
    padding="SAME", stride_h=1, stride_w=2, dilation_h_factor=1, dilation_w_factor=1
)  # fmt: skip
LAYERS = {
    "convolution": ("CONV_2D", dict(data=[1, 4, 3, 3], filter=[5, 3, 3, 3], output=[1, 4, 2, 5]),
                    WINDOWS),
    "dilated": ("CONV_2D", dict(data=[1, 6, 5, 2], filter=[3, 2, 2, 2], output=[1, 4, 4, 3]),
                WINDOWS | dict(padding="VALID", stride_w=1, dilation_h_factor=2)),
    "strided": ("CONV_2D", dict(data=[1, 7, 7, 2], filter=[3, 3, 3, 2], output=[1, 3, 3, 3]),
                WINDOWS | dict(stride_h=3, stride_w=3)),
    "grouped": ("CONV_2D", dict(data=[1, 4, 3, 6], filter=[4, 2, 2, 3], output=[1, 4, 2, 4]),
                WINDOWS),
    "depthwise": ("DEPTHWISE_CONV_2D", dict(data=[1, 4, 4, 3], filter=[1, 3, 2, 6],
                  output=[1, 4, 2, 6]), WINDOWS | dict(depth_multiplier=2)),
    "dense": ("FULLY_CONNECTED", dict(data=[1, 40], filter=[7, 40], output=[1, 7]), {}),
    "transposed": ("TRANSPOSE_CONV", dict(data=[1, 3, 3, 2], filter=[4, 3, 3, 2],
                   output=[1, 6, 6, 4]), dict(padding="SAME", stride_h=2, stride_w=2)),
}  # fmt: skip
# Where sums fit, leave and return, end outside; where addends are above 2^w; where weights change
# their sign; shifted so that halves occur; in half precision.
ARITHMETICS = {
    "int8": [
        A(32), A(17), A(16), A(15), A(14), A(11), A(8), A(2), A(1), A(14, 2), A(9, 5), A(4, 12),
        A(), A(mult_shift=3), A(use_fp16_acc=True), A(use_fp16_acc=True, mult_shift=6),
    ],
    "int16": [
        A(32), A(24), A(22), A(18), A(13), A(9), A(5), A(17, 1), A(12, 3), A(16, 9), A(24, 30),
        A(use_fp16_acc=True, mult_shift=2), A(10, use_fp16_acc=True),
    ],
}  # fmt: skip


def some(arithmetics: list[A], every: int, first: int = 0) -> list[A]:
    """Return one in so many, from the first one on; in the long form all."""
    return arithmetics if IS_LONG else arithmetics[first::every]


def layer(name: str, dtype: str = "int8", **keywords) -> packed.Case:
    """Return a layer; its multiplier is so small that shifts leave its exponents in range."""
    kind, shapes, options = LAYERS[name]
    return layer_files.layer(
        kind, dtype=dtype, options=options, multiplier=2.0**-31 * 1.5, **shapes, **keywords
    )


@pytest.mark.parametrize("dtype", ["int8", "int16"])
@pytest.mark.parametrize("name", LAYERS)
def test_counts_of_layers(name, dtype):
    """In every arithmetic, both alone and end to end, which of one layer are the same."""
    arithmetics = ARITHMETICS[dtype]
    if name in ("dilated", "strided", "transposed", "grouped"):
        # Their sums are formed as those of the others; a graph of each arithmetic takes long.
        arithmetics = some(arithmetics, 3, 1)
    elif name != "depthwise":  # whose weights change their sign, too
        arithmetics = some(arithmetics, 2, name == "dense")
    assert check(layer(name, dtype), arithmetics) > 0


@pytest.mark.parametrize("dtype", ["int8", "int16"])
@pytest.mark.parametrize("name", ["grouped", "depthwise", "dense", "transposed"])
def test_counts_of_a_sample(name, dtype):
    """Wrong sums and the bits of final sums are those of all images, the rest is the sample's."""
    check_sample(layer(name, dtype), some(ARITHMETICS[dtype], 3))


def _with(name: str, dtype: str = "int8", bias=None, weights=None, zero_point=None) -> packed.Case:
    """Return a layer with other numbers."""
    case = layer(name, dtype)
    (kind, (data, filter, old), outputs, options, version), *_ = case.operators
    if bias is not None:
        stored = np.resize(np.array(bias, np.int64), old.shape).astype(old.dtype)
        old = dataclasses.replace(old, data=stored)
    if weights is not None:
        stored = np.broadcast_to(weights, filter.shape).astype(np.int8)
        filter = dataclasses.replace(filter, data=stored)
    if zero_point is not None:
        data = dataclasses.replace(data, zero_points=(zero_point,))
    return packed.operator(kind, [data, filter, old], outputs, options, version)


@pytest.mark.parametrize("bias", [[2**14, -(2**18)], [2**27, 0], [-(2**31), 2**31 - 1]], ids=str)
def test_biases_wider_than_the_sums(bias):
    """One wrap does not bring them back, and full width itself may wrap at 32 bits."""
    check(_with("dense", bias=bias), [A(32), A(31), A(28), A(18), A(12), A(6), A(16, 3), A(12, 9)])


@pytest.mark.parametrize("bias", [[2**31, 5], [2**36 + 3, -(2**33)], [-(2**40) - 1]], ids=str)
def test_biases_of_64_bits(bias):
    """An accumulator takes the low 32 bits; with a shift that is another number."""
    arithmetics = [A(32), A(31), A(20), A(32, 4), A(24, 8), A(28, 12), A(16, 20), A()]
    check(_with("dense", "int16", bias=bias), arithmetics)
    half = [A(use_fp16_acc=True), A(use_fp16_acc=True, mult_shift=6)]
    check(_with("dense", "int16", bias=bias), half)


@pytest.mark.parametrize(
    ("dtype", "bias"), [("int8", [2**31 - 1, -(2**31)]), ("int16", [2**36 + 3, -(2**33)])], ids=str
)
def test_wide_biases_of_a_sample(dtype, bias):
    """Full width wraps, or the one op is given less of the bias than full width has."""
    check_sample(_with("dense", dtype, bias=bias), [A(32), A(31), A(20), A(12), A(16, 3)])


def test_a_bias_beyond_all_sums_is_refused():
    """Partial sums are counted in 64 bits."""
    case = _with("dense", "int16", bias=[-(2**63)])
    with pytest.raises(
        ValueError, match=r"at most 2\^62 in a study, got one of 9223372036854775808"
    ):
        bitfold.study(bitfold.Network.from_tflite(case.content), np.zeros((1, 40), np.int16))


@pytest.mark.parametrize("zero_point", [-128, 127])
def test_zero_points_at_the_ends(zero_point):
    """Then data less the zero point have one sign alone."""
    check(_with("convolution", zero_point=zero_point), [A(16), A(15), A(12), A(14, 2)])


def test_a_sum_that_just_fits():
    """The ends of the range are inside, one more is outside."""
    case = _with("dense", bias=[127, 128, -128, -129, 0, 1, -1], weights=0)
    study = bitfold.study(
        bitfold.Network.from_tflite(case.content),
        np.zeros((3, 40), np.int8),
        arithmetics=[A(8)],
    )
    (found,) = study.results[0].layers
    # The bias is the 41st addend.
    assert found.alone == Counts(21, 6, 0, 6, 41)


def test_a_sum_that_leaves_and_returns():
    """The wraps undo one another where every addend is at most 2^w."""
    weights = np.zeros((7, 40), np.int64)
    weights[:, :3] = [1, 1, -1]
    case = _with("dense", bias=[0], weights=weights, zero_point=0)
    data = np.zeros((1, 40), np.int8)
    data[0, :3] = [100, 100, 110]  # 100, 200, 90: outside of 8 bits from the second to the last
    study = bitfold.study(
        bitfold.Network.from_tflite(case.content), data, arithmetics=[A(8), A(9), A(6)]
    )
    eight, nine, six = (result.layers[0].alone for result in study.results)
    assert eight == Counts(7, 0, 7, 7, 2)
    assert nine == Counts(7)
    # 100 is a number above 2^6: the only wrap of 6 bits leaves it outside.
    assert six == Counts(7, 7, 0, 7 * 41, 1)
    (layer_bits,) = study.layers
    assert (layer_bits.needed, layer_bits.on_the_way) == (8, 9)


@pytest.mark.parametrize("dtype", ["int8", "int16"])
@pytest.mark.parametrize("second", ["data", "stored", "stored for each"])
def test_matrix_products(second, dtype):
    """The second operand is the weights, of half the accumulator's width."""
    rng = np.random.default_rng(3)
    zero_points = (-3, -5) if dtype == "int8" else (0, 0)
    matrices = 2 if second == "stored for each" else 1
    first = packed.tensor([1, 2, 3, 9], dtype, 0.5, zero_points[0])
    stored = None if second == "data" else rng.integers(-100, 100, [1, matrices, 9, 4])
    other = packed.tensor([1, matrices, 9, 4], dtype, 0.25, zero_points[1], data=stored)
    output = packed.tensor([1, 2, 3, 4], dtype, 2.0**20)
    case = packed.operator("BATCH_MATMUL", [first, other], [output])
    widths = [A(32), A(18), A(16), A(14), A(11), A(17, 2), A(use_fp16_acc=True), A(32, 3)]
    check(case, [*some(widths, 1 if matrices == 1 else 2), A(24), A()])
    check_sample(case, some(widths, 3))


def test_a_unit_that_requantises():
    """Sums and their requantisation are ops of their own."""
    case = _with("dense")
    check_sample(case, [A(16, requantisation="unit"), A(12, requantisation="unit")])
