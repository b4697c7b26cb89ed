# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""From a Keras model to one of the same variables that computes in integers and trains."""

from __future__ import annotations

import dataclasses
import numbers
from collections.abc import Callable, Iterable, Mapping, Sequence
from typing import Any

import keras
import tensorflow as tf

from bitfold.network import naming
from bitfold.network.arithmetic import Arithmetic
from bitfold.network.calibration import Calibration
from bitfold.network.converter import model_inputs
from bitfold.training.edges import Dequantised, Quantised
from bitfold.training.flow import calibrating
from bitfold.training.hooks import FilterRule, LayerIntegers
from bitfold.training.joins import EmulatedAddition
from bitfold.training.patterns import Calls, Group
from bitfold.training.pools import (
    EmulatedAverage,
    EmulatedMean,
    EmulatedMove,
    EmulatedNoise,
    InFloats,
)
from bitfold.training.products import PRODUCTS
from bitfold.training.proven import ExcessPenalty, ProvenWidth
from bitfold.training.ranges import RANGES
from bitfold.training.sums import GRADIENTS
from bitfold.training.weighted import EmulatedLayer

Penalty = Callable[[LayerIntegers], tf.Tensor]
_WRAPPERS = {"average": EmulatedAverage, "move": EmulatedMove, "noise": EmulatedNoise}
_BATCH = 32


def emulate(
    model: keras.Model,
    arithmetic: Arithmetic | Mapping[str, Arithmetic] | None = None,
    calibration: Any = None,
    *,
    gradient: str = "straight",
    ranges: str = "averaged",
    momentum: float = 0.99,
    filter_rule: FilterRule | Mapping[str, FilterRule] | None = None,
    proven_width: int | Mapping[str, int] | None = None,
    penalty: float | Penalty | Mapping[str, float | Penalty] | None = None,
) -> keras.Model:
    """Make a model that computes in the accelerator's integers and trains as any Keras model.

    It has the architecture of the given model and its variables: what one trains, the other has.
    Convolutions, depthwise convolutions and dense layers, with the batch normalisation and the
    activation behind them, sums of two tensors, pools and layers that move elements compute on
    stored integers of 8 bits, as `bitfold.Network.from_keras` of the model then does, bit for bit.
    Layers of other kinds compute in floats; `print_summary` says which.

    Filters have a scale for each output. Batch normalisation is folded into them with its moving
    statistics, which training moves on. Every tensor has a range, which is that of the calibration
    data at first.

    Args:
        model: a functional or sequential model that is built.
        arithmetic: what layers with an accumulator compute in, for all of them; or by layer, a
            dictionary whose keys are names of layers, patterns of such ("block1*") or operators
            ("CONV_2D"), as `Network.with_arithmetic` takes it. By default sums are exact.
        calibration: examples of inputs, as `Network.from_keras` takes them.
        gradient: "straight", as if nothing wrapped; or "zero_where_wrapped", no gradient for a sum
            that the accumulator's range has changed.
        ranges: "averaged", a moving average of what batches reach; "learned", trained with the
            weights; or "fixed".
        momentum: what a step of averaging keeps of a range.
        filter_rule: how real filters become integers, for all layers or by layer; by default the
            largest magnitude of each output stands for 127.
        proven_width: bits of an accumulator that no input can wrap, for all layers or by layer, at
            any step of training: instead of a filter rule, `bitfold.training.ProvenWidth`.
        penalty: adds to the loss in training, for all layers or by layer: what each bit costs by
            which an output's sums can leave the accumulator, as `bitfold.training.ExcessPenalty`;
            or a function of `bitfold.training.LayerIntegers` to a scalar.

    Returns:
        A functional Keras model. Its inputs and outputs are those of `model`, real numbers.

    Raises:
        TypeError: for anything but an `Arithmetic`.
        ValueError: for a model that is not built, calibration data that does not fit it, a key that
            means no layer, an arithmetic that does not train, and a proven width beyond a layer's
            accumulator.

    Example:
        >>> import bitfold, keras, numpy as np
        >>> model = keras.Sequential([keras.Input((4,)), keras.layers.Dense(2, name="dense")])
        >>> x = np.linspace(-1, 1, 80, dtype=np.float32).reshape(20, 4)
        >>> trained = bitfold.training.emulate(
        ...     model, bitfold.Arithmetic(accumulator_size=16), calibration=x
        ... )
        >>> trained.compile("sgd", "mse")
        >>> history = trained.fit(x, x[:, :2], epochs=1, verbose=0)
        >>> network = bitfold.Network.from_keras(trained)
        >>> bool((network(x).numpy() == trained.predict(x, verbose=0)).all())
        True
    """
    if gradient not in GRADIENTS:
        raise ValueError(f"Need a gradient of {', '.join(GRADIENTS)}, got {gradient!r}")
    if ranges not in RANGES:
        raise ValueError(f"Need ranges of {', '.join(RANGES)}, got {ranges!r}")
    if proven_width is not None:
        if filter_rule is not None:
            raise ValueError(f"Need a proven_width or a filter_rule, got both: {filter_rule!r}")
        filter_rule = _mapped(ProvenWidth, proven_width)
    inputs = model_inputs(model)
    functional = getattr(model, "_functional", None) or model
    groups = list(Calls(functional).groups())
    summing = [group.layer for group in groups if group.kind == "weighted"]
    by_layer = {
        "arithmetic": _by_layer(arithmetic, summing, Arithmetic, Arithmetic()),
        "filter_rule": _by_layer(filter_rule, summing, FilterRule, None),
        "penalty": _by_layer(_mapped(_penalty, penalty), summing, Callable, None),
    }
    for name, chosen in by_layer["arithmetic"].items():
        _require_trainable(name, chosen)
        rule = by_layer["filter_rule"][name]
        if isinstance(rule, ProvenWidth):
            rule.require_provable(name, chosen)
    options = {
        name: {"gradient": gradient, **{key: found[name] for key, found in by_layer.items()}}
        for name in (layer.name for layer in summing)
    }
    rewriter = _Rewriter(functional, options, {"ranges": ranges, "momentum": momentum})
    emulated = rewriter.rewritten(groups, model.name)
    _calibrate(emulated, Calibration(calibration, inputs))
    return emulated


