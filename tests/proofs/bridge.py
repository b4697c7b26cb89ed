# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Formulas compared with the functions that ship: on bits, where the language defines both.

The formulas are made of the functions' own text. What this shows, too, is that the words that
record compute as the language's integers do.
"""

from __future__ import annotations

import dataclasses
import random

import z3
from formulas import Parameter, Rule, Rules


@dataclasses.dataclass(frozen=True)
class Comparison:
    """What became of a formula.

    Attributes:
        name: of the rule.
        inputs: at which both were defined, and compared.
        failure: the first difference, None where there is none.
    """

    name: str
    inputs: int
    failure: str | None


def compare(name: str, rules: Rules, inputs: int) -> Comparison:
    """Compare a rule's formulas with its function at so many inputs."""
    rule = rules[name]
    taken = _inputs(rule, inputs)
    given = rules.evaluate((name, numbers) for numbers in taken)
    for numbers, found in zip(taken, given, strict=True):
        wanted = [_number(result, rule, numbers) for result in rule.results]
        masks = [(1 << result.size()) - 1 for result in rule.results]
        if wanted != [x & mask for x, mask in zip(found, masks, strict=True)]:
            return Comparison(name, len(taken), f"{name}{numbers}: formula {wanted}, got {found}")
    return Comparison(name, len(taken), None if taken else f"{name}: no defined input")


def _inputs(rule: Rule, count: int) -> list[tuple[int, ...]]:
    """Return inputs for which the rule is defined: ends of ranges, small and random numbers."""
    source = random.Random(rule.name)
    if not rule.parameters:
        return [()]
    found, tries = [], 0
    while len(found) < count and tries < 8 * count:
        tries += 1
        numbers = tuple(_drawn(parameter, source) for parameter in rule.parameters)
        if all(z3.is_true(_at(condition, rule, numbers)) for condition in rule.required):
            found.append(numbers)
    return found


def _drawn(parameter: Parameter, source: random.Random) -> int:
    bits = parameter.bits
    least = -(1 << (bits - 1)) if parameter.is_signed else 0
    greatest = least + (1 << bits) - 1
    kind = source.randrange(4)
    if kind == 0:
        number = source.choice((least, greatest, least + 1, greatest - 1, 0, 1, -1))
    elif kind == 1:
        number = source.randrange(-2, 70)
    elif kind == 2:
        number = (1 << source.randrange(bits)) * source.choice((1, -1)) + source.randrange(-1, 2)
    else:
        number = source.getrandbits(source.randrange(1, bits + 1)) * source.choice((1, -1))
    return min(max(number, least), greatest)


def _at(term: z3.ExprRef, rule: Rule, numbers: tuple[int, ...]) -> z3.ExprRef:
    values = [z3.BitVecVal(x, p.bits) for x, p in zip(numbers, rule.parameters, strict=True)]
    pairs = list(zip(rule.variables(), values, strict=True))
    return z3.simplify(z3.substitute(term, *pairs) if pairs else term)


def _number(term: z3.BitVecRef, rule: Rule, numbers: tuple[int, ...]) -> int:
    return _at(term, rule, numbers).as_long()
