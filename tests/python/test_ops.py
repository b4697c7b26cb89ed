# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The wrappers of `bitfold.ops`: what they take, where they run, what they refuse."""

from __future__ import annotations

import inspect
import pickle
import re

import forks
import keras
import numpy as np
import pytest
import raw
import stated
import support
import tensorflow as tf

import bitfold
from bitfold import ops, tables

RNG = np.random.default_rng(11)


def _integers(*shape, low=-20, high=21):
    return RNG.integers(low, high, shape).astype(np.int32)


WRAPPERS: dict[str, stated.Wrapper | None] = stated.by_modules("WRAPPERS")
CALLS = {name: wrapper for name, wrapper in WRAPPERS.items() if wrapper is not None}
NAMES = tuple(CALLS)
OPERANDS = {name: [_integers(*shape) for shape in CALLS[name].shapes] for name in NAMES}
CONVOLUTIONS = tuple(name for name in NAMES if name.endswith("conv2d"))


def _wrapper(name, /, **changes):
    """Return the wrapper as a function of its operands."""
    return lambda *operands: getattr(ops, name)(*operands, **{**CALLS[name].arguments, **changes})


def _expected(name, dtype=np.int32):
    operands = [x.astype(dtype) for x in OPERANDS[name]]
    return CALLS[name].generated(*operands, **CALLS[name].arguments).numpy()


# ---- What is taken -----------------------------------------------------------------------------

FORMS = {
    "numpy": lambda x: x,
    "list": lambda x: x.tolist(),
    "tensor": tf.constant,
    "variable": tf.Variable,
    "int64 array": lambda x: x.astype(np.int64),
    "strided array": lambda x: np.repeat(x, 2, axis=-1)[..., ::2],
    "Fortran order": np.asfortranarray,
    "big-endian array": lambda x: x.astype(">i4"),
    "read-only array": lambda x: np.frombuffer(x.tobytes(), np.int32).reshape(x.shape),
}


@pytest.mark.parametrize("name", NAMES)
@pytest.mark.parametrize("form", FORMS)
def test_forms_of_integers(name, form, assert_bits):
    """Arrays, lists, tensors and variables give the generated op's bits."""
    assert_bits(_wrapper(name)(*map(FORMS[form], OPERANDS[name])), _expected(name))


@pytest.mark.parametrize("name", NAMES)
@pytest.mark.parametrize("form", ["numpy", "list", "tensor", "variable"])
def test_forms_of_floats(name, form, assert_bits):
    """The same in floats; of several lists all but the first may hold integers."""
    first, *others = OPERANDS[name]
    operands = [FORMS[form](x.astype(np.float32)) for x in (first, *others)]
    assert_bits(_wrapper(name)(*operands), _expected(name, np.float32))
    if form == "list":
        lists = [x.tolist() for x in others]
        assert_bits(_wrapper(name)(operands[0], *lists), _expected(name, np.float32))


@pytest.mark.parametrize("name", NAMES)
@pytest.mark.parametrize(
    ("narrow", "wide"),
    [
        (np.int8, np.int32),
        (np.int16, np.int32),
        (np.float16, np.float32),
    ],
)
@pytest.mark.parametrize("form", ["numpy", "tensor", "mixed"])
def test_narrower_types_widen(name, narrow, wide, form, assert_bits):
    """All operands, or the first."""
    first, *others = (x.astype(narrow) for x in OPERANDS[name])
    if form == "tensor":
        first, *others = map(tf.constant, (first, *others))
    elif form == "mixed":
        others = [x.astype(wide) for x in others]
    assert_bits(_wrapper(name)(first, *others), _expected(name, wide))


@pytest.mark.parametrize("dtype", [tf.uint8, tf.uint16, tf.bool])
def test_unsigned_types_widen(dtype, assert_bits):
    """Unsigned data of fewer than 32 bits is positive int32 data."""
    value = tf.cast(tf.constant([[1, 0, dtype.max if dtype != tf.bool else 1]]), dtype)
    expected = 2 * tf.cast(value, tf.int32).numpy()
    assert_bits(ops.add(value, value), expected)
    assert_bits(ops.add(value.numpy(), value.numpy()), expected)


