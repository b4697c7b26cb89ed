# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The narrowest accumulators with which a metric stays within a bound.

1. Each layer starts at the width that holds every sum seen, where no wrap on the way matters: there
   the network is that of full width on what was seen.
2. All steps of all layers, a width down each, are put into one order: the least guessed harm for
   the multiply-adds times bits that they save first (`ladders`). Bisection finds how far along this
   order the metric stays within the bound: without shifts, and with those that are guessed to be
   best.
3. From there on steps are measured by groups; a group that costs too much is split, and a step that
   does by itself is left out. That ends where no step is left, or with the evaluations.

Every state that is kept has been measured end to end on all data. A sample only rejects.
"""

from __future__ import annotations

import math
import operator
import time
from collections import Counter
from collections.abc import Callable, Iterable, Mapping, Sequence
from typing import Any

import numpy as np

from bitfold.network import Arithmetic, Network, evaluation
from bitfold.studies.bounds import WIDEST, Bounds
from bitfold.studies.ladders import Ladder, by_price, ladder, prices, unshifted
from bitfold.studies.records import ChannelBits, Choice, LayerBits, Narrowest
from bitfold.studies.trials import Evaluate, State, Trials

# Steps that are measured together at first.
_GROUP = 8

# From a layer's name and a shift to what is proven of it.
BoundsOf = Callable[[str, int], Bounds]
# Where a layer stands: a rung of its ladder, and the place of one of its shifts.
Place = tuple[int, int]


def narrowest(
    network: Network,
    layers: Sequence[LayerBits],
    evaluate: Evaluate,
    *,
    metric_loss: float = 0.005,
    widths: Iterable[int] = range(8, 33),
    shifts: Iterable[int] = (0,),
    larger_is_better: bool = True,
    channels: Mapping[str, Sequence[ChannelBits]] | None = None,
    bounds: BoundsOf | None = None,
    images: int = 1,
    sample: Evaluate | None = None,
    most_evaluations: int = 60,
    progress: Callable[[str], None] | None = None,
) -> Narrowest:
    """Search the narrowest width, or width and shift, for each layer.

    A width is proven where no input can give a wrong sum. Where that is as narrow as what measuring
    allows it is what a layer gets; a wider one is not taken for the proof alone.

    Args:
        network: whatever its layers with an accumulator compute in: the search is about exact sums
            and narrower ones, requantised by the model's rule. Its other layers stay as they are.
        layers: those with an accumulator, in the file's order.
        evaluate: from a network to its metric.
        metric_loss: by how much the metric may be worse than at full width, at least 0.
        widths: to choose from, 0 to 32.
        shifts: to choose from, 0 to 31; 0 is always among them.
        larger_is_better: whether a larger metric is better; else, as with a loss, a smaller one.
        channels: by the name of a layer those of its channels, which make better guesses.
        bounds: from the name of a layer and a shift to what is proven; by default what `layers`
            say, and nothing with a shift.
        images: that the sums of `layers` were counted over.
        sample: as `evaluate`, on a part of the data. It can only reject.
        most_evaluations: with which the search ends, those of samples among them, as soon as it has
            a result.
        progress: takes a line after each evaluation.

    Returns:
        What was found, measured end to end.

    Raises:
        TypeError: for widths or shifts that are no whole numbers in a list or a range.
        ValueError: for numbers that cannot be used, widths in which one wrap does not bring every
            product of a layer back (`Bounds.products_from`), a metric at full width that is none,
            and where the widths do not reach far enough for the bound.

    Example:
        >>> import bitfold, keras, numpy as np
        >>> from bitfold.studies.records import LayerBits
        >>> model = keras.Sequential([keras.Input((4,)), keras.layers.Dense(2, name="dense")])
        >>> x = np.linspace(-1, 1, 80, dtype=np.float32).reshape(20, 4)
        >>> network = bitfold.Network.from_keras(model, calibration=x)
        >>> labels = np.argmax(network.predict(x), axis=1)
        >>> sums = dict(needed=17, on_the_way=17, proven=18, proven_for_range=18, harmless_from=15)
        >>> sums |= dict(sums=40, data_range=(-128, 127))
        >>> dense = LayerBits(0, "dense", "FULLY_CONNECTED", multiply_adds=8, channels=2, **sums)
        >>> found = narrowest(network, [dense], lambda narrow: narrow.evaluate(x, labels))
        >>> found.reference, found.metric >= 0.995, found.choices[0].width <= 17
        (1.0, True, True)
    """
    begin = time.monotonic()
    widths, shifts = _numbers("widths", widths, WIDEST), _numbers("shifts", shifts, 31, (0,))
    if not (math.isfinite(metric_loss) and metric_loss >= 0):
        raise ValueError(f"Need metric_loss >= 0, got {metric_loss}")
    if not layers:
        raise ValueError("Need a layer with an accumulator, got none")
    bounds = bounds or _bounds_by(layers)
    network = network.with_arithmetic({layer.name: Arithmetic() for layer in layers})
    possible = _possible_shifts(network, [layer.name for layer in layers], shifts, max(widths))
    proven = [
        {shift: bounds(layer.name, shift) for shift in possible[layer.name]} for layer in layers
    ]
    for layer, by_shift in zip(layers, proven, strict=True):
        _need_room_for_products(layer.name, by_shift, widths)
    trials = Trials(
        network,
        layers,
        evaluate,
        metric_loss=metric_loss,
        larger_is_better=larger_is_better,
        sample=sample,
        most=most_evaluations,
        progress=progress,
    )
    seen = [max(layer.needed, layer.harmless_from) for layer in layers]
    # Wide enough for whatever comes, where `evaluate` has other data than was seen.
    safe = [max(width, layer.proven) for width, layer in zip(seen, layers, strict=True)]
    for start in (seen, safe):
        ladders = [
            ladder(
                layer,
                (channels or {}).get(layer.name, ()),
                widths,
                {shift: bound.harmless_from for shift, bound in by_shift.items()},
                images,
                first,
                {shift: bound.products_from for shift, bound in by_shift.items()},
            )
            for layer, by_shift, first in zip(layers, proven, start, strict=True)
        ]
        places = _along_the_order(trials, ladders)
        if places is not None:
            _by_groups(trials, ladders, places)
            break
    else:
        raise ValueError(
            f"Need widths or a metric_loss that allow more than {max(widths)} bits and a loss of "
            f"{metric_loss}, got {trials.last} after {trials.reference} at full width"
        )
    return Narrowest(
        metric_loss=metric_loss,
        reference=trials.reference,
        metric=trials.metric,
        choices=tuple(
            Choice(layer.name, width, shift, _is_proven(bounds(layer.name, shift), width))
            for layer, (width, shift) in zip(layers, trials.kept, strict=True)
        ),
        evaluations=trials.count,
        seconds=time.monotonic() - begin,
    )


def is_larger_better(metric: Any) -> bool:
    """Return whether a larger metric is better, as it says itself.

    Args:
        metric: what `Network.evaluate` takes.

    Raises:
        ValueError: for one that does not say.

    Example:
        >>> is_larger_better(None), is_larger_better("mean_squared_error")
        (True, False)
    """
    made = evaluation.metric_of(metric)
    if isinstance(made, evaluation.Accuracy):
        return True
    direction = getattr(made, "_direction", None)
    if direction not in ("up", "down"):
        raise ValueError(
            f"Need larger_is_better for a metric that does not say it, got {metric!r} without"
        )
    return direction == "up"


# ---- The search --------------------------------------------------------------------------------


def _along_the_order(trials: Trials, ladders: Sequence[Ladder]) -> list[Place] | None:
    """Go down in the order of guesses as far as the metric allows: without shifts, and with them.

    Returns:
        Where each layer stands, of both what saves more; None where the metric allows nothing.
    """
    best = None
    for rungs in ([unshifted(rungs) for rungs in ladders], ladders):
        order = by_price(rungs)
        kept, rejected = -1, len(order) + 1
        while rejected - kept > 1:
            if trials.is_over and trials.kept is not None:
                break
            # The first rungs are right on what was seen, so they are measured last.
            middle = 0 if trials.is_over else max((kept + rejected) // 2, 0)
            taken = Counter(order[:middle])
            depths = [taken[index] for index in range(len(rungs))]
            state = _state(rungs, [(depth, 0) for depth in depths])
            if not trials.accepts(state):
                rejected = middle
                continue
            kept = middle
            if trials.kept == state:
                best = [
                    (depth, ladder[depth].shifts.index(shift))
                    for ladder, depth, (_, shift) in zip(ladders, depths, state, strict=True)
                ]
    return best


def _by_groups(trials: Trials, ladders: Sequence[Ladder], places: list[Place]) -> None:
    """Take what further steps the metric allows, those of one group together."""
    # With which of its shifts a layer's next rung is tried.
    turns = [0] * len(ladders)
    closed: set[int] = set()

    def price(i: int) -> float:
        return prices(ladders[i])[places[i][0]]

    def attempt(group: list[int]) -> None:
        if trials.is_over:
            return
        further = list(places)
        for i in group:
            further[i] = (places[i][0] + 1, turns[i])
        if trials.accepts(_state(ladders, further)):
            places[:] = further
            for i in group:
                turns[i] = 0
        elif len(group) > 1:
            half = len(group) // 2
            attempt(group[:half])
            attempt(group[half:])
        elif turns[group[0]] + 1 < len(ladders[group[0]][further[group[0]][0]].shifts):
            turns[group[0]] += 1
            attempt(group)
        else:
            closed.add(group[0])

    while not trials.is_over:
        ready = [i for i, (depth, _) in enumerate(places) if depth + 1 < len(ladders[i])]
        ready = sorted((i for i in ready if i not in closed), key=price)
        if not ready:
            return
        for first in range(0, len(ready), _GROUP):
            attempt(ready[first : first + _GROUP])


def _state(ladders: Sequence[Ladder], places: Sequence[Place]) -> State:
    """Return the width and the shift of each layer."""
    rungs = [(ladder[depth], turn) for ladder, (depth, turn) in zip(ladders, places, strict=True)]
    return tuple((rung.width, rung.shifts[turn]) for rung, turn in rungs)


# ---- What it is given --------------------------------------------------------------------------


def _numbers(
    what: str, given: Iterable[int], most: int, always: Iterable[int] = ()
) -> tuple[int, ...]:
    """Return bits in ascending order, each once."""
    if not isinstance(given, Iterable):
        raise TypeError(f"Need {what} as numbers in a list or a range, got {given!r}")
    numbers = tuple(sorted({operator.index(number) for number in (*always, *given)}))
    if not numbers or numbers[0] < 0 or numbers[-1] > most:
        raise ValueError(f"Need {what} of 0 to {most}, got {list(numbers)}")
    return numbers


def _need_room_for_products(
    name: str, by_shift: Mapping[int, Bounds], widths: Sequence[int]
) -> None:
    """Raise ValueError where sums would be no numbers of so few bits, however good the metric."""
    least = min(bound.products_from for bound in by_shift.values())
    if max(widths) < least:
        raise ValueError(
            f"Need widths of {least} and more, so that one wrap brings every product of layer "
            f"{name!r} back, got {list(widths)}"
        )


def _bounds_by(layers: Sequence[LayerBits]) -> BoundsOf:
    """Return what is known of layers without their weights."""
    known = {layer.name: layer for layer in layers}

    def bounds(name: str, shift: int) -> Bounds:
        bits = WIDEST + 1 if shift else known[name].proven
        return Bounds(np.array([bits]), known[name].harmless_from, (), ())

    return bounds


def _is_proven(bounds: Bounds, width: int) -> bool:
    """Return whether no input can give a wrong sum."""
    return width >= int(bounds.bits.max())


def _possible_shifts(
    network: Network, names: Sequence[str], shifts: Sequence[int], width: int
) -> dict[str, list[int]]:
    """Return the shifts that each layer's requantisation can take back."""
    possible: dict[str, list[int]] = {name: [] for name in names}

    def add(some: Sequence[str], arithmetic: Arithmetic) -> None:
        try:
            network.with_arithmetic(dict.fromkeys(some, arithmetic))
        except ValueError:
            if len(some) > 1:
                half = len(some) // 2
                add(some[:half], arithmetic)
                add(some[half:], arithmetic)
            return
        for name in some:
            possible[name].append(arithmetic.mult_shift)

    for shift in shifts:
        if shift:
            add(names, Arithmetic(accumulator_size=width, mult_shift=shift))
        else:
            for name in names:
                possible[name].append(0)
    return possible
