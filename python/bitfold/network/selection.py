# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Which layers a setting is for: all, or those that a dictionary's keys mean.

A key is the name of a layer, a pattern of such ("block1*") or an operator ("CONV_2D"). Of several
keys that mean a layer a name goes before a pattern, a pattern before an operator, and of equals the
last holds.
"""

from __future__ import annotations

import fnmatch
from collections.abc import Mapping, Sequence
from typing import Any


def by_layer(
    given: Any, kind: Any, what: str, names: Sequence[str], operators: Sequence[str]
) -> list[Any]:
    """Return the setting of each layer, None for one that no key means.

    Args:
        given: a setting for all layers, or a dictionary of them by key.
        kind: the type of a setting.
        what: what a refusal calls one, with its article.
        names: of the layers, all different.
        operators: of the layers, in the same order.

    Raises:
        TypeError: for a setting of another type.
        ValueError: for a key that means no layer.
    """
    if isinstance(given, kind):
        return [given] * len(names)
    if not isinstance(given, Mapping):
        raise TypeError(f"Need {what} or a dictionary of them, got {given!r}")
    found = []
    for key, setting in given.items():
        if not isinstance(setting, kind):
            raise TypeError(f"Need {what} for {key!r}, got {setting!r}")
        exactness, layers = _matching(key, names, operators)
        if not layers:
            raise ValueError(f"Need a layer, pattern or operator of {list(names)}, got {key!r}")
        found.append((exactness, layers, setting))
    result: list[Any] = [None] * len(names)
    for _, layers, setting in sorted(found, key=lambda item: item[0]):
        for i in layers:
            result[i] = setting
    return result


def _matching(key: str, names: Sequence[str], operators: Sequence[str]) -> tuple[int, list[int]]:
    """Find the layers that a name, an operator or a pattern means.

    Returns:
        How exact the match is (2 for a name, 1 for a pattern, 0 for an operator), and the indices
        of the layers, none where nothing matches.
    """
    if key in names:
        return 2, [names.index(key)]
    if key in operators:
        return 0, [i for i, operator in enumerate(operators) if operator == key]
    return 1, [i for i, name in enumerate(names) if fnmatch.fnmatchcase(name, key)]
