# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The operators of networks, a file for each family. The tables say who handles what."""

from __future__ import annotations

import numpy as np

from bitfold.network.arithmetic import Arithmetic
from bitfold.network.graph import Node
from bitfold.network.operators._products import Products, biases, scaled
from bitfold.network.operators._step import Step, SummingStep, Watched
from bitfold.network.operators._windows import Axis, Windows
from bitfold.network.operators.average_pool import AveragePool
from bitfold.network.operators.concatenation import Concatenation
from bitfold.network.operators.convolution import Convolution
from bitfold.network.operators.depthwise import DepthwiseConvolution
from bitfold.network.operators.extremes import ElementExtreme
from bitfold.network.operators.float_layers import LAYERS
from bitfold.network.operators.floats import KINDS as FLOAT_KINDS
from bitfold.network.operators.floats import Elementwise
from bitfold.network.operators.fully_connected import FullyConnected
from bitfold.network.operators.gather import Gather
from bitfold.network.operators.matrix_product import MatrixProduct
from bitfold.network.operators.max_pool import MaxPool
from bitfold.network.operators.mean import Mean
from bitfold.network.operators.pack import Pack
from bitfold.network.operators.pad import MirrorPad, Pad
from bitfold.network.operators.prelu import Prelu
from bitfold.network.operators.product import Product
from bitfold.network.operators.quantise import Dequantise, Quantise, Rescale
from bitfold.network.operators.reshape import Reshape
from bitfold.network.operators.resize import ResizeBilinear, ResizeNearest
from bitfold.network.operators.slice import Slice, StridedSlice
from bitfold.network.operators.softmax import Softmax
from bitfold.network.operators.space_and_batch import BatchToSpace, SpaceToBatch
from bitfold.network.operators.space_and_depth import DepthToSpace, SpaceToDepth
from bitfold.network.operators.split import Split, SplitV, Unpack
from bitfold.network.operators.squared_difference import SquaredDifference
from bitfold.network.operators.sum import ReducedExtreme, ReducedSum
from bitfold.network.operators.sum_of_two import Addition
from bitfold.network.operators.table import Table
from bitfold.network.operators.tile import BroadcastTo, Tile
from bitfold.network.operators.transpose import Reverse, Transpose
from bitfold.network.operators.transpose_conv import TransposeConvolution
from bitfold.network.operators.unit_activation import UnitActivation
from bitfold.network.operators.unit_addition import UnitAddition
from bitfold.network.operators.unit_resize import UnitResize
from bitfold.network.operators.unit_softmax import UnitSoftmax

__all__ = [
    "FLOATS",
    "STEPS",
    "UNITS",
    "Axis",
    "Products",
    "Step",
    "SummingStep",
    "Watched",
    "Windows",
    "biases",
    "scaled",
    "step_of",
]

STEPS: dict[str, type[Step]] = {
    "ABS": Table,
    "ADD": Addition,
    "AVERAGE_POOL_2D": AveragePool,
    "BATCH_MATMUL": MatrixProduct,
    "BATCH_TO_SPACE_ND": BatchToSpace,
    "BROADCAST_TO": BroadcastTo,
    "CAST": Elementwise,
    "CONCATENATION": Concatenation,
    "CONV_2D": Convolution,
    "DEPTHWISE_CONV_2D": DepthwiseConvolution,
    "DEPTH_TO_SPACE": DepthToSpace,
    "DEQUANTIZE": Dequantise,
    "ELU": Table,
    "EXP": Table,
    "EXPAND_DIMS": Reshape,
    "FULLY_CONNECTED": FullyConnected,
    "GATHER": Gather,
    "GELU": Table,
    "HARD_SWISH": Table,
    "LEAKY_RELU": Table,
    "LOG": Table,
    "LOGISTIC": Table,
    "MAXIMUM": ElementExtreme,
    "MAX_POOL_2D": MaxPool,
    "MEAN": Mean,
    "MINIMUM": ElementExtreme,
    "MIRROR_PAD": MirrorPad,
    "MUL": Product,
    "NEG": Table,
    "PACK": Pack,
    "PAD": Pad,
    "PADV2": Pad,
    "PRELU": Prelu,
    "QUANTIZE": Rescale,
    "REDUCE_MAX": ReducedExtreme,
    "REDUCE_MIN": ReducedExtreme,
    "RELU": Table,
    "RELU6": Table,
    "RELU_0_TO_1": Table,
    "RELU_N1_TO_1": Table,
    "RESHAPE": Reshape,
    "RESIZE_BILINEAR": ResizeBilinear,
    "RESIZE_NEAREST_NEIGHBOR": ResizeNearest,
    "REVERSE_V2": Reverse,
    "RSQRT": Table,
    "SLICE": Slice,
    "SOFTMAX": Softmax,
    "SPACE_TO_BATCH_ND": SpaceToBatch,
    "SPACE_TO_DEPTH": SpaceToDepth,
    "SPLIT": Split,
    "SPLIT_V": SplitV,
    "SQRT": Table,
    "SQUARED_DIFFERENCE": SquaredDifference,
    "SQUEEZE": Reshape,
    "STRIDED_SLICE": StridedSlice,
    "SUB": Addition,
    "SUM": ReducedSum,
    "TANH": Table,
    "TILE": Tile,
    "TRANSPOSE": Transpose,
    "TRANSPOSE_CONV": TransposeConvolution,
    "UNPACK": Unpack,
}

# The same where data is float32 and the operator computes with it.
FLOATS: dict[str, type[Step]] = {
    "QUANTIZE": Quantise,
    **dict.fromkeys(FLOAT_KINDS, Elementwise),
    **LAYERS,
}

# Who handles an operator where an arithmetic asks for the unit, by the field that asks.
UNITS: dict[str, tuple[str, type[Step]]] = {
    "ADD": ("additions", UnitAddition),
    "GELU": ("activations", UnitActivation),
    "HARD_SWISH": ("activations", UnitActivation),
    "LOGISTIC": ("activations", UnitActivation),
    "RESIZE_BILINEAR": ("resize", UnitResize),
    "SOFTMAX": ("softmax", UnitSoftmax),
    "SUB": ("additions", UnitAddition),
    "TANH": ("activations", UnitActivation),
}


def step_of(node: Node, arithmetic: Arithmetic = Arithmetic()) -> type[Step] | None:  # noqa: B008
    """Return who handles an operator on data in an arithmetic, None where nobody does."""
    if any(tensor is not None and tensor.dtype == np.float32 for tensor in node.inputs):
        return FLOATS.get(node.kind) or STEPS.get(node.kind)
    asks, unit = UNITS.get(node.kind, (None, None))
    if unit is not None and getattr(arithmetic, asks) == "unit":
        return unit
    return STEPS.get(node.kind)
