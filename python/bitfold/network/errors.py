# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What is raised where a model cannot be imported, or work not be done."""

from __future__ import annotations

from collections.abc import Sequence


class UnsupportedModelError(ValueError):
    """A model file is sound, but holds what Bitfold does not compute. Lists every reason at once.

    Attributes:
        reasons: one sentence each: the operator, its position, its tensors, what is missing.
    """

    def __init__(self, reasons: Sequence[str]) -> None:
        """Take all reasons, at least one."""
        self.reasons = tuple(reasons)
        count = f"{len(self.reasons)} reasons" if len(self.reasons) > 1 else "one reason"
        lines = "".join(f"\n  - {reason}" for reason in self.reasons)
        super().__init__(f"the model cannot be imported, for {count}:{lines}")


class WorkerError(RuntimeError):
    """Workers of an executor did not compute what they were asked to: which work, who, and why."""
