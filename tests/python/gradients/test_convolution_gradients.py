# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Gradients of the convolutions: at every geometry the op's own, elsewhere the stock ones."""

from __future__ import annotations

import functools

import numpy as np
import pytest
import support
import tensorflow as tf
from slopes import (
    assert_differences,
    assert_same,
    differences,
    gradients,
    graph_gradients,
    whole,
)

from bitfold import ops, raw_ops

RNG = np.random.default_rng(31)

# Size of the image, of the filter, strides, dilations.
GEOMETRIES = {
    "a pixel": ((1, 1), (1, 1), 1, 1),
    "odd windows": ((5, 4), (3, 3), 1, 1),
    "even windows": ((5, 4), (2, 4), 1, 1),
    "a window that ends behind the image": ((3, 5), (4, 6), 2, 1),
    "a window that is centred on the first pixel": ((9, 3), (5, 3), 3, 1),
    "a stride of 2": ((7, 6), (3, 2), 2, 1),
    "a stride of 3": ((7, 5), (3, 2), 3, 1),
    "a stride of 4": ((10, 9), (3, 5), 4, 1),
    "strides beyond the window": ((10, 9), (2, 1), 4, 1),
    "strides that differ": ((7, 9), (3, 3), (1, 3), 1),
    "a dilation": ((6, 5), (3, 2), 1, 2),
    "dilations that differ": ((8, 7), (3, 3), 1, (3, 1)),
    "a stride and a dilation": ((9, 8), (3, 2), 2, 2),
    "strides and dilations that differ": ((11, 9), (2, 3), (3, 2), (2, 3)),
}
# There VALID has no window.
BEYOND = {
    "windows beyond the image": ((3, 2), (5, 4), 1, 1),
    "dilations beyond the image": ((3, 3), (3, 3), 1, 4),
}
KINDS = {
    "conv2d": (ops.conv2d, 2, (2, 3)),
    "dilated_conv2d": (ops.dilated_conv2d, 1, (1, 2)),
    "depthwise_conv2d": (ops.depthwise_conv2d, 2, (2, 1)),
}


CASES = [(geometry, padding) for geometry in GEOMETRIES for padding in ("SAME", "VALID")]
CASES += [(geometry, "SAME") for geometry in BEYOND]


def _settings(geometry, padding):
    """Return the shapes of image and filter, and the settings of a convolution."""
    size, window, strides, dilations = {**GEOMETRIES, **BEYOND}[geometry]
    return size, window, {"strides": strides, "dilations": dilations, "padding": padding}


def _differences(function, operands, upstream):
    """Return the differences of a convolution; those of all pixels by one call of many images."""
    images, filter = operands
    pixels = np.eye(images[0].size, dtype=np.float32).reshape(-1, *images.shape[1:])
    columns = function(pixels, filter).numpy()
    of_images = np.einsum("pijk,nijk->np", columns, upstream).reshape(images.shape)
    return [of_images, *differences(lambda f: function(images, f), [filter], upstream, 1.0)]


@pytest.mark.parametrize(("geometry", "padding"), CASES)
@pytest.mark.parametrize("kind", KINDS)
def test_gradients_have_the_op_s_geometry(kind, geometry, padding):
    """Windows begin where the op's begin, in graphs of unknown sizes, too."""
    convolve, channels, filter_channels = KINDS[kind]
    size, window, settings = _settings(geometry, padding)
    operands = [whole(RNG, 2, *size, channels), whole(RNG, *window, *filter_channels)]

    function = functools.partial(convolve, **settings)
    upstream = whole(RNG, *function(*operands).shape)
    eager = gradients(function, operands, upstream)
    assert_same(eager, _differences(function, operands, upstream))
    if kind != "dilated_conv2d":  # one function registers all three
        assert_same(graph_gradients(function, operands, upstream), eager)


@pytest.mark.parametrize("strides", [1, 2])
def test_where_windows_agree_gradients_are_the_stock_ones(strides):
    """Odd windows at a stride of 1, and at 2 on odd sizes, begin where the stock ones do."""
    images, filter = whole(RNG, 2, 9, 7, 3), whole(RNG, 3, 5, 3, 4)
    channels = whole(RNG, 3, 5, 3, 1)
    steps = [1, strides, strides, 1]
    for ours, stock, weights in (
        (ops.conv2d, tf.nn.conv2d, filter),
        (ops.depthwise_conv2d, tf.nn.depthwise_conv2d, channels),
    ):
        expected = functools.partial(stock, strides=steps, padding="SAME")
        actual = functools.partial(ours, strides=strides)
        upstream = whole(RNG, *expected(images, weights).shape)
        wanted = gradients(expected, [images, weights], upstream)
        assert_same(gradients(actual, [images, weights], upstream), wanted)


def test_where_windows_differ_so_do_gradients():
    """With 9 pixels, a window of 5 and a stride of 3 the op begins a pixel earlier."""
    images, filter = np.zeros([1, 9, 1, 1], np.float32), np.ones([5, 1, 1, 1], np.float32)
    upstream = np.float32([1, 0, 0]).reshape(1, 3, 1, 1)

    def met(function):
        return gradients(function, [images, filter], upstream)[0].numpy().ravel().tolist()

    assert met(lambda x, f: ops.conv2d(x, f, strides=3)) == [1, 1, 1, 0, 0, 0, 0, 0, 0]
    stock = met(lambda x, f: tf.nn.conv2d(x, f, 3, "SAME"))
    assert stock == [1, 1, 1, 1, 0, 0, 0, 0, 0]


