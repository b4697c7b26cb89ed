# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Model files: what is read of them, what is written, and what is refused."""

from __future__ import annotations

import dataclasses
import re

import flatbuffers
import ml_dtypes
import numpy as np
import packing
import pytest
import tensorflow as tf
from packing import pieces, quantisation, small_graph, tensor
from tensorflow.lite.python import schema_py_generated as schema

from bitfold.network import model_schema
from bitfold.network.graph import Graph, Operator
from bitfold.network.model_file import read
from bitfold.network.model_packer import pack


def changed(change, graph: Graph | None = None) -> bytes:
    """Return a file whose objects of the schema were changed after packing."""
    model = schema.ModelT.InitFromPackedBuf(pack(graph or small_graph()))
    change(model)
    builder = flatbuffers.Builder(1024)
    builder.Finish(model.Pack(builder), file_identifier=b"TFL3")
    return bytes(builder.Output())


def of(path: str, value):
    """Return a change that sets a field, as "subgraphs.0.tensors.1.type"."""

    def change(model):
        *parts, last = path.split(".")
        for part in parts:
            model = model[int(part)] if part.isdigit() else getattr(model, part)
        setattr(model, last, value)

    return change


# ---- What is read ------------------------------------------------------------------------------


def test_read_gives_back_what_was_packed():
    """Every field of the records survives."""
    graph = small_graph()
    again = read(pack(graph))
    assert pieces(again)[0] == pieces(graph)[0]
    for ours, given in zip(again.operators, graph.operators, strict=True):
        assert dataclasses.astuple(ours) == dataclasses.astuple(given)
    assert pieces(again)[2] == pieces(graph)[2]


def test_constants_are_not_writable():
    """A graph does not change, and holds no second copy of the file."""
    source = pack(small_graph())
    for found in read(source).tensors:
        if found.is_constant:
            assert not found.data.flags.writeable
            with pytest.raises(ValueError, match="read-only"):
                found.data[...] = 0
    weights = read(source).tensors[1].data
    assert np.shares_memory(weights, np.frombuffer(source, np.uint8))


@pytest.mark.parametrize("dtype", [ml_dtypes.int4, ml_dtypes.uint4, ml_dtypes.int2])
@pytest.mark.parametrize("count", [1, 2, 3, 4, 5, 17])
def test_elements_smaller_than_a_byte(dtype, count):
    """They lie in the file from the low bits on, and come apart."""
    limits = ml_dtypes.iinfo(dtype)
    values = np.arange(count) % (int(limits.max) - int(limits.min) + 1) + int(limits.min)
    graph = Graph((tensor(0, (count,), dtype, data=values),), (), (), (0,), (), ("t",))
    source = pack(graph)
    assert read(source).tensors[0].data.astype(int).tolist() == values.tolist()
    bits = 2 if dtype is ml_dtypes.int2 else 4
    stored = schema.ModelT.InitFromPackedBuf(source).buffers[1].data
    number = sum((int(v) & ((1 << bits) - 1)) << (bits * i) for i, v in enumerate(values))
    assert int.from_bytes(stored.tobytes(), "little") == number


@pytest.mark.parametrize("name", sorted(set(model_schema.OPTIONS)))
def test_options_of_every_operator(name):
    """Whatever an option table holds comes back by name, and what is left out is the default."""
    options = model_schema.OPTIONS[name]
    given = dict(options.defaults)
    for ours, field in options.fields.items():
        if options.is_vector(field):
            given[ours] = (1, 0, 1)
        elif isinstance(given[ours], bool):
            given[ours] = not given[ours]
        elif isinstance(given[ours], int | float):
            given[ours] = given[ours] + 3
        elif field in options.texts:
            given[ours] = "text"
        else:
            names = model_schema._NAMES[field].values()
            given[ours] = next((n for n in names if n != given[ours]), given[ours])
    for options_given, expected in (({}, options.defaults), (given, given)):
        operator = Operator(0, name, (), (), options_given)
        assert read(pack(Graph((), (operator,), (), ()))).operators[0].options == expected


def test_every_enumeration_has_names():
    """The numbers of one signed byte in option tables are enumerations, and are known by name."""
    for options in model_schema.OPTIONS.values():
        for field in options.fields.values():
            add = getattr(schema, f"{options.name}Add{options.accessor(field)}")
            if "PrependInt8Slot" in add.__code__.co_names:
                assert field in model_schema._NAMES, f"{options.name}.{field}"


