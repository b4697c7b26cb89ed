# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What loading the library adds to the runtime: op definitions, kernels, symbols, no more."""

from __future__ import annotations

import json
import pathlib
import re
import shutil
import subprocess

import forks
import numpy as np
import pytest
import registration
import stated
import support
import tensorflow as tf
from tensorflow.core.framework import kernel_def_pb2, op_def_pb2

import bitfold

OPS: dict[str, registration.Registration] = stated.by_modules("REGISTRATION")
KERNEL_NAMES = sorted({name for op in OPS.values() for name in op.kernels.values()})
SYMBOLS = {
    "accumulator_fp16_verification",
    "accumulator_int_verification",
    "multiplier_verification",
    "shifter_fp16_acc_verification",
    "shifter_int_acc_verification",
    "get_bias",
    "float32_toX",
    "floatX_to32",
    "ResizeX",
    "align_floatX",
    "add_sub_floatX",
    "mul_floatX",
    "int2bin",
    "FPX_to_BitString",
    "CreateFPXArray_fromFloat32",
    "CreateFPXArray_initZero",
    "ReplaceFPXArray_fromFPXArray",
    "OverrideFloatArray_fromFPX",
    "DeleteInputFPX",
    "bitfold_counting_word",
    "bitfold_flush_device_lines",
    "bitfold_set_image_threads",
    "bitfold_set_warnings",
    "bitfold_visit_warning_counts",
}
COUNTERS = {"g_32toX_of", "g_32toX_uf", "g_resizeX_of", "g_resizeX_uf"}

# Loads the library twice by path, without importing bitfold, and reports what that changed.
_LOAD = """
import json, os, sys
os.environ["TF_CPP_MIN_LOG_LEVEL"] = "3"
import tensorflow as tf
from tensorflow.core.framework import op_def_pb2
from tensorflow.python.client import pywrap_tf_session
from tensorflow.python.framework import c_api_util, kernels

def all_kernels():
    found = kernels.get_all_registered_kernels().kernel
    return sorted(k.SerializeToString(deterministic=True).hex() for k in found)

def all_ops():
    buffer = pywrap_tf_session.TF_GetAllOpList()
    found = op_def_pb2.OpList()
    found.ParseFromString(pywrap_tf_session.TF_GetBuffer(buffer))
    return sorted(o.name for o in found.op)

path = sys.argv[1]
report = {"kernels before": all_kernels(), "ops before": all_ops()}
for time in ("first", "second"):
    handle = pywrap_tf_session.TF_LoadLibrary(path)
    report[time] = pywrap_tf_session.TF_GetOpList(handle).hex()
module = tf.load_op_library(path)
assert tf.load_op_library(path) is module
report["kernels after"] = all_kernels()
report["ops after"] = all_ops()
report["sum"] = module.h_add([[100]], [[50]], [1], [1.0], [0], accumulator_size=8).numpy().tolist()
report["imported"] = "bitfold" in sys.modules
print(json.dumps(report))
"""


@pytest.fixture(scope="module")
def loaded() -> dict:
    """What a process finds that loads the library by its path alone."""
    output = support.passes(forks.run(_LOAD, bitfold.library_path()))
    return json.loads(output.splitlines()[-1])


def _type_name(number: int) -> str:
    return {tf.float32: "float"}.get(tf.as_dtype(number), tf.as_dtype(number).name)


def _argument(argument: op_def_pb2.OpDef.ArgDef) -> str:
    assert not argument.number_attr
    assert not argument.type_list_attr
    assert not argument.is_ref
    return f"{argument.name}: {argument.type_attr or _type_name(argument.type)}"


def _attribute(attribute: op_def_pb2.OpDef.AttrDef) -> str:
    kind = attribute.type
    if attribute.HasField("allowed_values"):
        values = attribute.allowed_values.list
        names = [_type_name(t) for t in values.type] + [f'"{s.decode()}"' for s in values.s]
        kind = "{" + ", ".join(names) + "}"
    text = f"{attribute.name}: {kind}"
    assert not attribute.has_minimum
    if attribute.HasField("default_value"):
        default = attribute.default_value
        shown = f'"{default.s.decode()}"' if default.HasField("s") else str(default.b).lower()
        text += f" = {shown}"
    return text


def _definitions(serialised: str) -> op_def_pb2.OpList:
    definitions = op_def_pb2.OpList()
    definitions.ParseFromString(bytes.fromhex(serialised))
    return definitions


