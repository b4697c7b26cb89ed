# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""HPreparedConvolution through the runtime: bits, lines, refusals; layers that are kept."""

from __future__ import annotations

import re
import threading

import hypothesis
import hypothesis.strategies as st
import keras
import numpy as np
import pytest
import registration
import support
import tensorflow as tf
from stored import ROUNDINGS, requantised

from bitfold import ops, raw_ops

_TYPES = {"int8": "int8_t", "int16": "int16_t"}
REGISTRATION = {
    "HPreparedConvolution": registration.Registration(
        inputs=["input: T", "filter: int8", "bias: T_bias", "multipliers: float64"],
        attributes=[
            "T: {int8, int16}",
            "T_out: {int8, int16}",
            "T_bias: {int32, int64}",
            "strides: list(int)",
            "dilations: list(int)",
            'padding: {"SAME", "VALID"}',
            "zeros: list(int)",
            "is_depthwise: bool",
            "input_zero_point: int",
            "accumulator_size: int",
            "mult_shift: int",
            "use_fp16_acc: bool",
            'rounding: {"two_roundings", "short_multiplier", "one_rounding"}',
            "zero_point: int",
            "minimum: int",
            "maximum: int",
            "has_constant_weights: bool",
        ],
        output="output: T_out",
        kernels={
            ("CPU", f"{stored} {out}"): f"HPreparedConvolutionOp<{_TYPES[stored]}, {_TYPES[out]}>"
            for stored in _TYPES
            for out in _TYPES
        },
    )
}
WRAPPERS = {"prepared_conv2d": None}

STORED = (np.int8, np.int16)
DEFAULTS = {
    "strides": (1, 1),
    "dilations": (1, 1),
    "padding": "VALID",
    "zeros": (0, 0, 0, 0),
    "is_depthwise": False,
    "input_zero_point": 0,
    "accumulator_size": 32,
    "mult_shift": 0,
    "use_fp16_acc": False,
    "rounding": "two_roundings",
    "zero_point": 0,
    "has_constant_weights": False,
}


def raw(input, filter, bias, multipliers, *, dtype=np.int8, **attributes):
    """HPreparedConvolution; the bounds are the type's by default."""
    limits = np.iinfo(dtype)
    bounds = {"minimum": limits.min, "maximum": limits.max}
    return raw_ops.h_prepared_convolution(
        input=input,
        filter=filter,
        bias=np.zeros(0, np.int32) if bias is None else bias,
        multipliers=multipliers,
        T_out=tf.as_dtype(dtype),
        **{
            key: list(value) if isinstance(value, tuple) else value
            for key, value in (DEFAULTS | bounds | attributes).items()
        },
    )


def surrounded(image, zeros, zero_point):
    """Stored integers less their zero point, zeros around them."""
    top, bottom, left, right = zeros
    return np.pad(
        image.astype(np.int32) - zero_point, ((0, 0), (top, bottom), (left, right), (0, 0))
    )


def expected(reference, input, filter, bias, multipliers, *, dtype=np.int8, **attributes):
    """The oracle's convolution, bias and requantisation, with the lines, image by image."""
    settings = DEFAULTS | attributes
    half = settings["use_fp16_acc"]
    shift = settings["mult_shift"]
    datapath = {
        "accumulator_size": settings["accumulator_size"],
        "mult_shift": 1 << shift if half and shift else shift,
        "use_fp16_acc": half,
    }
    kind = np.float32 if half else np.int32
    data = surrounded(input, settings["zeros"], settings["input_zero_point"]).astype(kind)
    found, text = [], ""
    for image in data:
        sums, lines = reference.convolve(
            image[None],
            filter.astype(kind),
            strides=settings["strides"],
            dilations=settings["dilations"],
            padding=settings["padding"],
            is_depthwise=settings["is_depthwise"],
            **datapath,
        )
        text += lines
        if bias is not None:
            sums, lines = reference.bias_add(sums, bias.astype(kind), **datapath)
            text += lines
        found.append(sums)
    return requantised(np.concatenate(found), multipliers, settings, dtype), text


