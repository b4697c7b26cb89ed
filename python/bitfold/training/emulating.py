# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""From a Keras model to one of the same variables that computes in integers and trains."""

from __future__ import annotations

import numbers
from collections.abc import Callable, Iterable, Mapping, Sequence
from typing import Any

import keras
import tensorflow as tf

from bitfold.network import selection
from bitfold.network.arithmetic import Arithmetic
from bitfold.network.calibration import Calibration
from bitfold.network.converter import model_inputs
from bitfold.training.calls import Calls
from bitfold.training.flow import calibrating
from bitfold.training.hooks import FilterRule, LayerIntegers
from bitfold.training.patterns import groups_of
from bitfold.training.products import PRODUCTS
from bitfold.training.proven import ExcessPenalty, ProvenWidth
from bitfold.training.ranges import RANGES
from bitfold.training.rewriting import Rewriter
from bitfold.training.separable import EmulatedSeparable
from bitfold.training.sums import GRADIENTS
from bitfold.training.weighted import EmulatedLayer

Penalty = Callable[[LayerIntegers], tf.Tensor]
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
    calls = Calls(model)
    groups = groups_of(calls)
    summing = [group.layer for group in groups if group.kind == "weighted"]
    options = {
        "arithmetic": _by_layer(arithmetic, summing, Arithmetic, "an Arithmetic", Arithmetic()),
        "filter_rule": _by_layer(filter_rule, summing, FilterRule, "a FilterRule"),
        "penalty": _by_layer(_mapped(_penalty, penalty), summing, Callable, "a function"),
    }
    for name, chosen in options["arithmetic"].items():
        _require_trainable(name, chosen)
        rule = options["filter_rule"][name]
        if isinstance(rule, ProvenWidth):
            rule.require_provable(name, chosen)
    settings = {
        layer.name: {
            "gradient": gradient,
            **{key: found[layer.name] for key, found in options.items()},
        }
        for layer in summing
    }
    ranged = {"ranges": ranges, "momentum": momentum}
    emulated = Rewriter(calls, groups, settings, ranged).rewritten(model.name)
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
    found: list[EmulatedLayer] = []
    for layer in model.layers:
        if isinstance(layer, EmulatedLayer):
            found.append(layer)
        elif isinstance(layer, EmulatedSeparable):
            found += [layer.depthwise, layer.pointwise]
    return found


def _mapped(function: Callable[[Any], Any], given: Any) -> Any:
    """Return a function of what is given, or of each value of a dictionary."""
    if isinstance(given, Mapping):
        return {key: function(value) for key, value in given.items()}
    return None if given is None else function(given)


def _penalty(given: Any) -> Any:
    """Return a penalty, of a number the one on bits."""
    return ExcessPenalty(given) if isinstance(given, numbers.Real) else given


def _require_trainable(name: str, arithmetic: Arithmetic) -> None:
    if arithmetic.units:
        raise ValueError(
            f'Need {arithmetic.units[0]}="model" to train layer {name!r}, got {arithmetic!r}: the '
            "tables of units are made for scales that do not change"
        )


def _by_layer(
    given: Any, layers: Sequence[keras.layers.Layer], kind: Any, what: str, default: Any = None
) -> dict[str, Any]:
    """Return a setting for each layer by its name."""
    names = [layer.name for layer in layers]
    if given is None:
        return dict.fromkeys(names, default)
    operators = [PRODUCTS[type(layer)].kind if type(layer) in PRODUCTS else "" for layer in layers]
    found = selection.by_layer(given, kind, what, names, operators)
    settings = [default if setting is None else setting for setting in found]
    return dict(zip(names, settings, strict=True))


def _calibrate(model: keras.Model, data: Calibration) -> None:
    """Run examples in real numbers; every range becomes what they reach."""
    structure = model._inputs_struct
    signature = [tf.TensorSpec((None, *tensor.shape[1:]), tensor.dtype) for tensor in model.inputs]

    def observe(*arrays: tf.Tensor) -> None:
        model(keras.tree.pack_sequence_as(structure, list(arrays)), training=False)

    with calibrating():
        # Concrete: of a polymorphic one the runtime warns when many models have traced it.
        graph = tf.function(observe, input_signature=signature, autograph=False)
        traced = graph.get_concrete_function()
        for batch in _batches(data.images()):
            traced(*map(tf.convert_to_tensor, batch))


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
