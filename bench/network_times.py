# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Times whole networks of one image: ours, the stock float graph, the mobile runtime."""

from __future__ import annotations

import warnings
from collections.abc import Callable
from dataclasses import dataclass

import tensorflow as tf
from tensorflow.python.framework.convert_to_constants import convert_variables_to_constants_v2

import bitfold
import network_models
from timing import interleaved, seconds

NETWORKS = ("mobilenet_v2", "residual18")

STOCK = "stock float graph"
FROZEN = "stock float graph, weights constant"
FASTEST = "mobile runtime, fastest kernels"
REFERENCE = "mobile runtime, reference kernels"
FULL = "bitfold, full width"
NARROW = "bitfold, 18 bits"
SHIFTED = "bitfold, 24 bits, shift 4"
ARITHMETICS = {
    NARROW: bitfold.Arithmetic(accumulator_size=18),
    SHIFTED: bitfold.Arithmetic(accumulator_size=24, mult_shift=4),
}


@dataclass(frozen=True)
class NetworkTimes:
    """Seconds a call of one image, by who computes."""

    network: str
    seconds: dict[str, float]


def measure(name: str, budget: float) -> NetworkTimes:
    """Time a network, all but the reference kernels in turns."""
    image = network_models.stored_images(name, 1)
    exact = network_models.network(name)
    calls = {
        STOCK: float_call(name, 1),
        FROZEN: float_call(name, 1, is_frozen=True),
        FULL: lambda: exact(image),
    }
    for title, arithmetic in ARITHMETICS.items():
        narrow = exact.with_arithmetic(arithmetic)
        calls[title] = lambda narrow=narrow: narrow(image)
    has_mobile = hasattr(tf, "lite")
    if has_mobile:
        calls[FASTEST] = _mobile_call(name, image)
    times = interleaved(calls, budget)
    if has_mobile:
        # A few calls: they are slow.
        times[REFERENCE] = seconds(_mobile_call(name, image, is_reference=True), 0)
    order = (STOCK, FROZEN, FASTEST, REFERENCE, FULL, *ARITHMETICS)
    return NetworkTimes(name, {who: times[who] for who in order if who in times})


def float_call(name: str, count: int, is_frozen: bool = False) -> Callable[[], object]:
    """Return a call of the float network as a graph, on so many images.

    Frozen, its weights are constants, so that the runtime folds what depends on them alone.
    """
    model = network_models.float_model(name)
    images = tf.constant(network_models.images(name, count))
    compiled = tf.function(
        lambda x: model(x, training=False),
        input_signature=[tf.TensorSpec(images.shape, images.dtype)],
    )
    if not is_frozen:
        return lambda: compiled(images)
    frozen = convert_variables_to_constants_v2(compiled.get_concrete_function())
    return lambda: frozen(images)


def _mobile_call(name: str, image: tf.Tensor, is_reference: bool = False) -> Callable[[], None]:
    """Return a call of the mobile runtime's interpreter that has its input."""
    resolvers = tf.lite.experimental.OpResolverType
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")  # says that it will go
        interpreter = tf.lite.Interpreter(
            model_content=network_models.model_file(name),
            num_threads=1,
            experimental_op_resolver_type=resolvers.BUILTIN_REF if is_reference else resolvers.AUTO,
        )
    interpreter.allocate_tensors()
    interpreter.set_tensor(interpreter.get_input_details()[0]["index"], image.numpy())
    return interpreter.invoke
