# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Findings made up for tests of what shows them: plausible numbers, no network behind them."""

from __future__ import annotations

import dataclasses
import math
import random
from collections.abc import Sequence

from bitfold.network import Arithmetic
from bitfold.studies.records import (
    Attribution,
    Cause,
    ChannelBits,
    Choice,
    Counts,
    Findings,
    LayerBits,
    LayerCounts,
    Narrowest,
    Result,
)

WIDTHS = tuple(range(14, 25))
_IMAGES = 10_000


def small() -> Findings:
    """A network of nine layers, with everything that findings can hold."""
    names = ["conv", *(f"block_{i}_{kind}" for i in (1, 2, 3) for kind in ("depthwise", "project"))]
    return made("fashion", [*names, "head", "logits"], shifts=(0, 1, 2))


def large() -> Findings:
    """A network of 53 layers."""
    names = ["Conv1", "expanded_conv_depthwise", "expanded_conv_project"]
    for block in range(1, 17):
        names += [f"block_{block}_{kind}" for kind in ("expand", "depthwise", "project")]
    return made(
        "mobile network, 224x224", [*names, "Conv_1", "predictions"], shifts=(0, 1, 2, 3, 4)
    )


def bare(layers: int = 1) -> Findings:
    """Bits alone: neither labels nor a float model, nor anything asked for."""
    whole = made("bare", [f"layer_{i}" for i in range(layers)], shifts=())
    return Findings(
        title=whole.title,
        images=16,
        metric_name=None,
        metric=None,
        float_metric=None,
        layers=whole.layers,
        channels={},
    )


def single() -> Findings:
    """One width for nine layers, and no float model."""
    findings = small()
    return dataclasses.replace(findings, results=findings.results[:1], float_metric=None)


HOSTILE_NAMES = (
    "</style></svg><script>alert('x')</script>",
    'a & b "quoted" <i>',
    "$x^2$ and \\frac{1}{2}",
    "model/" + "a_very_long_part_of_a_path/" * 6 + "conv2d",
    "two\nlines\tand a tab\x00\x1b[31m",
    "[bold]markup[/bold]",
    "\N{CJK UNIFIED IDEOGRAPH-5C64}\N{GREEK SMALL LETTER ALPHA}\N{GRINNING FACE}\ud800",
    "",
)


def hostile() -> Findings:
    """Names that a page, a terminal or a drawing could take for something else."""
    names = [f"{name}{'' if name else ' '}" for name in HOSTILE_NAMES]
    return made("<b>&amp;\u202e</b>" + "x" * 100, names, shifts=(0, 1))


def made(title: str, names: Sequence[str], shifts: Sequence[int]) -> Findings:
    """Findings of a network whose layers have these names."""
    draw = random.Random(title)
    layers = tuple(_layer(draw, i, name) for i, name in enumerate(names))
    results = [_result(draw, layers, width, shift) for shift in shifts for width in WIDTHS]
    if shifts:
        results += [_half(draw, layers), _mixture(draw, layers)]
    attributed = [result for result in results if result.name in ("16 bits", "18 bits, shift 2")]
    return Findings(
        title=title,
        images=_IMAGES,
        metric_name="accuracy",
        metric=0.9123,
        float_metric=0.9151,
        layers=layers,
        channels={layer.name: _channels(draw, layer) for layer in layers},
        results=tuple(results),
        attributions=tuple(_attribution(draw, result) for result in attributed),
        searches=(_search(draw, layers),) if shifts else (),
        versions={"bitfold": "0.1.0", "tensorflow": "2.21.0", "numpy": "2.4.6"},
        seconds=48.2,
    )


def _layer(draw: random.Random, index: int, name: str) -> LayerBits:
    needed = draw.choice((15, 16, 16, 17, 17, 18, 18, 19))
    on_the_way = needed + draw.choice((0, 0, 0, 1))
    proven = max(on_the_way, needed + draw.choice((1, 2, 3, 4)))
    operator = "DEPTHWISE_CONV_2D" if "depthwise" in name else "CONV_2D"
    remarks = ("the bias of channel 3 is wider than its sums",) if index == 2 else ()
    return LayerBits(
        position=2 * index,
        name=name,
        operator=operator,
        multiply_adds=draw.randrange(10_000, 12_000_000),
        channels=16 * draw.randrange(1, 20),
        sums=draw.randrange(10**6, 10**9),
        needed=needed,
        on_the_way=on_the_way,
        proven=proven,
        proven_for_range=draw.randrange(on_the_way, proven + 1),
        harmless_from=draw.choice((15, 16)),
        data_range=(-128, draw.choice((127, 96))),
        remarks=remarks,
    )


