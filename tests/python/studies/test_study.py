# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Studies of whole networks: what they agree with, what makes no difference, how they go on."""

from __future__ import annotations

import dataclasses
import json
import os
import pickle

import chains
import generated
import keras
import numpy as np
import plain_sums
import pytest
import tensorflow as tf
from comparing import stored_values
from small_study import images, plain
from test_counts import expected_counts
from witness import Witness

import bitfold
from bitfold.network.shards.data import Data
from bitfold.studies.passes import Plan, Runner
from bitfold.studies.settings import settings_of
from bitfold.studies.tallies import Tally

A = bitfold.Arithmetic
SETTINGS = [A(16), A(13), A(14, 2), {"DEPTHWISE_CONV_2D": A(18), "c1": A(12)}]


@pytest.fixture(scope="module")
def data() -> tuple[np.ndarray, np.ndarray]:
    """Images and labels."""
    return images(70, 2), np.random.default_rng(3).integers(0, 4, 70)


@pytest.fixture(scope="module")
def studied(network, data) -> bitfold.Study:
    """What all defaults find; not to be searched, which would join the findings."""
    return bitfold.study(network, *data, arithmetics=SETTINGS)


def test_metrics_are_those_of_evaluations(network, data):
    """In each arithmetic, and at full width."""
    found = bitfold.study(network, *data, arithmetics=SETTINGS, batch_size=16)
    assert found.findings.metric == network.evaluate(*data)
    assert found.findings.metric_name == "accuracy"
    assert found.findings.images == 70
    for arithmetic, result in zip(SETTINGS, found.results, strict=True):
        assert result.metric == network.with_arithmetic(arithmetic).evaluate(*data)
    names = [result.name for result in found.results]
    assert names == ["16 bits", "13 bits", "14 bits, shift 2", "mixture 1"]


def test_batches_and_threads_make_no_difference(network, data, studied):
    """Nor do datasets in place of arrays, nor stored integers in place of reals."""
    settings = SETTINGS[2:]
    whole = plain(studied)  # in a batch that is not full
    expected = dataclasses.replace(whole, results=whole.results[2:])
    for batch_size in (1, 7, 70):
        found = bitfold.study(network, *data, arithmetics=settings, batch_size=batch_size)
        assert plain(found) == expected
    dataset = tf.data.Dataset.from_tensor_slices(data).batch(6)
    assert plain(bitfold.study(network, dataset, arithmetics=settings)) == expected
    before = bitfold.set_image_threads(True)
    try:
        assert plain(bitfold.study(network, *data, arithmetics=settings)) == expected
    finally:
        bitfold.set_image_threads(before)


def test_samples(network, data):
    """What partial sums say is what they say of the sample's images alone, all else as of all."""
    settings = dict(arithmetics=SETTINGS, batch_size=16)
    whole = bitfold.study(network, *data, partial_sums="all", **settings)
    chosen = bitfold.study(network, *(part[::9] for part in data), **settings)
    found = bitfold.study(network, *data, partial_sums=9, **settings)
    assert whole.findings.looked_at is None
    assert (found.findings.images, found.findings.looked_at) == (70, 8)
    for layer, of_all, of_sample in zip(found.layers, whole.layers, chosen.layers, strict=True):
        assert (layer.needed, layer.sums) == (of_all.needed, of_all.sums)
        assert layer.looked_at == of_sample.sums
        assert layer.on_the_way == max(of_sample.on_the_way, layer.needed)
    for result, of_all, of_sample in zip(found.results, whole.results, chosen.results, strict=True):
        assert result.metric == of_all.metric
        for layer, all_of_it, sample in zip(
            result.layers, of_all.layers, of_sample.layers, strict=True
        ):
            for counts, known, looked in zip(
                (layer.alone, layer.end_to_end),
                (all_of_it.alone, all_of_it.end_to_end),
                (sample.alone, sample.end_to_end),
                strict=True,
            ):
                assert (counts.sums, counts.wrong) == (known.sums, known.wrong)
                expected = dataclasses.replace(
                    looked, sums=known.sums, wrong=known.wrong, looked_at=looked.sums
                )
                assert counts == expected


