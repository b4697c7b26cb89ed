# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The search for the narrowest accumulators: on made-up networks of which the answer is known."""

from __future__ import annotations

import math
from collections.abc import Callable, Mapping

import keras
import numpy as np
import pytest

import bitfold
from bitfold.network.operators import SummingStep
from bitfold.studies.bounds import Bounds, bits_of, layer_bounds
from bitfold.studies.records import ChannelBits, LayerBits
from bitfold.studies.search import is_larger_better, narrowest


class MadeUp:
    """Stands for a network: knows what its layers compute in."""

    def __init__(self, arithmetics: Mapping, most_shift: Mapping[str, int] | None = None) -> None:
        """Take the arithmetic of each layer by name, and what its requantisation can take back."""
        self.arithmetics = dict(arithmetics)
        self._most_shift = most_shift or {}

    def with_arithmetic(self, changed: Mapping[str, bitfold.Arithmetic]) -> MadeUp:
        """Refuse shifts, as networks do, or return a copy."""
        for name, arithmetic in changed.items():
            if arithmetic.mult_shift > self._most_shift.get(name, 31):
                raise ValueError(f"layer {name!r}: the shift is too large")
        return MadeUp(self.arithmetics | dict(changed), self._most_shift)


class Metric:
    """Full marks less what each layer costs, and how often it was asked."""

    def __init__(self, cost: Callable[[str, int, int], float], sign: int = 1) -> None:
        """Take the cost of a layer's name, width and shift."""
        self.calls = 0
        self._cost, self._sign = cost, sign

    def __call__(self, network: MadeUp) -> float:
        """Return the metric."""
        self.calls += 1
        cost = sum(
            self._cost(name, 99 if a.accumulator_size is None else a.accumulator_size, a.mult_shift)
            for name, a in network.arithmetics.items()
        )
        return self._sign * (0.9 - cost)


def _layer(name: str, needed: int, **changed) -> LayerBits:
    fields = dict(
        position=0, name=name, operator="CONV_2D", multiply_adds=1000, channels=4, sums=100,
        needed=needed, on_the_way=needed + 1, proven=needed + 3, proven_for_range=needed + 2,
        harmless_from=min(needed, 12), data_range=(-128, 127),
    )  # fmt: skip
    return LayerBits(**fields | changed)


def _made_up(layers: list[LayerBits], **keywords) -> MadeUp:
    return MadeUp({layer.name: bitfold.Arithmetic() for layer in layers}, **keywords)


def _least(found) -> dict[str, tuple[int, int]]:
    return {choice.name: (choice.width, choice.shift) for choice in found.choices}


@pytest.mark.parametrize("sign", [1, -1])
def test_the_narrowest_of_each_layer(sign):
    """Found exactly where each layer costs nothing down to a width of its own, and much below."""
    rng = np.random.default_rng(1)
    layers = [_layer(f"layer{i}", int(rng.integers(14, 24))) for i in range(7)]
    true = {layer.name: layer.needed - int(rng.integers(0, 5)) for layer in layers}
    metric = Metric(lambda name, width, _: 0.01 * max(true[name] - width, 0), sign)
    found = narrowest(
        _made_up(layers), layers, metric, larger_is_better=sign > 0, most_evaluations=1000
    )
    assert _least(found) == {name: (width, 0) for name, width in true.items()}
    assert found.reference == found.metric == sign * 0.9
    assert found.evaluations == metric.calls
    assert found.metric_loss == 0.005
    assert found.arithmetic["layer3"] == bitfold.Arithmetic(accumulator_size=true["layer3"])


def test_what_is_saved_counts():
    """Of two layers that hurt alike, the one with more multiply-adds gets narrower."""
    layers = [_layer("small", 20, multiply_adds=10), _layer("large", 20, multiply_adds=10**6)]
    layers = [*layers, _layer("middle", 20, multiply_adds=1000)]
    metric = Metric(lambda _, width, __: 0.001 * max(20 - width, 0))
    found = narrowest(_made_up(layers), layers, metric, metric_loss=0.005)
    assert _least(found) == {"small": (20, 0), "large": (15, 0), "middle": (20, 0)}


