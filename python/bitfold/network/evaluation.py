# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""A network over whole data sets: batches, metrics, progress."""

from __future__ import annotations

import contextlib
import itertools
import math
import re
from collections.abc import Callable, Iterable, Iterator, Mapping, Sequence
from typing import Any

import keras
import numpy as np
import tensorflow as tf

from bitfold.network.shards.source import Source

# Work that ends sooner shows no progress.
_PATIENCE = 1.0
# Elements of the largest tensor that a batch may have by default: 32 MB in 32 bits.
_ELEMENTS = 1 << 23
# How much of data in files is read at once: enough that finding the place costs little.
_READ_BYTES = 64 << 20
# What `Model.compile` takes for the share of right answers, whatever the labels' kind.
_OWN_NAMES = ("accuracy", "acc")


def default_batch_size(largest: int) -> int:
    """Return how many images to compute at once; `largest` is the elements of one image's largest
    tensor.
    """  # noqa: D205
    return max(1, min(256, _ELEMENTS // max(largest, 1)))


def count_images(x: Any) -> int | None:
    """Return how many images data hold, None where that is not known beforehand."""
    if isinstance(x, tf.data.Dataset):
        return None
    if isinstance(x, Source):
        return x.images
    if isinstance(x, Mapping):
        x = list(x.values())
    parts = x if isinstance(x, list | tuple) else [x]
    counts = {len(part) for part in parts}
    if len(counts) != 1:
        raise ValueError(f"Need as many images for every input, got {sorted(counts)}")
    return counts.pop()


def batches(x: Any, batch_size: int) -> Iterator[Any]:
    """Yield slices of arrays, images of files without labels, or a dataset's own batches."""
    if isinstance(x, tf.data.Dataset):
        yield from x
        return
    if isinstance(x, Source):
        yield from (images for images, _ in read(x, batch_size))
        return
    for first in range(0, count_images(x), batch_size):
        part = slice(first, first + batch_size)
        if isinstance(x, Mapping):
            yield {name: value[part] for name, value in x.items()}
        elif isinstance(x, list | tuple):
            yield type(x)(value[part] for value in x)
        else:
            yield x[part]


def pairs(x: Any, y: Any, batch_size: int) -> Iterator[tuple[Any, Any]]:
    """Yield batches of images with their labels."""
    if isinstance(x, tf.data.Dataset):
        if y is not None:
            raise ValueError("Need y=None with a dataset, whose elements are pairs (x, y)")
        for element in x:
            if not isinstance(element, tuple) or len(element) < 2:
                raise ValueError("Need a dataset of pairs (x, y), got one of single elements")
            yield element[0], element[1]
        return
    if isinstance(x, Source):
        if y is not None:
            raise ValueError("Need y=None with data in files, which have their own labels")
        if not x.has_labels:
            raise ValueError(f"Need data with labels, got {x}")
        yield from read(x, batch_size)
        return
    if y is None:
        raise ValueError("Need labels y with arrays x")
    if count_images(x) != len(y):
        raise ValueError(f"Need a label for each image, got {len(y)} for {count_images(x)}")
    yield from zip(batches(x, batch_size), batches(np.asarray(y), batch_size), strict=True)


def read(source: Source, batch_size: int) -> Iterator[tuple[Any, Any]]:
    """Yield batches of images with their labels, None where there are none."""
    size = max(1, _READ_BYTES // max(1, source.image_bytes * batch_size)) * batch_size
    for first in range(0, source.images, size):
        x, y = source.part(first, min(first + size, source.images)).read()
        labels = itertools.repeat(None) if y is None else batches(y, batch_size)
        yield from zip(batches(x, batch_size), labels, strict=False)


class Accuracy:
    """Counts where the largest output is the label's; of equal ones the first.

    Labels that no output stands for are refused: they are counted from 1, or of another network.
    """

    def __init__(self) -> None:
        """Start at none of none."""
        self._right = self._total = 0

    def update_state(self, labels: Any, outputs: Any) -> None:
        """Count a batch."""
        outputs = np.asarray(outputs)
        outputs = outputs.reshape(len(outputs), -1)
        labels = np.asarray(labels)
        if labels.ndim > 1 and labels.size == outputs.size and outputs.shape[1] > 1:
            labels = labels.reshape(outputs.shape).argmax(axis=1)  # one-hot
        if labels.size != len(outputs):
            raise ValueError(
                f"Need labels as integers [{len(outputs)}] or one-hot {list(outputs.shape)}, got "
                f"shape {list(labels.shape)}"
            )
        labels = labels.reshape(-1)
        _need_classes(labels, outputs.shape[1])
        self._right += int((outputs.argmax(axis=1) == labels).sum())
        self._total += len(outputs)

    @property
    def state(self) -> tuple[int, int]:
        """How many were right, and of how many. States of parts of the data add up."""
        return self._right, self._total

    @state.setter
    def state(self, state: Iterable[int]) -> None:
        self._right, self._total = map(int, state)

    def result(self) -> float:
        """Return the share."""
        return self._right / self._total if self._total else math.nan


def _need_classes(labels: np.ndarray, classes: int) -> None:
    """Raise unless labels are numbers of outputs; those below 0 stand for none, as in Keras."""
    if labels.dtype.kind not in "biuf":
        raise TypeError(f"Need labels as integers or one-hot, got {labels.dtype}")
    if labels.size and not labels.max() < classes:
        raise ValueError(
            f"Need labels below {classes}, the network's number of outputs, got {labels.max()}"
        )


def metric_of(metric: Any) -> Any:
    """Return what has update_state and result: Keras' metric of a name or as given, or Accuracy.

    Raises:
        TypeError: for what is none.
        ValueError: for a name that Keras has not.
    """
    if metric is None or (isinstance(metric, str) and metric in _OWN_NAMES):
        return Accuracy()
    if isinstance(metric, str | Mapping):
        try:
            metric = keras.metrics.get(metric)
        except ValueError:
            raise ValueError(
                "Need the name of a Keras metric, as 'sparse_top_k_categorical_accuracy', or "
                f"'accuracy' for the share of right answers, got {metric!r}"
            ) from None
    if isinstance(metric, type):
        metric = metric()
    if not hasattr(metric, "update_state") and callable(metric):
        metric = keras.metrics.MeanMetricWrapper(metric)
    if not hasattr(metric, "update_state"):
        raise TypeError(f"Need a Keras metric, its name or a function, got {metric!r}")
    if isinstance(metric, keras.metrics.Metric):
        metric.reset_state()
    return metric


def predict(call: Callable[[Any], Any], x: Any, batch_size: int, advance: Callable) -> Any:
    """Return the outputs of data of any length as numpy arrays, computed batch by batch."""
    parts = []
    for part in batches(x, batch_size):
        images = part[0] if isinstance(x, tf.data.Dataset) and type(part) is tuple else part
        parts.append(tf.nest.map_structure(np.asarray, call(images)))
        advance(len(tf.nest.flatten(parts[-1])[0]))
    return _concatenated(parts) if parts else tf.nest.map_structure(np.asarray, call(x))


def evaluate(
    call: Callable[[Any], Any], examples: Iterable[tuple[Any, Any]], metric: Any, advance: Callable
) -> float:
    """Return a metric over batches of examples."""
    metric = metric_of(metric)
    for images, labels in examples:
        outputs = call(images)
        if not tf.is_tensor(outputs):
            raise ValueError("Need a network of one output; compute others from predict")
        update(metric, labels, outputs)
        advance(len(outputs))
    return float(metric.result())


def update(metric: Any, labels: Any, outputs: Any) -> None:
    """Have a metric take a batch.

    Raises:
        ValueError: where it does not take labels and outputs of these shapes.
    """
    try:
        metric.update_state(labels, outputs)
    except tf.errors.InvalidArgumentError as error:
        name = getattr(metric, "name", type(metric).__name__)
        reason = re.sub(r"^{{.*?}} | \[Op:.*", "", error.message, flags=re.DOTALL)
        raise ValueError(
            f"Need a metric of labels {list(np.shape(labels))} and outputs "
            f"{list(np.shape(outputs))}, got {name!r}: {reason}"
        ) from None


@contextlib.contextmanager
def progress(what: str, total: int | None) -> Iterator[Callable[[int], None]]:
    """Show how far work is, on a terminal and if it takes longer than a moment.

    Yields:
        A function that takes how many images more are done.
    """
    from rich.console import Console
    from rich.progress import (
        BarColumn,
        MofNCompleteColumn,
        Progress,
        TextColumn,
        TimeRemainingColumn,
    )

    console = Console(stderr=True)
    if not console.is_terminal:
        yield lambda count: None
        return
    columns = (TextColumn("{task.description}"), BarColumn(), MofNCompleteColumn())
    with Progress(*columns, TimeRemainingColumn(), console=console, transient=True) as bar:
        task = bar.add_task(what, total=total, visible=False)

        def advance(count: int) -> None:
            bar.update(task, advance=count, visible=bar.tasks[task].elapsed > _PATIENCE)

        yield advance


def _concatenated(parts: Sequence[Any]) -> Any:
    """Join the outputs of batches: tensors, lists or dictionaries of them, to numpy arrays."""
    if isinstance(parts[0], Mapping):
        return {name: np.concatenate([part[name] for part in parts]) for name in parts[0]}
    if isinstance(parts[0], list):
        return [np.concatenate(same) for same in zip(*parts, strict=True)]
    return np.concatenate(parts)
