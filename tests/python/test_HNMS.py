# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""HNMS through the runtime: frames, the log, aborts, refusals, and the wrapper of it."""

from __future__ import annotations

import json
import re

import checks
import hypothesis
import hypothesis.strategies as st
import keras
import numpy as np
import pytest
import raw
import registration
import support
import tensorflow as tf

import units
from bitfold import ops

RANK_ERROR = "HNMS supports only rank 4"
REGISTRATION = {
    "HNMS": registration.Registration(
        inputs=["value: float", "scores_threshold: float"],
        attributes=[
            "iou_threshold: float",
            "max_output_size: float",
            "classes: float",
            "debug_precise_numeric: bool",
            "is_velquin: bool",
        ],
        output="output: float",
        kernels={("CPU", ""): "HNMSOp<CPUDevice>"},
    )
}
WRAPPERS = {"non_max_suppression": None}


@pytest.fixture(scope="session")
def check(reference):
    """Run HNMS and the oracle on the same boxes and compare bits; nothing may be written."""

    def run(value, scores_threshold, **arguments):
        with support.printed() as text:
            actual = raw.nms(value, scores_threshold, **arguments)
        expected, _ = reference.nms(value, scores_threshold, **arguments)
        support.assert_bits(actual, expected, value=value, **arguments)
        assert (text.out, text.err) == ("", "")

    return run


def select(*boxes, scores_threshold=0.0, iou_threshold=0.5, max_output_size=3, **arguments):
    """Return the rows of one class, without the padding."""
    value = np.float32(boxes).reshape(1, -1, 5, 1)
    frames = raw.nms(
        value,
        scores_threshold,
        iou_threshold=iou_threshold,
        max_output_size=max_output_size,
        **arguments,
    ).numpy()
    assert frames.shape == (1, 1, max_output_size, 5)
    rows = frames[0, 0]
    count = max((i + 1 for i, row in enumerate(rows) if row.any()), default=0)
    return rows[:count].tolist()


FULL = [0.0, 0.0, 9.0, 9.0, 1.0]
HALF = [0.0, 0.0, 9.0, 4.0, 0.5]
FAR = [20.0, 20.0, 29.0, 29.0, 0.25]
INVERTED = [9.0, 0.0, 0.0, 9.0, 2.0]


# ---- Worked values -----------------------------------------------------------------------------


@pytest.mark.parametrize(("iou_threshold", "kept"), [(0.5, True), (0.49, False)])
def test_the_comparison_is_one_of_whole_numbers(iou_threshold, kept):
    """32768 * 100 >> 16 = 50, which 50 does not exceed; 32112 * 100 >> 16 = 48, which it does."""
    assert select(FULL, HALF, iou_threshold=iou_threshold) == ([FULL, HALF] if kept else [FULL])


@pytest.mark.parametrize("iou_threshold", [1.0, 5.0, 1e30, np.inf])
def test_the_same_corners_are_always_suppressed(iou_threshold):
    """Whatever the figures; another box in the same place is not."""
    twin, neighbour = [*FULL[:4], 0.75], [0.0, 0.0, 9.0, 8.0, 0.5]
    assert select(FULL, twin, neighbour, iou_threshold=iou_threshold) == [FULL, neighbour]


@pytest.mark.parametrize("iou_threshold", [0.0, -1.0, -np.inf, np.nan])
def test_thresholds_saturate_at_0(iou_threshold):
    """Any whole overlap suppresses; none does not."""
    assert select(FULL, HALF, FAR, iou_threshold=iou_threshold) == [FULL, FAR]


@pytest.mark.parametrize(("is_velquin", "kept"), [(False, 0), (True, 1)])
def test_a_score_equal_to_the_threshold(is_velquin, kept):
    """It is dropped, but by the one variant."""
    assert len(select(HALF, scores_threshold=0.5, is_velquin=is_velquin)) == kept


@pytest.mark.parametrize(("is_velquin", "first"), [(False, 0), (True, 1)])
def test_of_equal_scores_the_first_wins(is_velquin, first):
    """Or, by the one variant, the last."""
    boxes = [[*HALF[:4], 0.9], [*FULL[:4], 0.9], [*FAR[:4], 0.5]]
    kept = select(*boxes, iou_threshold=0.0, is_velquin=is_velquin)
    assert kept == np.float32([boxes[first], boxes[2]]).tolist()


