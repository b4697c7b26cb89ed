# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Model files made by hand, and comparison of what they hold."""

from __future__ import annotations

import dataclasses

import ml_dtypes
import numpy as np

from bitfold.network.graph import Graph, Operator, Quantisation, Tensor


def quantisation(*scales: float, zero_points=None, axis: int = 0) -> Quantisation:
    """Return scales with zero points, 0 where none are given."""
    zero_points = [0] * len(scales) if zero_points is None else zero_points
    return Quantisation(np.array(scales, np.float32), np.array(zero_points, np.int64), axis)


def tensor(index: int, shape, dtype="int8", scales=(), data=None, **fields) -> Tensor:
    """Return a tensor; `scales` is a scale, a `Quantisation` or empty."""
    if isinstance(scales, float):
        scales = quantisation(scales)
    if data is not None:
        data = np.asarray(data).astype(dtype).reshape(shape)
    return Tensor(
        index, f"t/{index}", tuple(shape), np.dtype(dtype), scales or None, data, **fields
    )


def small_graph() -> Graph:
    """Return a graph that has one of everything that records hold."""
    rng = np.random.default_rng(0)
    tensors = (
        tensor(0, (1, 5, 5, 2), scales=quantisation(0.5, zero_points=[-3]), unknown=(0,)),
        tensor(
            1,
            (3, 2, 2, 2),
            scales=quantisation(0.25, 0.5, 2.0, axis=0),
            data=rng.integers(-127, 128, (3, 2, 2, 2)),
        ),
        tensor(2, (3,), "int32", quantisation(0.125, 0.25, 1.0), data=[1, -70000, 3]),
        tensor(3, (1, 4, 4, 3), scales=0.75, unknown=(0,)),
        tensor(4, (2,), "int32", data=[1, 48]),
        tensor(5, (1, 48), scales=0.75, unknown=(0,)),
        tensor(6, (1, 48), "float32", unknown=(0,)),
        tensor(7, (3,), ml_dtypes.int4, 1.0, data=[-8, 7, 3]),
        tensor(8, (1, 48), "float32", unknown=(0,)),
        tensor(9, (0,), "int32", data=[]),
        tensor(10, (), "bool", data=True),
    )
    convolution = {
        "padding": "VALID",
        "stride_w": 1,
        "stride_h": 1,
        "fused_activation_function": "RELU6",
        "dilation_w_factor": 1,
        "dilation_h_factor": 1,
        "quantized_bias_type": "float32",
    }
    operators = (
        Operator(0, "CONV_2D", (0, 1, 2), (3,), convolution, 3),
        Operator(1, "RESHAPE", (3, 4), (5,), {"new_shape": (1, -1)}),
        Operator(2, "DEQUANTIZE", (5,), (6,), {}, 2),
        Operator(3, "CUSTOM mine", (6, 7, -1, 9, 10), (8,), {"custom_options": b"abc"}),
    )
    return Graph(tensors, operators, (0,), (8, 5), ("image",), ("mine", "flat"))


def pieces(graph: Graph):
    """Return a graph as values that compare."""
    return (
        [
            (
                *(getattr(t, f.name) for f in dataclasses.fields(t) if f.name not in _ARRAYS),
                None if t.data is None else (t.data.dtype, t.data.shape, t.data.tobytes()),
                None if t.quantisation is None else _parts(t.quantisation),
            )
            for t in graph.tensors
        ],
        [dataclasses.astuple(operator) for operator in graph.operators],
        [getattr(graph, f.name) for f in dataclasses.fields(graph)][2:],
    )


_ARRAYS = ("data", "quantisation")


def _parts(found: Quantisation):
    return found.scales.tolist(), found.zero_points.tolist(), found.axis
