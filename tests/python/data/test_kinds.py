# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What is particular to files of a kind, and what they refuse."""

from __future__ import annotations

import pathlib

import keras
import numpy as np
import pytest
import tensorflow as tf
from made_files import COUNT, KINDS, SHAPE, arrays, feature, write_records

import bitfold
from bitfold.data import EncodedImage, RawArray, image_folder, npy, npz, tfrecord

FLOAT = tf.io.FixedLenFeature([2], tf.float32)
LABEL = tf.io.FixedLenFeature([], tf.int64)


@pytest.fixture
def folder(tmp_path):
    """A folder with images in files of every kind."""
    for make in KINDS.values():
        make(tmp_path)
    return tmp_path


# ---- Arrays ------------------------------------------------------------------------------------


def test_several_inputs(tmp_path):
    """A list or a dictionary of arrays stays one."""
    a, b = np.ones((4, 2), np.float32), np.zeros((4, 3), np.int8)
    np.savez(tmp_path / "both.npz", a=a, b=b, y=np.arange(4))
    for x in (["b", "a"], {"first": "a", "second": "b"}):
        found, _ = npz(tmp_path / "both.npz", x=x, y="y")[1:3].read()
        assert type(found) is type(x)
        keys = [0, 1] if isinstance(x, list) else ["second", "first"]
        assert [found[key].shape for key in keys] == [(2, 3), (2, 2)]
    np.save(tmp_path / "a.npy", a)
    np.save(tmp_path / "b.npy", b)
    source = npy({"first": tmp_path / "a.npy", "second": tmp_path / "b.npy"})
    assert (source.image_bytes, source.has_labels) == (11, False)
    x, y = source[:3].read()
    assert ({name: array.shape for name, array in x.items()}, y) == (
        {"first": (3, 2), "second": (3, 3)},
        None,
    )
    with pytest.raises(ValueError, match="Need data with labels"):
        _network().evaluate(source)


def _network() -> bitfold.Network:
    model = keras.Sequential([keras.Input((2,)), keras.layers.Dense(2)])
    return bitfold.Network.from_keras(model, calibration=np.ones((4, 2), np.float32))


def test_what_is_read_cannot_change_what_is_kept(folder):
    """An array that a file gave is not written to."""
    source = npz(folder / "part*.npz", x="pictures")[8:12]
    with pytest.raises(ValueError, match="read-only"):
        source.read()[0][:] = 0
    copied = source.map(np.copy).read()[0]
    copied[:] = 0
    np.testing.assert_array_equal(source.read()[0], arrays()[0][8:12])


def _save(path: pathlib.Path, **changed) -> None:
    np.savez(path, **{"pictures": arrays()[0], "classes": arrays()[1]} | changed)


@pytest.mark.parametrize(
    ("changed", "text"),
    [
        ({"pictures": np.zeros((3, 2))}, r"23.*of which all must be equal"),
        (
            {"pictures": np.zeros((COUNT, 4), np.uint8)},
            r"Need images uint8 \[6, 5, 3\] with .* as in .*part00.npz, got images uint8 \[4\]",
        ),
        ({"classes": np.zeros(COUNT, np.int8)}, "with labels int64.*got .* with labels int8"),
        (
            {"classes": np.array(["cat"] * COUNT)},
            r"part90.npz on host .*: it has an array <U3 \[23",
        ),
        ({"classes": np.array([None] * COUNT)}, "it has an array object"),
        ({"classes": np.array(7)}, r"it has an array int64 \[\] where"),
    ],
)
def test_archives_that_do_not_fit(folder, changed, text):
    """A file that differs is named, with how."""
    _save(folder / "part90.npz", **changed)
    with pytest.raises(ValueError, match=text):
        npz(folder / "part*.npz", x="pictures", y="classes")


def test_damaged_archives(folder):
    """A file that is cut, and one that is no archive, are named; also when they are read."""
    good = (folder / "part08.npz").read_bytes()
    source = npz(folder / "part*.npz", x="pictures", y="classes")
    for content in (good[:-200], b"no archive", b""):
        (folder / "part08.npz").write_bytes(content)
        with pytest.raises(ValueError, match=r"Need data that can be read, got .*part08.npz on"):
            npz(folder / "part*.npz", x="pictures", y="classes")
    half = len(good) // 2
    (folder / "part08.npz").write_bytes(good[:half] + bytes([good[half] ^ 1]) + good[half + 1 :])
    with pytest.raises(ValueError, match=r"part08.npz on .*Bad CRC"):
        source.read()
    with pytest.raises(ValueError, match=r"it has no array 'x' but \['classes', 'pictures'\]"):
        npz(folder / "part00.npz")
    with pytest.raises(TypeError, match="Need names as text, got 3"):
        npz(folder / "part00.npz", x=3)


