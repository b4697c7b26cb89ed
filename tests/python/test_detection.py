# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The detection helpers: decoders against real mathematics, packing against the op.

What is asserted of a decoder is the error that it states, as an exact bound; where that is 0 the
results are the real ones.
"""

from __future__ import annotations

import hypothesis
import numpy as np
import pytest
from hypothesis import strategies as st

import bitfold
from bitfold import detection

# ---- Decoders ----------------------------------------------------------------------------------


def codes(seed: int, rows: int, columns: int, anchors: int, largest: int) -> np.ndarray:
    """Return codes of centres and sizes [2, 2, rows, columns, anchors, 2], the largest included."""
    rng = np.random.default_rng(seed)
    shape = (2, 2, rows, columns, anchors, 2)
    extremes = rng.choice([-largest, largest], shape)
    return np.where(rng.random(shape) < 0.3, extremes, rng.integers(-largest, largest + 1, shape))


def real_boxes(centers, sizes, anchors, y_centers, x_centers, center_scale, size_scale):
    """Decode by the classic formulas, [N, H, W, A, 4]."""
    places = np.stack(np.broadcast_arrays(y_centers[:, None, None], x_centers[None, :, None]), -1)
    middle = places + np.multiply(center_scale, centers) * anchors
    half = np.multiply(size_scale, sizes) * anchors / 2
    return np.concatenate([middle - half, middle + half], axis=-1)


def real_edges(left_top, right_bottom, anchors, y_centers, x_centers, scale, from_edges):
    """Move edges or measure distances, with pairs of (x, y), [N, H, W, A, 4]."""
    places = np.stack(np.broadcast_arrays(y_centers[:, None, None], x_centers[None, :, None]), -1)
    low = np.multiply(scale, left_top[..., ::-1]) * anchors
    high = np.multiply(scale, right_bottom[..., ::-1]) * anchors
    if from_edges:
        return np.concatenate([places - anchors / 2 + low, places + anchors / 2 + high], axis=-1)
    return np.concatenate([places - low, places + high], axis=-1)


def run(decoder, op, first, second, **options) -> np.ndarray:
    """Run a decoder over codes [N, H, W, A, 2]; return pixels [N, H, W, A, 4]."""
    shape = first.shape[:3]
    dtype = decoder.y_centers.dtype
    first, second = (x.reshape(*shape, -1).astype(dtype) for x in (first, second))
    boxes = np.asarray(op(first, second, **decoder.keywords, **options))
    assert boxes.dtype == dtype
    return decoder.output_scale * boxes.astype(np.float64).reshape(*shape, -1, 4)


SETTINGS = dict(
    anchors=st.lists(st.tuples(*[st.floats(0.5, 500)] * 2), min_size=1, max_size=3),
    scales=st.tuples(*[st.floats(1e-4, 0.1)] * 2),
    stride=st.floats(0.5, 40),
    fraction_bits=st.integers(0, 8),
    largest=st.sampled_from([1, 127, 128, 255]),
    inclusive=st.booleans(),
    dtype=st.sampled_from([np.int32, np.float32]),
    seed=st.integers(0, 99),
)


@hypothesis.given(size_scale=st.floats(1e-3, 0.1), **SETTINGS)
def test_box_decoder_keeps_its_bound(
    anchors, scales, size_scale, stride, fraction_bits, largest, inclusive, dtype, seed
):
    """No corner is further from the real one than stated, in the accumulator stated."""
    rows, columns = detection.grid_centers(3, stride), detection.grid_centers(2, stride / 3)
    decoder = detection.box_decoder(
        anchors, rows, columns, center_scale=scales, size_scale=size_scale, largest_code=largest,
        fraction_bits=fraction_bits, inclusive=inclusive, dtype=dtype,
    )  # fmt: skip
    centers, sizes = codes(seed, 3, 2, len(anchors), largest)
    boxes = run(
        decoder, bitfold.ops.decode_boxes, centers, sizes, accumulator_size=decoder.accumulator_bits
    )
    real = real_boxes(centers, sizes, np.array(anchors), rows, columns, scales, size_scale)
    real[..., 2:] -= inclusive
    assert np.abs(boxes - real).max() <= decoder.max_error


@hypothesis.given(from_edges=st.booleans(), **SETTINGS)
def test_single_weight_box_decoder_keeps_its_bound(
    anchors, scales, from_edges, stride, fraction_bits, largest, inclusive, dtype, seed
):
    """The same for the decoder of one product."""
    rows, columns = detection.grid_centers(3, stride), detection.grid_centers(2, stride / 3)
    decoder = detection.single_weight_box_decoder(
        anchors, rows, columns, scale=scales, from_edges=from_edges, largest_code=largest,
        fraction_bits=fraction_bits, inclusive=inclusive, dtype=dtype,
    )  # fmt: skip
    left_top, right_bottom = codes(seed, 3, 2, len(anchors), largest)
    boxes = run(
        decoder, bitfold.ops.decode_boxes_single_weight, left_top, right_bottom,
        accumulator_size=decoder.accumulator_bits,
    )  # fmt: skip
    real = real_edges(left_top, right_bottom, np.array(anchors), rows, columns, scales, from_edges)
    real[..., 2:] -= inclusive
    assert np.abs(boxes - real).max() <= decoder.max_error


@pytest.mark.parametrize("coefficient_bits", [8, 12, 16, 24])
def test_bounds_of_the_docstrings(coefficient_bits):
    """The general formulas are never below the bound that is stated for certain anchors."""
    anchors = np.random.default_rng(1).uniform(3, 90, (50, 2))
    options = dict(fraction_bits=0, coefficient_bits=coefficient_bits, largest_code=100)
    place = [np.full(50, 7.3)]
    decoder = detection.box_decoder(
        anchors, place, place, center_scale=0.02, size_scale=0.03, **options
    )
    general = 200 / 2 ** (decoder.mult_shift + 1) + 1.5
    assert 0.6 * general <= decoder.max_error <= general
    single = detection.single_weight_box_decoder(anchors, place, place, scale=0.02, **options)
    general = 100 / 2 ** (single.mult_shift + 1) + 1.0
    assert 0.6 * general <= single.max_error <= general


@pytest.mark.parametrize("dtype", [np.int32, np.float32])
@pytest.mark.parametrize("inclusive", [False, True])
def test_whole_boxes_are_exact(dtype, inclusive, assert_bits):
    """Where the real corners are whole numbers of steps, the ops give just these."""
    anchors = np.array([[16, 32], [64, 128], [256, 32]])
    rows, columns = detection.grid_centers(5, 16), detection.grid_centers(4, 8)
    options = dict(largest_code=128, fraction_bits=4, inclusive=inclusive, dtype=dtype)
    first, second = codes(3, 5, 4, 3, 128)
    decoder = detection.box_decoder(
        anchors, rows, columns, center_scale=(1 / 64, 1 / 128), size_scale=1 / 32, **options
    )
    real = real_boxes(first, second, anchors, rows, columns, (1 / 64, 1 / 128), 1 / 32)
    real[..., 2:] -= inclusive
    assert_bits(run(decoder, bitfold.ops.decode_boxes, first, second), real)
    if dtype == np.int32:
        assert decoder.max_error == 0
    for from_edges in (False, True):
        single = detection.single_weight_box_decoder(
            anchors, rows, columns, scale=1 / 64, from_edges=from_edges, **options
        )
        real = real_edges(first, second, anchors, rows, columns, 1 / 64, from_edges)
        real[..., 2:] -= inclusive
        assert_bits(run(single, bitfold.ops.decode_boxes_single_weight, first, second), real)


@pytest.mark.parametrize("fraction_bits", [0, 3, 6])
def test_accumulator_bits_are_the_narrowest(fraction_bits):
    """One bit less, and the outermost corner wraps."""
    decoder = detection.single_weight_box_decoder(
        [[40, 20]], [1.5], [100], scale=1 / 16, fraction_bits=fraction_bits, largest_code=127
    )
    first = second = np.full([1, 1, 1, 1, 2], 127)
    op, bits = bitfold.ops.decode_boxes_single_weight, decoder.accumulator_bits
    wide = run(decoder, op, first, second)
    assert (run(decoder, op, first, second, accumulator_size=bits) == wide).all()
    assert (run(decoder, op, first, second, accumulator_size=bits - 1) != wide).any()


@pytest.mark.parametrize("shift", range(1, 7))
def test_integers_in_floats(shift, assert_bits):
    """A shift of 2^s makes float32 decoders round as int32 ones with s do."""
    anchors = np.random.default_rng(2).uniform(1, 80, (3, 2))
    rows, columns = detection.grid_centers(4, 7.7), detection.grid_centers(3, 5.1)
    decoders = (
        detection.box_decoder(
            anchors, rows, columns, center_scale=0.01, size_scale=0.02, coefficient_bits=bits
        )
        for bits in range(6, 16)
    )
    decoder = next(d for d in decoders if d.mult_shift == shift)
    first, second = (x.reshape(2, 4, 3, 6) for x in codes(4, 4, 3, 3, 128))
    whole = bitfold.ops.decode_boxes(first, second, **decoder.keywords).numpy()
    floats = {name: np.float32(value) for name, value in decoder.keywords.items()}
    floats["mult_shift"] = 2**shift
    carried = bitfold.ops.decode_boxes(np.float32(first), np.float32(second), **floats)
    assert_bits(carried, whole.astype(np.float32))


def test_decoders_take_centres_per_anchor(assert_bits):
    """Proposals with a place each are anchors of a map of one cell."""
    proposals = np.array([[10.0, 20, 30, 60], [0, 4, 8, 12], [100, 50, 132, 66]])
    middle, size = (proposals[:, :2] + proposals[:, 2:]) / 2, proposals[:, 2:] - proposals[:, :2]
    decoder = detection.box_decoder(size, middle[:, 0][None], middle[:, 1][None], size_scale=1 / 64)
    centers = np.zeros([1, 1, 1, 3, 2])
    boxes = run(decoder, bitfold.ops.decode_boxes, centers, centers + 64)
    assert_bits(boxes[0, 0, 0], proposals)


@pytest.mark.parametrize("size_scale", [1 / 16, 1 / 64, 0.013])
def test_size_terms(size_scale):
    """Half a step from the exponential, up to the largest code."""
    steps = np.arange(-128, 128)
    terms = detection.size_terms(steps, code_scale=0.05, size_scale=size_scale, largest_code=300)
    assert terms.dtype == np.int32
    real = np.exp(0.05 * steps)
    held = real <= 300 * size_scale
    assert np.abs(size_scale * terms - real)[held].max() <= size_scale / 2
    assert (terms[~held] == 300).all()


def test_size_terms_of_huge_codes():
    """Nothing overflows on the way to the limit."""
    with np.errstate(all="raise"):
        terms = detection.size_terms([2**31 - 1], code_scale=1.0, size_scale=0.01)
    assert terms.tolist() == [128]


BOTH = [detection.box_decoder, detection.single_weight_box_decoder]


@pytest.mark.parametrize("build", BOTH)
@pytest.mark.parametrize(
    "arguments",
    [
        dict(anchors=[16, 16]),
        dict(anchors=np.zeros([0, 2])),
        dict(anchors=[[16, 0]]),
        dict(anchors=[[16, np.inf]]),
        dict(y_centers=5),
        dict(y_centers=[np.nan]),
        dict(x_centers=[[1, 2]]),
        dict(largest_code=0),
        dict(fraction_bits=-1),
        dict(fraction_bits=25),
        dict(coefficient_bits=1),
        dict(coefficient_bits=33),
        dict(coefficient_bits=4),
        dict(largest_code=2**30),
        dict(y_centers=[1e9]),
        dict(dtype=np.int64),
    ],
)
def test_decoders_refuse(build, arguments):
    """Numbers that the op cannot take are named."""
    with pytest.raises(ValueError, match="got"):
        build(**{"anchors": [[16, 16]], "y_centers": [8], "x_centers": [8], **arguments})


@pytest.mark.parametrize("scale", [0, -1.0, [1, 2, 3], np.nan])
def test_decoders_refuse_scales(scale):
    """Scales are one number or two."""
    for build, names in zip(BOTH, (("center_scale", "size_scale"), ("scale",)), strict=True):
        for name in names:
            with pytest.raises(ValueError, match=f"{name} must be"):
                build([[16, 16]], [8], [8], **{name: scale})


@pytest.mark.parametrize(
    ("function", "arguments"),
    [
        (detection.grid_centers, dict(count=-1, stride=1)),
        (detection.grid_centers, dict(count=1, stride=0)),
        (detection.size_terms, dict(codes=[1], code_scale=0, size_scale=1)),
        (detection.size_terms, dict(codes=[1], code_scale=1, size_scale=-1)),
    ],
)
def test_small_helpers_refuse(function, arguments):
    """So do the helpers around the decoders."""
    with pytest.raises(ValueError, match="got"):
        function(**arguments)


# ---- Non-maximum suppression -------------------------------------------------------------------


def test_pack_boxes_places_every_record(assert_bits):
    """Class after class, with boxes of all classes or of each."""
    rng = np.random.default_rng(0)
    scores = rng.random((2, 5, 3)).astype(np.float32)
    boxes = rng.integers(0, 100, (2, 5, 3, 4))
    packed = detection.pack_boxes(boxes, scores, scale=1 / 4)
    assert packed.shape == (2, 15, 5, 1)
    for image, box, kind in np.ndindex(scores.shape):
        row = np.float32([*boxes[image, box, kind] / 4, scores[image, box, kind]])
        assert_bits(packed[image, 5 * kind + box, :, 0], row)
    shared = detection.pack_boxes(boxes[:, :, 0], scores)
    repeated = np.repeat(boxes[:, :, :1], 3, axis=2)
    assert_bits(shared, detection.pack_boxes(repeated, scores))


def test_classes_and_images_are_suppressed_apart(assert_bits):
    """What the op keeps of each class and image is what it keeps of that alone."""
    rng = np.random.default_rng(1)
    corners = rng.integers(0, 60, (2, 40, 2))
    boxes = np.concatenate([corners, corners + rng.integers(5, 30, (2, 40, 2))], axis=2)
    scores = rng.random((2, 40, 3)).astype(np.float32)
    options = dict(iou_threshold=0.4, max_output_size=40)
    frames = bitfold.ops.non_max_suppression(
        detection.pack_boxes(boxes, scores), 0.3, classes=3, **options
    )
    together = detection.unpack_frames(frames)
    assert [len(image) for image in together] == [3, 3]
    for image, kind in np.ndindex(2, 3):
        alone = detection.pack_boxes(
            boxes[image : image + 1], scores[image : image + 1, :, kind : kind + 1]
        )
        frame = bitfold.ops.non_max_suppression(alone, 0.3, **options)
        (expected,) = detection.unpack_frames(frame)[0]
        found = together[image][kind]
        assert_bits(found.boxes, expected.boxes)
        assert_bits(found.scores, expected.scores)
        assert 0 < len(found.scores) < 40
        assert (found.scores > 0.3).all()
        assert (np.diff(found.scores) <= 0).all()


def test_zero_rows_are_dropped(assert_bits):
    """Also the one that stands first for an invalid best box."""
    boxes = [[[9, 9, 0, 0], [1, 2, 3, 4]]]
    packed = detection.pack_boxes(boxes, [[[0.9], [0.8]]])
    frames = bitfold.ops.non_max_suppression(packed, 0.0, iou_threshold=0.5, max_output_size=4)
    assert not np.asarray(frames)[0, 0, 0].any()
    (found,) = detection.unpack_frames(frames)[0]
    assert_bits(found.boxes, np.float32([[1, 2, 3, 4]]))
    assert_bits(found.scores, np.float32([0.8]))


def test_nothing_found():
    """No box above the threshold gives empty arrays."""
    packed = detection.pack_boxes([[[1, 2, 3, 4]]], [[[0.1]]])
    frames = bitfold.ops.non_max_suppression(packed, 0.5, iou_threshold=0.5, max_output_size=4)
    (found,) = detection.unpack_frames(frames)[0]
    assert found.boxes.shape == (0, 4)
    assert found.scores.shape == (0,)


@pytest.mark.parametrize(
    ("boxes", "scores"),
    [((1, 4), (1, 1, 1)), ((1, 3, 4), (1, 3)), ((1, 3, 4), (1, 4, 1)), ((1, 3, 2, 4), (1, 3, 3))],
)
def test_pack_boxes_refuses(boxes, scores):
    """Shapes that do not belong together are named."""
    with pytest.raises(ValueError, match="got"):
        detection.pack_boxes(np.zeros(boxes), np.zeros(scores))


@pytest.mark.parametrize("shape", [(1, 3, 5), (1, 1, 3, 4)])
def test_unpack_frames_refuses(shape):
    """What is no result of the op is named."""
    with pytest.raises(ValueError, match="got"):
        detection.unpack_frames(np.zeros(shape))
