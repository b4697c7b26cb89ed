# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What the wrappers refuse: operands that a kernel would read in part, or end the process over.

The generated ops' own behaviour is in their tests. Here each call is made eagerly, in a function
that knows the shapes, and in one that does not, where an assertion runs before the kernel.
"""

from __future__ import annotations

import dataclasses
import re
from typing import Any

import keras
import numpy as np
import pytest
import tensorflow as tf

from bitfold import ops, tables

NORM = tables.layer_norm(4).keywords
PIECES = {
    name: np.zeros([1, 1 + (name != "x_points")], np.int64)
    for name in ("x_points", "offsets", "slopes_m", "slopes_e")
}
SOFTMAX = tables.softmax(1 / 16).keywords
BOXES = {"scores_threshold": 0.5, "iou_threshold": 0.5, "max_output_size": 2}


def _decoded(**changes: tuple[int, ...]) -> dict[str, tuple[int, ...]]:
    """Return the shapes of a decoder's inputs, and of them the changed ones."""
    shapes = {
        "detection_centers": (2, 3, 4, 6), "detection_sizes": (2, 3, 4, 6), "y_centers": (3, 6),
        "x_centers": (4, 6), "heights_scale": (3,), "heights_scale_minus": (3,),
        "widths_scale": (3,), "widths_scale_minus": (3,),
    }  # fmt: skip
    return shapes | changes


def _resampled(**changes: tuple[int, ...]) -> dict[str, tuple[int, ...]]:
    corners = ("upper_left", "upper_right", "bottom_left", "bottom_right")
    shapes = {name: (2, 3) for name in corners} | {f"weight_{name}": (3,) for name in corners}
    return shapes | changes


@dataclasses.dataclass(frozen=True)
class Refused:
    """A call of a wrapper: shapes of tensors, other arguments, and what is needed."""

    name: str
    shapes: dict[str, tuple[int, ...]]
    text: str
    arguments: dict[str, Any] = dataclasses.field(default_factory=dict)
    dtype: type = np.int32
    is_asserted: bool = True  # where shapes are not known; the kernel refuses the others

    @property
    def tensors(self) -> dict[str, np.ndarray]:
        """The tensors, all of ones."""
        return {name: np.ones(shape, self.dtype) for name, shape in self.shapes.items()}

    def call(self, tensors: dict[str, Any]) -> tf.Tensor:
        """Call the wrapper."""
        return getattr(ops, self.name)(**tensors, **self.arguments)


