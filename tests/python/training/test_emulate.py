# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Models in training are Keras models: they fit, share variables, are saved and loaded."""

from __future__ import annotations

import keras
import models
import numpy as np
import pytest
import tensorflow as tf

import bitfold
from bitfold import training

LABELS = np.arange(models.IMAGES) % 5


@keras.saving.register_keras_serializable("bitfold_tests")
class _Magnitudes:
    """A penalty on the magnitudes of filters."""

    def __init__(self, factor: float) -> None:
        self.factor = factor

    def __call__(self, layer: training.LayerIntegers) -> tf.Tensor:
        return self.factor * tf.reduce_sum(tf.abs(layer.filter) * layer.scales)

    def get_config(self) -> dict:
        return {"factor": self.factor}

    @classmethod
    def from_config(cls, config: dict) -> _Magnitudes:
        return cls(**config)


def _compiled(model: keras.Model, rate: float = 0.01) -> keras.Model:
    loss = keras.losses.SparseCategoricalCrossentropy(from_logits=True)
    model.compile(keras.optimizers.SGD(rate, momentum=0.9), loss, metrics=["accuracy"])
    return model


@pytest.fixture(scope="module")
def trained() -> dict:
    """A model, the same in integers after some steps, and what it saw on the way."""
    keras.utils.set_random_seed(0)
    model, images = models.residual(), models.images()
    before = [variable.numpy() for variable in model.weights]
    emulated = training.emulate(
        model,
        bitfold.Arithmetic(accumulator_size=18),
        images,
        gradient="zero_where_wrapped",
        ranges="learned",
        penalty={"CONV_2D": _Magnitudes(1e-4)},
    )
    stop = keras.callbacks.TerminateOnNaN()
    history = _compiled(emulated).fit(
        images, LABELS, epochs=20, batch_size=6, verbose=0, callbacks=[stop]
    )
    return {"model": model, "emulated": emulated, "before": before, "history": history.history}


def test_fit_lowers_the_loss(trained):
    """A dozen images are learned."""
    losses = trained["history"]["loss"]
    assert losses[-1] < losses[0] / 2


def test_variables_are_those_of_the_model(trained):
    """Kernels, biases, normalisations: what one trains the other has, moving statistics too."""
    model, emulated = trained["model"], trained["emulated"]
    own = {id(variable) for variable in emulated.weights}
    for variable, before in zip(model.weights, trained["before"], strict=True):
        if "seed" in variable.path:
            continue
        assert id(variable) in own, variable.path
        assert not np.array_equal(variable.numpy(), before), variable.path
    scales = [v for v in emulated.trainable_variables if v.path.endswith("log_scale")]
    assert len(scales) == 7
    assert all(scale.numpy() != 0 for scale in scales)


def test_network_after_training(trained):
    """What comes out of training is the network, on bits."""
    images = models.images(seed=1)
    network = bitfold.Network.from_keras(trained["emulated"])
    assert np.array_equal(network(images), trained["emulated"].predict(images, verbose=0))


def test_saved_and_loaded(trained, tmp_path):
    """A .keras file and a file of weights keep everything; the loaded model trains on."""
    emulated, images = trained["emulated"], models.images()
    expected = emulated.predict(images, verbose=0)
    emulated.save(tmp_path / "model.keras")
    loaded = keras.models.load_model(tmp_path / "model.keras")
    assert np.array_equal(loaded.predict(images, verbose=0), expected)
    assert training.summarise(loaded) == training.summarise(emulated)
    loaded.fit(images, LABELS, batch_size=6, verbose=0)
    emulated.save_weights(tmp_path / "model.weights.h5")
    loaded.load_weights(tmp_path / "model.weights.h5")
    assert np.array_equal(loaded.predict(images, verbose=0), expected)


def test_loaded_model_of_every_kind(tmp_path):
    """Layers of all kinds come back from their configurations."""
    images = models.images()
    for make in (models.windows, models.functions, models.nested):
        emulated = training.emulate(make(), None, images)
        emulated.save(tmp_path / "model.keras")
        loaded = keras.models.load_model(tmp_path / "model.keras")
        found, expected = (keras.tree.flatten(m(images)) for m in (loaded, emulated))
        for got, value in zip(found, expected, strict=True):
            assert np.array_equal(got, value)