@pytest.fixture(scope="session")
def check(reference, printed, assert_bits, assert_lines):
    """Run the op and the oracle on the same data and compare bits and printed lines."""

    def run(input, filter, bias, multipliers, **settings):
        want, lines = expected(reference, input, filter, bias, multipliers, **settings)
        with printed() as text:
            actual = raw(input, filter, bias, multipliers, **settings).numpy()
        assert_bits(actual, want, **settings)
        assert_lines(text.out, lines, ordered=input.shape[0] < 2, **settings)
        return actual

    return run


def draw_stored(rng, dtype, shape):
    """Return integers of a type, its ends among them."""
    limits = np.iinfo(dtype)
    values = rng.integers(limits.min, limits.max, shape, dtype, endpoint=True)
    ends = rng.choice(np.array([limits.min, limits.max], dtype), shape)
    return np.where(rng.integers(0, 16, shape) == 0, ends, values).astype(dtype)


def draw(rng, stored=np.int8, dtype=np.int8):
    """Return the tensors and the attributes of a call."""
    rows, columns = rng.integers(1, 9, 2)
    taps, strides, dilations = rng.integers(1, 4, (3, 2))
    zeros = rng.integers(0, 4, 4)
    for axis, size in enumerate((rows, columns)):
        needed = (taps[axis] - 1) * dilations[axis] + 1
        zeros[2 * axis + 1] += max(0, needed - size - zeros[2 * axis : 2 * axis + 2].sum())
    channels = int(rng.integers(1, 20))
    depthwise = rng.integers(0, 3) == 0
    outputs = int(rng.integers(1, channels + 1 if depthwise else 20))
    half = bool(rng.integers(0, 4) == 0)
    shift = int(rng.choice([0, 0, 1, 3, 6 if half else 24]))
    rounding = str(rng.choice(ROUNDINGS))
    limits = np.iinfo(dtype)
    minimum, maximum = (int(x) for x in np.sort(rng.integers(limits.min, limits.max + 1, 2)))
    bits = limits.bits - rng.integers(6, 24, outputs if rng.integers(2) else 1) - shift
    settings = {
        "strides": tuple(map(int, strides)),
        "dilations": tuple(map(int, dilations)),
        "padding": str(rng.choice(["SAME", "VALID"])),
        "zeros": tuple(map(int, zeros)),
        "is_depthwise": bool(depthwise),
        "input_zero_point": int(draw_stored(rng, stored, [])),
        "accumulator_size": int(rng.choice([32, 24, 20, rng.integers(1, 33)])),
        "mult_shift": shift,
        "use_fp16_acc": half,
        "rounding": rounding,
        "zero_point": int(draw_stored(rng, dtype, [])),
        "dtype": dtype,
    }
    if rng.integers(2):
        settings |= {"minimum": minimum, "maximum": maximum}
    images = draw_stored(rng, stored, (rng.integers(1, 4), rows, columns, channels))
    filter = draw_stored(rng, np.int8, (*taps, 1 if depthwise else channels, outputs))
    bias = rng.integers(-(2**31), 2**31, outputs) >> rng.integers(0, 31, outputs)
    multipliers = np.ldexp(rng.uniform(0.5, 1, bits.shape), np.clip(bits, -31, 7 - shift))
    return (
        images,
        filter,
        bias.astype(np.int32) if rng.integers(3) else None,
        multipliers,
    ), settings


# ---- Against the oracle ------------------------------------------------------------------------


@pytest.mark.parametrize("dtype", STORED)
@pytest.mark.parametrize("stored", STORED)
def test_random(check, stored, dtype):
    """Any geometry, any arithmetic."""
    rng = np.random.default_rng([stored().itemsize, dtype().itemsize])
    for _ in range(40):
        tensors, settings = draw(rng, stored, dtype)
        check(*tensors, **settings)


@hypothesis.given(seed=st.integers(0, 2**32 - 1))
def test_property(check, seed):
    """The same, whatever the seed."""
    tensors, settings = draw(np.random.default_rng(seed))
    check(*tensors, **settings)


