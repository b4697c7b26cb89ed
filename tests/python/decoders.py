# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The tests that hold for both box decoders; each one's file adds its own arithmetic."""

from __future__ import annotations

import itertools
import re
from collections.abc import Callable
from typing import Any

import checks
import hypothesis
import hypothesis.strategies as st
import numpy as np
import pytest
import support
import tensorflow as tf

TYPES = checks.TYPES
POSITIONS = ("detection_centers", "detection_w_h", "y_centers", "x_centers")
# Of detection_centers: batch, height, width, twice the anchors. Odd last dimensions lose one.
SHAPES = [
    (1, 1, 1, 2),
    (2, 3, 5, 6),
    (1, 17, 2, 4),
    (2, 1, 7, 18),
    (2, 3, 2, 5),
    (1, 2, 2, 1),
    (0, 2, 3, 4),
    (2, 0, 3, 4),
    (2, 3, 0, 4),
    (2, 3, 1, 0),
]
_WHAT = {
    "detection_w_h": "a pair for each anchor of each position",
    "y_centers": "a pair for each anchor of each row",
    "x_centers": "a pair for each anchor of each column",
}


def box(names: tuple[str, ...], dtype: type = np.int32, **numbers: Any) -> list[np.ndarray]:
    """Return the inputs of one anchor at one position: numbers or pairs by name, 0 by default."""
    inputs = [np.array(numbers.pop(name, (0, 0)), dtype).reshape(1, 1, 1, 2) for name in POSITIONS]
    inputs += [np.array([numbers.pop(name, 0)], dtype) for name in names]
    assert not numbers
    return inputs