def test_averaged_ranges_and_statistics_move_only_in_training():
    """Evaluation changes nothing; frozen layers keep their statistics."""
    model, images = models.residual(), models.images()
    emulated = training.emulate(model, None, images, momentum=0.5)
    model.get_layer("norm").trainable = False
    states = {v.path: v.numpy() for v in emulated.non_trainable_variables}
    emulated(images)
    assert all(np.array_equal(states[v.path], v) for v in emulated.non_trainable_variables)
    emulated(images * 1.5, training=True)
    moved = {
        v.path for v in emulated.non_trainable_variables if not np.array_equal(states[v.path], v)
    }
    assert any(path.startswith("first_norm/moving_") for path in moved)
    assert not any(path.startswith("norm/") for path in moved)
    ranges = [layer.range for layer in emulated.layers if hasattr(layer, "range")]
    assert len(ranges) == 7
    high = ranges[0].high.numpy()
    assert high > images.max()
    assert high < 1.5 * images.max()


def test_statistics_are_those_of_the_convolution():
    """Moving statistics go where the batch normalisation's own would, but for the rounding."""
    images = models.images(count=64)
    model = keras.Sequential(
        [keras.Input(models.SHAPE), keras.layers.Conv2D(3, 3), keras.layers.BatchNormalization()]
    )
    emulated = training.emulate(model, None, images)
    normalisation = model.layers[1]
    normalisation.momentum = 0.0
    raw = model.layers[0](images).numpy()
    emulated(images, training=True)
    mean, variance = raw.mean((0, 1, 2)), raw.var((0, 1, 2))
    assert np.abs(normalisation.moving_mean.numpy() - mean).max() < 0.01
    assert np.abs(normalisation.moving_variance.numpy() / variance - 1).max() < 0.02


def test_summary_says_what_stays_in_floats():
    """Layers without a form in integers are listed as such."""
    emulated = training.emulate(models.nested(), None, models.images())
    floats = [row.name for row in training.summarise(emulated) if row.is_float]
    assert floats == ["input_norm", "normalised"]
    assert [layer.called for layer in training.emulated_layers(emulated)] == [
        "first",
        "separable/depthwise",
        "separable/pointwise",
        "last",
    ]


def test_original_keeps_its_calls():
    """The given model is as it was: a layer's output is still one tensor."""
    model = models.residual()
    expected = model(models.images())
    training.emulate(model, None, models.images())
    assert model.get_layer("mean").output is not None
    assert np.array_equal(model(models.images()), expected)


@pytest.mark.parametrize(
    ("keywords", "error", "words"),
    [
        ({"gradient": "none"}, ValueError, "Need a gradient of straight"),
        ({"ranges": "seen"}, ValueError, "Need ranges of averaged"),
        ({"momentum": 2}, ValueError, "Need a momentum from 0 to 1"),
        ({"arithmetic": 16}, TypeError, "Need an Arithmetic or a dictionary of them, got 16"),
        ({"arithmetic": {"first": 16}}, TypeError, "Need an Arithmetic for 'first', got 16"),
        (
            {"arithmetic": {"frist": bitfold.Arithmetic()}},
            ValueError,
            "Need a layer, pattern or operator of .*'first'.*, got 'frist'",
        ),
        (
            {"arithmetic": bitfold.Arithmetic(requantisation="unit")},
            ValueError,
            "Need requantisation=\"model\" to train layer 'first'",
        ),
        ({"calibration": None}, ValueError, "Need calibration data"),
        ({"calibration": np.ones((2, 3), np.float32)}, ValueError, "of shape"),
    ],
)
def test_refused(keywords, error, words):
    """What cannot be trained is refused with what is needed."""
    keywords = {"calibration": models.images(count=2), **keywords}
    with pytest.raises(error, match=words):
        training.emulate(models.residual(), **keywords)


@pytest.mark.parametrize("value", [np.nan, np.inf])
def test_weights_that_are_not_finite(value):
    """Are named with their layer and what helps, in training and before it."""
    model = keras.Sequential([keras.Input((4,)), keras.layers.Dense(2, name="dense")])
    images = np.ones((8, 4), np.float32)
    words = "Need weights of layer 'dense' that are finite.* take a lower learning rate"
    emulated = _compiled(training.emulate(model, calibration=images))
    emulated.fit(images, LABELS[:8] % 2, verbose=0)
    model.get_layer("dense").kernel[0, 0].assign(value)
    with pytest.raises(tf.errors.InvalidArgumentError, match=words):
        emulated.fit(images, LABELS[:8] % 2, verbose=0)
    with pytest.raises(tf.errors.InvalidArgumentError, match=words):
        training.emulate(model, calibration=images)