AS_VALUE = "Need elementwise to hold 6 elements (as many as value), got shape "
REFUSED = [
    # Ranks.
    *(
        Refused(name, {"value": shape, **others}, f"Need value of rank 2 or 4, got shape {shown}")
        for shape, shown in (((3,), "[3]"), ((1, 2, 3), "[1,2,3]"), ((1, 1, 1, 1, 3), "[1,1,1,"))
        for name, others in (
            ("add", {"elementwise": shape}),
            ("bias_add", {"bias": (3,)}),
            ("decomposed_bias_add", {"bias_a": (3,), "bias_b": (3,)}),
            ("weighted_add", {"elementwise": shape, "weights": (2, 3)}),
        )
    ),
    Refused("matmul", {"a": (3,), "b": (3, 5)}, "Need a of rank 2 or 3, got shape [3]"),
    Refused("matmul", {"a": (2, 2, 2, 3), "b": (2, 2, 3, 5)}, "Need a of rank 2 or 3, got shape"),
    Refused("matmul", {"a": (1, 2, 4), "b": (4, 3)}, "Need a and b of one rank, a's being 3"),
    Refused("matmul", {"a": (2, 3), "b": (2, 3, 5)}, "Need a and b of one rank, a's being 2"),
    Refused("decode_boxes_single_weight", _decoded(detection_centers=(1, 2, 3, 4, 6)),
            "Need detection_centers of rank 4, got shape [1,2,3,4,6]"),
    Refused("conv2d", {"input": (3, 3, 2), "filters": (1, 1, 2, 1)}, "Need input of rank 4, got"),
    Refused("conv2d", {"input": (1, 3, 3, 2), "filters": (1, 2, 1)},
            "Need filters of rank 4 or 5, got shape [1,2,1]", is_asserted=False),
    Refused("depthwise_conv2d", {"input": (3, 3, 2), "filter": (1, 1, 1, 2)},
            "Need input of rank 4, got shape [3,3,2]", is_asserted=False),
    Refused("depthwise_conv2d", {"input": (1, 3, 3, 2), "filter": (1, 1, 1, 1, 1, 2)},
            "Need filter of rank 4 or 5, got shape [1,1,1,1,1,2]"),
    Refused("layer_norm", {"value": (3, 4)}, "Need value of rank 4, got shape [3,4]", NORM,
            np.float32),
    Refused("activation", {"value": (3, 4)}, "Need value of rank 4, got shape [3,4]", PIECES,
            np.int64),
    Refused("activation", {"value": (1, 1, 1, 2), **{k: (1, 2) for k in PIECES}, "offsets": (3,)},
            "Need offsets of rank 2, got shape [3]", dtype=np.int64),
    Refused("activation", {"value": (1, 1, 1, 2), "size_splits": (1, 1)},
            "Need size_splits of rank 1, got shape [1,1]", PIECES, np.int64),
    Refused("non_max_suppression", {"value": (3, 5)}, "Need value of rank 4, got shape [3,5]",
            BOXES, np.float32),
    # Numbers of elements.
    Refused("add", {"value": (2, 3), "elementwise": (5,)}, f"{AS_VALUE}[5]"),
    Refused("add", {"value": (2, 3), "elementwise": (7, 1)}, f"{AS_VALUE}[7,1]"),
    Refused("weighted_add", {"value": (2, 3), "elementwise": (7,), "weights": (6,)}, AS_VALUE),
    *(
        Refused("weighted_add", {"value": (2, 3), "elementwise": (6,), "weights": shape},
                "Need weights to hold 6 elements (two for each channel of value), got")
        for shape in ((5,), (3, 3))
    ),
    *(
        Refused("bias_add", {"value": (2, 3), "bias": shape},
                "Need bias to hold 3 elements (one for each channel of value), got")
        for shape in ((2,), (4,))
    ),
    Refused("decomposed_bias_add", {"value": (2, 3), "bias_a": (3,), "bias_b": (4,)},
            "Need bias_b to hold 3 elements (one for each channel of value), got"),
    *(
        Refused("bilinear", _resampled(**{name: (4, 3)}),
                f"Need {name} to hold {count}")
        for name, count in (("bottom_right", "6 elements (as many as upper_left)"),
                            ("weight_upper_left", "3 elements (one for each element of a batch"))
    ),
    *(
        Refused("decode_boxes_single_weight", _decoded(**{name: (100,)}),
                f"Need {name} to hold {count}, got shape [100]")
        for name, count in (("detection_sizes", "144 elements (as many as detection_centers)"),
                            ("y_centers", "18 elements (a pair for each anchor of each row)"),
                            ("x_centers", "24 elements (a pair for each anchor of each column)"),
                            ("widths_scale", "3 elements (one for each anchor)"))
    ),
    Refused("decode_boxes_single_weight", _decoded(detection_centers=(2, 3, 4, 7)),
            "Need detection_centers with an even last dimension, a pair for each anchor, got 7"),
    *(
        Refused("conv2d", {"input": (2, 3, 3, 2), "filters": (3, 3, 2, 4), "elementwise": shape},
                "Need elementwise to hold 72 elements (as many as the result), got")
        for shape in ((1, 3, 3, 4), (2, 3, 3, 8), (0,))
    ),
    Refused("depthwise_conv2d",
            {"input": (2, 3, 3, 2), "filter": (3, 3, 1, 2), "elementwise": (2, 3, 3, 3)},
            "Need elementwise to hold 36 elements (as many as the result), got"),
    Refused("dilated_conv2d",
            {"input": (1, 9, 9, 1), "filters": (2, 3, 1, 1), "elementwise": (1, 9, 9, 1)},
            "Need a filter of odd height for elementwise with a dilation above 1, got 2",
            {"dilations": 2}),
    # Dimensions.
    Refused("matmul", {"a": (2, 3), "b": (4, 5)},
            "Need b to have 3 rows, the columns of a, got shape [4,5]"),
    *(
        Refused("matmul", {"a": (2, 3, 4), "b": (batch, 4, 5)},
                f"Need b to have 2 matrices, the batch of a, got shape [{batch},4,5]")
        for batch in (1, 3)
    ),
    *(
        Refused(name, {"input": (1, 3, 3, 2), "filters": (1, 1, channels, 4)},
                f"Need filters to have the 2 channels of input, got shape [1,1,{channels},4]",
                {"dilations": 1})
        for name in ("conv2d", "dilated_conv2d") for channels in (1, 3)
    ),
    Refused("conv2d", {"input": (2, 3, 3, 2), "filters": (2, 1, 1, 2, 4)},
            "Need filters of rank 5 to hold 1 filter, got shape [2,1,1,2,4]"),
    Refused("depthwise_conv2d", {"input": (1, 3, 3, 2), "filter": (1, 1, 1, 3)},
            "Need filter to have at most the 2 channels of input, got 3 in shape [1,1,1,3]",
            is_asserted=False),
    Refused("depthwise_conv2d", {"input": (2, 3, 3, 2), "filter": (1, 1, 1, 1, 2)},
            "Need filter to have at least the 2 images of input, got 1 in shape [1,1,1,1,2]",
            is_asserted=False),
    # What ends the process.
    *(
        Refused("softmax", {"value": (2, 3)},
                f"Need lut_table to hold 512 elements (256 rows of two words), got "
                f"shape [{size}]", {"lut_table": np.zeros(size, np.uint32)}, np.float32)
        for size in (0, 511, 513)
    ),
    Refused("layer_norm", {"value": (1, 1, 2, 4)},
            "Need lut to hold 256 elements (the unit's table), got shape [255]",
            NORM | {"lut": np.ones(255, np.float32)}, np.float32),
    Refused("layer_norm", {"value": (1, 1, 2, 4097)}, "Need value of at most 4096 channels, got",
            NORM, np.float32),
    Refused("layer_norm", {"value": (1, 1025, 1024, 1)},
            "Need value of a height x width of at most 2^20, got 1049600", NORM, np.float32),
    *(
        Refused("layer_norm", {"value": (1, 1, 1, 4)},
                f"Need {name} of at most {most}, got {shift}", NORM | {name: shift} | others,
                np.float32)
        for name, most, shift, others in (
            ("sum_of_x_shift", 64, 65, {}), ("sum_of_x_mult_n_shift", 64, 300, {}),
            ("sum_of_x_squares_shift", 64, np.uint32(65), {}), ("mul_act_exp", 58, 59, {}),
            ("mul_act_exp", 53, 54, {"activation_ebias_mode": tf.constant([1], tf.uint32)}),
        )
    ),
    *(
        Refused("activation", {"value": (1, 1, 1, 3)}, text,
                PIECES | {"size_splits": np.array(splits)}, np.int64)
        for splits, text in (
            ([2], "Need size_splits to sum to the channels of value, 3, got [2]"),
            ([4], "Need size_splits to sum to the channels of value, 3, got [4]"),
            ([4, -1], "Need size_splits not to be negative, got [4, -1]"),
            ([1, 2], "Need x_points to have 2 rows, one for each group of size_splits, got"),
        )
    ),
    *(
        Refused("activation", {"value": (1, 1, 1, 3)}, text,
                PIECES | {name: np.zeros(shape, np.int64)}, np.int64)
        for name, shape, text in (
            ("x_points", [2, 1], "Need x_points to have 1 rows, one for each group of size_splits"),
            ("slopes_m", [1, 1], "Need slopes_m to have a column for each piece, one more than "
                                 "x_points, got 1"),
        )
    ),
    Refused("non_max_suppression", {"value": (1, 7, 5, 1)},
            "Need value to hold a multiple of 3 boxes, its classes, got 7", BOXES | {"classes": 3},
            np.float32),
    Refused("non_max_suppression", {"value": (1, 0, 5, 1)},
            "Need value to hold a box of each class, without is_velquin, got 0", BOXES, np.float32),
    *(
        Refused("non_max_suppression", {"value": shape},
                "Need value of shape [batch, classes * boxes, 5, 1], dimension", BOXES, np.float32)
        for shape in ((1, 2, 4, 1), (1, 2, 5, 2))
    ),
]  # fmt: skip
IDS = [f"{c.name}-{'-'.join(str(list(s)) for s in c.shapes.values())}-{i}" for i, c in
       enumerate(REFUSED)]  # fmt: skip


