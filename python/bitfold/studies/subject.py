# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The network and the data of a study: what a search measures and proves anew."""

from __future__ import annotations

import dataclasses
from collections.abc import Callable
from concurrent.futures import Executor
from typing import Any

import numpy as np

from bitfold.network import Network, evaluation
from bitfold.network.shards.source import Source
from bitfold.studies.bounds import Bounds, layer_bounds
from bitfold.studies.watching import summing_steps


@dataclasses.dataclass(frozen=True)
class Subject:
    """What a study was of; a search goes on with it."""

    network: Network
    x: Any
    y: Any
    metric: Any
    batch_size: int | None
    executor: Executor | None

    def evaluate(self, network: Network) -> float:
        """Return the metric of a network over all data."""
        return network.evaluate(
            self.x,
            self.y,
            metric=self.metric,
            batch_size=self.batch_size,
            executor=self.executor,
        )

    def evaluation_of(self, images: int) -> Callable[[Network], float]:
        """Return the same over the first images.

        Raises:
            ValueError: for a number below 1, and of a dataset.
        """
        if images < 1 or evaluation.count_images(self.x) is None:
            raise ValueError(f"Need images >= 1 of arrays or files for a sample, got {images}")
        if isinstance(self.x, Source):
            x, y = self.x.part(0, min(images, self.x.images)).read()
            return dataclasses.replace(self, x=x, y=y).evaluate
        x = next(evaluation.batches(self.x, images))
        return dataclasses.replace(self, x=x, y=self.y[:images]).evaluate

    def bounds(self, name: str, shift: int) -> Bounds:
        """Return what is proven of a layer."""
        steps = summing_steps(self.network)
        layer = next(layer for layer in self.network.layers if layer.name == name)
        step = steps[layer.position]
        limits = np.iinfo(step.data.dtype)
        return layer_bounds(step, int(limits.min), int(limits.max), shift)
