# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Tables of findings: what stands in them, as text, as HTML and as a data frame."""

from __future__ import annotations

import dataclasses
import html.parser
import itertools
import math
import sys

import made_findings
import pytest

from bitfold.network import Arithmetic
from bitfold.studies import cause_rows, rows, sentences, series, tables, words
from bitfold.studies.records import Counts, LayerCounts, Result

# ---- Rows ----------------------------------------------------------------------------------------


def test_layers_have_their_bits():
    """A row for each layer, in the file's order, with the numbers of the record."""
    findings = made_findings.small()
    table = rows.layers(findings)
    assert [row[0] for row in table.rows] == [layer.name for layer in findings.layers]
    headings = [column.heading for column in table.columns]
    for row, layer in zip(table.rows, findings.layers, strict=True):
        named = dict(zip(headings, row, strict=True))
        assert named["needed"] == layer.needed
        assert named["on the way"] == layer.on_the_way
        assert named["proven, any input"] == layer.proven
        assert named["proven, inputs as seen"] == layer.proven_for_range
        assert named["wraps harmless from"] == layer.harmless_from
        assert named["multiply-adds"] == layer.multiply_adds


def test_results_add_up():
    """A result's shares are those of all its layers' sums."""
    arithmetic = Arithmetic(accumulator_size=9)
    layers = (
        LayerCounts(0, "a", arithmetic, Counts(100), Counts(100, 50, 10), 2, 1),
        LayerCounts(1, "b", arithmetic, Counts(300), Counts(300, 0, 10), 3, 0),
    )
    findings = dataclasses.replace(
        made_findings.small(), results=(Result("nine", arithmetic, 0.9023, layers),)
    )
    (row,) = rows.results(findings).texts()
    assert row == ["nine", "90.23%", "-1.00", "12%", "5.0%", "1", "5", "1"]


def test_what_is_known_of_a_sample_says_so():
    """Captions name the sums that were looked at, whose shares are of them alone."""
    arithmetic = Arithmetic(accumulator_size=9)
    end_to_end = Counts(1000, 500, 10, 70, 3, looked_at=100)
    layers = (LayerCounts(0, "a", arithmetic, Counts(1000, looked_at=100), end_to_end, 2, 1),)
    whole = made_findings.small()
    findings = dataclasses.replace(
        whole,
        looked_at=3,
        layers=tuple(dataclasses.replace(layer, sums=1000, looked_at=10) for layer in whole.layers),
        results=(Result("nine", arithmetic, 0.9023, layers),),
    )
    sums = 1000 * len(whole.layers)
    of_bits = f"On the way: of {sums // 100} of the {sums:,} sums, those looked at."
    assert rows.layers(findings).caption.endswith(of_bits)
    assert rows.channels(findings).caption.endswith(of_bits)
    table = rows.results(findings)
    assert table.caption.endswith("Right again: of 100 of the 1,000 sums, those looked at.")
    assert table.texts()[0][3:5] == ["50%", "10%"]
    assert "of 100 of the 1,000 sums" in rows.counts(findings.results[0]).caption
    assert ["images whose partial sums were looked at", "3"] in rows.overview(findings).texts()
    assert f"of the {sums // 100} of {sums:,} sums looked at" in " ".join(sentences.bits(findings))
    for table in (rows.layers(whole), rows.channels(whole), rows.results(whole)):
        assert "looked at" not in table.caption


def test_a_metric_that_rises_below_all_addends_is_remarked():
    """Where one wrap is not enough a metric says nothing of a register of so few bits."""
    findings = made_findings.small()
    first = next(iter(series.all_series(findings)))
    least = min(layer.harmless_from for layer in findings.layers)
    assert not sentences.rising(findings, first)

    def of(width, metric):
        arithmetic = Arithmetic(accumulator_size=width)
        return Result(f"{width} bits", arithmetic, metric, first.results[0].layers)

    fallen = [of(least - 1, 0.1), of(least, 0.1), of(least + 4, 0.9)]
    for results, said in ((fallen, 0), ([of(least - 2, 0.8), *fallen], 1)):
        made = dataclasses.replace(findings, results=tuple(results))
        (text,) = sentences.rising(made, next(iter(series.all_series(made)))) or [""]
        assert bool(text) == bool(said)
        assert not said or f"Below {least} bits one wrap" in text


def test_no_metric_no_column():
    """Without labels a table has no column for a metric."""
    findings = made_findings.small()
    blind = tuple(dataclasses.replace(result, metric=None) for result in findings.results)
    findings = dataclasses.replace(
        findings, metric=None, metric_name=None, float_metric=None, results=blind
    )
    assert [column.heading for column in rows.results(findings).columns][1] == "wrong sums"


