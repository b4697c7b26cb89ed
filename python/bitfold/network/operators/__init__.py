# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The operators of networks, a file for each family. The table says who handles what."""

from __future__ import annotations

from bitfold.network.operators._step import Step

STEPS: dict[str, type[Step]] = {}