def emulated_layers(model: keras.Model) -> list[EmulatedLayer]:
    """Return the layers with weights of a model that computes in integers, in their order.

    Example:
        >>> import bitfold, keras, numpy as np
        >>> model = keras.Sequential([keras.Input((4,)), keras.layers.Dense(2, name="dense")])
        >>> trained = bitfold.training.emulate(model, calibration=np.ones((5, 4), np.float32))
        >>> [layer.name for layer in bitfold.training.emulated_layers(trained)]
        ['dense']
    """
    return [layer for layer in model.layers if isinstance(layer, EmulatedLayer)]


def _mapped(function: Callable[[Any], Any], given: Any) -> Any:
    """Return a function of what is given, or of each value of a dictionary."""
    if isinstance(given, Mapping):
        return {key: function(value) for key, value in given.items()}
    return None if given is None else function(given)


def _penalty(given: Any) -> Any:
    """Return a penalty, of a number the one on bits."""
    return ExcessPenalty(given) if isinstance(given, numbers.Real) else given


def _require_trainable(name: str, arithmetic: Arithmetic) -> None:
    if arithmetic.requantisation != "model":
        raise ValueError(
            f'Need requantisation="model" to train layer {name!r}, got {arithmetic!r}; the unit\'s '
            "tables are made of scales that do not change"
        )


def _by_layer(
    given: Any, layers: Sequence[keras.layers.Layer], kind: Any, default: Any
) -> dict[str, Any]:
    """Return a setting for each layer by its name, of one for all or a mapping."""
    names = [layer.name for layer in layers]
    if given is None:
        return dict.fromkeys(names, default)
    if isinstance(given, kind):
        return dict.fromkeys(names, given)
    what = kind.__name__
    if not isinstance(given, Mapping):
        raise TypeError(f"Need {what} or a dictionary of them, got {given!r}")
    kinds = [PRODUCTS[type(layer)].kind for layer in layers]
    result, found = dict.fromkeys(names, default), []
    for key, value in given.items():
        if not isinstance(value, kind):
            raise TypeError(f"Need {what} for {key!r}, got {value!r}")
        exactness, indices = naming.matching(key, names, kinds)
        if not indices:
            raise ValueError(f"Need a layer, pattern or operator of {names}, got {key!r}")
        found.append((exactness, indices, value))
    for _, indices, value in sorted(found, key=lambda item: item[0]):
        result.update({names[i]: value for i in indices})
    return result


def _calibrate(model: keras.Model, data: Calibration) -> None:
    """Run examples in real numbers; every range becomes what they reach."""
    structure = model._inputs_struct

    @tf.function(reduce_retracing=True, autograph=False)
    def observe(arrays: list[tf.Tensor]) -> None:
        model(keras.tree.pack_sequence_as(structure, arrays), training=False)

    with calibrating():
        for batch in _batches(data.images()):
            observe([tf.convert_to_tensor(array) for array in batch])


def _batches(images: Iterable[list[Any]]) -> Iterable[list[Any]]:
    """Put images together."""
    kept: list[list[Any]] = []
    for image in images:
        kept.append(image)
        if len(kept) == _BATCH:
            yield [tf.concat(arrays, 0) for arrays in zip(*kept, strict=True)]
            kept = []
    if kept:
        yield [tf.concat(arrays, 0) for arrays in zip(*kept, strict=True)]


