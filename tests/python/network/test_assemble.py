# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""From records to nodes: what is folded, what is refused, and what is taken image by image."""

from __future__ import annotations

import numpy as np
import pytest
from packing import quantisation, tensor

import bitfold
from bitfold.network.assemble import assemble
from bitfold.network.graph import Graph, Operator
from bitfold.network.model_packer import pack

ADD = {"fused_activation_function": "NONE", "pot_scale_int16": False}


def graph_of(tensors, operators, inputs=(0,), outputs=None) -> Graph:
    """Return a graph; the last tensor is the output where none is named."""
    outputs = (len(tensors) - 1,) if outputs is None else outputs
    names = [tuple(f"t{i}" for i in ends) for ends in (inputs, outputs)]
    return Graph(tuple(tensors), tuple(operators), inputs, outputs, *names)


def test_all_reasons_come_at_once():
    """Each operator that is refused, with its position, its tensors and what is missing."""
    graph = graph_of(
        [
            tensor(0, (1, 4), scales=0.5),
            tensor(1, (1, 4), scales=0.5),
            tensor(2, (1, 4), scales=0.5),
            tensor(3, (1, 4), "int16", scales=0.5),
        ],
        [
            Operator(0, "CUSTOM Fancy", (0,), (1,)),
            Operator(1, "MAXIMUM", (0, 0), (2,)),
            Operator(2, "ADD", (0, 2), (3,), ADD),
        ],
        outputs=(1, 3),
    )
    with pytest.raises(bitfold.UnsupportedModelError) as caught:
        assemble(graph)
    first, second = caught.value.reasons
    assert first == ("operator 0 CUSTOM Fancy 't/1' (tensor 1): this operator is not supported")
    assert second.startswith("operator 2 ADD 't/3' (tensor 3): need one type for")
    assert str(caught.value).startswith("the model cannot be imported, for 2 reasons:\n  - ")


def test_an_operator_behind_a_refused_one_is_judged_by_its_kind():
    """Of what has no known shapes only the kind can be said."""
    graph = graph_of(
        [tensor(i, (1, 4), scales=0.5) for i in range(4)],
        [
            Operator(0, "CUSTOM Fancy", (0,), (1,)),
            Operator(1, "ADD", (0, 1), (2,), ADD),
            Operator(2, "WHILE", (2,), (3,)),
        ],
    )
    with pytest.raises(bitfold.UnsupportedModelError) as caught:
        assemble(graph)
    assert [reason.split()[2] for reason in caught.value.reasons] == ["CUSTOM", "WHILE"]


def test_arithmetic_on_shapes_is_folded():
    """The size that a converter computes at run time is known."""
    graph = graph_of(
        [
            tensor(0, (1, 2, 3, 4), scales=0.5, unknown=(0,)),
            tensor(1, (4,), "int32"),
            tensor(2, (2,), "int32", data=[1, 3]),
            tensor(3, (2,), "int32"),
            tensor(4, (1,), "int32", data=[0]),
            tensor(5, (), "int32"),
            tensor(6, (2,), "int32"),
            tensor(7, (1, 1), scales=0.5, unknown=(0, 1)),
            tensor(8, (), "int32", data=-1),
        ],
        [
            Operator(0, "SHAPE", (0,), (1,)),
            Operator(1, "GATHER", (1, 2), (3,), {"axis": 0, "batch_dims": 0}),
            Operator(2, "REDUCE_PROD", (3, 4), (5,), {"keep_dims": False}),
            Operator(3, "PACK", (8, 5), (6,), {"axis": 0, "values_count": 2}),
            Operator(4, "RESHAPE", (0, 6), (7,), {}),
        ],
        outputs=(7,),
    )
    assembly = assemble(graph)
    assert [node.kind for node in assembly.nodes] == ["RESHAPE"]
    assert assembly.tensors[7].shape == (3, 8)
    assert assembly.tensors[6].data.tolist() == [-1, 8]


