# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Tables of a flat file, read so that no damage does harm.

The accessors that a schema ships follow whatever offsets they find. Here each is checked against
the file's size before it is followed. As tables and vectors may share their bytes, a file of n
bytes can name more than n of them: what is visited is counted, and may not exceed a few times n,
which no writer's file does.
"""

from __future__ import annotations

from typing import Any

import numpy as np
from flatbuffers import number_types, table

# What a file may hold in all, counted below: this many times its size, and an allowance for small
# files.
_TIMES = 4
_ALLOWANCE = 1 << 16
# The least that a table counts for, with its entry in a vector. The tables of a model file that are
# smaller, empty buffers, come with larger ones.
_TABLE = 28


class Budget:
    """Counts what has been visited of a file, in bytes as if nothing were shared."""

    def __init__(self, size: int) -> None:
        """Start for a file of `size` bytes."""
        self._size = size
        self._left = _TIMES * size + _ALLOWANCE

    def charge(self, count: int) -> None:
        """Count bytes that are about to be visited.

        Raises:
            ValueError: there are more than the file justifies.
        """
        self._left -= count
        if self._left < 0:
            raise ValueError(
                f"Need tables and vectors that a file of {self._size} bytes has room for, got more"
            )


class _Table(table.Table):
    """The runtime's table, with every offset checked before it is followed."""

    __slots__ = ()

    def Get(self, flags: Any, off: int) -> Any:  # noqa: N802  (the accessors call it so)
        if not 0 <= off <= len(self.Bytes) - flags.bytewidth:
            raise ValueError(f"Need offsets within {len(self.Bytes)} bytes, got {off}")
        return flags.py_type(flags.packer_type.unpack_from(self.Bytes, off)[0])

    def Offset(self, vtableOffset: int) -> int:  # noqa: N802, N803
        start = self.Pos - self.Get(number_types.SOffsetTFlags, self.Pos)
        if vtableOffset + 2 > self.Get(number_types.VOffsetTFlags, start):
            return 0
        offset = self.Get(number_types.VOffsetTFlags, start + vtableOffset)
        size = self.Get(number_types.VOffsetTFlags, start + 2)
        if offset >= max(size, 1):
            raise ValueError(f"Need fields within a table's {size} bytes, got one at {offset}")
        return offset

    def Indirect(self, off: int) -> int:  # noqa: N802
        target = off + self.Get(number_types.UOffsetTFlags, off)
        if target > len(self.Bytes) - 4:
            raise ValueError(f"Need offsets within {len(self.Bytes)} bytes, got {target}")
        return target

    def String(self, off: int) -> bytes:  # noqa: N802
        start = self.Indirect(off)
        length = self._length(start, 1)
        return bytes(self.Bytes[start + 4 : start + 4 + length])

    def VectorLen(self, off: int) -> int:  # noqa: N802
        return self._length(self.Indirect(self.Pos + off), 1)

    def Vector(self, off: int) -> int:  # noqa: N802
        return self.Indirect(self.Pos + off) + 4

    def Union(self, t2: table.Table, off: int) -> None:  # noqa: N802
        t2.Pos = self.Indirect(self.Pos + off)
        t2.Bytes = self.Bytes

    def GetVectorAsNumpy(self, flags: Any, off: int) -> np.ndarray:  # noqa: N802
        start = self.Indirect(self.Pos + off)
        dtype = number_types.to_numpy_type(flags)
        length = self._length(start, dtype.itemsize)
        return np.frombuffer(self.Bytes, dtype, length, start + 4)

    def inline_size(self) -> int:
        start = self.Pos - self.Get(number_types.SOffsetTFlags, self.Pos)
        return self.Get(number_types.VOffsetTFlags, start + 2)

    def _length(self, start: int, itemsize: int) -> int:
        """Return the length of a vector, whose elements lie within the file."""
        length = self.Get(number_types.UOffsetTFlags, start)
        if length * itemsize > len(self.Bytes) - start - 4:
            raise ValueError(
                f"Need vectors within {len(self.Bytes)} bytes, got {length} elements of {itemsize} "
                f"bytes at {start + 4}"
            )
        return length


class View:
    """A table of a flat file, by the field names of the schema's accessors.

    Everything that a method returns has been checked to lie within the file, and counted.
    """

    def __init__(self, accessors: Any, budget: Budget) -> None:
        """Take an object of the schema's, as its own accessors return it."""
        unchecked = accessors._tab
        self._table = _Table(unchecked.Bytes, unchecked.Pos)
        self._accessors = accessors
        self._budget = budget
        accessors._tab = self._table
        budget.charge(max(_TABLE, self._table.inline_size()))

    @classmethod
    def root(cls, schema_class: type, source: bytes) -> View:
        """Return a file's first table."""
        start = _Table(source, 0).Indirect(0)
        accessors = schema_class()
        accessors.Init(source, start)
        return cls(accessors, Budget(len(source)))

    def number(self, field: str) -> Any:
        """Return a single number or truth value."""
        return getattr(self._accessors, field)()

    def has(self, field: str) -> bool:
        """Whether a vector is there."""
        return not getattr(self._accessors, f"{field}IsNone")()

    def numbers(self, field: str) -> list[Any]:
        """Return a vector of numbers; one that is not there is empty."""
        values = self.array(field)
        self._budget.charge(values.nbytes)
        return values.tolist()

    def array(self, field: str) -> np.ndarray:
        """Return a vector of numbers as a view of the file, which costs nothing."""
        values = getattr(self._accessors, f"{field}AsNumpy")()
        return values if isinstance(values, np.ndarray) else np.empty(0, np.uint8)

    def text(self, field: str) -> str:
        """Return a string; one that is not there is empty."""
        value = getattr(self._accessors, field)() or b""
        self._budget.charge(len(value))
        return value.decode("utf-8", "replace")

    def table(self, field: str) -> View | None:
        """Return a table; None where it is not there."""
        found = getattr(self._accessors, field)()
        return None if found is None else View(found, self._budget)

    def tables(self, field: str) -> list[View]:
        """Return a vector of tables; one that is not there is empty."""
        count = getattr(self._accessors, f"{field}Length")()
        return [View(getattr(self._accessors, field)(i), self._budget) for i in range(count)]

    def union(self, field: str, schema_class: type) -> View | None:
        """Return a table whose class stands elsewhere; None where it is not there."""
        found = getattr(self._accessors, field)()
        if found is None:
            return None
        accessors = schema_class()
        accessors.Init(found.Bytes, found.Pos)
        return View(accessors, self._budget)

    def charge(self, count: int) -> None:
        """Count bytes that the caller is about to visit."""
        self._budget.charge(count)
