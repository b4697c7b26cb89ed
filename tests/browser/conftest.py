# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What is shown in the browser is what the tests of reports make up."""

import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "python" / "studies"))