def test_bfloat16_widens(assert_bits):
    """Every bfloat16 is a float32."""
    value = tf.constant([[1.5, -2.0]], tf.bfloat16)
    assert_bits(ops.add(value, value), np.array([[3.0, -4.0]], np.float32))


def test_int64_arrays_narrow_where_every_value_fits(assert_bits):
    """What numpy and lists give by default narrows; a value that does not fit is an error."""
    ends = np.array([[-(2**31), 2**31 - 1]], np.int64)
    assert_bits(ops.add(ends, [[0, 0]]), ends.astype(np.int32))
    for value in (2**31, -(2**31) - 1, 2**62):
        for form in (np.array([[value]], np.int64), [[value]]):
            with pytest.raises(ValueError, match="value holds int64 values that no int32 holds"):
                ops.add(form, [[1]])


@pytest.mark.parametrize(
    "value",
    [
        np.ones([1, 1], np.float64),
        np.ones([1, 1], np.uint32),
        np.ones([1, 1], np.uint64),
        tf.ones([1, 1], tf.int64),
        tf.ones([1, 1], tf.float64),
        np.ones([1, 1], np.complex64),
        [["1"]],
    ],
    ids=lambda v: f"{type(v).__name__}-{getattr(v, 'dtype', '')}",
)
def test_other_types_are_refused(value):
    """Types that would lose something; the error names the argument and the type."""
    with pytest.raises(TypeError, match="value must be float32 or int32, got"):
        ops.add(value, value)


@pytest.mark.parametrize("name", NAMES)
def test_types_that_differ_are_refused(name):
    """All operands have one type; the error names the argument as the function does."""
    operands = OPERANDS[name]
    parameters = list(inspect.signature(getattr(ops, name)).parameters)
    for at in range(1, len(operands)):
        for own, other, form in (
            ("int32", "float32", np.array),
            ("float32", "int32", np.array),
            ("int32", "float32", tf.constant),
        ):
            mixed = [form(x, other if i == at else own) for i, x in enumerate(operands)]
            with pytest.raises(TypeError, match=f"{parameters[at]} must be {own}, got {other}"):
                _wrapper(name)(*mixed)


def test_lists_that_floats_do_not_hold_are_refused():
    """A list of integers meets float data only where no value changes."""
    with pytest.raises(ValueError, match="elementwise holds integers that no float32 holds"):
        ops.add([[1.0]], [[2**24 + 1]])


def test_empty_lists_take_the_other_operands_type():
    """An empty list has no type of its own."""
    assert ops.add([[]], [[]]).dtype == tf.int32
    assert ops.add(np.zeros([1, 0], np.float32), [[]]).dtype == tf.float32


# ---- Scalars -----------------------------------------------------------------------------------


@pytest.mark.parametrize(
    "shift",
    [2, 2.0, np.int8(2), np.int64(2), np.array([2]), *(tf.constant(x, tf.int8) for x in (2, [2]))],
    ids=repr,
)
def test_scalars_may_be_numbers_and_tensors(shift, assert_bits):
    """A shift as any kind of integer."""
    assert_bits(ops.add([[0]], [[10]], mult_shift=shift), np.array([[2]], np.int32))


def test_scalars_may_be_computed(assert_bits):
    """Factor, feed repeat and shift may be tensors of a graph."""

    @tf.function
    def scaled(factor, feed_repeat, shift):
        return ops.add([[1]], [[5]], factor=factor, feed_repeat=feed_repeat, mult_shift=shift)

    result = scaled(tf.constant(3), tf.constant(2.0), tf.constant(1, tf.int8))
    assert_bits(result, np.array([[17]], np.int32))


