# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""How many tensors of networks were compared, as a line at the end and in the report."""

import pytest

pytest.register_assert_rewrite("comparing", "witness")

import comparing  # noqa: E402  (after the line above)


@pytest.fixture(scope="session", autouse=True)
def _recorded(record_testsuite_property):
    yield
    record_testsuite_property("networks_against_interpreter", str(comparing.TOTAL))


def pytest_terminal_summary(terminalreporter):
    """Print the tally where something was compared."""
    if comparing.TOTAL.networks:
        terminalreporter.write_line(f"Networks against the interpreter: {comparing.TOTAL}")