def test_samples_whatever_the_batches(network, data):
    """By their places in the data alone; "sample" are the first images and some of the others."""
    shifted_and_mixed = SETTINGS[2:]
    for partial_sums, looked in ((9, 8), ("sample", 16)):
        keywords = dict(arithmetics=shifted_and_mixed, partial_sums=partial_sums)
        expected = plain(bitfold.study(network, *data, **keywords))
        assert expected.looked_at == looked
        for batch_size in (1, 16):
            found = bitfold.study(network, *data, batch_size=batch_size, **keywords)
            assert plain(found) == expected
    for every in (1, "all"):
        assert bitfold.study(network, *data, partial_sums=every).findings.looked_at is None
    for wrong in ("some", 0, -3, 2.0, True, None):
        with pytest.raises(ValueError, match='Need partial_sums of "sample", "all" or a whole'):
            bitfold.study(network, *data, partial_sums=wrong)


def test_lines_are_counted_once(network, data):
    """Images of a sample are computed twice, and counted once."""
    half = {"1": A(use_fp16_acc=True, mult_shift=0)}
    found = [
        bitfold.study(network, data[0], arithmetics=half, partial_sums=partial_sums)
        for partial_sums in ("all", 3)
    ]
    one, other = ([layer.out_of_bounds for layer in study.results[0].layers] for study in found)
    assert one == other


def test_without_labels(network, data, studied):
    """All but the metric."""
    expected = studied
    found = bitfold.study(network, data[0], arithmetics=SETTINGS)
    assert found.findings.metric is None
    assert found.findings.metric_name is None
    assert found.layers == expected.layers
    for one, other in zip(found.results, expected.results, strict=True):
        assert one.metric is None
        assert one.layers == other.layers
    with pytest.raises(ValueError, match="Need labels for a search"):
        found.narrowest()


def test_metrics_of_keras(network, data):
    """Their states are added up by shard; those that count are exact however data are split."""
    x, y = data
    given = {
        "sparse_categorical_accuracy": y,
        keras.metrics.SparseTopKCategoricalAccuracy(2): y,
        keras.metrics.PrecisionAtRecall(0.5): np.eye(4)[y],
    }
    narrow = network.with_arithmetic(A(14))
    for metric, labels in given.items():
        expected = narrow.evaluate(x, labels, metric=metric)
        for batch_size in (70, 9):
            found = bitfold.study(
                network, x, labels, metric=metric, arithmetics=[A(14)], batch_size=batch_size
            )
            assert found.results[0].metric == expected
    found = bitfold.study(network, x, np.eye(4, dtype=np.float32)[y], metric="mse", batch_size=70)
    assert found.findings.metric_name == "mean_squared_error"
    assert found.findings.metric == network.evaluate(
        x, np.eye(4, dtype=np.float32)[y], metric="mse", batch_size=70
    )


class CrashError(Exception):
    """Stands for whatever ends a process."""


def _interrupt(monkeypatch, after: int) -> list[int]:
    """Let so many parts be finished; return which were."""
    finished: list[int] = []
    run = Runner.run

    def interrupted(self, shard, advance):
        if len(finished) == after:
            raise CrashError
        result = run(self, shard, advance)
        finished.append(shard.index)
        return result

    monkeypatch.setattr(Runner, "run", interrupted)
    return finished


@pytest.mark.parametrize("is_dataset", [False, True])
def test_an_interrupted_study_goes_on(network, data, studied, tmp_path, monkeypatch, is_dataset):
    """From the finished parts, however often it was interrupted, with the same result."""
    path = tmp_path / "parts"
    given = data
    if is_dataset:
        given = (tf.data.Dataset.from_tensor_slices(data).batch(5),)
    keywords = dict(arithmetics=SETTINGS[:2], batch_size=5, shard_size=10, resume=path)
    finished = 0
    while True:
        with monkeypatch.context() as patch:
            parts = _interrupt(patch, 5)
            try:
                found = bitfold.study(network, *given, **keywords)
            except CrashError:
                continue
            finally:
                finished += len(parts)
            break
    shards = 2 if is_dataset else 7
    assert finished == 3 * shards
    whole = plain(studied)
    assert plain(found) == dataclasses.replace(whole, results=whole.results[:2])


