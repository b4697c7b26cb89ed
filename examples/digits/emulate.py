# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""The quantised network on Bitfold's operations.

Every convolution, bias addition and residual addition is a Bitfold operation.
What lies between two layers - multiplication of the accumulator by a real
number, rounding, ReLU and clipping to 0..255 - is done here in NumPy.
"""

from __future__ import annotations

from dataclasses import dataclass, field

import numpy as np
import tensorflow as tf

import bitfold
from quantise import ACTIVATION_MAX, Layer, QuantisedNetwork

SUM_NAMES = ("conv1", "conv2", "conv3", "add", "conv4", "dense")
"""The accumulators that a run records: convolutions after their bias, and the residual sum."""


@dataclass(frozen=True)
class Arithmetic:
    """How sums are accumulated.

    accumulator_size: bits of the wrapping accumulator (whole numbers only).
    shift: every addend is divided by 2**shift before it is added.
    half: float32 operations with a half-precision accumulator instead of whole numbers.
    """

    accumulator_size: int = 32
    shift: int = 0
    half: bool = False

    @property
    def dtype(self) -> type[np.generic]:
        """Type of the tensors given to the operations."""
        return np.float32 if self.half else np.int32

    def options(self) -> dict[str, int | bool]:
        """Keyword arguments for Bitfold's operations.

        The float operations take the divisor itself, the integer ones its logarithm.
        """
        if self.half:
            divisor = 2**self.shift if self.shift else 0
            return {"use_fp16_acc": True, "mult_shift": divisor}
        return {"accumulator_size": self.accumulator_size, "mult_shift": self.shift}


@dataclass
class Trace:
    """What one run leaves behind.

    sums: accumulators by name, [n, height, width, channels].
    activations: requantised tensors by name, same shape, whole numbers 0..255.
    predictions: int64 [n].
    """

    sums: dict[str, np.ndarray] = field(default_factory=dict)
    activations: dict[str, np.ndarray] = field(default_factory=dict)
    predictions: np.ndarray = field(default_factory=lambda: np.empty(0, np.int64))


def run(
    network: QuantisedNetwork,
    images: np.ndarray,
    arithmetic: Arithmetic,
    inputs_from: Trace | None = None,
) -> Trace:
    """Run the network over int32 images [n, 8, 8, 1] and keep every layer's outputs.

    With ``inputs_from``, every layer gets the inputs it had in that earlier run,
    so that what one layer does wrong does not reach the next.
    """
    trace = Trace()
    source = inputs_from or trace
    layers = network.layers

    def convolve(name: str, tensor: np.ndarray) -> None:
        trace.sums[name] = _convolve(layers[name], tensor, arithmetic)

    def activate(name: str, sums: str, scale_of: str) -> None:
        scale = layers[scale_of].sum_scale / network.activation_scale[name]
        trace.activations[name] = _requantise(trace.sums[sums], scale, arithmetic)

    convolve("conv1", images)
    activate("act1", "conv1", "conv1")
    convolve("conv2", source.activations["act1"])
    activate("act2", "conv2", "conv2")
    convolve("conv3", source.activations["act2"])
    trace.sums["add"] = _add_skip(
        source.sums["conv3"], source.activations["act1"], network.skip_factor, arithmetic
    )
    activate("act3", "add", "conv3")
    convolve("conv4", source.activations["act3"])
    activate("act4", "conv4", "conv4")
    convolve("dense", source.activations["act4"])
    scores = trace.sums["dense"][:, 0, 0, :] * layers["dense"].sum_scale
    trace.predictions = scores.argmax(axis=-1)
    return trace


def _convolve(layer: Layer, tensor: np.ndarray, arithmetic: Arithmetic) -> np.ndarray:
    """Convolution and bias on Bitfold's operations, [n, h, w, in] to [n, h', w', out]."""
    dtype = arithmetic.dtype
    options = arithmetic.options()
    sums = bitfold.ops.conv2d(
        tf.constant(tensor.astype(dtype)),
        tf.constant(layer.filters.astype(dtype)),
        strides=layer.strides,
        padding=layer.padding,
        **options,
    )
    return bitfold.ops.bias_add(sums, tf.constant(layer.bias.astype(dtype)), **options).numpy()


def _add_skip(
    sums: np.ndarray, skip: np.ndarray, factor: int, arithmetic: Arithmetic
) -> np.ndarray:
    """Residual addition on a Bitfold operation: sums + factor * skip, same shapes."""
    dtype = arithmetic.dtype
    return bitfold.ops.add(
        tf.constant(sums.astype(dtype)),
        tf.constant(skip.astype(dtype)),
        factor=factor,
        **arithmetic.options(),
    ).numpy()


def _requantise(sums: np.ndarray, scale: np.ndarray, arithmetic: Arithmetic) -> np.ndarray:
    """Next layer's activations, 0..255: sums x scale x 2**shift, rounded, ReLU, clipped."""
    values = np.rint(sums * (scale * 2**arithmetic.shift))
    return np.clip(values, 0, ACTIVATION_MAX).astype(arithmetic.dtype)