@pytest.mark.parametrize("half", [False, True])
@pytest.mark.parametrize("taps", [1, 3])
def test_large_images(check, half, taps):
    """So many outputs that the pool's threads share them."""
    rng = np.random.default_rng(taps)
    side = 1 if taps == 1 else 0
    check(
        draw_stored(rng, np.int8, (2, 30, 28, 24)),
        draw_stored(rng, np.int8, (taps, taps, 24, 40)),
        rng.integers(-9999, 9999, 40).astype(np.int32),
        rng.uniform(1e-4, 1e-3, 40),
        zeros=(side, 1, side, 1),
        input_zero_point=-5,
        use_fp16_acc=half,
    )


@pytest.mark.parametrize("stored", STORED)
@pytest.mark.parametrize("depthwise", [False, True])
def test_no_images(stored, depthwise):
    """A batch of 0 gives a batch of 0 and is checked as any other."""
    filter = np.ones([2, 2, 1 if depthwise else 3, 3], np.int8)
    images = np.zeros([0, 4, 5, 3], stored)
    settings = {"is_depthwise": depthwise, "dtype": np.int16}
    result = raw(images, filter, None, [0.5], **settings)
    assert result.shape == (0, 3, 4, 3)
    assert result.dtype == tf.int16
    with pytest.raises(tf.errors.InvalidArgumentError, match="Need 1 multiplier"):
        raw(images, filter, None, np.zeros([0]), **settings)


# ---- Refusals ----------------------------------------------------------------------------------

IMAGE = np.arange(48, dtype=np.int8).reshape(1, 4, 4, 3)
FILTER = np.arange(-13, 14, dtype=np.int8).reshape(3, 3, 3, 1).repeat(2, -1)
BIAS = np.array([100, -100], np.int32)
FACTORS = np.array([0.01, 0.002])
LARGEST = 1 << 28


