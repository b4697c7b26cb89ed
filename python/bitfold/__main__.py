# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""`python -m bitfold`: the command."""

import sys

from bitfold_command.main import main

sys.exit(main())
