# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The ops' GPU kernels through the runtime: checks, buffers, launches and copies; and placement."""

from __future__ import annotations

import numpy as np
import pytest

TYPES = (np.float32, np.int32)


def _draw(shape, dtype, most=60, seed=0) -> np.ndarray:
    return np.random.default_rng([seed, *shape]).integers(-most, most + 1, shape).astype(dtype)


def _additions(ops, dtype, **attributes):
    """Yield a call of each addition."""
    value, other = _draw((2, 5, 7, 3), dtype, 3000), _draw((2, 5, 7, 3), dtype, 3000, 1)
    bias, second = _draw((3,), dtype, 3000), _draw((3,), dtype, 3000, 1)
    yield lambda: ops.add(value, other, **attributes)
    yield lambda: ops.add(value[0, 0], other[0, 0], **attributes)
    yield lambda: ops.bias_add(value, bias, **attributes)
    yield lambda: ops.decomposed_bias_add(value, bias, second, **attributes)
    weights = _draw((6,), dtype, 9)
    yield lambda: ops.weighted_add(value, other, weights, **attributes)


def _both(gpu, call) -> tuple[np.ndarray, np.ndarray]:
    """Return what a call gives on the CPU and on the GPU, where it must have run."""
    results = []
    gpu.tf.config.set_soft_device_placement(False)
    for device in ("CPU:0", "GPU:0"):
        with gpu.tf.device(device):
            result = call()
        assert result.device.endswith(device)
        results.append(result.numpy())
    return results[0], results[1]


def _same_bits(got: np.ndarray, expected: np.ndarray) -> None:
    assert got.dtype == expected.dtype
    np.testing.assert_array_equal(got.view(np.int32), expected.view(np.int32))


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize("size", [24, 12, 8])
@pytest.mark.parametrize("shift", [0, 2, 3])
def test_additions(gpu, dtype, size, shift):
    """Each on the GPU as on the CPU."""
    attributes = {"accumulator_size": size, "mult_shift": shift}
    calls = list(_additions(gpu.bitfold.ops, dtype, **attributes))
    assert len(calls) == 5
    for call in calls:
        expected, got = _both(gpu, call)
        _same_bits(got, expected)


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize("size", [24, 14])
@pytest.mark.parametrize("shift", [0, 4, 5])
@pytest.mark.parametrize("padding", ["SAME", "VALID"])
def test_convolutions(gpu, dtype, size, shift, padding):
    """Several images and tiles, with and without an elementwise value."""
    image, filters = _draw((2, 7, 6, 5), dtype), _draw((3, 3, 5, 18), dtype)
    attributes = {"accumulator_size": size, "mult_shift": shift, "padding": padding}
    expected, got = _both(gpu, lambda: gpu.bitfold.ops.conv2d(image, filters, **attributes))
    _same_bits(got, expected)


@pytest.mark.parametrize("name", ["add", "conv2d"])
def test_half_precision(gpu, name):
    """Sums in half precision."""
    ops = gpu.bitfold.ops
    image, filters = _draw((1, 6, 5, 4), np.float32), _draw((3, 3, 4, 3), np.float32)
    call = {
        "add": lambda: ops.add(image, image, use_fp16_acc=True, mult_shift=3),
        "conv2d": lambda: ops.conv2d(image, filters, use_fp16_acc=True, accumulator_size=24),
    }[name]
    expected, got = _both(gpu, call)
    _same_bits(got, expected)


def test_printed_lines(gpu, capfd):
    """The device's lines are those of the host, in another order."""
    value = np.array([[8388606.0, 1.0, -8388608.0]], np.float32)

    def printed(device: str) -> list[str]:
        capfd.readouterr()
        with gpu.tf.device(device):
            gpu.bitfold.ops.add(value, value, accumulator_size=24)
        gpu.bitfold.flush_device_lines()
        return sorted(line for line in capfd.readouterr().out.splitlines() if "WARNING" in line)

    assert printed("GPU:0") == printed("CPU:0")
    assert len(printed("GPU:0")) == 2


def test_in_a_function_nothing_is_copied_between_ops(gpu):
    """What one op leaves on the GPU the next one reads there."""
    tf, ops = gpu.tf, gpu.bitfold.ops
    image, filters = _draw((1, 6, 5, 4), np.float32), _draw((3, 3, 4, 4), np.float32)
    tf.config.set_soft_device_placement(True)
    with tf.device("GPU:0"):
        x, f = tf.constant(image), tf.constant(filters)

        @tf.function
        def model(x, f):
            y = ops.conv2d(x, f, accumulator_size=24)
            return ops.add(y, y)

        model(x, f)
        before = gpu.copies()
        result = model(x, f)
        after = gpu.copies()
    assert result.device.endswith("GPU:0")
    assert after == before


# ---- What only the GPU refuses -------------------------------------------------------------------


def _convolve(gpu, image, filters, dilation=1):
    return gpu.bitfold.raw_ops.h_conv2d(
        input=image,
        filter=filters,
        elementwise=np.zeros((1,), image.dtype),
        mult_shift=np.int8(0),
        strides=[1, 1, 1, 1],
        dilations=[1, dilation, dilation, 1],
        padding="SAME",
        accumulator_size=24,
    )


