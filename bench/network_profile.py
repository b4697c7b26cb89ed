# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Says where a network's time goes: sums, requantisation, memory, the runtime's calls.

The runtime traces every kernel of some calls; what a call takes beyond its kernels is the runtime's
own. A prepared layer sums and requantises in one kernel. So two bounds stand beside: all products
at the rate of the network's fastest layer, and every stored byte moved once.
"""

from __future__ import annotations

import re
import time
from collections import defaultdict
from dataclasses import dataclass

import numpy as np
import tensorflow as tf
from tensorflow.python.framework.convert_to_constants import convert_variables_to_constants_v2

import network_models
from timing import seconds

CALLS = 25
# What a kernel does, by the name of its op; of several the first.
KINDS = (
    ("sums", r"HConv2d|HConv2dDilation|HDepthWise|HMatmul"),
    ("biases", r"HBiasAdd"),
    ("requantisation", r"HRequantise|HActivation"),
    ("prepared layers", r"H[A-Z]\w+"),
    ("stock ops", r".*"),
)
CALLING = "the runtime's calls"
# Bytes of a copy that the second-level cache holds.
COPY = 1 << 19


@dataclass(frozen=True)
class LayerCost:
    """What a layer takes: seconds of its kernels, multiply-adds, and bytes it reads and writes."""

    name: str
    operator: str
    seconds: float
    multiply_adds: int
    bytes: int


@dataclass(frozen=True)
class Profile:
    """Seconds of a call of one image.

    Attributes:
        network: its name.
        seconds: of a call that is not traced.
        kinds: of them, by what was done.
        products_seconds: all multiply-adds at the rate of the fastest layer.
        memory_seconds: all stored bytes at the speed of a copy.
        layers: the most expensive first.
    """

    network: str
    seconds: float
    kinds: dict[str, float]
    products_seconds: float
    memory_seconds: float
    layers: list[LayerCost]


def measure(name: str, budget: float) -> Profile:
    """Profile a network at full width."""
    network, image = network_models.network(name), network_models.stored_images(name, 1)
    whole = seconds(lambda: network(image), budget)
    kernels = _traced(network, image)
    kinds = {kind: 0.0 for kind, _ in KINDS}
    by_position: dict[int, float] = defaultdict(float)
    for node, op, taken in kernels:
        kinds[next(kind for kind, pattern in KINDS if re.fullmatch(pattern, op))] += taken
        if match := re.search(r"(?:^|/)layer(\d+)_", node):
            by_position[int(match[1])] += taken
    kinds[CALLING] = max(whole - sum(kinds.values()), 0.0)
    layers = [
        LayerCost(
            layer.name,
            layer.operator,
            by_position[layer.position],
            layer.multiply_adds,
            _stored_bytes(layer),
        )
        for layer in network.layers
    ]
    rate = max((x.multiply_adds / x.seconds for x in layers if x.seconds), default=0.0)
    return Profile(
        network=name,
        seconds=whole,
        kinds={kind: taken for kind, taken in kinds.items() if taken},
        products_seconds=sum(x.multiply_adds for x in layers) / rate if rate else 0.0,
        memory_seconds=sum(x.bytes for x in layers) * _seconds_a_byte(budget),
        layers=sorted(layers, key=lambda x: -x.seconds),
    )


def _traced(network, image: tf.Tensor) -> list[tuple[str, str, float]]:
    """Return the kernels of a call: node, op, and the median of their seconds over some calls."""
    v1 = tf.compat.v1
    function = tf.function(
        lambda x: network(x), input_signature=[tf.TensorSpec(image.shape, image.dtype)]
    )
    frozen = convert_variables_to_constants_v2(function.get_concrete_function())
    ends = [frozen.outputs[0].name], [frozen.inputs[0].name]
    taken: dict[tuple[str, str], list[float]] = defaultdict(list)
    with tf.Graph().as_default():
        tf.import_graph_def(frozen.graph.as_graph_def(), name="")
        with v1.Session() as session:
            call = session.make_callable(*ends, accept_options=True)
            options = v1.RunOptions(trace_level=v1.RunOptions.FULL_TRACE)
            for _ in range(CALLS):
                metadata = v1.RunMetadata()
                call(image.numpy(), options=options, run_metadata=metadata)
                for device in metadata.step_stats.dev_stats:
                    for node in device.node_stats:
                        nanoseconds = node.op_end_rel_nanos - node.op_start_rel_nanos
                        taken[node.node_name, _op(node)].append(1e-9 * nanoseconds)
    return [(*key, float(np.median(times))) for key, times in taken.items()]


def _op(node) -> str:
    """Return the op of a traced kernel, whose label is "name = Op(inputs)"."""
    match = re.search(r" = (\w+)\(", node.timeline_label)
    return match[1] if match else node.node_name


def _stored_bytes(layer) -> int:
    """Return the bytes of what a layer reads and writes, an element a byte."""
    shapes = (*layer.input_shapes, *layer.output_shapes)
    return sum(int(np.prod(shape)) for shape in shapes if shape is not None)


def _seconds_a_byte(budget: float) -> float:
    """Return the time that a byte takes that is read and written once, half for each."""
    source = np.ones(COPY, np.uint8)
    target = np.zeros_like(source)
    end, times = time.perf_counter() + budget, []
    while not times or time.perf_counter() < end:
        start = time.perf_counter()
        np.copyto(target, source)
        times.append(time.perf_counter() - start)
    return float(np.median(times)) / (2 * COPY)
