# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What the runtime's file schema says of types and options, asked of the schema that it ships.

Nothing is listed for each operator: the names of options, and most operators' option tables, follow
from the names in the schema.
"""

from __future__ import annotations

import re
from typing import Any

import ml_dtypes
import numpy as np
from tensorflow.lite.python import schema_py_generated as schema

IDENTIFIER = b"TFL3"
VERSION = 3


def _members(enumeration: type) -> dict[int, str]:
    """Return an enumeration's names by their values."""
    return {v: name for name, v in vars(enumeration).items() if isinstance(v, int)}


def _dtype(name: str) -> np.dtype:
    """Return numpy's type for one of the schema; object where numpy and its extension have none."""
    name = name.lower()
    if name in ("string", "resource", "variant"):
        return np.dtype(object)
    return np.dtype(getattr(ml_dtypes, name, None) or name)


OPERATORS = _members(schema.BuiltinOperator)
TENSOR_TYPES = _members(schema.TensorType)
DTYPES = {value: _dtype(name) for value, name in TENSOR_TYPES.items()}

# Types whose elements are smaller than a byte, the first in the low bits.
BITS = {np.dtype(getattr(ml_dtypes, name)): bits
        for name, bits in (("int4", 4), ("uint4", 4), ("int2", 2))}  # fmt: skip

# The schema's Python form does not say which numbers are enumerations. These are, and with them
# every number of one signed byte (a test holds that).
_ENUMERATIONS = {
    "algorithm": schema.RngAlgorithm,
    "combiner": schema.CombinerType,
    "compositeAttributesFormat": schema.CustomOptionsFormat,
    "fusedActivationFunction": schema.ActivationFunctionType,
    "kernelType": schema.LSTMKernelType,
    "mode": schema.MirrorPadMode,
    "padding": schema.Padding,
    "type": schema.LSHProjectionType,
    "weightsFormat": schema.FullyConnectedOptionsWeightsFormat,
}
_TYPE_FIELDS = (
    "idxOutType",
    "inDataType",
    "keyDtype",
    "outDataType",
    "outType",
    "outputType",
    "quantizedBiasType",
    "valueDtype",
)
_NAMES: dict[str, dict[int, str]] = {
    **{field: _members(enumeration) for field, enumeration in _ENUMERATIONS.items()},
    **{f: {v: name.lower() for v, name in TENSOR_TYPES.items()} for f in _TYPE_FIELDS},
}

# The operators whose options are called after something else than the operator.
_SHARED = {
    "AVERAGE_POOL_2D": "Pool2D",
    "CONV_3D_TRANSPOSE": "Conv3D",
    "L2_NORMALIZATION": "L2Norm",
    "L2_POOL_2D": "Pool2D",
    "MAXIMUM": "MaximumMinimum",
    "MAX_POOL_2D": "Pool2D",
    "MEAN": "Reducer",
    "MINIMUM": "MaximumMinimum",
    "MULTINOMIAL": "Random",
    "RANDOM_STANDARD_NORMAL": "Random",
    "RANDOM_UNIFORM": "Random",
    "REDUCE_ALL": "Reducer",
    "REDUCE_ANY": "Reducer",
    "REDUCE_MAX": "Reducer",
    "REDUCE_MIN": "Reducer",
    "REDUCE_PROD": "Reducer",
    "SUM": "Reducer",
    "UNIDIRECTIONAL_SEQUENCE_RNN": "SequenceRNN",
}


class Options:
    """The option table of an operator, or of several.

    Attributes:
        name: of the table in the schema, as Conv2DOptions.
        union: the Operator's field that holds it, BuiltinOptions or BuiltinOptions2.
        number: the table's number in that union.
        fields: for each option its name here, as stride_w, and in the schema, as strideW.
        texts: the schema's fields that hold a string.
        defaults: by the names here.
    """

    def __init__(self, name: str, union: str, number: int) -> None:
        """Ask the schema for a table's fields."""
        self.name = name
        self.union = union
        self.number = number
        self.reader: type = getattr(schema, name)
        self._packer: type = getattr(schema, f"{name}T")
        stored = vars(self._packer())
        self.fields = {_snake(field): field for field in stored}
        self.texts = {f for f, v in stored.items() if v is None and not self.is_vector(f)}
        self.defaults = {
            ours: self._default(field, stored[field]) for ours, field in self.fields.items()
        }

    def accessor(self, field: str) -> str:
        """Return what the schema's reader calls one of its fields."""
        return field[0].upper() + field[1:]

    def is_vector(self, field: str) -> bool:
        """Whether one of the schema's fields holds any number of values."""
        return hasattr(self.reader, f"{self.accessor(field)}Length")

    def named(self, field: str, value: Any) -> Any:
        """Return what stands for a stored number, the name where it is an enumeration's."""
        names = _NAMES.get(field)
        if names is None or self.is_vector(field):
            return value
        if value not in names:
            raise ValueError(f"Need {_snake(field)} of {', '.join(names.values())}, got {value}")
        return names[value]

    def packed(self, options: dict[str, Any]) -> Any:
        """Return the schema's object for options by the names here."""
        unknown = sorted(set(options) - set(self.fields))
        if unknown:
            raise ValueError(f"Need options of {self.name}, got {', '.join(unknown)}")
        table = self._packer()
        for ours, value in options.items():
            setattr(table, self.fields[ours], self._stored(self.fields[ours], value))
        return table

    def _default(self, field: str, value: Any) -> Any:
        if self.is_vector(field):
            return ()
        return self.named(field, "" if value is None else value)

    def _stored(self, field: str, value: Any) -> Any:
        if self.is_vector(field):
            return list(value) or None
        if field not in _NAMES:
            return value
        numbers = {name: number for number, name in _NAMES[field].items()}
        if value not in numbers:
            raise ValueError(f"Need {_snake(field)} of {', '.join(numbers)}, got {value!r}")
        return numbers[value]


def _snake(field: str) -> str:
    return re.sub("([A-Z])", r"_\1", field).lower()


def _tables() -> dict[str, Options]:
    """Return every option table by its name without "Options", in capitals."""
    return {
        name.removesuffix("Options").upper(): Options(name, union, number)
        for union in ("BuiltinOptions", "BuiltinOptions2")
        for number, name in _members(getattr(schema, union)).items()
        if name != "NONE"
    }


def _options() -> dict[str, Options]:
    tables = _tables()
    keys = {kind: _SHARED.get(kind, kind).replace("_", "").upper() for kind in OPERATORS.values()}
    return {kind: tables[key] for kind, key in keys.items() if key in tables}


# By the operator's name; what is not here has no options.
OPTIONS = _options()
