# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The documented ends of the process come with their exact texts."""

from __future__ import annotations

import aborts
import calls
import children
import pytest

ASSERTIONS = {expression: (unit, function) for unit, function, expression in aborts.ASSERTIONS}
# The last input of HLayernorm.
LUT = 15


def layernorm(shape: tuple[int, ...], values: tuple[float, ...], **scalars: int) -> calls.Call:
    """Return a call whose scalars are 0 but those given, as "s" and the input's index."""
    inputs = [calls.Input("float32", shape, values)]
    inputs += [calls.Input("uint32", (1,), (scalars.get(f"s{i}", 0),)) for i in range(1, LUT)]
    return calls.Call("HLayernorm", (*inputs, calls.Input("float32", (256,), (1.0,))), {})


def nms(boxes: int, classes: int) -> calls.Call:
    """Return a call on boxes that are all zero."""
    flags = {"debug_precise_numeric": False, "is_velquin": False}
    return calls.Call(
        "HNMS",
        (calls.Input("float32", (1, boxes, 5, 1)), calls.Input("float32", (1,))),
        {"iou_threshold": 0.5, "max_output_size": 2.0, "classes": float(classes), **flags},
    )


def softmax(words: int) -> calls.Call:
    """Return a call with a table of some size."""
    inputs = (calls.Input("float32", (2, 3)), calls.Input("uint32", (words,)))
    return calls.Call("HSoftmax", inputs, {"is_velquin": False})


VALID_LAYERNORM = layernorm((1, 1, 1, 2), (1.0,), s8=1)
CALLS = {
    "vector_size <= MAX_VECTOR_SIZE": [layernorm((1, 1, 1, 4097), (1.0,), s8=1)],
    "(width_size * hight_size) <= MAX_NUM_VECTORS_IN_BATCH": [
        layernorm((1, 1024, 1025, 1), (1.0,), s8=1),
        layernorm((1, 1024, 1025, 0), (1.0,), s8=1),
    ],
    "lut_table_flat.size() == LUT_DEPTH": [
        VALID_LAYERNORM.with_input(LUT, shape=(size,)) for size in (0, 255, 257)
    ],
    "shift_amount <= 64": [
        layernorm((1, 1, 1, 2), (1.0,), s8=1, s4=65),
        layernorm((1, 1, 1, 2), (1.0,), s8=1, s10=59),
    ],
    "sum_squares_of_x_minus_zp_times_n < ((uint64_t)1 << N_SUM_SQUARES_BITS)": [
        layernorm((1, 1, 1, 1), (268435456.0,), s6=1, s8=1)
    ],
    "variance > 0": [
        layernorm((1, 1, 1, 2), (0.0,)),
        layernorm((2, 1, 1, 0), (0.0,)),
    ],
    "lut_table_flat.size() == 512": [softmax(size) for size in (0, 511, 513)],
    "size % 5 == 0": [nms(3, 2)],
    "!boxes.empty()": [nms(3, 20)],
}


@pytest.fixture(scope="module")
def runtime():
    """A runtime with the installed library."""
    with children.Runtime() as runtime:
        yield runtime


def outcome(runtime: children.Runtime, call: calls.Call) -> children.Outcome:
    """Return what came of a call in a process of its own."""
    return runtime.run([{"call": call.to_json()}]).outcomes[0]


def test_each_assertion_has_a_call():
    """None is left out."""
    assert CALLS.keys() == ASSERTIONS.keys()


def test_the_calls_are_right_but_for_one_thing(runtime):
    """What the calls below are made from does not end the process."""
    for call in (VALID_LAYERNORM, nms(4, 2), softmax(512)):
        assert outcome(runtime, call).kind == "ok"


@pytest.mark.parametrize(
    ("expression", "index"), [(e, i) for e, many in CALLS.items() for i in range(len(many))]
)
def test_assertions(expression, index, runtime):
    """The C library's message, with the unit's name and function."""
    text = aborts.assertion_text(*ASSERTIONS[expression], expression)
    assert outcome(runtime, CALLS[expression][index]) == children.Outcome("abort", text)


@pytest.mark.parametrize("index", range(6))
def test_ranks_of_the_activation_unit(index, runtime):
    """The runtime's own check, for each input and each rank but one."""
    valid = calls.valid_call("HActivation", 0)
    wanted = len(valid.inputs[index].shape)
    for rank in set(range(7)) - {wanted}:
        call = valid.with_input(index, shape=(1,) * rank)
        text = aborts.rank_text(wanted, rank)
        assert outcome(runtime, call) == children.Outcome("abort", text)
