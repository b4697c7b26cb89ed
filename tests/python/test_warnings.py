# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Lines printed, counted or told to a function: by every op that prints, from every kind of caller.

The numbers come from what is printed: a count is right if it is the number of lines.
"""

from __future__ import annotations

import contextlib
import threading
from collections.abc import Callable, Iterator
from typing import NamedTuple

import forks
import keras
import numpy as np
import pytest
import support
import tensorflow as tf

import bitfold
from bitfold import ops
from bitfold._frame import warning_lines

KINDS = {
    "out_of_bounds": "@@@ WARNING: acc ",
    "corrected_weights": "\033[1;31mweights should be uint8 for ",
    "softmax_overflows": "Warning, the softmax sum has overflowed.",
}


def lines_of(text: str) -> dict[str, int]:
    """Return the number of lines of each kind; every line must be of one."""
    lines = text.splitlines()
    counts = {kind: sum(line.startswith(head) for line in lines) for kind, head in KINDS.items()}
    assert sum(counts.values()) == len(lines), text[:1000]
    return counts


@contextlib.contextmanager
def setting(what: str | Callable) -> Iterator[None]:
    """Set what becomes of lines, with counts that start at none; afterwards they are printed."""
    bitfold.set_warnings(what)
    bitfold.warning_counts(reset=True)
    try:
        yield
    finally:
        bitfold.set_warnings("print")
        bitfold.warning_counts(reset=True)


@pytest.fixture(autouse=True)
def _starts_with_printing():
    """The default, which no test leaves changed; what tests of other files counted is gone."""
    assert bitfold.set_warnings("print") == "print"
    bitfold.warning_counts(reset=True)


# ---- Every op that prints ------------------------------------------------------------------------


class Case(NamedTuple):
    """An op, as it is registered, and a call of it that prints lines of some kinds."""

    op: str
    call: Callable[[], tf.Tensor]
    kinds: tuple[str, ...] = ("out_of_bounds",)


def _wide(*shape: int, seed: int = 7) -> np.ndarray:
    """Return whole numbers, some so large that their sums leave the warning range."""
    numbers = np.random.default_rng(seed).integers(-5_000_000, 5_000_000, shape)
    return numbers.astype(np.float32)


def _small(*shape: int, seed: int = 8, dtype: str = "float32") -> np.ndarray:
    return np.random.default_rng(seed).integers(-3, 4, shape).astype(dtype)


def _fed(passes: float) -> tf.Tensor:
    """Add 3 so often that the last few sums leave the range."""
    value = _small(40, 30) + np.float32(8388610 - 3 * passes)
    return ops.add(value, np.full([40, 30], 3, np.float32), feed_repeat=passes, accumulator_size=40)


def _softmax() -> tf.Tensor:
    """Compute two vectors whose exponentials sum to 60,000,000, and one with a small sum."""
    table = np.zeros([256, 2], np.uint32)
    table[0, 0] = 60000
    value = np.zeros([3, 1000], np.float32)
    value[2, 1:] = -500
    return ops.softmax(value, table.reshape(-1))


def _decoder(count: int) -> list[np.ndarray]:
    """Return a decoder's inputs: detections, centres, and `count` numbers for each anchor."""
    inputs = [_wide(1, 20, 30, 4), _small(1, 20, 30, 4), _wide(20, 4), _wide(30, 4)]
    return inputs + [_small(2, seed=k) + 2 for k in range(count)]


def _images(count: int) -> list[np.ndarray]:
    return [_wide(count, 8, 90, seed=k) for k in range(4)] + [
        _small(8, 90, seed=k) for k in range(4)
    ]