def test_frames_are_padded(assert_bits):
    """One valid box and two rows of zeros, whatever the memory held before."""
    checks.leave_dirty_memory((1, 1, 3, 5), np.float32)
    value = np.float32(FULL).reshape(1, 1, 5, 1)
    frames = raw.nms(value, 0.0, iou_threshold=0.5, max_output_size=3)
    assert_bits(frames, np.float32([[[FULL, [0.0] * 5, [0.0] * 5]]]))


def test_frames_are_full():
    """No more than max_output_size boxes are taken, the best first."""
    boxes = [[20.0 * i, 0.0, 20.0 * i + 9, 9.0, 1.0 + i] for i in range(5)]
    assert select(*boxes, max_output_size=2) == [boxes[4], boxes[3]]


@pytest.mark.parametrize("corners", [(9.0, 0.0, 0.0, 9.0), (0.0, 9.0, 9.0, 0.0)])
def test_an_inverted_best_box_leaves_a_row_of_zeros(corners):
    """It counts as a row; the box itself is dropped. The one variant leaves no row."""
    inverted = [*corners, 2.0]
    assert select(inverted, FULL) == [[0.0] * 5, FULL]
    assert select(inverted, FULL, FAR, max_output_size=2) == [[0.0] * 5, FULL]
    assert select(inverted, FULL, max_output_size=1) == []
    assert select(inverted, FULL, is_velquin=True) == [FULL]
    # Not the best: no row.
    assert select([*corners, 0.5], FULL) == [FULL]


def test_boxes_are_dropped_after_the_best_is_looked_at():
    """The best box below the threshold leaves a row of zeros all the same."""
    assert select(INVERTED, [*FULL[:4], 3.0], scores_threshold=2.5) == [[*FULL[:4], 3.0]]
    value = np.float32([INVERTED, FULL]).reshape(1, 2, 5, 1)
    frames = raw.nms(value, 5.0, iou_threshold=0.5, max_output_size=2)
    assert not frames.numpy().any()


@pytest.mark.parametrize(
    ("precise", "swapped", "kept"),
    [(False, False, 1), (False, True, 1), (True, False, 2), (True, True, 1)],
)
def test_the_second_box_alone_is_shrunk(precise, swapped, kept):
    """Two boxes that touch along a line of pixels; the first is the one selected."""
    scores = (0.5, 1.0) if swapped else (1.0, 0.5)
    boxes = [0.0, 4.0, 9.0, 9.0, scores[0]], [0.0, 0.0, 9.0, 4.0, scores[1]]
    assert len(select(*boxes, iou_threshold=0.0, debug_precise_numeric=precise)) == kept


def test_one_variant_never_selects_negative_scores():
    """There the class ends; otherwise the score nearest to 0 wins."""
    boxes = [*FULL[:4], -2.0], [*FAR[:4], -1.0]
    assert select(*boxes, scores_threshold=-5.0) == [[*FAR[:4], -1.0], [*FULL[:4], -2.0]]
    assert select(*boxes, scores_threshold=-5.0, is_velquin=True) == []
    assert select([*FULL[:4], np.nan], FAR, scores_threshold=-5.0, is_velquin=True) == [FAR]


def test_frames_come_class_by_class(check, assert_bits):
    """[batch, classes, rows, 5]; each class has its consecutive share of the boxes."""
    boxes = np.float32([[20 * i, 0, 20 * i + 9, 9, 1 + i % 3] for i in range(18)])
    value = boxes.reshape(2, 9, 5, 1)
    frames = raw.nms(value, 0.0, iou_threshold=0.5, max_output_size=3, classes=3)
    assert_bits(frames, boxes.reshape(2, 3, 3, 5)[:, :, ::-1])
    for classes in (1, 9):
        check(value, 0.0, iou_threshold=0.5, max_output_size=3, classes=classes)
    # Of 9 boxes each of 10 classes has none, which one variant takes.
    check(value, 0.0, iou_threshold=0.5, max_output_size=2, classes=46, is_velquin=True)
    # Of 8 boxes each of 7 classes has one; the last is not read.
    check(value[:, :8], 0.0, iou_threshold=0.5, max_output_size=2, classes=7)
    # Half a class is no class.
    result = raw.nms(value, 0.0, iou_threshold=0.5, max_output_size=3, classes=3.75)
    assert_bits(result, frames.numpy())


@pytest.mark.parametrize("batch", [1, 2])
def test_no_boxes(batch):
    """Without a box one variant gives zeros."""
    value = np.zeros([batch, 0, 5, 1], np.float32)
    frames = raw.nms(value, 0.0, iou_threshold=0.5, max_output_size=2, is_velquin=True)
    assert frames.shape == (batch, 1, 2, 5)
    assert not frames.numpy().any()


