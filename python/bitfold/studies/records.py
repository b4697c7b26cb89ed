# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What a study finds: numbers by layer, by channel and by arithmetic, all of them plain values."""

from __future__ import annotations

import dataclasses
from collections.abc import Mapping

from bitfold.network import Arithmetic


@dataclasses.dataclass(frozen=True)
class ChannelBits:
    """The sums of one output channel at full width.

    Bits are those of a signed number: 127 and -128 need 8.

    Attributes:
        channel: its index.
        needed: bits that hold every final sum that was seen.
        on_the_way: bits that hold every partial sum that was looked at, too.
        proven: bits with which no input of the stored type can give a wrong sum.
        proven_for_range: the same for inputs within the layer's `LayerBits.data_range`.
        smallest_sum: of the final sums seen; 0 where none was.
        largest_sum: the same.
        bias: the stored one; None without.
        remarks: what makes the channel stand out, a sentence each without full stop.
    """

    channel: int
    needed: int
    on_the_way: int
    proven: int
    proven_for_range: int
    smallest_sum: int
    largest_sum: int
    bias: int | None = None
    remarks: tuple[str, ...] = ()


@dataclasses.dataclass(frozen=True)
class LayerBits:
    """The sums of a layer at full width: of each number of bits the largest of its channels.

    Attributes:
        position: of the operator in the file.
        name: of the layer.
        operator: its name in the file's schema, as CONV_2D.
        multiply_adds: products for one image.
        channels: how many outputs have sums of their own.
        sums: how many final sums were seen.
        needed: as in `ChannelBits`.
        on_the_way: as in `ChannelBits`.
        proven: as in `ChannelBits`.
        proven_for_range: as in `ChannelBits`.
        harmless_from: the least width at which no wrap on the way can matter, because no addend is
            larger than the range: from there on `needed` alone counts.
        data_range: the smallest and largest stored input that was seen.
        remarks: what stands out, a sentence each without full stop.
        looked_at: of how many of the sums partial sums were looked at; None: of all.
    """

    position: int
    name: str
    operator: str
    multiply_adds: int
    channels: int
    sums: int
    needed: int
    on_the_way: int
    proven: int
    proven_for_range: int
    harmless_from: int
    data_range: tuple[int, int]
    remarks: tuple[str, ...] = ()
    looked_at: int | None = None

    @property
    def looked(self) -> int:
        """Of how many sums partial sums were looked at, as a number."""
        return self.sums if self.looked_at is None else self.looked_at


@dataclasses.dataclass(frozen=True)
class Counts:
    """What became of sums in an arithmetic. Counts of parts of the data add up.

    Attributes:
        sums: how many there were.
        wrong: that differ from those of full width for the same inputs, shifted alike.
        right_again: of those looked at, of which a partial sum left the accumulator and that came
            out right.
        partial_sums_outside: partial sums of full width that the accumulator does not hold, of the
            sums looked at.
        first_step: after how many addends the first of them was seen; 0 where there was none.
        looked_at: of how many of the sums partial sums were looked at; None: of all.
    """

    sums: int = 0
    wrong: int = 0
    right_again: int = 0
    partial_sums_outside: int = 0
    first_step: int = 0
    looked_at: int | None = None

    @property
    def looked(self) -> int:
        """Of how many sums partial sums were looked at, as a number."""
        return self.sums if self.looked_at is None else self.looked_at

    def of_sample(self) -> Counts:
        """Return what these counts are to others that have the same sums among theirs."""
        return dataclasses.replace(self, sums=0, wrong=0, looked_at=self.looked)

    def __add__(self, other: Counts) -> Counts:
        """Return the counts of both."""
        steps = [step for step in (self.first_step, other.first_step) if step]
        sums, looked = self.sums + other.sums, self.looked + other.looked
        return Counts(
            sums,
            self.wrong + other.wrong,
            self.right_again + other.right_again,
            self.partial_sums_outside + other.partial_sums_outside,
            min(steps, default=0),
            None if looked == sums else looked,
        )

    @property
    def wrong_share(self) -> float:
        """The share of wrong sums; 0 of none."""
        return self.wrong / self.sums if self.sums else 0.0

    @property
    def right_again_share(self) -> float:
        """Of the sums looked at, the share that left the range and came right; 0 of none."""
        return self.right_again / self.looked if self.looked else 0.0