@pytest.mark.parametrize(
    ("arguments", "error", "text"),
    [
        ({"mult_shift": 128}, ValueError, "mult_shift must lie in [-128, 127], got 128"),
        ({"mult_shift": -129}, ValueError, "mult_shift must lie in [-128, 127], got -129"),
        ({"mult_shift": 1.5}, TypeError, "mult_shift must be an integer, got 1.5"),
        ({"mult_shift": np.nan}, TypeError, "mult_shift must be an integer, got nan"),
        ({"mult_shift": tf.constant(1)}, TypeError, "mult_shift must be int8, got int32"),
        ({"factor": 2.5}, TypeError, "factor must be an integer, got 2.5"),
        (
            {"factor": 2**31},
            ValueError,
            "factor must lie in [-2147483648, 2147483647], got 2147483648",
        ),
        ({"factor": tf.constant(1.0)}, TypeError, "factor must be int32, got float32"),
        (
            {"feed_repeat": tf.constant(1.0, tf.float64)},
            TypeError,
            "feed_repeat must be float32, got float64",
        ),
        ({"accumulator_size": -1}, tf.errors.InvalidArgumentError, "Need accumulator_size >= 0"),
        ({"accumulator_size": 33}, tf.errors.InvalidArgumentError, "Need accumulator_size <= 32"),
        ({"feed_repeat": np.nan}, tf.errors.InvalidArgumentError, "got nan"),
    ],
)
@pytest.mark.parametrize("name", ["add", "bias_add"])
def test_scalars_out_of_range_are_refused(name, arguments, error, text):
    """Numbers that their type does not hold, and tensors of another type."""
    with pytest.raises(error, match=re.escape(text)):
        getattr(ops, name)([[1, 1]], [[1, 1]] if name == "add" else [1, 1], **arguments)


@pytest.mark.filterwarnings("ignore:overflow encountered")
@pytest.mark.parametrize("name", ["add", "bias_add"])
@pytest.mark.parametrize("number", [1e40, -1e40])
def test_float_scalars_out_of_range_are_refused(name, number):
    """A finite factor that no float32 holds must not become infinite."""
    operands = ([[1.0]], [[1.0]] if name == "add" else [1.0])
    with pytest.raises(ValueError, match="factor"):
        getattr(ops, name)(*operands, factor=number)


@pytest.mark.filterwarnings("ignore:overflow encountered")
def test_float_lists_out_of_range_are_refused():
    """A finite number in a list that no float32 holds must not become infinite."""
    with pytest.raises((ValueError, TypeError), match="value"):
        ops.add([[1e40]], [[1.0]])


@pytest.mark.parametrize("accumulator_size", [8.5, "8", None])
@pytest.mark.parametrize("name", NAMES)
def test_widths_that_are_no_integers_are_refused(name, accumulator_size):
    """Half a bit must not be dropped silently."""
    with pytest.raises((TypeError, ValueError)):
        _wrapper(name, accumulator_size=accumulator_size)(*OPERANDS[name])


# ---- Convolution attributes --------------------------------------------------------------------


@pytest.mark.parametrize("argument", ["strides", "dilations"])
@pytest.mark.parametrize(
    ("value", "spatial"),
    [
        (2, (2, 2)),
        (np.int64(2), (2, 2)),
        ([2], (2, 2)),
        ((3, 2), (3, 2)),
        (np.array([3, 2]), (3, 2)),
        ([1, 3, 2, 1], (3, 2)),
    ],
    ids=repr,
)
def test_forms_of_strides(argument, value, spatial, assert_bits):
    """One number, height and width, or all four."""
    pixels, weights = _integers(1, 9, 8, 2), _integers(2, 3, 2, 2)
    expected = raw.convolve(pixels, weights, **{argument: spatial}).numpy()
    assert_bits(ops.conv2d(pixels, weights, **{argument: value}), expected)
    if argument == "dilations":
        assert_bits(ops.dilated_conv2d(pixels, weights, dilations=value), expected)


@pytest.mark.parametrize("argument", ["strides", "dilations"])
@pytest.mark.parametrize("name", CONVOLUTIONS)
@pytest.mark.parametrize("value", [[], [1, 2, 3], [2, 1, 1, 1], [1, 1, 1, 2], [1] * 5, [[1, 2]]])
def test_malformed_strides_are_refused(name, argument, value):
    """Other counts, and other values than 1 for batch and channels."""
    text = f"{argument} must be one number, [height, width] or [1, height, width, 1]"
    with pytest.raises((TypeError, ValueError), match=re.escape(text)):
        _wrapper(name, **{argument: value})(*OPERANDS[name])


