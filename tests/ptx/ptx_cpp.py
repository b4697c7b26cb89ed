# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Writes the C++ of device code's assembly text: kernels as functions, instructions as statements.

An instruction may have defects planted in it, each a number and another instruction in its place,
which runs while `planted_defect` is the number.
"""

from __future__ import annotations

import re
from collections.abc import Mapping, Sequence

import ptx_forms
from ptx_text import Instruction, Kernel, Module

# By a kernel's name and the place of an instruction: numbers of defects and what stands there then.
# None: nothing does.
Defects = Mapping[tuple[str, int], Sequence[tuple[int, Instruction | None]]]

_PREAMBLE = """\
// Written by tests/ptx/translate.py: the assembly text of the device code.

#include "device.h"
#include "instructions.h"
#include "memory.h"
#include "planted.h"
#include "support/device_emulation.h"

namespace bitfold::ptx {
namespace {
"""


class _KernelWriter:
    """Writes the function of one kernel."""

    def __init__(self, kernel: Kernel, symbols: dict[str, str], defects: Defects) -> None:
        local = {kernel.local.name: "uint64_t{0}"} if kernel.local else {}
        self.kernel = kernel
        self.operands = ptx_forms.Operands(kernel, symbols | local)
        self.defects = defects

    def write(self, function: str) -> list[str]:
        """Return the lines of the function."""
        lines = [
            f"// {self.kernel.name}",
            f"void {function}([[maybe_unused]] const void* const* arguments,",
            "    [[maybe_unused]] const Window& shared) {",
        ]
        body = [self._statement(*placed) for placed in enumerate(self.kernel.body)]
        used = set(re.findall(r"\w+", " ".join(body)))
        for kind, cpp in ptx_forms.REGISTERS.items():
            names = [name for name, k in self.kernel.registers.items() if k == kind]
            names = [name for name in names if self.operands.name(name) in used]
            poison = "true" if kind == "Pred" else f"Poison<{kind}>()"
            lines += [f"  {cpp} {self.operands.name(name)} = {poison};" for name in names]
        if self.kernel.local:
            lines.append(f"  LocalMemory<{self.kernel.local.bytes}> local;")
        return [*lines, *(f"  {statement}" for statement in body), "}", ""]

    def _statement(self, place: int, instruction: Instruction) -> str:
        form = instruction.form
        if form == "{":
            # Of a call's block the variables stand for the parameters.
            unused = "[[maybe_unused]]"
            return f"{{ {unused} uint64_t param0 = 0, param1 = 0; {unused} uint32_t retval0 = 0;"
        if form == "}":
            return form
        if form.endswith(":"):
            return form.removeprefix("$") + " ;"
        if form not in ptx_forms.KNOWN:
            raise self.operands.refuse(instruction, "an instruction that is not known")
        defects = self.defects.get((self.kernel.name, place), ())
        if instruction.predicate:
            return self._guarded(instruction, defects)
        if form in ptx_forms.VALUES:
            return self._value(instruction, defects)
        statement = self._effect(instruction)
        for number, altered in defects:
            other = self._altered(altered)
            statement = f"if (IsPlanted({number})) {{ {other} }} else {{ {statement} }}"
        return statement

    def _altered(self, instruction: Instruction | None) -> str:
        if instruction is None:
            return ";"
        if instruction.form in ptx_forms.VALUES:
            return self._value(instruction, ())
        return self._effect(instruction)

    def _guarded(
        self, instruction: Instruction, defects: Sequence[tuple[int, Instruction | None]]
    ) -> str:
        if instruction.form != "bra":
            raise self.operands.refuse(instruction, "only a branch is known with a predicate")
        condition = self._predicate(instruction)
        for number, altered in defects:
            assert altered is not None
            condition = f"PLANTED({number}, ({condition}), ({self._predicate(altered)}))"
        return f"if ({condition}) {self._effect(instruction)}"

    def _predicate(self, instruction: Instruction) -> str:
        is_negated = instruction.predicate.startswith("!")
        register = instruction.predicate.removeprefix("!")
        name = self.operands.source(instruction, register, "pred")
        return "!" * is_negated + name

    def _expression(self, instruction: Instruction) -> str:
        """Return what an instruction of ptx_forms.VALUES gives, as its register holds it."""
        form = instruction.form
        types = ptx_forms.sources(form)
        target, *given = instruction.operands
        if form not in ptx_forms.VALUES or len(given) != len(types):
            raise self.operands.refuse(instruction, "an instruction that is not known")
        read = [self.operands.source(instruction, o, t) for o, t in zip(given, types, strict=True)]
        register = self.operands.into(target)
        return f"Into<{register}>({ptx_forms.function(form)}({', '.join(read)}))"

    def _value(
        self, instruction: Instruction, defects: Sequence[tuple[int, Instruction | None]]
    ) -> str:
        type_ = ptx_forms.result(instruction.form)
        target = self.operands.target(instruction, instruction.operands[0], type_)
        value = self._expression(instruction)
        for number, altered in defects:
            assert altered is not None
            value = f"PLANTED({number}, {value}, ({self._expression(altered)}))"
        return f"{target} = {value};"

    def _effect(self, instruction: Instruction) -> str:
        """Return the statement of an instruction that is more than a value for values."""
        form, given = instruction.form, instruction.operands
        if form in ("bra", "bra.uni"):
            return f"goto {given[0].removeprefix('$')};"
        if form == "ret":
            return "return;"
        if form == "bar.sync" and given == ("0",):
            return "__syncthreads();"
        if form in ("bar.red.and.pred", "bar.red.or.pred") and given[1] == "0":
            target = self.operands.target(instruction, given[0], "pred")
            value = self.operands.source(instruction, given[2], "pred")
            # Some do if not all do not.
            negated = "!" if ".or." in form else ""
            return f"{target} = {negated}__syncthreads_and({negated}{value});"
        if form == "call.uni vprintf":
            return "retval0 = Vprintf(param0, param1);"
        if form == "st.param.b64" and given[0] in ("[param0+0]", "[param1+0]"):
            value = self.operands.source(instruction, given[1], "b64")
            return f"{given[0][1:7]} = {value};"
        if form.startswith("cvta."):
            return self._cvta(instruction)
        if form.startswith("ld."):
            return self._load(instruction)
        if form.startswith("st."):
            return self._store(instruction)
        raise self.operands.refuse(instruction, "not known with these operands")

    def _cvta(self, instruction: Instruction) -> str:
        target = self.operands.target(instruction, instruction.operands[0], "u64")
        value = self.operands.source(instruction, instruction.operands[1], "u64")
        if instruction.form == "cvta.local.u64":
            return f"{target} = local.Generic({value});"
        return f"{target} = {value};"

    def _load(self, instruction: Instruction) -> str:
        form, (register, place) = instruction.form, instruction.operands
        parts = form.split(".")
        type_ = parts[-1].capitalize()
        if form in ptx_forms.VECTOR_LOADS:
            names = self.operands.vector(instruction, register, 4)
            address = self.operands.address(instruction, place)
            pointers = ", ".join(f"&{name}" for name in names)
            return f"LdWindowVector<{type_}>(shared, {address}, {pointers});"
        target = self.operands.target(instruction, register, parts[-1])
        into = f"{target} = Into<{self.operands.into(register)}>"
        if parts[1] == "global":
            return f"{into}(LdGlobal<{type_}>({self.operands.address(instruction, place)}));"
        if place == "[retval0+0]":
            return f"{target} = retval0;"
        name = place.strip("[]")
        if name not in self.kernel.parameters:
            raise self.operands.refuse(instruction, "no such parameter")
        number = self.kernel.parameters.index(name)
        return f"{into}(LdParam<{type_}>(arguments[{number}]));"

    def _store(self, instruction: Instruction) -> str:
        form, (place, register) = instruction.form, instruction.operands
        parts = form.split(".")
        type_ = parts[-1].capitalize()
        if form not in ptx_forms.STORES:
            raise self.operands.refuse(instruction, "not known with these operands")
        address = self.operands.address(instruction, place)
        window = "" if parts[1] == "global" else f"{parts[1]}, "
        if parts[2] == "v2":
            names = ", ".join(self.operands.vector(instruction, register, 2))
            return f"StWindowVector<{type_}>({window}{address}, {names});"
        value = self.operands.source(instruction, register, parts[-1])
        name = "StWindow" if window else "StGlobal"
        return f"{name}<{type_}>({window}{address}, {value});"


def _digest(text: str) -> int:
    """Return FNV-1a, by which device.cc recognises the text."""
    digest = 0xCBF29CE484222325
    for byte in text.encode("ascii"):
        digest = (digest ^ byte) * 0x100000001B3 % 2**64
    return digest


def _variables(module: Module, number: int) -> tuple[list[str], dict[str, str], int]:
    """Return the lines for a module's variables, their addresses, and the bytes that are shared."""
    lines, symbols, shared = [], {}, 0
    for variable in module.variables.values():
        if variable.space == "shared":
            shared = -(-shared // variable.align) * variable.align
            symbols[variable.name] = f"uint64_t{{{shared}}}"
            shared += variable.bytes
            continue
        name = f"variable{number}_{len(lines)}"
        values = ", ".join(map(str, variable.values))
        lines.append(
            f"alignas({variable.align}) unsigned char {name}[{variable.bytes}] = {{{values}}};"
        )
        symbols[variable.name] = f"reinterpret_cast<uint64_t>({name})"
    return lines, symbols, shared


def cpp_of(modules: Sequence[Module], defects: Defects | None = None) -> str:
    """Return the C++ of the modules, with the defects planted.

    Raises:
        UnknownTextError: An instruction is not known.
    """
    lines = [_PREAMBLE]
    table = []
    for m, module in enumerate(modules):
        declared, symbols, shared = _variables(module, m)
        lines += declared
        for k, kernel in enumerate(module.kernels):
            lines += _KernelWriter(kernel, symbols, defects or {}).write(f"Kernel{m}_{k}")
        lines.append(f"const Kernel kKernels{m}[] = {{")
        lines += [
            f'    {{"{kernel.name}", Kernel{m}_{k}}},' for k, kernel in enumerate(module.kernels)
        ]
        lines.append("};\n")
        sizes = f"{len(module.text)}, {_digest(module.text):#x}u, {shared}"
        table.append(f"    {{{sizes}, kKernels{m}, {len(module.kernels)}}},")
    lines += ["}  // namespace\n", "const Module kModules[] = {", *table, "};"]
    lines += [f"const int kModuleCount = {len(table)};\n", "}  // namespace bitfold::ptx"]
    return "\n".join(lines) + "\n"
