# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Bounded scales: adversaries made of the signs of the weights cannot lead any sum outside."""

from __future__ import annotations

import dataclasses

import hypothesis
import hypothesis.strategies as st
import numpy as np
import pytest
import tensorflow as tf

import bitfold
from bitfold.training import bounding, quantising
from bitfold.training.bounding import Limits

DATA_SCALE = 1 / 64


@dataclasses.dataclass(frozen=True)
class Layer:
    """Weights of a layer and what is stored of them within limits; arrays."""

    real: np.ndarray  # [rows, columns, inputs, outputs]
    real_bias: np.ndarray | None
    limits: Limits
    filter: np.ndarray
    bias: np.ndarray
    largest: np.ndarray
    unbounded: np.ndarray

    @property
    def depthwise(self) -> bool:
        """Whether each channel is summed for itself."""
        return self.limits.has_half_weights

    def sums(self, data: np.ndarray, width: int) -> np.ndarray:
        """Return the sums of data less its zero point in an accumulator, by the public ops."""
        datapath = dict(accumulator_size=width, mult_shift=self.limits.shift)
        op = bitfold.ops.depthwise_conv2d if self.depthwise else bitfold.ops.conv2d
        sums = op(data.astype(np.int32), self.filter, padding="VALID", **datapath)
        return bitfold.ops.bias_add(sums, self.bias, **datapath).numpy().astype(np.int64)

    def adversaries(self) -> np.ndarray:
        """Return data that brings each output to its greatest and to its least sum."""
        weights = np.moveaxis(self.filter, 3, 0)  # [outputs, rows, columns, inputs]
        if self.depthwise:
            weights = np.broadcast_to(weights, (*weights.shape[:3], weights.shape[0]))
        low, high = int(self.limits.low), int(self.limits.high)
        ends = [np.where(w > 0, high, low) for w in (weights, -weights)]
        return np.concatenate(ends)

    def reached(self) -> np.ndarray:
        """Return the bits that each output's partial sums reach, by another op."""
        low = int(self.limits.low)
        found = bitfold.ops.partial_sums(
            # As stored integers with a zero point.
            (self.adversaries() + (-128 - low)).astype(np.int8),
            self.filter.astype(np.int8),
            self.bias,
            depthwise=self.depthwise,
            input_zero_point=-128 - low,
            mult_shift=self.limits.shift,
        )
        *_, least, greatest = found.extremes.numpy().tolist()
        return np.array(
            [max(b, -1 - a, 0).bit_length() + 1 for a, b in zip(least, greatest, strict=True)]
        )


def stored(real: np.ndarray, real_bias: np.ndarray | None, largest: tf.Tensor) -> tuple:
    """Return what is stored of weights and bias, int32."""
    scales = quantising.filter_scales(largest)
    filter = quantising.integer_filter(real, scales).numpy().astype(np.int32)
    if real_bias is None:
        return filter, np.zeros(filter.shape[-1], np.int32)
    bias = quantising.integer_bias(real_bias, DATA_SCALE * tf.cast(scales, tf.float64))
    return filter, bias.numpy().astype(np.int32)


def bounded(real: np.ndarray, real_bias: np.ndarray | None, limits: Limits) -> Layer:
    """Return a layer as it is stored within limits."""
    unbounded = np.abs(real).max((0, 1, 2)).astype(np.float32) + np.float32(2.0**-20)
    largest = bounding.bounded_largest(real, real_bias, unbounded, DATA_SCALE, limits)
    filter, bias = stored(real, real_bias, largest)
    return Layer(real, real_bias, limits, filter, bias, largest.numpy(), unbounded)


SHAPES = {"convolution": (3, 3, 4, 6), "dense": (1, 1, 40, 5), "depthwise": (3, 3, 1, 8)}
DATA = {"from zero": (0, 255), "both signs": (-100, 155), "to zero": (-255, 0)}


def random_layer(kind: str, width: int, data: str, shift: int, seed: int = 3) -> Layer:
    """Return a layer of random weights with a bias."""
    rng = np.random.default_rng(seed)
    shape = SHAPES[kind]
    low, high = DATA[data]
    limits = Limits(width, low, high, shift, has_half_weights=kind == "depthwise")
    return bounded(rng.normal(size=shape), rng.normal(size=shape[-1]), limits)


@pytest.mark.parametrize("shift", [0, 3])
@pytest.mark.parametrize("data", DATA)
@pytest.mark.parametrize("kind", SHAPES)
def test_adversaries_do_not_wrap(kind, data, shift):
    """At the width nothing wraps, also on the way; with one bit less sums that leave it do."""
    tight = 0
    for width in (18, 15, 12, 10):
        layer = random_layer(kind, width, data, shift)
        worst = layer.adversaries()
        exact = layer.sums(worst, 32)
        reached = layer.reached()
        assert (reached <= width).all()
        np.testing.assert_array_equal(layer.sums(worst, width), exact)
        narrow = layer.sums(worst, width - 1)
        outside = (exact >= 1 << (width - 2)) | (exact < -1 << (width - 2))
        assert (narrow != exact)[outside].all()
        tight += outside.any((0, 1, 2)).sum()
    assert tight > 5