@pytest.mark.parametrize("argument", ["strides", "dilations"])
@pytest.mark.parametrize("value", [1.5, [2, 1.5], "2", np.nan])
def test_strides_that_are_no_integers_are_refused(argument, value):
    """A fraction must not be dropped silently."""
    with pytest.raises((TypeError, ValueError), match=argument):
        _wrapper("conv2d", **{argument: value})(*OPERANDS["conv2d"])


def test_dilated_convolution_needs_dilations():
    """The one argument without a default."""
    with pytest.raises(TypeError, match="dilations"):
        ops.dilated_conv2d(*OPERANDS["dilated_conv2d"])


@pytest.mark.parametrize("name", CONVOLUTIONS)
@pytest.mark.parametrize("padding", ["valid", "Valid", "VALID"])
def test_padding_in_any_case(name, padding, assert_bits):
    """As tf.keras and tf.nn write it."""
    operands = OPERANDS[name]
    expected = _wrapper(name, padding="VALID")(*operands).numpy()
    assert_bits(_wrapper(name, padding=padding)(*operands), expected)


@pytest.mark.parametrize("padding", ["FULL", "", None, "EXPLICIT", 0, [[0, 0]] * 4])
def test_other_paddings_are_refused(padding):
    """The error says what there is."""
    with pytest.raises(ValueError, match='padding must be "SAME" or "VALID", got'):
        _wrapper("conv2d", padding=padding)(*OPERANDS["conv2d"])


@pytest.mark.parametrize("name", CONVOLUTIONS)
def test_elementwise_operand(name, assert_bits):
    """The operand in any form; None leaves it out."""
    x, y = OPERANDS[name]
    plain = _wrapper(name)(x, y)
    assert_bits(_wrapper(name, elementwise=None)(x, y), plain.numpy())
    operand = _integers(*plain.shape)
    expected = CALLS[name].generated(x, y, operand, **CALLS[name].arguments).numpy()
    for form in ("numpy", "list", "tensor", "int64 array"):
        assert_bits(_wrapper(name, elementwise=FORMS[form](operand))(x, y), expected)
    with pytest.raises(TypeError, match="elementwise must be int32, got float32"):
        _wrapper(name, elementwise=operand.astype(np.float32))(x, y)


# ---- Depthwise filters -------------------------------------------------------------------------


@pytest.mark.parametrize("leading", [(), (2,)])
@pytest.mark.parametrize("dtype", [np.int32, np.float32])
def test_both_forms_of_a_depthwise_filter(leading, dtype, assert_bits):
    """[height, width, C, 1] is [height, width, 1, C]."""
    pixels = _integers(2, 5, 4, 3).astype(dtype)
    weights = _integers(*leading, 3, 2, 1, 3, low=-50, high=51).astype(dtype)
    expected = raw.convolve(pixels, weights, op="h_depth_wise", accumulator_size=12).numpy()
    for form in (weights, weights.swapaxes(-1, -2)):
        assert_bits(ops.depthwise_conv2d(pixels, form, accumulator_size=12), expected)
        tensor = tf.constant(np.ascontiguousarray(form))
        assert_bits(ops.depthwise_conv2d(pixels, tensor, accumulator_size=12), expected)


@pytest.mark.parametrize("leading", [(), (2,)])
@pytest.mark.parametrize("known", [True, False])
def test_channel_multipliers_are_refused(leading, known):
    """[height, width, C, M] has no meaning, whether or not the dimensions are known beforehand."""
    pixels, weights = _integers(2, 5, 4, 6), _integers(*leading, 3, 2, 2, 3)
    error, text = ValueError, "filter must be [height, width, C, 1] or [height, width, 1, C], got"
    call = ops.depthwise_conv2d
    if not known:
        specs = [tf.TensorSpec([None] * a.ndim, tf.int32) for a in (pixels, weights)]
        call = tf.function(lambda x, f: ops.depthwise_conv2d(x, f), input_signature=specs)
        error, text = tf.errors.InvalidArgumentError, "filter"
    with pytest.raises(error, match=re.escape(text)):
        call(pixels, weights)


