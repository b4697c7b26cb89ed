# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Findings as rows with headings: what a terminal, a page and a notebook show alike."""

from __future__ import annotations

from collections.abc import Sequence

from bitfold.studies import words
from bitfold.studies.columns import Column, Table
from bitfold.studies.records import (
    Attribution,
    Cause,
    ChannelBits,
    Counts,
    Findings,
    LayerCounts,
    Narrowest,
    Result,
)
from bitfold.studies.series import Series, describe, total

# More rows of channels than a person reads; the JSON file has all.
_MOST_CHANNELS = 200


# ---- What was studied ----------------------------------------------------------------------------


def overview(findings: Findings) -> Table:
    """What was studied, and the network at full width."""
    work = sum(layer.multiply_adds for layer in findings.layers)
    rows: list[tuple[str, str]] = [
        ("network", words.printable(findings.title)),
        ("images", words.count(findings.images)),
        ("layers with an accumulator", words.count(len(findings.layers))),
        ("multiply-adds for one image", words.large(work)),
    ]
    name = findings.metric_name or "metric"
    if findings.looked_at is not None:
        rows.append(("images whose partial sums were looked at", words.count(findings.looked_at)))
    if findings.metric is not None:
        rows.append((f"{name} at full width", words.metric(findings, findings.metric)))
    if findings.float_metric is not None:
        rows.append((f"{name} of the float model", words.metric(findings, findings.float_metric)))
    return Table("What was studied.", (Column("what"), Column("value")), tuple(rows))


def versions(findings: Findings) -> Table:
    """The packages that computed it."""
    columns = (Column("package"), Column("version"))
    return Table("Versions of what computed this.", columns, tuple(findings.versions.items()))


# ---- Bits ----------------------------------------------------------------------------------------


def layers(findings: Findings) -> Table:
    """The bits of each layer at full width."""
    columns = (
        Column("layer"),
        Column("operator"),
        Column("multiply-adds", "count"),
        Column("channels", "count"),
        Column("needed", "count", "bits"),
        Column("on the way", "count", "bits"),
        Column("proven, inputs as seen", "count", "bits"),
        Column("proven, any input", "count", "bits"),
        Column("wraps harmless from", "count", "bits"),
        Column("remarks"),
    )
    rows = tuple(
        (
            layer.name,
            layer.operator,
            layer.multiply_adds,
            layer.channels,
            layer.needed,
            layer.on_the_way,
            layer.proven_for_range,
            layer.proven,
            layer.harmless_from,
            "; ".join(layer.remarks) or None,
        )
        for layer in findings.layers
    )
    caption = "Bits of each layer's sums at full width." + sums_looked_at(findings)
    return Table(caption, columns, rows)


def sums_looked_at(findings: Findings) -> str:
    """Return of how many sums the bits on the way are, for the end of a caption."""
    looked = sum(layer.looked for layer in findings.layers)
    return words.of_sample("On the way", looked, sum(layer.sums for layer in findings.layers))


def channels(findings: Findings) -> Table:
    """The channels that stand out."""
    columns = (
        Column("layer"),
        Column("channel", "count"),
        Column("needed", "count", "bits"),
        Column("on the way", "count", "bits"),
        Column("proven, any input", "count", "bits"),
        Column("bias", "count"),
        Column("remarks"),
    )
    rows = [
        (
            name,
            channel.channel,
            channel.needed,
            channel.on_the_way,
            channel.proven,
            channel.bias,
            "; ".join(channel.remarks),
        )
        for name, found in findings.channels.items()
        for channel in found
        if channel.remarks
    ]
    caption = "Channels that stand out."
    if len(rows) > _MOST_CHANNELS:
        caption = f"The first {_MOST_CHANNELS} of {len(rows):,} channels that stand out."
    caption += sums_looked_at(findings)
    return Table(caption, columns, tuple(rows[:_MOST_CHANNELS]))


def channels_of(name: str, found: Sequence[ChannelBits]) -> Table:
    """All channels of a layer."""
    columns = (
        Column("channel", "count"),
        Column("needed", "count", "bits"),
        Column("on the way", "count", "bits"),
        Column("proven, inputs as seen", "count", "bits"),
        Column("proven, any input", "count", "bits"),
        Column("smallest", "count", "sum"),
        Column("largest", "count", "sum"),
        Column("bias", "count"),
        Column("remarks"),
    )
    rows = tuple(
        (
            channel.channel,
            channel.needed,
            channel.on_the_way,
            channel.proven_for_range,
            channel.proven,
            channel.smallest_sum,
            channel.largest_sum,
            channel.bias,
            "; ".join(channel.remarks) or None,
        )
        for channel in found
    )
    return Table(f"Channels of {name}.", columns, rows)


# ---- Arithmetics ---------------------------------------------------------------------------------


def _metric_columns(findings: Findings, group: str = "") -> tuple[Column, Column]:
    name = findings.metric_name or "metric"
    if words.is_percentage(findings):
        return Column(name, "percent", group), Column("change in points", "points", group)
    return Column(name, "number", group), Column("change", "change", group)


def change(value: float | None, base: float | None) -> float | None:
    """Return by how much a metric differs; None where one is not known."""
    return None if value is None or base is None else value - base