def _refusal(gpu, *arguments) -> str:
    gpu.tf.config.set_soft_device_placement(False)
    with gpu.tf.device("GPU:0"), pytest.raises(gpu.tf.errors.InvalidArgumentError) as caught:
        _convolve(gpu, *arguments)
    return str(caught.value)


def test_dilations_that_leave_no_position_are_refused(gpu):
    """Which the CPU computes."""
    image, filters = np.ones((1, 3, 3, 1), np.float32), np.ones((3, 3, 1, 1), np.float32)
    text = "at least 1 position of the filter along the height, got -1 from an input of 3"
    assert text in _refusal(gpu, image, filters, 3)


def test_too_many_channels_are_refused(gpu):
    """For which a grid has not enough rows."""
    image, filters = np.ones((1, 1, 1, 1), np.int32), np.ones((1, 1, 1, 1048561), np.int32)
    assert "Need at most 1048560 output channels on a GPU, got 1048561" in _refusal(
        gpu, image, filters
    )


def test_what_is_not_unfolded_is_zero(gpu):
    """Where taps lie apart SAME keeps more outputs than are unfolded; memory here is never zero."""
    gpu.tf.config.set_soft_device_placement(False)
    image, filters = np.ones((1, 7, 7, 1), np.float32), np.ones((3, 3, 1, 1), np.float32)
    with gpu.tf.device("GPU:0"):
        result = _convolve(gpu, image, filters, 2).numpy()
    # 5 positions along an axis, of which one at either end has a tap outside of the image.
    assert result.sum() == (5 * 3 - 2) ** 2


# ---- Placement -----------------------------------------------------------------------------------


@pytest.fixture(scope="module")
def network(gpu):
    """A network of three layers, made on the CPU."""
    import keras
    from keras import layers

    keras.utils.set_random_seed(1)
    with gpu.tf.device("CPU:0"):
        image = keras.Input((9, 9, 3), name="image")
        x = layers.Conv2D(8, 3, strides=2, padding="same", activation="relu")(image)
        x = layers.Add()([x, layers.DepthwiseConv2D(3, padding="same")(x)])
        model = keras.Model(image, layers.Dense(5)(layers.Flatten()(x)))
        images = np.random.default_rng(1).normal(size=(40, 9, 9, 3)).astype(np.float32)
        return gpu.bitfold.Network.from_keras(model, images)


@pytest.mark.parametrize("is_soft", [True, False])
@pytest.mark.parametrize("device", [None, "CPU:0", "GPU:0"])
@pytest.mark.parametrize("dtype", [np.int8, np.float32])
def test_a_network_runs_on_the_cpu(gpu, network, is_soft, device, dtype):
    """Wherever it is called, placement soft or not: nothing is copied, the result is there."""
    stored = _draw((7, 9, 9, 3), np.int8, 127).astype(dtype)
    with gpu.tf.device("CPU:0"):
        expected = network(stored).numpy()
    gpu.tf.config.set_soft_device_placement(is_soft)
    with gpu.tf.device(device):
        before = gpu.copies()
        result = network(stored)
        after = gpu.copies()
    assert after == before
    assert result.backing_device.endswith("CPU:0")
    np.testing.assert_array_equal(result, expected)


def test_a_network_within_a_function_on_the_gpu(gpu, network):
    """It stays on the CPU, between a copy to it and one back."""
    tf = gpu.tf
    stored = _draw((2, 9, 9, 3), np.int8, 127)
    expected = network(stored).numpy()

    @tf.function
    def on_gpu(x):
        with tf.device("GPU:0"):
            return tf.identity(network(tf.identity(x)))

    for soft in (True, False):
        tf.config.set_soft_device_placement(soft)
        on_gpu(stored)
        before = gpu.copies()
        result = on_gpu(stored)
        after = gpu.copies()
        np.testing.assert_array_equal(result, expected)
        assert (after[0] - before[0], after[1] - before[1]) <= (2, 1)


def test_a_layer_without_a_kernel_for_the_gpu(gpu):
    """Soft placement runs it on the CPU; without, the runtime names the op."""
    tf, ops = gpu.tf, gpu.bitfold.ops
    a = _draw((4, 6), np.float32)
    tf.config.set_soft_device_placement(True)
    expected = ops.matmul(a, a.T)
    with tf.device("GPU:0"):
        result = ops.matmul(a, a.T)
    assert result.device.endswith("CPU:0")
    np.testing.assert_array_equal(result, expected)
    tf.config.set_soft_device_placement(False)
    with (
        tf.device("GPU:0"),
        pytest.raises(tf.errors.InvalidArgumentError, match="Could not satisfy device spec"),
    ):
        ops.matmul(a, a.T)


@pytest.fixture(autouse=True)
def _placement(request):
    """Placement is soft again after each test."""
    yield
    if "gpu" in request.fixturenames:
        request.getfixturevalue("gpu").tf.config.set_soft_device_placement(True)
