# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What the package stands on: the loaded library, and what every op's arguments go through.

Nothing here imports a room above it; tests/python/test_rooms.py has the floors.
"""
