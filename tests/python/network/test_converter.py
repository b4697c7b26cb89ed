# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Quantisation of Keras models: forms of models and data, silence, and refusals."""

from __future__ import annotations

import io
import logging
import os
import sys
import threading

import forks
import keras
import numpy as np
import pytest
import tensorflow as tf
from keras import layers

from bitfold.network import console
from bitfold.network.converter import convert_keras, convert_keras_to_floats
from bitfold.network.model_file import read


@pytest.fixture(scope="module")
def images():
    """Twenty small images."""
    return np.random.default_rng(0).random((20, 6, 6, 3), np.float32)


@pytest.fixture(scope="module")
def sequential():
    """A sequential model with batch normalisation and an input whose name no signature takes."""
    keras.utils.set_random_seed(2)
    return keras.Sequential(
        [
            layers.Input((6, 6, 3), name="an image"),
            layers.Conv2D(4, 3, use_bias=False),
            layers.BatchNormalization(),
            layers.ReLU(6),
            layers.GlobalAveragePooling2D(),
            layers.Dense(5, name="scores"),
        ]
    )


@pytest.fixture(scope="module")
def branched():
    """A functional model whose names are not in alphabetical order."""
    z, a, m = (keras.Input((size,), name=name) for size, name in ((4, "z"), (3, "a"), (5, "m")))
    outputs = [
        layers.Dense(2, name="zz")(z),
        layers.Dense(3, name="aa")(a),
        layers.Dense(4, name="mm")(m),
    ]
    return keras.Model([z, a, m], outputs)


def batch(count: int = 8) -> dict[str, np.ndarray]:
    """Return data for the inputs of the branched model."""
    rng = np.random.default_rng(1)
    sizes = {"z": 4, "a": 3, "m": 5}
    # Ranges differ, so that exchanged inputs show.
    return {n: (10.0**i * rng.random((count, s))) for i, (n, s) in enumerate(sizes.items())}


@pytest.mark.parametrize(("bits", "dtype", "bias"), [(8, "int8", "int32"), (16, "int16", "int64")])
def test_both_forms(sequential, images, bits, dtype, bias):
    """Inputs and outputs are integers; normalisation and activation are in the convolution."""
    before = [weights.copy() for weights in sequential.get_weights()]
    graph = read(convert_keras(sequential, images, activation_bits=bits))
    assert [graph.tensors[i].dtype for i in (*graph.inputs, *graph.outputs)] == [dtype] * 2
    assert (graph.input_names, graph.output_names) == (("an_image",), ("scores",))
    assert graph.tensors[graph.inputs[0]].unknown == (0,)
    convolution = graph.operators[0]
    assert (convolution.kind, convolution.options["fused_activation_function"]) == (
        "CONV_2D",
        "RELU6",
    )
    assert graph.tensors[convolution.inputs[2]].dtype == bias
    kinds = {operator.kind for operator in graph.operators}
    assert not kinds & {"MUL", "ADD", "SUB", "RELU6", "QUANTIZE", "DEQUANTIZE"}
    for now, then in zip(sequential.get_weights(), before, strict=True):
        np.testing.assert_array_equal(now, then)


@pytest.mark.parametrize("bits", [8, 16])
def test_every_form_of_data_calibrates_alike(sequential, images, bits):
    """An array, batches, a generator that runs once, datasets with and without labels."""
    labels = np.zeros(20)
    dataset = tf.data.Dataset.from_tensor_slices
    forms = [
        images,
        tf.constant(images),
        [images[:7], images[7:]],
        {"an image": images},
        (images[i : i + 4].astype(np.float64) for i in range(0, 20, 4)),
        dataset(images).batch(6),
        dataset((images, labels)).batch(6),
        dataset((images, labels, labels)).batch(6),
        iter([(images, labels)]),
        dataset({"an image": images}).batch(20),
    ]
    files = {convert_keras(sequential, form, activation_bits=bits) for form in forms}
    assert len(files) == 1


def test_several_inputs(branched):
    """They keep their names, whichever order the file has them in, and take their own data."""
    data = batch()
    in_order = list(data.values())
    dataset = tf.data.Dataset.from_tensor_slices((tuple(in_order), np.zeros(8))).batch(3)
    forms = [data, in_order, tuple(in_order), [data], dataset, iter([in_order])]
    files = {convert_keras(branched, form) for form in forms}
    assert len(files) == 1
    graph = read(files.pop())
    scales = {
        n: graph.tensors[i].scale for n, i in zip(graph.input_names, graph.inputs, strict=True)
    }
    for name in data:
        assert name == min(data, key=lambda other: abs(scales[name] - data[other].max() / 255))
    sizes = {
        n: graph.tensors[i].shape[1] for n, i in zip(graph.output_names, graph.outputs, strict=True)
    }
    assert sizes == {"zz": 2, "aa": 3, "mm": 4}


