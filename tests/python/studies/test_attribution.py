# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What each cause adds on the way from a model in floats, beside what anyone computes by hand."""

from __future__ import annotations

import math

import keras
import numpy as np
import pytest
import tensorflow as tf

import bitfold
from bitfold.network import evaluation, model_file
from bitfold.network.converter import convert_keras_to_floats
from bitfold.network.kernels import FloatModel
from bitfold.studies import attribution, signals
from bitfold.studies.attribution import attribute
from bitfold.studies.causes import causes_of
from bitfold.studies.partners import partners_of

# The layers with an accumulator, and their places in the file of the model in floats.
LAYERS = {"first": 0, "second": 1, "third": 2, "last": 5}
_KERNELS = tf.lite.experimental.OpResolverType.BUILTIN_WITHOUT_DEFAULT_DELEGATES
NARROW = {
    "16 bits": bitfold.Arithmetic(accumulator_size=16),
    "14 bits, shift 2, unit": bitfold.Arithmetic(
        accumulator_size=14, mult_shift=2, requantisation="unit"
    ),
}


def _model(prefix: str = "") -> keras.Model:
    keras.utils.set_random_seed(7)
    layers = keras.layers
    inputs = keras.Input((8, 8, 3), name="image")
    x = layers.Conv2D(8, 3, padding="same", activation="relu", name=f"{prefix}first")(inputs)
    x = layers.DepthwiseConv2D(3, strides=2, padding="same", name=f"{prefix}second")(x)
    y = layers.Conv2D(8, 1, name=f"{prefix}third")(x)
    x = layers.GlobalAveragePooling2D()(layers.Add()([x, y]))
    return keras.Model(inputs, layers.Dense(6, name=f"{prefix}last")(x))


@pytest.fixture(scope="module")
def images():
    """Calibration and test data."""
    return np.random.default_rng(1).normal(size=(24, 8, 8, 3)).astype(np.float32)


@pytest.fixture(scope="module")
def model():
    """A model in floats."""
    return _model()


@pytest.fixture(scope="module")
def network(model, images):
    """The same, quantised."""
    return bitfold.Network.from_keras(model, calibration=images)


@pytest.fixture(scope="module")
def labels(model, images):
    """What the model in floats says, but for a few images."""
    found = model.predict(images, verbose=0).argmax(1)
    found[:3] = (found[:3] + 1) % 6
    return found


def _examples(images, labels, size=8):
    return list(evaluation.pairs(images, labels, size))


def _signals(file: bytes, images) -> dict[str, np.ndarray]:
    """Return what the layers of a model in floats write, as the runtime's interpreter does."""
    interpreter = tf.lite.Interpreter(
        model_content=file,
        experimental_op_resolver_type=_KERNELS,
        experimental_preserve_all_tensors=True,
        num_threads=1,
    )
    interpreter.allocate_tensors()
    operators = model_file.read(file).operators
    found = {name: [] for name in LAYERS}
    for image in images:
        interpreter.set_tensor(interpreter.get_input_details()[0]["index"], image[None])
        interpreter.invoke()
        for name, position in LAYERS.items():
            found[name].append(interpreter.get_tensor(operators[position].outputs[0]))
    return {name: np.concatenate(values) for name, values in found.items()}


def _ratio(network, images, name: str, signals: np.ndarray) -> float:
    """Return the signal-to-error ratio of a layer."""
    layer = next(layer for layer in network.layers if layer.name == name)
    stored = network.trace(images)[layer.output_indices[0]].astype(np.float64)
    reals = (stored - layer.output_zero_point) * layer.output_scale
    power = error = 0.0
    for signal, real in zip(signals.astype(np.float64), reals, strict=True):
        power += np.square(signal.reshape(-1)).sum()
        error += np.square((real - signal).reshape(-1)).sum()
    return 10 * math.log10(power / error)


def test_each_cause_adds_to_those_before_it(network, model, images, labels):
    """And the whole is the arithmetic itself, metric and layers."""
    found = attribute(network, NARROW, model, _examples(images, labels), evaluation.Accuracy)
    assert found.missing == ()
    assert found.float_metric == 21 / 24
    assert [a.name for a in found.attributions] == list(NARROW)
    assert [[c.name for c in a.causes] for a in found.attributions] == [
        ["quantisation", "accumulator"],
        ["quantisation", "shift", "accumulator", "unit requantisation"],
    ]
    signals = _signals(convert_keras_to_floats(model), images)
    for one, arithmetic in zip(found.attributions, NARROW.values(), strict=True):
        exact = bitfold.Arithmetic(mult_shift=arithmetic.mult_shift)
        wrapped = bitfold.Arithmetic(
            accumulator_size=arithmetic.accumulator_size, mult_shift=arithmetic.mult_shift
        )
        states = {
            "quantisation": bitfold.Arithmetic(),
            "shift": exact,
            "accumulator": wrapped,
            "unit requantisation": arithmetic,
        }
        # Metrics are so many of 24 images.
        changes, before = 0, 21
        for cause in one.causes:
            state = network.with_arithmetic(states[cause.name])
            assert cause.metric == state.evaluate(images, labels)
            assert set(cause.signal_to_error) == set(LAYERS)
            for name, ratio in cause.signal_to_error.items():
                assert ratio == _ratio(state, images, name, signals[name])
            right = round(24 * cause.metric)
            changes, before = changes + right - before, right
        end = network.with_arithmetic(arithmetic).evaluate(images, labels)
        assert (21 + changes) / 24 == one.causes[-1].metric == end


