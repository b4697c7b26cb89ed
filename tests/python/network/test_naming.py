# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Names of layers, from those of tensors."""

from __future__ import annotations

import numpy as np

from bitfold.network import naming
from bitfold.network.graph import Node, Operator, Tensor


def node(output: str, weights: str | None = None, kind: str = "CONV_2D") -> Node:
    """Node."""
    inputs = [Tensor(0, "data", (1, 4), np.dtype("int8"))]
    if weights:
        inputs.append(Tensor(1, weights, (2, 2), np.dtype("int8"), data=np.zeros([2, 2], np.int8)))
    outputs = (Tensor(2, output, (1, 4), np.dtype("int8")),)
    return Node(Operator(0, kind, (0, 1), (2,)), tuple(inputs), outputs)


def test_a_layer_is_called_by_the_path_of_its_weights():
    """A layer is called by the path of its weights."""
    fused = node("model_1/relu_1/Relu;model_1/c1_1/convolution", "model_1/c1_1/convolution")
    assert naming.layer_names([fused]) == ["c1"]


def test_a_folded_normalisation_gives_no_name():
    """Weights with a normalisation folded into them have the name of the convolution."""
    weights = "m/norm/batchnorm/mul_1;m/depth/depthwise;m/norm/batchnorm/mul"
    assert naming.layer_names([node(f"m/relu/Relu;{weights}1", weights)]) == ["depth"]


def test_without_weights_by_the_last_path_of_its_output():
    """Without weights by the last path of its output."""
    assert naming.layer_names([node("model/a/Relu;model/b/Add", kind="ADD")]) == ["b"]


def test_known_names_end_a_path():
    """Known names end a path."""
    dense = node("m_1/d_1/Tensordot/MatMul1", "m_1/d_1/Tensordot/MatMul")
    assert naming.layer_names([dense]) == ["d/Tensordot"]
    assert naming.layer_names([dense], ["d"]) == ["d"]


def test_a_suffix_that_belongs_to_the_name_stays():
    """A suffix that belongs to the name stays."""
    assert naming.layer_names([node("model/conv_1/convolution")]) == ["conv_1"]
    # The exporter adds one to every layer.
    assert naming.layer_names([node("m_1/conv_1_1/convolution")], ["conv_1"]) == ["conv_1"]


def test_a_suffix_that_another_layer_has_as_its_name():
    """The exporter's suffix is a number behind it where another layer has the name with _1."""
    nodes = [node("m_1/dense_1/MatMul"), node("m_1/dense_1_2/MatMul")]
    assert naming.layer_names(nodes, ["dense", "dense_1"]) == ["dense", "dense_1"]


def test_a_lost_name_is_the_operators():
    """A lost name is the operators."""
    assert naming.layer_names([node("StatefulPartitionedCall_1:0", kind="SOFTMAX")]) == ["softmax"]


def test_names_differ():
    """Names differ."""
    nodes = [node("m/a/Add"), node("m/a/Relu"), node("m/a_2/Add"), node("m/a/Mul")]
    names = naming.layer_names(nodes)
    assert len(set(names)) == 4
    assert names[0] == "a"
    assert names[2] == "a_2"


def test_the_layer_itself_keeps_the_name():
    """What a converter writes around a layer with weights is numbered, wherever it stands."""
    nodes = [node("m/c/Pad", kind="PAD"), node("m/c/convolution1", "m/c/convolution")]
    assert naming.layer_names(nodes) == ["c_2", "c"]
