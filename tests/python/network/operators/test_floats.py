# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Functions of float32 between DEQUANTIZE and QUANTIZE, all stored values, against the interpreter.

The last bits of a float need not be the runtime's, but the stored integers after them are.
"""

from __future__ import annotations

import numpy as np
import pytest
import tensorflow as tf
from packed import compare, network, tensor
from refusing import assert_refused

import bitfold

SHAPE = [1, 2, 150]
UNARY = (
    *(
        "ABS",
        "CEIL",
        "COS",
        "ELU",
        "EXP",
        "FLOOR",
        "HARD_SWISH",
        "LOGISTIC",
        "NEG",
        "RELU",
        "RELU6",
    ),
    *("RELU_0_TO_1", "RELU_N1_TO_1", "ROUND", "SIN", "SQUARE", "TANH"),
)
COMPARISONS = ("EQUAL", "GREATER", "GREATER_EQUAL", "LESS", "LESS_EQUAL", "NOT_EQUAL")


def _between(kind, operands, shape, options=None, constants=(), zero_point=3):
    """Return a file that computes a function of dequantised operands, and quantises it."""
    operators, floats = [], []
    for operand in operands:
        floats.append(tensor(operand, "float32"))
        stored = tensor(operand, "int8", 0.02, zero_point)
        operators.append(("DEQUANTIZE", [stored], [floats[-1]], {}, 1))
    result = tensor(shape, "float32")
    operators.append((kind, [*floats, *constants], [result], options or {}, 1))
    operators.append(("QUANTIZE", [result], [tensor(shape, "int8", 0.05, -3)], {}, 1))
    return network(operators)


@pytest.mark.parametrize("kind", UNARY)
def test_unary(kind):
    """All stored values."""
    compare(_between(kind, [SHAPE], SHAPE))


@pytest.mark.parametrize("kind", ["LOG", "RSQRT", "SQRT"])
def test_unary_of_positive_numbers(kind):
    """From the smallest step on."""
    f, g, y = (tensor(SHAPE, "float32") for _ in range(3))
    x, out = tensor(SHAPE, "int8", 0.02, -128), tensor(SHAPE, "int8", 0.05, -3)
    step = tensor([], "float32", data=0.01)
    compare(
        network(
            [
                ("DEQUANTIZE", [x], [f], {}, 1),
                ("ADD", [f, step], [g], {}, 1),
                (kind, [g], [y], {}, 1),
                ("QUANTIZE", [y], [out], {}, 1),
            ]
        )
    )


@pytest.mark.parametrize(
    ("kind", "options"),
    [
        ("GELU", {"approximate": True}),
        ("GELU", {"approximate": False}),
        ("LEAKY_RELU", {"alpha": 0.3}),
    ],
)
def test_options(kind, options):
    """Of functions that have some."""
    compare(_between(kind, [SHAPE], SHAPE, options))


@pytest.mark.parametrize(
    "kind", ["ADD", "DIV", "MAXIMUM", "MINIMUM", "MUL", "SQUARED_DIFFERENCE", "SUB"]
)
def test_binary(kind):
    """Another tensor, one for each row, constants; fused activations."""
    rng = np.random.default_rng(1)
    for turn, shape in enumerate(([1, 1, 150], [150], [], [1, 2, 1])):
        fuses = kind in ("ADD", "DIV", "MUL", "SUB")
        fused = ("NONE", "RELU", "RELU6", "RELU_N1_TO_1")[turn]
        options = {"fused_activation_function": fused} if fuses else {}
        constant = tensor(shape, "float32", data=rng.uniform(0.5, 2, shape))
        compare(_between(kind, [SHAPE], SHAPE, options, [constant]))
    if kind != "DIV":
        compare(_between(kind, [SHAPE, SHAPE], SHAPE))
        compare(_between(kind, [SHAPE, [1, 1, 150]], SHAPE))


def test_powers_and_slopes():
    """POW, PRELU."""
    compare(_between("POW", [SHAPE], SHAPE, constants=[tensor([], "float32", data=2.0)]))
    alpha = tensor([150], "float32", data=np.linspace(-1, 2, 150))
    compare(_between("PRELU", [SHAPE], SHAPE, constants=[alpha]))


@pytest.mark.parametrize("kind", COMPARISONS)
def test_comparisons_choose(kind):
    """A condition selects one of two operands."""
    a, b, condition = (tensor(SHAPE, t) for t in ("float32", "float32", "bool"))
    result, out = tensor(SHAPE, "float32"), tensor(SHAPE, "int8", 0.02)
    x, y = tensor(SHAPE, "int8", 0.02, 3), tensor(SHAPE, "int8", 0.02, 3)
    compare(
        network(
            [
                ("DEQUANTIZE", [x], [a], {}, 1),
                ("DEQUANTIZE", [y], [b], {}, 1),
                (kind, [a, b], [condition], {}, 1),
                ("SELECT_V2", [condition, a, b], [result], {}, 1),
                ("QUANTIZE", [result], [out], {}, 1),
            ]
        )
    )


@pytest.mark.parametrize("kind", ["ADD", "MUL", "SQUARED_DIFFERENCE", "SUB"])
def test_graphs_give_the_same_bits(kind):
    """Though the runtime's optimiser would gather the scales of both operands."""
    operands = [tensor([1, 256], "int8", 0.1, 3) for _ in range(2)]
    floats = [tensor([1, 256], "float32") for _ in range(2)]
    operators = [("DEQUANTIZE", [x], [f], {}, 1) for x, f in zip(operands, floats, strict=True)]
    operators.append((kind, floats, [tensor([1, 256], "float32")], {}, 1))
    run = bitfold.Network.from_tflite(network(operators).content)
    every = np.meshgrid(*[np.arange(-128, 128).astype(np.int8)] * 2)
    in_graph = tf.function(lambda x, y: run([x, y]))
    np.testing.assert_array_equal(in_graph(*every), run(every))


def test_they_are_named():
    """A network says which operators compute in floats: not those at their ends."""
    layers = bitfold.Network.from_tflite(_between("EXP", [SHAPE], SHAPE).content).layers
    assert [layer.is_float for layer in layers] == [False, True, False]


def test_refusals():
    """Other types, and shapes that do not fit."""
    x, out = tensor([1, 3], "float32"), [tensor([1, 3], "float32")]
    assert_refused("need operands that broadcast to each other, got [1, 3] and [1, 2]", "ADD",
                   [x, tensor([1, 2], "float32")], out)  # fmt: skip
    assert_refused("need every operand of float32", "ADD", [x, tensor([1, 3], "int8", 1.0)], out)
    assert_refused("need the output of bool", "LESS", [x, tensor([1, 3], "float32")], out)
    assert_refused("need 1 inputs, got 2", "EXP", [x, tensor([1, 3], "float32")], out)
