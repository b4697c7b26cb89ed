# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""A network as its users call it: what goes in, what comes out, where it can be called."""

from __future__ import annotations

import concurrent.futures
import copy
import io
import os
import pickle

import forks
import keras
import numpy as np
import pytest
import support
import tensorflow as tf
from keras import layers

import bitfold
from bitfold import Arithmetic, Network

RANDOM = np.random.default_rng(20261122)
IMAGES = RANDOM.normal(size=(40, 9, 9, 3)).astype(np.float32)


def model_of_one() -> keras.Model:
    """Model of one."""
    keras.utils.set_random_seed(1)
    image = keras.Input((9, 9, 3), name="image")
    x = layers.Conv2D(8, 3, strides=2, padding="same", activation="relu", name="first")(image)
    y = layers.DepthwiseConv2D(3, padding="same", name="depthwise")(x)
    x = layers.Add(name="add")([x, y])
    x = layers.Flatten()(x)
    return keras.Model(image, layers.Dense(5, name="last")(x))


def model_of_two() -> keras.Model:
    """Model of two."""
    keras.utils.set_random_seed(2)
    a, b = keras.Input((6,), name="a"), keras.Input((3,), name="b")
    x = layers.Dense(6, activation="relu", name="wide")(b)
    return keras.Model([a, b], {"sum": layers.Add()([a, x]), "wide": x})


@pytest.fixture(scope="module")
def network() -> Network:
    """Network."""
    return Network.from_keras(model_of_one(), IMAGES)


@pytest.fixture(scope="module")
def stored(network) -> np.ndarray:
    """Stored."""
    return RANDOM.integers(-128, 128, (7, 9, 9, 3), np.int8)


@pytest.fixture(scope="module")
def two() -> Network:
    """Two."""
    a, b = RANDOM.normal(size=(30, 6)), RANDOM.normal(size=(30, 3))
    return Network.from_keras(
        model_of_two(), {"a": a.astype(np.float32), "b": b.astype(np.float32)}
    )


# ---- What it tells of itself ---------------------------------------------------------------------


def test_ports(network):
    """Ports."""
    (port,) = network.inputs
    assert port.shape == (1, 9, 9, 3)
    assert port.dtype == np.int8
    assert port.scale > 0
    assert -128 <= port.zero_point <= 127
    (output,) = network.outputs
    assert output.shape == (1, 5)


def test_layers(network):
    """Layers."""
    first, depthwise, add, last = (
        next(layer for layer in network.layers if layer.name == name)
        for name in ("first", "depthwise", "add", "last")
    )
    assert first.operator == "CONV_2D"
    assert first.filter.shape == (8, 3, 3, 3)
    assert first.bias.shape == (8,)
    assert first.filter_scales.shape == (8,)
    assert first.multiply_adds == 5 * 5 * 8 * 27
    assert depthwise.multiply_adds == 5 * 5 * 8 * 9
    assert last.multiply_adds == 200 * 5
    assert add.multiply_adds == 0
    assert add.filter is None
    assert not first.filter.flags.writeable
    assert [layer.position for layer in network.layers] == sorted(
        layer.position for layer in network.layers
    )


def test_summary(network):
    """Summary."""
    out = io.StringIO()
    network.with_arithmetic({"first": Arithmetic(accumulator_size=18)}).summary(file=out)
    text = out.getvalue()
    assert "accumulator_size=18" in text
    assert "DEPTHWISE_CONV_2D" in text
    assert f"{sum(layer.multiply_adds for layer in network.layers):,}" in text


# ---- Calls ---------------------------------------------------------------------------------------


def test_stored_in_stored_out(network, stored):
    """Stored in stored out."""
    result = network(stored)
    assert result.dtype == tf.int8
    assert result.shape == (7, 5)


def test_floats_in_floats_out(network, stored):
    """Floats in floats out."""
    port, output = network.inputs[0], network.outputs[0]
    real = (port.scale * (stored.astype(np.float64) - port.zero_point)).astype(np.float32)
    result = network(real)
    assert result.dtype == tf.float32
    expected = np.float32(output.scale) * (
        network(stored).numpy().astype(np.float32) - np.float32(output.zero_point)
    )
    np.testing.assert_array_equal(result, expected)


def test_float64_and_lists_are_floats(network):
    """Float64 and lists are floats."""
    image = IMAGES[:1]
    np.testing.assert_array_equal(network(image.astype(np.float64)), network(image))
    np.testing.assert_array_equal(network(image.tolist()), network(image))


