# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What is claimed of the rules, and how a claim is proved, refuted and confirmed."""

from __future__ import annotations

import dataclasses
import enum
import time
from collections.abc import Callable, Sequence
from typing import Any, Protocol

import z3
from formulas import Rules
from generalise import Generalisation

# What a solver may do of one case: its own count of steps, the same on any machine. So many take a
# few seconds and a few minutes.
_FEW_STEPS, _MANY_STEPS = 20_000_000, 400_000_000


class Callables(Protocol):
    """Gives rules by their names: as formulas, or as what the shipped functions return."""

    def __getitem__(self, name: str) -> Callable[..., z3.BitVecRef]:
        """Return a rule."""


@dataclasses.dataclass(frozen=True)
class Statement:
    """What holds of some variables.

    Attributes:
        assumption: of the variables.
        conclusion: what holds of the rules then.
    """

    assumption: z3.BoolRef
    conclusion: z3.BoolRef


@dataclasses.dataclass(frozen=True, eq=False)
class Case:
    """A claim for one choice of what is fixed.

    Attributes:
        name: what is fixed, such as a width; empty where nothing is.
        state: makes the statement of rules, which it calls by name.
        is_linear: the words may be taken for integers modulo powers of two: a statement of sums
            and of products and quotients by constants.
    """

    name: str
    state: Callable[[Callables], Statement]
    is_linear: bool = False


@dataclasses.dataclass(frozen=True, eq=False)
class Claim:
    """What is claimed.

    Attributes:
        rule: its number in docs/arithmetic.md.
        text: the claim in words.
        parameters: what it is proved for.
        cases: all of them.
        controls: claims that are false, one made of the claim at least: each must be refuted.
        in_tests: so many cases, and controls, at most are worth their time in every test run.
    """

    rule: str
    text: str
    parameters: str
    cases: Sequence[Case]
    controls: Sequence[Case]
    in_tests: int = 1


class Verdict(enum.Enum):
    """What the solver found."""

    PROVED = "proved"
    REFUTED = "refuted"
    OPEN = "open"


_VERDICTS = {"unsat": Verdict.PROVED, "sat": Verdict.REFUTED, "unknown": Verdict.OPEN}


@dataclasses.dataclass(frozen=True)
class Finding:
    """What became of a case.

    Attributes:
        verdict: of the solver.
        seconds: that it took.
        counterexample: numbers of the variables, where it is refuted.
    """

    verdict: Verdict
    seconds: float
    counterexample: dict[str, int]


def decide(case: Case, rules: Rules) -> Finding:
    """Prove a case with integers for words or with products generalised, or decide it as it is."""
    statement = case.state(rules)
    begin = time.thread_time()
    if case.is_linear and _is_proved(_of_integers(_FEW_STEPS), [_refuting(statement)]):
        return Finding(Verdict.PROVED, time.thread_time() - begin, {})
    for steps in (_FEW_STEPS, _MANY_STEPS):
        if any(_is_proved_generally(statement, tight, steps) for tight in (False, True)):
            return Finding(Verdict.PROVED, time.thread_time() - begin, {})
        finding = _decide(statement, begin, steps)
        if finding.verdict is not Verdict.OPEN:
            break
    return finding


def refute(case: Case, rules: Rules) -> Finding:
    """Decide a case as it is, so that a counterexample is one of numbers."""
    return _decide(case.state(rules), time.thread_time(), _MANY_STEPS)


def _of_bits(steps: int) -> z3.Solver:
    solver = z3.SolverFor("QF_BV")
    solver.set("rlimit", steps)
    return solver


def _of_integers(steps: int) -> z3.Solver:
    solver = z3.SimpleSolver()
    solver.set("bv.solver", 2)
    solver.set("rlimit", steps)
    return solver


def _refuting(statement: Statement) -> z3.BoolRef:
    return z3.And(statement.assumption, z3.Not(statement.conclusion))


def _is_proved_generally(statement: Statement, has_tight_bounds: bool, steps: int) -> bool:
    general = Generalisation(statement.assumption if has_tight_bounds else None)
    refuting = general.of(_refuting(statement))
    return _is_proved(_of_bits(steps), [refuting, *general.facts])


def _is_proved(solver: z3.Solver, formulas: list[z3.BoolRef]) -> bool:
    solver.add(*formulas)
    return solver.check() == z3.unsat


def _decide(statement: Statement, begin: float, steps: int) -> Finding:
    solver = _of_bits(steps)
    solver.add(_refuting(statement))
    verdict = _VERDICTS[str(solver.check())]
    seconds = time.thread_time() - begin
    found = {}
    if verdict is Verdict.REFUTED:
        model = solver.model()
        for variable in _variables(statement):
            found[str(variable)] = model.eval(variable, model_completion=True).as_long()
    return Finding(verdict, seconds, found)


def is_confirmed(case: Case, counterexample: dict[str, int], rules: Rules) -> bool:
    """Return whether the shipped functions contradict a case at a counterexample, too."""
    shipped = _ShippedRules(rules, counterexample)
    statement = case.state(shipped)
    return z3.is_true(shipped.value(z3.And(statement.assumption, z3.Not(statement.conclusion))))


class _ShippedRules:
    """Calls the shipped functions at one choice of the variables."""

    def __init__(self, rules: Rules, numbers: dict[str, int]) -> None:
        self._rules = rules
        self._numbers = numbers

    def __getitem__(self, name: str) -> Callable[..., Any]:
        rule = self._rules[name]

        def call(*arguments: z3.BitVecRef | int) -> z3.BitVecRef:
            numbers = [
                _number(given if isinstance(given, int) else self.value(given), parameter.is_signed)
                for given, parameter in zip(arguments, rule.parameters, strict=True)
            ]
            (found,) = self._rules.evaluate([(name, numbers)])
            return [
                z3.BitVecVal(number, result.size())
                for number, result in zip(found, rule.results, strict=True)
            ]

        def first(*arguments: z3.BitVecRef | int) -> z3.BitVecRef:
            return call(*arguments)[0]

        first.all = call
        first.is_defined = lambda *arguments: self.value(rule.is_defined(*arguments))
        return first

    def value(self, term: z3.ExprRef) -> z3.ExprRef:
        """Return what a term comes to."""
        pairs = [
            (variable, z3.BitVecVal(self._numbers.get(str(variable), 0), variable.size()))
            for variable in _variables_of([term])
        ]
        return z3.simplify(z3.substitute(term, *pairs) if pairs else term)


def _number(value: z3.BitVecRef | int, is_signed: bool) -> int:
    if isinstance(value, int):
        return value
    return value.as_signed_long() if is_signed else value.as_long()


def _variables(statement: Statement) -> list[z3.BitVecRef]:
    return _variables_of([statement.assumption, statement.conclusion])


def _variables_of(terms: Sequence[z3.ExprRef]) -> list[z3.BitVecRef]:
    """Return the variables in terms, each once."""
    found, seen, left = {}, set(), list(terms)
    while left:
        term = left.pop()
        if term.get_id() in seen:
            continue
        seen.add(term.get_id())
        if z3.is_const(term) and term.decl().kind() == z3.Z3_OP_UNINTERPRETED:
            found[str(term)] = term
        left.extend(term.children())
    return list(found.values())
