# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Every op has a gradient or says that it has none."""

from __future__ import annotations

import numpy as np
import pytest
import support
import tensorflow as tf
from tensorflow.core.framework import op_def_pb2
from tensorflow.python.client import pywrap_tf_session
from tensorflow.python.framework import ops as runtime

import bitfold
from bitfold import ops
from bitfold.gradients import refusals

BOXES = np.float32([[0, 0, 9, 9, 0.9], [0, 0, 9, 8, 0.8]]).reshape(1, 2, 5, 1)
PAIR = np.ones([1, 1, 1, 2], np.float32)
ROW = np.ones([1, 2], np.float32)
ONE = np.ones([1], np.float32)
REFUSED = {
    "HNMS": (
        lambda x: ops.non_max_suppression(x, 0.5, iou_threshold=0.5, max_output_size=2),
        BOXES,
    ),
    "HBboxDecoder": (lambda x: ops.decode_boxes(x, PAIR, ROW, ROW, *[ONE] * 6), PAIR),
    "HSingleWeightPerProposalBboxDecoder": (
        lambda x: ops.decode_boxes_single_weight(x, PAIR, ROW, ROW, *[ONE] * 4),
        PAIR,
    ),
}


def _registered() -> list[str]:
    """Return the ops of the library."""
    operations = op_def_pb2.OpList()
    handle = pywrap_tf_session.TF_LoadLibrary(bitfold.library_path())
    operations.ParseFromString(pywrap_tf_session.TF_GetOpList(handle))
    return [op.name for op in operations.op]


@pytest.mark.parametrize("name", _registered())
def test_op_has_a_gradient_or_none(name):
    """The runtime finds what it asks for."""
    assert callable(runtime.gradient_registry.lookup(name)), (
        f"register a gradient of {name} in a module of python/bitfold/gradients, or name it in "
        "its refusals.py"
    )
    function = refusals.FUNCTIONS.get(name)
    assert function is None or function.split()[0] in ops.__all__


@pytest.mark.parametrize("name", REFUSED)
def test_ops_without_a_gradient_say_so(name):
    """One sentence that names the op and the function; behind tf.stop_gradient nothing is asked."""
    function, operand = REFUSED[name]
    x = tf.constant(operand)
    sentence = rf"^{name} \(bitfold\.ops\.\w+\) has no gradient: "

    def differentiate(call):
        with tf.GradientTape() as tape:
            tape.watch(x)
            result = call(x)
        return tape.gradient(result, x)

    for call in (function, tf.function(function, autograph=False)):
        with pytest.raises(LookupError, match=sentence):
            differentiate(call)

    def stopped(x):
        return tf.stop_gradient(function(x)), tf.reduce_sum(x)

    for call in (stopped, tf.function(stopped, autograph=False)):
        assert (differentiate(lambda x, call=call: call(x)[1]).numpy() == 1).all()


def test_integers_have_none():
    """The runtime asks no gradient of int32 data."""
    x = tf.ones([2, 2], tf.int32)
    with tf.GradientTape() as tape:
        tape.watch(x)
        result = ops.matmul(x, x)
    assert tape.gradient(result, x) is None


def test_narrower_floats_get_theirs():
    """What widens to float32 has the gradient of what it was."""
    x = tf.ones([2, 2], tf.bfloat16)
    with tf.GradientTape() as tape:
        tape.watch(x)
        result = ops.matmul(x, np.float32([[1, 2], [3, 4]]))
    gradient = tape.gradient(result, x)
    assert gradient.dtype == tf.bfloat16
    assert tf.cast(gradient, tf.float32).numpy().tolist() == [[3, 7], [3, 7]]


@pytest.mark.parametrize("name", ops.__all__)
def test_gradients_are_documented(name):
    """A function's text speaks of its gradient, and so does the page that has all of them."""
    assert "gradient" in getattr(ops, name).__doc__, f"say which gradient bitfold.ops.{name} has"
    page = (support.ROOT / "docs" / "gradients.md").read_text()
    assert f"`{name}`" in page or ("`stored_` functions" in page and name.startswith("stored_"))
