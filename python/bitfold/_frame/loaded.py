# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The generated ops. The library is loaded when this module is first imported, and only then."""

from bitfold._frame import library

raw_ops = library.load()
