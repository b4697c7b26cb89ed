# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Is it the numerics or the conversion? What each cause adds on the way from a model in floats.

Quantisation, shift, accumulator and unit requantisation are switched on one after the other, each
with all before it. After each, the output of every layer with an accumulator is compared with that
of the float model, and the metric is taken, end to end. What a cause adds is the difference to the
cause before it; so the differences add up to the whole, and the last cause ends at the arithmetic.

Powers are summed in double precision, of each image by itself and then image after image, so that
they do not depend on how images come in batches.
"""

from __future__ import annotations

import dataclasses
import math
from collections import Counter
from collections.abc import Callable, Iterable, Mapping, Sequence
from typing import Any

import numpy as np

from bitfold.network import Arithmetic, Network, Port, values
from bitfold.network.kernels import FloatModel
from bitfold.studies.partners import float_file, partners_of
from bitfold.studies.records import Attribution, Cause

QUANTISATION = "quantisation"
SHIFT = "shift"
ACCUMULATOR = "accumulator"
UNITS = "unit requantisation"

_UNIT_FIELDS = ("requantisation", "softmax", "activations", "additions", "resize", "layer_norm")


@dataclasses.dataclass(frozen=True)
class Attributed:
    """What was found beside a model in floats.

    Attributes:
        attributions: of each arithmetic, in their order.
        float_metric: of the float model; None without labels.
        missing: the names of layers that were not found in the float model.
    """

    attributions: tuple[Attribution, ...]
    float_metric: float | None
    missing: tuple[str, ...]


def attribute(
    network: Network,
    arithmetics: Mapping[str, Arithmetic | Mapping[str, Arithmetic]],
    float_model: Any,
    examples: Iterable[tuple[Any, Any]],
    new_metric: Callable[[], Any] | None = None,
    advance: Callable[[int], None] = lambda images: None,
) -> Attributed:
    """Measure what each cause adds to the error of a network.

    Args:
        network: whose layers stay as they are where an arithmetic does not mean them.
        arithmetics: by their name.
        float_model: a Keras model, the path of a model file in float32, or its bytes.
        examples: batches of inputs, as a call takes them, with labels, or None for these.
        new_metric: makes a metric with `update_state(labels, outputs)` and `result()`, that has
            seen nothing; None for no metric.
        advance: takes how many images more are done.

    Returns:
        What was found.

    Raises:
        OSError: for a path that cannot be read.
        ValueError: for a model in floats that is none or takes other inputs, and for one of which
            no layer is found.

    Example:
        >>> import bitfold, keras, numpy as np
        >>> model = keras.Sequential([keras.Input((4,)), keras.layers.Dense(2, name="dense")])
        >>> x = np.linspace(-1, 1, 80, dtype=np.float32).reshape(20, 4)
        >>> network = bitfold.Network.from_keras(model, calibration=x)
        >>> narrow = {"12 bits": bitfold.Arithmetic(accumulator_size=12)}
        >>> found = attribute(network, narrow, model, [(x, None)])
        >>> first, last = found.attributions[0].causes
        >>> first.name, last.name
        ('quantisation', 'accumulator')
        >>> first.signal_to_error["dense"] > 30 > last.signal_to_error["dense"]
        True
    """
    floats = FloatModel(float_file(float_model))
    partners = partners_of(network, floats.graph)
    if not partners.tensors:
        raise ValueError(
            "Need a float model with layers of the network, found none of "
            f"{', '.join(partners.missing)}"
        )
    if new_metric is not None and len(network.outputs) != 1:
        raise ValueError(f"Need a network of one output for a metric, got {len(network.outputs)}")
    plans = {name: causes_of(network, asked) for name, asked in arithmetics.items()}
    # Every state once, though several arithmetics pass through it.
    runs: dict[tuple[Arithmetic, ...], _Run] = {}
    for _, state in (step for plan in plans.values() for step in plan):
        if state not in runs:
            runs[state] = _Run(_in_state(network, state), partners.tensors, new_metric)
    original = new_metric() if new_metric is not None else None
    powers: Counter[str] = Counter()
    for images, labels in examples:
        batch = _reals(network, floats, images)
        for run in runs.values():
            run.start(images, labels)
        outputs = []
        for i in range(len(batch[0])):
            wanted = (*partners.tensors.values(), floats.graph.outputs[0])
            *tensors, output = floats([array[i : i + 1] for array in batch], wanted)
            signals = dict(zip(partners.tensors, map(_flat, tensors), strict=True))
            outputs.append(output)
            for name, signal in signals.items():
                powers[name] += _power(signal)
            for run in runs.values():
                run.compare(i, signals)
        if original is not None:
            original.update_state(labels, np.concatenate(outputs))
        advance(len(batch[0]))
    return Attributed(
        tuple(
            Attribution(name, tuple(runs[state].cause(cause, powers) for cause, state in plan))
            for name, plan in plans.items()
        ),
        None if original is None else float(original.result()),
        partners.missing,
    )


def causes_of(
    network: Network, asked: Arithmetic | Mapping[str, Arithmetic]
) -> list[tuple[str, tuple[Arithmetic, ...]]]:
    """Return the steps towards an arithmetic: each cause, and what every layer computes in then.

    A cause that changes nothing is left out. Whatever units an arithmetic asks for come last,
    together.
    """
    layers = network.with_arithmetic(asked).layers
    ends = [layer.arithmetic for layer in layers]
    steps = [(QUANTISATION, tuple(Arithmetic() for _ in ends))]
    sums = [layer.arithmetic if layer.has_accumulator else Arithmetic() for layer in layers]
    shifted = tuple(Arithmetic(mult_shift=end.mult_shift) for end in sums)
    wrapped = tuple(
        Arithmetic(
            accumulator_size=end.accumulator_size,
            mult_shift=end.mult_shift,
            use_fp16_acc=end.use_fp16_acc,
        )
        for end in sums
    )
    last = tuple(ends) if any(map(_has_units, ends)) else wrapped
    for name, state in ((SHIFT, shifted), (ACCUMULATOR, wrapped), (UNITS, last)):
        if state != steps[-1][1]:
            steps.append((name, state))
    return steps


def decibels(signal: float, error: float) -> float:
    """Return the ratio of two powers in dB; infinite where there is no error.

    Example:
        >>> decibels(100.0, 1.0), decibels(0.0, 0.0), decibels(0.0, 1.0)
        (20.0, inf, -inf)
    """
    if not error:
        return math.inf
    return 10 * math.log10(signal / error) if signal else -math.inf


def _has_units(arithmetic: Arithmetic) -> bool:
    return any(getattr(arithmetic, field) == "unit" for field in _UNIT_FIELDS)


def _reals(network: Network, floats: FloatModel, images: Any) -> list[np.ndarray]:
    """Return the inputs of a batch as real numbers, in the order of the float model.

    Raises:
        ValueError: the float model takes others.
    """
    ports = network.inputs
    names = [port.name for port in ports]
    given = values.as_list(images, names, [len(port.shape) for port in ports])
    reals = {
        port.name: _real(np.asarray(value), port) for port, value in zip(ports, given, strict=True)
    }
    wanted = floats.graph.input_names
    if len(wanted) != len(names):
        raise ValueError(f"Need a float model of the inputs {names}, got one of {list(wanted)}")
    by_name = wanted if set(wanted) == set(names) else names
    found = [reals[name] for name in by_name]
    for value, index in zip(found, floats.graph.inputs, strict=True):
        tensor = floats.graph.tensors[index]
        pairs = enumerate(zip(tensor.shape, value.shape, strict=False))
        fits = all(i == 0 or i in tensor.unknown or a == b for i, (a, b) in pairs)
        if len(tensor.shape) != value.ndim or not fits:
            raise ValueError(f"Need images for {tensor} of the float model, got {value.shape[1:]}")
    return found


def _real(stored: np.ndarray, port: Port) -> np.ndarray:
    """Return the real numbers of stored integers, as a network does; real numbers as they are."""
    if np.issubdtype(stored.dtype, np.floating) or port.scale is None:
        return stored.astype(np.float32)
    return np.float32(port.scale) * (stored.astype(np.int32) - port.zero_point).astype(np.float32)


def _parts(images: Any) -> list[Any]:
    """Return the inputs of a batch in whatever order."""
    if isinstance(images, Mapping):
        return list(images.values())
    return list(images) if isinstance(images, list | tuple) else [images]


def _flat(value: np.ndarray) -> np.ndarray:
    return value.reshape(-1).astype(np.float64)


def _power(signal: np.ndarray) -> float:
    """Return the sum of squares, which numpy adds up in an order that the length alone decides."""
    return float(np.square(signal).sum())


def _in_state(network: Network, state: Sequence[Arithmetic]) -> Network:
    names = [layer.name for layer in network.layers]
    return network.with_arithmetic(dict(zip(names, state, strict=True)))


class _Run:
    """A network on its way, beside the float model."""

    def __init__(
        self,
        network: Network,
        names: Iterable[str],
        new_metric: Callable[[], Any] | None,
    ) -> None:
        """Start without images; `names` are those of the layers that are compared."""
        self._network = network
        layers = {layer.name: layer for layer in network.layers}
        self._layers = {name: layers[name] for name in names}
        self._metric = new_metric() if new_metric is not None else None
        self._errors: Counter[str] = Counter()
        self._traced: dict[int, np.ndarray] = {}

    def start(self, images: Any, labels: Any) -> None:
        """Compute a batch."""
        self._traced = self._network.trace(images)
        if self._metric is not None:
            self._metric.update_state(labels, self._outputs(images))

    def _outputs(self, images: Any) -> Any:
        """Return what a call gives: of real numbers real ones."""
        (port,) = self._network.outputs
        stored = self._traced.get(port.index)
        is_real = any(np.issubdtype(np.asarray(x).dtype, np.floating) for x in _parts(images))
        if stored is None or not is_real:
            return self._network(images)
        return _real(stored, port)

    def compare(self, image: int, signals: Mapping[str, np.ndarray]) -> None:
        """Add up the errors of an image of the batch."""
        for name, layer in self._layers.items():
            stored = _flat(self._traced[layer.output_indices[0]][image])
            real = (stored - layer.output_zero_point) * layer.output_scale
            self._errors[name] += _power(real - signals[name])

    def cause(self, name: str, powers: Mapping[str, float]) -> Cause:
        """Return what was found."""
        metric = None if self._metric is None else float(self._metric.result())
        ratios = {layer: decibels(powers[layer], self._errors[layer]) for layer in self._layers}
        return Cause(name, metric, ratios)
