# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Says at once that a function cannot be compiled by XLA, which has no kernels of the ops."""

from __future__ import annotations

import tensorflow as tf
from tensorflow.python.ops import control_flow_util

_TEXT = (
    "Need jit_compile=False, got a function that XLA is to compile: Bitfold's ops have no XLA "
    "kernels. Leave jit_compile out of tf.function, and give compile(jit_compile=False) to a Keras "
    "model."
)


def refuse_xla() -> None:
    """Refuse to become part of a function that XLA is to compile.

    A function knows it while it is traced. One that was traced before and is called by such a
    function does not: there the error is the runtime's.

    Raises:
        tf.errors.UnimplementedError: in such a function.
    """
    if not tf.executing_eagerly() and control_flow_util.GraphOrParentsInXlaContext(
        tf.compat.v1.get_default_graph()
    ):
        raise tf.errors.UnimplementedError(None, None, _TEXT)