def test_parts_of_another_study_are_refused(network, data, tmp_path):
    """Of another network, arithmetic, metric, shard size or other data, with what differs."""
    x, y = data
    path = tmp_path / "parts"
    keywords = dict(arithmetics=[A(14)], shard_size=20, resume=path)
    bitfold.study(network, x, y, **keywords)
    before = path.read_bytes()
    others = {
        "the arithmetics": dict(keywords, arithmetics=[A(15)]),
        "the shard size": dict(keywords, shard_size=21),
        "the metric": dict(keywords, metric="sparse_categorical_accuracy"),
    }
    for text, changed in others.items():
        with pytest.raises(ValueError, match=f"of another: it differs in {text}"):
            bitfold.study(network, x, y, **changed)
    with pytest.raises(ValueError, match="its own arithmetic"):
        bitfold.study(network.with_arithmetic(A(20)), x, y, **keywords)
    with pytest.raises(ValueError, match="the number of images"):
        bitfold.study(network, x[:60], y[:60], **keywords)
    with pytest.raises(ValueError, match="got other data"):
        bitfold.study(network, x, y[::-1], **keywords)
    with pytest.raises(ValueError, match="got other data"):
        bitfold.study(network, x + 1, y, **keywords)
    assert path.read_bytes() == before


def test_a_path_that_cannot_be_written_is_refused_first(network, data, tmp_path, monkeypatch):
    """Before work begins."""
    finished = _interrupt(monkeypatch, 0)
    for path in (tmp_path / "no folder" / "parts", tmp_path):
        with pytest.raises(OSError, match=str(tmp_path)):
            bitfold.study(network, *data, resume=path)
    assert not finished


def test_parts_add_up_in_any_order(network, data):
    """Tasks are computed anywhere: what they need and what they give can be pickled."""
    images = Data(*data, 10, shard_size=10)
    plan = Plan(network, settings_of(network, SETTINGS), None, has_metric=True)
    plan = pickle.loads(pickle.dumps(plan))
    for setting in (None, 1):
        shards = list(images.shards())
        tallies = [Runner(plan, setting).run(shards[i]) for i in (3, 0, 6)]
        tallies = [pickle.loads(pickle.dumps(tally)) for tally in tallies]
        one, other = tallies[0] + (tallies[1] + tallies[2]), tallies[2] + tallies[0] + tallies[1]
        assert _counted(one) == _counted(other)
        again = Tally.from_json(json.loads(json.dumps(one.to_json())))
        assert again.to_json() == one.to_json()


def _counted(tally: Tally) -> dict:
    found = tally.to_json()
    del found["seconds"]
    return json.loads(json.dumps(found, sort_keys=True))


@pytest.mark.parametrize(
    ("arithmetics", "error", "text"),
    [
        (A(16), TypeError, "Need arithmetics as a list"),
        ("16", TypeError, "Need arithmetics as a list"),
        ([16], TypeError, "Need an Arithmetic or a dictionary"),
        ([{"c1": 16}], TypeError, "Need an Arithmetic or a dictionary"),
        ([{"none": A(16)}], ValueError, "Need a layer, pattern or operator"),
        ([A(16), A(16)], ValueError, "Need each arithmetic once, got '16 bits' 2 times"),
        ([A(0)], ValueError, "Need accumulator_size >= 1 in a study"),
        ([A(32, 31)], ValueError, "Need mult_shift <= 30 in a study"),
    ],
)
def test_arithmetics_are_refused(network, data, arithmetics, error, text):
    """Before work begins."""
    with pytest.raises(error, match=text):
        bitfold.study(network, *data, arithmetics=arithmetics)


def test_names(network, data):
    """Those given, else what differs from full width; by default the network's own arithmetic."""
    x = data[0][:2]
    found = bitfold.study(network, x, arithmetics={"mine": A(16), "two": {"c1": A(9)}})
    assert [result.name for result in found.results] == ["mine", "two"]
    assert bitfold.study(network, x).results == ()
    (own,) = bitfold.study(network.with_arithmetic(A(17, 1)), x).results
    assert (own.name, own.arithmetic) == ("17 bits, shift 1", A(17, 1))
    mixed = network.with_arithmetic({"c1": A(12)})
    (own,) = bitfold.study(mixed, x).results
    assert own.name == "as given"
    assert own.layers == bitfold.study(network, x, arithmetics=[{"c1": A(12)}]).results[0].layers