def test_sums_are_scaled_by_the_divisor():
    """Products that the divisor divides are not rounded: differences are those of w * x / s."""
    images, filter = whole(RNG, 1, 4, 3, 2, of=4), whole(RNG, 2, 2, 2, 2, of=4)
    channels = whole(RNG, 2, 2, 2, 1, of=4)
    for function, weights in ((ops.conv2d, filter), (ops.depthwise_conv2d, channels)):
        function = functools.partial(function, mult_shift=4)
        assert_differences(function, [images, weights], step=4.0)


def test_the_addend_is_not_scaled():
    """Of the addend the gradient is the result's own, in the addend's shape."""
    images, filter, addend = whole(RNG, 1, 3, 3, 2), whole(RNG, 3, 3, 2, 2), whole(RNG, 18)
    assert_differences(
        lambda x, f, e: ops.conv2d(2 * x, f, elementwise=e, mult_shift=2),
        [images, filter, addend],
    )


def test_wraps_roundings_and_half_precision_pass_straight_through():
    """A narrow accumulator changes results, not gradients; neither do divisors that round."""
    operands = [whole(RNG, 2, 6, 5, 3), whole(RNG, 3, 3, 3, 4)]
    upstream = whole(RNG, 2, 6, 5, 4, of=7)
    wanted = gradients(ops.conv2d, operands, upstream)
    for settings in ({"accumulator_size": 8}, {"use_fp16_acc": True}):
        narrow = functools.partial(ops.conv2d, **settings)
        assert_same(gradients(narrow, operands, upstream), wanted)
    assert (ops.conv2d(*operands, accumulator_size=8) != ops.conv2d(*operands)).numpy().any()
    rounded = gradients(lambda x, f: ops.conv2d(x, f, mult_shift=7), operands, upstream)
    assert_same(rounded, gradients(ops.conv2d, operands, upstream / np.float32(7)))


def test_depthwise_weights_count_as_the_unit_reads_them():
    """In 8 bits 249 is -7, for the images; the weight's own gradient passes the correction."""
    images = whole(RNG, 2, 4, 3, 2)
    filter = np.float32([249, 3, 126, 128, -5, 200, 255, 0]).reshape(2, 2, 2, 1)
    with support.printed() as text:
        function = functools.partial(ops.depthwise_conv2d, accumulator_size=16)
        assert_differences(function, [images, filter])
    assert set(text.out.splitlines(keepends=True)) == {support.RED_LINE}


@pytest.mark.parametrize(
    "shape",
    [(2, 1, 1, 3), (1, 2, 2, 1), (2, 2, 1, 1, 3), (3, 1, 2, 1, 2), (2, 2, 1, 3, 1)],
    ids=["1, C", "fewer channels", "one for each image", "more than images", "C, 1 for each"],
)
def test_depthwise_filters_of_other_forms(shape):
    """[height, width, 1, C], fewer channels, a filter for each image and more than images."""
    images, filter = whole(RNG, 2, 3, 2, 3), whole(RNG, *shape)
    for settings in ({}, {"strides": (1, 2), "dilations": 2}):
        function = functools.partial(ops.depthwise_conv2d, **settings)
        assert_differences(function, [images, filter], **settings)


def test_one_filter_may_have_a_dimension_before():
    """A filter of rank 5 that is one filter gets its gradient in its shape."""
    assert_differences(ops.conv2d, [whole(RNG, 2, 3, 2, 3), whole(RNG, 1, 2, 2, 3, 2)])


def test_images_of_few_or_no_pixels():
    """Where nothing is met gradients are zeros of the operands' shapes."""
    for size, strides in (((0, 3), 1), ((0, 3), 2), ((2, 2), 1)):
        operands = [whole(RNG, 1, *size, 2), whole(RNG, 3, 3, 2, 2)]
        padding = "VALID" if size == (2, 2) else "SAME"
        function = functools.partial(ops.conv2d, strides=strides, padding=padding)
        upstream = np.ones(function(*operands).shape, np.float32)
        assert_same(gradients(function, operands, upstream), [np.zeros_like(x) for x in operands])


def test_second_gradients_are_the_stock_ones():
    """A gradient consists of stock ops, which have gradients."""
    images, filter = whole(RNG, 1, 5, 5, 2), whole(RNG, 3, 3, 2, 2)

    def second(convolve):
        x, f = tf.constant(images), tf.constant(filter)
        with tf.GradientTape() as outer:
            outer.watch([x, f])
            with tf.GradientTape() as inner:
                inner.watch(x)
                loss = tf.reduce_sum(convolve(x, f) ** 2)
            slope = inner.gradient(loss, x)
            of = tf.reduce_sum(slope * images)
        return outer.gradient(of, [x, f])

    assert_same(second(ops.conv2d), second(lambda x, f: tf.nn.conv2d(x, f, 1, "SAME")))


def test_what_is_no_stock_convolution_is_refused():
    """The generated ops take windows that go backward; their gradient says what it needs."""
    images, filter = tf.constant(whole(RNG, 1, 3, 3, 1)), tf.constant(whole(RNG, 1, 1, 1, 1))
    with tf.GradientTape() as tape:
        tape.watch(images)
        result = raw_ops.h_conv2d(
            images, filter, tf.zeros([0]), 0, strides=[1, 1, 1, 1], dilations=[1, 0, 1, 1],
            padding="SAME", accumulator_size=32,
        )  # fmt: skip
    with pytest.raises(ValueError, match=r"Need dilations of at least 1 .* HConv2d, got \[0, 1\]"):
        tape.gradient(result, images)