def test_ops_in_registration_order(loaded):
    """The ops of the library, in the order of the source files, and nothing else."""
    assert [op.name for op in _definitions(loaded["first"]).op] == list(OPS), (
        "state each op in REGISTRATION of its tests/python/test_*.py"
    )
    assert set(loaded["ops after"]) - set(loaded["ops before"]) == set(OPS)


@pytest.mark.parametrize("name", OPS)
def test_definition(name, loaded):
    """Names and order of inputs, attributes with types, defaults and allowed values, outputs."""
    (op,) = [op for op in _definitions(loaded["first"]).op if op.name == name]
    assert [_argument(a) for a in op.input_arg] == OPS[name].inputs
    assert [_attribute(a) for a in op.attr] == OPS[name].attributes
    outputs = OPS[name].outputs or [OPS[name].output]
    assert [_argument(a) for a in op.output_arg] == outputs
    flags = (op.is_stateful, op.is_commutative, op.is_aggregate, op.allows_uninitialized_input)
    assert not any(flags)


def test_kernels(loaded):
    """A kernel for each op, device and element types, nothing in host memory, and no more."""
    added = set(loaded["kernels after"]) - set(loaded["kernels before"])
    assert len(loaded["kernels after"]) - len(loaded["kernels before"]) == len(added)
    found = []
    for serialised in added:
        kernel = kernel_def_pb2.KernelDef()
        kernel.ParseFromString(bytes.fromhex(serialised))
        names = []
        for constraint in sorted(kernel.constraint, key=lambda c: c.name):
            (dtype,) = constraint.allowed_values.list.type
            names.append(_type_name(dtype))
        constrained = sorted(c.name for c in kernel.constraint)
        assert constrained in ([], ["T"], ["T", "T_out"], ["T", "T_filter"])
        type_name = " ".join(names)
        assert not kernel.host_memory_arg
        assert not kernel.label
        assert kernel.priority == 0
        found.append((kernel.op, kernel.device_type, type_name))
    expected = [(name, *kernel) for name, op in OPS.items() for kernel in op.kernels]
    assert sorted(found) == sorted(expected)


@pytest.mark.parametrize("name", KERNEL_NAMES)
def test_kernel_names(name):
    """Kernels are registered under their printable names."""
    assert name.encode() + b"\0" in pathlib.Path(bitfold.library_path()).read_bytes()


def test_loads_without_the_package(loaded):
    """The library is an ordinary op library: it needs nothing of the Python package."""
    assert loaded["imported"] is False
    assert loaded["sum"] == [[-106]]


def test_loading_twice_is_harmless(loaded):
    """A second load finds what the first did and registers nothing again."""
    assert loaded["second"] == loaded["first"]


@pytest.mark.parametrize("name", [name for name, op in OPS.items() if op.has_element_type])
@pytest.mark.parametrize(
    "dtype",
    ["int8", "uint8", "int16", "uint16", "int64", "float16", "bfloat16", "float64", "bool"],
)
def test_other_element_types_are_refused(name, dtype):
    """Float and int32 are the element types; for any other there is no kernel."""
    inputs = {
        "T": tf.cast(tf.ones([1, 1, 1, 1]), dtype),
        "float": np.ones([1], np.float32),
        "int8": np.ones([1], np.int8),
    }
    attributes = {"int": 8, "bool": False, "list(int)": [1] * 4, '{"SAME", "VALID"}': "SAME"}
    needed = [a.split(": ", 1) for a in OPS[name].attributes if " = " not in a]
    call = getattr(bitfold.raw_ops, re.sub(r"(?<!^)(?=[A-Z])", "_", name).lower())
    with pytest.raises(
        (tf.errors.InvalidArgumentError, tf.errors.NotFoundError),
        match=r"(?i)allowed values|kernel",
    ):
        call(
            *(inputs[argument.split(": ")[1]] for argument in OPS[name].inputs),
            **{key: attributes[kind] for key, kind in needed if key != "T"},
        )


def test_exported_symbols():
    """The library exports its C functions and hides everything else."""
    nm = shutil.which("nm")
    if nm is None:
        pytest.skip("nm (binutils) is not installed")
    listing = subprocess.run(
        [nm, "-D", "--defined-only", bitfold.library_path()],
        capture_output=True,
        text=True,
        check=True,
    ).stdout
    symbols = {line.split()[-1]: line.split()[-2] for line in listing.splitlines()}
    assert {name for name, kind in symbols.items() if kind == "T"} == SYMBOLS
    assert {name for name, kind in symbols.items() if kind in "BD"} == COUNTERS
    assert set(symbols) == SYMBOLS | COUNTERS
