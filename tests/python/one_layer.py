# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The mobile runtime's reference kernels on one layer whose sums are given.

The layer's weights are 0, so that its sums are its biases, one for each channel.
"""

from __future__ import annotations

import warnings

import flatbuffers
import numpy as np
import tensorflow as tf
from tensorflow.lite.python import schema_py_generated as schema

_TYPES = {
    np.dtype(np.int8): schema.TensorType.INT8,
    np.dtype(np.int16): schema.TensorType.INT16,
    np.dtype(np.int32): schema.TensorType.INT32,
    np.dtype(np.int64): schema.TensorType.INT64,
}


def requantised(
    sums: np.ndarray,
    filter_scales: np.ndarray,
    *,
    dense: bool,
    input_scale: float = 1.0,
    output_scale: float = 1.0,
    zero_point: int = 0,
) -> np.ndarray:
    """Return what a convolution or a dense layer stores for its sums.

    Args:
        sums: int32, for a layer of int8 data, or int64, for one of int16.
        filter_scales: float32, one for each channel, or one.
        dense: a dense layer, not a convolution.
        input_scale: the input's.
        output_scale: the output's.
        zero_point: the output's.
    """
    dtype = np.dtype(np.int8 if sums.dtype == np.int32 else np.int16)
    around = [1] if dense else [1, 1, 1]
    weights = np.zeros([sums.size, *around], np.int8)
    tensors = [
        _tensor([1, *around], dtype, [input_scale]),
        _tensor(weights.shape, weights.dtype, filter_scales, buffer=1),
        _tensor(sums.shape, sums.dtype, np.float32(input_scale) * filter_scales, buffer=2),
        _tensor([*around, sums.size], dtype, [output_scale], zero_point),
    ]
    interpreter = _interpreter(_model(tensors, [weights, sums], dense))
    interpreter.set_tensor(0, np.zeros([1, *around], dtype))
    interpreter.invoke()
    return interpreter.get_tensor(3).ravel()


def _tensor(shape, dtype, scales, zero_point=0, buffer=0) -> schema.TensorT:
    tensor = schema.TensorT()
    tensor.shape, tensor.type, tensor.buffer = list(shape), _TYPES[np.dtype(dtype)], buffer
    tensor.quantization = schema.QuantizationParametersT()
    tensor.quantization.scale = [float(scale) for scale in np.float32(scales)]
    tensor.quantization.zeroPoint = [zero_point] * len(tensor.quantization.scale)
    return tensor


def _model(tensors: list[schema.TensorT], data: list[np.ndarray], dense: bool) -> bytes:
    operator, code = schema.OperatorT(), schema.OperatorCodeT()
    if dense:
        code.builtinCode, code.version = schema.BuiltinOperator.FULLY_CONNECTED, 4
        operator.builtinOptions = schema.FullyConnectedOptionsT()
        operator.builtinOptionsType = schema.BuiltinOptions.FullyConnectedOptions
    else:
        code.builtinCode, code.version = schema.BuiltinOperator.CONV_2D, 3
        operator.builtinOptions = schema.Conv2DOptionsT()
        operator.builtinOptions.strideW = operator.builtinOptions.strideH = 1
        operator.builtinOptionsType = schema.BuiltinOptions.Conv2DOptions
    code.deprecatedBuiltinCode = code.builtinCode
    operator.inputs, operator.outputs = [0, 1, 2], [3]
    graph = schema.SubGraphT()
    graph.tensors, graph.operators = tensors, [operator]
    graph.inputs, graph.outputs = [0], [3]
    model = schema.ModelT()
    model.version, model.operatorCodes, model.subgraphs = 3, [code], [graph]
    model.buffers = [schema.BufferT() for _ in range(1 + len(data))]
    for buffer, array in zip(model.buffers[1:], data, strict=True):
        buffer.data = np.frombuffer(array.tobytes(), np.uint8)
    builder = flatbuffers.Builder()
    builder.Finish(model.Pack(builder), b"TFL3")
    return bytes(builder.Output())


def _interpreter(model: bytes) -> tf.lite.Interpreter:
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")  # that it will move to another package
        interpreter = tf.lite.Interpreter(
            model_content=model,
            experimental_op_resolver_type=tf.lite.experimental.OpResolverType.BUILTIN_REF,
        )
    interpreter.allocate_tensors()
    return interpreter
