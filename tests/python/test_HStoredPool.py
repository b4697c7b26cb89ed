# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""HStoredPool and HStoredMean through the runtime: bits against the oracle, shapes, refusals."""

from __future__ import annotations

import re

import numpy as np
import oracle
import pytest
import registration
import stored
import support
import tensorflow as tf

from bitfold import ops, raw_ops

REGISTRATION = {
    "HStoredPool": registration.Registration(
        inputs=["data: T"],
        attributes=[
            "T: {int8, int16}",
            'pooling: {"max", "average"}',
            "window_height: int",
            "window_width: int",
            "stride_height: int",
            "stride_width: int",
            'padding: {"SAME", "VALID"}',
            "minimum: int",
            "maximum: int",
        ],
        kernels={("CPU", ""): "HStoredPoolOp<CPUDevice>"},
    ),
    "HStoredMean": registration.Registration(
        inputs=["data: T"],
        attributes=[
            "T: {int8, int16}",
            "data_scale: float",
            "data_zero_point: int",
            "output_scale: float",
            "output_zero_point: int",
        ],
        kernels={("CPU", ""): "HStoredMeanOp<CPUDevice>"},
    ),
}
WRAPPERS = {"stored_pool": None, "stored_mean": None}

POOLINGS = ("max", "average")
TYPES = (np.int8, np.int16)


def raw_pool(data, **changes):
    """HStoredPool; what is left out is as plain as can be."""
    limits = np.iinfo(np.asarray(data).dtype)
    attributes = dict.fromkeys(("window_height", "window_width"), 2)
    attributes |= dict.fromkeys(("stride_height", "stride_width"), 1)
    attributes |= {"pooling": "max", "padding": "VALID"}
    attributes |= {"minimum": limits.min, "maximum": limits.max}
    return raw_ops.h_stored_pool(data=data, **attributes | changes)


def raw_mean(data, **changes):
    """HStoredMean."""
    attributes = {"data_scale": 1.0, "data_zero_point": 0}
    attributes |= {"output_scale": 1.0, "output_zero_point": 0}
    return raw_ops.h_stored_mean(data=data, **attributes | changes)


def check_pool(data, **attributes):
    """Run HStoredPool and the oracle on the same data and compare bits."""
    actual = raw_pool(data, **attributes).numpy()
    names = ("window_height", "window_width", "stride_height", "stride_width")
    settings = [attributes["pooling"] == "average", *(attributes[name] for name in names)]
    settings += [attributes["padding"] == "SAME", attributes["minimum"], attributes["maximum"]]
    wide, shape, settings = stored.words(data, data.shape, settings)
    out = np.zeros(actual.shape, np.int32)
    reference = oracle.library().reference_stored_pool
    reference(wide.ctypes.data, shape.ctypes.data, settings.ctypes.data, out.ctypes.data)
    support.assert_bits(actual, out.astype(data.dtype), **attributes)


def check_mean(data, scales, points):
    """Run HStoredMean and the oracle on the same data and compare bits."""
    actual = raw_mean(
        data, data_scale=float(scales[0]), data_zero_point=points[0],
        output_scale=float(scales[1]), output_zero_point=points[1],
    ).numpy()  # fmt: skip
    wide, settings = stored.words(data, [data.dtype.itemsize * 8, *points])
    shape, scales = np.array(data.shape, np.int64), np.float32(scales)
    out = np.zeros(actual.shape, np.int32)
    oracle.library().reference_stored_mean(
        wide.ctypes.data, shape.ctypes.data, scales.ctypes.data, settings.ctypes.data,
        out.ctypes.data,
    )  # fmt: skip
    support.assert_bits(actual, out.astype(data.dtype), scales=scales, points=points)


# ---- Pools -------------------------------------------------------------------------------------


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize("pooling", POOLINGS)
def test_random_pools(pooling, dtype):
    """Windows of every kind."""
    rng = np.random.default_rng([POOLINGS.index(pooling), dtype().itemsize])
    limits = np.iinfo(dtype)
    for _ in range(60):
        shape = (rng.integers(1, 3), *rng.integers(1, 12, 2), rng.choice([1, 3, 4, 16, 40, 65]))
        padding = ("SAME", "VALID")[rng.integers(2)]
        most = (15, 15) if padding == "SAME" else shape[1:3]
        window = [int(rng.integers(1, n + 1)) for n in most]
        strides = rng.integers(1, 5, 2).tolist()
        minimum, maximum = np.sort(rng.integers(limits.min, limits.max, 2, endpoint=True)).tolist()
        bounds = (minimum, maximum) if rng.integers(2) else (limits.min, limits.max)
        check_pool(
            stored.draw(rng, dtype, shape),
            pooling=pooling, padding=padding, window_height=window[0], window_width=window[1],
            stride_height=strides[0], stride_width=strides[1], minimum=bounds[0],
            maximum=bounds[1],
        )  # fmt: skip