def test_names_come_from_the_signature_else_from_tensors():
    """A file without a signature, or with one of another subgraph, has the tensors' names."""
    plain = read(changed(of("signatureDefs", None)))
    assert (plain.input_names, plain.output_names) == (("t/0",), ("t/8", "t/5"))
    other = read(changed(of("signatureDefs.0.subgraphIndex", 1)))
    assert other.input_names == ("t/0",)


def test_older_operator_numbers():
    """Files of older converters have the number in one byte, and zero in the wider field."""
    graph = read(changed(lambda m: [setattr(code, "builtinCode", 0) for code in m.operatorCodes]))
    assert [o.kind for o in graph.operators][:3] == ["CONV_2D", "RESHAPE", "DEQUANTIZE"]


def test_elements_after_the_flat_file():
    """In large files a buffer says where in the file its elements are."""
    source = changed(lambda m: None)
    tail = np.arange(24, dtype=np.int8).tobytes()

    def move(model):
        model.buffers[1].data = None
        model.buffers[1].offset, model.buffers[1].size = len(source) + 1000, 24

    flat = changed(move)
    whole = flat + bytes(len(source) + 1000 - len(flat)) + tail
    assert read(whole).tensors[1].data.tobytes() == tail
    with pytest.raises(ValueError, match="Need buffers within"):
        read(whole[:-1])


@pytest.mark.parametrize(
    ("change", "said"),
    [
        (of("subgraphs.0.tensors.1.sparsity", schema.SparsityParametersT()), "is sparse"),
        (of("subgraphs.0.tensors.7.isVariable", True), "is a variable"),
        (of("subgraphs.0.tensors.7.externalBuffer", 1), "lies in another file"),
        (of("subgraphs.0.tensors.7.type", schema.TensorType.STRING), "elements of type STRING"),
    ],
)
def test_what_records_do_not_express_is_named(change, said):
    """A sound file with such a tensor is read; the tensor says why it cannot be used."""
    graph = read(changed(change))
    found = [t for t in graph.tensors if t.unsupported]
    assert len(found) == 1
    assert said in found[0].unsupported[0]
    assert found[0].data is None
    with pytest.raises(ValueError, match=said):
        pack(graph)


def test_several_subgraphs_and_unknown_operators_are_named():
    """The first subgraph is read; an operator that a newer schema has is called by its number."""
    graph = read(changed(lambda m: m.subgraphs.append(schema.SubGraphT())))
    assert graph.unsupported == ("holds 2 subgraphs",)
    graph = read(changed(of("operatorCodes.3.builtinCode", 999)))
    assert "BUILTIN 999" in [o.kind for o in graph.operators]


# ---- What is refused ---------------------------------------------------------------------------

MAIN = "subgraphs.0"