@pytest.mark.parametrize("size", [0, 1, 2, 7])
def test_a_batch_of_any_size(network, stored, size):
    """A batch of any size."""
    np.testing.assert_array_equal(network(stored[:size]), network(stored)[:size])


def test_in_a_graph(network, stored):
    """In a graph."""
    assert (tf.function(network)(stored).numpy() == network(stored).numpy()).all()


def test_in_a_pipeline(network, stored):
    """In a pipeline."""
    dataset = tf.data.Dataset.from_tensor_slices(stored).batch(3).map(network).unbatch()
    np.testing.assert_array_equal(np.stack(list(dataset)), network(stored))


def test_on_several_threads(network, stored):
    """On several threads, which make the graphs at the same time, too."""
    fresh = network.with_arithmetic(Arithmetic(accumulator_size=18))
    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        results = list(pool.map(fresh, [stored] * 16))
    for result in results:
        np.testing.assert_array_equal(result, fresh(stored))


def test_copied_and_pickled(network, stored):
    """As its own file, so also for other processes."""
    narrow = network.with_arithmetic({"first": Arithmetic(accumulator_size=12)})
    for other in (copy.deepcopy(narrow), pickle.loads(pickle.dumps(narrow))):
        np.testing.assert_array_equal(other(stored), narrow(stored))


def test_in_a_keras_model(network, tmp_path):
    """In a keras model."""
    image = keras.Input((9, 9, 3))
    model = keras.Model(image, network.as_layer(name="emulated")(image))
    expected = network(IMAGES).numpy()
    np.testing.assert_array_equal(model.predict(IMAGES, verbose=0), expected)
    path = tmp_path / "model.keras"
    model.save(path)
    loaded = keras.models.load_model(path)
    np.testing.assert_array_equal(loaded.predict(IMAGES, verbose=0), expected)


def test_in_a_saved_model_of_another_process(network, stored, tmp_path):
    """In a saved model of another process."""
    module = tf.Module()
    module.call = tf.function(network, input_signature=[tf.TensorSpec([None, 9, 9, 3], tf.int8)])
    tf.saved_model.save(module, str(tmp_path / "saved"))
    np.save(tmp_path / "stored.npy", stored)
    program = (
        "import sys, numpy as np, tensorflow as tf, bitfold\n"
        "loaded = tf.saved_model.load(sys.argv[1] + '/saved')\n"
        "np.save(sys.argv[1] + '/result.npy', loaded.call(np.load(sys.argv[1] + '/stored.npy')))\n"
    )
    support.passes(forks.run(program, str(tmp_path)))
    np.testing.assert_array_equal(np.load(tmp_path / "result.npy"), network(stored))


def test_several_inputs_and_outputs(two):
    """Several inputs and outputs."""
    assert {port.name for port in two.inputs} == {"a", "b"}
    x = {"a": np.ones([4, 6], np.float32), "b": np.ones([4, 3], np.float32)}
    by_name = two(x)
    in_order = two([x[port.name] for port in two.inputs])
    assert set(by_name) == {port.name for port in two.outputs}
    for port, value in zip(two.outputs, in_order, strict=True):
        np.testing.assert_array_equal(by_name[port.name], value)
    predicted = two.predict(x, batch_size=3)
    for name, value in by_name.items():
        np.testing.assert_array_equal(predicted[name], value)


@pytest.mark.parametrize(
    ("x", "error", "text"),
    [
        (np.zeros([2, 9, 9, 3], np.uint8), TypeError, "Need floats, or int8 as stored"),
        (np.zeros([2, 9, 9, 3], np.int32), TypeError, "got int32"),
        (np.zeros([2, 9, 3], np.float32), ValueError, r"of shape \[None, 9, 9, 3\], got"),
        (np.zeros([2, 9, 9, 4], np.int8), ValueError, r"got \[2, 9, 9, 4\]"),
        ({"picture": 0}, ValueError, "Need the inputs"),
    ],
)
def test_other_inputs_are_refused(network, x, error, text):
    """Other inputs are refused."""
    with pytest.raises(error, match=text):
        network(x)


def test_inputs_of_other_counts_are_refused(two):
    """Inputs of other counts are refused."""
    with pytest.raises(ValueError, match="Need a list or a dictionary of the inputs"):
        two(np.zeros([4, 6], np.float32))
    with pytest.raises(ValueError, match="Need as many images for every input"):
        two({"a": np.zeros([4, 6], np.float32), "b": np.zeros([3, 3], np.float32)})


