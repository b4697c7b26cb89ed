# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What the wrappers leave out of a call must show nowhere: not in graphs, devices, signs, memory.

Eagerly they pass tensors on as they are, leave small numbers to the runtime, and decide on shapes
in Python. How long that takes is measured, never tested.
"""

from __future__ import annotations

import threading

import forks
import keras
import numpy as np
import pytest
import tensorflow as tf

from bitfold import ops, tables
from bitfold._frame import arguments, tensors

RNG = np.random.default_rng(23)
IMAGES = RNG.integers(-9, 10, [2, 5, 4, 3]).astype(np.int32)
FILTERS = RNG.integers(-9, 10, [3, 3, 3, 3]).astype(np.int32)
VECTOR = RNG.integers(-9, 10, [3]).astype(np.int32)
MATRICES = RNG.integers(-9, 10, [2, 4, 4]).astype(np.int32)
PIECES = tables.activation("silu", input_scale=1, output_scale=1, output_zero_point=0).keywords
CALLS = {
    "conv2d": (ops.conv2d, [IMAGES, FILTERS]),
    "depthwise_conv2d": (ops.depthwise_conv2d, [IMAGES, FILTERS[..., :1]]),
    "matmul": (ops.matmul, [MATRICES, MATRICES]),
    "add": (ops.add, [IMAGES, IMAGES]),
    "bias_add": (ops.bias_add, [IMAGES, VECTOR]),
    "activation": (lambda x: ops.activation(x, **PIECES), [IMAGES]),
    "requantise": (lambda x: ops.requantise(x, [0.5]), [IMAGES]),
}


@pytest.fixture(params=CALLS)
def call(request):
    """A wrapper, its operands, and what an eager call on arrays gives."""
    function, operands = CALLS[request.param]
    return function, operands, function(*operands).numpy()


# ---- Where a call runs -------------------------------------------------------------------------


def test_eager_then_graph_then_eager(call, assert_bits):
    """An eager call leaves nothing that a graph would capture, and a graph nothing for the next."""
    function, operands, expected = call
    tensors = [tf.constant(x) for x in operands]
    assert_bits(function(*tensors), expected)
    assert_bits(tf.function(function, autograph=False)(*tensors), expected)
    with tf.Graph().as_default() as graph:
        result = function(*operands)
        with tf.compat.v1.Session(graph=graph) as session:
            assert_bits(session.run(result), expected)
    captured = tf.function(lambda: function(*tensors), autograph=False)
    assert len(captured.get_concrete_function().captured_inputs) == len(tensors)
    assert_bits(captured(), expected)
    assert_bits(function(*tensors), expected)


def test_in_another_thread(call, assert_bits):
    """Threads have contexts of their own."""
    function, operands, expected = call
    results = []
    thread = threading.Thread(target=lambda: results.append(function(*operands).numpy()))
    thread.start()
    thread.join()
    assert_bits(results[0], expected)


_DEVICES = """
import sys
sys.path.insert(0, sys.argv[1])
import tensorflow as tf
cpu = tf.config.list_physical_devices("CPU")[0]
tf.config.set_logical_device_configuration(cpu, [tf.config.LogicalDeviceConfiguration()] * 2)
from test_eager_calls import CALLS
for name, (function, operands) in CALLS.items():
    results = []
    for device in ("CPU:0", "CPU:1", "CPU:0"):
        with tf.device(device):
            results.append(function(*operands))
            assert results[-1].device.endswith(device), (name, results[-1].device)
            results.append(function(*(tf.constant(x) for x in operands)))
    with tf.device("CPU:1"):
        results.append(tf.function(function, autograph=False)(*operands))
    assert len({result.numpy().tobytes() for result in results}) == 1, name
