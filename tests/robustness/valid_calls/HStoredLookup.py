# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Valid calls of HStoredLookup."""

from __future__ import annotations

from drawing import Call, Draw, Input


def _lookup(draw: Draw) -> Call:
    # The tables of int16 are larger than the inputs of a random call.
    dtype = draw.choice(("int8", "uint8"))
    output = draw.choice(("int8", "uint8", "int16"))
    data = draw.tensor(dtype, draw.dims(draw.randint(0, 5)))
    table = Input(output, (256,), tuple(draw.randint(0, 127) for _ in range(draw.randint(1, 9))))
    return Call("HStoredLookup", (data, table), {"T": dtype, "T_out": output})


CALLS = {"HStoredLookup": _lookup}
