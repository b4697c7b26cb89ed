# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Valid calls of HWatchedConvolution: those of HPreparedConvolution, and widths."""

from __future__ import annotations

import dataclasses

from drawing import Call, Draw
from valid_calls import HPreparedConvolution

_LARGEST_SHIFT = 30


def _watched(draw: Draw) -> Call:
    call = HPreparedConvolution.CALLS["HPreparedConvolution"](draw)
    attributes = dict(call.attributes)
    attributes["mult_shift"] = min(attributes["mult_shift"], _LARGEST_SHIFT)
    sizes = [draw.randint(1, 32) for _ in range(draw.randint(0, 3))]
    return dataclasses.replace(
        call, op="HWatchedConvolution", attributes=attributes | {"accumulator_sizes": sizes}
    )


CALLS = {"HWatchedConvolution": _watched}