def test_another_metric_has_no_percent():
    """A metric that is no share keeps its own unit."""
    findings = dataclasses.replace(made_findings.small(), metric_name="mean error")
    texts = rows.results(findings).texts()
    assert texts[0][1:3] == [f"{findings.results[0].metric:.4g}", "-0.8072"]


def test_a_metric_in_percent_stays_so():
    """An accuracy above 1 is in percent already."""
    findings = dataclasses.replace(made_findings.bare(), metric_name="accuracy", metric=91.25)
    assert words.metric(findings, findings.metric) == "91.25"
    findings = dataclasses.replace(findings, metric=0.9125)
    assert words.metric(findings, findings.metric) == "91.2%"


def test_channels_that_stand_out():
    """Channels with remarks alone, and not more than people read."""
    findings = made_findings.small()
    table = rows.channels(findings)
    assert [row[1] for row in table.rows] == [3] * len(findings.layers)
    (many,) = [made_findings.small().channels["conv"]]
    crowd = {"conv": tuple(dataclasses.replace(many[3], channel=i) for i in range(1000))}
    table = rows.channels(dataclasses.replace(findings, channels=crowd))
    assert len(table.rows) == 200
    assert table.caption == "The first 200 of 1,000 channels that stand out."


def test_causes_follow_one_another():
    """The change of a cause is that to the one before, of the first to the float model."""
    findings = made_findings.small()
    attribution = findings.attributions[1]
    table = rows.causes(findings, attribution)
    assert [row[0] for row in table.rows] == ["quantisation", "shift", "accumulator"]
    assert [row[2] for row in table.rows][:2] == [0.9123 - 0.9151, 0.908 - 0.9123]


def test_several_attributions_have_one_table():
    """A line for each arithmetic, a column for each cause: the change to the one before."""
    findings = made_findings.small()
    (table,) = cause_rows.attributions(findings)
    headings = [column.heading for column in table.columns]
    assert headings == ["arithmetic", "quantisation", "shift", "accumulator", "last layer"]
    assert [row[0] for row in table.rows] == ["16 bits", "18 bits, shift 2"]
    assert [row[2] for row in table.rows] == [None, 0.908 - 0.9123]
    for row, attribution in zip(table.rows, findings.attributions, strict=True):
        reached = [findings.float_metric, *(cause.metric for cause in attribution.causes)]
        changes = [after - before for before, after in itertools.pairwise(reached)]
        assert [value for value in row[1:4] if value is not None] == changes
        last = attribution.causes[-1]
        assert row[4] == last.signal_to_error[findings.layers[-1].name]


def test_one_attribution_has_its_own_table():
    """And none has none."""
    findings = made_findings.small()
    one = dataclasses.replace(findings, attributions=findings.attributions[:1])
    assert cause_rows.attributions(one) == [rows.causes(one, one.attributions[0])]
    assert cause_rows.attributions(made_findings.bare()) == []


def test_attributions_without_a_metric():
    """The error is what is left; an attribution without causes has an empty line."""
    findings = made_findings.small()
    attributions = tuple(
        dataclasses.replace(
            one, causes=tuple(dataclasses.replace(cause, metric=None) for cause in one.causes)
        )
        for one in findings.attributions
    )
    empty = dataclasses.replace(attributions[0], causes=())
    table = cause_rows.summary(
        dataclasses.replace(findings, attributions=(*attributions, empty), float_metric=None)
    )
    assert [column.heading for column in table.columns] == ["arithmetic", "last layer"]
    assert table.rows[-1] == (empty.name, None)


# ---- Series --------------------------------------------------------------------------------------


def test_series_differ_in_their_width_alone():
    """Widths of one shift belong together, the narrowest first."""
    findings = made_findings.small()
    backwards = dataclasses.replace(findings, results=findings.results[::-1])
    for found in (findings, backwards):
        every = {s.name: s for s in series.all_series(found)}
        assert set(every) == {"no shift", "shift 1", "shift 2"}
        assert every["shift 2"].widths == made_findings.WIDTHS
        assert all(r.arithmetic.mult_shift == 2 for r in every["shift 2"].results)
        others = {result.name for result in series.other_results(found)}
        assert others == {"half precision, shift 2", "a bit less by layer"}


def test_mean_width_is_weighted():
    """A layer with three times the multiply-adds counts three times; no width, no mean."""
    first, second, *_ = made_findings.small().layers
    layers = [
        dataclasses.replace(first, multiply_adds=100),
        dataclasses.replace(second, multiply_adds=300),
    ]
    assert series.mean_width(layers, [20, 16]) == 17
    assert series.mean_width(layers, [20, None]) is None
    assert series.mean_width([], []) is None


