# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Quantises Keras models by the runtime's own converter.

The converter and what it calls print much. None of it reaches the console: the lines go to the
logger "bitfold.converter", warnings at the level WARNING and the rest at DEBUG, and where a
conversion fails they are part of the error. The logger shows them to handlers of its own,
`logging.getLogger("bitfold.converter").addHandler(logging.StreamHandler())`, and to no others:
libraries set up the root logger without being asked.
"""

from __future__ import annotations

import logging
import os
import re
from collections.abc import Callable, Iterator, Sequence
from typing import Any, TypeVar

import numpy as np
import tensorflow as tf

from bitfold.network import console
from bitfold.network.calibration import Calibration, ModelInput
from bitfold.network.trained import Trained, as_trained, exporting, known_names

_LOGGER = logging.getLogger("bitfold.converter")
# Without a handler, Python prints warnings itself.
_LOGGER.addHandler(logging.NullHandler())
_LOGGER.propagate = False

# Whose records belong to a conversion.
_TALKERS = ("absl", "tensorflow")

_WARNING = re.compile(r"W\d{4} |WARNING:|\S+:\d+: \w*Warning: ")
_ERROR = re.compile(r"[EF]\d{4} |ERROR:|CRITICAL:")
# What of the captured text goes into an error.
_MOST_CHARACTERS = 8000

_Result = TypeVar("_Result")


def convert_keras(model: Any, calibration: Any, *, activation_bits: int = 8) -> bytes:
    """Quantise a Keras model after training.

    Weights have 8 bits and a scale for each output channel; batch normalisation is folded and
    activations are fused. Inputs and outputs are called what they are called in the model. An
    operator that has no quantised form stays in floats.

    Args:
        model: a functional or sequential Keras model that is built; it is not changed.
        calibration: examples of inputs, the batch first, from which the ranges of tensors are
            taken: an array; for several inputs a list of arrays in the order of `model.inputs` or a
            dictionary by name; a `tf.data.Dataset` or an iterable of batches in one of these forms,
            or of pairs of such a batch and labels. All of it is read, once.
        activation_bits: 8, or 16 for tensors of 16 bits.

    Returns:
        The bytes of a model file whose inputs and outputs are integers.

    Raises:
        ValueError: the model has no known inputs, or the calibration data is empty, not finite or
            does not fit them.
        RuntimeError: the converter failed; its own words are part of the message.

    Example:
        >>> import keras, numpy as np
        >>> from bitfold.network.converter import convert_keras
        >>> model = keras.Sequential([keras.Input((4,)), keras.layers.Dense(2)])
        >>> file = convert_keras(model, np.linspace(-1, 1, 80).reshape(20, 4))
        >>> file[4:8]
        b'TFL3'
    """
    if activation_bits not in (8, 16):
        raise ValueError(f"Need activation_bits of 8 or 16, got {activation_bits!r}")
    inputs = model_inputs(model)
    data = Calibration(calibration, inputs)
    try:
        file = _logged(model, lambda: _convert(model, inputs, data, activation_bits))
    except RuntimeError:
        if data.error is None:
            raise
    if data.error is not None:
        raise data.error
    return file


def convert_keras_to_floats(model: Any) -> bytes:
    """Convert a Keras model as `convert_keras` does, but quantise nothing.

    Args:
        model: a functional or sequential Keras model that is built; it is not changed.

    Returns:
        The bytes of a model file that computes in float32. Its tensors are called as those of the
        quantised one.

    Raises:
        ValueError: the model has no known inputs.
        RuntimeError: the converter failed; its own words are part of the message.
    """
    inputs = model_inputs(model)
    return _logged(model, lambda: _converter(model, inputs, _keys_of(inputs)).convert())


def convert_trained(model: Any) -> tuple[bytes, list[Trained]]:
    """Convert a Keras model that was trained in integers.

    The scales are those of training, which layers put down as fake quantisation nodes. An operator
    that was trained in floats stays in floats.

    Args:
        model: what `bitfold.training.emulate` made.

    Returns:
        The bytes of a model file whose inputs and outputs are integers of 8 bits, where they are
        quantised; and what the layers were trained with. Where an integer of the file is another
        than that of training, training's stands in its place.

    Raises:
        RuntimeError: the converter failed, or what it made is another network.
    """
    inputs = model_inputs(model)

    def convert() -> tuple[bytes, list[Trained]]:
        with exporting() as notes:
            converter = _converter(model, inputs, _keys_of(inputs))
        converter.optimizations = [tf.lite.Optimize.DEFAULT]
        converter.inference_input_type = converter.inference_output_type = tf.int8
        file = converter.convert()
        return as_trained(file, notes, known_names(model, notes)), notes

    return _logged(model, convert)


def _logged(model: Any, convert: Callable[[], _Result]) -> _Result:
    """Convert a model; what is printed goes to the logger."""
    failure = None
    with console.captured(_TALKERS) as printed:
        try:
            result = convert()
        except Exception as error:
            failure = error
    for line in printed.text.splitlines():
        if line.strip():
            _LOGGER.log(_level(line), "%s", line)
    if failure is not None:
        said = printed.text.strip()[-_MOST_CHARACTERS:] or "nothing"
        raise RuntimeError(
            f"the runtime's converter failed on {_described(model)}: {failure}\nIt printed:\n{said}"
        ) from failure
    return result


def _level(line: str) -> int:
    if _ERROR.match(line):
        return logging.ERROR
    return logging.WARNING if _WARNING.match(line) else logging.DEBUG


def _described(model: Any) -> str:
    if isinstance(model, str | os.PathLike):
        return f"{os.fspath(model)!r}; keras.models.load_model reads a file"
    return f"{type(model).__name__} {getattr(model, 'name', '')!r}"


def model_inputs(model: Any) -> list[ModelInput]:
    """Return a model's inputs in its order."""
    inputs = getattr(model, "inputs", None)
    if not callable(model) or not inputs:
        raise ValueError(
            "Need a functional or sequential Keras model that is built, with known inputs, got "
            f"{_described(model)}"
        )
    for variable in model.variables:
        if not isinstance(_variable(variable), tf.Variable):
            raise ValueError(
                "Need a Keras model with TensorFlow as its backend, got a variable of "
                f"{type(_variable(variable)).__name__}"
            )
    return [
        ModelInput(entry.name, tuple(entry.shape[1:]), _numpy_type(entry.dtype)) for entry in inputs
    ]