@pytest.mark.parametrize(
    ("changes", "text"),
    [
        ({"input": IMAGE[0]}, "Need input and filter of rank 4, got shapes [4,4,3] and [3,3,3,2]"),
        ({"filter": FILTER[0]}, "Need input and filter of rank 4, got shapes"),
        ({"input": np.int8(1)}, "Need input and filter of rank 4, got shapes []"),
        (
            {"filter": FILTER[:, :, :2]},
            "Need a filter of height x width x input channels x output channels, got shapes "
            "[3,3,2,2] and [1,4,4,3]",
        ),
        (
            {"filter": FILTER[..., :0], "bias": None},
            "Need a filter of height x width x input channels x output channels, got shapes "
            "[3,3,3,0]",
        ),
        (
            {"is_depthwise": True},
            "Need a filter of height x width x 1 x at most the input's channels, got shapes "
            "[3,3,3,2] and [1,4,4,3]",
        ),
        (
            {"is_depthwise": True, "filter": np.ones([3, 3, 1, 4], np.int8)},
            "Need a filter of height x width x 1 x at most the input's channels, got shapes "
            "[3,3,1,4] and [1,4,4,3]",
        ),
        (
            {"input": IMAGE[..., :0], "filter": FILTER[:, :, :0]},
            "Need a filter of height x width x input channels x output channels",
        ),
        ({"input": IMAGE[:, :0]}, "Need an input and a filter of a height from 1 to"),
        ({"filter": FILTER[:, :0]}, "Need an input and a filter of a width from 1 to"),
        ({"input": IMAGE[:, :2]}, "Need a padded height of at least the filter's 3, got 2"),
        ({"dilations": (1, 2)}, "Need a padded width of at least the filter's 5, got 4"),
        ({"bias": BIAS[:1]}, "Need a bias of 0 or 2 elements, got shape [1]"),
        ({"bias": BIAS[None]}, "Need a bias of 0 or 2 elements, got shape [1,2]"),
        ({"bias": np.int32(1)}, "Need a bias of 0 or 2 elements, got shape []"),
        ({"multipliers": np.ones([3])}, "Need 1 multiplier or one for each of the 2 channels"),
        ({"multipliers": np.ones([1, 2])}, "Need multipliers of rank 1, got shape [1,2]"),
        ({"multipliers": [1, np.nan]}, "finite and not negative, got nan in channel 1"),
        ({"multipliers": [-1.0]}, "finite and not negative, got -1 in channel 0"),
        ({"multipliers": [np.inf]}, "finite and not negative, got inf in channel 0"),
        (
            {"multipliers": [2.0**30], "mult_shift": 1},
            "Need exponents from -31 to 31 for two_roundings, got 32 (multiplier 1073741824 with "
            "a shift of 1) in channel 0",
        ),
        (
            {"multipliers": [128.0], "rounding": "short_multiplier"},
            "Need exponents from -31 to 7 for short_multiplier, got 8",
        ),
        ({"strides": (1, 1, 1)}, "Need 2 strides from 1 to 268435456, got [1, 1, 1]"),
        ({"strides": (0, 1)}, "Need 2 strides from 1 to 268435456, got [0, 1]"),
        ({"dilations": ()}, "Need 2 dilations from 1 to 268435456, got []"),
        ({"dilations": (1, -1)}, "Need 2 dilations from 1 to 268435456, got [1, -1]"),
        ({"zeros": (0, 0)}, "Need 4 zeros from 0 to 268435456, got [0, 0]"),
        ({"zeros": (0, -1, 0, 0)}, "Need 4 zeros from 0 to 268435456, got [0, -1, 0, 0]"),
        ({"zeros": (0, 0, 0, LARGEST + 1)}, "Need 4 zeros from 0 to 268435456, got"),
        ({"zeros": (LARGEST, LARGEST, 0, 0)}, "fewer than 2^31 elements, padded and as outputs"),
        ({"zeros": (30000,) * 4, "strides": (99999, 99999)}, "fewer than 2^31 elements, padded"),
        ({"input_zero_point": 128}, "Need an input_zero_point in [-128, 127], got 128"),
        ({"accumulator_size": -1}, "Need accumulator_size >= 0, got -1"),
        ({"accumulator_size": 33}, "accumulator_size"),
        ({"mult_shift": -1}, "Need a mult_shift in [0, 31], got -1"),
        ({"mult_shift": 32}, "Need a mult_shift in [0, 31], got 32"),
        (
            {"mult_shift": 7, "use_fp16_acc": True},
            "Need a mult_shift in [0, 6] in half precision, got 7",
        ),
        ({"zero_point": 128}, "Need a zero_point in [-128, 127], got 128"),
        (
            {"minimum": 2, "maximum": 1},
            "Need -128 <= minimum <= maximum <= 127, got a minimum of 2",
        ),
        ({"maximum": 128}, "Need -128 <= minimum <= maximum <= 127"),
    ],
    ids=str,
)
def test_refusals(changes, text):
    """What is needed and what came, before anything is computed."""
    arguments = {"input": IMAGE, "filter": FILTER, "bias": BIAS, "multipliers": FACTORS}
    with pytest.raises(tf.errors.InvalidArgumentError, match=re.escape(text)):
        raw(**(arguments | changes))


def test_a_refused_call_loses_nothing():
    """The layer that was made before is used again, or made anew."""
    want = raw(IMAGE, FILTER, BIAS, FACTORS).numpy()
    with pytest.raises(tf.errors.InvalidArgumentError):
        raw(IMAGE, FILTER, BIAS[:1], FACTORS)
    support.assert_bits(raw(IMAGE, FILTER, BIAS, FACTORS), want)