# ---- Against the oracle ------------------------------------------------------------------------

THRESHOLDS = (0.0, 0.3, 0.5, 0.999, 1.0, -1.0, 3.0, 1e30, np.inf, np.nan)
EDGES = np.float32(
    [0, -0.0, 1, 2, 3.5, 9, 10, -1, -5, 2.0**24, 1e20, -1e38, 3e38, np.inf, -np.inf, np.nan]
)


def _boxes(rng: np.random.Generator, shape: tuple[int, int], wild: float) -> np.ndarray:
    """Return boxes on a small grid, equal scores among them, `wild` of the numbers special."""
    low = rng.integers(0, 12, (*shape, 2))
    high = low + rng.integers(-1, 9, (*shape, 2))
    scores = rng.choice(np.float32([0.1, 0.25, 0.5, 0.5, 0.75, 0.9]), (*shape, 1))
    value = np.concatenate([low, high, scores], axis=-1).astype(np.float32)
    value = np.where(rng.random(value.shape) < wild, rng.choice(EDGES, value.shape), value)
    return value[..., np.newaxis]


def _settings(rng: np.random.Generator) -> dict:
    return {
        "scores_threshold": float(rng.choice([0.0, 0.25, 0.5, -1.0])),
        "iou_threshold": float(rng.choice(THRESHOLDS)),
        "max_output_size": int(rng.integers(1, 12)),
        "debug_precise_numeric": bool(rng.integers(2)),
        "is_velquin": bool(rng.integers(2)),
    }


@pytest.mark.parametrize("wild", [0.0, 0.02, 0.3])
@pytest.mark.parametrize(("batch", "classes", "count"), [(1, 1, 1), (3, 1, 40), (2, 5, 9)])
def test_random(batch, classes, count, wild, check):
    """Boxes that overlap, thresholds and flags at random."""
    rng = np.random.default_rng([71, batch, classes, count])
    for _ in range(40):
        check(_boxes(rng, (batch, classes * count), wild), classes=classes, **_settings(rng))


@pytest.mark.parametrize("is_velquin", [False, True])
def test_many_boxes(is_velquin, check):
    """Enough boxes for the loops over many at once, with every remainder."""
    rng = np.random.default_rng(73)
    for count in (63, 64, 65, 257):
        check(
            _boxes(rng, (1, count), 0.01),
            0.05,
            iou_threshold=0.45,
            max_output_size=100,
            is_velquin=is_velquin,
        )


@hypothesis.given(data=st.data())
def test_property(data, check):
    """Any numbers as boxes."""
    batch, classes, count = data.draw(st.tuples(*[st.integers(1, 3)] * 3))
    (value,) = data.draw(checks.arrays(np.float32, (batch, classes * count, 5, 1)))
    if data.draw(st.booleans()):
        value = np.float32(np.abs(np.nan_to_num(value, posinf=9, neginf=9)) % 8)
    check(
        value,
        data.draw(st.floats(width=32)),
        iou_threshold=data.draw(st.floats(width=32)),
        max_output_size=data.draw(st.integers(1, 5)),
        classes=classes,
        debug_precise_numeric=data.draw(st.booleans()),
        is_velquin=data.draw(st.booleans()),
    )


# ---- The log -----------------------------------------------------------------------------------


def log_cases() -> list[dict]:
    """Return what the process that logs runs."""
    rng = np.random.default_rng(79)
    boxes = np.float32([FULL, HALF, FAR, INVERTED])
    cases = [{"value": boxes.reshape(1, 4, 5, 1), "scores_threshold": 0.0, "iou_threshold": 0.5,
              "max_output_size": 3, "is_velquin": v} for v in (False, True)]  # fmt: skip
    for wild in (0.0, 0.0, 0.1, 0.3):
        value = _boxes(rng, (2, 12), wild)
        cases.append({"value": value, "classes": 2, **_settings(rng)})
    # A class that ends on scores below 0, one without a box.
    negative = boxes * np.float32([1, 1, 1, 1, -1])
    cases.append({"value": negative.reshape(1, 4, 5, 1), "scores_threshold": -9.0,
                  "iou_threshold": 0.5, "max_output_size": 2, "is_velquin": True})  # fmt: skip
    cases.append({"value": np.zeros([1, 0, 5, 1], np.float32), "scores_threshold": 0.0,
                  "iou_threshold": 0.5, "max_output_size": 1, "is_velquin": True})  # fmt: skip
    return cases