@pytest.mark.parametrize("pooling", POOLINGS)
def test_large_pools(pooling):
    """So many windows that the pool's threads share them."""
    data = stored.draw(np.random.default_rng(5), np.int8, (2, 40, 40, 70))
    check_pool(
        data, pooling=pooling, padding="SAME", window_height=3, window_width=3, stride_height=1,
        stride_width=2, minimum=-100, maximum=90,
    )  # fmt: skip


@pytest.mark.parametrize("shape", [[0, 4, 4, 3], [2, 4, 4, 0], [2, 0, 4, 3]])
def test_pools_of_no_elements(shape):
    """Nothing is computed; no pixel gives no window."""
    result = raw_pool(np.zeros(shape, np.int8), padding="SAME")
    assert result.shape == shape


IMAGES = np.arange(32, dtype=np.int8).reshape(1, 4, 4, 2)


@pytest.mark.parametrize(
    ("changes", "text"),
    [
        ({"data": IMAGES[0]}, "Need data of rank 4, got shape [4,4,2]"),
        ({"window_height": 0}, "Need a window_height of at least 1, got 0"),
        ({"stride_width": -1}, "Need a stride_width of at least 1, got -1"),
        ({"window_height": 5}, "Need a window of at most the 4 rows of the data, got one of 5"),
        (
            {"window_width": 2**31 - 1},
            "Need a window of at most the 4 columns of the data, got one of 2147483647",
        ),
        (
            {"maximum": 128},
            "Need -128 <= minimum <= maximum <= 127, got a minimum of -128 and a maximum of 128",
        ),
        (
            {"data": np.zeros([1, 256, 256, 1], np.int16), "padding": "SAME", "pooling": "average",
             "window_height": 2**31 - 1, "window_width": 2**31 - 1},
            "Need windows of at most 65535 pixels, whose sums have 32 bits, got 65536",
        ),
    ],
    ids=str,
)  # fmt: skip
def test_refused_pools(changes, text):
    """What is needed and what came, before anything is computed."""
    with pytest.raises(tf.errors.InvalidArgumentError, match=re.escape(text)):
        raw_pool(**{"data": IMAGES, **changes})


def test_windows_beyond_the_image():
    """Windows and strides of 31 bits."""
    far = dict.fromkeys(("window_height", "window_width", "stride_height"), 2**31 - 1)
    result = raw_pool(IMAGES, padding="SAME", **far).numpy()
    support.assert_bits(result, np.tile(np.int8([30, 31]), (1, 1, 4, 1)))


@pytest.mark.parametrize("padding", ["SAME", "VALID"])
def test_shapes_of_pools(padding):
    """As far as they are known."""
    keywords = {"pooling": "max", "window": [2, 3], "strides": [2, 1], "padding": padding}
    rows, columns = (3, 7) if padding == "SAME" else (2, 5)
    for shape, wanted in (
        ([None, 5, 7, 2], [None, rows, columns, 2]),
        ([3, None, 7, None], [3, None, columns, None]),
        (None, [None, None, None, None]),
    ):
        with tf.Graph().as_default():
            data = tf.compat.v1.placeholder(tf.int8, shape)
            assert ops.stored_pool(data, **keywords).shape.as_list() == wanted


def test_shapes_of_pools_that_fit_nowhere():
    """Refused where the shapes are known."""
    with tf.Graph().as_default():
        data = tf.compat.v1.placeholder(tf.int8, [None, 2, 2, 1])
        with pytest.raises(ValueError, match="Need a window of at most the 2 rows"):
            ops.stored_pool(data, pooling="max", window=3, strides=1, padding="VALID")


# ---- Means -------------------------------------------------------------------------------------


@pytest.mark.parametrize("dtype", TYPES)
def test_random_means(dtype):
    """Any sizes; scales alike, and not."""
    rng = np.random.default_rng(dtype().itemsize)
    for _ in range(60):
        shape = (rng.integers(1, 4), rng.integers(1, 300), rng.choice([1, 1, 2, 5, 31, 32, 70]))
        scales = np.ldexp(rng.uniform(0.5, 1, 2), rng.integers(-3, 3, 2)).astype(np.float32)
        if rng.integers(2):
            scales[1] = scales[0]
        points = rng.integers(-128, 128, 2).tolist() if dtype == np.int8 else [0, 0]
        check_mean(stored.draw(rng, dtype, shape), scales, points)


def test_large_means():
    """So many that the pool's threads share them."""
    data = stored.draw(np.random.default_rng(5), np.int8, (500, 49, 48))
    check_mean(data, (0.3, 0.2), (-5, 7))


@pytest.mark.parametrize("shape", [[0, 4, 3], [2, 4, 0]])
def test_means_of_no_elements(shape):
    """Nothing is computed."""
    assert raw_mean(np.zeros(shape, np.int8)).shape == [shape[0], shape[2]]