@pytest.mark.parametrize("case", REFUSED, ids=IDS)
def test_refused_eagerly(case):
    """Before the kernel sees it."""
    with pytest.raises(ValueError, match=re.escape(case.text)):
        case.call(case.tensors)


@pytest.mark.parametrize("case", REFUSED, ids=IDS)
def test_refused_while_tracing(case):
    """Where the shapes are known."""
    with pytest.raises(ValueError, match=re.escape(case.text)):
        tf.function(case.call, autograph=False).get_concrete_function(
            {name: tf.TensorSpec(x.shape, x.dtype) for name, x in case.tensors.items()}
        )


@pytest.mark.parametrize("case", REFUSED, ids=IDS)
@pytest.mark.parametrize("ranks_known", [True, False])
def test_refused_when_it_runs(case, ranks_known):
    """Where the shapes come with the data."""
    specs = {
        name: tf.TensorSpec([None] * x.ndim if ranks_known else None, x.dtype)
        for name, x in case.tensors.items()
    }
    function = tf.function(case.call, autograph=False)
    tensors = {name: tf.constant(x) for name, x in case.tensors.items()}
    # A ValueError for what a rank or an argument tells.
    with pytest.raises((ValueError, tf.errors.InvalidArgumentError)) as error:
        function.get_concrete_function(specs)(tensors)
    if case.is_asserted:
        text = r"Need |is not compatible with expected shape"
        assert re.search(text, str(error.value))


