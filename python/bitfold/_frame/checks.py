# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""How the helpers refuse an argument."""

from typing import Any


def require(holds: bool, what: str, value: Any) -> None:
    """Raise ValueError unless `holds`.

    Args:
        holds: the condition.
        what: what is needed, as a sentence about the argument.
        value: what came instead.
    """
    if not holds:
        raise ValueError(f"{what}, got {value}")
