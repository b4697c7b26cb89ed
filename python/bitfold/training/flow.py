# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What runs through a model that is called: integers in training, real numbers otherwise.

In training, evaluation and prediction layers compute in integers. While ranges are calibrated they
compute in real numbers and widen their ranges to what they see. While a model is exported they
compute in real numbers between fake quantisation nodes.
"""

from __future__ import annotations

import contextlib
import contextvars
import enum
from collections.abc import Iterator

from bitfold.network import trained


class Flow(enum.Enum):
    """What layers pass on."""

    INTEGERS = 1
    CALIBRATION = 2
    EXPORT = 3


_CALIBRATES: contextvars.ContextVar[bool] = contextvars.ContextVar(
    "bitfold_calibrates", default=False
)


@contextlib.contextmanager
def calibrating() -> Iterator[None]:
    """Let layers that are called compute in real numbers and widen their ranges."""
    token = _CALIBRATES.set(True)
    try:
        yield
    finally:
        _CALIBRATES.reset(token)


def current() -> Flow:
    """Return what layers that are called pass on."""
    if _CALIBRATES.get():
        return Flow.CALIBRATION
    return Flow.INTEGERS if trained.notes() is None else Flow.EXPORT