def test_titles(network, data):
    """The report is called as its reader wishes; the size of the network says what it was of."""
    images, _ = data
    assert bitfold.study(network, images).findings.title == "network of 5 operators"
    assert bitfold.study(network, images, title="mine").findings.title == "mine"
    with pytest.raises(TypeError, match="Need a title that is text or None, got 3"):
        bitfold.study(network, images, title=3)


def test_labels_are_refused(network, data):
    """That are too few, or beside a dataset."""
    x, y = data
    with pytest.raises(ValueError, match="Need a label for each image, got 69 for 70"):
        bitfold.study(network, x, y[:-1])
    dataset = tf.data.Dataset.from_tensor_slices(x).batch(6)
    with pytest.raises(ValueError, match="Need y=None with a dataset"):
        bitfold.study(network, dataset, y)
    with pytest.raises(ValueError, match="Need a layer of"):
        bitfold.study(network, x[:1]).channels("none")


def test_what_is_no_data_is_refused(network, data):
    """Numbers that are none, labels of no output, models in place of networks."""
    x, y = data
    broken = x.copy()
    broken[3] = np.nan
    count = broken[3].size
    with pytest.raises(ValueError, match=f"got {count} elements of NaN in the .* from image 0 on"):
        bitfold.study(network, broken, y)
    with pytest.raises(ValueError, match="Need labels below"):
        bitfold.study(network, x, y + 1000)
    with pytest.raises(TypeError, match=r"Need a bitfold\.Network, got str; Network\.from_keras"):
        bitfold.study("model.tflite", x)
    with pytest.raises(TypeError, match=r"in floats as float_model, got a bitfold\.Network"):
        bitfold.study(network, x[:2], float_model=network)


def test_warning_lines_end_to_end(network, data):
    """Of half precision as many as the network itself would print, and none twice."""
    arithmetic = A(use_fp16_acc=True)
    found = bitfold.study(network, data[0], arithmetics=[arithmetic])
    own = network.with_arithmetic(arithmetic)
    own.predict(data[0])
    counted = own.warnings()
    for layer in found.results[0].layers:
        assert layer.out_of_bounds == counted.get(layer.name, {}).get("out_of_bounds", 0)


def test_noimages(network):
    """Nothing was seen, and what is proven is still there."""
    found = bitfold.study(network, images(0, 1), np.zeros(0, int), arithmetics=[A(12)])
    assert found.findings.images == 0
    for layer in found.layers:
        assert (layer.sums, layer.needed, layer.on_the_way) == (0, 1, 1)
        assert layer.proven > 10
    assert found.results[0].layers[0].alone.sums == 0


def test_remarks():
    """On channels that stand out, and on the layer."""
    keras.utils.set_random_seed(5)
    dense = keras.layers.Dense(4, activation="relu", name="dense")
    model = keras.Sequential([keras.Input((6,)), dense])
    kernel = np.random.default_rng(1).normal(size=(6, 4)).astype(np.float32)
    kernel[:, 1] = 0
    dense.set_weights([kernel, np.float32([0, 0.5, -1000, 0])])
    x = np.random.default_rng(2).normal(size=(50, 6)).astype(np.float32)
    found = bitfold.study(bitfold.Network.from_keras(model, calibration=x), x)
    remarks = [channel.remarks for channel in found.channels("dense")]
    assert remarks[0] == remarks[3] == ()
    assert "all its weights are zero" in remarks[1]
    assert "no sum seen is above zero, so that its output never changes" in remarks[2]
    assert any("is larger than any sum of its products" in remark for remark in remarks[2])
    assert any("bits, all others at most" in remark for remark in remarks[1] + remarks[2])
    assert any(remark.startswith("channel 2: no sum seen") for remark in found.layers[0].remarks)


class _Largest(keras.metrics.Metric):
    """A metric whose state does not add up."""

    def __init__(self):
        super().__init__(name="largest")
        self.largest = self.add_variable((), "zeros", aggregation="mean")

    def update_state(self, labels, outputs):
        self.largest.assign(tf.maximum(self.largest, tf.reduce_max(outputs)))

    def result(self):
        return self.largest

    def get_config(self):
        return {}

    @classmethod
    def from_config(cls, config):
        return cls()