@pytest.mark.parametrize(
    ("tensors", "text"),
    [
        ([tensor(0, (1, 4), scales=0.5, unknown=(0, 1))], r"leaves dimensions \[0, 1\] open"),
        ([tensor(0, (), scales=0.5)], "need a first dimension for the images"),
        ([tensor(0, (0, 4), scales=0.5)], "need a first dimension for the images"),
        ([tensor(0, (1, 4), scales=quantisation(*[0.5] * 4, axis=1))], "need one scale, got 4"),
        ([tensor(0, (1, 4), "bool")], "need one of int8"),
    ],
)
def test_ends_that_cannot_be_are_refused(tensors, text):
    """Inputs and outputs that no caller can give or take."""
    with pytest.raises(bitfold.UnsupportedModelError, match=text):
        assemble(graph_of(tensors, []))


def test_a_network_has_inputs_and_outputs():
    """A file may say that there are none."""
    for ends, text in (((), (0,)), "need an input of"), (((0,), ()), "need an output of"):
        with pytest.raises(bitfold.UnsupportedModelError, match=f"{text} the network, got none"):
            assemble(graph_of([tensor(0, (1, 4), scales=0.5)], [], *ends))


def test_an_output_that_depends_on_nothing_is_refused():
    """A constant is no result."""
    tensors = [tensor(0, (1, 4), scales=0.5), tensor(1, (1, 4), scales=0.5, data=[[1, 2, 3, 4]])]
    with pytest.raises(bitfold.UnsupportedModelError, match="it depends on no input"):
        assemble(graph_of(tensors, []))


def test_what_a_file_claims_takes_no_memory():
    """Shapes are found without the elements: these would be gigabytes, others more than counts."""
    for sizes, text in (
        ((1 << 10, 1 << 20), None),
        ((1 << 18, 1 << 18), "need at most 2147483647"),
    ):
        graph = graph_of(
            [tensor(i, (1, *sizes, 1), scales=0.5) for i in range(2)],
            [Operator(0, "ADD", (0, 0), (1,), ADD)],
        )
        if text is None:
            assert assemble(graph).tensors[1].shape == (1, *sizes, 1)
            continue
        with pytest.raises(bitfold.UnsupportedModelError, match=text):
            assemble(graph)
    padded = [
        tensor(0, (1, 1 << 30), scales=0.5),
        tensor(1, (2, 2), "int32", data=[[0, 0], [1, 1 << 29]]),
        tensor(2, (1, 1), scales=0.5),
    ]
    mirrored = Operator(0, "MIRROR_PAD", (0, 1), (2,), {"mode": "SYMMETRIC"})
    assert assemble(graph_of(padded, [mirrored])).tensors[2].shape == (1, 1 + 3 * (1 << 29))


def test_images_of_several_rows_with_a_constant_run_one_by_one():
    """A constant of as many rows as an image meets each image anew."""
    rng = np.random.default_rng(1)
    constant = rng.integers(-128, 128, (3, 4))
    graph = graph_of(
        [
            tensor(0, (3, 4), scales=0.5),
            tensor(1, (3, 4), scales=0.25, data=constant),
            tensor(2, (3, 4), scales=0.75),
        ],
        [Operator(0, "ADD", (0, 1), (2,), ADD)],
    )
    network = bitfold.Network.from_tflite(pack(graph))
    (step,) = network._program.steps
    assert not step.stacks
    images = rng.integers(-128, 128, (6, 4), np.int8)
    both = network(images).numpy()
    for first in (0, 3):
        alone = network(images[first : first + 3])
        np.testing.assert_array_equal(both[first : first + 3], alone)
    with pytest.raises(ValueError, match="a multiple of 3"):
        network(images[:4])
    assert network.batch_size(None) % 3 == 0
    np.testing.assert_array_equal(network.predict(images), both)