@pytest.mark.parametrize(
    ("shapes", "attributes", "result"),
    [
        (([2, 9, 8, 3], [3, 2, 3, 5], [5], [1]), {}, [2, 7, 7, 5]),
        (([None, 9, 8, 3], [3, 2, 3, 5], [0], [5]), {"strides": (2, 3)}, [None, 4, 3, 5]),
        (([None, None, 8, 3], [3, 2, 3, 5], None, None), {}, [None, None, 7, 5]),
        (([2, 9, 8, 3], [3, None, 3, None], [5], [1]), {}, [2, 7, None, None]),
        (([2, 9, 8, 3], [3, 3, 3, 5], [5], [1]), {"zeros": (1, 2, 3, 4)}, [2, 10, 13, 5]),
        (([2, 9, 8, 3], [3, 3, 3, 5], [5], [1]), {"dilations": (4, 3)}, [2, 1, 2, 5]),
        (([2, 9, 8, 3], [9, 19, 3, 5], [5], [1]), {"padding": "SAME"}, [2, 9, 8, 5]),
        (
            ([2, 9, 8, 3], [3, 3, 3, 5], [5], [1]),
            {"padding": "SAME", "zeros": (1, 0, 0, 1), "strides": (2, 3)},
            [2, 5, 3, 5],
        ),
        ((None, None, None, None), {}, [None] * 4),
    ],
)
def test_shape_function(shapes, attributes, result):
    """What is known of the sizes is known of the output's."""
    with tf.Graph().as_default():
        types = (tf.int8, tf.int8, tf.int32, tf.float64)
        inputs = [tf.compat.v1.placeholder(*pair) for pair in zip(types, shapes, strict=True)]
        found = raw(*inputs, dtype=np.int16, **attributes)
        assert found.dtype == tf.int16
        assert found.shape.as_list() == result


@pytest.mark.parametrize(
    ("shapes", "text"),
    [
        (([9, 8, 3], [3, 2, 3, 5], [5], [1]), "Shape must be rank 4 but is rank 3"),
        (([2, 9, 8, 3], [3, 2, 3], [5], [1]), "Shape must be rank 4 but is rank 3"),
        (([2, 9, 8, 3], [3, 2, 3, 5], [], [1]), "Shape must be rank 1 but is rank 0"),
        (([2, 9, 8, 3], [3, 2, 3, 5], [5], [1, 5]), "Shape must be rank 1 but is rank 2"),
        (([2, 9, 1, 3], [3, 2, 3, 5], [5], [1]), "Need a padded width of at least the filter's 2"),
        (([2, 0, 8, 3], [3, 2, 3, 5], [5], [1]), "Need an input and a filter of a height from 1"),
    ],
)
def test_shape_function_refuses(shapes, text):
    """Where the shapes are known."""
    types = (tf.int8, tf.int8, tf.int32, tf.float64)
    with tf.Graph().as_default(), pytest.raises(ValueError, match=re.escape(text)):
        raw(*(tf.compat.v1.placeholder(*pair) for pair in zip(types, shapes, strict=True)))


# ---- Layers that are kept ----------------------------------------------------------------------


def _two_layers():
    """Return an image, two filters of one shape, and what each makes of the image."""
    rng = np.random.default_rng(12)
    image = draw_stored(rng, np.int8, (1, 5, 5, 3))
    filters = [draw_stored(rng, np.int8, (3, 3, 3, 4)) for _ in range(2)]
    return image, filters, [_eager(image, tf.constant(f)).numpy() for f in filters]


FOUR = tf.constant([40, -30, 20, -10])
HALF = tf.constant([2.0**-9], tf.float64)


def _eager(image, filter, bias=FOUR, multipliers=HALF, **settings):
    return ops.prepared_conv2d(image, filter, bias, multipliers, **settings)


@pytest.mark.parametrize("constant", [False, True])
def test_calls_of_two_layers_alternate(constant):
    """Eager calls with equal attributes share a kernel, which tells their tensors apart."""
    image, filters, want = _two_layers()
    tensors = [tf.constant(f) for f in filters]
    for turn in (0, 1, 1, 0, 0, 1):
        result = _eager(image, tensors[turn], constant_weights=constant)
        support.assert_bits(result, want[turn])


