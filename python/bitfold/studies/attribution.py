# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Is it the numerics or the conversion? What each cause adds on the way from a model in floats.

Quantisation, shift, accumulator and unit requantisation are switched on one after the other, each
with all before it. After each, the output of every layer with an accumulator is compared with that
of the float model, and the metric is taken, end to end. What a cause adds is the difference to the
cause before it; so the differences add up to the whole, and the last cause ends at the arithmetic.

A state is computed once, though several arithmetics pass through it. One whose sums are all known
to be right is not computed at all: it writes what the state before it writes.
"""

from __future__ import annotations

import dataclasses
import math
from collections.abc import Callable, Collection, Iterable, Mapping, Sequence
from typing import Any

import numpy as np

from bitfold.network import Arithmetic, Network, Port, evaluation, values
from bitfold.network.kernels import FloatModel
from bitfold.studies.causes import ACCUMULATOR, causes_of
from bitfold.studies.partners import Partners, float_file, partners_of
from bitfold.studies.records import Attribution
from bitfold.studies.signals import FloatRun, NetworkRun, slices

# Elements of the layers that are compared at once: 64 MB in double precision.
_ELEMENTS = 1 << 23


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
    without_wrong_sums: Collection[str] = (),
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
        without_wrong_sums: the names of arithmetics that are known to have none on these examples,
            end to end.

    Returns:
        What was found.

    Raises:
        OSError: for a path that cannot be read.
        ValueError: for a model in floats that is none or takes other inputs, and for one of which
            no layer is found.

    Example:
        >>> import bitfold, keras, numpy as np
        >>> keras.utils.set_random_seed(1)
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
    floats, partners = _opened(network, float_file(float_model))
    if new_metric is not None and len(network.outputs) != 1:
        raise ValueError(f"Need a network of one output for a metric, got {len(network.outputs)}")
    plans = {name: causes_of(network, asked) for name, asked in arithmetics.items()}
    runs: dict[tuple[Arithmetic, ...], NetworkRun] = {}
    for name, plan in plans.items():
        before = None
        for cause, state in plan:
            is_same = cause == ACCUMULATOR and name in without_wrong_sums and state == plan[-1][1]
            if is_same and _has_whole_sums(state):
                runs.setdefault(state, runs[before])
            elif state not in runs:
                runs[state] = NetworkRun(_in_state(network, state), partners.tensors, new_metric)
            before = state
    computed = list({id(run): run for run in runs.values()}.values())
    original = FloatRun(floats, partners.tensors, new_metric)
    at_once = max(1, _ELEMENTS // _elements(network, partners.tensors))
    for images, labels in examples:
        batch = _reals(network, floats, images)
        parts = zip(evaluation.batches(images, at_once), slices(batch, at_once), strict=True)
        for part, reals in parts:
            signals = original.compute(reals)
            for run in computed:
                run.compute(part, signals)
        for run in (original, *computed):
            run.finish_batch(labels)
        advance(len(batch[0]))
    return Attributed(
        tuple(
            Attribution(name, tuple(runs[state].cause(c, original.powers) for c, state in plan))
            for name, plan in plans.items()
        ),
        original.metric,
        partners.missing,
    )


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


def _elements(network: Network, names: Collection[str]) -> int:
    """Return how many elements the layers of these names write for an image."""
    layers = (layer for layer in network.layers if layer.name in names)
    return sum(math.prod(layer.output_shapes[0]) for layer in layers)


def _in_state(network: Network, state: Sequence[Arithmetic]) -> Network:
    names = [layer.name for layer in network.layers]
    return network.with_arithmetic(dict(zip(names, state, strict=True)))


def _has_whole_sums(state: Sequence[Arithmetic]) -> bool:
    """Return whether equal sums are requantised alike: those in half precision are floats."""
    return not any(arithmetic.use_fp16_acc for arithmetic in state)


def checked(network: Network, float_model: Any) -> bytes:
    """Return a model in floats as a model file that `attribute` takes, before work begins.

    Raises:
        OSError, TypeError, ValueError: as `attribute`, but for what needs images.
    """
    file = float_file(float_model)
    _opened(network, file)
    return file


def _opened(network: Network, file: bytes) -> tuple[FloatModel, Partners]:
    floats = FloatModel(file)
    partners = partners_of(network, floats.graph)
    if not partners.tensors:
        raise ValueError(
            "Need a float model with layers of the network, found none of "
            f"{', '.join(partners.missing)}"
        )
    return floats, partners