def _channels(draw: random.Random, layer: LayerBits) -> tuple[ChannelBits, ...]:
    return tuple(
        ChannelBits(
            channel=channel,
            needed=layer.needed - (channel != 3) * draw.randrange(3),
            on_the_way=layer.on_the_way,
            proven=layer.proven,
            proven_for_range=layer.proven_for_range,
            smallest_sum=-(2 ** (layer.needed - 1)) + channel,
            largest_sum=2 ** (layer.needed - 2),
            bias=None if layer.position == 4 else draw.randrange(-5000, 5000),
            remarks=("it alone costs the layer a bit",) if channel == 3 else (),
        )
        for channel in range(4)
    )


def _counts(draw: random.Random, layer: LayerBits, width: int, shift: int) -> Counts:
    """Counts that grow with what is missing of the bits needed."""
    missing = layer.needed - shift - width
    if missing <= 0:
        return Counts(sums=layer.sums)
    wrong = min(layer.sums, int(layer.sums * draw.uniform(0.5, 1) * 10.0 ** (missing - 4)))
    right = wrong // 50
    return Counts(layer.sums, wrong, right, wrong * 3, draw.randrange(1, 400))


def _layer_counts(draw: random.Random, layer: LayerBits, arithmetic: Arithmetic) -> LayerCounts:
    width, shift = arithmetic.accumulator_size or 32, arithmetic.mult_shift
    alone = _counts(draw, layer, width, shift)
    more = Counts(layer.sums, min(layer.sums, int(alone.wrong * 1.7)), alone.right_again)
    depthwise = "DEPTHWISE" in layer.operator and width < 16
    return LayerCounts(
        layer.position,
        layer.name,
        arithmetic,
        alone,
        more if alone.wrong else alone,
        corrected_weights=17 if depthwise else 0,
        out_of_bounds=5 if arithmetic.use_fp16_acc and layer.position == 0 else 0,
    )


def _result(draw: random.Random, layers: Sequence[LayerBits], width: int, shift: int) -> Result:
    arithmetic = Arithmetic(accumulator_size=width, mult_shift=shift)
    name = f"{width} bits" + (f", shift {shift}" if shift else "")
    metric = 0.1 + 0.8123 / (1 + math.exp(-2.2 * (width + shift - 16.3))) - 0.0015 * shift**2
    counts = tuple(_layer_counts(draw, layer, arithmetic) for layer in layers)
    return Result(name, arithmetic, metric, counts)


def _half(draw: random.Random, layers: Sequence[LayerBits]) -> Result:
    arithmetic = Arithmetic(use_fp16_acc=True, mult_shift=2)
    counts = tuple(_layer_counts(draw, layer, arithmetic) for layer in layers)
    return Result("half precision, shift 2", arithmetic, 0.894, counts)


def _mixture(draw: random.Random, layers: Sequence[LayerBits]) -> Result:
    mixed = {layer.name: Arithmetic(accumulator_size=layer.needed - 1) for layer in layers}
    counts = tuple(_layer_counts(draw, layer, mixed[layer.name]) for layer in layers)
    return Result("a bit less by layer", mixed, 0.9104, counts)


def _attribution(draw: random.Random, result: Result) -> Attribution:
    causes, base = [], 38.0
    steps = [("quantisation", 0.9123, 0.0), ("accumulator", result.metric, 11.0)]
    if "shift" in result.name:
        steps.insert(1, ("shift", 0.908, 4.0))
    lost = 0.0
    for name, metric, loss in steps:
        lost += loss
        errors = {
            layer.name: base - lost - 0.15 * i + draw.uniform(-3, 3)
            for i, layer in enumerate(result.layers)
        }
        if name == "quantisation":
            errors[result.layers[0].name] = math.inf
        causes.append(Cause(name, metric, errors))
    return Attribution(result.name, tuple(causes))


def _search(draw: random.Random, layers: Sequence[LayerBits]) -> Narrowest:
    choices = []
    for layer in layers:
        is_proven = layer.proven <= 18
        width = layer.proven if is_proven else layer.needed - draw.randrange(3)
        shift = 0 if is_proven else draw.randrange(3)
        choices.append(Choice(layer.name, width, shift, is_proven))
    return Narrowest(0.005, 0.9123, 0.9087, tuple(choices), 74, 31.6)