def test_a_list_of_integers_is_a_depthwise_filter_of_floats(assert_bits):
    """As for the ordinary convolution."""
    pixels = np.ones([1, 1, 1, 1], np.float32)
    assert_bits(ops.conv2d(pixels, [[[[2]]]]), 2 * pixels)
    assert_bits(ops.depthwise_conv2d(pixels, [[[[2]]]]), 2 * pixels)


# ---- Functions and saved models ----------------------------------------------------------------


@pytest.mark.parametrize("name", NAMES)
@pytest.mark.parametrize("dtype", [np.int32, np.float32])
def test_in_functions(name, dtype, assert_bits):
    """The same bits traced on constants, on arguments, and with dimensions unknown."""
    operands = [x.astype(dtype) for x in OPERANDS[name]]
    call = _wrapper(name)
    expected = _expected(name, dtype)
    assert_bits(tf.function(lambda: call(*operands), autograph=False)(), expected)
    assert_bits(tf.function(call, autograph=False)(*operands), expected)
    shapes = [x.shape for x in operands]
    for unknown in (
        [[None] * len(shape) for shape in shapes],
        [[None, *shapes[0][1:]], *shapes[1:]],
        [None, *shapes[1:]],
        [None] * len(shapes),
    ):
        specs = [tf.TensorSpec(shape, dtype) for shape in unknown]
        function = tf.function(call, autograph=False).get_concrete_function(*specs)
        assert_bits(function(*map(tf.constant, operands)), expected)


def test_names_reach_the_graph():
    """`name` names the node."""
    with tf.Graph().as_default() as graph:
        for name in NAMES:
            _wrapper(name, name=f"my_{name}")(*OPERANDS[name])
    assert {f"my_{name}" for name in NAMES} <= {op.name for op in graph.get_operations()}


_LOAD = """
import sys
import keras
import numpy as np
import tensorflow as tf
folder = sys.argv[1]
for load, path, words in (
    (tf.saved_model.load, "/model", "Op type not registered 'H"),
    (keras.models.load_model, "/layers.keras", "Could not locate class 'OpLayer'"),
):
    try:
        load(folder + path)
    except (RuntimeError, TypeError, tf.errors.NotFoundError) as error:
        assert words in str(error), error
    else:
        raise AssertionError(path)
import bitfold
model = tf.saved_model.load(folder + "/model")
data = np.load(folder + "/data.npz")
for name in sys.argv[2:]:
    operands = [data[key] for key in data.files if key.startswith(name + ":")]
    result = getattr(model, name)(*operands).numpy()
    assert result.dtype == data[name].dtype
    assert result.tobytes() == data[name].tobytes(), name
layers = keras.models.load_model(folder + "/layers.keras")
assert layers.predict(data["pixels"], verbose=0).tobytes() == data["predicted"].tobytes()
print("same")
"""


def test_saved_models_in_a_fresh_process(tmp_path):
    """A saved model, and a saved Keras model, need `import bitfold` to be loaded, and no more.

    Without it the errors are the runtime's, which docs/networks.md quotes.
    """
    module = tf.Module()
    data = {}
    for name in NAMES:
        operands = OPERANDS[name]
        specs = [tf.TensorSpec([None] * x.ndim, tf.int32) for x in operands]
        function = tf.function(_wrapper(name), input_signature=specs, autograph=False)
        setattr(module, name, function)
        data |= {f"{name}:{i}": x for i, x in enumerate(operands)} | {name: _expected(name)}
    tf.saved_model.save(module, str(tmp_path / "model"))
    layers = _network()
    data["pixels"] = _integers(3, 5, 5, 2)
    data["predicted"] = layers.predict(data["pixels"], verbose=0)
    layers.save(tmp_path / "layers.keras")
    np.savez(tmp_path / "data.npz", **data)
    output = support.passes(forks.run(_LOAD, str(tmp_path), *NAMES))
    assert "same" in output.splitlines()  # C prints its own lines when the process ends


# ---- Keras -------------------------------------------------------------------------------------

_WEIGHTS = {
    "conv2d": _integers(3, 3, 2, 4),
    "bias_add": _integers(4),
    "dilated_conv2d": _integers(2, 2, 4, 4),
    "depthwise_conv2d": _integers(3, 3, 1, 4),
}