def log_messages() -> list[list[str]]:
    """Run the cases and return what each one logged as information."""
    found = []
    for case in log_cases():
        with support.printed() as text:
            raw.nms(**case)
        assert text.out == ""
        _, *parts = re.split(r"(?m)^I\d{4} [\d:.]+ +\d+ (?:log|HNMS)\.cc:\d+\] ", text.err)
        assert all(part.endswith("\n") for part in parts)
        found.append([part[:-1] for part in parts])
    return found


_LOG = """
import json, os, sys
os.environ["TF_CPP_MIN_LOG_LEVEL"] = sys.argv[2]
sys.path.insert(0, sys.argv[1])
import test_HNMS
print(json.dumps(test_HNMS.log_messages()))
"""


def _run_logging(level: str) -> list[list[str]]:
    folder = str(support.ROOT / "tests" / "python")
    output = support.passes(support.run_python(_LOG, folder, level))
    return json.loads(output.splitlines()[-1])


def test_everything_is_logged(reference):
    """Every message, in order, as the oracle has it, then the sizes of the result."""
    for case, found in zip(log_cases(), _run_logging("0"), strict=True):
        frames, expected = reference.nms(**case)
        batch, classes, rows, parameters = frames.shape
        sizes = f"batch_size={batch}, classes={classes}, boxes={rows}, params={parameters}\n"
        assert [m.replace("-nan", "nan") for m in found] == [
            m.replace("-nan", "nan") for m in (*expected, sizes)
        ]


def test_nothing_is_logged_above_information():
    """Where the log filters information, nothing is written."""
    assert _run_logging("1") == [[]] * len(log_cases())


# ---- Processes that end ------------------------------------------------------------------------

_ABORT = """
import raw
value = np.zeros([1, {count}, 5, 1], np.float32)
raw.nms(value, 0.0, iou_threshold=0.5, max_output_size=2, classes={classes})
"""


def test_shares_that_are_no_boxes_abort():
    """15 numbers for two classes are 7 each."""
    units.ends_with(
        _ABORT.format(count=3, classes=2),
        "src/HNMS",
        "std::vector<Box> raw_data_to_boxes(const float*, size_t)",
        "size % 5 == 0",
    )


def test_classes_without_a_box_abort():
    """There is no best box to look at."""
    units.ends_with(
        _ABORT.format(count=0, classes=1),
        "src/HNMS",
        "Box find_box_with_higest_score(std::vector<Box>&, bool, bool)",
        "!boxes.empty()",
    )


_NO_MEMORY = """
import resource
import raw
raw.nms(np.zeros([1, 1, 5, 1], np.float32), 0.0, iou_threshold=0.5, max_output_size=2)
used = int(open("/proc/self/statm").read().split()[0]) * resource.getpagesize()
resource.setrlimit(resource.RLIMIT_AS, (used + 2**30, used + 2**30))
try:
    raw.nms(np.zeros([1, 1, 5, 1], np.float32), 0.0, iou_threshold=0.5, max_output_size=2.0**28)
except tf.errors.ResourceExhaustedError as error:
    print(error.message)
"""


@pytest.mark.slow
def test_frames_beyond_the_memory():
    """An error, and the process lives on."""
    text = "No memory for frames of max_output_size = 2.68435e+08 rows"
    assert text in units.survives(_NO_MEMORY)


# ---- Ranks and refusals ------------------------------------------------------------------------


def _call(value=(1, 2, 5, 1), scores_threshold=(1,), classes=1.0, max_output_size=2.0):
    return raw.raw_ops.hnms(
        checks.ones(value, np.float32),
        checks.ones(scores_threshold, np.float32),
        iou_threshold=0.5,
        max_output_size=max_output_size,
        classes=classes,
        debug_precise_numeric=False,
        is_velquin=True,
    )


@pytest.mark.parametrize("shape", [(), (5,), (2, 5, 1), (1, 2, 5, 1, 1)])
def test_other_ranks_have_no_output(shape, printed):
    """An error in the log; the runtime makes do without the output, or says so in a function."""
    with printed() as text:
        assert _call(value=shape, scores_threshold=(0,)).shape == (0,)
    assert text.out == ""
    assert checks.logged_errors(text.err) == [RANK_ERROR]
    missing = pytest.raises(tf.errors.InternalError, match="Missing 0-th output")
    with missing, printed() as text:
        tf.function(lambda: _call(value=shape), autograph=False)()


