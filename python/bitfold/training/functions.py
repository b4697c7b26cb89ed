# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Functions of one tensor in integers: by the runtime's own kernels, at scales that train.

Elementwise functions are tables, which a kernel of the runtime fills whenever the scales change;
the softmax is that of the network. In training a softmax gives the real probabilities of the
integers below it, since a loss has no gradient where a stored probability is 0.
"""

from __future__ import annotations

import dataclasses
import functools
from collections.abc import Callable
from typing import Any

import keras
import numpy as np
import tensorflow as tf

from bitfold.network import kernels
from bitfold.network.arithmetic import Arithmetic
from bitfold.network.graph import Node, Operator, Quantisation, Tensor
from bitfold.network.operators import step_of
from bitfold.training import quantising
from bitfold.training.clamping import Term, clamped
from bitfold.training.flow import Flow, current
from bitfold.training.layers import Ranged, known

_SOFTMAX = "SOFTMAX"
# The outputs that the runtime fixes.
_RANGES = {
    "LOGISTIC": (0.0, 255 / 256),
    "SOFTMAX": (0.0, 255 / 256),
    "TANH": (-1.0, 127 / 128),
}


@dataclasses.dataclass(frozen=True)
class Function:
    """A function.

    Attributes:
        kind: of the operator in a model file.
        slope: of LEAKY_RELU below 0.
    """

    kind: str
    slope: float = 0.0

    def __call__(self, values: tf.Tensor) -> tf.Tensor:
        """Compute in real numbers, by the stock op."""
        if self.kind == "LEAKY_RELU":
            return tf.nn.leaky_relu(values, self.slope)
        return _STOCK[self.kind](values)

    @property
    def options(self) -> dict[str, Any]:
        """The operator's."""
        return {"LEAKY_RELU": {"alpha": self.slope}, _SOFTMAX: {"beta": 1.0}}.get(self.kind, {})


_STOCK: dict[str, Callable[[tf.Tensor], tf.Tensor]] = {
    "ELU": tf.nn.elu,
    "HARD_SWISH": keras.activations.hard_silu,
    "LOGISTIC": tf.nn.sigmoid,
    "RELU": tf.nn.relu,
    "RELU6": tf.nn.relu6,
    _SOFTMAX: tf.nn.softmax,
    "TANH": tf.nn.tanh,
}
_KINDS = {
    "elu": "ELU",
    "hard_silu": "HARD_SWISH",
    "relu": "RELU",
    "relu6": "RELU6",
    "sigmoid": "LOGISTIC",
    "softmax": _SOFTMAX,
    "tanh": "TANH",
}


def function_of_name(activation: Any) -> Function | None:
    """Return the function that a Keras activation is, None where it has no form in integers."""
    name = keras.activations.serialize(activation)
    return Function(_KINDS[name]) if isinstance(name, str) and name in _KINDS else None


def function_of_layer(layer: Any) -> Function | None:
    """Return the function that a Keras layer computes, None for other layers."""
    if type(layer) is keras.layers.Activation:
        return function_of_name(layer.activation)
    if type(layer) is keras.layers.LeakyReLU:
        return Function("LEAKY_RELU", float(layer.negative_slope))
    if type(layer) is keras.layers.Softmax and layer.axis == -1:
        return Function(_SOFTMAX)
    if type(layer) is keras.layers.ReLU and not layer.negative_slope and not layer.threshold:
        kind = {None: "RELU", 6.0: "RELU6"}.get(layer.max_value)
        return None if kind is None else Function(kind)
    return None


@keras.saving.register_keras_serializable("bitfold")
class EmulatedFunction(Ranged):
    """A function of one tensor."""

    def __init__(self, function: Function, **kwargs: Any) -> None:
        """Take the function."""
        given = _RANGES.get(function.kind)
        super().__init__(**kwargs if given is None else {**kwargs, "ranges": "fixed"})
        self.function = function
        self.kind = function.kind
        if given is not None:
            self.range.give(*given)

    def call(self, values: tf.Tensor, grid: tf.Tensor, training: bool = False) -> Any:
        """Compute a batch."""
        flow = current()
        if flow is not Flow.INTEGERS:
            if flow is Flow.EXPORT:
                self.note([known(grid)])
            return self.in_floats(self.function(values))
        exact = self.function(quantising.real(values, grid))
        if training and self.kind == _SOFTMAX and self.gives_real:
            return exact
        output_grid = self.range.grid()
        stored = self._stored(tf.stop_gradient(values), grid, output_grid)
        low, high = quantising.bounds(output_grid)
        # What the table has clamped is known by the real function.
        whole = quantising.whole(exact, output_grid)
        unclamped = tf.where((whole < low) | (whole > high), whole, stored)
        centred = clamped(
            tf.stop_gradient(unclamped),
            [Term(exact, 1.0 / output_grid[0])],
            (low, high),
            log_scale=self.log_scale,
        )
        self.observe(tf.stop_gradient(whole), output_grid, training)
        return self.result(quantising.replaced(centred, stored), output_grid)

    def _stored(self, values: tf.Tensor, grid: tf.Tensor, output_grid: tf.Tensor) -> tf.Tensor:
        """Return the centred outputs of centred integers."""
        if self.kind == _SOFTMAX:
            compute = functools.partial(_softmax, self.function)
            stored = tf.numpy_function(compute, [values, grid], tf.float32)
            return tf.ensure_shape(stored, values.shape)
        fill = functools.partial(_table, self.function)
        table = tf.numpy_function(fill, [grid, output_grid], tf.float32)
        places = tf.cast(values + (grid[1] - quantising.LEAST), tf.int32)
        return tf.gather(tf.ensure_shape(table, [256]), places)

    def compute_output_spec(self, values: Any, grid: Any, training: bool = False) -> Any:
        """Return what a call gives, symbolically."""
        return self.spec(values.shape)

    def get_config(self) -> dict[str, Any]:
        """Return what `from_config` needs."""
        return {**super().get_config(), "function": dataclasses.asdict(self.function)}

    @classmethod
    def from_config(cls, config: dict[str, Any]) -> EmulatedFunction:
        """Make the layer from `get_config`'s result."""
        return cls(**{**config, "function": Function(**config["function"])})


def _node(function: Function, shape: tuple[int, ...], grids: list[np.ndarray]) -> Node:
    """Return the operator of a function, from a grid to a grid."""
    tensors = tuple(
        Tensor(
            i,
            "",
            shape,
            np.dtype(np.int8),
            Quantisation(np.float32([grid[0]]), np.int64([grid[1]])),
        )
        for i, grid in enumerate(grids)
    )
    operator = Operator(0, function.kind, (0,), (1,), function.options)
    return Node(operator, tensors[:1], tensors[1:])


def _table(function: Function, grid: np.ndarray, output_grid: np.ndarray) -> np.ndarray:
    """Return the centred outputs of all stored integers, from the least on."""
    table = kernels.tabulate(_node(function, (1, 256), [grid, output_grid]))
    return table.astype(np.float32) - output_grid[1]


def _softmax(function: Function, values: np.ndarray, grid: np.ndarray) -> np.ndarray:
    """Return the centred outputs of rows of centred integers."""
    output_grid = quantising.grid_of(*map(tf.constant, _RANGES[_SOFTMAX])).numpy()
    node = _node(function, (1, *values.shape[1:]), [grid, output_grid])
    stored = tf.constant((values + grid[1]).astype(np.int8))
    with tf.device("CPU"):
        found = step_of(node, Arithmetic())(node, Arithmetic()).run([stored])[0]
    return found.numpy().astype(np.float32) - output_grid[1]