# ---- Traces and sums -----------------------------------------------------------------------------


def test_trace_and_accumulators(network, stored):
    """Trace and accumulators."""
    trace, sums = network.trace(stored), network.accumulators(stored)
    by_name = {layer.name: layer for layer in network.layers}
    (index,) = by_name["first"].output_indices
    assert trace[index].dtype == np.int8
    assert trace[index].shape == (7, 5, 5, 8)
    assert trace[network.outputs[0].index].tobytes() == network(stored).numpy().tobytes()
    assert set(sums) == {layer.position for layer in network.layers if layer.has_accumulator}
    position = by_name["last"].position
    assert sums[position].dtype == np.int32
    assert sums[position].shape == (7, 5)


# ---- Arithmetic ----------------------------------------------------------------------------------


def test_arithmetic_by_layer(network, stored):
    """Arithmetic by layer."""
    wide, narrow = Arithmetic(), Arithmetic(accumulator_size=10)
    changed = network.with_arithmetic({"CONV_2D": narrow, "fir*": wide, "first": narrow})
    arithmetics = {layer.name: layer.arithmetic for layer in changed.layers}
    assert arithmetics["first"] == narrow
    assert arithmetics["last"] == wide
    assert network.layers[0].arithmetic == wide
    sums, exact = changed.accumulators(stored), network.accumulators(stored)
    position = next(layer.position for layer in network.layers if layer.name == "first")
    assert (sums[position] != exact[position]).any()
    assert changed.layers[0].filter is network.layers[0].filter


def test_a_key_that_means_nothing_is_refused(network):
    """A key that means nothing is refused."""
    with pytest.raises(ValueError, match=r"Need a layer, pattern or operator of .*, got 'forst'"):
        network.with_arithmetic({"forst": Arithmetic()})
    with pytest.raises(TypeError, match="Need an Arithmetic"):
        network.with_arithmetic(18)
    with pytest.raises(TypeError, match="Need an Arithmetic for 'first'"):
        network.with_arithmetic({"first": 18})


def test_an_arithmetic_that_a_layer_has_not_names_it():
    """An arithmetic that a layer has not names it."""
    network = Network.from_keras(model_of_one(), IMAGES, activation_bits=16)
    text = r"layer 'first' .operator 0 CONV_2D. in Arithmetic.mult_shift=31.: multipliers must have"
    with pytest.raises(ValueError, match=text):
        network.with_arithmetic(Arithmetic(mult_shift=31))


def test_lines_are_counted_by_layer(network, stored, capfd):
    """Depthwise weights that a narrow accumulator reads with another sign, and nothing printed."""
    narrow = network.with_arithmetic(Arithmetic(accumulator_size=12))
    narrow(stored)
    dataset = tf.data.Dataset.from_tensor_slices(stored).batch(3).map(narrow)
    assert len(list(dataset)) == 3
    assert capfd.readouterr().out == ""
    counts = narrow.warnings()
    assert set(counts) == {"depthwise"}
    # A line for each image of which a window met such a weight.
    assert counts["depthwise"]["corrected_weights"] == 2 * len(stored)
    assert network.warnings() == {}


# ---- Files ---------------------------------------------------------------------------------------


def test_save_and_load(network, stored, tmp_path):
    """Save and load."""
    path = tmp_path / "network.bitfold"
    changed = network.with_arithmetic({"first": Arithmetic(accumulator_size=12, mult_shift=1)})
    changed.save(path)
    loaded = Network.load(path)
    assert [layer.name for layer in loaded.layers] == [layer.name for layer in network.layers]
    assert [layer.arithmetic for layer in loaded.layers] == [
        layer.arithmetic for layer in changed.layers
    ]
    np.testing.assert_array_equal(loaded(stored), changed(stored))
    assert os.listdir(tmp_path) == ["network.bitfold"]


@pytest.mark.parametrize("cut", [0, 10, 1000, -1])
def test_a_damaged_archive_is_a_value_error(network, tmp_path, cut):
    """A damaged archive is a value error."""
    path = tmp_path / "network.bitfold"
    network.save(path)
    path.write_bytes(path.read_bytes()[:cut])
    with pytest.raises(ValueError, match="Need"):
        Network.load(path)


def test_from_a_path_and_from_bytes(network, stored, tmp_path):
    """From a path and from bytes."""
    path = tmp_path / "model.tflite"
    path.write_bytes(network._model)
    for source in (path, str(path), network._model, memoryview(network._model)):
        np.testing.assert_array_equal(Network.from_tflite(source)(stored), network(stored))
    with pytest.raises(OSError, match=r"nowhere\.tflite"):
        Network.from_tflite(tmp_path / "nowhere.tflite")


