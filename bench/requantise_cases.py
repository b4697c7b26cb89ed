# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The requantisation, a multiplier for each channel."""

from __future__ import annotations

import functools

import numpy as np
import tensorflow as tf

import bitfold
from timing import Case, in_graph, integers, vector_target

SHAPE = (1, 112, 112, 64)


def cases() -> list[Case]:
    """Return each rounding beside an addition of the sums' type on as many elements.

    int32 sums become int8, and int64 sums int16.
    """
    multipliers = tf.constant(1e-4 / np.arange(1, SHAPE[-1] + 1))
    found = []
    for sums, output, roundings in (
        (tf.int32, tf.int8, ("two_roundings", "short_multiplier", "one_rounding")),
        (tf.int64, tf.int16, ("short_multiplier", "one_rounding")),
    ):
        data = integers(SHAPE, -1000000, 1000000, sums)
        for rounding in roundings:
            requantise = functools.partial(
                bitfold.ops.requantise, rounding=rounding, zero_point=3, dtype=output
            )
            found.append(
                Case(
                    f"HRequantise/{sums.name}/{rounding.replace('_', ' ')}",
                    "x".join(map(str, SHAPE)),
                    int(np.prod(SHAPE)),
                    in_graph(requantise, data, multipliers),
                    in_graph(tf.add, data, data + 1),
                    vector_target(),
                )
            )
    return found
