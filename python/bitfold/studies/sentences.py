# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What findings come to, in sentences."""

from __future__ import annotations

import math
import statistics
from collections.abc import Sequence

from bitfold.studies import words
from bitfold.studies.records import (
    Attribution,
    Counts,
    Findings,
    LayerBits,
    Narrowest,
    Result,
)
from bitfold.studies.series import Series, all_series, mean_width, width_of

SMALL_LOSS = 0.005
"""A loss of a metric that most people would take."""

_NAMES = {
    "shift": "the shift",
    "accumulator": "the accumulator",
    "unit requantisation": "requantisation by the unit",
}
# A share of wrong sums that is worth being named.
_NOTABLE = 0.01
# A rise of the metric at narrow widths, as a share of that at full width, that is worth a warning.
_NOTABLE_RISE = 0.2


def overall(findings: Findings) -> list[str]:
    """Return the most important of all."""
    said = [reach(findings), *bits(findings)[:1]]
    first = next(iter(all_series(findings)), None)
    if first and findings.layers:
        said += [*accuracy(findings, first), *rising(findings, first), *wrong(findings, first)]
    for attribution in findings.attributions[:1]:
        said += causes(findings, attribution)
    for search in findings.searches[-1:]:
        said += chosen(findings, search)
    return said


def reach(findings: Findings) -> str:
    """Return what was run, and what it reached at full width."""
    images = words.some(findings.images, "image")
    layers = words.some(len(findings.layers), "layer")
    text = f"{images} went through {layers} with an accumulator"
    if findings.metric is None:
        return f"{text}; without labels there is no metric."
    name = findings.metric_name or "metric"
    text += f". At full width the {name} is {words.metric(findings, findings.metric)}"
    if findings.float_metric is not None:
        text += f", that of the float model {words.metric(findings, findings.float_metric)}"
    return text + "."


# ---- Widths --------------------------------------------------------------------------------------


def accuracy(findings: Findings, series: Series) -> list[str]:
    """Return from where on the metric falls as accumulators get narrower."""
    known = [(width, r.metric) for width, r in zip(series.widths, series.results, strict=True)]
    measured = [(width, value) for width, value in known if words.is_known(value)]
    if not words.is_known(findings.metric) or not measured:
        return []
    name = findings.metric_name or "metric"
    good = None
    for width, value in reversed(measured):
        if not value >= findings.metric - SMALL_LOSS:
            break
        good = width
    loss = words.difference(findings, SMALL_LOSS)
    if good is None:
        width, value = measured[-1]
        return [
            f"With {series.name}, the {name} is {words.metric(findings, value)} even at "
            f"{width} bits, the widest that was tried."
        ]
    text = f"With {series.name}, {good} bits keep the {name} within {loss} of full width"
    below = [(width, value) for width, value in measured if width < good]
    if not below:
        return [f"{text}; nothing narrower was tried."]
    (next_width, next_value), (last_width, last_value) = below[-1], below[0]
    text += f"; {next_width} bits leave {words.metric(findings, next_value)}"
    if last_width != next_width:
        text += f", {last_width} bits {words.metric(findings, last_value)}"
    return [f"{text}."]


def rising(findings: Findings, series: Series) -> list[str]:
    """Return a warning where the metric rises again below the widths of all addends."""
    least = min((layer.harmless_from for layer in findings.layers), default=0)
    known = zip(series.widths, series.results, strict=True)
    measured = [(width, result.metric) for width, result in known if words.is_known(result.metric)]
    if not words.is_known(findings.metric) or not measured:
        return []
    lowest, worst = min(measured, key=lambda one: one[1])
    narrower = [value for width, value in measured if width < min(lowest, least)]
    if max(narrower, default=worst) - worst <= _NOTABLE_RISE * abs(findings.metric):
        return []
    return [
        f"Below {least} bits one wrap does not bring every addend back, and sums stay outside of "
        f"the accumulator's range. That the {findings.metric_name or 'metric'} rises again there "
        "does not mean that so few bits are enough."
    ]


