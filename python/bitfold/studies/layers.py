# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""From what a full-width pass counted to the bits of layers and channels, and what stands out."""

from __future__ import annotations

from collections.abc import Iterator, Sequence

import numpy as np

from bitfold.network import Layer
from bitfold.network.operators import SummingStep
from bitfold.studies.bounds import Bounds, bits_of, layer_bounds, width_for_weight
from bitfold.studies.records import ChannelBits, LayerBits
from bitfold.studies.tallies import LayerTally

_RELUS = ("RELU", "RELU6")
# At most so many channels are named in a remark of a layer.
_NAMED = 5


def bits_of_layer(
    layer: Layer, step: SummingStep, tally: LayerTally
) -> tuple[LayerBits, tuple[ChannelBits, ...]]:
    """Return what a layer and each of its channels need.

    Args:
        layer: what the network tells of it.
        step: the layer at full width.
        tally: of the full-width pass.
    """
    limits = np.iinfo(step.data.dtype)
    bounds = layer_bounds(step, int(limits.min), int(limits.max))
    data_range = tally.data_range or (step.data.zero_point,) * 2
    in_range = layer_bounds(step, *data_range)
    extremes = tally.extremes.T.tolist() if tally.sums else [[0] * 4] * len(bounds.bits)
    bias = None if step.bias_tensor is None else step.bias_tensor.data.reshape(-1).tolist()
    remarks = [[] for _ in extremes]
    for channel, remark in _of_channels(step, bounds, tally, extremes, bias):
        remarks[channel].append(remark)
    needed = [bits_of(low, high) for low, high, *_ in extremes]
    costly = _costly_channel(needed)
    if costly is not None:
        others = max(bits for channel, bits in enumerate(needed) if channel != costly)
        remarks[costly].append(f"needs {needed[costly]} bits, all others at most {others}")
    channels = tuple(
        ChannelBits(
            channel=channel,
            needed=needed[channel],
            on_the_way=bits_of(least, greatest),
            proven=int(bounds.bits[channel]),
            proven_for_range=int(in_range.bits[channel]),
            smallest_sum=low,
            largest_sum=high,
            bias=None if bias is None else bias[channel],
            remarks=tuple(remarks[channel]),
        )
        for channel, (low, high, least, greatest) in enumerate(extremes)
    )
    return _of_all(layer, step, bounds, tally, channels, data_range), channels


def _of_all(
    layer: Layer,
    step: SummingStep,
    bounds: Bounds,
    tally: LayerTally,
    channels: Sequence[ChannelBits],
    data_range: tuple[int, int],
) -> LayerBits:
    """Return the largest of the channels' bits."""

    def largest(name: str) -> int:
        return max((getattr(channel, name) for channel in channels), default=1)

    return LayerBits(
        position=layer.position,
        name=layer.name,
        operator=layer.operator,
        multiply_adds=layer.multiply_adds,
        channels=len(channels),
        sums=tally.sums,
        needed=largest("needed"),
        on_the_way=largest("on_the_way"),
        proven=largest("proven"),
        proven_for_range=largest("proven_for_range"),
        harmless_from=bounds.harmless_from,
        data_range=data_range,
        remarks=tuple(_of_layer(step, channels)),
        looked_at=tally.looked_at,
    )


def _of_channels(
    step: SummingStep,
    bounds: Bounds,
    tally: LayerTally,
    extremes: Sequence[Sequence[int]],
    bias: Sequence[int] | None,
) -> Iterator[tuple[int, str]]:
    """Yield channels that stand out, each with a remark."""
    products = step.products
    is_zero = ~(products.least.any((0, 1, 2)) | products.greatest.any((0, 1, 2)))
    is_clipped = step.node.option("fused_activation_function", "NONE") in _RELUS
    for channel, (low, high, *_) in enumerate(extremes):
        added = 0 if bias is None else bias[channel]
        smallest = bounds.smallest_sums[channel] - added
        largest = bounds.largest_sums[channel] - added
        if abs(added) > max(largest, -smallest):
            yield channel, f"its bias of {added} is larger than any sum of its products"
        if bits_of(added, added) > 32:
            width = bits_of(added, added)
            yield channel, f"its bias needs {width} bits, of which an accumulator takes the low 32"
        if is_zero[channel]:
            yield channel, "all its weights are zero"
        elif tally.sums and low == high:
            yield channel, f"its sum is {low} for every input seen"
        elif tally.sums and is_clipped and high <= 0:
            yield channel, "no sum seen is above zero, so that its output never changes"


def _costly_channel(needed: Sequence[int]) -> int | None:
    """Return the channel without which all others would do with a bit less, if there is one."""
    if len(needed) < 2:
        return None
    costly = int(np.argmax(needed))
    others = max(bits for channel, bits in enumerate(needed) if channel != costly)
    return costly if needed[costly] > others else None


def _of_layer(step: SummingStep, channels: Sequence[ChannelBits]) -> Iterator[str]:
    """Yield what stands out of a layer: its channels that do, and weights with another sign."""
    products = step.products
    if products.has_half_weights:
        width = width_for_weight(int(products.greatest.max(initial=0)))
        if width > 1:
            what = "weights" if step.weights_tensor is not None else "second operand's numbers"
            yield f"below {width} bits the unit reads {what} with another sign"
    remarked: dict[str, list[int]] = {}
    for channel in channels:
        for remark in channel.remarks:
            remarked.setdefault(remark, []).append(channel.channel)
    for remark, found in remarked.items():
        places = ", ".join(map(str, found[:_NAMED])) + (", ..." if len(found) > _NAMED else "")
        if len(found) == 1:
            yield f"channel {places}: {remark}"
        else:
            yield f"{len(found)} channels ({places}): {remark}"
