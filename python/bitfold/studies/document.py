# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Findings as a JSON text, and back without a loss.

An object for each record, with the names of its fields; of an arithmetic only what differs from the
exact one; infinite numbers as the strings "inf" and "-inf", for which JSON has no number.
"""

from __future__ import annotations

import collections.abc
import dataclasses
import functools
import json
import math
import types
import typing
from collections.abc import Mapping
from typing import Any

from bitfold._frame.library import VERSION
from bitfold.network import Arithmetic
from bitfold.studies.records import Findings

_FORMAT = 1
_KIND = "bitfold study"
_BY_LAYER = "by layer"
_NOT_FINITE = ("inf", "-inf", "nan")


def to_json(findings: Findings) -> str:
    """Return findings as a JSON text.

    Example:
        >>> from bitfold.studies.document import from_json, to_json
        >>> from bitfold.studies.records import Findings
        >>> found = Findings("network", 1, None, None, None, (), {})
        >>> from_json(to_json(found)) == found
        True
    """
    whole = {"kind": _KIND, "format": _FORMAT, "version": VERSION, "findings": _encode(findings)}
    return json.dumps(whole, allow_nan=False, separators=(",", ":")) + "\n"


def from_json(text: str) -> Findings:
    """Return the findings of a JSON text that `to_json` made.

    Raises:
        ValueError: for a text that is damaged or of another kind, saying where.
    """
    try:
        whole = json.loads(text, parse_constant=_refuse_constant)
        if not isinstance(whole, dict) or whole.get("kind") != _KIND:
            raise ValueError("it is of another kind")
        if whole.get("format") != _FORMAT:
            raise ValueError(
                f"its format is {whole.get('format')}, of Bitfold {whole.get('version')}"
            )
        if "findings" not in whole:
            raise ValueError("it has no findings")
        return _decode(whole["findings"], Findings, "findings")
    except (ValueError, RecursionError) as error:
        raise ValueError(f"Need the JSON file of a study, got a text of which {error}") from None


def _refuse_constant(name: str) -> None:
    raise ValueError(f"{name} is no number of JSON")


# ---- Writing -------------------------------------------------------------------------------------


def _encode(value: Any) -> Any:
    if isinstance(value, Arithmetic):
        return {
            field.name: getattr(value, field.name)
            for field in dataclasses.fields(value)
            if getattr(value, field.name) != field.default
        }
    if dataclasses.is_dataclass(value):
        encoded = {f.name: _encode(getattr(value, f.name)) for f in dataclasses.fields(value)}
        arithmetic = getattr(value, "arithmetic", None)
        if "arithmetic" in encoded and isinstance(arithmetic, Mapping):
            encoded["arithmetic"] = {_BY_LAYER: encoded["arithmetic"]}
        return encoded
    if isinstance(value, Mapping):
        return {str(key): _encode(inner) for key, inner in value.items()}
    if isinstance(value, (tuple, list)):
        return [_encode(inner) for inner in value]
    if value is None or isinstance(value, (str, bool)):
        return value
    if hasattr(value, "item"):
        return _encode(value.item())  # a scalar of NumPy
    if isinstance(value, float):
        return value if math.isfinite(value) else repr(value)
    return int(value)


# ---- Reading -------------------------------------------------------------------------------------


@functools.cache
def _fields(kind: type) -> dict[str, Any]:
    """Return the types of a record's fields."""
    return typing.get_type_hints(kind)


def _decode(value: Any, kind: Any, where: str) -> Any:
    """Return a value of a type; `where` says whose it is."""
    origin = typing.get_origin(kind)
    if origin in (typing.Union, types.UnionType):
        return _decode_choice(value, typing.get_args(kind), where)
    if origin is tuple:
        return _decode_tuple(value, typing.get_args(kind), where)
    if origin is collections.abc.Mapping:
        _need(isinstance(value, dict), where, "an object", value)
        inner = typing.get_args(kind)[1]
        return {key: _decode(item, inner, f"{where}[{key!r}]") for key, item in value.items()}
    if dataclasses.is_dataclass(kind):
        return _decode_record(value, kind, where)
    if kind is float:
        if isinstance(value, str) and value in _NOT_FINITE:
            return float(value)
        is_number = isinstance(value, (int, float)) and not isinstance(value, bool)
        _need(is_number, where, "a number", value)
        return value
    _need(type(value) is kind, where, f"a value of the type {kind.__name__}", value)
    return value


def _decode_choice(value: Any, kinds: tuple[Any, ...], where: str) -> Any:
    """Return a value that may be None, or an arithmetic for all layers or by layer."""
    if type(None) in kinds:
        (kind,) = (kind for kind in kinds if kind is not type(None))
        return None if value is None else _decode(value, kind, where)
    one, by_layer = kinds
    if isinstance(value, dict) and _BY_LAYER in value:
        _need(len(value) == 1, where, "nothing beside the layers", sorted(value))
        return _decode(value[_BY_LAYER], by_layer, where)
    return _decode(value, one, where)


def _decode_tuple(value: Any, kinds: tuple[Any, ...], where: str) -> tuple[Any, ...]:
    _need(isinstance(value, list), where, "a list", value)
    if kinds[-1] is Ellipsis:
        kinds = (kinds[0],) * len(value)
    _need(len(value) == len(kinds), where, f"{len(kinds)} values", value)
    return tuple(
        _decode(item, kind, f"{where}[{index}]")
        for index, (item, kind) in enumerate(zip(value, kinds, strict=True))
    )


def _decode_record(value: Any, kind: Any, where: str) -> Any:
    _need(isinstance(value, dict), where, "an object", value)
    known = _fields(kind)
    unknown = sorted(set(value) - set(known))
    _need(not unknown, where, f"fields of {kind.__name__} alone", unknown)
    if kind is Arithmetic:
        try:
            return Arithmetic(**value)
        except (TypeError, ValueError) as error:
            raise ValueError(f"{where} is no arithmetic: {error}") from None
    missing = sorted(set(known) - set(value))
    _need(not missing, where, "every field of " + kind.__name__, f"none of {', '.join(missing)}")
    return kind(**{name: _decode(value[name], known[name], f"{where}.{name}") for name in known})


def _need(holds: bool, where: str, what: str, got: Any) -> None:
    if not holds:
        text = repr(got)
        raise ValueError(
            f"{where} needs {what}, got {text if len(text) < 60 else text[:57] + '...'}"
        )
