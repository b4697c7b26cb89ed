# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The arithmetics that a study looks at, and what they are called."""

from __future__ import annotations

import dataclasses
from collections.abc import Iterator, Mapping, Sequence
from typing import Any

from bitfold.network import Arithmetic, Network

# What `bitfold.ops.partial_sums` counts.
_LARGEST_SHIFT = 30


@dataclasses.dataclass(frozen=True)
class Setting:
    """An arithmetic with its name.

    Attributes:
        name: what tables call it.
        arithmetic: for all layers, or by layer.
    """

    name: str
    arithmetic: Arithmetic | Mapping[str, Arithmetic]

    @property
    def parts(self) -> list[Arithmetic]:
        """Every arithmetic that some layer computes in."""
        if isinstance(self.arithmetic, Arithmetic):
            return [self.arithmetic]
        return list(self.arithmetic.values())


def name_of(arithmetic: Arithmetic) -> str:
    """Return what an arithmetic is called.

    Example:
        >>> import bitfold
        >>> name_of(bitfold.Arithmetic(accumulator_size=16, mult_shift=2))
        '16 bits, shift 2'
        >>> name_of(bitfold.Arithmetic(use_fp16_acc=True, requantisation="unit"))
        'half precision, unit requantisation'
    """
    width = arithmetic.accumulator_size
    parts = ["full width" if width is None else f"{width} bits"]
    if arithmetic.use_fp16_acc:
        parts = ["half precision"] + ([f"{width} bits"] if width is not None else [])
    if arithmetic.mult_shift:
        parts.append(f"shift {arithmetic.mult_shift}")
    parts += [f"unit {unit.replace('_', ' ')}" for unit in arithmetic.units]
    return ", ".join(parts)


def settings_of(network: Network, arithmetics: Any) -> tuple[Setting, ...]:
    """Name what a study was asked for.

    Args:
        network: whose layers compute in them.
        arithmetics: a sequence of arithmetics or dictionaries of them by layer, the same by names,
            or None for the network's own where that is not full width.

    Raises:
        TypeError: for anything else.
        ValueError: for an arithmetic that a layer has not, and for two of one name.
    """
    if arithmetics is None:
        settings = list(_own(network))
    elif isinstance(arithmetics, Mapping):
        settings = [_named(str(name), value) for name, value in arithmetics.items()]
    elif isinstance(arithmetics, Sequence) and not isinstance(arithmetics, str):
        settings = list(_numbered(arithmetics))
    else:
        raise TypeError(
            "Need arithmetics as a list, or as a dictionary from names to them, got "
            f"{arithmetics!r}"
        )
    names = [setting.name for setting in settings]
    for name in names:
        if names.count(name) > 1:
            raise ValueError(f"Need each arithmetic once, got {name!r} {names.count(name)} times")
    for setting in settings:
        _check(setting)
        network.with_arithmetic(setting.arithmetic)
    return tuple(settings)


def full_width(network: Network) -> Network:
    """Return a network with exact sums; its units stay."""
    return network.with_arithmetic(
        {layer.name: exact(layer.arithmetic) for layer in network.layers}
    )


def exact(arithmetic: Arithmetic, shift: int = 0) -> Arithmetic:
    """Return an arithmetic with exact sums of shifted addends."""
    return dataclasses.replace(
        arithmetic, accumulator_size=None, mult_shift=shift, use_fp16_acc=False
    )


def _own(network: Network) -> Iterator[Setting]:
    own = {layer.name: layer.arithmetic for layer in network.layers if layer.has_accumulator}
    if all(arithmetic.is_exact for arithmetic in own.values()):
        return
    if len(set(own.values())) == 1:
        yield _named(None, next(iter(own.values())))
    else:
        yield Setting("as given", own)


def _numbered(arithmetics: Sequence[Any]) -> Iterator[Setting]:
    """Name a list; mixtures are numbered."""
    mixtures = 0
    for value in arithmetics:
        if isinstance(value, Mapping):
            mixtures += 1
            yield _named(f"mixture {mixtures}", value)
        else:
            yield _named(None, value)


def _named(name: str | None, value: Any) -> Setting:
    parts = list(value.values()) if isinstance(value, Mapping) else [value]
    for part in parts:
        if not isinstance(part, Arithmetic):
            raise TypeError(f"Need an Arithmetic or a dictionary of them by layer, got {value!r}")
    if isinstance(value, Mapping):
        return Setting(name, dict(value))
    return Setting(name_of(value) if name is None else name, value)


def _check(setting: Setting) -> None:
    """Refuse what no partial sums are counted for."""
    for part in setting.parts:
        if part.accumulator_size == 0:
            raise ValueError(f"Need accumulator_size >= 1 in a study, got 0 in {setting.name!r}")
        if part.mult_shift > _LARGEST_SHIFT:
            raise ValueError(
                f"Need mult_shift <= {_LARGEST_SHIFT} in a study, got {part.mult_shift} in "
                f"{setting.name!r}"
            )
