# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The arithmetics in which a layer has sums of one shift, all compared with the same exact ones."""

from __future__ import annotations

import dataclasses
from collections.abc import Mapping, Sequence

import numpy as np
import tensorflow as tf

from bitfold.network import Arithmetic
from bitfold.network.operators import SummingStep
from bitfold.studies.finals import Inputs
from bitfold.studies.records import Counts
from bitfold.studies.settings import exact
from bitfold.studies.wraps import Method, Wraps, counts_of, harmless_from, wraps_of


def key_of(arithmetic: Arithmetic) -> str:
    """Return a name of what sums are formed in, the same for arithmetics with the same sums."""
    width = "exact" if arithmetic.accumulator_size is None else arithmetic.accumulator_size
    return f"{width}/{arithmetic.mult_shift}{'/half' if arithmetic.use_fp16_acc else ''}"


@dataclasses.dataclass(frozen=True, eq=False)
class Group:
    """What a layer's sums of one shift are compared with.

    Attributes:
        shift: of every addend.
        reference: the layer at full width with this shift.
        wraps: by the name of the arithmetic of the sums.
    """

    shift: int
    reference: SummingStep
    wraps: Mapping[str, Wraps]

    @property
    def widths(self) -> list[int]:
        """The widths, each once."""
        return sorted({wraps.width for wraps in self.wraps.values()})

    @property
    def ends(self) -> list[int]:
        """Those in which a sum is wrong exactly where it ends outside."""
        return sorted({w.width for w in self.wraps.values() if w.method is Method.COUNT})

    @property
    def channels(self) -> list[int]:
        """The output channels of which a partial sum may be outside of one of the widths."""
        return sorted({c for wraps in self.wraps.values() for c in wraps.channels})

    # ---- Of final sums ---------------------------------------------------------------------------

    def ended(self, inputs: Inputs, outside: tf.Tensor | None) -> dict[str, tf.Tensor]:
        """Return what `wrong` needs of a batch.

        Args:
            inputs: of the layer.
            outside: int64 [ends, channels], how many sums end outside of each width.
        """
        seen = {}
        if self.ends:
            seen[f"ends/{self.shift}"] = tf.reduce_sum(outside, 1)
        compared = {key: wraps.step for key, wraps in self.wraps.items() if wraps.needs_sums}
        if compared:
            exact_sums = self.reference.sums(inputs)
            for key, step in compared.items():
                seen[f"wrong/{key}"] = number_of_differences(step.sums(inputs), exact_sums)
        return seen

    def wrong(self, sums: int, values: Mapping[str, np.ndarray]) -> dict[str, Counts]:
        """Return how many of a batch's sums are wrong, by arithmetic; partial sums nobody saw."""
        found = {}
        for key, wraps in self.wraps.items():
            if wraps.needs_sums:
                wrong = values[f"wrong/{key}"]
            else:
                wrong = values[f"ends/{self.shift}"][self.ends.index(wraps.width)]
            found[key] = Counts(sums, int(wrong), looked_at=0)
        return found

    # ---- Of partial sums -------------------------------------------------------------------------

    def seen(self, inputs: Inputs, counts: tf.Tensor, first: tf.Tensor) -> dict[str, tf.Tensor]:
        """Return what `counts` needs of a batch."""
        if not self.wraps:
            return {}
        seen = {f"counts/{self.shift}": counts, f"first/{self.shift}": first}
        exact = None
        if any(wraps.needs_sums for wraps in self.wraps.values()):
            exact = self.reference.sums(inputs)
        for key, wraps in self.wraps.items():
            if wraps.needs_sums:

                def differs(step: SummingStep = wraps.step) -> tf.Tensor:
                    return differ(step.sums(inputs), exact)

                of_width = counts[self.widths.index(wraps.width)]
                seen[f"compared/{key}"] = wraps.compared(inputs, of_width, differs)
        return seen

    def counts(self, sums: int, values: Mapping[str, np.ndarray]) -> dict[str, Counts]:
        """Return what became of a batch's sums, by arithmetic."""
        found = {}
        for key, wraps in self.wraps.items():
            place = self.widths.index(wraps.width)
            found[key] = counts_of(
                sums,
                values[f"counts/{self.shift}"][place],
                values[f"first/{self.shift}"][place],
                values.get(f"compared/{key}"),
            )
        return found


def groups_of(step: SummingStep, asked: Sequence[SummingStep]) -> list[Group]:
    """Return what a layer's sums are compared with by shift; always those without a shift."""
    groups = []
    for shift in sorted({0} | {other.arithmetic.mult_shift for other in asked}):
        reference = at_full_width(step, shift)
        harmless = harmless_from(reference)
        chosen = {
            key_of(other.arithmetic): wraps_of(other, reference, harmless)
            for other in asked
            if other.arithmetic.mult_shift == shift
        }
        wraps = {key: wraps for key, wraps in chosen.items() if wraps.method is not Method.NOTHING}
        if wraps or shift == 0:
            groups.append(Group(shift, reference, wraps))
    return groups


def at_full_width(step: SummingStep, shift: int) -> SummingStep:
    """Return a step that has exact sums of shifted addends."""
    if step.arithmetic == exact(step.arithmetic, shift):
        return step
    return type(step)(step.node, exact(step.arithmetic, shift))


def differ(sums: tf.Tensor, exact: tf.Tensor) -> tf.Tensor:
    """Return which sums are wrong; floats hold whole numbers."""
    return tf.cast(sums, tf.int64) != tf.cast(exact, tf.int64)


def number_of_differences(sums: tf.Tensor, exact: tf.Tensor) -> tf.Tensor:
    """Return how many sums are wrong."""
    return tf.math.count_nonzero(differ(sums, exact))