def test_tens_of_evaluations():
    """For a network of 50 layers whose cost is hard to guess."""
    rng = np.random.default_rng(3)
    layers = [
        _layer(f"layer{i}", int(rng.integers(17, 24)), multiply_adds=int(10 ** rng.uniform(4, 7)))
        for i in range(50)
    ]
    worth = {layer.name: 10 ** rng.uniform(-5, -2) for layer in layers}
    needed = {layer.name: layer.needed for layer in layers}

    def cost(name: str, width: int, _: int) -> float:
        depth = max(needed[name] - width, 0)
        return worth[name] * (math.exp(depth) - 1)

    def price(widths) -> float:
        return sum(layer.multiply_adds * w for layer, w in zip(layers, widths, strict=True))

    metric = Metric(cost)
    found = narrowest(_made_up(layers), layers, metric, metric_loss=0.05)
    assert found.evaluations == metric.calls <= 60
    assert found.metric >= 0.85 - 1e-9
    start = price(layer.needed for layer in layers)
    chosen = price(choice.width for choice in found.choices)
    alike = max(d for d in range(6) if sum(cost(n, needed[n] - d, 0) for n in needed) <= 0.05)
    together = price(layer.needed - alike for layer in layers)
    assert chosen < together <= start


def test_a_bound_of_evaluations():
    """Ends with what it has; a result takes one in any case."""
    layers = [_layer(f"layer{i}", 18) for i in range(9)]
    metric = Metric(lambda _, width, __: 0.1 * (width < 18))
    found = narrowest(_made_up(layers), layers, metric, most_evaluations=1)
    assert found.evaluations == metric.calls == 2
    assert set(_least(found).values()) == {(18, 0)}


def test_shifts():
    """Room that a shift makes is taken where it costs less than width."""
    layers = [_layer("a", 20), _layer("b", 20)]
    tolerated = {"a": 3, "b": 0}

    def cost(name: str, width: int, shift: int) -> float:
        return 0.1 * max(20 - width - shift, 0) + 0.1 * max(shift - tolerated[name], 0)

    keywords = dict(shifts=(1, 2, 3, 4), most_evaluations=1000)
    found = narrowest(_made_up(layers), layers, Metric(cost), **keywords)
    assert _least(found) == {"a": (17, 3), "b": (20, 0)}
    assert found.arithmetic["a"] == bitfold.Arithmetic(accumulator_size=17, mult_shift=3)
    # What a layer's requantisation cannot take back is not asked for.
    network = _made_up(layers, most_shift={"a": 2})
    assert _least(narrowest(network, layers, Metric(cost), **keywords))["a"] == (18, 2)


def test_proven_widths():
    """Are said to be proven where no wider than what was measured, with a shift, too."""
    layers = [_layer("a", 20, proven=20), _layer("b", 20), _layer("c", 20, proven=17)]
    true = {"a": 20, "b": 20, "c": 16}
    metric = Metric(lambda name, width, _: 0.1 * max(true[name] - width, 0))
    found = narrowest(_made_up(layers), layers, metric)
    proven = {c.name: (c.width, c.is_proven) for c in found.choices}
    assert proven == {"a": (20, True), "b": (20, False), "c": (16, False)}

    def bounds(name: str, shift: int) -> Bounds:
        return Bounds(np.array([9, 21 - shift]), 12, (), ())

    metric = Metric(lambda _, width, shift: 0.1 * max(20 - width - shift, 0))
    found = narrowest(_made_up(layers), layers, metric, shifts=(0, 1), bounds=bounds)
    # The rounding of one bit is dearer to "b" here than the width of 20 that it has.
    assert all(isinstance(c.is_proven, bool) for c in found.choices)
    assert all(c.is_proven == (c.width >= 21 - c.shift) for c in found.choices)
    assert [c.width + c.shift for c in found.choices] == [20, 20, 20]


def test_data_beyond_what_was_seen():
    """Widths that were right on what was seen are not enough: those that are proven are."""
    layers = [_layer("a", 15), _layer("b", 15)]
    metric = Metric(lambda _, width, __: 0.1 * max(17 - width, 0))
    found = narrowest(_made_up(layers), layers, metric)
    assert _least(found) == {"a": (17, 0), "b": (17, 0)}


