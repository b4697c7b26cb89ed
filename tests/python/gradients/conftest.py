# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The module that the tests of gradients share."""

import pytest

pytest.register_assert_rewrite("slopes")