@pytest.mark.parametrize("constant", [False, True])
@pytest.mark.parametrize("index", [1, 2, 3])
def test_other_tensors_make_another_layer(index, constant):
    """Each of the three: the filter, the bias, the multipliers."""
    image, filters, _ = _two_layers()
    first = [image, tf.constant(filters[0]), FOUR, HALF]
    second = list(first)
    second[index] = [None, tf.constant(filters[1]), FOUR + 500, HALF / 2][index]
    results = [_eager(*call).numpy() for call in (first, second)]
    assert (results[0] != results[1]).any()
    call = tf.function(
        lambda *tensors: _eager(image, *tensors, constant_weights=constant), autograph=False
    )
    for turn in (0, 1, 0, 0, 1, 1):
        support.assert_bits(call(*(first, second)[turn][1:]), results[turn])


def test_images_of_other_sizes_make_another_layer():
    """Sizes change from call to call, and the batch, which makes none."""
    rng = np.random.default_rng(3)
    filter = tf.constant(draw_stored(rng, np.int8, (2, 2, 3, 4)))
    call = tf.function(lambda x: _eager(x, filter), autograph=False, reduce_retracing=True)
    for shape in ((1, 5, 4, 3), (2, 5, 4, 3), (1, 4, 5, 3), (3, 9, 2, 3), (1, 5, 4, 3)):
        image = draw_stored(rng, np.int8, shape)
        support.assert_bits(call(image), _eager(image, filter).numpy())


def test_a_bias_comes_and_goes():
    """A layer without a bias is another one."""
    image, filters, want = _two_layers()
    filter = tf.constant(filters[0])
    without = _eager(image, filter, None).numpy()
    for _ in range(2):
        support.assert_bits(_eager(image, filter), want[0])
        support.assert_bits(_eager(image, filter, None), without)


@pytest.mark.parametrize("constant", [False, True])
def test_variables_that_change(constant):
    """Assignments, additions and scattered rows, which copy what somebody holds."""
    image, filters, want = _two_layers()
    variable = tf.Variable(filters[0])
    call = tf.function(lambda: _eager(image, variable, constant_weights=constant), autograph=False)
    rows = tf.constant([[0], [1], [2]])

    def follow(turn):
        support.assert_bits(call(), want[turn])
        support.assert_bits(_eager(image, variable, constant_weights=constant), want[turn])

    for _ in range(2):
        follow(0)
        variable.assign(filters[1])
        follow(1)
        variable.assign_add(filters[0] - filters[1])
        follow(0)
        variable.scatter_nd_update(rows, filters[1])
        follow(1)
        variable[:].assign(filters[0])
        follow(0)


@pytest.mark.parametrize("constant", [False, True])
def test_a_variable_that_changes_inside_a_function(constant):
    """Two calls of a step, an assignment between them."""
    image, filters, want = _two_layers()
    variable = tf.Variable(filters[0])

    @tf.function(autograph=False)
    def call():
        before = _eager(image, variable, constant_weights=constant)
        variable.assign(filters[1])
        after = _eager(image, variable, constant_weights=constant)
        variable.assign(filters[0])
        return before, after

    for _ in range(3):
        for result, of_layer in zip(call(), want, strict=True):
            support.assert_bits(result, of_layer)


@pytest.mark.parametrize("constant", [False, True])
def test_weights_that_are_computed(constant):
    """Memory that the runtime would use again is held; a loop brings new weights each time."""
    image, filters, want = _two_layers()
    both = tf.constant(np.stack(filters))

    @tf.function(autograph=False)
    def call(count):
        results = tf.TensorArray(tf.int8, count)

        def body(i, results):
            filter = tf.bitwise.invert(tf.bitwise.invert(both[i % 2]))
            result = _eager(image, filter, constant_weights=constant)
            return i + 1, results.write(i, result)

        _, results = tf.while_loop(
            lambda i, _: i < count, body, (0, results), parallel_iterations=1
        )
        return results.stack()

    for i, result in enumerate(call(tf.constant(9)).numpy()):
        support.assert_bits(result, want[i % 2])


