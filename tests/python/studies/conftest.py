# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Studies are tested on the files that networks are tested on."""

import pathlib
import sys

sys.path.insert(1, str(pathlib.Path(__file__).parents[1] / "network"))
