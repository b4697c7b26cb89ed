# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What a study counts of single layers: against the plain definition, addend by addend."""

from __future__ import annotations

import chains
import layer_files
import numpy as np
import packed
import plain_sums
import pytest
from witness import Witness

import bitfold
from bitfold.studies.records import Counts

A = bitfold.Arithmetic
HALF_WEIGHTS = ("DEPTHWISE_CONV_2D", "BATCH_MATMUL")


def expected_counts(sums: np.ndarray, arithmetic: A, kind: str, is_wide: bool) -> Counts:
    """Return what becomes of a layer's sums, lists of addends, in an arithmetic."""
    wrong = right_again = outside = 0
    first = []
    width = 16 if arithmetic.use_fp16_acc else arithmetic.accumulator_size
    limit = None if width is None else 2 ** (width - 1)
    for chain in sums.reshape(-1):
        if limit is None:
            continue
        partial = chains.partial_sums(chain, arithmetic.mult_shift)
        left = [k for k, p in enumerate(partial, 1) if not -limit <= p < limit]
        exact = partial[-1] if partial else 0
        if not is_wide:  # full width is an accumulator of 32 bits itself
            exact = (exact + 2**31) % 2**32 - 2**31
        found = chains.accumulated(chain, arithmetic, kind in HALF_WEIGHTS)
        wrong += found != exact
        right_again += found == exact and bool(left)
        outside += len(left)
        first += left[:1]
    return Counts(sums.size, wrong, right_again, outside, min(first, default=0))


def bits(low: int, high: int) -> int:
    """Return the least width that holds both."""
    return next(w for w in range(1, 99) if -(2 ** (w - 1)) <= low and high < 2 ** (w - 1))


def check(case: packed.Case, arithmetics: list[A], images: int = 2, batch_size=None) -> int:
    """Study a layer, and compare every number; return how many sums came right again."""
    file, data = Witness(case.content), packed.stored_values(case, images)
    known = dict(zip(file.inputs, data, strict=True))
    sums = plain_sums.plain_sums(file, 0, known, chains.ChainOps())
    network = bitfold.Network.from_tflite(case.content)
    named = {str(i): arithmetic for i, arithmetic in enumerate(arithmetics)}
    given = data if len(data) > 1 else data[0]
    study = bitfold.study(network, given, arithmetics=named, batch_size=batch_size)
    (layer,) = study.layers
    _check_bits(study, layer, sums)
    is_wide = data[0].dtype == np.int16
    healed = 0
    for arithmetic, result in zip(arithmetics, study.results, strict=True):
        expected = expected_counts(sums, arithmetic, layer.operator, is_wide)
        (found,) = result.layers
        assert found.alone == expected, (arithmetic, case.label)
        assert found.end_to_end == expected, (arithmetic, case.label)
        assert found.out_of_bounds == 0 or arithmetic.use_fp16_acc
        healed += expected.right_again
    return healed


def _check_bits(study: bitfold.Study, layer, sums: np.ndarray) -> None:
    channels = study.channels(layer.name)
    assert len(channels) == layer.channels == sums.shape[-1]
    assert layer.sums == sums.size
    for c, channel in enumerate(channels):
        partial = [chains.partial_sums(chain, 0) or [0] for chain in sums[..., c].reshape(-1)]
        final = [chain[-1] for chain in partial]
        every = [p for chain in partial for p in chain]
        assert (channel.smallest_sum, channel.largest_sum) == (min(final), max(final))
        assert channel.smallest_partial_sum == min(every)
        assert channel.largest_partial_sum == max(every)
        assert channel.needed == bits(min(final), max(final))
        assert channel.on_the_way == bits(min(every), max(every))
    for name in ("needed", "on_the_way", "proven", "proven_for_range"):
        assert getattr(layer, name) == max(getattr(channel, name) for channel in channels)


WINDOWS = dict(
    padding="SAME", stride_h=1, stride_w=2, dilation_h_factor=1, dilation_w_factor=1
)  # fmt: skip
LAYERS = {
    "convolution": ("CONV_2D", dict(data=[1, 4, 3, 3], filter=[5, 3, 3, 3], output=[1, 4, 2, 5]),
                    WINDOWS),
    "dilated": ("CONV_2D", dict(data=[1, 6, 5, 2], filter=[3, 2, 2, 2], output=[1, 4, 4, 3]),
                WINDOWS | dict(padding="VALID", stride_w=1, dilation_h_factor=2)),
    "strided": ("CONV_2D", dict(data=[1, 7, 7, 2], filter=[3, 3, 3, 2], output=[1, 3, 3, 3]),
                WINDOWS | dict(stride_h=3, stride_w=3)),
    "grouped": ("CONV_2D", dict(data=[1, 4, 3, 6], filter=[4, 2, 2, 3], output=[1, 4, 2, 4]),
                WINDOWS),
    "depthwise": ("DEPTHWISE_CONV_2D", dict(data=[1, 4, 4, 3], filter=[1, 3, 2, 6],
                  output=[1, 4, 2, 6]), WINDOWS | dict(depth_multiplier=2)),
    "dense": ("FULLY_CONNECTED", dict(data=[1, 40], filter=[7, 40], output=[1, 7]), {}),
    "transposed": ("TRANSPOSE_CONV", dict(data=[1, 3, 3, 2], filter=[4, 3, 3, 2],
                   output=[1, 6, 6, 4]), dict(padding="SAME", stride_h=2, stride_w=2)),
}  # fmt: skip
# Where sums fit, leave and return, end outside; where addends are above 2^w; where weights change
# their sign; shifted so that halves occur; in half precision.
ARITHMETICS = [
    A(32), A(20), A(17), A(16), A(15), A(14), A(13), A(11), A(9), A(8), A(5), A(2), A(1),
    A(17, 1), A(14, 2), A(12, 3), A(9, 5), A(8, 9), A(4, 12), A(24, 30), A(), A(mult_shift=3),
    A(use_fp16_acc=True), A(use_fp16_acc=True, mult_shift=2), A(use_fp16_acc=True, mult_shift=6),
    A(10, use_fp16_acc=True),
]  # fmt: skip


def layer(name: str, dtype: str = "int8", **keywords) -> packed.Case:
    """Return a layer; its multiplier is so small that shifts leave its exponents in range."""
    kind, shapes, options = LAYERS[name]
    return layer_files.layer(
        kind, dtype=dtype, options=options, multiplier=2.0**-31 * 1.5, **shapes, **keywords
    )


@pytest.mark.parametrize("dtype", ["int8", "int16"])
@pytest.mark.parametrize("name", LAYERS)
def test_counts_of_layers(name, dtype):
    """In every arithmetic, both alone and end to end, which of one layer are the same."""
    assert check(layer(name, dtype), ARITHMETICS) > 0