@pytest.mark.parametrize("constant", [False, True])
def test_parts_of_one_tensor(constant):
    """Tensors that share a buffer and begin elsewhere in it are others."""
    image, filters, want = _two_layers()
    both = tf.constant(np.stack(filters))

    @tf.function(autograph=False)
    def call():
        first, second = tf.unstack(both)
        rest = both[1]
        return [_eager(image, x, constant_weights=constant) for x in (first, second, rest)]

    for _ in range(2):
        for result, turn in zip(call(), (0, 1, 1), strict=True):
            support.assert_bits(result, want[turn])
    for turn in (0, 1, 0):
        support.assert_bits(_eager(image, both[turn], constant_weights=constant), want[turn])


def test_memory_that_is_rewritten_in_place():
    """Without the promise that weights are constant numbers count, and no memory."""
    image, filters, want = _two_layers()
    array = np.zeros(filters[0].size + 64, np.int8)  # aligned, the runtime takes it as it is
    array = array[-array.ctypes.data % 64 :][: filters[0].size].reshape(filters[0].shape)
    for turn in (0, 1, 0):
        array[...] = filters[turn]
        support.assert_bits(raw(image, array, FOUR, HALF), want[turn])
    tensor = tf.constant(filters[0])
    support.assert_bits(_eager(image, tensor), want[0])
    for turn in (1, 0):
        tf.raw_ops.InplaceUpdate(x=tensor, i=[0, 1, 2], v=filters[turn])
        support.assert_bits(_eager(image, tensor), want[turn])


@pytest.mark.parametrize("is_resource", [False, True])
def test_variables_of_graphs(is_resource):
    """Reference variables keep their memory and change it."""
    image, filters, want = _two_layers()
    v1 = tf.compat.v1
    with tf.Graph().as_default():
        variable = v1.Variable(filters[0], use_resource=is_resource)
        given = v1.placeholder(tf.int8, filters[0].shape)
        assign = v1.assign(variable, given)
        results = [
            ops.prepared_conv2d(image, x, [40, -30, 20, -10], [2.0**-9])
            for x in (variable, tf.identity(variable))
        ]
        with v1.Session() as session:
            for turn in (0, 1, 1, 0):
                session.run(assign, {given: filters[turn]})
                for result in session.run(results):
                    support.assert_bits(result, want[turn])


def test_fed_weights():
    """What a session is fed from an array that changes."""
    image, filters, want = _two_layers()
    v1 = tf.compat.v1
    array = filters[0].copy()
    with tf.Graph().as_default():
        given = v1.placeholder(tf.int8, array.shape)
        result = ops.prepared_conv2d(image, given, [40, -30, 20, -10], [2.0**-9])
        with v1.Session() as session:
            for turn in (0, 1, 0):
                array[...] = filters[turn]
                support.assert_bits(session.run(result, {given: array}), want[turn])


