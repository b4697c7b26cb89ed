# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Large calls, shared out over the runtime's pool: bits, and lines in order, of one thread."""

from __future__ import annotations

import pathlib
import re

import forks
import numpy as np
import pytest
import shared_calls
import support

_RUN = "import sys; sys.path.insert(0, sys.argv.pop(1)); import shared_calls; shared_calls.main()"


@pytest.fixture(scope="module")
def results(tmp_path_factory):
    """The outputs and the lines of all cases by the number of threads."""
    folder = str(pathlib.Path(__file__).parent)
    found = {}
    for threads in (1, 4):
        file = tmp_path_factory.mktemp("outputs") / "outputs.npz"
        text = support.passes(forks.run(_RUN, folder, str(threads), str(file)))
        lines = dict(re.findall(r"^# (.*)\n((?:[^#].*\n)*)", text, re.MULTILINE))
        with np.load(file) as outputs:
            found[threads] = {name: (outputs[name], lines[name]) for name in outputs}
    return found


@pytest.mark.parametrize("name", shared_calls.CASES)
def test_bits_and_lines(name, results, assert_bits):
    """Several threads give what one gives, and say it in the same order."""
    expected, expected_lines = results[1][name]
    actual, actual_lines = results[4][name]
    assert_bits(actual, expected)
    assert actual_lines == expected_lines
    assert bool(expected_lines) == name.endswith("lines")
