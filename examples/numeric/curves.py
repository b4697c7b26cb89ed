# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""The picture: each unit's transfer curve, the function it approximates, and its error."""

from __future__ import annotations

from pathlib import Path

import matplotlib.pyplot as plt
import numpy as np
from matplotlib.axes import Axes

import bitfold
from bitfold import tables
from console import COLOURS
from encoder import FloatUnits
from measure import Study, float_result

NARROW, WIDE, FUNCTION = COLOURS[1], COLOURS[0], "black"
POINTS = 3000
"""Activations drawn of the layer normalisation."""


def write_plot(path: Path, study: Study) -> None:
    """Draw curves above errors, a column for each unit, into a PNG file."""
    with plt.rc_context({"font.size": 11, "axes.grid": True, "grid.alpha": 0.3}):
        figure, axes = plt.subplots(
            2, 4, figsize=(20, 9), sharex="col", height_ratios=(3, 2), layout="constrained"
        )
        _plot_softmax(*axes[:, 0], study)
        _plot_norm(*axes[:, 1], study)
        _plot_inverse_root(*axes[:, 2])
        _plot_gelu(*axes[:, 3], study)
        for axis in axes.ravel():
            axis.spines[["top", "right"]].set_visible(False)
        figure.savefig(path, dpi=110)
        plt.close(figure)


def _plot_softmax(curve: Axes, error: Axes, study: Study) -> None:
    """The first of two elements over their difference."""
    site = study.sites[8]["softmax 1"]
    steps = np.arange(-255, 256)
    pairs = np.stack([np.maximum(steps, 0), np.maximum(-steps, 0)], axis=1)
    x = steps * site.input_scale
    real = float_result(site, "", pairs * site.input_scale)[:, 0]
    result = site.run(pairs)[:, 0]
    curve.plot(x, real, color=FUNCTION, linewidth=1.2, label="softmax", zorder=3)
    curve.step(x, result, where="mid", color=NARROW, linewidth=3, label="unit, 8 bits")
    curve.set(title="Softmax of two elements,\nthe first one's share", ylabel="result")
    error.step(x, 1000 * (result - real), where="mid", color=NARROW)
    _bound(error, 1000 * site.table.max_error(2))
    error.set(xlabel="first minus second element", ylabel="error [thousandths]", xlim=(-10, 10))
    _finish(curve, error)


def _plot_norm(curve: Axes, error: Axes, study: Study) -> None:
    """Real activations of one layer normalisation, both output widths."""
    name = "norm b 1"
    for bits, colour, marker in ((8, NARROW, "o"), (16, WIDE, ".")):
        site, x = study.sites[bits][name], study.inputs[name]
        real = float_result(site, name, x).ravel()
        result = site.run(site.quantise(x)).ravel()
        pick = np.random.default_rng(0).choice(real.size, min(POINTS, real.size), replace=False)
        style = {"linestyle": "", "marker": marker, "color": colour, "markersize": 4}
        curve.plot(real[pick], result[pick], **style, label=f"unit, {bits} bits")
        error.plot(real[pick], 1000 * (result - real)[pick], **style)
    ends = np.array([real.min(), real.max()])
    curve.plot(ends, ends, color=FUNCTION, linewidth=1.2, label="layer normalisation")
    curve.set(title="Layer normalisation,\nactivations of the first block", ylabel="result")
    error.set(xlabel="float result", ylabel="error [thousandths]")
    _finish(curve, error)


def _plot_inverse_root(curve: Axes, error: Axes) -> None:
    """The unit's 1 / root mean square: one fixed element, another that sweeps, in RMS mode."""
    fixed, size = 4096, 4
    swept = np.arange(0, 32700, 3)
    x = np.zeros([swept.size, size])
    x[:, 0], x[:, 1] = fixed, swept
    table = tables.layer_norm(
        size, input_range=(0, 32767), epsilon=0, is_rms=True, is_16bit_output=True,
        output_scale=2 / 32767, output_zero_point=0,
    )  # fmt: skip
    value = x.astype(np.float32)[np.newaxis, np.newaxis]
    result = table.dequantise(bitfold.ops.layer_norm(value, **table.keywords))[0, 0, :, 0]
    root = np.sqrt((x**2).mean(axis=1))
    real = fixed / root
    curve.plot(root, result, color=WIDE, linewidth=3, label="unit, 16 bits")
    curve.plot(root, real, color=FUNCTION, linewidth=1.2, label=f"{fixed} / root mean square")
    curve.set(title="The unit's inverse square root,\nRMS mode", ylabel="result")
    curve.set_xscale("log", base=2)
    error.plot(root, 100 * (result / real - 1), color=WIDE, linewidth=0.5)
    bound = 100 * (table.relative_error + 0.63 * table.output_scale / real)
    for sign in (1, -1):
        error.plot(root, sign * bound, color="dimgray", linestyle="--", linewidth=1.2,
                   label="stated bound" if sign > 0 else None)  # fmt: skip
    error.set(xlabel="root mean square [steps of the input]", ylabel="relative error [%]")
    _finish(curve, error)


def _plot_gelu(curve: Axes, error: Axes, study: Study) -> None:
    """Every input of the activation unit, both widths."""
    for bits, colour, width in ((8, NARROW, 3), (16, WIDE, 1.6)):
        site = study.sites[bits]["gelu 1"]
        steps = np.arange(-site.limit, site.limit + 1)
        x = steps * site.input_scale
        real = FloatUnits().gelu("", x).numpy()
        result = site.run(steps)
        curve.step(
            x, result, where="mid", color=colour, linewidth=width, label=f"unit, {bits} bits"
        )
        error.step(x, 1000 * (result - real), where="mid", color=colour, linewidth=0.9)
        _bound(error, 1000 * site.table.max_error, colour, f"stated bound, {bits} bits")
    points = np.unique(site.table.x_points[0])
    points = points[points < site.limit] * site.input_scale
    curve.plot(points, FloatUnits().gelu("", points), color=WIDE, marker="|", markersize=12,
               linestyle="", label="breakpoints, 16 bits")  # fmt: skip
    curve.plot(x, real, color=FUNCTION, linewidth=1, label="GELU")
    curve.set(title=f"GELU in {site.table.offsets.size} pieces", ylabel="result")
    error.set(xlabel="input", ylabel="error [thousandths]")
    _finish(curve, error)


def _bound(axes: Axes, value: float, colour: str = "dimgray", label: str = "stated bound") -> None:
    """Lines at the stated error on both sides of 0."""
    axes.axhline(value, color=colour, linestyle="--", linewidth=1.2, label=label)
    axes.axhline(-value, color=colour, linestyle="--", linewidth=1.2)


def _finish(curve: Axes, error: Axes) -> None:
    """What both panels of a column need."""
    curve.legend(fontsize=9.5)
    error.axhline(0, color=FUNCTION, linewidth=0.8)
    if error.get_legend_handles_labels()[0]:
        error.set_ylim(top=1.35 * error.get_ylim()[1])
        error.legend(fontsize=9.5, loc="upper center", ncols=2)
