# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What the command's options mean for files of every kind."""

from __future__ import annotations

import keras
import made_files
import numpy as np
import pytest
import tensorflow as tf

import bitfold
from bitfold_command import data, parser


@pytest.fixture(scope="module")
def network():
    """A network of the images' shape."""
    model = keras.Sequential(
        [keras.Input(made_files.SHAPE), keras.layers.Flatten(), keras.layers.Dense(3)]
    )
    return bitfold.Network.from_keras(model, calibration=made_files.arrays()[0].astype(np.float32))


@pytest.fixture
def files(tmp_path, monkeypatch):
    """A folder with images in files of every kind, which is the working folder."""
    for make in made_files.KINDS.values():
        make(tmp_path)
    x, y = made_files.arrays()
    for path, kind in ((tmp_path / "encoded", "png"), (tmp_path / "bytes", "raw")):
        path.mkdir()
        made_files.write_records(
            path / "records-00000-of-00001",
            (
                {
                    "image/encoded": made_files.feature(
                        "bytes",
                        [
                            tf.io.encode_png(image).numpy()
                            if kind == "png"
                            else image.astype("<f4").tobytes()
                        ],
                    ),
                    "image/class/label": made_files.feature("int64", [label]),
                }
                for image, label in zip(x, y, strict=True)
            ),
        )
    monkeypatch.chdir(tmp_path)
    return tmp_path


@pytest.mark.parametrize(
    "options",
    [
        "--data part*.npz --x pictures --y classes",
        "--data part00.npz --data part07.npz --data part08.npz --x pictures --y classes",
        "--data part*.npz --x pictures --labels labels0.npy --labels labels1.npy",
        "--data x*.npy --labels labels*.npy",
        "--data classes",
        "--data encoded/*",
        "--data bytes/*",
        "--data part*.npz --x pictures --y classes --images 9",
        "--data encoded/* --x image/encoded --y image/class/label --images 9",
        "--data encoded/* --labels labels*.npy --images 9",
        "--data classes --images 9",
    ],
)
def test_options(files, network, options):
    """Every way gives the same images and labels."""
    found = data.of(_parsed(options), network)
    count = 9 if "--images" in options else made_files.COUNT
    if found[1] is None:
        assert isinstance(found[0], bitfold.data.Files)
        found = found[0].read()
    for one, expected in zip(found, made_files.arrays(), strict=True):
        np.testing.assert_array_equal(one, expected[:count])


def test_scales(files, network):
    """Pixels of pictures are brought to the network's range, decoded from any file."""
    for path in ("classes", "encoded/*"):
        x, _ = data.of(_parsed(f"--data {path} --scale 0.5 --offset -1"), network)
        expected = made_files.arrays()[0].astype(np.float32) * np.float32(0.5) - 1
        np.testing.assert_array_equal(x.read()[0], expected)


@pytest.mark.parametrize(
    ("options", "text"),
    [
        ("--data classes --y classes", "Need one folder of pictures"),
        ("--data part*.tfrecord --x raw", "Need an encoded picture or float32 .* got 90 other"),
        ("--data part*.tfrecord --x label", r"Need images \[6, 5, 3\], got 1 numbers in 'label'"),
        ("--data part*.tfrecord", r"by --x, got the features \['label', 'raw'\]"),
        ("--data encoded/* --x no", "Need one of the features .*, got 'no'"),
        ("--data encoded/* --y image/encoded", "Need numbers in the feature 'image/encoded'"),
        ("--data classes/readme.txt", "readme.txt, which is neither a TFRecord file nor"),
        ("--data nothing*.npz", "Need files, found none"),
    ],
)
def test_refusals(files, network, options, text):
    """What cannot be told is said."""
    with pytest.raises((ValueError, OSError), match=text):
        data.of(_parsed(options), network)


def _parsed(options: str):
    return parser.make_parser().parse_args(["study", "model", *options.split()])