@dataclasses.dataclass
class _Value:
    """What stands for a tensor of the model: integers with their grid, real numbers, or both."""

    name: str
    centred: Any = None
    grid: Any = None
    real: Any = None


class _Rewriter:
    """Makes the layers in integers and calls them as the model calls its own."""

    def __init__(
        self, model: Any, options: Mapping[str, Mapping[str, Any]], ranged: Mapping[str, Any]
    ) -> None:
        """Take the model, the options of layers with weights by name, and those of ranges."""
        self._model = model
        self._calls = Calls(model)
        self._options = options
        self._ranged = dict(ranged)
        self._values: dict[int, _Value] = {}
        self._groups: dict[int, Group] = {}

    def rewritten(self, groups: Sequence[Group], name: str) -> keras.Model:
        """Return the model."""
        self._groups = {id(node): group for group in groups for node in group.nodes}
        structure = self._model._inputs_struct
        inputs = []
        for tensor in self._model.inputs:
            new = keras.Input(batch_shape=tensor.shape, dtype=tensor.dtype, name=tensor.name)
            self._values[id(tensor)] = _Value(tensor.name, real=new)
            inputs.append(new)
        for group in groups:
            self._add(group)
        outputs = keras.tree.map_structure(
            lambda tensor: self._real(tensor), self._model._outputs_struct
        )
        return keras.Model(keras.tree.pack_sequence_as(structure, inputs), outputs, name=name)

    def _add(self, group: Group) -> None:
        """Call what a group becomes."""
        gives_real = not any(map(self._takes_integers, self._users(group)))
        # With floats behind it alone, what moves elements may move floats.
        if group.kind == "float" or (group.kind in ("move", "noise") and gives_real):
            self._add_float(group)
            return
        arguments = [part for tensor in group.inputs for part in self._integers(tensor)]
        layer = self._layer(group, gives_real)
        result = layer(*arguments)
        name = group.nodes[-1].operation.name
        if gives_real:
            value = _Value(name, real=result)
        else:
            value = _Value(name, centred=result[0], grid=result[1])
        self._values[id(group.outputs[0])] = value

    def _users(self, group: Group) -> list[Any]:
        return self._calls.consumers(group.outputs[0])

    def _takes_integers(self, node: Any) -> bool:
        """Return whether a call computes in integers, or moves them to one that does."""
        group = self._groups[id(node)]
        if group.kind in ("move", "noise"):
            return any(map(self._takes_integers, self._users(group)))
        return group.kind != "float"

    def _layer(self, group: Group, gives_real: bool) -> keras.layers.Layer:
        """Make the layer in integers."""
        layer = group.layer
        keywords = {"gives_real": gives_real, "name": layer.name}
        if group.kind in _WRAPPERS:
            return _WRAPPERS[group.kind](_anew(layer), **keywords)
        keywords |= {"activation": group.activation, **self._ranged}
        if group.kind == "mean":
            return EmulatedMean(keeps_dimensions=layer.keepdims, **keywords)
        if group.kind == "sum":
            subtracts = type(layer) is keras.layers.Subtract
            return EmulatedAddition(subtracts=subtracts, **keywords)
        parts = [node.operation for node in group.nodes[1:]]
        normalisation = next(
            (part for part in parts if isinstance(part, keras.layers.BatchNormalization)), None
        )
        return EmulatedLayer(layer, normalisation, **self._options[layer.name], **keywords)

    def _add_float(self, group: Group) -> None:
        """Call a layer in floats."""
        node = group.nodes[0]
        layer = InFloats(group.layer) if group.layer.variables else _anew(group.layer)
        arguments = node.arguments.fill_in({tensor: self._real(tensor) for tensor in group.inputs})
        results = layer(*arguments[0], **arguments[1])
        for tensor, result in zip(group.outputs, keras.tree.flatten(results), strict=True):
            self._values[id(tensor)] = _Value(layer.name, real=result)

    def _integers(self, tensor: Any) -> tuple[Any, Any]:
        """Return centred integers and the grid that stand for a tensor."""
        value = self._values[id(tensor)]
        if value.centred is None:
            layer = Quantised(name=f"{value.name}_quantised", **self._ranged)
            value.centred, value.grid = layer(value.real)
        return value.centred, value.grid

    def _real(self, tensor: Any) -> Any:
        """Return the real numbers that stand for a tensor."""
        value = self._values[id(tensor)]
        if value.real is None:
            layer = Dequantised(name=f"{value.name}_real")
            value.real = layer(value.centred, value.grid)
        return value.real


def _anew(layer: Any) -> Any:
    """Return a layer without variables anew: the model's own keeps its calls."""
    return type(layer).from_config(layer.get_config())
