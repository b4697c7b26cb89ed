# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The ops without a gradient, each of which says so where one is asked for.

The runtime asks no gradient of integers, and gives None. Of floats a None would look like an
operand that a loss does not depend on.
"""

from __future__ import annotations

from typing import Any, NoReturn

import tensorflow as tf

# The public function of each.
FUNCTIONS = {
    "HBboxDecoder": "decode_boxes",
    "HSingleWeightPerProposalBboxDecoder": "decode_boxes_single_weight",
    "HNMS": "non_max_suppression",
    "HPartialSums": "partial_sums",
    "HPreparedConvolution": "prepared_conv2d",
    "HPreparedMatmul": "prepared_matmul",
    "HWatchedConvolution": "watched_conv2d",
    "HRequantise": "requantise",
    "HStoredElementwise": "stored_elementwise",
    "HStoredLookup": "stored_lookup",
    "HStoredPool": "stored_pool",
    "HStoredMean": "stored_mean",
    "HStoredQuantise": "stored_quantise",
    "HActivation": "activation of integers",
}


def _refuse(op: Any, *_: tf.Tensor) -> NoReturn:
    raise LookupError(
        f"{op.type} (bitfold.ops.{FUNCTIONS[op.type]}) has no gradient: put "
        "tf.stop_gradient around its result, or leave it out where a loss is computed"
    )


for _name in FUNCTIONS:
    tf.RegisterGradient(_name)(_refuse)
