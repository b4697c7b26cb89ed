# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Reads the assembly text of device code: variables, kernels, instructions.

Whatever it does not know it refuses, by name and line: nothing is skipped.
"""

from __future__ import annotations

import dataclasses
import re

KINDS = {"pred": "Pred", "b16": "B16", "b32": "B32", "f32": "B32", "b64": "B64", "f64": "B64"}

_VARIABLE = re.compile(
    r"\.(?P<space>global|shared|local) \.align (?P<align>\d+) \.b8 (?P<name>[\w$]+)"
    r"\[(?P<bytes>\d+)\](?: = \{(?P<values>[\d, ]*)\})?"
)
_ENTRY = re.compile(r"\.visible \.entry (?P<name>\w+)\((?P<parameters>[^)]*)\)")
_PARAMETER = re.compile(r"\.param \.\w+ (\w+)")
_REGISTERS = re.compile(r"\.reg \.(\w+) (%\w+)(?:<(\d+)>)?")
_CALL = re.compile(r"call\.uni \(retval0\), vprintf, \( param0, param1 \)")
# Among them how many registers a kernel should leave to others.
_DIRECTIVE = re.compile(
    r"\.(version|target|address_size|minnctapersm) [\w.]+|\.maxntid \d+, \d+, \d+"
)
_IGNORED = re.compile(
    r'\.pragma "nounroll"|'
    r"\.extern \.func \(\.param \.b32 func_retval0\) vprintf "
    r"\( \.param \.b64 vprintf_param_0, \.param \.b64 vprintf_param_1 \)"
)


class UnknownTextError(Exception):
    """Something that the translator does not know."""


@dataclasses.dataclass(frozen=True)
class Variable:
    """Memory that the text declares."""

    space: str
    name: str
    align: int
    bytes: int
    values: tuple[int, ...]


@dataclasses.dataclass(frozen=True)
class Instruction:
    """One instruction, or a label or a brace, which have a form and no operands."""

    form: str
    operands: tuple[str, ...] = ()
    predicate: str = ""  # %p1, or !%p1
    line: int = 0

    def __str__(self) -> str:
        """Return it as the text has it."""
        guard = f"@{self.predicate} " if self.predicate else ""
        return f"{guard}{self.form} {', '.join(self.operands)}".rstrip()


@dataclasses.dataclass
class Kernel:
    """An `.entry`: parameters by name in their order, registers with their kinds, instructions."""

    name: str
    parameters: list[str]
    registers: dict[str, str] = dataclasses.field(default_factory=dict)
    local: Variable | None = None
    body: list[Instruction] = dataclasses.field(default_factory=list)


@dataclasses.dataclass
class Module:
    """One text."""

    text: str
    variables: dict[str, Variable] = dataclasses.field(default_factory=dict)
    kernels: list[Kernel] = dataclasses.field(default_factory=list)


def texts_in(library: bytes) -> list[str]:
    """Return the assembly texts that a library embeds, uncompressed."""
    found = re.findall(rb"\.version \d+\.\d+\s+\.target sm_[^\0]*", library)
    return [text.decode("ascii") for text in found]


def _statements(text: str) -> list[tuple[int, str]]:
    """Split a text into statements, labels and braces, with their lines, counted from 1."""
    found: list[tuple[int, str]] = []
    parts: list[str] = []
    begin = 0
    for number, raw in enumerate(text.splitlines(), 1):
        line = " ".join(raw.split("//")[0].split())
        if not line:
            continue
        if not parts:
            begin = number
            if _DIRECTIVE.fullmatch(line):
                continue
            if line in "{}" or re.fullmatch(r"\$\w+:", line):
                found.append((number, line))
                continue
        parts.append(line)
        joined = " ".join(parts)
        if line.endswith(";"):
            found.append((begin, joined.removesuffix(";").strip()))
            parts = []
        elif _ENTRY.fullmatch(joined):
            found.append((begin, joined))
            parts = []
    if parts:
        raise UnknownTextError(f"line {begin}: a statement without an end: {parts[0]}")
    return found


def _operands(text: str) -> tuple[str, ...]:
    """Split operands at commas, but for those within braces."""
    return tuple(part.strip() for part in re.split(r",(?![^{]*\})", text)) if text else ()


def _instruction(statement: str, line: int) -> Instruction:
    """Read an instruction."""
    if _CALL.fullmatch(statement):
        return Instruction("call.uni vprintf", line=line)
    match = re.fullmatch(r"(?:@(!?%\w+)\s+)?([a-z][\w.]*)(?: (.*))?", statement)
    if match is None:
        raise UnknownTextError(f"line {line}: not known: {statement}")
    return Instruction(match[2], _operands(match[3] or ""), match[1] or "", line)


class _Reader:
    """Gathers a module from its statements."""

    def __init__(self, text: str) -> None:
        self.module = Module(text)
        self.kernel: Kernel | None = None
        # Of each brace that is open: the names that it gives to registers of its own.
        self.scopes: list[dict[str, str]] = []
        self.own_registers = 0

    def take(self, line: int, statement: str) -> None:
        """Take one statement."""
        if _IGNORED.fullmatch(statement):
            return
        if match := _VARIABLE.fullmatch(statement.removeprefix(".weak ")):
            self._take_variable(match, line)
        elif match := _ENTRY.fullmatch(statement):
            self.kernel = Kernel(match["name"], _PARAMETER.findall(match["parameters"]))
            self.module.kernels.append(self.kernel)
        elif self.kernel is None:
            raise UnknownTextError(f"line {line}: not known outside of a kernel: {statement}")
        elif match := _REGISTERS.fullmatch(statement):
            self._take_registers(match, line)
        elif re.fullmatch(r"\.param \.b(32|64) (param[01]|retval0)", statement):
            return  # a call's, which the translation has its own for
        elif statement in "{}":
            self._take_brace(statement, line)
        elif statement.endswith(":"):
            self.kernel.body.append(Instruction(statement, line=line))
        else:
            self.kernel.body.append(_instruction(self._renamed(statement), line))

    def _take_registers(self, match: re.Match[str], line: int) -> None:
        """Take a declaration. Registers of an inner brace hide those of their name."""
        assert self.kernel is not None
        kind, name, count = match.groups()
        if kind not in KINDS:
            raise UnknownTextError(f"line {line}: registers of a kind that is not known: .{kind}")
        names = [f"{name}{i}" for i in range(int(count))] if count else [name]
        for name in names:
            own = name
            if len(self.scopes) > 1:
                self.own_registers += 1
                own = self.scopes[-1][name] = f"{name}_{self.own_registers}"
            self.kernel.registers[own] = KINDS[kind]

    def _renamed(self, statement: str) -> str:
        names = {name: own for scope in self.scopes for name, own in scope.items()}
        return re.sub(r"%\w+", lambda match: names.get(match[0], match[0]), statement)

    def _take_variable(self, match: re.Match[str], line: int) -> None:
        values = tuple(int(v) for v in (match["values"] or "").split(",") if v)
        sizes = int(match["align"]), int(match["bytes"])
        variable = Variable(match["space"], match["name"], *sizes, values)
        if variable.space != "local":
            self.module.variables[variable.name] = variable
        elif self.kernel is None or self.kernel.local is not None:
            raise UnknownTextError(f"line {line}: a second local variable: {variable.name}")
        else:
            self.kernel.local = variable

    def _take_brace(self, brace: str, line: int) -> None:
        assert self.kernel is not None
        if brace == "{":
            self.scopes.append({})
        else:
            self.scopes.pop()
        if not self.scopes:
            self.kernel = None
        elif len(self.scopes) > 1 or brace == "}":
            self.kernel.body.append(Instruction(brace, line=line))


def read(text: str) -> Module:
    """Read a text.

    Raises:
        UnknownTextError: It has something that is not known.
    """
    reader = _Reader(text)
    for line, statement in _statements(text):
        reader.take(line, statement)
    return reader.module
