# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Valid calls of HCheckedConvolution: those of HPreparedConvolution."""

from __future__ import annotations

import dataclasses

from drawing import Call, Draw
from valid_calls import HPreparedConvolution

_LARGEST_SHIFT = 30


def _checked(draw: Draw) -> Call:
    call = HPreparedConvolution.CALLS["HPreparedConvolution"](draw)
    attributes = dict(call.attributes)
    attributes["mult_shift"] = min(attributes["mult_shift"], _LARGEST_SHIFT)
    return dataclasses.replace(call, op="HCheckedConvolution", attributes=attributes)


CALLS = {"HCheckedConvolution": _checked}