@pytest.mark.parametrize(
    ("change", "said"),
    [
        (of("version", 2), "version 3 of the schema, got 2"),
        (of("subgraphs", []), "at least one subgraph"),
        (of(f"{MAIN}.tensors.1.type", 99), "tensor 1: Need a type of 0 to 20, got 99"),
        (of(f"{MAIN}.tensors.1.buffer", 99), "tensor 1: Need a buffer of 6, got 99"),
        (of(f"{MAIN}.tensors.1.shape", [3, 2, 2, 3]), "Need 36 bytes for int8"),
        (of(f"{MAIN}.tensors.3.shape", [1, -4, 4, 3]), "dimensions of 0 or more"),
        (of(f"{MAIN}.tensors.3.shapeSignature", [-2, 4, 4, 3]), "dimensions of 0 or more"),
        (of(f"{MAIN}.tensors.3.shapeSignature", [-1, 4]), "a signature for 4 dimensions"),
        (of(f"{MAIN}.tensors.3.shapeSignature", None), None),
        (of(f"{MAIN}.tensors.3.shape", [1, 65536, 65536, 3]), "at most 2147483647 elements"),
        (of(f"{MAIN}.tensors.9.shape", [0, 65536, 65536]), "at most 2147483647 elements"),
        (of(f"{MAIN}.tensors.8.shape", [1] * 40), "at most 32 dimensions"),
        (of(f"{MAIN}.tensors.3.quantization.scale", [0.0]), "finite scales above 0"),
        (of(f"{MAIN}.tensors.3.quantization.scale", [-1.0]), "finite scales above 0"),
        (of(f"{MAIN}.tensors.3.quantization.scale", [float("nan")]), "finite scales above 0"),
        (of(f"{MAIN}.tensors.3.quantization.scale", [float("inf")]), "finite scales above 0"),
        (of(f"{MAIN}.tensors.3.quantization.zeroPoint", [128]), "zero points of int8"),
        (of(f"{MAIN}.tensors.7.quantization.zeroPoint", [8]), "zero points of int4"),
        (of(f"{MAIN}.tensors.3.quantization.zeroPoint", None), "Need 1 zero points, got 0"),
        (of(f"{MAIN}.tensors.1.quantization.quantizedDimension", 4), "quantised dimension of 4"),
        (of(f"{MAIN}.tensors.1.quantization.quantizedDimension", -1), "quantised dimension of 4"),
        (of(f"{MAIN}.tensors.1.quantization.quantizedDimension", 1), "scale for each of 2"),
        (of(f"{MAIN}.tensors.10.buffer", 1), "Need 1 bytes for bool"),
        (of("buffers.5.data", np.array([2], np.uint8)), "truth values of 0 or 1, got 2"),
        (of(f"{MAIN}.operators.0.opcodeIndex", 9), "operator 0: Need an operator code of 4, got 9"),
        (of(f"{MAIN}.operators.0.inputs", [0, 1, 11]), "inputs among 11 tensors, got 11"),
        (of(f"{MAIN}.operators.0.inputs", [0, 1, -2]), "inputs among 11 tensors, got -2"),
        (of(f"{MAIN}.operators.0.outputs", [-1]), "outputs among 11 tensors, got -1"),
        (of(f"{MAIN}.operators.0.inputs", [3, 1, 2]), "CONV_2D: Need inputs that are known"),
        (of(f"{MAIN}.operators.0.inputs", [8, 1, 2]), "CONV_2D: Need inputs that are known"),
        (of(f"{MAIN}.operators.1.outputs", [3]), "RESHAPE: Need outputs that nothing else gives"),
        (of(f"{MAIN}.operators.1.outputs", [0]), "RESHAPE: Need outputs that nothing else gives"),
        (of(f"{MAIN}.operators.1.outputs", [1]), "RESHAPE: Need outputs that nothing else gives"),
        (of(f"{MAIN}.operators.1.outputs", [5, 5]), "Need outputs that nothing else gives"),
        (of(f"{MAIN}.operators.3.outputs", [6]), "Need outputs that nothing else gives"),
        (of(f"{MAIN}.operators.0.builtinOptionsType", 5), "Need Conv2DOptions"),
        (of(f"{MAIN}.operators.0.builtinOptions.padding", 7), "Need padding of SAME, VALID, got 7"),
        (of(f"{MAIN}.inputs", [0, 0]), "different inputs"),
        (of(f"{MAIN}.inputs", [1]), "inputs that are not constant"),
        (of(f"{MAIN}.inputs", [-1]), "inputs among 11 tensors"),
        (of(f"{MAIN}.inputs", []), "inputs that are known by then"),
        (of(f"{MAIN}.outputs", [11]), "outputs among 11 tensors"),
        (of("signatureDefs.0.inputs.0.tensorIndex", 11), "signatures: Need one of 11 tensors"),
    ],
)
def test_damage_is_named(change, said):
    """Each is a ValueError that says where the damage is; None is no damage."""
    source = changed(change)
    if said is None:
        read(source)
        return
    with pytest.raises(ValueError, match=re.escape(said)) as caught:
        read(source)
    assert str(caught.value).startswith("the model file: ")


@pytest.mark.parametrize(
    "source", [b"", b"TFL3", bytes(8), bytes(4) + b"TFL3", bytes(4) + b"TFL4" + bytes(64)]
)
def test_what_is_no_model_file(source):
    """Neither are files of another kind."""
    with pytest.raises(ValueError, match=r"^the model file: Need "):
        read(source)


@pytest.mark.parametrize(
    ("graph", "said"),
    [
        (Graph((), (Operator(0, "NONE_SUCH", (), ()),), (), ()), "operator of the schema"),
        (Graph((), (Operator(0, "CUSTOM", (), ()),), (), ()), "operator of the schema"),
        (Graph((), (Operator(0, "ADD", (), (), {"stride": 1}),), (), ()), "options of AddOptions"),
        (Graph((), (Operator(0, "RELU", (), (), {"beta": 1}),), (), ()), "no options for RELU"),
        (
            Graph((), (Operator(0, "ADD", (), (), {"fused_activation_function": 1}),), (), ()),
            "fused_activation_function of NONE, RELU",
        ),
        (Graph((tensor(0, (1,), "U4"),), (), (), ()), "type of the schema"),
    ],
)
def test_what_cannot_be_packed(graph, said):
    """Records that no file expresses are refused."""
    with pytest.raises(ValueError, match=said):
        pack(graph)


