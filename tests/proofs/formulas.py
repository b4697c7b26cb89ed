# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The rules as formulas of bit vectors, made of the text of the headers, and as functions."""

from __future__ import annotations

import dataclasses
import os
import subprocess
from collections.abc import Iterable, Sequence
from pathlib import Path

import z3


@dataclasses.dataclass(frozen=True)
class Parameter:
    """A parameter of a rule.

    Attributes:
        name: in the formula.
        bits: of the word; 1 for a truth value.
        is_signed: whether its number has a sign.
    """

    name: str
    bits: int
    is_signed: bool


@dataclasses.dataclass(frozen=True, eq=False)
class Rule:
    """A rule as a formula.

    Attributes:
        name: of the shipped function, with what is fixed of it.
        parameters: in their order.
        results: the formulas of its results.
        required: what must hold so that the language defines every operation.
    """

    name: str
    parameters: tuple[Parameter, ...]
    results: tuple[z3.BitVecRef, ...]
    required: tuple[z3.BoolRef, ...]

    def __call__(self, *arguments: z3.BitVecRef | int) -> z3.BitVecRef:
        """Return the first result for arguments."""
        return z3.substitute(self.results[0], *self._pairs(arguments))

    def all(self, *arguments: z3.BitVecRef | int) -> list[z3.BitVecRef]:
        """Return every result for arguments."""
        return [z3.substitute(result, *self._pairs(arguments)) for result in self.results]

    def is_defined(self, *arguments: z3.BitVecRef | int) -> z3.BoolRef:
        """Return whether the language defines all that the rule does with arguments."""
        return z3.substitute(z3.And(*self.required), *self._pairs(arguments))

    def variables(self) -> list[z3.BitVecRef]:
        """Return the parameters as variables."""
        return [z3.BitVec(p.name, p.bits) for p in self.parameters]

    def _pairs(self, arguments: Sequence[z3.BitVecRef | int]) -> list[tuple]:
        if len(arguments) != len(self.parameters):
            raise TypeError(
                f"Need {len(self.parameters)} arguments of {self.name}, got {arguments}"
            )
        return [
            (variable, z3.BitVecVal(given, variable.size()) if isinstance(given, int) else given)
            for variable, given in zip(self.variables(), arguments, strict=True)
        ]


class Rules:
    """All rules of the program that records them."""

    def __init__(self, program: str | os.PathLike[str]) -> None:
        """Read the formulas that the program prints."""
        self._program = Path(program)
        printed = subprocess.run(
            [self._program, "formulas"], capture_output=True, text=True, check=True
        ).stdout
        self._parts = {
            text.partition("\n")[0]: text.splitlines()[1:] for text in printed.split("rule\t")[1:]
        }
        self._known: dict[str, Rule] = {}

    @property
    def names(self) -> list[str]:
        """The names of all rules."""
        return list(self._parts)

    def __getitem__(self, name: str) -> Rule:
        """Return a rule."""
        if name not in self._known:
            self._known[name] = _rule(name, self._parts[name])
        return self._known[name]

    def evaluate(self, calls: Iterable[tuple[str, Sequence[int]]]) -> list[list[int]]:
        """Return what the shipped functions give."""
        lines = "".join(
            f"{name}\t{' '.join(str(_signed(x)) for x in given)}\n" for name, given in calls
        )
        printed = subprocess.run(
            [self._program, "evaluate"], input=lines, capture_output=True, text=True, check=True
        ).stdout
        return [[int(word) for word in line.split()] for line in printed.splitlines()]


def _signed(number: int) -> int:
    """Return a number as the program reads it: a word of 64 bits with a sign."""
    return number - (1 << 64) if number >= 1 << 63 else number


def _rule(name: str, lines: list[str]) -> Rule:
    fields = [line.split("\t") for line in lines]
    parameters = tuple(
        Parameter(field[1], int(field[2]), field[3] == "signed")
        for field in fields
        if field[0] == "parameter"
    )
    declared = "".join(f"(declare-const {p.name} (_ BitVec {p.bits}))" for p in parameters)

    def parsed(texts: list[str]) -> list[z3.BoolRef]:
        if not texts:
            return []
        return list(z3.parse_smt2_string(declared + "".join(f"(assert {t})" for t in texts)))

    results = []
    for field in fields:
        if field[0] == "result":
            (equation,) = parsed([f"(= {field[2]} {field[2]})"])
            results.append(equation.arg(0))
    required = dict.fromkeys(field[1] for field in fields if field[0] == "required")
    return Rule(name, parameters, tuple(results), tuple(parsed(list(required))))