@pytest.mark.parametrize(
    ("name", "shapes"),
    [
        ("conv2d", {"input": (1, 3, 3, 2), "filters": (1, 1, 2, 1)}),
        ("dilated_conv2d", {"input": (1, 3, 3, 2), "filters": (1, 1, 2, 1)}),
        ("depthwise_conv2d", {"input": (1, 3, 3, 2), "filter": (1, 1, 1, 2)}),
        ("matmul", {"a": (2, 3), "b": (3, 5)}),
        ("weighted_add", {"value": (2, 3), "elementwise": (2, 3), "weights": (2, 3)}),
        ("decode_boxes_single_weight", _decoded()),
    ],
)
@pytest.mark.parametrize("in_function", [False, True])
def test_half_precision_needs_floats(name, shapes, in_function):
    """Where integer sums do not heed it; the additions that round their initial value take it."""
    arguments = {"dilations": 1} if name == "dilated_conv2d" else {}

    def call(dtype):
        tensors = {key: np.ones(shape, dtype) for key, shape in shapes.items()}
        return getattr(ops, name)(**tensors, use_fp16_acc=True, **arguments)

    run = tf.function(call, autograph=False) if in_function else call
    assert run(np.float32).dtype == tf.float32
    with pytest.raises(ValueError, match="Need float32 data for use_fp16_acc, which int32 sums do"):
        run(np.int32)


def test_half_precision_of_integer_additions():
    """The initial value is rounded: 2049 has no half-precision number of 12 bits."""
    value, none = [[4097]], [[0]]
    assert ops.add(value, none, use_fp16_acc=True).numpy() == [[4096]]
    assert ops.bias_add(value, [0], use_fp16_acc=True).numpy() == [[4096]]
    assert ops.decomposed_bias_add(value, [0], [0], use_fp16_acc=True).numpy() == [[4096]]


@pytest.mark.parametrize("shape", [[None, 3, 3, 2], [None] * 4, None])
def test_elementwise_of_a_batch_that_is_not_known(shape, assert_bits):
    """As many elements as the result has when it runs; one image's addend is no batch's."""
    rng = np.random.default_rng(3)
    images = rng.integers(-9, 9, [2, 3, 3, 2]).astype(np.int32)
    weights = rng.integers(-9, 9, [3, 3, 2, 2]).astype(np.int32)
    specs = [tf.TensorSpec(shape, tf.int32)] * 2

    @tf.function(input_signature=specs, autograph=False)
    def call(x, addend):
        return ops.conv2d(x, weights, elementwise=addend)

    assert call.get_concrete_function().output_shapes[-1] == 2
    assert_bits(call(images, images), ops.conv2d(images, weights, elementwise=images).numpy())
    text = "Need elementwise to hold as many as the result, got"
    with pytest.raises(tf.errors.InvalidArgumentError, match=text):
        call(images, images[:1])


def test_symbolic_tensors_are_refused():
    """A model is not built on what no batch can fit."""
    images = keras.Input([8, 8, 4], dtype="int32")
    with pytest.raises(ValueError, match="Need filters to have the 4 channels of input"):
        ops.conv2d(images, np.ones([3, 3, 5, 2], np.int32))
    with pytest.raises(ValueError, match="Need value of rank 2 or 4"):
        ops.bias_add(keras.Input([8, 4], dtype="int32"), np.ones([4], np.int32))
