# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What is to be computed, shard by shard, and what becomes of it."""

from __future__ import annotations

import dataclasses
from collections.abc import Callable, Hashable
from typing import Any, Protocol

from bitfold.network.shards.data import Shard, ShardReference

# From a shard, and who takes how many images more are done, to what was found.
Run = Callable[[Shard, Callable[[int], None]], Any]


class Work(Protocol):
    """What every worker is told once; it is pickled."""

    def runner(self, key: Any) -> Run:
        """Return what computes shards for a key. It is called by one thread."""

    def called(self, key: Any) -> str:
        """Return what people call the work for a key."""


@dataclasses.dataclass(frozen=True)
class Task:
    """A shard for a key.

    Attributes:
        key: what the work knows how to compute.
        shard: whole, or where it is.
    """

    key: Hashable
    shard: Shard | ShardReference


@dataclasses.dataclass(frozen=True)
class Failure:
    """What kept a worker from computing a shard.

    Attributes:
        worker: its name.
        text: its own message.
        is_final: whether trying again helps nobody.
    """

    worker: str
    text: str
    is_final: bool = False
