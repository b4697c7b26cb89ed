# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Damaged model files take no memory and no time that their size does not justify.

Those that are sound but say something else are refused, or compute what they say. The long forms:
`tests/python/network/damage.py 0 1000000` and `changes.py 0 10000` there, with the tests' folders
in PYTHONPATH.
"""

from __future__ import annotations

import pathlib
import tracemalloc

import flatbuffers
import forks
import pytest
import support
from packing import small_graph
from tensorflow.lite.python import schema_py_generated as schema

from bitfold.network.model_file import read
from bitfold.network.model_packer import pack

HERE = pathlib.Path(__file__).parent
CASES = 3000
CHANGED = 80


def test_damaged_files():
    """Flipped bits, hostile numbers, splices and all truncations, under a bound of memory."""
    code = "import damage; damage.main()"
    printed = support.passes(forks.run(code, "0", str(CASES), python_path=str(HERE)))
    # Both ends are reached: damage that is seen, and damage that is none.
    assert "'refused'" in printed
    assert "'read'" in printed


def test_changed_fields():
    """Other shapes, scales, options, operands and constants: refused in words, or computed."""
    code = "import changes; changes.main()"
    printed = support.passes(forks.run(code, "0", str(CHANGED), python_path=str(HERE)))
    for how_far in ("refused", "run", "equal"):
        assert f"'{how_far}'" in printed


def _shared(count: int, *, tensors: bool) -> bytes:
    """Return a file whose vector names one table `count` times."""
    builder = flatbuffers.Builder(1024)
    name = builder.CreateString("n" * 1000)
    shape = schema.TensorStartShapeVector(builder, 4)
    for _ in range(4):
        builder.PrependInt32(1)
    shape = builder.EndVector()
    if tensors:
        schema.TensorStart(builder)
        schema.TensorAddName(builder, name)
        schema.TensorAddShape(builder, shape)
        one = schema.TensorEnd(builder)
        schema.SubGraphStartTensorsVector(builder, count)
    else:
        schema.OperatorStart(builder)
        schema.OperatorAddInputs(builder, shape)
        one = schema.OperatorEnd(builder)
        schema.SubGraphStartOperatorsVector(builder, count)
    for _ in range(count):
        builder.PrependUOffsetTRelative(one)
    entries = builder.EndVector()
    schema.SubGraphStart(builder)
    (schema.SubGraphAddTensors if tensors else schema.SubGraphAddOperators)(builder, entries)
    subgraph = schema.SubGraphEnd(builder)
    schema.ModelStartSubgraphsVector(builder, 1)
    builder.PrependUOffsetTRelative(subgraph)
    subgraphs = builder.EndVector()
    schema.OperatorCodeStart(builder)
    code = schema.OperatorCodeEnd(builder)
    schema.ModelStartOperatorCodesVector(builder, 1)
    builder.PrependUOffsetTRelative(code)
    codes = builder.EndVector()
    schema.ModelStart(builder)
    schema.ModelAddVersion(builder, 3)
    schema.ModelAddOperatorCodes(builder, codes)
    schema.ModelAddSubgraphs(builder, subgraphs)
    builder.Finish(schema.ModelEnd(builder), file_identifier=b"TFL3")
    return bytes(builder.Output())


def test_one_table_named_many_times():
    """A vector of 20,000 entries that all lead to one tensor of 1,000 bytes is not followed."""
    source = _shared(20_000, tensors=True)
    tracemalloc.start()
    try:
        with pytest.raises(ValueError, match="has room for, got more"):
            read(source)
        assert tracemalloc.get_traced_memory()[1] < 40 * len(source)
    finally:
        tracemalloc.stop()
    with pytest.raises(ValueError, match="the model file: "):
        read(_shared(20_000, tensors=False))


def test_many_tensors_over_one_constant():
    """Elements that are no copies cost nothing, those that are copied are counted."""
    graph = small_graph()
    model = schema.ModelT.InitFromPackedBuf(pack(graph))
    constant = model.subgraphs[0].tensors[7]
    model.subgraphs[0].tensors += [constant] * 2000
    model.buffers[constant.buffer].data = [0x21] * 50_000
    constant.shape, constant.quantization = [100_000], None
    builder = flatbuffers.Builder(1024)
    builder.Finish(model.Pack(builder), file_identifier=b"TFL3")
    with pytest.raises(ValueError, match="has room for, got more"):
        read(bytes(builder.Output()))
    constant.type, constant.shape = schema.TensorType.INT8, [50_000]
    builder = flatbuffers.Builder(1024)
    builder.Finish(model.Pack(builder), file_identifier=b"TFL3")
    assert len(read(bytes(builder.Output())).tensors) == 2011