@pytest.mark.parametrize("constant", [False, True])
def test_threads_share_a_kernel(constant):
    """Calls at the same time, of the same layer and of another, get their own results."""
    image, filters, want = _two_layers()
    tensors = [tf.constant(f) for f in filters]
    call = tf.function(lambda x: _eager(image, x, constant_weights=constant), autograph=False)
    call(tensors[0])
    wrong = []

    def work(turn):
        for i in range(50):
            which = (turn + i // (1 + turn)) % 2
            if (call(tensors[which]).numpy() != want[which]).any():
                wrong.append(which)

    threads = [threading.Thread(target=work, args=[t]) for t in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert not wrong


# ---- The wrapper -------------------------------------------------------------------------------

SETTINGS = {
    "strides": ((2, 1), "strides"),
    "dilations": ((1, 2), "dilations"),
    "zeros": ((1, 0, 2, 1), "zeros"),
    "padding": ("SAME", "padding"),
    "input_zero_point": (3, "input_zero_point"),
    "accumulator_size": (9, "accumulator_size"),
    "mult_shift": (2, "mult_shift"),
    "use_fp16_acc": (True, "use_fp16_acc"),
    "rounding": ("one_rounding", "rounding"),
    "zero_point": (-7, "zero_point"),
    "minimum": (-1, "minimum"),
    "maximum": (2, "maximum"),
    "constant_weights": (True, "has_constant_weights"),
    "dtype": (np.int16, "dtype"),
}


@pytest.mark.parametrize("name", [None, *SETTINGS])
def test_every_setting_reaches_its_attribute(name):
    """The wrapper's keywords are the op's attributes."""
    image = np.tile(IMAGE, (1, 2, 2, 1))
    value, attribute = SETTINGS.get(name, (None, None))
    want = raw(image, FILTER, BIAS, FACTORS, **({} if name is None else {attribute: value}))
    settings = {} if name is None else {name: value}
    support.assert_bits(ops.prepared_conv2d(image, FILTER, BIAS, FACTORS, **settings), want.numpy())


def test_depthwise():
    """A filter for each channel, and fewer filters than channels."""
    filter = FILTER[:, :, :1]
    want = raw(IMAGE, filter, BIAS, FACTORS, is_depthwise=True).numpy()
    support.assert_bits(ops.prepared_conv2d(IMAGE, filter, BIAS, FACTORS, depthwise=True), want)


def test_forms():
    """Arrays, tensors, variables; lists and no bias."""
    want = raw(IMAGE, FILTER, BIAS, FACTORS).numpy()
    for form in (np.asarray, tf.constant, tf.Variable):
        result = ops.prepared_conv2d(*map(form, (IMAGE, FILTER, BIAS, FACTORS)))
        support.assert_bits(result, want)
    lists = [x.tolist() for x in (FILTER, BIAS, FACTORS)]
    support.assert_bits(ops.prepared_conv2d(IMAGE, *lists), want)
    without = raw(IMAGE, FILTER, None, FACTORS).numpy()
    for bias in (None, []):
        support.assert_bits(ops.prepared_conv2d(IMAGE, FILTER, bias, FACTORS), without)


@pytest.mark.parametrize(
    ("changes", "error", "text"),
    [
        ({"dtype": tf.int32}, TypeError, "dtype must be int8 or int16, got int32"),
        ({"input": IMAGE.astype(np.int32)}, TypeError, "input must be int8 or int16, got int32"),
        ({"zero_point": 1.5}, TypeError, "zero_point must be an integer, got 1.5"),
        ({"strides": (1, 1.5)}, TypeError, "strides must be an integer, got 1.5"),
        ({"strides": (1,)}, (ValueError, tf.errors.InvalidArgumentError), "Need 2 strides"),
        ({"filter": FILTER[0]}, (ValueError, tf.errors.InvalidArgumentError), "rank"),
        ({"rounding": "none"}, (ValueError, tf.errors.InvalidArgumentError), "rounding"),
    ],
    ids=str,
)
def test_the_wrapper_refuses(changes, error, text):
    """Eagerly, and in a function's graph."""
    arguments = {"input": IMAGE, "filter": FILTER, "bias": BIAS, "multipliers": FACTORS} | changes

    def call():
        return ops.prepared_conv2d(**arguments)

    for function in (call, tf.function(call, autograph=False)):
        with pytest.raises(error, match=re.escape(text)):
            function()


def test_in_functions_and_models(tmp_path):
    """Traced, saved, and as a Keras layer."""
    want = raw(IMAGE, FILTER, BIAS, FACTORS).numpy()

    def call(x):
        return ops.prepared_conv2d(x, FILTER, BIAS, FACTORS, constant_weights=True)

    function = tf.function(call, autograph=False)
    for _ in range(3):
        support.assert_bits(function(IMAGE), want)
    module = tf.Module()
    spec = tf.TensorSpec([None, 4, 4, 3], tf.int8)
    module.call = tf.function(call, input_signature=[spec], autograph=False)
    tf.saved_model.save(module, str(tmp_path / "model"))
    loaded = tf.saved_model.load(str(tmp_path / "model"))
    for _ in range(3):
        support.assert_bits(loaded.call(IMAGE), want)

    symbolic = keras.Input([4, 4, 3], dtype="int8")
    model = keras.Model(symbolic, call(symbolic))
    support.assert_bits(model.predict(IMAGE, verbose=0), want)