CONV = {"strides": 1, "padding": "SAME", "accumulator_size": 32}
CASES = [
    Case("HAdd", lambda: ops.add(_wide(2, 9, 9, 5), _wide(2, 9, 9, 5, seed=9))),
    Case("HAdd", lambda: _fed(300.0)),
    Case("HAdd", lambda: _fed(262150.0)),
    Case("HBiasAdd", lambda: ops.bias_add(_wide(2, 9, 9, 5), _wide(5))),
    Case(
        "HDecomposedBiasAdd",
        lambda: ops.decomposed_bias_add(_wide(2, 9, 9, 5), _wide(5), _wide(5)),
    ),
    Case("HConv2d", lambda: ops.conv2d(_wide(5, 9, 9, 4), _small(3, 3, 4, 20), **CONV)),
    Case("HConv2d", lambda: ops.conv2d(_wide(1, 4, 4, 2), _small(2, 2, 2, 3), **CONV)),
    Case(
        "HDepthWise",
        lambda: ops.depthwise_conv2d(
            _wide(25, 7, 7, 20), _small(3, 3, 20, 1) * 100, strides=1, padding="SAME",
            accumulator_size=14,
        ),
        ("out_of_bounds", "corrected_weights"),
    ),
    Case(
        "HDepthWise",
        lambda: ops.depthwise_conv2d(
            _small(3, 7, 7, 20, dtype="int32"), _small(3, 3, 20, 1, dtype="int32") * 100, strides=1,
            padding="SAME", accumulator_size=14,
        ),
        ("corrected_weights",),
    ),
    Case(
        "HMatmul",
        lambda: ops.matmul(_wide(3, 5, 7), _small(3, 7, 18) * 100, accumulator_size=14),
        ("out_of_bounds", "corrected_weights"),
    ),
    Case(
        "HStandaloneElementwiseAdd",
        lambda: ops.weighted_add(_wide(2, 9, 9, 5), _wide(2, 9, 9, 5), _small(10)),
    ),
    Case("HBilinear", lambda: ops.bilinear(*_images(3))),
    Case("HBboxDecoder", lambda: ops.decode_boxes(*_decoder(6))),
    Case(
        "HSingleWeightPerProposalBboxDecoder",
        lambda: ops.decode_boxes_single_weight(*_decoder(4)),
    ),
    Case("HSoftmax", _softmax, ("softmax_overflows",)),
]  # fmt: skip


@pytest.mark.parametrize("case", CASES, ids=lambda case: f"{case.op}-{'-'.join(case.kinds)}")
def test_counts_are_the_numbers_of_lines(case):
    """Each op counts what it prints, to the line, and gives the same bits."""
    with support.printed() as shown:
        expected = case.call()
    lines = lines_of(shown.out)
    assert {kind for kind, count in lines.items() if count} == set(case.kinds)
    assert bitfold.warning_counts() == {}  # what is printed is not counted
    with setting("count"), support.printed() as silent:
        support.assert_bits(case.call(), expected)
        once = bitfold.warning_counts()
        case.call()
        twice = bitfold.warning_counts()
    assert silent.out == ""
    assert once == {(case.op, case.op): lines}
    assert twice == {(case.op, case.op): {kind: 2 * count for kind, count in lines.items()}}


# ---- The setting -------------------------------------------------------------------------------


@tf.function
def _layer(x: tf.Tensor) -> tf.Tensor:
    """Print a line for each number above 8388606."""
    return ops.add(x, tf.ones_like(x), accumulator_size=40, name="layer")


LARGE = tf.constant([[8388607.0, 1.0, 8388607.0]])
TWO = {"out_of_bounds": 2, "corrected_weights": 0, "softmax_overflows": 0}


@pytest.mark.parametrize("wrong", ["Print", "", None, 1, ["count"], np.zeros(2)], ids=str)
def test_other_settings_are_refused(wrong):
    """With what there is, and nothing changes."""
    with pytest.raises(ValueError, match=r'Need "print", "count" or a function'):
        bitfold.set_warnings(wrong)
    assert bitfold.set_warnings("print") == "print"


def test_the_setting_before_is_returned():
    """For those who put it back."""

    def listener(*_: object) -> None:
        pass

    assert bitfold.set_warnings("count") == "print"
    assert bitfold.set_warnings(listener) == "count"
    assert bitfold.set_warnings("print") is listener


def test_a_reset_returns_each_line_once():
    """And leaves nothing."""
    with setting("count"):
        _layer(LARGE)
        assert bitfold.warning_counts(reset=True) == {("HAdd", "layer"): TWO}
        assert bitfold.warning_counts() == {}
        _layer(LARGE)
        assert bitfold.warning_counts() == {("HAdd", "layer"): TWO}


def test_a_call_without_lines_is_not_counted():
    """Nodes that print nothing do not appear."""
    with setting("count"):
        _layer(tf.ones([2, 2]))
        assert bitfold.warning_counts() == {}


def test_a_setting_holds_for_graphs_that_were_made_before():
    """It is asked by each call."""
    with support.printed() as shown:
        _layer(LARGE)
    with setting("count"), support.printed() as silent:
        _layer(LARGE)
    with support.printed() as again:
        _layer(LARGE)
    assert (lines_of(shown.out), silent.out, again.out) == (TWO, "", shown.out)


# ---- A function --------------------------------------------------------------------------------


