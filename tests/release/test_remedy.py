# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Beside another version of the runtime: what the error says to type works when it is typed."""

from __future__ import annotations

import os
import re

import pytest
from environments import Environment

import runtime_extras

OTHER = os.environ.get("BITFOLD_OTHER_TENSORFLOW", "2.20.0")
_ADD = "import bitfold; print(bitfold.ops.add([[100]], [[50]], accumulator_size=8).numpy())"
_REQUIRED = "import importlib.metadata as m; print(*m.requires('bitfold'), sep='\\n')"


@pytest.fixture(scope="module")
def beside(wheel):
    """An environment with the other version, into which the wheel was put all the same."""
    environment = Environment("beside")
    environment.install(f"tensorflow-cpu=={OTHER}", "numpy", "rich")
    environment.install("--no-deps", wheel)
    yield environment
    environment.remove()


def _refusal(environment: Environment) -> str:
    last = environment.fails("-c", _ADD)
    assert last.startswith("ImportError: bitfold ")
    assert f"but TensorFlow {OTHER} is running" in last
    return last


def test_rebuilding(beside, sources):
    """The line as it stands, with the folder in its place; the package then says what it is for."""
    last = _refusal(beside)
    (line,) = re.findall(r"compiler: (pip install .*)\.$", last)
    beside.typed(line.replace("<folder of bitfold's sources>", str(sources)))
    assert beside.run("-c", _ADD).strip() == "[[-106]]"
    series = OTHER.rpartition(".")[0]
    assert f'tensorflow-cpu=={series}.*; extra == "cpu"' in beside.run("-c", _REQUIRED)


def test_installing_the_runtime(beside, wheel):
    """The other remedy, of the wheel again."""
    beside.install("--no-deps", "--force-reinstall", wheel)
    last = _refusal(beside)
    (line,) = re.findall(r"built for: (pip install \S+) ", last)
    assert line == f"pip install tensorflow-cpu=={runtime_extras.runtime_version()}"
    beside.typed(line)
    assert beside.run("-c", _ADD).strip() == "[[-106]]"