def test_channels_guess_better():
    """A layer of which one channel alone is wide is narrowed before one that is wide throughout."""
    layers = [_layer("even", 20), _layer("uneven", 20)]

    def channel(extreme: int) -> ChannelBits:
        return ChannelBits(0, bits_of(-extreme, extreme), 20, 24, 24, -extreme, extreme, 0, 0)

    channels = {
        "even": [channel(2**19 - 1)] * 4,
        "uneven": [channel(2**19 - 1), *[channel(2**12)] * 3],
    }
    tried = []

    def evaluate(network: MadeUp) -> float:
        sizes = {name: a.accumulator_size for name, a in network.arithmetics.items()}
        tried.append(sizes)
        return 1.0 if sizes == {"even": 20, "uneven": 17} or None in sizes.values() else 0.0

    found = narrowest(_made_up(layers), layers, evaluate, widths=(17, 20), channels=channels)
    assert _least(found)["uneven"] == (17, 0)
    assert len(tried) <= 4


def test_a_sample_only_rejects():
    """What it takes is measured on all data; what it loses far too much on is not."""
    layers = [_layer("a", 20), _layer("b", 20)]
    full = Metric(lambda name, width, _: 0.1 * max(20 - width, 0) * (name == "a"))
    sample = Metric(lambda name, width, _: 0.1 * max(18 - width, 0) * (name == "b"))
    lines = []
    found = narrowest(
        _made_up(layers), layers, full, sample=sample, progress=lines.append, most_evaluations=1000
    )
    assert _least(found) == {"a": (20, 0), "b": (18, 0)}
    assert found.evaluations == full.calls + sample.calls
    assert full.calls < sample.calls
    # Full width on all data and on the sample; of the others a line each.
    assert len(lines) == sample.calls
    assert lines[0] == "evaluation 1: 0.9 at full width"
    assert any(line.endswith("too much lost on the sample") for line in lines)
    assert any(line.endswith(" at 19.00 bits, within the bound") for line in lines)


def test_no_number_is_a_loss():
    """A metric that overflows does not pass."""
    layers = [_layer("a", 20)]
    metric = Metric(lambda _, width, __: math.nan if width < 19 else 0.0)
    assert _least(narrowest(_made_up(layers), layers, metric)) == {"a": (19, 0)}


def test_a_loss_at_the_bound_is_within():
    """Whatever the subtraction of two metrics rounds."""
    layers = [_layer("a", 20)]
    metric = Metric(lambda _, width, __: 0.005 * (width < 99) - 0.045)
    found = narrowest(_made_up(layers), layers, metric)
    assert 0.945 - 0.94 > 0.005
    assert found.choices[0].width == 8


@pytest.mark.parametrize(
    ("keywords", "text"),
    [
        (dict(metric_loss=-0.1), "metric_loss >= 0, got -0.1"),
        (dict(metric_loss=math.nan), "metric_loss >= 0, got nan"),
        (dict(widths=()), r"widths of 0 to 32, got \[\]"),
        (dict(widths=range(30, 34)), "widths of 0 to 32"),
        (dict(shifts=(-1,)), r"shifts of 0 to 31, got \[-1, 0\]"),
        (dict(widths=range(12, 16)), "more than 15 bits and a loss of 0.005, got 0.4"),
    ],
)
def test_refusals(keywords, text):
    """Of numbers that cannot be used, and of widths that are too few."""
    layers = [_layer("a", 20)]
    metric = Metric(lambda _, width, __: 0.1 * max(20 - width, 0))
    with pytest.raises(ValueError, match=text):
        narrowest(_made_up(layers), layers, metric, **keywords)


def test_refusals_of_networks():
    """Without a layer, and without a metric to start from."""
    with pytest.raises(ValueError, match="Need a layer with an accumulator"):
        narrowest(MadeUp({}), [], Metric(lambda *_: 0.0))
    with pytest.raises(ValueError, match="finite metric at full width, got nan"):
        narrowest(_made_up([_layer("a", 20)]), [_layer("a", 20)], lambda _: math.nan)