def test_the_other_way_in_is_named(network, tmp_path):
    """A model, a file or data of one kind where another is taken."""
    path = str(tmp_path / "file")
    network.save(path)
    with pytest.raises(ValueError, match=r"Network\.load reads what Network\.save wrote"):
        Network.from_tflite(path)
    (tmp_path / "file").write_bytes(network.model_file)
    with pytest.raises(ValueError, match=r"a model file; Network\.from_tflite imports it"):
        Network.load(path)
    with pytest.raises(TypeError, match=r"got Sequential; Network\.from_keras quantises"):
        Network.from_tflite(keras.Sequential())
    with pytest.raises(ValueError, match=r"got 'm\.keras'; keras\.models\.load_model reads a file"):
        Network.from_keras("m.keras", np.ones((4, 2)))
    model = keras.Sequential([keras.Input((2,)), keras.layers.Dense(1)])
    with pytest.raises(ValueError, match=r"got 'x\.npz'; bitfold\.data reads files"):
        Network.from_keras(model, "x.npz")


# ---- Evaluation ----------------------------------------------------------------------------------


def test_evaluate(network):
    """Evaluate."""
    outputs = network(IMAGES).numpy()
    labels = outputs.argmax(axis=1)
    assert network.evaluate(IMAGES, labels) == 1.0
    assert network.evaluate(IMAGES, (labels + 1) % 5) == 0.0
    assert network.evaluate(IMAGES, np.eye(5)[labels], batch_size=7) == 1.0
    dataset = tf.data.Dataset.from_tensor_slices((IMAGES, labels)).batch(8)
    assert network.evaluate(dataset) == 1.0
    assert network.evaluate(IMAGES, labels, metric="sparse_categorical_accuracy") == 1.0
    metric = keras.metrics.SparseTopKCategoricalAccuracy(k=2)
    assert network.evaluate(IMAGES, labels, metric=metric) == 1.0
    assert network.evaluate(IMAGES, outputs, metric="mean_absolute_error") == 0.0


@pytest.mark.parametrize(
    ("labels", "text"),
    [
        (None, "Need labels y"),
        (np.zeros(39, int), "Need a label for each image, got 39 for 40"),
        (np.zeros([40, 4]), r"Need labels as integers \[40\] or one-hot \[40, 5\]"),
        (np.arange(40) % 5 + 1, "Need labels below 5, the network's number of outputs, got 5"),
    ],
)
def test_labels_that_do_not_fit_are_refused(network, labels, text):
    """Labels that do not fit are refused."""
    with pytest.raises(ValueError, match=text):
        network.evaluate(IMAGES, labels)


def test_metrics_that_do_not_fit_are_refused(network):
    """By their name, and in words of the caller's; `compile`'s names of accuracy are known."""
    labels = network(IMAGES).numpy().argmax(axis=1)
    assert network.evaluate(IMAGES, labels, metric="accuracy") == 1.0
    assert network.evaluate(IMAGES, np.eye(5)[labels], metric="acc") == 1.0
    with pytest.raises(ValueError, match=r"Need the name of a Keras metric, .*, got 'precise'"):
        network.evaluate(IMAGES, labels, metric="precise")
    shapes = r"labels \[40\] and outputs \[40, 5\], got 'mean_squared_error'"
    with pytest.raises(ValueError, match=shapes):
        network.evaluate(IMAGES, labels, metric="mean_squared_error")
    with pytest.raises(TypeError, match="Need labels as integers or one-hot, got <U"):
        network.evaluate(IMAGES, labels.astype(str))


@pytest.mark.parametrize("size", [1, 3, 40, 1000, None])
def test_predict(network, size):
    """Predict."""
    np.testing.assert_array_equal(network.predict(IMAGES, batch_size=size), network(IMAGES))


def test_predict_of_nothing_and_of_a_dataset(network):
    """Predict of nothing and of a dataset."""
    assert network.predict(IMAGES[:0]).shape == (0, 5)
    dataset = tf.data.Dataset.from_tensor_slices(IMAGES).batch(8)
    np.testing.assert_array_equal(network.predict(dataset), network(IMAGES))


# ---- The package ---------------------------------------------------------------------------------


def test_public_names():
    """Public names."""
    assert bitfold.Network is Network
    assert issubclass(bitfold.UnsupportedModelError, ValueError)
