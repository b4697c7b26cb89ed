# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Which instructions the translator knows, and the C++ expression of each.

A form is an instruction's whole name. `mul.lo.s32` is the function `MulLo<S32>` of instructions.h,
`cvt.rzi.s32.f32` is `CvtRzi<S32, F32>`.
"""

from __future__ import annotations

import re
import struct

from ptx_text import Instruction, Kernel, UnknownTextError

_FLOAT_ROUNDINGS = ("rn", "rz", "rm", "rp")


def _forms(operations: str, types: str) -> set[str]:
    return {f"{operation}.{type_}" for operation in operations.split() for type_ in types.split()}


_COMPARISONS = "setp.eq setp.ne setp.lt setp.le setp.gt setp.ge"
_UNORDERED = "setp.equ setp.neu setp.ltu setp.leu setp.gtu setp.geu"
_DIRECTED = " ".join(f"{name}.{way}" for name in ("add", "sub", "mul") for way in _FLOAT_ROUNDINGS)
_DIVISIONS = " ".join(f"{name}.{way}" for name in ("div", "rcp") for way in _FLOAT_ROUNDINGS)

# What gives a value for values.
VALUES = (
    _forms("add sub mul.lo mad.lo div rem min max", "s32 u32 s64 u64")
    | _forms("mul.wide", "s32 u32")
    | _forms("abs neg", "s32 f32")
    | _forms("min max", "f32")
    | _forms("and or xor not", "pred b16 b32 b64")
    | _forms("mov", "pred b32 u32 f32 u64")
    | _forms("shl", "b32 b64")
    | _forms("shr", "s32 u32 s64 u64")
    | _forms("selp", "b32 b64 u32 s32 f32")
    | _forms(_COMPARISONS, "b16 s16 u16 s32 u32 s64 u64 f32 f64")
    | _forms(_UNORDERED, "f32 f64")
    | _forms(_DIRECTED, "f32")
    | _forms(_DIVISIONS, "f32")
    | _forms("fma.rn add.rn.ftz sub.rn.ftz mul.rn.ftz div.rn.ftz", "f32")
    | _forms("cvt", "s16.s8 s32.s8 u16.u8 u32.u8 u32.u16 s64.s32 u64.u32 u32.u64 f64.f32")
    | _forms("cvt.rn", "f32.s16 f32.s32 f32.u32 f32.s64")
    | _forms("cvt.rz", "f32.s16 f32.s32 f32.u32")
    | _forms("cvt.rni cvt.rzi cvt.rmi", "f32.f32 s32.f32")
    | _forms("dp4a", "s32.s32 s32.u32 u32.s32")
    | {"prmt.b32"}
)
LOADS = _forms("ld.global", "f32 u32 s8 u8") | _forms("ld.param", "u64 u32 b32 f32 u8")
STORES = _forms("st.global", "f32 u32") | _forms("st.local", "f64 v2.u32")
STORES |= _forms("st.shared", "f32 u32")
VECTOR_LOADS = _forms("ld.shared.v4", "f32 u32")
OTHERS = {
    "bar.sync", "bar.red.and.pred", "bar.red.or.pred", "bra", "bra.uni", "ret",
    "call.uni vprintf", "st.param.b64", "cvta.global.u64", "cvta.to.global.u64", "cvta.local.u64",
}  # fmt: skip
KNOWN = VALUES | LOADS | STORES | VECTOR_LOADS | OTHERS

SPECIAL = {
    f"%{name}.{axis}": f"{member}.{axis}"
    for name, member in (
        ("tid", "threadIdx"),
        ("ctaid", "blockIdx"),
        ("ntid", "blockDim"),
        ("nctaid", "gridDim"),
    )
    for axis in "xyz"
}
REGISTERS = {"Pred": "bool", "B16": "uint16_t", "B32": "uint32_t", "B64": "uint64_t"}
WIDTHS = {"Pred": 1, "B16": 16, "B32": 32, "B64": 64}


def width(type_: str) -> int:
    """Return the bits of a type such as s32."""
    return 1 if type_ == "pred" else int(type_[1:])


def sources(form: str) -> list[str]:
    """Return the types of what a form of VALUES takes."""
    parts = form.split(".")
    name, type_ = parts[0], parts[-1]
    if name in ("cvt", "mov", "abs", "neg", "not", "rcp"):
        return [type_]
    if name in ("shl", "shr"):
        return [type_, "u32"]
    if name == "selp":
        return [type_, type_, "pred"]
    if name == "dp4a":
        return [*parts[1:], "s32"]
    return [type_] * (3 if name in ("mad", "fma", "prmt") else 2)


def result(form: str) -> str:
    """Return the type of what a form of VALUES gives."""
    parts = form.split(".")
    if parts[0] == "setp":
        return "pred"
    if parts[0] == "cvt":
        return parts[-2]
    if parts[0] == "dp4a":
        return "s32"
    return f"{parts[-1][0]}64" if form.startswith("mul.wide") else parts[-1]


def function(form: str) -> str:
    """Return the C++ function of a form of VALUES."""
    parts = form.split(".")
    types = 2 if parts[0] in ("cvt", "dp4a") else 1
    name = "".join(part.capitalize() for part in parts[:-types])
    return f"{name}<{', '.join(part.capitalize() for part in parts[-types:])}>"


def literal(text: str, type_: str) -> str:
    """Return a number of the text as a C++ number of as many bits; empty if it is none."""
    if type_ == "pred" and text in ("0", "1", "-1"):
        return "false" if text == "0" else "true"
    if match := re.fullmatch(r"0[fF]([0-9A-F]{8})|0[dD]([0-9A-F]{16})", text):
        return f"0x{match[1] or match[2]}u"
    if not re.fullmatch(r"-?\d+", text):
        return ""
    if type_ == "f32":
        return f"0x{struct.pack('>f', float(text)).hex()}u"
    value = int(text) % (1 << width(type_))
    return f"{value}u"


class Operands:
    """Turns the operands of a kernel's instructions into C++."""

    def __init__(self, kernel: Kernel, symbols: dict[str, str]) -> None:
        """Take a kernel, and the C++ of the variables' addresses by their names."""
        self.kernel = kernel
        self.symbols = symbols

    def refuse(self, instruction: Instruction, why: str) -> UnknownTextError:
        """Return the error about an instruction."""
        place = f"line {instruction.line}, in {self.kernel.name}"
        return UnknownTextError(f"{place}: {why}: {instruction}")

    def name(self, operand: str) -> str:
        """Return the C++ name of a register."""
        return operand.removeprefix("%")

    def source(self, instruction: Instruction, operand: str, type_: str) -> str:
        """Return what is read: a register, a number, an address or a thread's place."""
        kind = self.kernel.registers.get(operand)
        if kind:
            # A conversion takes a narrower type out of a register; none is narrower than its type.
            exact = not instruction.form.startswith(("cvt", "st."))
            if WIDTHS[kind] < width(type_) or (exact and WIDTHS[kind] != width(type_)):
                raise self.refuse(instruction, f"{operand} does not hold .{type_}")
            return self.name(operand)
        if instruction.form == "mov.u32" and operand in SPECIAL:
            return SPECIAL[operand]
        if instruction.form == "mov.u64" and operand in self.symbols:
            return self.symbols[operand]
        number = literal(operand, type_)
        if not number:
            raise self.refuse(instruction, f"not known: {operand}")
        return number

    def target(self, instruction: Instruction, operand: str, type_: str) -> str:
        """Return the register that is written."""
        kind = self.kernel.registers.get(operand)
        if kind is None or WIDTHS[kind] < width(type_):
            raise self.refuse(instruction, f"no register for .{type_}: {operand}")
        return self.name(operand)

    def into(self, operand: str) -> str:
        """Return the C++ type of a register."""
        return REGISTERS[self.kernel.registers[operand]]

    def address(self, instruction: Instruction, operand: str) -> str:
        """Return the C++ of an address, [%rd1+16]."""
        match = re.fullmatch(r"\[(%\w+)(?:\+(-?\d+))?\]", operand)
        if match is None or self.kernel.registers.get(match[1]) != "B64":
            raise self.refuse(instruction, f"not known: {operand}")
        base = self.name(match[1])
        return f"{base} + {literal(match[2], 'u64')}" if match[2] else base

    def vector(self, instruction: Instruction, operand: str, count: int) -> list[str]:
        """Return the registers of {%r1, %r2}."""
        names = [name.strip() for name in operand.strip("{}").split(",")]
        if len(names) != count or any(self.kernel.registers.get(n) != "B32" for n in names):
            raise self.refuse(instruction, f"not known: {operand}")
        return [self.name(name) for name in names]