def test_which_metrics_are_better_larger():
    """As Keras says; of a function of one's own nothing is known."""
    assert is_larger_better(None)
    assert is_larger_better("accuracy")
    assert is_larger_better(keras.metrics.TopKCategoricalAccuracy(k=3))
    assert not is_larger_better("mean_squared_error")
    assert not is_larger_better(keras.metrics.SparseCategoricalCrossentropy())
    with pytest.raises(ValueError, match="Need larger_is_better for a metric"):
        is_larger_better(lambda y, p: y - p)


def _studied(network: bitfold.Network, x: np.ndarray) -> list[LayerBits]:
    """Return what the search asks of layers, from the sums of some images."""
    sums = network.accumulators(x)
    steps = {step.node.operator.position: step for step in network._steps}
    found = []
    for layer in network.layers:
        if isinstance(steps[layer.position], SummingStep):
            bounds = layer_bounds(steps[layer.position], -128, 127)
            seen = sums[layer.position]
            bits, proven = bits_of(int(seen.min()), int(seen.max())), int(bounds.bits.max())
            found.append(
                LayerBits(
                    layer.position, layer.name, layer.operator, layer.multiply_adds,
                    len(bounds.bits), seen.size, bits, bits, proven, proven,
                    bounds.harmless_from, (-128, 127),
                )
            )  # fmt: skip
    return found


def test_a_network():
    """End to end: the widths seen are right, and what is chosen has the metric that it says."""
    keras.utils.set_random_seed(4)
    model = keras.Sequential([
        keras.Input((8, 8, 3)),
        keras.layers.Conv2D(8, 3, activation="relu", name="first"),
        keras.layers.DepthwiseConv2D(3, name="second"),
        keras.layers.Flatten(),
        keras.layers.Dense(5, name="third"),
    ])  # fmt: skip
    x = np.random.default_rng(2).normal(size=(64, 8, 8, 3)).astype(np.float32)
    network = bitfold.Network.from_keras(model, calibration=x)
    labels = network.predict(x).argmax(1)
    layers = _studied(network, x)
    starts = {
        layer.name: bitfold.Arithmetic(accumulator_size=max(layer.needed, layer.harmless_from))
        for layer in layers
    }
    assert network.with_arithmetic(starts).evaluate(x, labels) == 1.0
    keywords = dict(metric_loss=0.1, shifts=range(3), images=64)
    found = narrowest(network, layers, lambda n: n.evaluate(x, labels), **keywords)
    assert found.metric >= 0.9
    assert network.with_arithmetic(found.arithmetic).evaluate(x, labels) == found.metric
    assert all(c.width <= starts[c.name].accumulator_size for c in found.choices)
    assert any(c.width < starts[c.name].accumulator_size for c in found.choices)


def test_a_study_searches_by_its_own_metric():
    """A smaller loss is better; where nothing says so, nothing is searched."""
    keras.utils.set_random_seed(4)
    model = keras.Sequential([keras.Input((6,)), keras.layers.Dense(3, name="dense")])
    x = np.random.default_rng(2).normal(size=(40, 6)).astype(np.float32)
    y = model.predict(x, verbose=0)
    network = bitfold.Network.from_keras(model, calibration=x)
    study = bitfold.study(network, x, y, metric="mean_squared_error")
    found = study.narrowest(2.0**-10)
    assert found.metric <= found.reference + 2.0**-10
    assert found.choices[0].width > 8
    found = study.narrowest(1000.0)
    assert found.reference < found.metric <= 1000.0
    # Whatever the metric, no narrower: one wrap would not bring every product back.
    assert found.choices[0].width == 15
    assert study.narrowest(1000.0, shifts=[2]).choices[0].width == 13
    with pytest.raises(ValueError, match=r"widths of 15 and more, .* 'dense' back, got \[3, 4\]"):
        study.narrowest(1000.0, widths=(3, 4))
    with pytest.raises(TypeError, match="widths as numbers in a list or a range, got 16"):
        study.narrowest(widths=16)
    study = bitfold.study(network, x, y, metric=lambda y, p: keras.ops.mean(y - p, axis=-1))
    with pytest.raises(ValueError, match="Need larger_is_better"):
        study.narrowest()
    assert study.narrowest(0.5, larger_is_better=False).choices
