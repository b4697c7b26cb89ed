# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The arithmetic of a layer: what it takes and refuses."""

from __future__ import annotations

import dataclasses

import numpy as np
import pytest

import bitfold


def test_without_arguments_it_is_exact():
    """Without arguments it is exact."""
    arithmetic = bitfold.Arithmetic()
    assert arithmetic.is_exact
    assert repr(arithmetic) == "Arithmetic()"


def test_it_shows_what_differs():
    """It shows what differs."""
    arithmetic = bitfold.Arithmetic(accumulator_size=18, requantisation="unit")
    assert repr(arithmetic) == "Arithmetic(accumulator_size=18, requantisation='unit')"
    assert not arithmetic.is_exact


def test_it_is_a_value():
    """It is a value."""
    one, other = bitfold.Arithmetic(np.int64(18)), bitfold.Arithmetic(accumulator_size=18)
    assert one == other
    assert hash(one) == hash(other)
    assert type(one.accumulator_size) is int
    with pytest.raises(dataclasses.FrozenInstanceError):
        one.mult_shift = 2


@pytest.mark.parametrize(
    ("fields", "text"),
    [
        ({"accumulator_size": 33}, "Need 0 <= accumulator_size <= 32, got 33"),
        ({"accumulator_size": -1}, "Need 0 <= accumulator_size <= 32, got -1"),
        ({"mult_shift": 32}, "Need 0 <= mult_shift <= 31, got 32"),
        ({"mult_shift": 7, "use_fp16_acc": True}, "Need 0 <= mult_shift <= 6, got 7"),
        ({"requantisation": "chip"}, 'Need requantisation "model" or "unit", got \'chip\''),
        ({"layer_norm": None}, 'Need layer_norm "model" or "unit", got None'),
    ],
)
def test_numbers_and_names_outside_are_refused(fields, text):
    """Numbers and names outside are refused."""
    with pytest.raises(ValueError, match=f"^{text}$"):
        bitfold.Arithmetic(**fields)


@pytest.mark.parametrize(
    ("fields", "text"),
    [
        ({"accumulator_size": 16.0}, "Need accumulator_size to be an integer, got 16.0"),
        ({"mult_shift": True}, "Need mult_shift to be an integer, got True"),
        ({"use_fp16_acc": 1}, "Need use_fp16_acc to be a bool, got 1"),
    ],
)
def test_other_types_are_refused(fields, text):
    """Other types are refused."""
    with pytest.raises(TypeError, match=f"^{text}$"):
        bitfold.Arithmetic(**fields)
