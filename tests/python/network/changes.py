# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Imports and runs model files of which some fields were changed, one seed each.

The bytes of a file stay those of a sound one: its numbers say other things. A file is refused in
words, or its network computes what it says, and then the bits of the interpreter's reference
kernels, where these take it. A process of its own, as some kernels end it:
`python changes.py FIRST COUNT`, with the tests' folders in PYTHONPATH.
"""

from __future__ import annotations

import collections
import random
import signal
import sys

import comparing
import flatbuffers
import generated
import numpy as np
import tensorflow as tf
from tensorflow.lite.python import schema_py_generated as schema
from witness import Unwitnessed, Witness

import bitfold

SECONDS = 60
ELEMENTS = 1 << 20  # of an input, or of what a call may write
WHOLE = (0, 1, -1, 2, 3, 4, 7, 127, 128, 255, -128, -129, 1 << 15, (1 << 31) - 1, -(1 << 31))
REAL = (0.0, -1.0, float("nan"), float("inf"), 1e-45, 1e-38, 3e38, 1.0, 2.0**-31, 2.0**31)
# After these the interpreter's tensors are others, or floats leave what its kernels define.
NOT_COMPARED = {"shape", "scale", "input"}


def _other(rng: random.Random, value: float) -> float:
    """Return another number of a kind."""
    if isinstance(value, bool | np.bool_):
        return not value
    if isinstance(value, float | np.floating):
        factor = rng.choice([0.5, 2, 1.001, 1e6, 1e-6])
        return rng.choice(REAL) if rng.random() < 0.6 else float(value) * factor
    return rng.choice(WHOLE) if rng.random() < 0.5 else int(value) + rng.choice([-2, -1, 1, 2])


def _change_one(rng: random.Random, values) -> list:
    """Return a list of numbers, one of them another."""
    numbers = np.asarray(values).tolist()
    at = rng.randrange(len(numbers))
    numbers[at] = _other(rng, numbers[at])
    return numbers


def _change_tensor(rng: random.Random, tensor: schema.TensorT) -> str:
    scales = tensor.quantization
    kind = rng.choice(["shape", "scale", "zero point", "type"])
    if kind == "shape" and tensor.shape is not None and len(tensor.shape):
        tensor.shape = _change_one(rng, tensor.shape)
    elif kind == "scale" and scales is not None and scales.scale is not None:
        scales.scale = _change_one(rng, scales.scale)
    elif kind == "zero point" and scales is not None and scales.zeroPoint is not None:
        scales.zeroPoint = _change_one(rng, scales.zeroPoint)
    else:
        kind, tensor.type = "type", rng.randrange(18)
    return kind


def _change_operator(rng: random.Random, operator: schema.OperatorT, tensors: int) -> str:
    options = vars(operator.builtinOptions) if operator.builtinOptions else {}
    names = sorted(k for k, v in options.items() if isinstance(v, int | float | np.number))
    if names and rng.random() < 0.7:
        name = rng.choice(names)
        setattr(operator.builtinOptions, name, _other(rng, options[name]))
        return name
    inputs = np.asarray(operator.inputs).tolist()
    inputs[rng.randrange(len(inputs))] = rng.randrange(-1, tensors + 1)
    operator.inputs = inputs
    return "input"


def _change_constant(rng: random.Random, buffer: schema.BufferT) -> str:
    data = bytearray(bytes(buffer.data))
    at = rng.randrange(len(data))
    if rng.random() < 0.3:
        del data[at:]
    elif len(data) >= 4 and rng.random() < 0.6:
        at = min(at & ~3, len(data) - 4)
        data[at : at + 4] = rng.choice(WHOLE).to_bytes(4, "little", signed=True)
    else:
        data[at] = rng.randrange(256)
    buffer.data = list(data)
    return "constant"


def changed(source: bytes, rng: random.Random) -> tuple[bytes, set[str]]:
    """Return a file with one to three changes, and what they are."""
    model = schema.ModelT.InitFromPackedBuf(source)
    graph = model.subgraphs[0]
    what = set()
    for _ in range(rng.choice([1, 1, 1, 2, 3])):
        constants = [b for b in model.buffers if b.data is not None and len(b.data)]
        kind = rng.randrange(8)
        if kind < 3:
            what.add(_change_tensor(rng, rng.choice(graph.tensors)))
        elif kind < 5:
            what.add(_change_operator(rng, rng.choice(graph.operators), len(graph.tensors)))
        elif kind < 6 and constants:
            what.add(_change_constant(rng, rng.choice(constants)))
        elif kind < 7 and len(graph.operators) > 1:
            del graph.operators[rng.randrange(len(graph.operators))]
            what.add("operator left out")
        else:
            rng.choice(model.operatorCodes).builtinCode = rng.randrange(160)
            what.add("operator")
    builder = flatbuffers.Builder(1024)
    builder.Finish(model.Pack(builder), file_identifier=b"TFL3")
    return bytes(builder.Output()), what


def check(file: bytes, what: set[str], seed: int) -> str:
    """Import a file, run its network, and compare it; return how far that went."""
    try:
        network = bitfold.Network.from_tflite(file)
    except (ValueError, bitfold.UnsupportedModelError):
        return "refused"
    shapes = [(2, *port.shape[1:]) for port in network.inputs]
    if max(np.prod(shape, dtype=object) for shape in shapes) > ELEMENTS:
        return "too large"
    rng = np.random.default_rng(seed)
    inputs = [
        comparing.stored_values(rng, port.dtype, shape, is_near=seed % 2 == 0)
        for port, shape in zip(network.inputs, shapes, strict=True)
    ]
    try:
        network(inputs if len(inputs) > 1 else inputs[0])
    except tf.errors.ResourceExhaustedError:
        return "too large"
    if what & NOT_COMPARED:
        return "run"
    try:
        is_survived = Witness(file).is_survived()
    except (Unwitnessed, ValueError, RuntimeError, IndexError):
        return "run"
    if not is_survived:
        return "run"
    comparing.assert_equals_witness(file, inputs, f"seed {seed} ({', '.join(sorted(what))})")
    return "equal"


def _late(*_) -> None:
    raise TimeoutError


def main() -> None:
    """Take so many files, by turns of a few networks."""
    first, count = map(int, sys.argv[1:])
    signal.signal(signal.SIGALRM, _late)
    tally: collections.Counter[str] = collections.Counter()
    sources: dict[int, bytes] = {}
    for seed in range(first, first + count):
        base = seed // 10
        if base not in sources:
            sources = {base: generated.network(base % len(generated.BLOCKS)).content}
        try:
            file, what = changed(sources[base], random.Random(seed))
        except (ValueError, OverflowError, TypeError):
            tally["not written"] += 1  # a number that its field does not hold
            continue
        signal.alarm(SECONDS)
        try:
            tally[check(file, what, seed)] += 1
        except BaseException:
            print(f"seed {seed}: {', '.join(sorted(what))}")
            raise
    signal.alarm(0)
    print(dict(tally))


if __name__ == "__main__":
    main()