@pytest.mark.parametrize(
    ("inputs", "text"),
    [
        *(
            (
                {"value": shape},
                "Need value of shape [batch, classes * boxes, 5, 1] with a batch of at least 1, "
                f"got [{','.join(map(str, shape))}]",
            )
            for shape in [(0, 2, 5, 1), (1, 2, 1, 5), (1, 2, 5, 2), (1, 2, 4, 1), (1, 2, 5, 0)]
        ),
        ({"scores_threshold": (0,)}, checks.empty_scalar("scores_threshold")),
        *(
            ({"classes": x}, f"Need classes of at least 1 and below 2^31, got {got}")
            for x, got in [(0.0, "0"), (0.999, "0.999"), (-3.0, "-3"), (np.nan, "nan"),
                           (np.inf, "inf"), (2.0**31, "2.14748e+09")]
        ),
        *(
            (
                {"max_output_size": x},
                "Need max_output_size to be a whole number of at least 1 and below 2^31, "
                f"got {got}",
            )
            for x, got in [(0.0, "0"), (-1.0, "-1"), (2.5, "2.5"), (np.nan, "nan"),
                           (-np.inf, "-inf"), (2.0**31, "2.14748e+09")]
        ),
        (
            {"value": (1, 0, 5, 1), "classes": 2.0**30, "max_output_size": 1.0},
            "Need a batch, classes and max_output_size that give at most 2147483647 numbers, "
            "got 1, 1.07374e+09 and 1",
        ),
        (
            {"value": (3, 1, 5, 1), "classes": 2.0**30, "max_output_size": 2.0**30},
            "Need a batch, classes and max_output_size that give at most 2147483647 numbers, "
            "got 3, 1.07374e+09 and 1.07374e+09",
        ),
    ],
    ids=str,
)  # fmt: skip
def test_refusals(inputs, text):
    """Shapes that the rows would not fit, and numbers that count nothing."""
    with checks.refused(text):
        _call(**inputs)


def test_threshold_reads_element_0(assert_bits):
    """The threshold may be of any shape; the first element counts."""
    value = np.float32([FULL, FAR]).reshape(1, 2, 5, 1)
    settings = {"iou_threshold": 0.5, "max_output_size": 2.0, "classes": 1.0,
                "debug_precise_numeric": False, "is_velquin": False}  # fmt: skip
    for threshold in (np.float32(0.5), np.float32([[0.5, 0.0]])):
        frames = raw.raw_ops.hnms(value, threshold, **settings)
        assert_bits(frames, np.float32([[[FULL, [0.0] * 5]]]))


def test_in_a_graph(assert_bits):
    """The threshold is read anew by each call of a function."""

    @tf.function(input_signature=[tf.TensorSpec(None), tf.TensorSpec(None)])
    def suppress(value, threshold):
        return ops.non_max_suppression(value, threshold, iou_threshold=0.5, max_output_size=2)

    value = np.float32([FULL, FAR]).reshape(1, 2, 5, 1)
    for threshold, rows in ((0.0, [FULL, FAR]), (0.5, [FULL, [0.0] * 5]), (0.0, [FULL, FAR])):
        assert_bits(suppress(value, threshold), np.float32([[rows]]))
    with checks.refused("Need value of shape [batch, classes * boxes, 5, 1]"):
        suppress(value[..., 0:0], 0.0)


# ---- The wrapper -------------------------------------------------------------------------------


def test_wrapper(assert_bits):
    """Its arguments are the op's, numbers in any form."""
    value = _boxes(np.random.default_rng(83), (2, 12), 0.05)
    for flags in ({}, {"is_velquin": True}, {"debug_precise_numeric": True}):
        settings = {"iou_threshold": 0.3, "max_output_size": 4, "classes": 3, **flags}
        expected = raw.nms(value, 0.2, **settings).numpy()
        assert_bits(ops.non_max_suppression(value, 0.2, **settings), expected)
        assert_bits(ops.non_max_suppression(value.tolist(), np.float32(0.2), **settings), expected)
        settings |= {"classes": np.int64(3), "iou_threshold": np.float32(0.3)}
        tensor, threshold = tf.constant(value), tf.constant([0.2])
        assert_bits(ops.non_max_suppression(tensor, threshold, **settings), expected)