def test_inputs_in_a_dictionary():
    """A model that was made of a dictionary gets one."""
    inputs = {"b": keras.Input((4,), name="b"), "a": keras.Input((4,), name="a")}
    model = keras.Model(inputs, layers.Subtract()([inputs["b"], inputs["a"]]))
    data = {"b": np.full((4, 4), 9.0), "a": np.ones((4, 4))}
    graph = read(convert_keras(model, data))
    scales = {
        n: graph.tensors[i].scale for n, i in zip(graph.input_names, graph.inputs, strict=True)
    }
    assert scales["b"] > 5 * scales["a"]


def test_whole_numbers_and_other_types(sequential, images):
    """Images of bytes and half-precision data are taken as numbers."""
    for data in (np.arange(108, dtype=np.uint8).reshape(1, 6, 6, 3), images.astype(np.float16)):
        assert read(convert_keras(sequential, data)).operators


NAN = np.full((2, 6, 6, 3), np.nan)


@pytest.mark.parametrize(
    ("data", "said"),
    [
        ([], "at least one example"),
        (np.zeros((0, 6, 6, 3)), "at least one example"),
        (iter(()), "at least one example"),
        (
            np.zeros((6, 6, 3)),
            r"shape \[batch, 6, 6, 3\] for the input 'an image', got \[6, 6, 3\]",
        ),
        (np.zeros((2, 6, 5, 3)), r"got \[2, 6, 5, 3\]"),
        ([np.zeros((2, 6, 6, 3)), np.zeros((2, 6, 6))], r"got \[2, 6, 6\]"),
        (NAN, "finite calibration data for the input 'an image', got 216 values"),
        (np.full((1, 6, 6, 3), 1e300), "finite calibration data"),
        ((x for x in (NAN,)), "finite calibration data"),
        (np.zeros((2, 6, 6, 3), complex), "data that float32 holds .* got complex128"),
        (np.full((2, 6, 6, 3), "a"), "data that float32 holds"),
        ({"image": np.zeros((2, 6, 6, 3))}, "calibration data for an image, got image"),
        ([[np.zeros((2, 6, 6, 3))] * 2], "for 1 inputs, got 2 arrays"),
        (tf.data.Dataset.from_tensors(0).repeat(), "with an end"),
        (5, "arrays, a dataset or batches, got int"),
        (None, "arrays, a dataset or batches, got NoneType"),
    ],
)
def test_data_that_cannot_calibrate(sequential, data, said):
    """A sentence that says what came instead."""
    with pytest.raises(ValueError, match=f"^Need .*{said}"):
        convert_keras(sequential, data)


def test_data_that_does_not_fit_several_inputs(branched):
    """A number of arrays, a number of examples or a pair that is taken for inputs and labels."""
    data = batch()
    in_order = list(data.values())
    with pytest.raises(ValueError, match=r"for 3 inputs, got 2 arrays"):
        convert_keras(branched, in_order[:2])
    with pytest.raises(ValueError, match=r"as many examples for each input, got \[8, 8, 7\]"):
        convert_keras(branched, {**data, "m": data["m"][:7]})
    with pytest.raises(ValueError, match=r"is taken as \(inputs, labels, weights\)"):
        convert_keras(branched, iter([tuple(in_order)]))


def test_other_arguments(sequential, images):
    """Bits that no form has, and models whose inputs are not known."""
    for bits in (4, 32, "8", None):
        with pytest.raises(ValueError, match=r"^Need activation_bits of 8 or 16, got"):
            convert_keras(sequential, images, activation_bits=bits)

    class Own(keras.Model):
        def call(self, x):
            return x

    for model in (Own(), keras.Sequential([layers.Dense(2)]), "model", None):
        with pytest.raises(ValueError, match=r"^Need a functional or sequential Keras model"):
            convert_keras(model, images)


class _Foreign(layers.Layer):
    def call(self, x):
        return tf.raw_ops.Betainc(a=x, b=x, x=x)


def test_a_failure_tells_all(capfd):
    """The error has the converter's words and what it printed; the console has nothing."""
    model = keras.Sequential([layers.Input((3,)), _Foreign()])
    with pytest.raises(
        RuntimeError, match=r"converter failed on Sequential(.|\n)*It printed:\n.*\S"
    ):
        convert_keras(model, np.random.default_rng(0).random((4, 3)))
    assert capfd.readouterr() == ("", "")


def test_an_error_of_the_data_passes_unchanged(sequential, images):
    """What a generator raises reaches the caller as it is."""

    def broken():
        yield images
        raise KeyError("mine")

    with pytest.raises(KeyError, match="mine"):
        convert_keras(sequential, broken())


