# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Fixtures: the oracle, captured file descriptors, comparison on bits.

All are of session scope, so that property tests may use them.
"""

import os
import random

# Before TensorFlow is imported: no chatter below error severity, but the errors, which are tested.
if os.environ.setdefault("TF_CPP_MIN_LOG_LEVEL", "2") not in ("0", "1", "2"):
    os.environ["TF_CPP_MIN_LOG_LEVEL"] = "2"

import hypothesis
import pytest

pytest.register_assert_rewrite("checks", "decoders", "support", "units")

import oracle  # noqa: E402  (after the line above)
import support  # noqa: E402

hypothesis.settings.register_profile(
    "bitfold",
    max_examples=60,
    deadline=None,
    derandomize=True,
    database=None,
)
hypothesis.settings.load_profile("bitfold")


@pytest.hookimpl(tryfirst=True)
def pytest_runtest_setup(item: pytest.Item) -> None:
    """Seed what Keras draws the seeds of new weights from: a test has the same ones each time."""
    random.seed(item.nodeid)


@pytest.fixture(scope="session")
def reference() -> oracle.Reference:
    """The oracle; see `oracle.Reference`."""
    return oracle.Reference()


@pytest.fixture(scope="session")
def printed():
    """A context manager that captures what is written to both; see `support.printed`."""
    return support.printed


@pytest.fixture(scope="session")
def assert_bits():
    """Compares arrays on bits; see `support.assert_bits`."""
    return support.assert_bits


@pytest.fixture(scope="session")
def assert_lines():
    """Compares printed text; see `support.assert_lines`."""
    return support.assert_lines
