# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Of which images partial sums are looked at.

What final sums tell costs next to nothing beside the sums themselves: which are wrong, and which
bits they need. What happens on the way costs many times as much, so it is found of a sample. An
image belongs to it by its place in the data alone, so that neither batches nor the order in which
shards are computed make a difference, and data whose length is not known beforehand have the same
sample as an array of them.
"""

from __future__ import annotations

import dataclasses
from typing import Any

import numpy as np

# By default partial sums of so many images cost less than a tenth of an evaluation of all
# (docs/performance.md), and of few data all are looked at.
_FIRST = 16
_EVERY = 256


@dataclasses.dataclass(frozen=True)
class Sample:
    """The images whose partial sums are looked at.

    Attributes:
        every: one image in so many, from the first one on.
        first: so many from the first one on, too.
    """

    every: int = _EVERY
    first: int = _FIRST

    def places(self, first: int, count: int) -> np.ndarray:
        """Return which of `count` images that begin with image `first` belong to it.

        Example:
            >>> Sample(every=4, first=3).places(1, 10)
            array([0, 1, 3, 7])
        """
        images = np.arange(first, first + count)
        return np.flatnonzero((images < self.first) | (images % self.every == 0))

    def __str__(self) -> str:
        """Return what it is in words."""
        if self.every == 1:
            return "all images"
        return f"the first {self.first} images and every {self.every}th"


def sample_of(partial_sums: Any) -> Sample:
    """Return what `bitfold.study` was asked for.

    Raises:
        ValueError: for anything but "sample", "all" and whole numbers from 1 on.
    """
    if partial_sums == "sample":
        return Sample()
    if partial_sums == "all":
        return Sample(1, 0)
    if isinstance(partial_sums, int) and not isinstance(partial_sums, bool) and partial_sums >= 1:
        return Sample(partial_sums, 0)
    raise ValueError(
        f'Need partial_sums of "sample", "all" or a whole number >= 1, got {partial_sums!r}'
    )
