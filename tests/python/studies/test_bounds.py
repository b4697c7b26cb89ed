# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Proven widths: adversaries made of the signs of the weights reach them and prove them least."""

from __future__ import annotations

import dataclasses
import itertools

import layer_files
import numpy as np
import packed
import plain_sums
import pytest
import sum_cases
from witness import Witness

import bitfold
from bitfold.network import model_file
from bitfold.network.assemble import assemble
from bitfold.network.operators import step_of
from bitfold.studies.bounds import Bounds, bits_of, layer_bounds

# Of the smallest layers, so that every output can have adversaries of its own.
_MOST_ELEMENTS = 150


class Layer:
    """A file of one layer, exact sums of it, and inputs that bring these to their extremes."""

    def __init__(self, case: packed.Case) -> None:
        """Read the file by the package, and by the tests' own reader."""
        self.network = bitfold.Network.from_tflite(case.content)
        self._file = Witness(case.content)
        (node,) = assemble(model_file.read(case.content)).nodes
        self.step = step_of(node)(node, bitfold.Arithmetic())
        self.dtype = self.step.data.dtype
        self.limits = tuple(int(v) for v in (np.iinfo(self.dtype).min, np.iinfo(self.dtype).max))
        self.zero_point = self.step.data.zero_point

    def exact(self, images: list[np.ndarray], shift: int = 0) -> np.ndarray:
        """Return sums in 64 bits, [images, elements, channels]."""
        known = dict(zip(self._file.inputs, images, strict=True))
        sums = plain_sums.plain_sums(self._file, 0, known, plain_sums.ExactOps(shift))
        return sums.reshape(len(images[0]) // self._rows, -1, sums.shape[-1])

    def at(self, images: list[np.ndarray], **arithmetic) -> np.ndarray:
        """Return the sums in an arithmetic, in the same form."""
        network = self.network.with_arithmetic(bitfold.Arithmetic(**arithmetic))
        (sums,) = network.accumulators(images if len(images) > 1 else images[0]).values()
        return sums.reshape(len(images[0]) // self._rows, -1, sums.shape[-1]).astype(np.int64)

    @property
    def _rows(self) -> int:
        return self._file.shape(self._file.inputs[0])[0]

    @property
    def has_two_operands(self) -> bool:
        """Whether the weights are data, too."""
        return len(self._file.inputs) > 1

    def adversaries(self, low: int, high: int) -> list[np.ndarray]:
        """Return inputs of [low, high] of which two bring each output to its extremes."""
        shapes = [self._file.shape(i) for i in self._file.inputs]
        if self.has_two_operands:
            limits = np.iinfo(self.dtype)
            pairs = list(itertools.product((low, high), (limits.min, limits.max)))
            return [
                np.concatenate([np.full(shape, pair[i], self.dtype) for pair in pairs])
                for i, shape in enumerate(shapes)
            ]
        weights = self._weights(shapes[0])
        ends = np.where(np.concatenate([weights, -weights], axis=1) > 0, high, low)
        return [ends.T.reshape(-1, *shapes[0][1:]).astype(self.dtype)]

    def _weights(self, shape: tuple[int, ...]) -> np.ndarray:
        """Return what each data element is multiplied by in each output: an impulse's sums."""
        elements = int(np.prod(shape))
        images = np.full((elements + 1, elements), self.zero_point, np.int64)
        # One more, or one less where the type ends.
        sign = 1 if self.zero_point < self.limits[1] else -1
        images[np.arange(elements), np.arange(elements)] += sign
        sums = self.exact([images.reshape(-1, *shape[1:]).astype(self.dtype)])
        sums = sums.reshape(elements + 1, -1)
        return sign * (sums[:-1] - sums[-1])

    def noise(self, low: int, high: int, count: int = 8) -> list[np.ndarray]:
        """Return random inputs of [low, high]; a second operand has its whole range."""
        rng = np.random.default_rng(5)
        ranges = [(low, high), self.limits]
        return [
            rng.integers(*ends, (count * shape[0], *shape[1:]), endpoint=True).astype(self.dtype)
            for ends, shape in zip(ranges, map(self._file.shape, self._file.inputs), strict=False)
        ]


def _bounds(layer: Layer, low: int | None = None, high: int | None = None, shift=0) -> Bounds:
    low, high = layer.limits if low is None else (low, high)
    return layer_bounds(layer.step, low, high, shift)


def _assert_proven(layer: Layer, low: int, high: int, shift: int) -> int:
    """Fail unless each width is right and, where it must be, one bit less is wrong.

    Returns:
        For how many channels one bit less was wrong.
    """
    bounds = layer_bounds(layer.step, low, high, shift)
    images = [
        np.concatenate(pair)
        for pair in zip(layer.adversaries(low, high), layer.noise(low, high), strict=True)
    ]
    exact = layer.exact(images, shift)
    assert tuple(exact.min((0, 1))) == bounds.smallest_sums
    assert tuple(exact.max((0, 1))) == bounds.largest_sums
    sums = {
        width: layer.at(images, accumulator_size=width, mult_shift=shift)
        for bits in set(bounds.bits)
        for width in (bits - 1, bits)
        if width <= 32
    }
    tight = 0
    for channel, bits in enumerate(bounds.bits):
        for width in (w for w in sums if w >= bits):
            np.testing.assert_array_equal(sums[width][..., channel], exact[..., channel])
        if bounds.harmless_from < bits <= 33:
            assert (sums[bits - 1][..., channel] != exact[..., channel]).any(), (channel, bits)
            tight += 1
    return tight


def _ranges(layer: Layer) -> list[tuple[int, int]]:
    """Return ranges of stored data: all, one side of the zero point, a part beside it."""
    low, high = layer.limits
    third = (high - low) // 3
    return [(low, high), (layer.zero_point, high), (low + third // 2, low + third)]


@pytest.mark.parametrize("dtype", ["int8", "int16"])
@pytest.mark.parametrize("kind", sum_cases.CASES)
def test_extreme_sums_are_reached(kind, dtype):
    """And no more than these: of windows at all places, groups, strides, dilations, matrices."""
    seen = 0
    for turn, case in enumerate(sum_cases.CASES[kind](dtype, np.random.default_rng(7))):
        if sum(np.prod(one.shape) for one in case.inputs) > _MOST_ELEMENTS:
            continue
        layer, shift = Layer(case), turn % 5
        low, high = _ranges(layer)[turn % 3]
        if layer.step.data.is_constant:
            continue
        bounds = _bounds(layer, low, high, shift)
        exact = layer.exact(layer.adversaries(low, high), shift)
        assert tuple(exact.min((0, 1))) == bounds.smallest_sums, case.label
        assert tuple(exact.max((0, 1))) == bounds.largest_sums, case.label
        seen += 1
    assert seen >= 3


CONVOLUTION = dict(data=[1, 4, 3, 3], filter=[5, 3, 3, 3], output=[1, 4, 3, 5])
WINDOWS = dict(
    padding="SAME", stride_h=1, stride_w=1, dilation_h_factor=1, dilation_w_factor=1
)  # fmt: skip
LAYERS = {
    "convolution": ("CONV_2D", CONVOLUTION, WINDOWS),
    "grouped": ("CONV_2D", CONVOLUTION | dict(data=[1, 4, 3, 6], filter=[4, 2, 2, 3],
                output=[1, 4, 3, 4]), WINDOWS),
    "depthwise": ("DEPTHWISE_CONV_2D", dict(data=[1, 4, 4, 3], filter=[1, 3, 2, 6],
                  output=[1, 4, 4, 6]), WINDOWS | dict(depth_multiplier=2)),
    "dense": ("FULLY_CONNECTED", dict(data=[1, 40], filter=[7, 40], output=[1, 7]), {}),
    "transposed": ("TRANSPOSE_CONV", dict(data=[1, 3, 3, 2], filter=[4, 3, 3, 2],
                   output=[1, 6, 6, 4]), dict(padding="SAME", stride_h=2, stride_w=2)),
}  # fmt: skip


def _layer(name: str, dtype: str = "int8", **keywords) -> packed.Case:
    kind, shapes, options = LAYERS[name]
    # So small a multiplier that shifts leave its exponents in range.
    return layer_files.layer(
        kind, dtype=dtype, options=options, multiplier=2.0**-20, **shapes, **keywords
    )


@pytest.mark.parametrize("dtype", ["int8", "int16"])
@pytest.mark.parametrize("name", LAYERS)
def test_proven_widths_are_right_and_least(name, dtype):
    """Against full width on adversaries and at random; shifted and not."""
    layer = Layer(_layer(name, dtype))
    tight = 0
    for (low, high), shift in zip(_ranges(layer), (0, 0, 3), strict=True):
        tight += _assert_proven(layer, low, high, shift)
    assert tight > len(layer.network.layers[0].bias)


@pytest.mark.parametrize("zero_point", [-128, 127])
def test_zero_points_at_the_ends(zero_point):
    """Data less the zero point has one sign alone."""
    case = _layer("convolution")
    (kind, (data, *others), outputs, options, version), *_ = case.operators
    data = dataclasses.replace(data, zero_points=(zero_point,))
    layer = Layer(packed.operator(kind, [data, *others], outputs, options, version))
    assert layer.zero_point == zero_point
    assert _assert_proven(layer, -128, 127, 0) == 5


def _biased(name: str, dtype: str, bias: list[int], weights=None) -> Layer:
    case = _layer(name, dtype)
    (kind, (data, filter, old), outputs, options, version), *_ = case.operators
    stored = np.resize(np.array(bias, np.int64), old.shape)
    new = dataclasses.replace(old, data=stored.astype(old.dtype))
    if weights is not None:
        filter = dataclasses.replace(
            filter, data=np.broadcast_to(weights, filter.shape).astype(np.int8)
        )
    return Layer(packed.operator(kind, [data, filter, new], outputs, options, version))


@pytest.mark.parametrize("shift", [0, 1, 4])
@pytest.mark.parametrize(
    "bias", [[0], [2**14, -(2**18)], [2**27], [-(2**31), 2**31 - 1], [3, 2**20 + 1]], ids=str
)
def test_biases_of_all_widths(bias, shift):
    """As wide as a word: full width is one of 32 bits then, and wraps alike."""
    layer = _biased("dense", "int8", bias)
    bounds = _bounds(layer, shift=shift)
    assert bounds.bits.max() <= 32
    if max(map(abs, bias)) < 2**30:
        _assert_proven(layer, *layer.limits, shift)
        return
    images = layer.adversaries(*layer.limits)
    full = layer.at(images, mult_shift=shift)
    np.testing.assert_array_equal(
        layer.at(images, accumulator_size=int(bounds.bits.max()), mult_shift=shift), full
    )


def test_a_bias_wider_than_the_accumulator_is_an_addend():
    """Above 2^w it can wrap once and stay outside, though the sums fit."""
    # Data far from its zero point brings every sum back.
    layer = _biased("dense", "int8", [-(2**19)], weights=127)
    data = round(2**19 / (40 * 127)) + layer.zero_point
    bounds = _bounds(layer, data, data)
    assert bounds.harmless_from == 19
    assert bits_of(bounds.smallest_sums[0], bounds.largest_sums[0]) < 16
    assert set(bounds.bits) == {19}
    images = [np.full((1, 40), data, np.int8)]
    right = layer.exact(images)
    np.testing.assert_array_equal(layer.at(images, accumulator_size=19), right)
    assert (layer.at(images, accumulator_size=12) != right).all()


@pytest.mark.parametrize(
    ("bias", "shift", "is_proven"),
    [
        (-(2**63), 0, False),
        (2**63 - 1, 1, False),
        (2**40 + 5, 0, False),  # the sums need as many bits
        (2**31, 0, False),
        (2**31 - 2**20, 0, False),
        (2**31 - 2**23, 0, True),
        (2**36, 8, False),  # 2^28 fits, but its low 32 bits are 0
        (-(2**31), 8, True),
    ],
)
def test_biases_of_64_bits(bias, shift, is_proven):
    """The accumulator gets the low 32 bits, which are as good only without a shift."""
    layer = _biased("dense", "int16", [bias, 77])
    bounds = _bounds(layer, -800, 800, shift)
    assert (bounds.bits[0] <= 32) == is_proven
    assert bounds.bits[1] <= 32
    images = layer.adversaries(-800, 800)
    exact = layer.exact(images, shift)
    sums = layer.at(images, accumulator_size=32, mult_shift=shift)
    assert (sums[..., 0] == exact[..., 0]).all() == is_proven
    np.testing.assert_array_equal(sums[..., 1], exact[..., 1])


@pytest.mark.parametrize("dtype", ["int8", "int16"])
@pytest.mark.parametrize("second", ["data", "stored"])
def test_matrix_products(second, dtype):
    """Weights are numbers of half the accumulator: nothing is proven where one changes its sign."""
    rng = np.random.default_rng(3)
    zero_points = (-3, -5) if dtype == "int8" else (0, 0)
    first = packed.tensor([1, 3, 4], dtype, 0.5, zero_points[0])
    stored = None if second == "data" else rng.integers(-100, 100, [1, 4, 6])
    other = packed.tensor([1, 4, 6], dtype, 0.25, zero_points[1], data=stored)
    output = packed.tensor([1, 3, 6], dtype, 4096.0)
    layer = Layer(packed.operator("BATCH_MATMUL", [first, other], [output]))
    _assert_proven(layer, *layer.limits, 0)
    bounds = _bounds(layer)
    if stored is None:
        assert set(bounds.bits) == {dict(int8=18, int16=34)[dtype]}
        assert bounds.harmless_from == dict(int8=18, int16=32)[dtype]
        return
    largest = int(stored.max()) - zero_points[1]
    # Of 16 bits, products of 2^15 and a hundred decide.
    read = 2 * (largest.bit_length() + 1)
    assert bounds.harmless_from == (read if dtype == "int8" else 22)


def test_weights_of_a_depthwise_layer():
    """Of each channel by itself; negative weights are read as they are."""
    weights = np.zeros((1, 3, 2, 6), np.int8)
    weights[0, 0, 0] = [127, 64, 63, 1, 0, -128]
    layer = _biased("depthwise", "int8", [0], weights=weights)
    low, high = layer.zero_point, layer.zero_point + 1
    bounds = _bounds(layer, low, high)
    assert list(bounds.bits) == [16, 16, 14, 4, 1, 8]
    assert bounds.harmless_from == 16
    images = layer.adversaries(low, high)
    right = layer.exact(images)
    for channel, bits in enumerate(bounds.bits):
        sums = layer.at(images, accumulator_size=int(bits))[..., channel]
        np.testing.assert_array_equal(sums, right[..., channel])
    assert (layer.at(images, accumulator_size=15)[..., :2] != right[..., :2]).any()


def test_no_more_taps_than_lie_in_the_image():
    """A window that is larger than the image never meets all of its taps."""
    keywords = dict(data=[1, 2, 1, 1], filter=[2, 5, 5, 1], output=[1, 2, 1, 2])
    layer = Layer(
        layer_files.layer("CONV_2D", **keywords, options=WINDOWS, extreme=True, bias=None)
    )
    bounds = _bounds(layer)
    assert bounds.largest_sums == (2 * 127 * (127 + 21),) * 2
    assert bounds.smallest_sums == (2 * 127 * (-128 + 21),) * 2


def test_no_tap_at_all():
    """Taps that lie on both sides of the image leave the bias alone."""
    keywords = dict(data=[1, 2, 2, 3], filter=[2, 2, 2, 3], output=[1, 2, 2, 2])
    options = WINDOWS | dict(dilation_h_factor=5)
    layer = Layer(layer_files.layer("CONV_2D", **keywords, options=options))
    bounds = _bounds(layer)
    bias = tuple(layer.network.layers[0].bias)
    assert bounds.smallest_sums == bounds.largest_sums == bias
    assert bounds.harmless_from == (max(map(abs, map(int, bias))) - 1).bit_length()


@pytest.mark.parametrize("shift", [30, 31])
def test_the_greatest_shifts(shift):
    """By 31 bits every negative addend becomes -1."""
    layer = _biased("dense", "int8", [-1, 2**30, 2**30 + 1, 2**31 - 1])
    images = layer.adversaries(*layer.limits)
    keywords = dict(mult_shift=shift)
    # 40 products and a bias, each -1, 0 or 1.
    bounds = _bounds(layer, shift=shift)
    assert bounds.bits.max() <= 7
    full = layer.at(images, **keywords)
    assert bounds.smallest_sums == tuple(full.min((0, 1)))
    assert bounds.largest_sums == tuple(full.max((0, 1)))
    np.testing.assert_array_equal(
        layer.at(images, accumulator_size=int(bounds.bits.max()), **keywords), full
    )


@pytest.mark.parametrize(
    ("low", "high", "shift", "text"),
    [(-129, 3, 0, "-129"), (5, 4, 0, "got 5 and 4"), (0, 128, 0, "128"), (0, 1, 32, "got 32")],
)
def test_refusals(low, high, shift, text):
    """Of ranges that no stored data has, and shifts that no layer has."""
    layer = Layer(_layer("dense"))
    with pytest.raises(ValueError, match=text):
        layer_bounds(layer.step, low, high, shift)