@dataclasses.dataclass(frozen=True)
class LayerCounts:
    """A layer in an arithmetic.

    Attributes:
        position: of the operator in the file.
        name: of the layer.
        arithmetic: what the layer computed in.
        alone: with the inputs of the full-width run: what this layer does alone.
        end_to_end: with the inputs that the layers before it gave in their arithmetic.
        corrected_weights: stored weights that the unit reads with another sign.
        out_of_bounds: lines that float sums outside of 24 bits would have printed, end to end.
    """

    position: int
    name: str
    arithmetic: Arithmetic
    alone: Counts
    end_to_end: Counts
    corrected_weights: int = 0
    out_of_bounds: int = 0


@dataclasses.dataclass(frozen=True)
class Result:
    """A network in an arithmetic.

    Attributes:
        name: what tables call it, as "16 bits, shift 2".
        arithmetic: for all layers, or by layer.
        metric: end to end; None without labels.
        layers: those with an accumulator, in the file's order.
    """

    name: str
    arithmetic: Arithmetic | Mapping[str, Arithmetic]
    metric: float | None
    layers: tuple[LayerCounts, ...]


@dataclasses.dataclass(frozen=True)
class Cause:
    """A step from the float model towards an arithmetic, with all steps before it.

    Attributes:
        name: "quantisation", "shift", "accumulator" or "unit requantisation".
        metric: of the network so far; None without labels.
        signal_to_error: by the name of a layer with an accumulator, decibels: the power of the
            float model's output over that of the difference to it. Infinite where they are equal.
    """

    name: str
    metric: float | None
    signal_to_error: Mapping[str, float]


@dataclasses.dataclass(frozen=True)
class Attribution:
    """What each cause adds on the way from the float model to one arithmetic.

    Attributes:
        name: of the `Result` whose arithmetic stands at the end.
        causes: in the order in which they are switched on; one that changes nothing is left out.
    """

    name: str
    causes: tuple[Cause, ...]


@dataclasses.dataclass(frozen=True)
class Choice:
    """The accumulator that a search chose for a layer.

    Attributes:
        name: of the layer.
        width: bits of its accumulator.
        shift: by how many bits its addends are shifted.
        is_proven: whether no input of the stored type can give a wrong sum there; else it was
            chosen by measurement.
    """

    name: str
    width: int
    shift: int
    is_proven: bool


@dataclasses.dataclass(frozen=True)
class Narrowest:
    """The narrowest accumulators with which a metric stays within a bound.

    Attributes:
        metric_loss: the bound.
        reference: the metric at full width.
        metric: of the result, measured end to end.
        choices: for each layer with an accumulator, in the file's order.
        evaluations: how many evaluations of the network the search took.
        seconds: how long it took.
    """

    metric_loss: float
    reference: float
    metric: float
    choices: tuple[Choice, ...]
    evaluations: int
    seconds: float

    @property
    def arithmetic(self) -> dict[str, Arithmetic]:
        """What `Network.with_arithmetic` takes."""
        return {
            choice.name: Arithmetic(accumulator_size=choice.width, mult_shift=choice.shift)
            for choice in self.choices
        }


@dataclasses.dataclass(frozen=True)
class Findings:
    """All that a study found, as its report and its files hold it.

    Attributes:
        title: what the network is called.
        images: how many were studied.
        metric_name: what the metric is called, as "accuracy"; None without labels.
        metric: at full width; None without labels.
        float_metric: of the float model; None without one or without labels.
        layers: those with an accumulator, in the file's order.
        channels: by the name of a layer.
        results: for each arithmetic asked for, in their order.
        attributions: of results, with a float model.
        searches: what `Study.narrowest` found until now.
        versions: by the name of a package.
        seconds: what the measurements took.
        looked_at: of how many images partial sums were looked at; None: of all.
    """

    title: str
    images: int
    metric_name: str | None
    metric: float | None
    float_metric: float | None
    layers: tuple[LayerBits, ...]
    channels: Mapping[str, tuple[ChannelBits, ...]]
    results: tuple[Result, ...] = ()
    attributions: tuple[Attribution, ...] = ()
    searches: tuple[Narrowest, ...] = ()
    versions: Mapping[str, str] = dataclasses.field(default_factory=dict)
    seconds: float = 0.0
    looked_at: int | None = None