def test_batches_make_no_difference(network, model, images, labels):
    """To the last bit: each image is added up by itself. Without labels there is no metric."""
    whole = attribute(network, NARROW, model, _examples(images, labels, 24), evaluation.Accuracy)
    advanced = []
    parts = attribute(
        network,
        NARROW,
        convert_keras_to_floats(model),
        [(images[i : i + 5], None) for i in range(0, 24, 5)],
        advance=advanced.append,
    )
    assert advanced == [5, 5, 5, 5, 4]
    assert parts.float_metric is None
    for one, other in zip(whole.attributions, parts.attributions, strict=True):
        for cause, same in zip(one.causes, other.causes, strict=True):
            assert same.metric is None
            assert cause.signal_to_error == same.signal_to_error


def test_parts_of_batches_make_no_difference(network, model, images, labels, monkeypatch):
    """Large layers are compared in parts of a batch, and in blocks."""
    whole = attribute(network, NARROW, model, _examples(images, labels, 24), evaluation.Accuracy)
    monkeypatch.setattr(attribution, "_ELEMENTS", 7 * (8 * 8 * 8 + 2 * 4 * 4 * 8))
    monkeypatch.setattr(signals, "_BLOCK", 3 * 8 * 8 * 8)
    parts = attribute(network, NARROW, model, _examples(images, labels, 24), evaluation.Accuracy)
    assert parts == whole


def test_a_state_without_wrong_sums_is_not_computed(model, network, images, labels, monkeypatch):
    """It is the state before it, as computing it would show; one in half precision is its own."""
    asked = {
        "32 bits": bitfold.Arithmetic(accumulator_size=32),
        "32 bits, shift 2": bitfold.Arithmetic(accumulator_size=32, mult_shift=2),
        "30 bits, unit": bitfold.Arithmetic(accumulator_size=30, requantisation="unit"),
        "half precision": bitfold.Arithmetic(use_fp16_acc=True),
    }
    computed = []
    in_state = attribution._in_state

    def counted(network, state):
        computed.append(state)
        return in_state(network, state)

    monkeypatch.setattr(attribution, "_in_state", counted)
    examples = _examples(images, labels)
    every = attribute(network, asked, model, examples, evaluation.Accuracy)
    assert len(computed) == len(set(computed)) == 7
    computed.clear()
    known = attribute(
        network, asked, model, examples, evaluation.Accuracy, without_wrong_sums=set(asked)
    )
    assert len(computed) == len(set(computed)) == 5
    assert known == every


def test_forms_of_a_float_model(network, model, images, tmp_path):
    """A Keras model, a file's path, its bytes; inputs by name, and as stored integers."""
    file = convert_keras_to_floats(model)
    (tmp_path / "float.tflite").write_bytes(file)
    plain = {"8 bits": bitfold.Arithmetic(accumulator_size=8)}
    found = [
        attribute(network, plain, form, [(batch, None)]).attributions
        for form in (model, file, tmp_path / "float.tflite", str(tmp_path / "float.tflite"))
        for batch in (images, {"image": images}, tf.constant(images))
    ]
    assert all(one == found[0] for one in found)
    # Stored integers stand for what they say, and not for what they were rounded from.
    port = network.inputs[0]
    stored = np.clip(np.rint(images / port.scale) + port.zero_point, -128, 127).astype(np.int8)
    real = (np.float32(port.scale) * (stored.astype(np.float32) - port.zero_point)).astype("f4")
    assert (
        attribute(network, plain, file, [(stored, None)]).attributions
        == attribute(network, plain, file, [(real, None)]).attributions
    )


@pytest.mark.parametrize("bits", [8, 16])
def test_names_that_differ(model, images, bits):
    """Files of a converter that calls everything differently match by structure."""
    network = bitfold.Network.from_keras(_model("other_"), images, activation_bits=bits)
    floats = FloatModel(convert_keras_to_floats(model))
    found = partners_of(network, floats.graph)
    assert found.missing == ()
    assert list(found.tensors) == [f"other_{name}" for name in LAYERS]
    own = partners_of(bitfold.Network.from_keras(model, images), floats.graph)
    assert list(own.tensors.values()) == list(found.tensors.values())