def test_arithmetics_in_words():
    """What differs from the exact arithmetic, and nothing else."""
    assert series.describe(Arithmetic()) == "exact"
    arithmetic = Arithmetic(16, 2, True, requantisation="unit", layer_norm="unit")
    assert series.describe(arithmetic) == (
        "16 bits, half precision, shift 2, requantisation by the unit, "
        "layer normalisation by the unit"
    )


# ---- Words ---------------------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("value", "text"),
    [
        (0.0, "0%"),
        (1e-9, "<0.001%"),
        (0.00003, "0.003%"),
        (0.0012, "0.12%"),
        (0.0345, "3.5%"),
        (0.0996, "10%"),
        (0.123, "12%"),
        (0.9999, ">99%"),
        (1.0, "100%"),
    ],
)
def test_shares(value, text):
    """Few wrong sums are not none, and nearly all are not all."""
    assert words.share(value) == text


def test_decibels_without_a_number():
    """What has no finite ratio is said in words."""
    assert [words.decibels(v) for v in (math.inf, -math.inf, math.nan, 31.25)] == [
        "no error",
        "no signal",
        "undefined",
        "31.2",
    ]


def test_elided_names_keep_their_ends():
    """What is too long loses its middle."""
    assert words.elided("abcdefghij", lambda text: len(text) <= 5) == "ab\u2026ij"
    assert words.elided("abc", lambda text: len(text) <= 5) == "abc"
    assert words.elided("abc", lambda text: False) == "\u2026"


# ---- HTML and data frames ------------------------------------------------------------------------


class _Cells(html.parser.HTMLParser):
    """Collects the texts of tables, and checks that tags close in their order."""

    def __init__(self) -> None:
        super().__init__()
        self.open: list[str] = []
        self.texts: list[str] = []

    def handle_starttag(self, tag, attrs):
        assert tag not in ("script", "i", "b"), tag
        self.open.append(tag)
        if tag in ("th", "td", "caption"):
            self.texts.append("")

    def handle_endtag(self, tag):
        assert self.open.pop() == tag

    def handle_data(self, data):
        if self.open and self.open[-1] in ("th", "td", "caption"):
            self.texts[-1] += data


@pytest.mark.parametrize("make", [made_findings.small, made_findings.hostile, made_findings.bare])
def test_html_tables(make):
    """Notebooks get tables with every layer's name, whatever is in it."""
    findings = make()
    parser = _Cells()
    parser.feed(tables.html_tables(findings))
    parser.close()
    assert not parser.open
    for layer in findings.layers:
        assert words.printable(layer.name) in parser.texts


def test_headings_have_their_scope():
    """Readers of tables aloud know what a heading is for."""
    text = tables.html_table(rows.layers(made_findings.small()))
    assert '<th scope="colgroup" colspan="5">bits</th>' in text
    assert '<th scope="col" rowspan="2">layer</th>' in text
    assert '<th scope="row">conv</th>' in text
    assert text.count("<caption>") == 1


def test_records():
    """A row for each layer at full width and in each arithmetic, with counts as they are."""
    findings = made_findings.small()
    records = tables.records(findings)
    assert len(records) == len(findings.layers) * (1 + len(findings.results))
    assert {tuple(record) for record in records} == {tuple(records[0])}
    assert records[0]["arithmetic"] == "full width"
    assert records[0]["wrong_alone"] == 0
    result = findings.results[1]
    record = next(r for r in records if r["arithmetic"] == result.name)
    assert record["wrong_end_to_end"] == result.layers[0].end_to_end.wrong
    assert record["needed"] == findings.layers[0].needed
    assert record["accumulator_size"] == result.layers[0].arithmetic.accumulator_size


class _Frame:
    def __init__(self, records, columns):
        self.records, self.columns = records, columns

    def astype(self, types):
        self.types = types
        return self


def test_data_frame(monkeypatch):
    """The data frame is pandas', made of the records."""
    pandas = type(sys)("pandas")
    pandas.DataFrame = _Frame
    monkeypatch.setitem(sys.modules, "pandas", pandas)
    findings = made_findings.small()
    frame = tables.to_dataframe(findings)
    assert frame.records == tables.records(findings)
    assert frame.columns == list(frame.records[0])
    assert frame.types == {"accumulator_size": "Int64"}
    assert tables.to_dataframe(made_findings.bare(0)).columns == frame.columns


def test_data_frame_without_pandas(monkeypatch):
    """The error says what to install."""
    monkeypatch.setitem(sys.modules, "pandas", None)
    with pytest.raises(ImportError, match="Need pandas for a data frame: pip install pandas"):
        tables.to_dataframe(made_findings.bare())