print("same")
"""


def test_under_device_scopes():
    """Results lie on the device of the scope, whichever ran the op before."""
    folder = __file__.rpartition("/")[0]
    found = forks.run(_DEVICES, folder)
    assert (found.returncode, found.stdout) == (0, "same\n"), found.stderr


# ---- Operands ----------------------------------------------------------------------------------


def test_tensors_beside_arrays(call, assert_bits):
    """Any operand may be an array, a tensor or a variable beside the others."""
    function, operands, expected = call
    for form in (tf.constant, tf.Variable):
        for at in range(len(operands)):
            mixed = [form(x) if i == at else x for i, x in enumerate(operands)]
            assert_bits(function(*mixed), expected)


def test_symbolic_beside_tensors(assert_bits):
    """One symbolic operand, in any place, makes a layer."""
    pixels, weights = CALLS["conv2d"][1]
    symbolic = keras.Input(pixels.shape[1:], dtype="int32")
    result = ops.conv2d(tf.constant(pixels), weights, elementwise=symbolic)
    assert isinstance(result, keras.KerasTensor)
    model = keras.Model(symbolic, result)
    assert_bits(model(pixels), ops.conv2d(pixels, weights, elementwise=pixels).numpy())


def test_arrays_stay_the_callers(call, assert_bits):
    """An array is neither written nor looked at after the call, however it is aligned."""
    function, operands, expected = call
    for offset in (0, 16):
        arrays = [_at(x, offset) for x in operands]
        result = function(*arrays)
        for array, operand in zip(arrays, operands, strict=True):
            assert_bits(array, operand)
            array[...] = 7
        assert_bits(result, expected)


def _at(array: np.ndarray, offset: int) -> np.ndarray:
    """Return a copy whose address lies `offset` bytes after a multiple of 64."""
    memory = np.zeros(array.nbytes + 128, np.uint8)
    first = (offset - memory.ctypes.data) % 64
    copy = memory[first : first + array.nbytes].view(array.dtype).reshape(array.shape)
    copy[...] = array
    return copy


def test_variables_are_read_at_each_call(assert_bits):
    """No call remembers a value."""
    bias = tf.Variable(VECTOR)
    before = ops.bias_add(IMAGES, bias)
    bias.assign_add([1, 1, 1])
    assert_bits(ops.bias_add(IMAGES, bias), before.numpy() + 1)


# ---- Numbers -----------------------------------------------------------------------------------


@pytest.mark.parametrize("first", [0.0, -0.0])
def test_zeros_keep_their_sign(first, assert_bits):
    """The runtime keeps a tensor of every Python number and takes one zero for the other."""
    tf.constant(first), tf.constant(first, tf.float32)
    minus = [np.float32([-0.0])] * 4
    ones = [np.float32([1.0])] * 4
    for bias in (0.0, -0.0, 0, np.float32(-0.0)):
        result = ops.bilinear(*minus, *ones, bias=bias, float_accumulator=True)
        assert_bits(result, np.float32([bias]))


@pytest.mark.parametrize(
    ("number", "dtype", "is_kept"),
    [
        (0, tf.int8, True),
        (127, tf.int8, True),
        (2.0, tf.int8, True),
        (1, tf.float32, True),
        (1.0, tf.float32, True),
        (-0.0, tf.int32, True),
        (0, tf.float32, False),
        (0.0, tf.float32, False),
        (-0.0, tf.float32, False),
        (0.5, tf.float32, False),
        (-1, tf.int8, False),
        (128, tf.int32, False),
        (2**32 - 1, tf.uint32, False),
        (np.inf, tf.float32, False),
        (np.nan, tf.float32, False),
        (True, tf.int8, False),
        (np.int8(1), tf.int8, False),
    ],
    ids=repr,
)
@pytest.mark.parametrize("in_function", [False, True])
def test_numbers_that_the_runtime_keeps(number, dtype, is_kept, in_function):
    """Few, since it keeps them for good; the others become tensors here, of the same value."""

    def operand():
        found = arguments.scalar_operand(number, "number", dtype)
        assert isinstance(found, int) == is_kept
        return tf.convert_to_tensor(found, dtype)

    found = (tf.function(operand, autograph=False) if in_function else operand)().numpy()
    assert found.tobytes() == np.array(number).astype(dtype.as_numpy_dtype).tobytes()


@pytest.mark.parametrize("factor", [0, -1, 127, 128, 1000, -(2**31), 2**31 - 1])
def test_factors_of_any_size(factor, assert_bits):
    """Whoever makes the tensor of a number, the bits are the same."""
    expected = ops.bias_add(IMAGES, VECTOR, factor=tf.constant(factor)).numpy()
    assert_bits(ops.bias_add(IMAGES, VECTOR, factor=factor), expected)
    if abs(factor) < 2**24:
        floats = IMAGES.astype(np.float32), VECTOR.astype(np.float32)
        expected = ops.bias_add(*floats, factor=tf.constant(factor, tf.float32)).numpy()
        assert_bits(ops.bias_add(*floats, factor=factor), expected)


@pytest.mark.parametrize("dtype", [tf.int8, tf.int16, tf.int32, tf.int64, tf.uint32])
def test_limits(dtype):
    """As the type has them, asked once."""
    assert tensors.limits(dtype) == (dtype.min, dtype.max)
    assert tensors.limits(dtype) is tensors.limits(dtype)


# ---- Graphs ------------------------------------------------------------------------------------


@pytest.mark.parametrize("name", ["depthwise_conv2d", "activation", "conv2d", "bias_add"])
def test_no_shape_is_computed_where_it_is_known(name):
    """A function of known shapes holds the op and what hides shapes, and computes none."""
    function, operands = CALLS[name]
    specs = [tf.TensorSpec(x.shape, x.dtype) for x in operands]
    graph = tf.function(function, autograph=False).get_concrete_function(*specs).graph
    types = {operation.type for operation in graph.get_operations()}
    plain = {"Placeholder", "PlaceholderWithDefault", "Const", "Identity", "Cast", "Reshape"}
    assert len({t for t in types - plain if not t.startswith("H")}) == 0
