# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Files of one operator that are refused, by what the refusal says."""

from __future__ import annotations

import re

import packed
import pytest

import bitfold


def assert_refused(text: str, *operator, **keywords) -> None:
    """Fail unless a file of one operator, as `packed.operator` takes it, is refused in words."""
    case = packed.operator(*operator, **keywords)
    with pytest.raises(bitfold.UnsupportedModelError, match=re.escape(text)):
        bitfold.Network.from_tflite(case.content)