class Heard:
    """A listener that keeps what it is told."""

    def __init__(self) -> None:
        """Keep nothing yet."""
        self.told: list[tuple[str, str, dict[str, int]]] = []
        self.threads: set[int] = set()

    def __call__(self, op: str, node: str, counts: dict[str, int]) -> None:
        """Keep a call."""
        self.told.append((op, node, counts))
        self.threads.add(threading.get_ident())


def test_a_function_is_told_of_each_call():
    """Once for a call, before its result is there; the counts grow, too."""
    heard = Heard()
    with setting(heard), support.printed() as silent:
        ops.add(LARGE, tf.ones_like(LARGE), accumulator_size=40)
        assert heard.told == [("HAdd", "HAdd", TWO)]
        _layer(LARGE)
        _layer(tf.ones([2, 2]))
        assert heard.told[1:] == [("HAdd", "layer", TWO)]
        assert bitfold.warning_counts() == {("HAdd", "HAdd"): TWO, ("HAdd", "layer"): TWO}
    assert silent.out == ""


def test_a_function_may_do_what_it_likes():
    """Other ops, which are counted and not told, and a change of the setting."""
    told = []

    def listener(op: str, node: str, counts: dict[str, int]) -> None:
        told.append((op, node, counts))
        ops.bias_add(LARGE, tf.ones([3]), accumulator_size=40)
        bitfold.set_warnings("count")

    with setting(listener):
        ops.add(LARGE, tf.ones_like(LARGE), accumulator_size=40)
        _layer(LARGE)
        assert told == [("HAdd", "HAdd", TWO)]
        assert bitfold.warning_counts().keys() == {
            ("HAdd", "HAdd"), ("HBiasAdd", "HBiasAdd"), ("HAdd", "layer")
        }  # fmt: skip


@pytest.mark.filterwarnings("ignore::pytest.PytestUnraisableExceptionWarning")
def test_what_a_function_raises_does_not_stop_the_op():
    """Its exception is shown as those of callbacks are."""

    def listener(*_: object) -> None:
        raise RuntimeError("of the listener")

    with setting(listener):
        support.assert_bits(_layer(LARGE), LARGE + 1)
        assert bitfold.warning_counts() == {("HAdd", "layer"): TWO}


# ---- Callers -----------------------------------------------------------------------------------


@pytest.mark.parametrize("what", ["count", "function"])
def test_in_pipelines(what):
    """Whose threads are not the caller's, and wait for nobody who holds the interpreter's lock."""
    heard = Heard()
    data = tf.data.Dataset.from_tensors(LARGE).repeat(200)
    with setting("count" if what == "count" else heard), support.printed() as silent:
        mapped = data.map(_layer, num_parallel_calls=4).prefetch(8)
        assert sum(1 for _ in mapped) == 200
        (((op, node), counts),) = bitfold.warning_counts().items()
    assert (op, node.rpartition("/")[2], silent.out) == ("HAdd", "layer", "")
    assert counts["out_of_bounds"] == 400
    if what == "function":
        assert [counts for _, _, counts in heard.told] == [TWO] * 200
        assert threading.get_ident() not in heard.threads


def test_on_threads():
    """Calls of many threads lose no line."""
    heard = Heard()
    with setting(heard):
        _layer(LARGE)
        threads = [
            threading.Thread(target=lambda: [_layer(LARGE) for _ in range(50)]) for _ in range(8)
        ]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        assert bitfold.warning_counts()[("HAdd", "layer")]["out_of_bounds"] == 2 * 401
    assert len(heard.told) == 401


# ---- Nodes that always count -------------------------------------------------------------------


def _scoped(scope: str) -> Callable[[tf.Tensor], tf.Tensor]:
    """Return a function of a graph, such as a network's."""

    @tf.function
    def function(x: tf.Tensor) -> tf.Tensor:
        with tf.name_scope(scope + "/"):
            x = ops.add(x, tf.ones_like(x), accumulator_size=40, name="first/layer")
            return ops.add(x, tf.ones_like(x), accumulator_size=40, name="second")

    return function


LAYERS = {("HAdd", "first/layer"): TWO, ("HAdd", "second"): TWO}


def _times(count: int) -> dict[tuple[str, str], dict[str, int]]:
    return {
        place: {kind: count * lines for kind, lines in counts.items()}
        for place, counts in LAYERS.items()
    }