def test_metrics_that_do_not_add_up_are_refused(network, data):
    """By what the metric says of its variables."""
    with pytest.raises(ValueError, match="Need a metric whose variables are sums over images"):
        bitfold.study(network, *data, metric=_Largest())


def test_attribution_joins(data):
    """With a float model: its metric, and what each cause adds to each result."""
    x, y = data
    keras.utils.set_random_seed(5)
    model = keras.Sequential([
        keras.Input((9, 9, 2)),
        keras.layers.Conv2D(3, 3, name="c1"),
        keras.layers.Flatten(),
        keras.layers.Dense(4, name="scores"),
    ])  # fmt: skip
    network = bitfold.Network.from_keras(model, calibration=x)
    found = bitfold.study(network, x, y, arithmetics=[A(14), A(18, 2)], float_model=model)
    floats = np.asarray(model(x, training=False)).argmax(axis=1)
    assert found.findings.float_metric == np.mean(floats == y)
    assert [one.name for one in found.attributions] == ["14 bits", "18 bits, shift 2"]
    for attribution, result in zip(found.attributions, found.results, strict=True):
        first, *_, last = attribution.causes
        assert (first.name, first.metric) == ("quantisation", found.findings.metric)
        assert last.metric == result.metric
        assert set(last.signal_to_error) == {"c1", "scores"}
    assert found.layers == bitfold.study(network, x).layers


def test_files(network, data, tmp_path):
    """What is saved as .json is loaded whole; a search needs the network."""
    found = bitfold.study(network, *data, arithmetics=SETTINGS)
    narrowest = found.narrowest(0.1, widths=range(12, 20), most_evaluations=8)
    assert found.findings.searches == (narrowest,)
    for name in ("study.json", "study.html"):
        found.save(tmp_path / name)
    loaded = bitfold.Study.load(tmp_path / "study.json")
    assert loaded.findings == found.findings
    assert repr(loaded) == repr(found)
    assert loaded._repr_html_() == found._repr_html_()
    loaded.save(tmp_path / "again.html")
    pages = [(tmp_path / name).read_text() for name in ("study.html", "again.html")]
    assert pages[0] == pages[1]
    with pytest.raises(ValueError, match="Need the network and its data for a search"):
        loaded.narrowest()
    with pytest.raises(ValueError, match=r"Need a path that ends in \.html or \.json, got '.*pdf'"):
        found.save(tmp_path / "study.pdf")
    with pytest.raises(ValueError, match=r"Need a \.json file that Study\.save wrote"):
        bitfold.Study.load(tmp_path / "study.html")
    with pytest.raises(OSError, match="none"):
        bitfold.Study.load(tmp_path / "none.json")


@pytest.mark.slow
@pytest.mark.parametrize("seed", range(int(os.environ.get("BITFOLD_STUDIED_NETWORKS", "3"))))
def test_counts_of_random_networks(seed):
    """Layer by layer, with what the network itself gives each layer: alone and end to end."""
    made = generated.network(seed)
    file = Witness(made.content)
    rng = np.random.default_rng(seed)
    inputs = [stored_values(rng, file.dtype(i), (1, *file.shape(i)[1:])) for i in file.inputs]
    given = inputs if len(inputs) > 1 else inputs[0]
    network = bitfold.Network.from_tflite(made.content)
    arithmetics = [A(14 + seed), A(12, seed % 3)]
    study = bitfold.study(network, given, arithmetics=arithmetics)
    for arithmetic, result in zip(arithmetics, study.results, strict=True):
        narrow = network.with_arithmetic(arithmetic)
        for what, run in (("alone", network), ("end_to_end", narrow)):
            known = dict(zip(file.inputs, inputs, strict=True)) | run.trace(given)
            for layer in result.layers:
                kind, read, _ = file.operators[layer.position]
                if any(i >= 0 and i not in known and file.constant(i) is None for i in read):
                    continue  # of images that an operator before it put into other rows
                sums = plain_sums.plain_sums(file, layer.position, known, chains.ChainOps())
                is_wide = file.dtype(read[0 if kind != "TRANSPOSE_CONV" else 2]) == np.int16
                expected = expected_counts(sums, arithmetic, kind, is_wide)
                assert getattr(layer, what) == expected, (seed, layer.name, arithmetic)
