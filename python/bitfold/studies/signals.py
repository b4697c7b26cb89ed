# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The float model and a network beside it, run over data: powers of signals and of errors.

Powers are summed in double precision, of each image by itself and then image after image, so that
they do not depend on how images come in batches. For the same reason the float model computes one
image after the other: its kernels add up a batch in another order than an image.
"""

from __future__ import annotations

import math
from collections.abc import Callable, Iterable, Iterator, Mapping, Sequence
from typing import Any

import numpy as np

from bitfold.network import Layer, Network, evaluation
from bitfold.network.kernels import FloatModel
from bitfold.network.operators import SummingStep
from bitfold.studies.records import Cause

# Elements of which a power is formed at once, so that they stay in the cache.
_BLOCK = 1 << 15


def slices(batch: Sequence[np.ndarray], size: int) -> Iterator[list[np.ndarray]]:
    """Yield the arrays of so many images at once."""
    for first in range(0, len(batch[0]), size):
        yield [array[first : first + size] for array in batch]


def decibels(signal: float, error: float) -> float:
    """Return the ratio of two powers in dB; infinite where there is no error.

    Example:
        >>> decibels(100.0, 1.0), decibels(0.0, 0.0), decibels(0.0, 1.0)
        (20.0, inf, -inf)
    """
    if not error:
        return math.inf
    return 10 * math.log10(signal / error) if signal else -math.inf


def _add_powers(total: float, signals: np.ndarray) -> float:
    """Return a sum of squares with those of images [n, elements], one image after the other.

    Of an image numpy adds them up in an order that the number of its elements alone decides.
    """
    for power in np.square(signals).sum(axis=1).tolist():
        total += power
    return total


class _Measured:
    """A metric over batches that come in parts; without one nothing is kept."""

    def __init__(self, new_metric: Callable[[], Any] | None) -> None:
        """Start without images."""
        self._metric = new_metric() if new_metric is not None else None
        self._outputs: list[np.ndarray] = []

    @property
    def metric(self) -> float | None:
        """The metric; None for none."""
        return None if self._metric is None else float(self._metric.result())

    def keep(self, outputs: np.ndarray) -> None:
        """Take the outputs of a part of a batch."""
        if self._metric is not None:
            self._outputs.append(outputs)

    def finish_batch(self, labels: Any) -> None:
        """Measure a batch of which all parts are kept."""
        if self._metric is not None:
            evaluation.update(self._metric, labels, np.concatenate(self._outputs))
            self._outputs.clear()


class FloatRun(_Measured):
    """The float model on its way.

    Attributes:
        powers: by the name of a layer, the power of its outputs.
    """

    def __init__(
        self,
        floats: FloatModel,
        tensors: Mapping[str, int],
        new_metric: Callable[[], Any] | None,
    ) -> None:
        """Start without images; `tensors` are those that are compared, by layer."""
        super().__init__(new_metric)
        self._floats = floats
        self._tensors = tensors
        self.powers = dict.fromkeys(tensors, 0.0)

    def compute(self, batch: Sequence[np.ndarray]) -> dict[str, np.ndarray]:
        """Compute a part of a batch; return the outputs of layers, [n, elements] in doubles."""
        wanted = (*self._tensors.values(), self._floats.graph.outputs[0])
        images = [self._floats(image, wanted) for image in slices(batch, 1)]
        *tensors, outputs = map(np.concatenate, zip(*images, strict=True))
        signals = {}
        for name, tensor in zip(self._tensors, tensors, strict=True):
            signals[name] = tensor.reshape(len(tensor), -1).astype(np.float64)
            self.powers[name] = _add_powers(self.powers[name], signals[name])
        self.keep(outputs)
        return signals


class NetworkRun(_Measured):
    """A network on its way, beside the float model."""

    def __init__(
        self,
        network: Network,
        names: Iterable[str],
        new_metric: Callable[[], Any] | None,
    ) -> None:
        """Start without images; `names` are those of the layers that are compared."""
        super().__init__(new_metric)
        layers = {layer.name: layer for layer in network.layers}
        self._layers: dict[str, Layer] = {name: layers[name] for name in names}
        self._errors = dict.fromkeys(self._layers, 0.0)
        self._call = network.observed(self._observe)
        self._wanted = {layer.position for layer in self._layers.values()}

    def _observe(self, step: SummingStep, inputs: Sequence, _: Any) -> tuple[list, dict]:
        """Compute a layer, and let what it writes be seen."""
        outputs = step.run(inputs)
        is_wanted = step.node.operator.position in self._wanted
        return outputs, {"output": outputs[0]} if is_wanted else {}

    def compute(self, images: Any, signals: Mapping[str, np.ndarray]) -> None:
        """Compute a part of a batch and add up its errors."""
        outputs, seen = self._call(images, {})
        if self._metric is not None:
            self.keep(np.asarray(outputs))
        for name, layer in self._layers.items():
            stored = seen[str(layer.position)]["output"]
            stored, signal = stored.reshape(len(stored), -1), signals[name]
            rows = max(1, _BLOCK // max(1, stored.shape[1]))
            for first in range(0, len(stored), rows):
                block = slice(first, first + rows)
                error = stored[block].astype(np.float64)
                error -= layer.output_zero_point
                error *= layer.output_scale
                error -= signal[block]
                self._errors[name] = _add_powers(self._errors[name], error)

    def cause(self, name: str, powers: Mapping[str, float]) -> Cause:
        """Return what was found."""
        ratios = {layer: decibels(powers[layer], self._errors[layer]) for layer in self._layers}
        return Cause(name, self.metric, ratios)