ROWS = np.arange(24, dtype=np.int8).reshape(2, 4, 3)


@pytest.mark.parametrize(
    ("changes", "text"),
    [
        ({"data": ROWS[0]}, "Need data of rank 3, got shape [4,3]"),
        ({"data": ROWS[:, :0]}, "Need an element to take the mean of, got shape [2,0,3]"),
        ({"data_scale": np.nan}, "Need a finite data_scale above 0, got nan"),
        ({"output_zero_point": 200}, "Need output_zero_point in [-128, 127] for int8, got 200"),
        (
            {"data_scale": 2.0**24},
            "Need sums of 32 bits in the output's scale, got those of 4 elements of scale 16777216 "
            "to 1",
        ),
        (
            {"data_scale": 3e38, "output_scale": 1e-45},
            "Need sums of 32 bits in the output's scale, got those of 4 elements of scale "
            "3.00000001e+38 to 1.40129846e-45",
        ),
    ],
    ids=str,
)
def test_refused_means(changes, text):
    """What is needed and what came, before anything is computed."""
    with pytest.raises(tf.errors.InvalidArgumentError, match=re.escape(text)):
        raw_mean(**{"data": ROWS, **changes})


def test_shapes_of_means():
    """As far as they are known."""
    for shape, wanted in (([None, 5, 7], [None, 7]), (None, [None, None])):
        with tf.Graph().as_default():
            data = tf.compat.v1.placeholder(tf.int8, shape)
            result = ops.stored_mean(data, data_scale=1.0, output_scale=1.0)
        assert result.shape.as_list() == wanted


# ---- The wrappers ------------------------------------------------------------------------------

POOL = {"pooling": "average", "window": 2, "strides": 1, "padding": "valid"}
POOL_SETTINGS = {
    "pooling": ("max", {"pooling": "max"}),
    "window": ([3, 1], {"window_height": 3, "window_width": 1}),
    "strides": ([2, 3], {"stride_height": 2, "stride_width": 3}),
    "padding": ("same", {"padding": "SAME"}),
    "minimum": (20, {"minimum": 20}),
    "maximum": (12, {"maximum": 12}),
}
MEAN = {"data_scale": 0.5, "output_scale": 0.25}
MEAN_SETTINGS = {
    "data_scale": 0.3, "data_zero_point": 4, "output_scale": 0.7, "output_zero_point": -9
}  # fmt: skip


@pytest.mark.parametrize("name", [None, *POOL_SETTINGS])
def test_every_setting_of_pools_reaches_its_attribute(name):
    """The wrapper's keywords are the op's attributes."""
    value, changes = POOL_SETTINGS.get(name, (None, {}))
    settings = POOL | ({} if name is None else {name: value})
    expected = raw_pool(IMAGES, **{"pooling": "average"} | changes).numpy()
    for form in (lambda x: x, tf.constant, tf.Variable):
        support.assert_bits(ops.stored_pool(form(IMAGES), **settings), expected)


@pytest.mark.parametrize("name", [None, *MEAN_SETTINGS])
def test_every_setting_of_means_reaches_its_attribute(name):
    """The wrapper's keywords are the op's attributes."""
    settings = MEAN | ({} if name is None else {name: MEAN_SETTINGS[name]})
    expected = raw_mean(ROWS, **settings).numpy()
    support.assert_bits(ops.stored_mean(ROWS, **settings), expected)


@pytest.mark.parametrize(
    ("arguments", "error", "text"),
    [
        ({"data": IMAGES.astype(np.uint8)}, TypeError, "data must be int8 or int16, got uint8"),
        ({"pooling": "min"}, ValueError, "pooling must be one of max, average, got 'min'"),
        ({"padding": "full"}, ValueError, 'padding must be "SAME" or "VALID", got \'full\''),
        ({"window": [1, 2, 3]}, ValueError, "window must be one number, [height, width] or"),
    ],
    ids=str,
)
def test_the_wrapper_of_pools_refuses(arguments, error, text):
    """What it can see."""
    with pytest.raises(error, match=re.escape(text)):
        ops.stored_pool(**{"data": IMAGES, **POOL, **arguments})


def test_the_wrapper_of_means_refuses():
    """Other types."""
    with pytest.raises(TypeError, match="data must be int8 or int16, got int32"):
        ops.stored_mean(ROWS.astype(np.int32), **MEAN)


def test_in_functions_and_models(tmp_path):
    """Traced, saved, and as a Keras layer."""
    stored.check_in_models(lambda x: ops.stored_pool(x, **POOL), IMAGES, tmp_path / "pool")
    stored.check_in_models(lambda x: ops.stored_mean(x, **MEAN), ROWS, tmp_path / "mean")
