# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What loading the library adds to the runtime: op definitions, kernels, symbols, no more."""

from __future__ import annotations

import json
import pathlib
import re
import shutil
import subprocess

import numpy as np
import pytest
import support
import tensorflow as tf
from tensorflow.core.framework import kernel_def_pb2, op_def_pb2

import bitfold
import units

_ELEMENT_TYPE = "T: {float, int32}"
_DATA_FORMAT = 'data_format: {"NHWC", "NCHW"} = "NHWC"'


def _accumulation(*inputs: str) -> dict[str, list[str]]:
    return {
        "inputs": [
            name if ": " in name else f"{name}: T" for name in (*inputs, "mult_shift: int8")
        ],
        "attributes": [
            _ELEMENT_TYPE,
            _DATA_FORMAT,
            "accumulator_size: int",
            "use_fp16_acc: bool = false",
        ],
        "outputs": ["output: T"],
    }


def _convolution(is_depthwise: str) -> dict[str, list[str]]:
    return {
        "inputs": ["input: T", "filter: T", "elementwise: T", "mult_shift: int8"],
        "attributes": [
            _ELEMENT_TYPE,
            "strides: list(int)",
            "dilations: list(int)",
            "use_cudnn_on_gpu: bool = true",
            'padding: {"SAME", "VALID"}',
            _DATA_FORMAT,
            "accumulator_size: int",
            "use_fp16_acc: bool = false",
            f"is_depthwise: bool = {is_depthwise}",
        ],
        "outputs": ["output: T"],
    }


# Every op in registration order, and its kernels as (device, element type) -> printable name.
OPS = {
    "HAdd": _accumulation(
        "value", "elementwise", "elementwise_factor", "elementwise_feed_repeat: float"
    ),
    "HBboxDecoder": _accumulation(
        "detection_centers",
        "detection_w_h",
        "y_centers",
        "x_centers",
        "anchors_heights",
        "anchors_heights_div_2",
        "anchors_heights_minus_div_2",
        "anchors_widths",
        "anchors_widths_div_2",
        "anchors_widths_minus_div_2",
    ),
    "HBiasAdd": _accumulation("value", "bias", "bias_factor", "bias_feed_repeat: float"),
    "HBilinear": {
        "inputs": [
            "im_out_upper_left: T",
            "im_out_upper_right: T",
            "im_out_bottom_left: T",
            "im_out_bottom_right: T",
            "one_m_rx_one_m_ry: T",
            "rx_one_m_ry: T",
            "ry_one_m_rx: T",
            "rx_ry: T",
            "mult_shift: int8",
            "bias: float",
        ],
        "attributes": [_ELEMENT_TYPE, "accumulator_size: int", "float_accumulator: bool"],
        "outputs": ["output: T"],
    },
    "HDepthWise": _convolution("true"),
    "HConv2d": _convolution("false"),
    "HConv2dDilation": _convolution("false"),
    "HDecomposedBiasAdd": _accumulation(
        "value",
        "bias_a",
        "bias_b",
        "bias_a_factor",
        "bias_b_factor",
        "bias_feed_repeat: float",
    ),
    "HLayernorm": {
        "inputs": ["value: float", *(f"{name}: uint32" for name in units.SCALARS), "lut: float"],
        "attributes": [],
        "outputs": ["output: float"],
    },
    "HMatmul": {
        "inputs": ["a: T", "b: T", "mult_shift: int8"],
        "attributes": [
            "transpose_a: bool = false",
            "transpose_b: bool = false",
            "accumulator_size: int",
            _ELEMENT_TYPE,
            "use_fp16_acc: bool = false",
            "adj_x: bool = false",
            "adj_y: bool = false",
        ],
        "outputs": ["product: T"],
    },
    "HNMS": {
        "inputs": ["value: float", "scores_threshold: float"],
        "attributes": [
            "iou_threshold: float",
            "max_output_size: float",
            "classes: float",
            "debug_precise_numeric: bool",
            "is_velquin: bool",
        ],
        "outputs": ["output: float"],
    },
    "HSingleWeightPerProposalBboxDecoder": _accumulation(
        "detection_centers",
        "detection_w_h",
        "y_centers",
        "x_centers",
        "anchors_height_scale_factor",
        "anchors_height_scale_factor_minus",
        "anchors_width_scale_factor",
        "anchors_width_scale_factor_minus",
    ),
    "HSoftmax": {
        "inputs": ["value: float", "lut_table: uint32"],
        "attributes": ["is_velquin: bool"],
        "outputs": ["output: float"],
    },
    "HStandaloneElementwiseAdd": _accumulation("value", "elementwise", "weights"),
    "HActivation": {
        "inputs": [
            "inp: int64",
            "x_points: int64",
            "offsets: int64",
            "slopes_m: int64",
            "slopes_e: int64",
            "size_splits: int64",
        ],
        "attributes": [
            "is_8bit_to_16bit_mode: bool",
            "is_velquin: bool",
            "ebias: int",
            "clip_bits: int",
            "beta: int",
            "is_16bit_precision_mode: bool",
            "is_signed_output: bool",
        ],
        "outputs": ["output: int32"],
    },
}
# One kernel each, without a type constraint.
UNTYPED_KERNELS = {
    "HLayernorm": "HLayernormOp<CPUDevice>",
    "HNMS": "HNMSOp<CPUDevice>",
    "HSoftmax": "HSoftmaxOp<CPUDevice>",
    "HActivation": "Activation<CPUDevice>",
}
# Two kernels each, float and int32; the class without its template arguments.
KERNEL_CLASSES = {
    "HAdd": "HAddOp",
    "HBboxDecoder": "HBboxDecoderOp",
    "HBiasAdd": "HBiasAddOp",
    "HBilinear": "HBilinearOp",
    "HDepthWise": "HConv2dOp",
    "HConv2d": "HConv2dOp",
    "HConv2dDilation": "HConv2dOp",
    "HDecomposedBiasAdd": "HDecomposedBiasAddOp",
    "HMatmul": "HMatMulOp",
    "HSingleWeightPerProposalBboxDecoder": "HSingleWeightPerProposalBboxDecoderOp",
    "HStandaloneElementwiseAdd": "HStandaloneElementwiseAddOp",
}
# These run on a GPU, too.
GPU_OPS = ("HAdd", "HBiasAdd", "HConv2d", "HDecomposedBiasAdd", "HStandaloneElementwiseAdd")
KERNEL_NAMES = [
    f"{c}<{t}>" if c == "HMatMulOp" else f"{c}<CPUDevice, {t}>"
    for c in sorted(set(KERNEL_CLASSES.values()))
    for t in ("float", "int32")
] + [f"{KERNEL_CLASSES[op]}<GPUDevice, {t}>" for op in GPU_OPS for t in ("float", "int32")]
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
    output = support.passes(support.run_python(_LOAD, bitfold.library_path()))
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
    assert [op.name for op in _definitions(loaded["first"]).op] == list(OPS)
    assert set(loaded["ops after"]) - set(loaded["ops before"]) == set(OPS)