def test_arrays_that_do_not_fit(folder):
    """Other types, other counts, cut files and none are refused by name."""
    with pytest.raises(ValueError, match=r"Need as many labels as images.*\[23, 13\]"):
        npy(folder / "x*.npy", folder / "labels1.npy")
    np.save(folder / "x90.npy", np.zeros((2, 3), np.uint8))
    with pytest.raises(ValueError, match=r"Need uint8 \[6, 5, 3\] as in .*, got uint8 \[3\] in"):
        npy(folder / "x*.npy")
    np.save(folder / "x90.npy", np.array(["cat"]))
    with pytest.raises(ValueError, match=r"x90.npy on host .*: it has an array <U3 \[1\]"):
        npy(folder / "x*.npy")
    content = (folder / "x08.npy").read_bytes()
    for part in (content[:-1], content[:40], b""):
        (folder / "x90.npy").write_bytes(part)
        with pytest.raises(ValueError, match=r"Need data that can be read, got .*x90.npy on host"):
            npy(folder / "x*.npy")
    np.save(folder / "x90.npy", np.zeros((0, *SHAPE), np.uint8))
    assert npy(folder / "x*.npy", folder / "labels?.npy").images == COUNT
    with pytest.raises(ValueError, match=r"Need images, found none in .*x90.npy"):
        npy(folder / "x90.npy")
    np.save(folder / "fortran.npy", np.asfortranarray(arrays()[0]))
    np.testing.assert_array_equal(npy(folder / "fortran.npy")[3:5].read()[0], arrays()[0][3:5])


# ---- Records -----------------------------------------------------------------------------------


def test_numbers_in_records(tmp_path):
    """Numbers come as they are, and what is missing has its default."""
    path = tmp_path / "a.tfrecord"
    records = [{"x": feature("float", [i, -i]), "y": feature("int64", [i])} for i in range(5)]
    del records[3]["y"]
    write_records(path, records)
    features = {"x": FLOAT, "y": tf.io.FixedLenFeature([], tf.int64, default_value=-1)}
    x, y = tfrecord(path, features, x=["x"], y="y")[2:].read()
    np.testing.assert_array_equal(x[0], np.array([[2, -2], [3, -3], [4, -4]], np.float32))
    assert y.tolist() == [2, -1, 4]
    with pytest.raises(ValueError, match=r"a.tfrecord on host .*Feature: y .*is required"):
        tfrecord(path, {"x": FLOAT, "y": LABEL}, x="x", y="y").read()
    other = {"x": tf.io.FixedLenFeature([3], tf.float32)}
    with pytest.raises(ValueError, match=r"a.tfrecord on host .*Key: x"):
        tfrecord(path, other, x="x").read()


def test_features_that_do_not_fit(tmp_path):
    """Names without a feature, and features of other kinds, are refused before files are read."""
    path = tmp_path / "none"
    with pytest.raises(ValueError, match=r"Need a feature of \['x'\], got 'y'"):
        tfrecord(path, {"x": FLOAT}, x="x", y="y")
    for other in (tf.io.VarLenFeature(tf.float32), tf.io.FixedLenFeature([], tf.string), 3):
        with pytest.raises(TypeError, match=r"Need a tf.io.FixedLenFeature of numbers.*for 'x'"):
            tfrecord(path, {"x": other}, x="x")
    with pytest.raises(FileNotFoundError):
        tfrecord(path, {"x": FLOAT}, x="x")


def test_damaged_records(folder):
    """A cut file, a compressed one and one with other bytes are named."""
    features = {"raw": RawArray(SHAPE)}
    path = folder / "part08.tfrecord"
    good = path.read_bytes()
    source = tfrecord(folder / "*.tfrecord", features, x="raw")
    for content in (good[:-1], good[:3], b"\x1f\x8b" + good, b"text"):
        path.write_bytes(content)
        with pytest.raises(ValueError, match=r"part08.tfrecord on host .*: record \d+ goes beyond"):
            tfrecord(folder / "*.tfrecord", features, x="raw")
    path.write_bytes(good[:60] + bytes([good[60] ^ 1]) + good[61:])
    with pytest.raises(ValueError, match=r"part08.tfrecord on host .*corrupted record at 12$"):
        source.read()
    small = tfrecord(folder / "part00.tfrecord", {"raw": RawArray((2,))}, x="raw")
    with pytest.raises(ValueError, match=r"Need 2 bytes for uint8 \[2\], got 90"):
        small.read()