def results(findings: Findings) -> Table:
    """Each arithmetic in a line, end to end."""
    has_metric = any(result.metric is not None for result in findings.results)
    columns = (
        Column("arithmetic"),
        *(_metric_columns(findings) if has_metric else ()),
        Column("wrong sums", "share"),
        Column("right again", "share"),
        Column("layers with wrong sums", "count"),
        Column("corrected weights", "count"),
        Column("warning lines", "count"),
    )
    rows = []
    for result in findings.results:
        counts = total(result)
        metric = (result.metric, change(result.metric, findings.metric)) if has_metric else ()
        rows.append(
            (
                result.name,
                *metric,
                counts.wrong_share,
                counts.right_again_share,
                sum(layer.end_to_end.wrong > 0 for layer in result.layers),
                sum(layer.corrected_weights for layer in result.layers),
                sum(layer.out_of_bounds for layer in result.layers),
            )
        )
    every = sum((total(result) for result in findings.results), Counts())
    caption = "Each arithmetic, end to end."
    caption += words.of_sample("Right again", every.looked, every.sums)
    return Table(caption, columns, tuple(rows))


def wrong_by_width(series: Series, is_alone: bool) -> Table:
    """The share of each layer's wrong sums by width."""
    feed = "fed by the full-width run" if is_alone else "end to end"
    columns = (Column("layer"), *(Column(f"{w} bits", "share") for w in series.widths))
    by_layer = [{layer.name: layer for layer in result.layers} for result in series.results]
    rows = tuple(
        (name, *(_wrong_share(layers.get(name), is_alone) for layers in by_layer))
        for name in dict.fromkeys(name for layers in by_layer for name in layers)
    )
    return Table(f"Share of wrong sums by width, {series.name}, {feed}.", columns, rows)


def _wrong_share(layer: LayerCounts | None, is_alone: bool) -> float | None:
    if layer is None:
        return None
    return (layer.alone if is_alone else layer.end_to_end).wrong_share


def counts(result: Result) -> Table:
    """Each layer in one arithmetic."""
    columns = (
        Column("layer"),
        Column("arithmetic"),
        Column("wrong", "share", "alone"),
        Column("right again", "share", "alone"),
        Column("wrong", "share", "end to end"),
        Column("right again", "share", "end to end"),
        Column("partial sums outside", "count", "end to end"),
        Column("first after addends", "count", "end to end"),
        Column("corrected weights", "count"),
        Column("warning lines", "count"),
    )
    rows = tuple(
        (
            layer.name,
            describe(layer.arithmetic),
            layer.alone.wrong_share,
            layer.alone.right_again_share,
            layer.end_to_end.wrong_share,
            layer.end_to_end.right_again_share,
            layer.end_to_end.partial_sums_outside,
            layer.end_to_end.first_step or None,
            layer.corrected_weights,
            layer.out_of_bounds,
        )
        for layer in result.layers
    )
    counts = total(result)
    caption = f"Layers with {words.printable(result.name)}." + words.of_sample(
        "Right again, partial sums outside and the first", counts.looked, counts.sums
    )
    return Table(caption, columns, rows)


# ---- Attribution and search ----------------------------------------------------------------------


def causes(findings: Findings, attribution: Attribution) -> Table:
    """What each cause costs of the metric, and at the network's last layer."""
    columns = (Column("up to and with"), *_metric_columns(findings))
    columns += (Column("median layer", "decibels", "signal to error [dB]"),)
    columns += (Column("last layer", "decibels", "signal to error [dB]"),)
    rows, before = [], findings.float_metric
    for cause in attribution.causes:
        difference = change(cause.metric, before)
        rows.append(
            (cause.name, cause.metric, difference, _median(cause), at_last_layer(findings, cause))
        )
        before = cause.metric
    caption = f"From the float model to {words.printable(attribution.name)}, a cause at a time."
    return Table(caption, columns, tuple(rows))


def _median(cause: Cause) -> float | None:
    values = sorted(value for value in cause.signal_to_error.values() if value == value)
    return values[(len(values) - 1) // 2] if values else None


def at_last_layer(findings: Findings, cause: Cause) -> float | None:
    """Return the signal-to-error ratio of the network's last layer; None where there is none."""
    return cause.signal_to_error.get(findings.layers[-1].name) if findings.layers else None


def signal_to_error(findings: Findings, attribution: Attribution) -> Table:
    """The signal-to-error ratio of each layer after each cause."""
    group = "signal to error [dB] up to and with"
    columns = (Column("layer"), *(Column(c.name, "decibels", group) for c in attribution.causes))
    rows = tuple(
        (layer.name, *(cause.signal_to_error.get(layer.name) for cause in attribution.causes))
        for layer in findings.layers
    )
    name = words.printable(attribution.name)
    return Table(f"Signal to error of each layer's output on the way to {name}.", columns, rows)


def choices(findings: Findings, search: Narrowest) -> Table:
    """What a search chose for each layer."""
    columns = (
        Column("layer"),
        Column("accumulator", "count", "bits"),
        Column("shift", "count", "bits"),
        Column("needed", "count", "bits"),
        Column("proven, any input", "count", "bits"),
        Column("chosen by"),
    )
    known = {layer.name: layer for layer in findings.layers}
    rows = []
    for choice in search.choices:
        layer = known.get(choice.name)
        bits = (layer.needed, layer.proven) if layer else (None, None)
        reason = "proof" if choice.is_proven else "measurement"
        rows.append((choice.name, choice.width, choice.shift, *bits, reason))
    loss = words.difference(findings, search.metric_loss)
    return Table(f"Narrowest accumulators within {loss}.", columns, tuple(rows))