def test_nodes_of_a_scope_count_while_others_print():
    """The word in their names says so; two scopes are told apart."""
    first, second = (warning_lines.counting_scope("net") for _ in range(2))
    run_first, run_second = _scoped(first), _scoped(second)
    with setting("print"), support.printed() as shown:
        run_first(_layer(run_first(LARGE)))
        run_second(LARGE)
        assert warning_lines.counts_below(first) == _times(2)
        assert warning_lines.counts_below(second) == LAYERS
    assert lines_of(shown.out) == TWO  # of `_layer`


def test_nodes_of_a_scope_count_wherever_they_run():
    """Inlined in other functions, in a pipeline, and in a Keras model."""
    scope = warning_lines.counting_scope("net")
    run = _scoped(scope)
    inputs = keras.Input([3])
    model = keras.Model(inputs, keras.layers.Lambda(run)(inputs))
    with setting("print"), support.printed() as shown:
        tf.function(lambda x: run(x) + run(x - 1))(LARGE)
        assert warning_lines.counts_below(scope) == _times(2)
        bitfold.warning_counts(reset=True)
        list(tf.data.Dataset.from_tensors(LARGE).repeat(10).map(run, num_parallel_calls=2))
        assert warning_lines.counts_below(scope) == _times(10)
        bitfold.warning_counts(reset=True)
        model.predict(LARGE, verbose=0)
        assert warning_lines.counts_below(scope) == LAYERS
    assert shown.out == ""


def test_a_function_is_told_of_a_scope_s_nodes_too():
    """It hears all."""
    heard = Heard()
    run = _scoped(warning_lines.counting_scope("net"))
    with setting(heard):
        run(LARGE)
    assert [counts for _, _, counts in heard.told] == [TWO, TWO]
    with setting("print"):
        run(LARGE)
    assert len(heard.told) == 2


_LOAD = """
import sys
import bitfold, tensorflow as tf
from bitfold._frame import warning_lines
warning_lines.counting_scope("net")
tf.saved_model.load(sys.argv[1]).run(tf.constant([[8388607.0, 1.0, 8388607.0]]))
assert bitfold.warning_counts() == {}
"""


def test_a_saved_model_prints_in_another_process(tmp_path):
    """Whatever counted in the process that saved it."""
    module = tf.Module()
    module.run = _scoped(warning_lines.counting_scope("net"))
    with support.printed() as shown:
        module.run(LARGE)
    assert shown.out == ""
    bitfold.warning_counts(reset=True)
    tf.saved_model.save(module, str(tmp_path / "model"))
    output = support.passes(forks.run(_LOAD, str(tmp_path / "model")))
    assert lines_of(output)["out_of_bounds"] == 4


# ---- The end of the process --------------------------------------------------------------------

_ENDS_WHILE_A_PIPELINE_RUNS = """
import sys, time
import bitfold, tensorflow as tf

def layer(x):
    return bitfold.ops.add(x, tf.ones_like(x), accumulator_size=40)

told = []
def listener(*_):
    told.append(1)
    time.sleep(0.002)

bitfold.set_warnings(listener)
data = tf.data.Dataset.from_tensors([[8388607.0]]).repeat().map(layer, num_parallel_calls=4)
iterator = iter(data.prefetch(1000))
next(iterator)
print("told", len(told) > 0)
"""


def test_a_process_ends_while_its_function_is_called():
    """The interpreter goes while threads of a pipeline compute and would call into it."""
    result = support.run_python(_ENDS_WHILE_A_PIPELINE_RUNS)
    assert support.passes(result) == "told True\n"
    assert "Traceback" not in result.stderr


_FORKS = """
import os, sys
import bitfold

told = []
bitfold.set_warnings(lambda *what: told.append(what))
child = os.fork()
bitfold.ops.add([[8388607.0]], [[1.0]], accumulator_size=40)
counts = list(bitfold.warning_counts().values())
assert len(told) == 1 and [c["out_of_bounds"] for c in counts] == [1]
if not child:
    sys.exit(0)
assert os.waitpid(child, 0)[1] == 0
"""


def test_a_fork_counts_for_itself():
    """Parent and child have a setting and counts each."""
    support.passes(forks.run(_FORKS))


def test_the_library_alone_prints():
    """A process that does not import the package has the default."""
    code = (
        "import sys, tensorflow as tf\n"
        "ops = tf.load_op_library(sys.argv[1])\n"
        "ops.h_add([[8388607.0]], [[1.0]], [1.0], [1.0], [0], accumulator_size=40)\n"
    )
    output = support.passes(forks.run(code, bitfold.library_path()))
    assert lines_of(output)["out_of_bounds"] == 1
