# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Studies: what an arithmetic does to a network, layer by layer."""

from bitfold.studies.study import Study, study

__all__ = ["Study", "study"]