def _forward(x):
    """A network of several wrappers; on arrays, tensors or symbolic tensors."""
    x = ops.conv2d(x, _WEIGHTS["conv2d"], accumulator_size=10, mult_shift=1)
    y = ops.bias_add(x, _WEIGHTS["bias_add"], accumulator_size=10, feed_repeat=2.0)
    y = ops.dilated_conv2d(y, _WEIGHTS["dilated_conv2d"], dilations=2, accumulator_size=12)
    y = ops.depthwise_conv2d(y, _WEIGHTS["depthwise_conv2d"], elementwise=x, accumulator_size=14)
    return ops.add(x, y, accumulator_size=11, factor=3)


def _network() -> keras.Model:
    pixels = keras.Input([5, 5, 2], dtype="int32")
    return keras.Model(pixels, _forward(pixels))


def test_functional_model(assert_bits):
    """Symbolic tensors build layers; calling and predicting give the eager bits."""
    model = _network()
    pixels = _integers(6, 5, 5, 2)
    expected = _forward(pixels).numpy()
    assert model.output_shape == (None, 5, 5, 4)
    assert_bits(model(pixels), expected)
    assert_bits(model.predict(pixels, batch_size=4, verbose=0), expected)
    layers = [layer for layer in model.layers if not isinstance(layer, keras.layers.InputLayer)]
    assert len(layers) == 5
    assert not any(layer.supports_jit for layer in layers)
    assert not model.trainable_variables


@pytest.mark.parametrize("name", NAMES)
def test_each_wrapper_is_a_layer(name, tmp_path, assert_bits):
    """The first operand symbolic, the others the layer's constants, which a file keeps."""
    first, *others = OPERANDS[name]
    symbolic = keras.Input(batch_shape=first.shape, dtype="int32")
    model = keras.Model(symbolic, _wrapper(name)(symbolic, *others))
    assert_bits(model(first), _expected(name))
    model.save(tmp_path / "model.keras")
    assert_bits(keras.models.load_model(tmp_path / "model.keras")(first), _expected(name))


def test_functional_model_in_floats(assert_bits):
    """The float datapath in a model, after a stock layer."""
    pixels = keras.Input([5, 5, 2])
    weights = _WEIGHTS["conv2d"].astype(np.float32)
    result = ops.conv2d(keras.layers.ReLU()(pixels), weights, accumulator_size=8, mult_shift=3)
    data = _integers(2, 5, 5, 2).astype(np.float32)
    expected = ops.conv2d(np.maximum(data, 0), weights, accumulator_size=8, mult_shift=3)
    assert_bits(keras.Model(pixels, result).predict(data, verbose=0), expected.numpy())


def test_models_hold_the_registered_name():
    """What a file says of a layer: older files must find it in this and in later versions."""
    pixels = keras.Input([5, 5, 2], dtype="int32")
    model = keras.Model(pixels, ops.conv2d(pixels, _WEIGHTS["conv2d"]))
    saved = keras.saving.serialize_keras_object(model.layers[-1])
    assert saved["registered_name"] == "bitfold>OpLayer"
    assert saved["config"]["op"] == "conv2d"
    assert set(saved["config"]) >= {"name", "dtype", "op", "constants"}


def test_functional_model_survives_saving(tmp_path, assert_bits):
    """A .keras file holds the layers with their constants, types and names included."""
    pixels = keras.Input([5, 5, 2], dtype="int32")
    model = keras.Model(pixels, ops.conv2d(pixels, _WEIGHTS["conv2d"], name="first"))
    model.save(tmp_path / "model.keras")
    loaded = keras.models.load_model(tmp_path / "model.keras")
    data = _integers(2, 5, 5, 2)
    assert loaded.layers[-1].name == "first"
    assert loaded.layers[-1].supports_jit is False
    assert_bits(loaded.predict(data, verbose=0), model.predict(data, verbose=0))


