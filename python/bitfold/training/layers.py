# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What the layers of a model in training share: integers in, integers out, and a range."""

from __future__ import annotations

from collections.abc import Callable, Sequence
from typing import Any

import keras
import numpy as np
import tensorflow as tf

from bitfold.network import trained
from bitfold.training import activations, quantising
from bitfold.training.flow import Flow, current
from bitfold.training.ranges import Range


class Emulated(keras.layers.Layer, trained.TrainedLayer):
    """A layer that computes in integers.

    Called with the centred integers and the grid of each operand, it gives those of its output; the
    real numbers alone where `gives_real` is set, for the layers that compute in floats and for the
    model's outputs. While a model is calibrated or exported, real numbers stand for the integers.
    """

    def __init__(self, *, gives_real: bool = False, **kwargs: Any) -> None:
        """Take whether real numbers come out, and the keywords of every Keras layer."""
        kwargs.setdefault("dtype", "float32")
        super().__init__(**kwargs)
        self.supports_jit = False  # the ops have no XLA kernels
        self.gives_real = gives_real

    def build(self, *shapes: Any, **named: Any) -> None:
        """Build nothing; a layer that has what must be built overrides it."""
        self.built = True

    def result(self, centred: tf.Tensor, grid: tf.Tensor) -> Any:
        """Return what a call gives."""
        if not self.gives_real:
            return centred, grid
        return quantising.real(centred, grid) if current() is Flow.INTEGERS else centred

    def spec(self, shape: tuple) -> Any:
        """Return the Keras tensors that a call gives, for an output of a shape."""
        output = keras.KerasTensor(shape, "float32")
        return output if self.gives_real else (output, keras.KerasTensor((2,), "float32"))

    def get_config(self) -> dict[str, Any]:
        """Return what `from_config` needs."""
        return {**super().get_config(), "gives_real": self.gives_real}


class Ranged(Emulated):
    """A layer whose output has a range of its own, and maybe a fused activation.

    Attributes:
        activation: that is fused.
        range: of the output.
        kind: of the operator that it becomes, as CONV_2D; "" where it becomes none.
        called: its name in a `bitfold.Network`.
    """

    kind = ""

    def __init__(
        self,
        *,
        activation: str = "linear",
        ranges: str = "averaged",
        momentum: float = 0.99,
        **kwargs: Any,
    ) -> None:
        """Take the activation and how the range is found."""
        super().__init__(**kwargs)
        self.activation = activation
        self.called = self.name
        self.range = Range(ranges, momentum, name=f"{self.name}_range")

    def in_floats(self, values: tf.Tensor) -> Any:
        """Finish real numbers, in the flows of real numbers."""
        values = activations.applied(values, self.activation)
        if current() is Flow.CALIBRATION:
            self.range.widen(values)
            return self.result(values, tf.zeros([2]))
        low, high = eagerly(self.range.ends)
        values = tf.quantization.fake_quant_with_min_max_vars(values, low, high)
        return self.result(values, tf.constant(eagerly(self.range.grid)))

    def note(self, grids: Sequence[np.ndarray], **integers: Any) -> None:
        """Note what the layer was trained with, for operands of these grids."""
        output = eagerly(self.range.grid)
        trained.notes().append(
            trained.Trained(
                name=self.called,
                kind=self.kind,
                data=tuple(map(_scale_and_zero_point, grids)),
                output=_scale_and_zero_point(output),
                **integers,
            )
        )

    def output_bounds(self, grid: tf.Tensor) -> tuple[tf.Tensor, tf.Tensor]:
        """Return the least and the greatest centred output."""
        return activations.bounds(self.activation, grid, *quantising.bounds(grid))

    def observe(self, unclamped: tf.Tensor, grid: tf.Tensor, training: bool) -> None:
        """Average the range of centred outputs that were not clamped."""
        if not training:
            return
        low, high = activations.LIMITS[self.activation]
        least = tf.zeros([]) if low == 0 else tf.reduce_min(unclamped) * grid[0]
        greatest = tf.reduce_max(unclamped) * grid[0]
        self.range.average(least, greatest if high is None else tf.minimum(greatest, high))

    @property
    def log_scale(self) -> tf.Tensor | None:
        """The trained logarithm of the output's scale, None where it is not learned."""
        variable = self.range.log_scale
        return None if variable is None else tf.convert_to_tensor(variable)

    def get_config(self) -> dict[str, Any]:
        """Return what `from_config` needs."""
        return {
            **super().get_config(),
            "activation": self.activation,
            "ranges": self.range.ranges,
            "momentum": self.range.momentum,
        }


def eagerly(function: Callable[[], Any]) -> Any:
    """Call a function outside of the graph that is built; return its tensors as arrays."""
    with tf.init_scope():
        return tf.nest.map_structure(lambda tensor: tensor.numpy(), function())


def known(grid: tf.Tensor) -> np.ndarray:
    """Return a grid that a layer put into the graph that is exported."""
    value = tf.get_static_value(grid)
    if value is None:
        raise ValueError(f"Need a model that `bitfold.training.emulate` made, got the grid {grid}")
    return np.asarray(value)


def _scale_and_zero_point(grid: np.ndarray) -> tuple[float, int]:
    return float(grid[0]), int(grid[1])
