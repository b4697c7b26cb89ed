# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""SOFTMAX: steep and flat rows, every distance, 16 bits out of 8, rows beyond the kernel's end."""

from __future__ import annotations

import numpy as np
import pytest
from packed import compare, operator, tensor
from refusing import assert_refused

import bitfold

OUTPUTS = {"int8": (2.0**-8, -128), "int16": (2.0**-15, 0)}


def _case(shape, dtype, scale, beta, out=None):
    out = dtype if out is None else out
    outputs = [tensor(shape, out, *OUTPUTS[out])]
    return operator("SOFTMAX", [tensor(shape, dtype, scale)], outputs, {"beta": beta})


def _rows(dtype, rows, width, seed=0):
    """Return rows over the whole range, near zero, and nearly flat."""
    rng, most = np.random.default_rng(seed), np.iinfo(dtype).max
    spread = rng.choice([1, 0.05, 2 / most], (rows, 1)) * most
    values = np.rint(rng.uniform(-1, 1, (rows, width)) * spread)
    return values.clip(-most - 1, most).astype(dtype)


@pytest.mark.parametrize(("dtype", "out"), [("int8", "int8"), ("int8", "int16"),
                                            ("int16", "int16")])  # fmt: skip
@pytest.mark.parametrize("beta", [1.0, 0.3, 50.0])
def test_rows_of_every_kind(dtype, out, beta):
    """Scales over twelve powers of two."""
    for turn, width in enumerate((2, 3, 10, 64, 255, 400)):
        scale = (0.1, 2.0**-4, 3e-5, 1.7, 2.0**-9, 0.01)[turn] / (1 if dtype == "int8" else 256)
        compare(_case([1, width], dtype, scale, beta, out), [_rows(dtype, 64, width, turn)])


@pytest.mark.parametrize("dtype", ["int8", "int16"])
def test_every_distance(dtype):
    """Of a pair, and one by one the rows of an image of any rank."""
    most = np.iinfo(dtype).max
    below = np.arange(-most - 1, most + 1, 1 if dtype == "int8" else 37)
    pairs = np.stack([np.full_like(below, most), below], 1).astype(dtype)
    for scale in (0.02, 2.0**-5, 0.11):
        scale = scale if dtype == "int8" else scale / 256
        compare(_case([1, 2], dtype, scale, 1.0), [pairs])
    compare(_case([2, 3, 1, 5], dtype, 0.02, 1.0))
    compare(_case([7], dtype, 0.02, 1.0))


@pytest.mark.parametrize("width", [511, 512, 1000, 4095])
def test_flat_rows(width):
    """From 512 equal inputs on the runtime's kernel ends the process; the rule goes on."""
    content = _case([1, width], "int8", 0.1, 1.0).content
    results = bitfold.Network.from_tflite(content)(np.zeros([1, width], np.int8)).numpy()
    assert (results == -128 + round(256 / width)).all()


def test_refusals():
    """What the runtime refuses, ends the process for, or has no bits for."""

    def refused(text, dtype, scale, beta, shape=(1, 9), out=None):
        outputs = [tensor(shape, dtype, *(OUTPUTS[dtype] if out is None else out))]
        assert_refused(text, "SOFTMAX", [tensor(shape, dtype, scale)], outputs, {"beta": beta})

    refused("need beta above 0, got 0.0", "int8", 0.1, 0.0)
    refused("need beta above 0, got nan", "int16", 0.1, float("nan"))
    refused("need beta * scale above 2^-26", "int8", 2.0**-27, 1.0)
    refused("below 2^31", "int16", 3e38, 1.0)
    refused("need 1 to 4095 elements in the last dimension", "int8", 0.1, 1.0, (1, 4096))
    refused("need 1 to 65535 elements in the last dimension", "int16", 0.1, 1.0, (1, 65536))
    refused("need the output's scale 0.00390625 and zero point -128", "int8", 0.1, 1.0,
            out=(2.0**-8, 0))  # fmt: skip
    refused("need the output's scale 0.00390625 and zero point -128", "int8", 0.1, 1.0,
            out=(0.1, -128))  # fmt: skip
