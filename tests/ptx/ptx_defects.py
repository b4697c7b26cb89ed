# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Defects to plant in device code's assembly text: one instruction, altered in one way.

Each has a kind: another operator, another rounding, another predicate, another constant, another
register, a barrier that is left out.
"""

from __future__ import annotations

import dataclasses
import random
import re
from collections.abc import Iterator, Sequence

import ptx_forms
from ptx_text import Instruction, Kernel, Module

_OPERATORS = {
    "add": ("sub",), "sub": ("add",), "mul.lo": ("add",), "and": ("or",), "or": ("xor",),
    "xor": ("or",), "shl": ("shr",), "shr": ("shl",), "max": ("min",), "min": ("max",),
    "div": ("mul", "mul.lo"), "mul": ("add",), "rem": ("div",),
    "setp.lt": ("setp.le",), "setp.le": ("setp.lt",), "setp.gt": ("setp.ge",),
    "setp.ge": ("setp.gt",), "setp.eq": ("setp.ne",), "setp.ne": ("setp.eq",),
    "setp.ltu": ("setp.leu", "setp.lt"), "setp.leu": ("setp.ltu", "setp.le"),
    "setp.gtu": ("setp.geu", "setp.gt"), "setp.geu": ("setp.gtu", "setp.ge"),
}  # fmt: skip
# A type that reads the same bits in another way, and one that keeps fewer of them.
_TYPES = {"s32": ("u32",), "u32": ("s32",), "s64": ("u64",), "u64": ("s64",), "b32": (), "f32": ()}
_WAYS = ("rn", "rz", "rm", "rp", "rn.ftz")
_WHOLE_WAYS = ("rni", "rzi", "rmi")
# What reads constants and registers that a defect may change. Addresses of variables stay.
_READING = (
    (ptx_forms.VALUES | ptx_forms.LOADS | ptx_forms.STORES | ptx_forms.VECTOR_LOADS)
    - {form for form in ptx_forms.LOADS if form.startswith("ld.param")}
    - {"mov.u64"}
)


@dataclasses.dataclass(frozen=True)
class Defect:
    """An instruction, by its kernel and place, and what stands there instead; None: nothing."""

    kernel: str
    place: int
    kind: str
    original: Instruction
    altered: Instruction | None

    def __str__(self) -> str:
        """Return a line that shows it."""
        return f"{self.original}  ->  {self.altered or 'nothing'}"


def _renamed(instruction: Instruction, form: str) -> Iterator[Instruction]:
    if form != instruction.form and form in ptx_forms.VALUES:
        yield dataclasses.replace(instruction, form=form)


def _operators(instruction: Instruction) -> Iterator[Instruction]:
    """Yield it with another operation, or with numbers read in another way."""
    form = instruction.form
    for name, others in _OPERATORS.items():
        if form.startswith(f"{name}."):
            for other in others:
                rest = form.removeprefix(name)
                if name.startswith("mul") and not name.endswith("lo") and "wide" in form:
                    continue
                yield from _renamed(instruction, other + rest)
    name, _, type_ = form.rpartition(".")
    if name.startswith(("shr", "setp", "max", "min", "mul.wide", "div", "rem", "cvt.rn.f32")):
        for other in _TYPES.get(type_, ()):
            yield from _renamed(instruction, f"{name}.{other}")
    if name in ("abs", "neg", "not"):
        as_bits = {"s32": "u32"}.get(type_, type_)
        yield from _renamed(instruction, f"mov.{as_bits}")
    if name == "selp":
        target, one, other, which = instruction.operands
        if one != other:
            yield dataclasses.replace(instruction, operands=(target, other, one, which))


def _roundings(instruction: Instruction) -> Iterator[Instruction]:
    """Yield it rounded in other directions, and with subnormals taken for zeros."""
    parts = instruction.form.split(".")
    ways = _WAYS if parts[1] in _WAYS else _WHOLE_WAYS if parts[1] in _WHOLE_WAYS else ()
    for way in ways:
        yield from _renamed(instruction, ".".join([parts[0], way, *parts[2:]]))


def _predicates(instruction: Instruction) -> Iterator[Instruction]:
    """Yield a branch with its predicate negated."""
    if instruction.predicate:
        negated = f"!{instruction.predicate}".removeprefix("!!")
        yield dataclasses.replace(instruction, predicate=negated)


def _with(instruction: Instruction, place: int, operand: str) -> Instruction:
    operands = list(instruction.operands)
    operands[place] = operand
    return dataclasses.replace(instruction, operands=tuple(operands))


def _constants(instruction: Instruction) -> Iterator[Instruction]:
    """Yield it with a number that is one more, or one unit in the last place."""
    for place, operand in enumerate(instruction.operands):
        if re.fullmatch(r"-?\d+", operand):
            is_predicate = instruction.form.endswith(".pred")
            yield _with(
                instruction,
                place,
                str(int(operand) + 1 if not is_predicate else (0 if int(operand) else 1)),
            )
        elif match := re.fullmatch(r"0f([0-9A-F]{8})", operand):
            yield _with(instruction, place, f"0f{int(match[1], 16) ^ 1:08X}")
        elif match := re.fullmatch(r"\[(%\w+)(?:\+(\d+))?\]", operand):
            step = 16 if ".v4" in instruction.form else 8 if "local" in instruction.form else 4
            if not instruction.form.endswith("8"):
                yield _with(instruction, place, f"[{match[1]}+{int(match[2] or 0) + step}]")


def _registers(
    instruction: Instruction, recent: Sequence[str], kernel: Kernel
) -> Iterator[Instruction]:
    """Yield it with one of the registers that it reads another of the same kind, lately written."""
    first = 0 if instruction.form.startswith("st.") else 1
    for place, operand in enumerate(instruction.operands):
        if place < first or operand not in kernel.registers:
            continue
        kind = kernel.registers[operand]
        others = [r for r in recent if kernel.registers[r] == kind and r != operand]
        if others:
            yield _with(instruction, place, others[-1])


def _of_kernel(kernel: Kernel) -> Iterator[Defect]:
    recent: list[str] = []
    for place, instruction in enumerate(kernel.body):
        form = instruction.form
        found: list[tuple[str, Instruction | None]] = []
        if form in ptx_forms.VALUES:
            found += [("operator", other) for other in _operators(instruction)]
            found += [("rounding", other) for other in _roundings(instruction)]
        if form == "bra":
            found += [("predicate", other) for other in _predicates(instruction)]
        if form == "bar.sync":
            found.append(("barrier", None))
        if form == "bar.red.and.pred":
            target, _, own = instruction.operands
            alone = dataclasses.replace(instruction, form="mov.pred", operands=(target, own))
            found.append(("barrier", alone))
            found.append(("operator", dataclasses.replace(instruction, form="bar.red.or.pred")))
        if form in _READING:
            found += [("constant", other) for other in _constants(instruction)]
            found += [("register", other) for other in _registers(instruction, recent, kernel)]
        for kind, altered in found:
            yield Defect(kernel.name, place, kind, instruction, altered)
        if instruction.operands and instruction.operands[0] in kernel.registers:
            recent = [*(r for r in recent if r != instruction.operands[0]), instruction.operands[0]]


def all_defects(modules: Sequence[Module]) -> list[Defect]:
    """Return every defect that there is a kind for, in the order of the text."""
    return [d for module in modules for kernel in module.kernels for d in _of_kernel(kernel)]


def sample(defects: Sequence[Defect], count: int, seed: int) -> list[Defect]:
    """Return as many of them, of each kernel and kind in turn, by a seed."""
    generator = random.Random(seed)
    shuffled = sorted(defects, key=lambda _: generator.random())
    heaps: dict[tuple[str, str], list[Defect]] = {}
    for defect in shuffled:
        heaps.setdefault((defect.kernel, defect.kind), []).append(defect)
    chosen: list[Defect] = []
    while heaps and len(chosen) < count:
        for key in sorted(heaps):
            chosen.append(heaps[key].pop())
            if not heaps[key]:
                del heaps[key]
    return chosen[:count]
