# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Valid calls of HSingleWeightPerProposalBboxDecoder."""

from __future__ import annotations

from drawing import decoder

CALLS = {"HSingleWeightPerProposalBboxDecoder": decoder("HSingleWeightPerProposalBboxDecoder", 4)}
