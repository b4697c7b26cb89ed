# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Inputs of no elements, outputs of none, and windows far outside the image: an answer, at once.

Each call runs under the sanitizers, so that memory which is not there is not read, and with the
installed library, whose memory is limited.
"""

from __future__ import annotations

import itertools
from collections.abc import Iterator

import calls
import children
import pytest

SECONDS = 1.5  # of processor time; four times that under the sanitizers
MANY = 100_000_000


@pytest.fixture(scope="module", params=["release", "sanitized"])
def check(request):
    """A function that requires calls to be answered without a finding."""
    sanitized = request.param == "sanitized"
    runtime = children.Runtime.sanitized() if sanitized else children.Runtime()

    def run(many: list[calls.Call]) -> None:
        jobs = [{"call": call.to_json()} for call in many]
        memory = 0 if sanitized else 512
        seconds = SECONDS * (4 if sanitized else 1)
        result = runtime.run(jobs, seconds=seconds, memory=memory, enough=3)
        failed = [f"{result.outcomes[i].text}\n{jobs[i]['call']}" for i in result.findings]
        assert not failed, f"of {len(result.outcomes)} calls:\n" + "\n".join(failed)

    with runtime:
        yield run


def valid_calls(op: str) -> list[calls.Call]:
    """Return a valid call of an op for each combination of its inputs' ranks."""
    found: dict[tuple, calls.Call] = {}
    for seed in range(60):
        call = calls.valid_call(op, seed)
        found.setdefault(tuple(len(tensor.shape) for tensor in call.inputs), call)
    return list(found.values())


@pytest.mark.parametrize("op", calls.OPS)
def test_each_dimension_0(op, check):
    """Of each input, one dimension after another, and all inputs that have its size."""
    many = []
    for call in valid_calls(op):
        for index, tensor in enumerate(call.inputs):
            for axis in range(len(tensor.shape)):
                shape = (*tensor.shape[:axis], 0, *tensor.shape[axis + 1 :])
                many.append(call.with_input(index, shape=shape))
                # The others along: more checks are passed.
                together = many[-1]
                for other, sibling in enumerate(call.inputs):
                    if sibling.shape == tensor.shape:
                        together = together.with_input(other, shape=shape)
                many.append(together)
    check(many)


def huge_shapes(rank: int) -> Iterator[tuple[int, ...]]:
    """Yield shapes of no elements whose other dimensions are huge."""
    for zero in range(rank):
        for huge in set(range(rank)) - {zero}:
            for size in (2**31 - 1, 2**31, 2**40, 3_000_000):
                shape = [1 if rank == 4 else 3] * rank
                shape[zero], shape[huge] = 0, size
                yield tuple(shape)
    if rank >= 3:
        for zero in range(rank):  # the product of the others is 2^32 or more, 0 in 32 bits
            shape = [65536] * 3 if rank == 3 else [1024, 65536, 65536, 2] + [1] * (rank - 4)
            shape[zero] = 0
            yield tuple(shape)


@pytest.mark.parametrize("op", calls.OPS)
def test_huge_but_empty(op, check):
    """Each input, and all that have its shape, with its rank and with rank 4."""
    many = []
    for call in valid_calls(op):
        for index, tensor in enumerate(call.inputs):
            rank = len(tensor.shape)
            if rank == 0 or (rank == 1 and index > 2):
                continue
            for shape in huge_shapes(max(rank, 2)):
                alone = call.with_input(index, shape=shape)
                together = alone
                for other, sibling in enumerate(call.inputs):
                    if sibling.shape == tensor.shape and rank > 1:
                        together = together.with_input(other, shape=shape)
                many += [alone, together] if together != alone else [alone]
    check(many)


# Boxes, classes, rows of the result.
SUPPRESSED = (
    ((MANY, 0, 5, 1), 1.0, 1.0),
    ((1, 0, 5, 1), 2.0**30, 1.0),
    ((1, 0, 5, 1), 1.0, 2.0**30),
    ((1, 20, 5, 1), 2.0**30, 1.0),
    ((2**30, 0, 5, 1), 2.0**30, 1.0),
)


