# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Arrays of functional models in .keras files: on bits, packed, and as older files have them."""

from __future__ import annotations

import json
import zipfile

import keras
import numpy as np
import pytest
import tensorflow as tf

from bitfold import ops
from bitfold._frame import array_text
from bitfold._frame.layers import OpLayer

_FILTERS = np.random.default_rng(1).normal(size=(3, 3, 4, 64)).astype(np.float32)


def _model(filters) -> keras.Model:
    pixels = keras.Input([6, 6, 4])
    return keras.Model(pixels, ops.conv2d(pixels, filters, strides=[1, 2], mult_shift=1))


@pytest.mark.parametrize("filters", [_FILTERS, tf.constant(_FILTERS)], ids=["array", "tensor"])
def test_constants_are_packed(filters, tmp_path):
    """The file has the bytes of the filters, and their numbers nowhere as text."""
    model = _model(filters)
    x = np.random.default_rng(2).normal(size=(2, 6, 6, 4)).astype(np.float32)
    expected = model(x).numpy()
    model.save(tmp_path / "model.keras")
    with zipfile.ZipFile(tmp_path / "model.keras") as file:
        text = file.read("config.json").decode()
    assert len(text) < 2 * _FILTERS.nbytes
    assert str(_FILTERS.flat[0].item())[:8] not in text
    for again in (
        keras.models.load_model(tmp_path / "model.keras"),
        keras.models.clone_model(model),
        keras.models.model_from_json(model.to_json()),
    ):
        assert again(x).numpy().tobytes() == expected.tobytes()
        assert again.layers[-1].constants["filters"].tobytes() == _FILTERS.tobytes()
        assert again.layers[-1].constants["strides"] == [1, 2]


def test_files_of_before():
    """Have the numbers as text: they load, with the same bits."""
    (layer,) = _model(_FILTERS).layers[1:]
    before = layer.get_config()
    del before["arrays"]
    before["constants"] = keras.saving.serialize_keras_object(layer.constants)
    again = OpLayer.from_config(json.loads(json.dumps(before)))
    assert again.constants["filters"].tobytes() == _FILTERS.tobytes()


@pytest.mark.parametrize(
    "array",
    [
        np.array([np.nan, -0.0, np.inf, 1e-45], np.float32),
        np.array([0x7FC01234, 0xFFC00001], np.uint32).view(np.float32),
        np.zeros((3, 0, 2), np.int8),
        np.array([True, False]),
        np.array(-(2**63), np.int64),
        np.float16([[1.5], [65504]]),
    ],
    ids=["floats", "NaNs", "none", "bools", "scalar", "halves"],
)
def test_arrays_come_back(array):
    """With every bit, the type and the shape."""
    assert array_text.is_packable(array)
    again = array_text.unpacked(array_text.packed(array))
    assert (again.dtype, again.shape) == (array.dtype, array.shape)
    assert again.tobytes() == array.tobytes()


def test_damaged_text_is_refused():
    """Whatever is wrong with it."""
    text = array_text.packed(_FILTERS)
    for damaged in ("", "%", text[:-8], text[:4] + "AAAA" + text[8:], "eJwDAAAAAAE="):
        with pytest.raises(ValueError, match="Need an array as the library packs it, got"):
            array_text.unpacked(damaged)
