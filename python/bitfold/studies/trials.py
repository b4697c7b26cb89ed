# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Networks with a width and a shift for each layer, measured against full width, and counted."""

from __future__ import annotations

import math
from collections.abc import Callable, Sequence

from bitfold.network import Arithmetic, Network
from bitfold.studies.records import LayerBits

# From a network to its metric.
Evaluate = Callable[[Network], float]
# A width and a shift for each layer.
State = tuple[tuple[int, int], ...]

# How much more than the bound a sample has to lose to reject: it is smaller than the whole.
_MARGIN = 3.0
# Of a loss, for what subtractions of metrics round.
_SLACK = 1e-9


class Trials:
    """The evaluations of a search.

    Attributes:
        reference: the metric at full width.
        kept: of the states that were accepted what saves most; None before.
        metric: of `kept`, on all data.
        last: the last metric that was measured.
        count: how many evaluations there were, those of samples among them.
    """

    def __init__(
        self,
        network: Network,
        layers: Sequence[LayerBits],
        evaluate: Evaluate,
        *,
        metric_loss: float,
        larger_is_better: bool,
        sample: Evaluate | None,
        most: int,
        progress: Callable[[str], None] | None,
    ) -> None:
        """Measure full width; see `bitfold.studies.search.narrowest` for the arguments."""
        self._layers = layers
        self._sign = 1 if larger_is_better else -1
        self._bound = metric_loss
        self._most = most
        self._progress = progress or (lambda line: None)
        self._evaluate, self._sample = evaluate, sample
        self._seen: dict[State, bool] = {}
        # What was made last, so that the next makes only what differs.
        self._network, self._state = network, None
        self.kept: State | None = None
        self.metric = math.nan
        self.count = 0
        self.reference = self._measured(evaluate, network)
        if not math.isfinite(self.reference):
            raise ValueError(f"Need a finite metric at full width, got {self.reference}")
        self._progress(f"evaluation {self.count}: {self.reference:.6g} at full width")
        self._sampled = self._measured(sample, network) if sample is not None else math.nan

    @property
    def is_over(self) -> bool:
        """Whether there were as many evaluations as may be."""
        return self.count >= self._most

    def accepts(self, state: State) -> bool:
        """Return whether the metric of a state stays within the bound."""
        if state not in self._seen:
            self._seen[state] = self._passes(state)
        return self._seen[state]

    def _passes(self, state: State) -> bool:
        network = self._made(state)
        if self._sample is not None:
            metric = self._measured(self._sample, network)
            if not self._is_within(self._sampled - metric, _MARGIN * self._bound):
                self._tell(state, metric, "too much lost on the sample")
                return False
        metric = self._measured(self._evaluate, network)
        if not self._is_within(self.reference - metric, self._bound):
            self._tell(state, metric, "too much lost")
            return False
        self._tell(state, metric, "within the bound")
        if self.kept is None or self._bits(state) < self._bits(self.kept):
            self.kept, self.metric = state, metric
        return True

    def _is_within(self, loss: float, bound: float) -> bool:
        """Return whether a loss is within a bound; one that is no number is not."""
        return self._sign * loss <= bound + _SLACK * max(abs(self.reference), bound)

    def _measured(self, evaluate: Evaluate, network: Network) -> float:
        self.count += 1
        self.last = float(evaluate(network))
        return self.last

    def _made(self, state: State) -> Network:
        """Return the network of a state."""
        before = self._state or (None,) * len(state)
        changed = {
            layer.name: Arithmetic(accumulator_size=new[0], mult_shift=new[1])
            for layer, old, new in zip(self._layers, before, state, strict=True)
            if new != old
        }
        self._network, self._state = self._network.with_arithmetic(changed), state
        return self._network

    def _bits(self, state: State) -> float:
        """Return the bits that products are added up in, on average."""
        products = [max(layer.multiply_adds, 1) for layer in self._layers]
        bits = sum(n * width for n, (width, _) in zip(products, state, strict=True))
        return bits / sum(products)

    def _tell(self, state: State, metric: float, outcome: str) -> None:
        bits = self._bits(state)
        self._progress(f"evaluation {self.count}: {metric:.6g} at {bits:.2f} bits, {outcome}")
