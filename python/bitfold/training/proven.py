# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The rule and the penalty by which sums stay within an accumulator, whatever the data is."""

from __future__ import annotations

from typing import Any

import keras
import tensorflow as tf

from bitfold.network.arithmetic import Arithmetic
from bitfold.training.bounding import Limits, bounded_largest, excess_bits
from bitfold.training.hooks import FilterRule, LayerIntegers, RealLayer

# An output without weights has a scale, too.
_LEAST = 2.0**-100


@keras.saving.register_keras_serializable("bitfold")
class ProvenWidth(FilterRule):
    """Scales of filters with which no input can wrap an accumulator, at any step of training.

    Where an output's weights and bias are so large that some input could, more stands for 127, and
    its integers are smaller. What is stored is rounded to nearest as ever.

    Attributes:
        width: bits of the accumulator.

    Example:
        >>> import bitfold, keras, numpy as np
        >>> from bitfold.training import ProvenWidth
        >>> keras.utils.set_random_seed(1)
        >>> x = np.random.default_rng(1).normal(size=(64, 8)).astype(np.float32)
        >>> model = keras.Sequential([keras.Input((8,)), keras.layers.Dense(3)])
        >>> narrow = bitfold.Arithmetic(accumulator_size=12)
        >>> emulated = bitfold.training.emulate(
        ...     model, narrow, calibration=x, filter_rule=ProvenWidth(12)
        ... )
        >>> network = bitfold.Network.from_keras(emulated)
        >>> max(layer.proven for layer in bitfold.study(network, x).layers)
        12
    """

    def __init__(self, width: int) -> None:
        """Take the width.

        Raises:
            ValueError: for a width for which nothing can be proven.
        """
        Limits(width, 0, 0)
        self.width = width

    def require_provable(self, name: str, arithmetic: Arithmetic) -> None:
        """Refuse an accumulator for which this width proves nothing.

        Args:
            name: of the layer.
            arithmetic: what it computes in.

        Raises:
            ValueError: for a narrower accumulator, one of half precision and a shift beyond those
                that divide.
        """
        size = arithmetic.accumulator_size
        if arithmetic.use_fp16_acc:
            raise ValueError(
                f"Need an accumulator of whole numbers to prove {self.width} bits of layer "
                f"{name!r}, got {arithmetic!r}"
            )
        if size is not None and self.width > size:
            raise ValueError(
                f"Need a proven width of at most the {size} bits of layer {name!r}, got "
                f"{self.width}"
            )
        Limits(self.width, 0, 0, arithmetic.mult_shift)

    def largest(self, layer: RealLayer) -> tf.Tensor:
        """Return what 127 stands for."""
        limits = _limits(layer, self.width)
        largest = tf.maximum(super().largest(layer), _LEAST)
        return bounded_largest(layer.filter, layer.bias, largest, layer.data_scale, limits)

    def get_config(self) -> dict[str, Any]:
        """Return what `from_config` needs."""
        return {"width": self.width}


@keras.saving.register_keras_serializable("bitfold")
class ExcessPenalty:
    """A penalty on bits by which a layer's sums can leave its accumulator.

    Of each output the logarithm to the base 2 of the greatest sum of magnitudes that an input can
    give over the greatest that the accumulator holds; 0 where it holds it.

    Attributes:
        weight: what a bit of an output costs, in units of the loss.
        width: bits of the accumulator; None for those of the layer's arithmetic. Layers whose
            arithmetic is exact then cost nothing.

    Example:
        >>> import bitfold, keras, numpy as np
        >>> from bitfold.training import ExcessPenalty
        >>> x = np.random.default_rng(1).normal(size=(64, 8)).astype(np.float32)
        >>> model = keras.Sequential([keras.Input((8,)), keras.layers.Dense(3)])
        >>> emulated = bitfold.training.emulate(
        ...     model, bitfold.Arithmetic(12), calibration=x, penalty=ExcessPenalty(0.01)
        ... )
    """

    def __init__(self, weight: float, width: int | None = None) -> None:
        """Take weight and width.

        Raises:
            ValueError: for a weight below 0, and a width for which nothing can be proven.
        """
        if not weight >= 0:
            raise ValueError(f"Need a penalty of at least 0, got {weight!r}")
        if width is not None:
            Limits(width, 0, 0)
        self.weight = float(weight)
        self.width = width

    def __call__(self, layer: LayerIntegers) -> tf.Tensor:
        """Return the penalty of a layer, a scalar."""
        width = self.width or layer.accumulator_size
        if width is None:
            return tf.zeros([])
        excess = excess_bits(layer.filter, layer.bias, _limits(layer, width))
        return self.weight * tf.reduce_sum(excess)

    def get_config(self) -> dict[str, Any]:
        """Return what `from_config` needs."""
        return {"weight": self.weight, "width": self.width}

    @classmethod
    def from_config(cls, config: dict[str, Any]) -> ExcessPenalty:
        """Make the penalty from `get_config`'s result."""
        return cls(**config)


def _limits(layer: RealLayer | LayerIntegers, width: int) -> Limits:
    return Limits(width, layer.data_low, layer.data_high, layer.mult_shift, layer.is_depthwise)