@pytest.mark.filterwarnings("ignore:__array__ implementation:DeprecationWarning")
@pytest.mark.parametrize("constant", ["numpy", "list", "tensor", "variable", "int64 array"])
def test_layers_save_any_constant(constant, tmp_path, assert_bits):
    """Whatever form a constant was given in, the loaded model has its bits."""
    pixels = keras.Input([5, 5, 2], dtype="int32")
    weights = FORMS[constant](_WEIGHTS["conv2d"])
    keras.Model(pixels, ops.conv2d(pixels, weights)).save(tmp_path / "model.keras")
    loaded = keras.models.load_model(tmp_path / "model.keras")
    data = _integers(2, 5, 5, 2)
    assert_bits(loaded(data), ops.conv2d(data, _WEIGHTS["conv2d"]).numpy())


def test_layers_keep_float_constants(tmp_path, assert_bits):
    """Float constants come back bit for bit, subnormals, infinities and NaN included."""
    values = keras.Input([support.FLOAT_BOUNDARY.size])
    model = keras.Model(values, ops.bias_add(values, support.FLOAT_BOUNDARY, factor=0.1))
    model.save(tmp_path / "model.keras")
    loaded = keras.models.load_model(tmp_path / "model.keras")
    zeros = np.zeros([1, support.FLOAT_BOUNDARY.size], np.float32)
    expected = ops.bias_add(zeros, support.FLOAT_BOUNDARY, factor=0.1).numpy()
    assert_bits(loaded(zeros), expected)


def test_symbolic_tensors_by_keyword(assert_bits):
    """Operands may be named, and any of them symbolic."""
    pixels = keras.Input([3, 3, 2], dtype="int32")
    addend = keras.Input([3, 3, 4], dtype="int32")
    result = ops.conv2d(input=pixels, filters=_WEIGHTS["conv2d"], elementwise=addend)
    model = keras.Model([pixels, addend], result)
    data = _integers(2, 3, 3, 2), _integers(2, 3, 3, 4)
    expected = ops.conv2d(data[0], _WEIGHTS["conv2d"], elementwise=data[1]).numpy()
    assert_bits(model.predict(data, verbose=0), expected)


@pytest.mark.parametrize("policy", ["mixed_float16", "mixed_bfloat16", "float16"])
def test_mixed_precision_does_not_change_bits(policy, assert_bits):
    """The policy of the stock layers must not cast what the ops get."""
    data = support.random_values(np.random.default_rng(5), np.float32, (2, 3, 3, 2))
    weights = support.random_values(np.random.default_rng(6), np.float32, (3, 3, 2, 4))
    expected = ops.conv2d(data, weights, accumulator_size=24).numpy()
    before = keras.mixed_precision.global_policy()
    keras.mixed_precision.set_global_policy(policy)
    try:
        pixels = keras.Input([3, 3, 2], dtype="float32")
        result = ops.conv2d(pixels, weights, accumulator_size=24)
        assert result.dtype == "float32"
        assert_bits(keras.Model(pixels, result)(tf.constant(data)), expected)
        assert_bits(ops.conv2d(data, weights, accumulator_size=24), expected)
    finally:
        keras.mixed_precision.set_global_policy(before)


def test_errors_while_building_a_model():
    """Malformed arguments are refused when the layer is built, not when it runs."""
    pixels = keras.Input([5, 5, 2], dtype="int32")
    with pytest.raises(ValueError, match="padding must be"):
        ops.conv2d(pixels, _WEIGHTS["conv2d"], padding="FULL")
    with pytest.raises(TypeError, match="unexpected keyword argument"):
        ops.conv2d(pixels, _WEIGHTS["conv2d"], no_such_argument=1)


# ---- XLA ---------------------------------------------------------------------------------------

_NO_XLA = "Need jit_compile=False, got .* no XLA kernels. Leave jit_compile out of tf.function"


@pytest.mark.parametrize("name", NAMES)
def test_xla_is_refused(name):
    """There are no XLA kernels; the error says so, and what to do."""
    function = tf.function(_wrapper(name), jit_compile=True, autograph=False)
    with pytest.raises(tf.errors.UnimplementedError, match=_NO_XLA):
        function(*map(tf.constant, OPERANDS[name]))