class Suite:
    """What a decoder's class inherits: attributes say which decoder it is."""

    op: Callable  # the function of raw.py
    raw_op: Callable  # the generated one
    model: str  # the oracle's name
    names: tuple[str, ...]
    rank_error: str

    def check(self, reference, *inputs, **arguments):
        """Run the decoder and the oracle on the same data; compare bits and printed lines."""
        named = dict(zip((*POSITIONS, *self.names), inputs, strict=True))
        checks.compare(self.op, getattr(reference, self.model), named, **arguments)

    def shapes(self, shape: tuple[int, ...]) -> list[tuple[int, ...]]:
        """Return the shapes of all inputs for one of detection_centers."""
        anchors = shape[3] // 2
        pairs = [shape, (shape[1], 2 * anchors), (shape[2], 2 * anchors)]
        return [shape, *pairs, *[(anchors,)] * len(self.names)]

    def call(self, *, shape=(2, 3, 5, 4), mult_shift=(1,), **inputs: Any) -> tf.Tensor:
        """Run the decoder on ones of the usual shapes, or of those given, or on tensors."""
        usual = dict(zip((*POSITIONS, *self.names), self.shapes(shape), strict=True))
        return self.raw_op(
            *(checks.ones(x, np.int32) for x in {**usual, **inputs}.values()),
            checks.ones(mult_shift, np.int8),
            accumulator_size=16,
        )

    # ---- Against the oracle ----

    @pytest.mark.parametrize(
        ("dtype", "accumulator_size"), [(t, w) for t in TYPES for w in support.WIDTHS[t]]
    )
    def test_boundaries(self, dtype, accumulator_size, reference):
        """Boundary values against each other, under every shift and mode."""
        values = support.BOUNDARY[dtype]
        count = values.size // 2 * 2
        shape = (1, 4, count // 2, 4)
        for turn, (mult_shift, mode) in enumerate(itertools.product(support.SHIFTS, (False, True))):
            inputs = [
                np.resize(np.roll(values, (i + 1) * turn), size)
                for i, size in enumerate(self.shapes(shape))
            ]
            if turn % 2:
                inputs[4:] = [np.ones_like(x) for x in inputs[4:]]
            self.check(
                reference,
                *inputs,
                mult_shift=mult_shift,
                accumulator_size=accumulator_size,
                use_fp16_acc=mode,
            )

    @pytest.mark.parametrize("dtype", TYPES)
    @pytest.mark.parametrize("shape", SHAPES, ids=str)
    def test_random(self, dtype, shape, reference):
        """Random data of every magnitude, random settings; memory held other numbers before."""
        rng = np.random.default_rng([53, *shape])
        for _ in range(10):
            checks.leave_dirty_memory((*shape[:3], 2 * shape[3]), dtype)
            inputs = [support.random_values(rng, dtype, size) for size in self.shapes(shape)]
            self.check(reference, *inputs, **checks.random_settings(rng, dtype))

    @pytest.mark.parametrize("dtype", TYPES)
    @hypothesis.given(data=st.data())
    def test_property(self, dtype, data, reference):
        """Any numbers under any settings."""
        sizes = data.draw(st.tuples(*[st.integers(1, 2)] * 3, st.integers(1, 5)))
        arrays = data.draw(checks.arrays(dtype, *self.shapes(sizes)))
        self.check(reference, *arrays, **data.draw(checks.settings(dtype)))

    # ---- Shapes ----

    @pytest.mark.parametrize("dtype", TYPES)
    def test_odd_dimensions_pack(self, dtype, assert_bits):
        """Of 5 the last is not read: boxes pack at the front and the tail is 0."""
        rng = np.random.default_rng(59)
        inputs = [rng.integers(-9, 9, size).astype(dtype) for size in self.shapes((2, 3, 2, 5))]
        checks.leave_dirty_memory((2, 3, 2, 10), dtype)
        odd = self.op(*inputs).numpy()
        assert odd.shape == (2, 3, 2, 10)
        even = [x.ravel()[:48].reshape(2, 3, 2, 4) for x in inputs[:2]]
        boxes = self.op(*even, *inputs[2:]).numpy()
        assert_bits(odd.ravel()[:96], boxes.ravel())
        assert not odd.ravel()[96:].any()

    @pytest.mark.parametrize("shape", [s for s in SHAPES if 0 in s], ids=str)
    def test_empty_shapes_print_nothing(self, shape, printed):
        """Without a position or an anchor nothing is computed."""
        inputs = [np.full(size, np.inf, np.float32) for size in self.shapes(shape)]
        with printed() as text:
            result = self.op(*inputs)
        assert result.shape == (*shape[:3], 2 * shape[3])
        assert (text.out, text.err) == ("", "")

    @pytest.mark.parametrize("dtype", TYPES)
    @pytest.mark.parametrize("shape", [(1, 2, 3, 4, 5), (2, 2, 2, 8, 1, 1), (1, 1, 1, 0, 2)])
    def test_other_ranks_are_logged(self, dtype, shape, printed, assert_bits):
        """An error that names another op, zeros, and no failure; nothing else is looked at."""
        doubled = (*shape[:3], 2 * shape[3], *shape[4:])
        checks.leave_dirty_memory(doubled, dtype)
        empty = [np.zeros([0], dtype)] * (3 + len(self.names))
        with printed() as text:
            result = self.op(np.ones(shape, dtype), *empty).numpy()
        assert_bits(result, np.zeros(doubled, dtype))
        assert text.out == ""
        assert checks.logged_errors(text.err) == [self.rank_error]

    def test_other_ranks_in_a_function(self, printed):
        """Where the rank is unknown while tracing, the kernel logs; a known one is refused."""
        empty = [np.zeros([0], np.int32)] * (3 + len(self.names))

        def function(shape):
            call = tf.function(lambda x: self.op(x, *empty), autograph=False)
            return call.get_concrete_function(tf.TensorSpec(shape, tf.int32))

        with printed() as text:
            result = function(None)(tf.ones([1, 1, 1, 2, 3], tf.int32))
        assert result.shape == (1, 1, 1, 4, 3)
        assert checks.logged_errors(text.err) == [self.rank_error]
        for shape in ([1, 1, 1, 2, 3], [1, 1, 2]):
            with pytest.raises(ValueError, match="Shape must be rank 4 but is rank"):
                function(shape)

    # ---- The shape function ----

    @pytest.mark.parametrize(
        ("shape", "expected"),
        [
            ([2, 3, 5, 6], [2, 3, 5, 12]),
            ([2, 3, 5, 7], [2, 3, 5, 14]),
            ([None, 3, None, None], [None, 3, None, None]),
            (None, [None] * 4),
        ],
    )
    def test_the_rule_doubles_the_last_dimension(self, shape, expected):
        """Two numbers in, four corners out."""
        others = [None] * (3 + len(self.names))
        assert checks.inferred(self.op, shape, *others) == expected

    @pytest.mark.parametrize("rank", [0, 3, 5])
    def test_the_rule_refuses(self, rank):
        """The rule knows rank 4 alone."""
        others = [None] * (3 + len(self.names))
        text = f"Shape must be rank 4 but is rank {rank}"
        with pytest.raises(ValueError, match=re.escape(text)):
            checks.inferred(self.op, [1] * rank, *others)

    # ---- Refusals ----

    @pytest.mark.parametrize("shape", [(), (4,), (2, 4), (3, 2, 4)])
    def test_ranks_below_4_are_refused(self, shape):
        """There is no dimension 3 to double."""
        with checks.refused(f"Need detection_centers of rank 4, got rank {len(shape)}"):
            self.call(detection_centers=shape)

    def test_small_inputs_are_refused(self):
        """Each input must hold what is read of it; the error names it, what it needs and has."""
        needed = {"detection_w_h": 120, "y_centers": 12, "x_centers": 20}
        needed |= dict.fromkeys(self.names, 2)
        for name, count in needed.items():
            for shape in ((count - 1,), (1, 0)):
                what = _WHAT.get(name, "one for each anchor")
                with checks.refused(checks.too_small(name, count, what, shape)):
                    self.call(**{name: shape})
        text = (
            "Need y_centers to hold at least 12 elements (a pair for each anchor of each row), "
            "got 11 in shape [11]"
        )
        with checks.refused(text):
            self.call(y_centers=(11,))

    def test_odd_dimensions_need_less(self):
        """What the lost element would have needed is not asked for."""
        pairs = {"detection_w_h": (120,), "y_centers": (12,), "x_centers": (20,)}
        result = self.call(detection_centers=(2, 3, 5, 5), **pairs)
        assert result.shape == (2, 3, 5, 10)

    @pytest.mark.parametrize("shape", [(2, 3, 5, 4), (0, 3, 5, 4)])
    def test_empty_shifts_are_refused(self, shape):
        """Also where nothing would be computed."""
        with checks.refused(checks.empty_scalar("mult_shift", (0, 2))):
            self.call(mult_shift=(0, 2), shape=shape)

    @pytest.mark.parametrize("shape", [(2**31, 0, 1, 2), (0, 1, 2**31, 1), (1, 0, 1, 2**31)])
    def test_dimensions_beyond_32_bits_are_refused(self, shape):
        """Dimensions are 32-bit; one that is not must not be cut to fit."""
        with checks.refused(checks.too_long("detection_centers", shape)):
            self.call(detection_centers=checks.empty(shape))

    @pytest.mark.parametrize(("dtype", "width", "text"), checks.WIDTHS_REFUSED)
    def test_widths_are_refused_at_construction(self, dtype, width, text):
        """Negative widths, and for integers those above 32, whatever the inputs."""
        for shape in ((1, 1, 1, 2), (1,)):
            inputs = [np.ones(shape, dtype)] * (4 + len(self.names))
            with checks.refused(text):
                self.op(*inputs, accumulator_size=width)

    def test_shift_reads_element_0(self, assert_bits):
        """The shift may be of any shape; the first element counts."""
        rng = np.random.default_rng(61)
        inputs = [
            rng.integers(-99, 99, size).astype(np.int32) for size in self.shapes((2, 3, 5, 4))
        ]
        expected = self.op(*inputs, mult_shift=3).numpy()
        for shift in (np.array(3, np.int8), np.array([[3, 7]], np.int8)):
            assert_bits(self.raw_op(*inputs, shift, accumulator_size=32), expected)

    def test_in_a_graph(self, assert_bits):
        """The same values and refusals inside a function, whose shapes are unknown."""
        count = 4 + len(self.names)
        function = tf.function(
            lambda *inputs: self.op(*inputs, accumulator_size=8),
            input_signature=[tf.TensorSpec(None, tf.int32)] * count,
            autograph=False,
        )
        rng = np.random.default_rng(67)
        inputs = [
            rng.integers(-99, 99, size).astype(np.int32) for size in self.shapes((2, 3, 5, 4))
        ]
        assert_bits(function(*inputs), self.op(*inputs, accumulator_size=8).numpy())
        with checks.refused("Need detection_centers of rank 4, got rank 3"):
            function(inputs[0][0], *inputs[1:])
