# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Runs calls in this process, below the Python wrappers: what these refuse gets to the ops, too.

An outcome is ["ok", digest of the output] or ["error", its class and text].
"""

from __future__ import annotations

import concurrent.futures
import hashlib
import json
import multiprocessing
import os
from typing import Any

import calls
import numpy as np
import tensorflow as tf
from tensorflow.python.eager import context, execute
from tensorflow.python.framework import op_def_library, op_def_registry

Outcome = list[str]
LARGE = 1 << 25  # bytes of an output that is not looked at: the memory is limited


def digest(output: tf.Tensor) -> str:
    """Return what identifies an output: type, shape and bits, any NaN being the same."""
    if output.dtype.size * output.shape.num_elements() > LARGE:
        return f"{output.dtype.name} {list(output.shape)} large"
    array = np.ascontiguousarray(output.numpy())
    if array.dtype.kind == "f":
        array = np.where(np.isnan(array), np.array(np.nan, array.dtype), array)
    bits = hashlib.sha1(array.tobytes()).hexdigest()[:16]
    return f"{array.dtype} {list(array.shape)} {bits}"


def _attribute(name: str, value: Any) -> Any:
    """Return an attribute as the runtime's C interface takes it."""
    if name in ("T", "T_out", "T_filter", "T_bias"):
        return tf.as_dtype(value or "float64").as_datatype_enum
    return value.encode() if isinstance(value, str) else value


class PreparedCall:
    """A call whose inputs are tensors already, so that running it is the op's work alone."""

    def __init__(self, call: calls.Call) -> None:
        """Make the tensors."""
        self.call = call
        self.tensors = [_tensor(i) for i in call.inputs]
        self._attributes: list[Any] = []
        for name, value in call.attributes.items():
            self._attributes += [name, _attribute(name, value)]

    def run(self) -> Outcome:
        """Run the call and return what came of it."""
        try:
            count = len(op_def_registry.get(self.call.op).output_arg)
            outputs = execute.quick_execute(
                self.call.op, count, self.tensors, tuple(self._attributes), context.context()
            )
            return ["ok", " ".join(map(digest, outputs))]
        except (tf.errors.OpError, TypeError, ValueError, OverflowError) as error:
            return _error(error)


def _tensor(tensor: calls.Input) -> tf.Tensor:
    """Return a tensor; the shapes of empty ones may be larger than numpy's arrays can be."""
    if not tensor.is_empty:
        return tf.constant(tensor.array())
    return tf.reshape(tf.constant(tensor.array()), tf.constant(tensor.shape, tf.int64))


def _error(error: Exception) -> Outcome:
    text = str(getattr(error, "message", error))
    # What follows describes the node, its attributes in an order that changes from run to run.
    text = text.split("\n")[0].split("; NodeDef")[0].split(" [Op:")[0]
    # Of several attributes with such values any may be named, as their order has it.
    if text.startswith("Value for attr") and text.count("is not in the list of allowed values"):
        text = "Value for an attr is not in the list of allowed values"
    return ["error", f"{type(error).__name__}: {text}"]


def run(call: calls.Call) -> Outcome:
    """Run a call on this thread."""
    try:
        prepared = PreparedCall(call)
    except (tf.errors.OpError, TypeError, ValueError, OverflowError) as error:
        return ["error", f"input: {type(error).__name__}"]
    return prepared.run()


def run_on_threads(many: list[calls.Call], threads: int = 8) -> list[Outcome]:
    """Run calls on threads at the same time."""
    with concurrent.futures.ThreadPoolExecutor(threads) as pool:
        return list(pool.map(run, many))


def run_in_function(many: list[calls.Call]) -> list[Outcome]:
    """Run calls, none of which may fail, as the nodes of one function.

    The tensors are its arguments, of unknown shape: nothing can be folded, or refused beforehand.
    """
    tensors = [_tensor(i) for call in many for i in call.inputs]
    specs = [tf.TensorSpec(None, t.dtype) for t in tensors]
    refused: dict[int, Outcome] = {}

    @tf.function(input_signature=specs, autograph=False)
    def together(*arguments: tf.Tensor) -> dict[str, list[tf.Tensor]]:
        rest = list(arguments)
        outputs = {}
        for index, call in enumerate(many):
            mine, rest = rest[: len(call.inputs)], rest[len(call.inputs) :]
            try:
                outputs[str(index)] = tf.nest.flatten(_node(call, mine))
            except (tf.errors.OpError, TypeError, ValueError) as error:
                refused[index] = _error(error)
        return outputs

    outputs = together(*tensors)
    return [
        refused[index] if index in refused else ["ok", " ".join(map(digest, outputs[str(index)]))]
        for index in range(len(many))
    ]


def _node(call: calls.Call, tensors: list[tf.Tensor]) -> Any:
    inputs = op_def_registry.get(call.op).input_arg
    arguments = dict(zip([argument.name for argument in inputs], tensors, strict=True))
    inferred = {argument.type_attr for argument in inputs}
    attributes = {k: v for k, v in call.attributes.items() if k not in inferred}
    return op_def_library.apply_op(call.op, **arguments, **attributes)


def run_after_fork(many: list[calls.Call]) -> list[Outcome]:
    """Run calls in a child of this process, which has run them itself, without its threads."""
    for call in many:
        run(call)
    reader, writer = os.pipe()
    child = os.fork()
    if child == 0:
        os.close(reader)
        with os.fdopen(writer, "w") as file:
            json.dump([run(call) for call in many], file)
        os._exit(0)
    os.close(writer)
    with os.fdopen(reader) as file:
        text = file.read()
    _, status = os.waitpid(child, 0)
    if status != 0:
        raise RuntimeError(f"the fork ended with status {status}")
    return json.loads(text)


def _run_all(library: str, many: list[calls.Call]) -> list[Outcome]:
    tf.load_op_library(library)
    return [run(call) for call in many]


def run_after_spawn(library: str, many: list[calls.Call]) -> list[Outcome]:
    """Run calls in a fresh process that this one starts after running them itself."""
    for call in many:
        run(call)
    with multiprocessing.get_context("spawn").Pool(1) as pool:
        return pool.apply(_run_all, (library, many))