def shifts(findings: Findings, every: Sequence[Series]) -> list[str]:
    """Return which shift is best at the narrowest width that any of them keeps good."""
    if findings.metric is None or len(every) < 2:
        return []
    good = [
        (width, -(result.metric or 0), series.name)
        for series in every
        for width, result in zip(series.widths, series.results, strict=True)
        if result.metric is not None and result.metric >= findings.metric - SMALL_LOSS
    ]
    if not good:
        return []
    width, negated, name = min(good)
    value = words.metric(findings, -negated)
    loss = words.difference(findings, SMALL_LOSS)
    return [f"Of all, {width} bits with {name} are the narrowest within {loss}: {value}."]


def wrong(findings: Findings, series: Series) -> list[str]:
    """Return where sums first go wrong, and in which layer most."""
    worst = _worst(series, _NOTABLE) or _worst(series, 0.0)
    if worst is None:
        widths = [w for w, r in zip(series.widths, series.results, strict=True) if r.layers]
        if not widths:
            return []
        return [f"With {series.name}, no sum is wrong at {min(widths)} bits or more."]
    result, name, counts = worst
    layer = next((layer for layer in findings.layers if layer.name == name), None)
    end = next(x.end_to_end for x in result.layers if x.name == name)
    unshifted = " unshifted" if layer and result.layers[0].arithmetic.mult_shift else ""
    need = f"needs {layer.needed} bits{unshifted}; at" if layer else "goes wrong: at"
    return [
        f"{words.printable(name)} {need} {width_of(result)} bits with {series.name}, "
        f"{words.share(counts.wrong_share)} of its sums are wrong alone, "
        f"{words.share(end.wrong_share)} end to end."
    ]


def _worst(series: Series, more_than: float) -> tuple[Result, str, Counts] | None:
    """Return the widest result in which a layer goes wrong by itself, and the worst layer there."""
    for result in reversed(series.results):
        found = [(x.alone.wrong_share, -x.position, x) for x in result.layers]
        found = [entry for entry in found if entry[0] > more_than]
        if found:
            layer = max(found, key=lambda entry: entry[:2])[2]
            return result, layer.name, layer.alone
    return None


# ---- Bits ----------------------------------------------------------------------------------------


def bits(findings: Findings) -> list[str]:
    """Return what the sums need, and what is proven."""
    layers = findings.layers
    if not layers:
        return ["No layer has an accumulator; those of a model in floats have none."]
    widest = max(layers, key=lambda layer: layer.needed)
    most = f"; {words.printable(widest.name)} needs the most" if len(layers) > 1 else ""
    everywhere = " in every layer" if len(layers) > 1 else ""
    proven = max(layer.proven for layer in layers)
    said = [
        f"{widest.needed} bits hold every sum that was seen{most}. {proven} bits are proven "
        f"enough{everywhere} for any input."
    ]
    if len(layers) > 1:
        least = min(layers, key=lambda layer: layer.needed)
        if least.needed < widest.needed:
            said.append(f"{words.printable(least.name)} needs the least, {least.needed} bits.")
        gaps = [layer.proven - layer.needed for layer in layers]
        said.append(
            f"Between what was seen and what is proven lie {min(gaps)} to {max(gaps)} bits, "
            f"in the median layer {statistics.median_low(gaps)}."
        )
    return [*said, *_on_the_way(layers)]