def test_a_file_of_the_converter(model, images, labels):
    """Quantised by whoever has the converter, matched with the float file of the same."""
    converter = tf.lite.TFLiteConverter.from_keras_model(model)
    floats = converter.convert()
    converter.optimizations = [tf.lite.Optimize.DEFAULT]
    converter.representative_dataset = lambda: ([image[None]] for image in images)
    converter.inference_input_type = converter.inference_output_type = tf.int8
    converter.target_spec.supported_ops = [tf.lite.OpsSet.TFLITE_BUILTINS_INT8]
    network = bitfold.Network.from_tflite(converter.convert())
    found = attribute(network, NARROW, floats, _examples(images, labels), evaluation.Accuracy)
    assert found.missing == ()
    assert found.float_metric == 21 / 24
    for one in found.attributions:
        first, last = one.causes[0], one.causes[-1]
        assert min(first.signal_to_error.values()) > 20
        assert last.metric == network.with_arithmetic(NARROW[one.name]).evaluate(images, labels)


def test_layers_without_a_partner(network, model, images):
    """Are named, and the others compared; other weights are no partner, whatever their shape."""
    other = _model("strange_")
    for layer in other.layers:
        if layer.name.endswith("third"):
            kernel, bias = layer.get_weights()
            layer.set_weights([kernel[..., ::-1], bias])
    found = attribute(network, NARROW, other, [(images, None)])
    assert found.missing == ("third",)
    assert set(found.attributions[0].causes[0].signal_to_error) == set(LAYERS) - {"third"}
    stranger = keras.Sequential([keras.Input((8, 8, 3)), keras.layers.GlobalAveragePooling2D()])
    with pytest.raises(ValueError, match="found none of first, second, third, last"):
        attribute(network, NARROW, stranger, [(images, None)])


def test_causes(network):
    """One that changes nothing is left out; an arithmetic by layer is one all the way."""

    def names(asked) -> list[str]:
        return [name for name, _ in causes_of(network, asked)]

    assert names(bitfold.Arithmetic()) == ["quantisation"]
    assert names(bitfold.Arithmetic(mult_shift=2)) == ["quantisation", "shift"]
    assert names(bitfold.Arithmetic(use_fp16_acc=True)) == ["quantisation", "accumulator"]
    assert names(bitfold.Arithmetic(additions="unit")) == ["quantisation", "unit requantisation"]
    mixed = {
        "first": bitfold.Arithmetic(mult_shift=1),
        "last": bitfold.Arithmetic(accumulator_size=20, requantisation="unit"),
    }
    steps = causes_of(network, mixed)
    layers = [layer.name for layer in network.layers]
    assert [name for name, _ in steps] == [
        "quantisation", "shift", "accumulator", "unit requantisation"
    ]  # fmt: skip
    shifted, wrapped, last = (dict(zip(layers, state, strict=True)) for _, state in steps[1:])
    assert shifted["first"] == bitfold.Arithmetic(mult_shift=1)
    assert shifted["last"] == bitfold.Arithmetic()
    assert wrapped["last"] == bitfold.Arithmetic(accumulator_size=20)
    assert last["last"] == mixed["last"]
    assert last["second"] == bitfold.Arithmetic()


def test_refusals(network, model, images, tmp_path):
    """Of what is no model in floats, and of one that takes other images."""

    def found(float_model, batch=images):
        return attribute(network, NARROW, float_model, [(batch, None)])

    with pytest.raises(ValueError, match="Need a model in float32, got tensor"):
        found(network.model_file)
    with pytest.raises(ValueError, match="identifier"):
        found(b"no model at all")
    with pytest.raises(OSError, match="nowhere"):
        found(tmp_path / "nowhere.tflite")
    with pytest.raises(ValueError, match="functional or sequential Keras model"):
        found(3)
    two = keras.Model(
        [model.inputs[0], side := keras.Input((4,))],
        keras.layers.Concatenate()([model.outputs[0], side]),
    )
    with pytest.raises(ValueError, match="Need a float model of the inputs"):
        found(two)
    larger = keras.Sequential(
        [keras.Input((9, 9, 3)), keras.layers.Cropping2D(((0, 1), (0, 1))), model]
    )
    with pytest.raises(ValueError, match=r"Need images for tensor .* got \(8, 8, 3\)"):
        found(larger)


def test_tensors_of_a_float_model(model, images):
    """All that the interpreter computes can be seen."""
    file = convert_keras_to_floats(model)
    floats = FloatModel(file)
    outputs = [floats.graph.operators[position].outputs[0] for position in LAYERS.values()]
    tensors = floats([images[:1]], outputs)
    for tensor, expected in zip(tensors, _signals(file, images[:1]).values(), strict=True):
        np.testing.assert_array_equal(tensor, expected)
    with pytest.raises(ValueError, match="Need a model in floats that the runtime's kernel takes"):
        floats([images[:1, :, :, :2]], outputs)