@pytest.mark.parametrize("name", OPS)
def test_definition(name, loaded):
    """Names and order of inputs, attributes with types, defaults and allowed values, outputs."""
    (op,) = [op for op in _definitions(loaded["first"]).op if op.name == name]
    assert {
        "inputs": [_argument(a) for a in op.input_arg],
        "attributes": [_attribute(a) for a in op.attr],
        "outputs": [_argument(a) for a in op.output_arg],
    } == OPS[name]
    flags = (op.is_stateful, op.is_commutative, op.is_aggregate, op.allows_uninitialized_input)
    assert not any(flags)


def test_kernels(loaded):
    """A kernel for each op, device and element type, nothing in host memory, and no more."""
    added = set(loaded["kernels after"]) - set(loaded["kernels before"])
    assert len(loaded["kernels after"]) - len(loaded["kernels before"]) == len(added)
    found = []
    for serialised in added:
        kernel = kernel_def_pb2.KernelDef()
        kernel.ParseFromString(bytes.fromhex(serialised))
        if kernel.op in UNTYPED_KERNELS:
            assert not kernel.constraint
            type_name = ""
        else:
            (constraint,) = kernel.constraint
            assert constraint.name == "T"
            (dtype,) = constraint.allowed_values.list.type
            type_name = _type_name(dtype)
        assert not kernel.host_memory_arg
        assert not kernel.label
        assert kernel.priority == 0
        found.append((kernel.op, kernel.device_type, type_name))
    expected = [(op, "CPU", t) for op in KERNEL_CLASSES for t in ("float", "int32")]
    expected += [(op, "GPU", t) for op in GPU_OPS for t in ("float", "int32")]
    expected += [(op, "CPU", "") for op in UNTYPED_KERNELS]
    assert sorted(found) == sorted(expected)


@pytest.mark.parametrize("name", KERNEL_NAMES + list(UNTYPED_KERNELS.values()))
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


@pytest.mark.parametrize("name", KERNEL_CLASSES)
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
    attributes = {
        "strides": [1] * 4,
        "dilations": [1] * 4,
        "padding": "SAME",
        "accumulator_size": 8,
        "float_accumulator": False,
    }
    names = [attribute.split(":")[0] for attribute in OPS[name]["attributes"]]
    call = getattr(bitfold.raw_ops, re.sub(r"(?<!^)(?=[A-Z])", "_", name).lower())
    with pytest.raises(
        (tf.errors.InvalidArgumentError, tf.errors.NotFoundError),
        match=r"(?i)allowed values|kernel",
    ):
        call(
            *(inputs[argument.split(": ")[1]] for argument in OPS[name]["inputs"]),
            **{key: value for key, value in attributes.items() if key in names},
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