@pytest.mark.parametrize(
    ("arguments", "error", "text"),
    [
        ({"value": np.zeros([1, 1, 5, 1], np.int32)}, TypeError, "value must be float32, got"),
        ({"max_output_size": 2.5}, TypeError, "max_output_size must be an integer, got 2.5"),
        ({"max_output_size": 2**24 + 1}, ValueError, "max_output_size holds integers that no"),
        ({"classes": 1.0}, TypeError, "classes must be an integer, got 1.0"),
        ({"iou_threshold": "half"}, TypeError, "iou_threshold must be a number, got 'half'"),
        ({"iou_threshold": [0.5]}, TypeError, "iou_threshold must be a number, got [0.5]"),
        ({"iou_threshold": 1e40}, ValueError, "iou_threshold holds numbers beyond float32's range"),
        ({"scores_threshold": 1e40}, ValueError, "scores_threshold holds numbers beyond"),
        ({"max_output_size": 0}, tf.errors.InvalidArgumentError, "Need max_output_size to be a"),
        ({"classes": 0}, tf.errors.InvalidArgumentError, "Need classes of at least 1"),
    ],
    ids=str,
)  # fmt: skip
def test_wrapper_refuses(arguments, error, text):
    """What would lose something silently, in a graph as well."""
    usual = {"value": np.zeros([1, 1, 5, 1], np.float32), "scores_threshold": 0.5,
             "iou_threshold": 0.5, "max_output_size": 2}  # fmt: skip
    with pytest.raises(error, match=re.escape(text)):
        ops.non_max_suppression(**{**usual, **arguments})
    with pytest.raises(error, match=re.escape(text)):
        tf.function(lambda: ops.non_max_suppression(**{**usual, **arguments}), autograph=False)()


@pytest.mark.parametrize(
    ("shape", "expected"),
    [
        ([2, 12, 5, 1], [2, 3, 4, 5]),
        ([None, 12, 5, 1], [None, 3, 4, 5]),
        ([None] * 4, [None, 3, 4, 5]),
        (None, [None, 3, 4, 5]),
    ],
)
def test_wrapper_knows_the_shape(shape, expected, assert_bits):
    """The static shape is the true one, also as the function's own graph sees it."""
    value = _boxes(np.random.default_rng(89), (2, 12), 0.0)
    settings = {"iou_threshold": 0.3, "max_output_size": 4, "classes": 3}

    def body(x):
        frames = ops.non_max_suppression(x, 0.2, **settings)
        return frames, tf.shape(frames), tf.rank(frames)

    function = tf.function(body, autograph=False).get_concrete_function(tf.TensorSpec(shape))
    assert function.output_shapes[0].as_list() == expected
    frames, sizes, rank = function(tf.constant(value))
    assert_bits(frames, raw.nms(value, 0.2, **settings).numpy())
    assert (sizes.numpy().tolist(), rank.numpy()) == ([2, 3, 4, 5], 4)


def test_generated_op_declares_its_input_s_shape():
    """As it is registered; the wrapper hides it."""
    with tf.Graph().as_default():
        for shape in ([2, 12, 5, 1], [None, 12, 5, 1], [3], None):
            result = raw.nms(
                tf.compat.v1.placeholder(tf.float32, shape), 0.0, iou_threshold=0.5,
                max_output_size=4,
            )  # fmt: skip
            assert (result.shape.as_list() if result.shape.rank is not None else None) == shape


def test_in_models(tmp_path, assert_bits):
    """A functional model, and a saved one."""
    value = _boxes(np.random.default_rng(97), (2, 12), 0.0)
    boxes = keras.Input([12, 5, 1])
    settings = {"iou_threshold": 0.3, "max_output_size": 4, "classes": 3}
    result = ops.non_max_suppression(boxes, 0.2, **settings)
    assert result.shape == (None, 3, 4, 5)
    model = keras.Model(boxes, result)
    expected = raw.nms(value, 0.2, **settings).numpy()
    assert_bits(model.predict(value, verbose=0), expected)
    model.save(tmp_path / "model.keras")
    assert_bits(keras.models.load_model(tmp_path / "model.keras")(value), expected)
    module = tf.Module()
    module.suppress = tf.function(
        lambda x: ops.non_max_suppression(x, 0.2, **settings),
        input_signature=[tf.TensorSpec([None, None, 5, 1])],
        autograph=False,
    )
    tf.saved_model.save(module, str(tmp_path / "saved"))
    assert_bits(tf.saved_model.load(str(tmp_path / "saved")).suppress(value), expected)
