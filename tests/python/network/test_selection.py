# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Which layers the keys of a setting mean."""

from __future__ import annotations

import re

import pytest

from bitfold.network.selection import by_layer

NAMES, OPERATORS = ["a1", "a2", "CONV_2D"], ["CONV_2D", "ADD", "CONV_2D"]


@pytest.mark.parametrize(
    ("given", "expected"),
    [
        (8, [8, 8, 8]),
        ({}, [None, None, None]),
        ({"a1": 8}, [8, None, None]),
        ({"a*": 8}, [8, 8, None]),
        ({"ADD": 8}, [None, 8, None]),
        # A layer's name, not the operator.
        ({"CONV_2D": 8}, [None, None, 8]),
        # A name before a pattern before an operator, wherever they stand.
        ({"a1": 1, "a*": 2, "ADD": 3, "*": 4}, [1, 4, 4]),
        # Of equals the last.
        ({"*": 4, "a*": 2}, [2, 2, 4]),
    ],
)
def test_a_setting_of_each_layer(given, expected):
    """A key means a name before a pattern before an operator."""
    assert by_layer(given, int, "a number", NAMES, OPERATORS) == expected


@pytest.mark.parametrize(
    ("given", "error", "message"),
    [
        ("8", TypeError, "Need a number or a dictionary of them, got '8'"),
        ({"a1": "8"}, TypeError, "Need a number for 'a1', got '8'"),
        (
            {"b1": 8},
            ValueError,
            f"Need a layer, pattern or operator of {NAMES}, got 'b1'",
        ),
    ],
)
def test_refusals(given, error, message):
    """Settings of another type and keys that mean no layer are refused."""
    with pytest.raises(error, match=re.escape(message)):
        by_layer(given, int, "a number", NAMES, OPERATORS)
