# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Data in files: the images that are in memory, whichever range is asked for, in any process."""

from __future__ import annotations

import dataclasses
import functools
import os
import pickle
import socket

import keras
import made_files
import numpy as np
import pytest

import bitfold
from bitfold.network.shards.data import Data


@pytest.fixture(scope="module", params=made_files.KINDS)
def source(request, tmp_path_factory):
    """The images of `made_files.arrays` in files of a kind."""
    return made_files.KINDS[request.param](tmp_path_factory.mktemp(request.param))


@functools.cache
def _arrays():
    return made_files.arrays()


def _same(found, first=0, last=made_files.COUNT):
    """Assert that what was read is the range of the arrays."""
    x, y = _arrays()
    np.testing.assert_array_equal(found[0], x[first:last])
    np.testing.assert_array_equal(found[1], y[first:last])


def test_all(source):
    """The images in the order of the files, and what they look like."""
    x, y = source.read()
    _same((x, y))
    assert (len(source), source.images, source.has_labels) == (made_files.COUNT, len(x), True)
    assert source.image_bytes == x[0].nbytes
    assert f"of {len(x)}: images {x.dtype} [6, 5, 3] with labels {y.dtype} []" in repr(source)


def test_ranges(source):
    """Every range, across files and inside of them, and ranges of ranges; also once pickled."""
    count = made_files.COUNT
    for first in range(count):
        for last in (first + 1, first + 3, count):
            part = source[first:last]
            assert part.images == min(last, count) - first
            _same(part.read(), first, last)
    _same(source[3:20][2:9].read(), 5, 12)
    _same(source[-4:].read(), count - 4)
    _same(pickle.loads(pickle.dumps(source[6:9])).read(), 6, 9)
    assert len(source[5:5]) == len(source[9:5]) == 0


def test_only_ranges(source):
    """An index or steps are refused."""
    with pytest.raises(
        TypeError, match=r"Need a range of images as source\[1000:2000\], got \[3\]"
    ):
        source[3]
    with pytest.raises(ValueError, match="steps of 2"):
        source[::2]
    with pytest.raises(ValueError, match="got none"):
        source[3:3].read()


def test_what_is_pickled_is_small(source):
    """A part is pickled without images, and without the names of files that are not its own."""
    part = source[2:4]
    assert len(pickle.dumps(part)) < 2000
    assert part.held_bytes == 0


def test_digests(source, tmp_path):
    """Ranges have different digests, the same range in other files, too; a copy has the same."""
    digests = {source[first:last].digest() for first, last in ((0, 5), (0, 6), (1, 6), (8, 13))}
    assert len(digests) == 4
    assert pickle.loads(pickle.dumps(source))[0:5].digest() in digests
    assert source.map(_halved).digest() != source.digest() != source.map(_doubled).digest()


def _doubled(x, y):
    return x.astype(np.float32) * 2, y


def _halved(x, y):
    return x[:3].astype(np.float32) / 2, y + 1


def test_map(source):
    """A function of an image and its label, and another behind it."""
    x, y = _arrays()
    mapped = source.map(_doubled).map(_halved)
    assert mapped.image_bytes == 3 * 5 * 3 * 4
    found = pickle.loads(pickle.dumps(mapped[5:12])).read()
    np.testing.assert_array_equal(found[0], x[5:12, :3])
    np.testing.assert_array_equal(found[1], y[5:12] + 1)


def test_functions_that_do_not_fit(source):
    """They are tried on an image at once."""
    with pytest.raises(ValueError, match=r"Need a function from \(x, y\) to \(x, y\).*got ndarray"):
        source.map(lambda x, y: x)
    with pytest.raises(TypeError, match="Need a function, got 'resize'"):
        source.map("resize")
    with pytest.raises(ValueError, match="same shape"):
        source.map(lambda x, y: (x[: 1 + y], y)).read()


def test_shards(source):
    """Shards are those of the same images in memory."""
    x, y = source.read()
    for size in (1, 4, 23, None):
        files = Data(source, None, 2, shard_size=size).references()
        memory = Data(x, y, 2, shard_size=size).references()
        assert [reference.images for reference in files] == [r.images for r in memory]
        for a, b in zip(files, memory, strict=True):
            a = pickle.loads(pickle.dumps(a))
            assert a.load().digest() == b.load().digest()


