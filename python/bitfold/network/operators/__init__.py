# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The operators of networks, a file for each family. The tables say who handles what."""

from __future__ import annotations

from bitfold.network.graph import Node
from bitfold.network.operators._step import Step, SummingStep
from bitfold.network.operators.average_pool import AveragePool
from bitfold.network.operators.concatenation import Concatenation
from bitfold.network.operators.convolution import Convolution
from bitfold.network.operators.depthwise import DepthwiseConvolution
from bitfold.network.operators.fully_connected import FullyConnected
from bitfold.network.operators.gather import Gather
from bitfold.network.operators.max_pool import MaxPool
from bitfold.network.operators.mean import Mean
from bitfold.network.operators.pack import Pack
from bitfold.network.operators.pad import MirrorPad, Pad
from bitfold.network.operators.reshape import Reshape
from bitfold.network.operators.resize import ResizeBilinear, ResizeNearest
from bitfold.network.operators.slice import Slice, StridedSlice
from bitfold.network.operators.space_and_batch import BatchToSpace, SpaceToBatch
from bitfold.network.operators.space_and_depth import DepthToSpace, SpaceToDepth
from bitfold.network.operators.split import Split, SplitV, Unpack
from bitfold.network.operators.sum import Extreme, Sum
from bitfold.network.operators.tile import BroadcastTo, Tile
from bitfold.network.operators.transpose import Reverse, Transpose

__all__ = ["STEPS", "Step", "SummingStep", "step_of"]

STEPS: dict[str, type[Step]] = {
    "AVERAGE_POOL_2D": AveragePool,
    "BATCH_TO_SPACE_ND": BatchToSpace,
    "BROADCAST_TO": BroadcastTo,
    "CONCATENATION": Concatenation,
    "CONV_2D": Convolution,
    "DEPTHWISE_CONV_2D": DepthwiseConvolution,
    "DEPTH_TO_SPACE": DepthToSpace,
    "EXPAND_DIMS": Reshape,
    "FULLY_CONNECTED": FullyConnected,
    "GATHER": Gather,
    "MAX_POOL_2D": MaxPool,
    "MEAN": Mean,
    "MIRROR_PAD": MirrorPad,
    "PACK": Pack,
    "PAD": Pad,
    "PADV2": Pad,
    "REDUCE_MAX": Extreme,
    "REDUCE_MIN": Extreme,
    "RESHAPE": Reshape,
    "RESIZE_BILINEAR": ResizeBilinear,
    "RESIZE_NEAREST_NEIGHBOR": ResizeNearest,
    "REVERSE_V2": Reverse,
    "SLICE": Slice,
    "SPACE_TO_BATCH_ND": SpaceToBatch,
    "SPACE_TO_DEPTH": SpaceToDepth,
    "SPLIT": Split,
    "SPLIT_V": SplitV,
    "SQUEEZE": Reshape,
    "STRIDED_SLICE": StridedSlice,
    "SUM": Sum,
    "TILE": Tile,
    "TRANSPOSE": Transpose,
    "UNPACK": Unpack,
}


def step_of(node: Node) -> type[Step] | None:
    """Return who handles an operator on data, None where nobody does."""
    return STEPS.get(node.kind)
