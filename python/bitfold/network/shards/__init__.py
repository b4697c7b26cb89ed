# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Data in parts that do not depend on one another, and who computes them."""
