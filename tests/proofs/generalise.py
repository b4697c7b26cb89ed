# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Products and quotients as numbers of which no more is known than a proof needs.

A product of two variables is hard for a solver of bits, and most claims need no more of it than
its bounds. So a product becomes a variable of its own, in as many bits as hold it exactly: what
holds for all of its values holds for the product. Equal factors give the same variable, whatever
words they are multiplied in. A product of two intervals lies between the products of their ends;
the intervals are those of the factors' words or, where that is not enough, the least ones of 2^k
numbers that the solver proves of the factors. Of two products with a factor in common it is known
that they are equal where the others are, and that they have their order where it is not negative.

A quotient by a constant becomes the number of which the divisor's multiple leaves a remainder
smaller than the divisor, with the dividend's sign: there is one. Of a quotient by a variable the
same is known where neither number is negative; its product with the divisor is one of those above.
"""

from __future__ import annotations

import dataclasses
import itertools

import z3

_QUOTIENTS = {
    z3.Z3_OP_BSDIV: True,
    z3.Z3_OP_BSDIV_I: True,
    z3.Z3_OP_BSREM: False,
    z3.Z3_OP_BSREM_I: False,
}


_STEPS = 10_000_000  # of the solver, for one bound of a factor


@dataclasses.dataclass(frozen=True)
class _Factor:
    """What an operand of a product is an extension of."""

    core: z3.BitVecRef
    is_signed: bool

    @property
    def key(self) -> tuple[int, bool]:
        return self.core.get_id(), self.is_signed

    @property
    def bits(self) -> int:
        """As a signed number."""
        return self.core.size() + (not self.is_signed)

    @property
    def ends(self) -> tuple[int, int]:
        if self.is_signed:
            return -(1 << (self.bits - 1)), (1 << (self.bits - 1)) - 1
        return 0, (1 << self.core.size()) - 1


def _factor(word: z3.BitVecRef) -> _Factor:
    """Return what a word extends, in a form that equal words share."""
    while word.decl().kind() == z3.Z3_OP_SIGN_EXT:
        word = word.arg(0)
    if word.decl().kind() == z3.Z3_OP_ZERO_EXT and word.decl().params()[0] > 0:
        return _Factor(z3.simplify(word.arg(0)), False)
    return _Factor(z3.simplify(word), True)


def _is_constant(word: z3.BitVecRef) -> bool:
    return z3.is_bv_value(_factor(word).core)


def _resized(word: z3.BitVecRef, bits: int) -> z3.BitVecRef:
    if word.size() >= bits:
        return z3.Extract(bits - 1, 0, word)
    return z3.SignExt(bits - word.size(), word)


def _choice_of_products(term: z3.BitVecRef) -> z3.BitVecRef | None:
    """Return the choice between two products that a product with a choice is, None without one."""
    for at in (0, 1):
        word, other = term.arg(at), term.arg(1 - at)
        kind, inner = word.decl().kind(), word
        if kind in (z3.Z3_OP_SIGN_EXT, z3.Z3_OP_ZERO_EXT):
            inner = word.arg(0)
        if inner.decl().kind() == z3.Z3_OP_ITE:
            extend = (lambda x: x) if inner is word else word.decl()
            chosen = [extend(inner.arg(i)) * other for i in (1, 2)]
            return z3.If(inner.arg(0), *chosen)
    return None


class Generalisation:
    """Formulas whose products and quotients are variables."""

    def __init__(self, assumption: z3.BoolRef | None = None) -> None:
        """Take an assumption under which bounds of factors are proved, or none: then none are."""
        self._assumption = assumption
        self._products: dict[tuple, tuple[list[_Factor], z3.BitVecRef]] = {}
        self._quotients: dict[tuple, tuple[z3.BitVecRef, z3.BitVecRef]] = {}
        self._known: dict[int, z3.ExprRef] = {}
        self._kept: list[z3.ExprRef] = []  # ids are those of terms that live
        self.facts: list[z3.BoolRef] = []

    def of(self, term: z3.ExprRef) -> z3.ExprRef:
        """Return the general form of a term; what is known of its variables is added to facts."""
        if term.get_id() not in self._known:
            self._kept.append(term)
            self._known[term.get_id()] = self._made(term)
        return self._known[term.get_id()]

    def _made(self, term: z3.ExprRef) -> z3.ExprRef:
        if term.num_args() == 0:
            return term
        kind = term.decl().kind()
        if kind == z3.Z3_OP_BMUL and not any(map(_is_constant, term.children())):
            return self._product(term)
        if kind in _QUOTIENTS:
            divisor = z3.simplify(term.arg(1))
            if z3.is_bv_value(divisor) and divisor.as_signed_long() > 0:
                return self._quotient(term.arg(0), divisor.as_long(), _QUOTIENTS[kind])
            if not z3.is_bv_value(divisor) and _QUOTIENTS[kind]:
                return self._quotient_of_two(term)
        children = [self.of(child) for child in term.children()]
        if kind == z3.Z3_OP_AND:
            return z3.And(*children)
        if kind == z3.Z3_OP_OR:
            return z3.Or(*children)
        if kind == z3.Z3_OP_DISTINCT:
            return z3.Distinct(*children)
        if len(children) > term.decl().arity():  # sums of many, from sums of two
            whole = children[0]
            for child in children[1:]:
                whole = term.decl()(whole, child)
            return whole
        return term.decl()(*children)

    def _product(self, term: z3.BitVecRef) -> z3.BitVecRef:
        if (choice := _choice_of_products(term)) is not None:
            return self.of(choice)
        factors = sorted((_factor(child) for child in term.children()), key=lambda f: f.key)
        if len(factors) != 2:
            return term
        key = tuple(factor.key for factor in factors)
        if key not in self._products:
            self._kept.extend(factor.core for factor in factors)
            variable = z3.BitVec(f"product {len(self._products)}", sum(f.bits for f in factors))
            ends = [self._ends(factor) for factor in factors]
            corners = [a * b for a, b in itertools.product(*ends)]
            self.facts.append(z3.And(min(corners) <= variable, variable <= max(corners)))
            earlier = list(self._products.values())
            self._products[key] = factors, variable
            for others, other in earlier:
                self._relate(factors, variable, others, other)
        return _resized(self._products[key][1], term.size())

    def _relate(
        self, first: list[_Factor], a: z3.BitVecRef, second: list[_Factor], b: z3.BitVecRef
    ) -> None:
        for i, j in itertools.product((0, 1), repeat=2):
            if first[i].key != second[j].key:
                continue
            bits = max(a.size(), b.size())
            x, y = (
                self._number(factors[1 - at], bits) for factors, at in ((first, i), (second, j))
            )
            a, b = _resized(a, bits), _resized(b, bits)
            self.facts.append(z3.Implies(x == y, a == b))
            common = self._number(first[i], bits)
            self.facts.append(z3.Implies(z3.And(common >= 0, x <= y), a <= b))
            self.facts.append(z3.Implies(z3.And(common >= 0, y <= x), b <= a))

    def _number(self, factor: _Factor, bits: int) -> z3.BitVecRef:
        """Return a factor's number in a word that holds it."""
        core = self.of(factor.core)
        more = bits - core.size()
        return z3.SignExt(more, core) if factor.is_signed else z3.ZeroExt(more, core)

    def _ends(self, factor: _Factor) -> tuple[int, int]:
        """Return bounds of a factor, all that its word holds or the least that are proved."""
        if self._assumption is None or not factor.is_signed:
            return factor.ends
        core = factor.core
        low, high = 0, factor.bits - 1
        while low < high:
            middle = (low + high) // 2
            if self._is_implied(z3.And(-(1 << middle) <= core, core < 1 << middle)):
                high = middle
            else:
                low = middle + 1
        is_positive = self._is_implied(core >= 0)
        return 0 if is_positive else -(1 << high), (1 << high) - 1

    def _is_implied(self, bound: z3.BoolRef) -> bool:
        apart = Generalisation()
        refuting = apart.of(z3.And(self._assumption, z3.Not(bound)))
        solver = z3.SolverFor("QF_BV")
        solver.set("rlimit", _STEPS)
        solver.add(refuting, *apart.facts)
        return solver.check() == z3.unsat

    def _quotient(self, dividend: z3.BitVecRef, divisor: int, is_wanted: bool) -> z3.BitVecRef:
        bits = dividend.size()
        key = (dividend.get_id(), divisor)
        if key not in self._quotients:
            general = self.of(dividend)
            self._kept.append(dividend)
            quotient = z3.BitVec(f"quotient {len(self._quotients)}", bits)
            wide = bits + divisor.bit_length() + 1
            rest = _resized(general, wide) - _resized(quotient, wide) * divisor
            upward = z3.And(rest >= 0, rest < divisor)
            downward = z3.And(rest <= 0, rest > -divisor)
            self.facts.append(z3.If(general >= 0, upward, downward))
            self._quotients[key] = quotient, _resized(rest, bits)
        return self._quotients[key][0 if is_wanted else 1]

    def _quotient_of_two(self, term: z3.BitVecRef) -> z3.BitVecRef:
        """Return a number whose product with the divisor is known to lie below the dividend."""
        dividend, divisor = term.children()
        bits = term.size()
        quotient = z3.BitVec(f"quotient of two {term.get_id()}", bits)
        product = self.of(z3.SignExt(bits, quotient) * z3.SignExt(bits, divisor))
        x, d = (z3.SignExt(bits, self.of(word)) for word in (dividend, divisor))
        within = z3.And(product <= x, x < product + d, quotient >= 0)
        self.facts.append(z3.Implies(z3.And(x >= 0, d > 0), within))
        return quotient
