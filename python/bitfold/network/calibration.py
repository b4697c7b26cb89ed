# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Calibration data in any form that people have it, image by image as a converter wants it."""

from __future__ import annotations

import dataclasses
import os
from collections.abc import Iterable, Iterator, Mapping, Sequence
from typing import Any

import numpy as np
import tensorflow as tf

from bitfold.network import evaluation
from bitfold.network.shards.source import Source

# Images of files that are read at once.
_BATCH = 32


@dataclasses.dataclass(frozen=True)
class ModelInput:
    """An input of the model that is calibrated.

    Attributes:
        name: its name in the model.
        shape: of one image; None for a dimension of any size.
        dtype: numpy's.
    """

    name: str
    shape: tuple[int | None, ...]
    dtype: np.dtype


class Calibration:
    """Calibration data, checked as it is read.

    Attributes:
        error: what was wrong with the data; None as long as nothing was.
    """

    def __init__(self, data: Any, inputs: Sequence[ModelInput]) -> None:
        """Take data: an array, several by order or name, files, a dataset or an iterable."""
        self.error: Exception | None = None
        self._data = data
        self._inputs = tuple(inputs)
        if isinstance(data, tf.data.Dataset):
            if data.cardinality().numpy() == tf.data.INFINITE_CARDINALITY:
                raise ValueError("Need calibration data with an end, got a dataset without one")
        elif isinstance(data, str | bytes | os.PathLike):
            raise ValueError(
                f"Need calibration data in arrays, a dataset or batches, got {data!r}; "
                "bitfold.data reads files"
            )
        elif not (_is_array(data) or isinstance(data, Iterable | Source)):
            raise ValueError(
                f"Need calibration data in arrays, a dataset or batches, got {_type(data)}"
            )

    def images(self) -> Iterator[list[np.ndarray]]:
        """Yield images: an array [1, ...] for each input."""
        count = 0
        try:
            for batch in self._batches():
                arrays = self._checked(batch)
                for i in range(arrays[0].shape[0]):
                    count += 1
                    yield [array[i : i + 1] for array in arrays]
            if not count:
                raise ValueError("Need at least one example to calibrate on, got none")
        except Exception as error:
            # A converter may pass it on in another form.
            self.error = error
            raise

    def _batches(self) -> Iterator[Sequence[Any]]:
        """Yield what stands for the inputs, for one batch after the other."""
        data = self._data
        if isinstance(data, Source):
            data = evaluation.batches(data, _BATCH)
        whole = _is_array(data) or isinstance(data, Mapping)
        several = len(self._inputs) > 1 and isinstance(data, list | tuple)
        if whole or (several and all(_is_array(array) for array in data)):
            yield self._by_input(data)
            return
        for element in data:
            # As in Keras, a pair is what goes in and what should come out.
            if isinstance(element, tuple) and len(element) in (2, 3):
                element = element[0]
            yield self._by_input(element)

    def _by_input(self, batch: Any) -> Sequence[Any]:
        if isinstance(batch, Mapping):
            names = [entry.name for entry in self._inputs]
            if set(batch) != set(names):
                got = ", ".join(map(str, batch))
                raise ValueError(f"Need calibration data for {', '.join(names)}, got {got}")
            return [batch[name] for name in names]
        batch = batch if isinstance(batch, list | tuple) else [batch]
        if len(batch) != len(self._inputs):
            raise ValueError(
                f"Need calibration data for {len(self._inputs)} inputs, got {len(batch)} arrays; a "
                "tuple of two or three is taken as (inputs, labels, weights)"
            )
        return batch

    def _checked(self, batch: Sequence[Any]) -> list[np.ndarray]:
        arrays = [_array(data, entry) for data, entry in zip(batch, self._inputs, strict=True)]
        counts = {array.shape[0] for array in arrays}
        if len(counts) != 1:
            raise ValueError(
                f"Need as many examples for each input, got {[array.shape[0] for array in arrays]}"
            )
        return arrays


def _array(data: Any, entry: ModelInput) -> np.ndarray:
    """Return a batch of an input in its type."""
    array = np.asarray(data)
    shape = ("batch", *("any" if size is None else size for size in entry.shape))
    fits = array.ndim == len(shape) and all(
        size in (None, got) for size, got in zip(entry.shape, array.shape[1:], strict=True)
    )
    if not fits:
        raise ValueError(
            f"Need calibration data of shape [{', '.join(map(str, shape))}] for the input "
            f"{entry.name!r}, got {list(array.shape)}"
        )
    kinds = "bui" if entry.dtype.kind in "bui" else "buif"
    if array.dtype.kind not in kinds and array.dtype != tf.bfloat16.as_numpy_dtype:
        raise ValueError(
            f"Need calibration data that {entry.dtype} holds for the input {entry.name!r}, got "
            f"{array.dtype}"
        )
    with np.errstate(over="ignore"):
        cast = array.astype(entry.dtype, copy=False)
    if entry.dtype.kind == "f" and not np.isfinite(cast).all():
        raise ValueError(
            f"Need finite calibration data for the input {entry.name!r}, got "
            f"{np.count_nonzero(~np.isfinite(cast))} values that are not"
        )
    return cast


def _is_array(data: Any) -> bool:
    return hasattr(data, "shape") and hasattr(data, "dtype")


def _type(value: Any) -> str:
    return type(value).__name__