def _on_the_way(layers: Sequence[LayerBits]) -> list[str]:
    wider = [layer for layer in layers if layer.on_the_way > layer.needed]
    looked, sums = sum(layer.looked for layer in layers), sum(layer.sums for layer in layers)
    of = "" if looked == sums else f" of the {looked:,} of {sums:,} sums looked at"
    if not wider:
        return [f"No partial sum{of} needs more bits than the final ones."]
    count = words.some(len(wider), "layer")
    text = f"In {count} partial sums{of} need more bits than the final ones; "
    harmful = [layer for layer in wider if layer.harmless_from > layer.needed]
    if not harmful:
        return [text + "as no addend there is larger than the range, they wrap and come right."]
    names = words.listed([words.printable(layer.name) for layer in harmful[:3]])
    if len(harmful) > 3:
        names += f" and {len(harmful) - 3} more"
    return [f"{text}in {names} that can matter, since single addends are larger than the range."]


# ---- Attribution and search ----------------------------------------------------------------------


def causes(findings: Findings, attribution: Attribution) -> list[str]:
    """Return what each cause costs: is it the numerics or the conversion?"""
    name = words.printable(attribution.name)
    steps = [(cause.name, cause.metric) for cause in attribution.causes]
    known = [(cause, value) for cause, value in steps if words.is_known(value)]
    if not words.is_known(findings.float_metric) or len(known) != len(steps) or not steps:
        return _noise(attribution)
    losses, before = [], findings.float_metric
    for cause, value in known:
        losses.append((before - value, cause))
        before = value
    metric = findings.metric_name or "metric"
    changes = [
        f"{_NAMES.get(cause, cause)} {'costs' if loss >= 0 else 'gains'} "
        f"{words.difference(findings, loss)}"
        for loss, cause in losses
    ]
    text = f"Of the {metric}, on the way to {name}, {words.listed(changes)}."
    most, cause = max(losses)
    if most <= 0:
        return [f"{text} Nothing is lost."]
    is_conversion = cause == "quantisation"
    blame = ("the conversion", "not the accelerator's numerics")
    blame = blame if is_conversion else ("the accelerator's numerics", "not the conversion")
    return [f"{text} The most is lost by {_NAMES.get(cause, cause)}: {', '.join(blame)}."]


def _noise(attribution: Attribution) -> list[str]:
    """Return the same by the layers' errors, where there is no metric."""
    medians = []
    for cause in attribution.causes:
        values = [value for value in cause.signal_to_error.values() if math.isfinite(value)]
        if values:
            ratio = words.decibels(statistics.median(values))
            medians.append(f"{ratio} dB up to and with {cause.name}")
    if not medians:
        return []
    name = words.printable(attribution.name)
    return [f"On the way to {name}, the signal-to-error ratio of the median layer is "
            f"{words.listed(medians)}."]  # fmt: skip


def chosen(findings: Findings, search: Narrowest) -> list[str]:
    """Return what a search found, and what it took."""
    metric = findings.metric_name or "metric"
    loss = words.difference(findings, search.metric_loss)
    if not search.choices:
        return []
    widths = [choice.width for choice in search.choices]
    span = f"{min(widths)} to {max(widths)}" if min(widths) < max(widths) else f"{widths[0]}"
    text = f"Within {loss} of full width, accumulators of {span} bits are enough"
    chosen_by_name = {choice.name: choice.width for choice in search.choices}
    by_layer = [chosen_by_name.get(layer.name) for layer in findings.layers]
    mean = mean_width(findings.layers, by_layer)
    if mean is not None and min(widths) < max(widths):
        text += f", {mean:.1f} in the mean of all multiply-adds"
    proven = sum(choice.is_proven for choice in search.choices)
    whole = words.some(len(widths), "width")
    by = f"{proven} of {whole} hold by proof, the others by measurement"
    if proven in (0, len(widths)):
        by = f"All is proven: {whole}" if proven else f"All is measured: {whole}"
    return [
        f"{text}.",
        f"The {metric} with them is {words.metric(findings, search.metric)}, at full width "
        f"{words.metric(findings, search.reference)}.",
        f"{by}; the search took {words.some(search.evaluations, 'evaluation')} and "
        f"{words.seconds(search.seconds)}.",
    ]