# ---- The runtime as a witness --------------------------------------------------------------------


def details(source: bytes):
    """Return what the runtime's interpreter reads of a file, by the tensor's index."""
    resolver = tf.lite.experimental.OpResolverType.BUILTIN_REF
    interpreter = tf.lite.Interpreter(model_content=source, experimental_op_resolver_type=resolver)
    return {d["index"]: d for d in interpreter.get_tensor_details()}, interpreter


def assert_as_the_runtime(source: bytes):
    """The runtime reads the same tensors as `read`."""
    found, interpreter = details(source)
    graph = read(source)
    for ours in graph.tensors:
        theirs = found[ours.index]
        assert ours.name == theirs["name"]
        assert list(ours.shape) == theirs["shape"].tolist()
        assert ours.dtype == theirs["dtype"]
        assert [i for i, size in enumerate(theirs["shape_signature"]) if size < 0] == [
            *ours.unknown
        ]
        stored = theirs["quantization_parameters"]
        if ours.is_quantised:
            assert packing._parts(ours.quantisation) == (
                stored["scales"].tolist(),
                stored["zero_points"].tolist(),
                stored["quantized_dimension"] if len(stored["scales"]) > 1 else 0,
            )
        else:
            assert not len(stored["scales"])
        if ours.is_constant and ours.data.size:
            np.testing.assert_array_equal(ours.data, interpreter.get_tensor(ours.index))
    assert list(graph.inputs) == [d["index"] for d in interpreter.get_input_details()]
    assert list(graph.outputs) == [d["index"] for d in interpreter.get_output_details()]
    kinds = [d["op_name"] for d in interpreter._get_ops_details()]
    assert [operator.kind for operator in graph.operators] == kinds[: len(graph.operators)]
    return graph


@pytest.mark.parametrize("activation_bits", [8, 16])
def test_files_of_the_converter(convert, activation_bits):
    """A converted file reads as the interpreter reads it, and so does its copy by our packer."""
    source = convert(activation_bits)
    graph = assert_as_the_runtime(source)
    copy = pack(graph)
    assert pieces(assert_as_the_runtime(copy)) == pieces(graph)
    image = (
        np.arange(12 * 12 * 3).reshape(1, 12, 12, 3).astype(graph.tensors[graph.inputs[0]].dtype)
    )
    results = []
    for file in (source, copy):
        _, interpreter = details(file)
        interpreter.allocate_tensors()
        interpreter.set_tensor(graph.inputs[0], image)
        interpreter.invoke()
        results.append([interpreter.get_tensor(index) for index in graph.outputs])
    for ours, theirs in zip(*results, strict=True):
        np.testing.assert_array_equal(ours, theirs)


@pytest.fixture(scope="module")
def convert():
    """Return a function that converts a network, with its activations' bits."""
    keras = tf.keras
    from bitfold.network.converter import convert_keras

    layers = keras.layers
    keras.utils.set_random_seed(1)
    model = keras.Sequential(
        [
            layers.Input((12, 12, 3)),
            layers.Conv2D(8, 3, padding="same", use_bias=False),
            layers.BatchNormalization(),
            layers.ReLU(6),
            layers.DepthwiseConv2D(3, strides=2, activation="relu"),
            layers.MaxPooling2D(2),
            layers.Flatten(),
            layers.Dense(10, activation="softmax"),
        ]
    )
    images = np.random.default_rng(0).random((8, 12, 12, 3), np.float32)
    return lambda bits: convert_keras(model, images, activation_bits=bits)


def test_constants_lie_aligned():
    """The runtime's kernels read constants where the file has them."""
    for found in read(pack(small_graph())).tensors:
        if found.is_constant and found.data.dtype.itemsize > 1:
            assert found.data.flags.aligned


def test_quantisation_of_floats_is_left_out():
    """Converters leave observed ranges on tensors that stay float; nothing is stored by them."""
    graph = Graph((tensor(0, (2,), "float32", quantisation(0.0)),), (), (0,), (0,), ("a",), ("b",))
    assert read(pack(graph)).tensors[0].quantisation is None