def test_xla_is_refused_wherever_it_is_asked_for():
    """By a function around one of ours, with autograph, and by Keras."""
    pixels = _integers(3, 5, 5, 2)

    @tf.function(jit_compile=True)
    def outer(x):
        return tf.function(_forward)(x)

    with pytest.raises(tf.errors.UnimplementedError, match=_NO_XLA):
        outer(pixels)

    class Own(keras.Model):
        def call(self, x):
            return _forward(x)

    expected = _forward(pixels).numpy().tobytes()
    model = Own()
    model.compile(jit_compile=True)  # the default beside a GPU, of a model that calls ops itself
    with pytest.raises(tf.errors.UnimplementedError, match=_NO_XLA):
        model.predict(pixels, verbose=0)
    model.compile(jit_compile=False)
    assert model.predict(pixels, verbose=0).tobytes() == expected
    model = _network()
    with pytest.warns(UserWarning, match="Model doesn't support `jit_compile=True`. Proceeding"):
        model.compile(jit_compile=True)
    assert model.predict(pixels, verbose=0).tobytes() == expected


def test_xla_is_refused_by_the_runtime():
    """Where a function of ours was traced before: docs/networks.md quotes it."""
    inner = tf.function(_forward)
    pixels = tf.constant(_integers(3, 5, 5, 2))
    inner(pixels)
    text = "Detected unsupported operations when trying to compile graph"
    with pytest.raises(tf.errors.InvalidArgumentError, match=text):
        tf.function(inner, jit_compile=True)(pixels)


# ---- Widths ------------------------------------------------------------------------------------


def test_how_often_widths_are_traced():
    """As an argument once for each; all in one function, and shifts as tensors, once."""
    traces = []

    def convolved(x, width, shift):
        traces.append(width)
        return ops.conv2d(x, _WEIGHTS["conv2d"], accumulator_size=width, mult_shift=shift)

    def counted(function, *calls):
        traces.clear()
        results = [function(*call) for call in calls]
        return len(traces), results

    pixels = tf.constant(_integers(3, 5, 5, 2))
    widths = (8, 10, 12)
    expected = [convolved(pixels, width, 0).numpy() for width in widths]
    single = tf.function(convolved)
    calls = [(pixels, width, 0) for width in widths]
    count, results = counted(single, *calls)
    assert count == 3
    assert counted(single, *calls)[0] == 0
    np.testing.assert_array_equal(results, expected)

    together = tf.function(lambda x: [ops.conv2d(x, _WEIGHTS["conv2d"], accumulator_size=width)
                                      for width in widths])  # fmt: skip
    np.testing.assert_array_equal(together(pixels), expected)
    together(pixels)
    assert together.experimental_get_tracing_count() == 1

    shifts = [tf.constant(shift, tf.int8) for shift in (0, 1, 2)]
    shifted = tf.function(lambda x, shift: convolved(x, 10, shift))
    count, results = counted(shifted, *((pixels, shift) for shift in shifts))
    assert count == 1
    np.testing.assert_array_equal(results, [convolved(pixels, 10, s).numpy() for s in (0, 1, 2)])


# ---- One order, one address --------------------------------------------------------------------


def test_the_layer_norm_s_scalars_have_one_order():
    """The wrapper's arguments and the tables' keywords stand as the op registers its inputs."""
    _, *scalars, lut, name = inspect.signature(bitfold.raw_ops.h_layernorm).parameters
    assert (len(scalars), lut, name) == (14, "lut", "name")
    assert list(inspect.signature(ops.layer_norm).parameters) == ["value", lut, *scalars, name]
    assert list(tables.layer_norm(4).scalars) == scalars


@pytest.mark.parametrize("name", ops.__all__)
def test_functions_have_their_public_address(name):
    """Help, tracebacks and pickles name bitfold.ops, wherever a function's text lies."""
    function = getattr(ops, name)
    assert (function.__module__, function.__qualname__) == ("bitfold.ops", name)
    assert pickle.loads(pickle.dumps(function)) is function


def test_everything_public_is_tested():
    """The op of every wrapper states it in its own tests."""
    assert sorted(bitfold.ops.__all__) == sorted(WRAPPERS), (
        "state the wrapper in WRAPPERS of its op's tests/python/test_*.py"
    )
