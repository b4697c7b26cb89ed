# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Valid calls of HBboxDecoder."""

from __future__ import annotations

from drawing import decoder

CALLS = {"HBboxDecoder": decoder("HBboxDecoder", 6)}
