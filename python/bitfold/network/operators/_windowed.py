# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What the layers share whose stored filter, [_, height, width, _], moves over the image."""

from __future__ import annotations

from bitfold.network.operators._prepared import Placement
from bitfold.network.operators._products import Products, met_by_windows
from bitfold.network.operators._weighted import WeightedStep
from bitfold.network.operators._windows import Windows


class WindowedStep(WeightedStep):
    """A convolution of images [N, H, W, C]."""

    @property
    def windows(self) -> Windows:
        """Where the filter meets the image."""
        return Windows.of(self.node, *self.node.inputs[1].shape[1:3])

    @property
    def placement(self) -> Placement | None:
        """Where the windows lie in the stored image."""
        windows = self.windows
        zeros = (
            (*windows.rows.padding, *windows.columns.padding) if windows.needs_zeros else (0,) * 4
        )
        return Placement(windows.strides, windows.dilations, windows.placed_by, zeros)

    @property
    def products(self) -> Products:
        """What the sums are sums of."""
        windows = self.windows
        return Products.of_stored(
            self.weights(),
            is_wide=self.is_wide,
            rows=met_by_windows(windows.rows),
            columns=met_by_windows(windows.columns),
        )

    @property
    def multiply_adds(self) -> int:
        """Products for one image."""
        images = self.node.inputs[0].shape[0]
        return images * self.windows.outputs * self.filter.size
