# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Trained networks in the accelerator's arithmetic.

A model file is read into records (``graph``), its operators become nodes whose shapes are known
(``assemble``), each node a step (``operators``), and the steps run over batches (``execution``).
"""

from bitfold.network.arithmetic import Arithmetic
from bitfold.network.errors import UnsupportedModelError, WorkerError
from bitfold.network.network import Network
from bitfold.network.records import Layer, Port

__all__ = ["Arithmetic", "Layer", "Network", "Port", "UnsupportedModelError", "WorkerError"]