def test_another_file_is_no_longer_the_same(tmp_path):
    """A file that changes has another digest, and another number of images is refused."""
    for kind in ("npz", "npy", "tfrecord"):
        folder = tmp_path / kind
        folder.mkdir()
        source = made_files.KINDS[kind](folder)
        before = source.digest()
        source.read()
        path = max(folder.glob("*.*z" if kind == "npz" else "x*.npy" if kind == "npy" else "p*"))
        os.utime(path, ns=(1, 1))
        assert source.digest() != before
        _same(source.read())
        if kind == "npz":
            x, y = _arrays()
            np.savez(path, pictures=x[:2], classes=y[:2])
        elif kind == "npy":
            np.save(path, _arrays()[0][:2])
        else:
            made_files.write_records(path, [])
        with pytest.raises(ValueError, match=f"{path.name} on host .*: it ha[sd]"):
            source.read()


def test_a_file_that_a_worker_does_not_have(tmp_path):
    """The error says which machine and process it was, and what it looked for."""
    source = made_files.KINDS["image_folder"](tmp_path)
    lost = tmp_path / "classes" / "class1" / "09.png"
    lost.unlink()
    expected = f"by this path, got on host {socket.gethostname()}, process {os.getpid()}: No such"
    for call in (source.read, source.digest):
        with pytest.raises(FileNotFoundError) as info:
            call()
        error = pickle.loads(pickle.dumps(info.value))
        assert expected in str(error)
        assert error.filename == str(lost)
    _same(source[:9].read(), 0, 9)


def test_patterns(tmp_path, monkeypatch):
    """Paths in their order, patterns in the order of names, odd letters taken as they are."""
    (tmp_path / "b").mkdir()
    for name in ("10.npy", "9.npy", "[1].npy", "b/8.npy"):
        np.save(tmp_path / name, np.full((1, 2), len(name), np.float32))
    monkeypatch.chdir(tmp_path)

    def firsts(patterns):
        return bitfold.data.npy(patterns).read()[0][:, 0].tolist()

    assert firsts("*.npy") == [6, 5, 7]
    assert firsts(["9.npy", "1*.npy"]) == [5, 6]
    assert firsts("[1].npy") == [7]
    assert firsts("**/*.npy") == [6, 5, 7, 7]
    source = bitfold.data.npy("9.npy")
    monkeypatch.chdir("/")
    assert source.read()[0].tolist() == [[5, 5]]
    with pytest.raises(FileNotFoundError, match=r"Need files, found none: '.*/\*\.no'"):
        bitfold.data.npy(tmp_path / "*.no")
    with pytest.raises(ValueError, match="Need at least one path"):
        bitfold.data.npy([])


# ---- Networks ----------------------------------------------------------------------------------


@pytest.fixture(scope="module")
def network():
    """A network of two layers."""
    keras.utils.set_random_seed(4)
    model = keras.Sequential(
        [
            keras.Input(made_files.SHAPE),
            keras.layers.Conv2D(3, 3, name="conv"),
            keras.layers.Flatten(),
            keras.layers.Dense(3, name="dense"),
        ]
    )
    return model, bitfold.Network.from_keras(model, calibration=_arrays()[0].astype(np.float32))


def test_networks_take_files(network, tmp_path):
    """Calibration, predictions, evaluations and studies are those of arrays."""
    model, of_arrays = network
    source = made_files.KINDS["npz"](tmp_path)
    files = source.map(_doubled)
    x, y = files.read()
    made = bitfold.Network.from_keras(model, calibration=source.map(_as_floats))
    assert made.model_file == of_arrays.model_file
    np.testing.assert_array_equal(made.predict(files, batch_size=4), made.predict(x))
    expected = made.evaluate(x, y)
    assert made.evaluate(files, batch_size=5) == expected
    arithmetics = [bitfold.Arithmetic(width) for width in (10, 14)]
    study = bitfold.study(made, files, arithmetics=arithmetics, float_model=model, batch_size=4)
    other = bitfold.study(made, x, y, arithmetics=arithmetics, float_model=model, batch_size=4)
    assert dataclasses.replace(study.findings, seconds=other.findings.seconds) == other.findings
    assert study.findings.metric == expected
    loss = study.narrowest(0.2, images=9, widths=(12, 16), most_evaluations=2).metric
    assert loss == other.narrowest(0.2, images=9, widths=(12, 16), most_evaluations=2).metric


def _as_floats(x, y):
    return x.astype(np.float32), y


def test_labels_of_files_are_their_own(source, network):
    """Labels beside files are refused, and files without where they are needed."""
    _, made = network
    for call in (made.evaluate, functools.partial(bitfold.study, made)):
        with pytest.raises(ValueError, match="Need y=None with data"):
            call(source, _arrays()[1])