@pytest.mark.parametrize("is_velquin", [False, True])
def test_suppression_of_nothing(is_velquin, check):
    """No boxes, or as many classes as there are numbers."""
    many = []
    for boxes, classes, rows in SUPPRESSED:
        attributes = {"classes": classes, "max_output_size": rows, "is_velquin": is_velquin}
        attributes |= {"iou_threshold": 0.5, "debug_precise_numeric": False}
        inputs = (calls.Input("float32", boxes), calls.Input("float32", (1,)))
        many.append(calls.Call("HNMS", inputs, attributes))
    check(many)


def convolution(
    op: str, image: tuple[int, ...], window: tuple[int, ...], **attributes: object
) -> calls.Call:
    """Return a convolution of ones, with strides and dilations of 1 unless others are given."""
    inputs = (
        calls.Input("float32", image, (1.0,)),
        calls.Input("float32", window, (1.0,)),
        calls.Input("float32", (0,)),
        calls.Input("int8", (1,)),
    )
    defaults = {
        "T": "float32",
        "strides": [1, 1, 1, 1],
        "dilations": [1, 1, 1, 1],
        "padding": "SAME",
        "use_cudnn_on_gpu": True,
        "data_format": "NHWC",
        "accumulator_size": 32,
        "use_fp16_acc": False,
        "is_depthwise": op == "HDepthWise",
    }
    return calls.Call(op, inputs, {**defaults, **attributes})


IMAGES_AND_WINDOWS = (
    ((MANY, 0, 3, 4), (1, 1, 4, 4)),
    ((MANY, 3, 0, 4), (3, 3, 4, 4)),
    ((MANY, 3, 3, 0), (3, 3, 0, 4)),
    ((MANY, 0, 0, 0), (3, 3, 0, 0)),
    ((1_000_000, 0, 1, 4), (1, 1, 4, 0)),
    ((1000, 3, 3, 1), (3, 3, 1, 0)),
    ((1, 3, 3, 0), (MANY, 1, 0, 4)),
    ((1, 3, 3, 1), (MANY, 0, 1, 1)),
    ((1, 3, 3, 1), (0, MANY, 1, 1)),
    ((1, 3, 3, 1), (MANY, MANY, 1, 0)),
    ((1, 3, 3, 0), (3, 3, 0, MANY)),
    ((0, MANY, MANY, 1), (3, 3, 1, 1)),
    ((1, MANY, 0, 1), (1, 1, 1, 1)),
    ((1, MANY, 0, 1), (MANY, 0, 1, 1)),
    ((1, 0, MANY, 1), (0, MANY, 1, 1)),
)


@pytest.mark.parametrize("op", ["HConv2d", "HConv2dDilation", "HDepthWise"])
def test_empty_images_and_windows(op, check):
    """No element on one side or on both."""
    many = []
    for (image, window), padding in itertools.product(IMAGES_AND_WINDOWS, ("SAME", "VALID")):
        call = convolution(op, image, window, padding=padding)
        many += [call, call.with_input(1, shape=(2, *window))]
    check(many)


EDGES = (calls.INT32_MIN, -(2**30), -30000, -2, -1, 0, 1, 30000, 2**30, calls.INT32_MAX)


@pytest.mark.parametrize("op", ["HConv2d", "HDepthWise"])
@pytest.mark.parametrize("padding", ["SAME", "VALID"])
def test_hostile_strides_and_dilations(padding, op, check):
    """At all edges of their range, on images and windows of a few elements and of none."""
    many = []
    for stride, dilation in itertools.product(EDGES, EDGES):
        for both in (True, False):
            attributes = {
                "padding": padding,
                "strides": [1, stride, stride if both else 1, 1],
                "dilations": [1, dilation, dilation if both else 1, 1],
            }
            many.append(convolution(op, (1, 3, 3, 1), (3, 3, 1, 1), **attributes))
            if both:
                many.append(convolution(op, (2, 1, 1, 1), (2, 2, 1, 1), **attributes))
                many.append(convolution(op, (1, 0, 3, 1), (3, 3, 1, 1), **attributes))
                many.append(convolution(op, (1, 3, 3, 1), (3, 3, 1, 0), **attributes))
                many.append(convolution(op, (1, 3, 3, 1), (0, 3, 1, 1), **attributes))
    check(many)