@pytest.mark.parametrize("kind", SHAPES)
def test_scales_are_hardly_greater_than_need_be(kind):
    """A thirtieth less and some sum could leave the accumulator."""
    layer = random_layer(kind, 13, "from zero", 0)
    assert (layer.largest > layer.unbounded).all()
    lesser = tf.constant(layer.largest * np.float32(1 - 1 / 30))
    filter, bias = (tf.constant(v, tf.float32) for v in stored(layer.real, layer.real_bias, lesser))
    least, greatest = bounding.partial_sums_range(filter, bias, layer.limits)
    outside = (least < layer.limits.smallest) | (greatest > layer.limits.largest)
    if kind == "depthwise":
        outside |= tf.reduce_max(filter, [0, 1, 2]) > layer.limits.largest_weight
    assert outside.numpy().all()


@pytest.mark.parametrize("kind", SHAPES)
def test_scales_that_fit_stay(kind):
    """Where no sum can leave the accumulator a bound changes nothing."""
    layer = random_layer(kind, 24, "both signs", 0)
    np.testing.assert_array_equal(layer.largest, layer.unbounded)


def test_biases_count():
    """A bias may fill the accumulator alone; weights get what it leaves, and none is enough."""
    real = np.broadcast_to([[1.0], [-0.1], [0.1], [0.1]], (1, 1, 4, 2))
    layer = bounded(real, np.array([1.0e6, -0.1]), Limits(10, 0, 255))
    assert not layer.filter[..., 0].any()
    assert 490 < layer.bias[0] < 512
    assert layer.filter[..., 1].tolist() == [[[2, 0, 0, 0]]]
    assert layer.bias[1] == -16


def test_many_weights_are_tried_one_scale_after_the_other():
    """Large layers take no more memory than a few times their weights."""
    rng = np.random.default_rng(5)
    layer = bounded(rng.normal(size=(3, 3, 256, 256)), None, Limits(16, 0, 255))
    sums = np.abs(layer.filter.astype(np.int64)).sum((0, 1, 2)) * 255
    assert (sums > 1 << 15).all()  # of both signs together
    positive = np.maximum(layer.filter, 0).sum((0, 1, 2)) * 255
    assert (positive < 1 << 15).all()


magnitudes = st.sampled_from([0.0, 1e-30, 1e-6, 0.3, 1.0, 7.5, 1e4, 1e30])
signed = st.builds(lambda magnitude, sign: magnitude * sign, magnitudes, st.sampled_from([-1, 1]))


@hypothesis.given(
    weights=st.lists(signed, min_size=1, max_size=12),
    bias=signed,
    width=st.integers(2, 32),
    zero=st.integers(0, 255),
    shift=st.sampled_from([0, 1, 7, 30]),
    depthwise=st.booleans(),
)
def test_any_weights_fit(weights, bias, width, zero, shift, depthwise):
    """However uneven weights and bias are, and however narrow the accumulator is."""
    limits = Limits(width, -zero, 255 - zero, shift, depthwise)
    real = np.float64(weights).reshape(1, -1, 1, 1)
    layer = bounded(real, np.float64([bias]), limits)
    assert (layer.reached() <= width).all()
    if depthwise:
        half = width // 2
        assert layer.filter.max(initial=0) <= (1 << (half - 1)) - 1


@pytest.mark.parametrize(("width", "shift"), [(1, 0), (33, 0), (16, -1), (16, 31)])
def test_limits_that_prove_nothing_are_refused(width, shift):
    """With the numbers."""
    with pytest.raises(ValueError, match=r"Need a .*, got "):
        Limits(width, 0, 255, shift)


def test_excess_pushes_magnitudes_down():
    """By as much for each weight that its extreme sum has; not at all where sums fit."""
    filter = tf.constant([[2.0, 1.0], [-8.0, -1.0], [6.0, 0.0]])
    limits = Limits(8, low=0, high=32)
    with tf.GradientTape() as tape:
        tape.watch(filter)
        excess = bounding.excess_bits(filter, None, limits)
    gradient = tape.gradient(excess, filter).numpy()
    # 32 * (2 + 6) over 127 is more than 32 * 8 over 128.
    assert excess.numpy()[0] == np.float32(np.log2(256 / 127))
    assert excess.numpy()[1] == 0
    assert gradient[0, 0] == gradient[2, 0] > 0
    assert gradient[1, 0] == 0
    assert not gradient[:, 1].any()


def test_scales_are_constants_to_gradients():
    """And the search takes no part in training."""
    filter = tf.constant([[2.0], [-8.0]], tf.float64)
    with tf.GradientTape() as tape:
        tape.watch(filter)
        largest = bounding.bounded_largest(filter, None, [8.0], 1.0, Limits(8, 0, 255))
    assert largest.numpy()[0] > 8
    assert tape.gradient(largest, filter) is None