def _numpy_type(dtype: Any) -> np.dtype:
    return np.dtype(tf.as_dtype(dtype).as_numpy_dtype)


def _variable(variable: Any) -> Any:
    """Return the runtime's variable in one of Keras."""
    return (
        getattr(variable, "value", variable) if not isinstance(variable, tf.Variable) else variable
    )


def _convert(
    model: Any, inputs: Sequence[ModelInput], data: Calibration, activation_bits: int
) -> bytes:
    keys = _keys_of(inputs)
    converter = _converter(model, inputs, keys)
    converter.optimizations = [tf.lite.Optimize.DEFAULT]

    def samples() -> Iterator[dict[str, np.ndarray]]:
        for image in data.images():
            yield dict(zip(keys, image, strict=True))

    converter.representative_dataset = samples
    sets = tf.lite.OpsSet
    quantised, stored = (
        (sets.TFLITE_BUILTINS_INT8, tf.int8)
        if activation_bits == 8
        else (sets.EXPERIMENTAL_TFLITE_BUILTINS_ACTIVATIONS_INT16_WEIGHTS_INT8, tf.int16)
    )
    converter.target_spec.supported_ops = [quantised, sets.TFLITE_BUILTINS]
    # Tensors of 16 bits are quantised by the older way in any case; the newer would read the data
    # before that, too.
    converter.experimental_new_quantizer = activation_bits == 8
    converter.inference_input_type = converter.inference_output_type = stored
    return converter.convert()


def _converter(
    model: Any, inputs: Sequence[ModelInput], keys: Sequence[str]
) -> tf.lite.TFLiteConverter:
    """Return a converter that is told of nothing but the model."""
    # Keeps the variables that the function refers to, and nothing else of the model.
    holder = tf.Module()
    holder.kept = [_variable(variable) for variable in model.variables]
    function = _inference(model, inputs, keys)
    return tf.lite.TFLiteConverter.from_concrete_functions([function], holder)


def _keys_of(inputs: Sequence[ModelInput]) -> list[str]:
    """Return what a signature calls the inputs."""
    return _keys([entry.name for entry in inputs])


def _inference(model: Any, inputs: Sequence[ModelInput], keys: Sequence[str]) -> Callable[..., Any]:
    """Return a model as a function of a batch of any size, inputs and outputs by name."""
    signature = [
        tf.TensorSpec((None, *entry.shape), entry.dtype, key)
        for entry, key in zip(inputs, keys, strict=True)
    ]

    # A model whose inputs were given as a dictionary takes one.
    structure = getattr(model, "_inputs_struct", None)
    if not isinstance(structure, dict):
        structure = model.inputs[0] if len(inputs) == 1 else list(model.inputs)

    def serve(*tensors: tf.Tensor) -> dict[str, tf.Tensor]:
        given = tf.nest.pack_sequence_as(structure, tensors)
        results = tf.nest.flatten(model(given, training=False))
        return dict(zip(_output_keys(model, len(results)), results, strict=True))

    # Keras needs no rewriting of Python's control flow.
    return tf.function(serve, input_signature=signature, autograph=False).get_concrete_function()


def _output_keys(model: Any, count: int) -> list[str]:
    """Return what the outputs are called: as the layers that give them."""
    names = list(getattr(model, "output_names", None) or [])
    if not names and count == 1 and model.layers:
        names = [model.layers[-1].name]
    if len(names) != count:
        names = [f"output_{i}" for i in range(count)]
    return _keys(names)


def _keys(names: Sequence[str]) -> list[str]:
    """Return names as a signature takes them, all different."""
    keys: list[str] = []
    for name in names:
        key = plain = re.sub(r"\W|^(?=[\d_])", lambda m: "_" if m[0] else "x", name, flags=re.A)
        for number in range(1, len(names) + 1):
            if key not in keys:
                break
            key = f"{plain}_{number}"
        keys.append(key)
    return keys
