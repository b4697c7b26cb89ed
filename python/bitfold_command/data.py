# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Data from files: which of the ways of `bitfold.data` the options of the command mean."""

from __future__ import annotations

import argparse
import os
import zipfile
from collections.abc import Sequence
from typing import Any

import numpy as np

import bitfold
from bitfold.data import paths
from bitfold_command import records

_IMAGES = ("x", "images", "x_test", "inputs")
_LABELS = ("y", "labels", "y_test")
# What files of each kind begin with.
_ARCHIVE = b"PK"
_ARRAY = b"\x93NUMPY"


def of(
    options: argparse.Namespace, network: bitfold.Network, *, needs_labels: bool = False
) -> tuple[Any, np.ndarray | None]:
    """Return images and labels as a network takes them.

    Args:
        options: of the command line.
        network: whose inputs' names and shapes are looked for.
        needs_labels: whether there must be any.

    Returns:
        Files, which have their own labels, and None; or arrays.

    Raises:
        OSError: for a file that cannot be read.
        ValueError: for one of no known kind, arrays that cannot be told apart, and missing labels.
    """
    files, labels = _found(options, network)
    files = files[: options.images]
    if labels is not None:
        # Labels of one kind of files and images of another meet in memory.
        return files.read()[0], labels[: options.images].read()[0]
    if needs_labels and not files.has_labels:
        given = ", ".join(options.data)
        raise ValueError(f"Need labels for a search, got none in {given}; give --labels")
    return files, None


def _found(
    options: argparse.Namespace, network: bitfold.Network
) -> tuple[bitfold.data.Files, bitfold.data.Files | None]:
    """Return the images, with their labels or with those of another kind of files."""
    if os.path.isdir(options.data[0]):
        return _pictures(options, network), None
    files = paths.found(options.data)
    with open(files[0], "rb") as file:
        start = file.read(8)
    is_array, is_archive = start.startswith(_ARRAY), start.startswith(_ARCHIVE)
    if (is_array or is_archive) and (options.scale != 1.0 or options.offset):
        raise ValueError(
            f"Need encoded pictures for --scale and --offset, got arrays in {options.data[0]}; "
            "these are taken as they are"
        )
    if is_array:
        return _arrays(options), None
    labels = None if options.labels is None else bitfold.data.npy(options.labels)
    if is_archive:
        return _archives(options, files, network), labels
    if records.is_records(files[0]):
        return records.data(options, files, network), labels
    raise ValueError(
        f"Need arrays as .npz or .npy, got {options.data[0]}, which is neither a TFRecord file nor "
        "a folder of pictures"
    )


def _pictures(options: argparse.Namespace, network: bitfold.Network) -> bitfold.data.Files:
    if len(options.data) > 1 or options.labels or options.x or options.y:
        raise ValueError(
            f"Need one folder of pictures, whose folders are their labels, got {options.data[0]} "
            "and more"
        )
    image = records.image_for(network, options)
    with os.scandir(options.data[0]) as entries:
        has_classes = any(entry.is_dir() and not entry.name.startswith(".") for entry in entries)
    return bitfold.data.image_folder(
        options.data[0],
        image.size,
        labels=has_classes,
        channels=image.channels,
        scale=image.scale,
        offset=image.offset,
    )


def _arrays(options: argparse.Namespace) -> bitfold.data.Files:
    if options.x or options.y:
        raise ValueError(f"Need a .npz for names of arrays, got one array in {options.data[0]}")
    return bitfold.data.npy(options.data, options.labels)


def _archives(
    options: argparse.Namespace, files: Sequence[str], network: bitfold.Network
) -> bitfold.data.Files:
    try:
        with np.load(files[0], allow_pickle=False) as archive:
            names = archive.files
    except (ValueError, EOFError, zipfile.BadZipFile) as error:
        raise ValueError(f"Need arrays as .npz or .npy, got {options.data[0]}: {error}") from None
    y = None if options.labels else _labels(names, options)
    return bitfold.data.npz(files, _images(names, options, network), y)


def _images(names: Sequence[str], options: argparse.Namespace, network: bitfold.Network) -> Any:
    """Return which arrays are images: one, or a list or dictionary of several."""
    inputs = [port.name for port in network.inputs]
    if options.x:
        chosen = [_named(names, name, options) for name in options.x]
        return chosen[0] if len(chosen) == 1 else chosen
    if all(name in names for name in inputs):
        return {name: name for name in inputs}
    for name in _IMAGES:
        if name in names:
            return name
    others = [name for name in names if name != (options.y or "") and name not in _LABELS]
    if len(others) == 1:
        return others[0]
    raise ValueError(
        f"Need the name of the images by --x, got the arrays {sorted(names)} in {options.data[0]}"
    )


def _labels(names: Sequence[str], options: argparse.Namespace) -> str | None:
    if options.y:
        return _named(names, options.y, options)
    return next((name for name in _LABELS if name in names), None)


def _named(names: Sequence[str], name: str, options: argparse.Namespace) -> str:
    if name not in names:
        raise ValueError(
            f"Need one of the arrays {sorted(names)} of {options.data[0]}, got {name!r}"
        )
    return name