def test_raw_arrays():
    """The least significant byte first; types and shapes are checked."""
    assert RawArray((2,), "int16").decode(bytes([1, 0, 0, 1])).tolist() == [1, 256]
    assert RawArray((), np.float32).decode(np.float32(1.5).tobytes()) == 1.5
    for arguments in (((2,), "str"), ((0,), "uint8"), ((2.0,), "uint8")):
        with pytest.raises(ValueError, match="Need a "):
            RawArray(*arguments)


# ---- Pictures ----------------------------------------------------------------------------------


@pytest.mark.parametrize("crop", [False, True])
@pytest.mark.parametrize("interpolation", ["bilinear", "nearest", "area"])
def test_pictures_are_those_of_keras(tmp_path, crop, interpolation):
    """Order, labels and every bit are those of keras.utils.image_dataset_from_directory."""
    rng = np.random.default_rng(2)
    for i in range(9):
        below = tmp_path / ("dog", "cat", "Zebra")[i % 3] / ("b" if i == 4 else "")
        below.mkdir(parents=True, exist_ok=True)
        pixels = tf.constant(rng.integers(0, 256, (20 + i, 30 - i, 3), np.uint8))
        name, encode = (("JPG", tf.io.encode_jpeg), ("png", tf.io.encode_png))[i % 2]
        tf.io.write_file(str(below / f"{9 - i}.{name}"), encode(pixels))
    options = {"interpolation": interpolation, "crop_to_aspect_ratio": crop}
    expected = keras.utils.image_dataset_from_directory(
        tmp_path, image_size=(12, 16), shuffle=False, batch_size=9, verbose=False, **options
    )
    ((images, labels),) = expected
    source = image_folder(tmp_path, (12, 16), scale=1 / 127.5, offset=-1, **options)
    x, y = source.read()
    rescaled = keras.layers.Rescaling(1 / 127.5, -1)(images)
    np.testing.assert_array_equal(x, rescaled.numpy())
    np.testing.assert_array_equal(y, labels.numpy())
    assert (x.dtype, y.dtype) == (np.float32, np.int32)


def test_classes(folder):
    """Classes in another order, some of them, or none; what a folder is not is said."""
    path = folder / "classes"
    source = image_folder(path, SHAPE[:2], class_names=["class2", "class0"])
    x, y = source.read()
    np.testing.assert_array_equal(x, np.concatenate([arrays()[0][16:], arrays()[0][:8]]))
    assert y.tolist() == [0] * 7 + [1] * 8
    grey = image_folder(path / "class1", (3, 3), labels=False, channels=1)
    assert (grey.images, grey.has_labels, grey.read()[0].shape) == (8, False, (8, 3, 3, 1))
    with pytest.raises(ValueError, match=r"it has no folders \['no'\] but \['class0', "):
        image_folder(path, (3, 3), class_names=["no", "class0"])
    with pytest.raises(ValueError, match="of no use without labels"):
        image_folder(path, (3, 3), class_names=["no"], labels=False)
    (folder / "flat").mkdir()
    (folder / "flat" / "a.png").write_bytes(b"")
    with pytest.raises(ValueError, match="it has pictures, but no folder for each class; labels="):
        image_folder(folder / "flat", (3, 3))
    with pytest.raises(ValueError, match=r"Need size=\(height, width\), both above 0, got"):
        image_folder(path, 3)
    (folder / "empty").mkdir()
    for labels in (True, False):
        with pytest.raises(ValueError, match=r"Need images, found none in .*/empty"):
            image_folder(folder / "empty", (3, 3), labels=labels)
    with pytest.raises(FileNotFoundError, match="nowhere"):
        image_folder(folder / "nowhere", (3, 3))
    with pytest.raises(NotADirectoryError):
        image_folder(path / "readme.txt", (3, 3))


def test_a_picture_that_is_none(folder):
    """It is named."""
    source = image_folder(folder / "classes", SHAPE[:2])
    (folder / "classes" / "class1" / "09.png").write_bytes(b"no picture")
    with pytest.raises(ValueError, match=r"/class1/09.png on host .*: .*"):
        source.read()


@pytest.mark.parametrize(
    ("arguments", "text"),
    [
        ({"size": (4,)}, r"Need size=\(height, width\), both above 0, got \(4,\)"),
        ({"size": (4, 0)}, "both above 0"),
        ({"size": (4, 4), "channels": 2}, "Need channels of 1, 3 or 4, got 2"),
        ({"size": (4, 4), "interpolation": "best"}, "Need an interpolation of .*, got 'best'"),
    ],
)
def test_pictures_that_cannot_be(arguments, text):
    """Numbers are checked beforehand."""
    with pytest.raises(ValueError, match=text):
        EncodedImage(**arguments)
