# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What the ops' test modules state of their ops, for the tests that hold for all.

REGISTRATION  the registered ops: `registration.Registration` by name; see test_registration.py
WRAPPERS      their functions of bitfold.ops: `Wrapper` by name; see test_ops.py. None: the types
of the operands are fixed, and the module tests the function itself
"""

from __future__ import annotations

import dataclasses
import functools
import importlib
import pathlib
import re
from collections.abc import Callable
from typing import Any


@dataclasses.dataclass(frozen=True)
class Wrapper:
    """The shapes of the operands, the arguments, and what calls the generated op with the same."""

    shapes: list[tuple[int, ...]]
    arguments: dict[str, Any]
    generated: Callable


@functools.cache
def by_modules(name: str) -> dict[str, Any]:
    """Return the dictionaries of a name, merged in the order of the modules' names.

    This is the order of registration, too.
    """
    merged: dict[str, Any] = {}
    for path in sorted(pathlib.Path(__file__).parent.glob("test_*.py")):
        if re.search(rf"(?m)^{name} = ", path.read_text()):
            merged |= getattr(importlib.import_module(path.stem), name)
    return merged