def test_lines_reach_the_logger(sequential, images):
    """What is kept from the console can be had, with warnings told from the rest."""
    lines = []

    class Keep(logging.Handler):
        def emit(self, record):
            lines.append((record.levelno, record.getMessage()))

    logger = logging.getLogger("bitfold.converter")
    handler = Keep()
    logger.addHandler(handler)
    level = logger.level
    logger.setLevel(logging.DEBUG)
    try:
        convert_keras(sequential, images)
    finally:
        logger.setLevel(level)
        logger.removeHandler(handler)
    assert {found for found, _ in lines} <= {logging.DEBUG, logging.WARNING}
    assert any("input_inference_type" in line for _, line in lines)


SILENT = """
import os, sys
if "closed" in sys.argv:
    os.close(1), os.close(2)
    sys.stdout = sys.stderr = None
import logging, numpy as np, keras
from bitfold.network.converter import convert_keras, convert_keras_to_floats
model = keras.Sequential([keras.layers.Input((4,), name="an input"), keras.layers.Dense(2)])
for bits in (8, 16):
    file = convert_keras(model, np.random.default_rng(0).random((8, 4)), activation_bits=bits)
    assert file[4:8] == b"TFL3"
if "closed" in sys.argv:
    for number in (1, 2):
        try:
            os.fstat(number)
        except OSError:
            continue
        os._exit(3)
    os._exit(0)
print("out", flush=True)
print("err", file=sys.stderr, flush=True)
os.system("echo out too; echo err too >&2")
"""


@pytest.mark.parametrize("form", ["open", "closed"])
def test_nothing_is_printed(form):
    """A process of its own sees only its own lines, after a conversion as before."""
    run = forks.run(SILENT, form)
    assert run.returncode == 0, run.stderr
    if form == "open":
        assert run.stdout.split("\n") == ["out", "out too", ""]
        # The runtime prints some lines when it is loaded, before it knows of levels.
        kept = [
            x for x in run.stderr.split("\n") if not x.startswith(("WARNING: All log", "I0000"))
        ]
        assert kept == ["err", "err too", ""]


# ---- The capture alone ---------------------------------------------------------------------------


def test_capture_restores_after_errors(capfd):
    """Descriptors, streams and loggers are as before, and the text is there."""
    streams = sys.stdout, sys.stderr
    with pytest.raises(ZeroDivisionError), console.captured(("talker",)) as kept:  # noqa: PT012
        print("python")
        os.write(2, b"compiled\n")
        logging.getLogger("talker").warning("record %d", 1)
        1 / 0  # noqa: B018
    assert kept.text == "python\ncompiled\nWARNING: record 1\n"
    assert (sys.stdout, sys.stderr) == streams
    print("after")
    os.write(1, b"also\n")
    sys.stdout.flush()
    assert sorted(capfd.readouterr().out.split()) == ["after", "also"]
    assert not logging.getLogger("talker").filters


def test_other_threads_print_where_they_did(capfd):
    """What they write to the streams of Python goes to the console during a capture."""
    with console.captured() as kept:
        thread = threading.Thread(target=lambda: print("theirs", flush=True))
        print("ours")
        thread.start()
        thread.join()
    assert kept.text == "ours\n"
    assert capfd.readouterr().out == "theirs\n"


def test_streams_that_are_no_files(monkeypatch):
    """A notebook's streams have no descriptor; others' text still reaches them."""
    notebook = io.StringIO()
    monkeypatch.setattr(sys, "stdout", notebook)
    with console.captured() as kept:
        kept_stream = sys.stdout
        print("ours")
        thread = threading.Thread(target=lambda: print("theirs"))
        thread.start()
        thread.join()
    assert sys.stdout is notebook
    assert (kept.text, notebook.getvalue()) == ("ours\n", "theirs\n")
    # Somebody may have kept the stream.
    kept_stream.write("late\n")
    assert notebook.getvalue() == "theirs\nlate\n"


def test_captures_take_turns(capfd):
    """Several threads that capture get their own text each."""
    texts = {}

    def capture(number):
        with console.captured() as kept:
            print(number)
            os.write(1, f"{number}\n".encode())
        texts[number] = kept.text

    threads = [threading.Thread(target=capture, args=(i,)) for i in range(8)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert texts == {i: f"{i}\n{i}\n" for i in range(8)}
    assert capfd.readouterr() == ("", "")


def test_floats(sequential, images):
    """Without quantisation: tensors in float32, of the same names as with it, and silence."""
    floats = read(convert_keras_to_floats(sequential))
    stored = read(convert_keras(sequential, images))
    written = [[g.tensors[o.outputs[0]] for o in g.operators] for g in (floats, stored)]
    assert [t.name for t in written[0]] == [t.name for t in written[1]]
    assert {t.dtype.name for t in written[0]} == {"float32"}
    assert floats.input_names == stored.input_names
    assert not any(t.is_quantised for t in written[0])
    with pytest.raises(ValueError, match="Need a functional or sequential Keras model"):
        convert_keras_to_floats("a model")
