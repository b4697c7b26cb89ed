# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Findings as JSON: nothing is lost, and what is no such file says so."""

from __future__ import annotations

import dataclasses
import json
import math

import made_findings
import numpy as np
import pytest

from bitfold.network import Arithmetic
from bitfold.studies.document import from_json, to_json
from bitfold.studies.records import Attribution, Cause, Counts, LayerCounts, Result

ALL = {
    "small": made_findings.small,
    "large": made_findings.large,
    "hostile": made_findings.hostile,
    "one layer": made_findings.bare,
    "no layer": lambda: made_findings.bare(0),
}


@pytest.mark.parametrize("name", ALL)
def test_round_trip(name):
    """What is read equals what was written, in types and order, too."""
    findings = ALL[name]()
    text = to_json(findings)
    read = from_json(text)
    assert read == findings
    assert repr(read) == repr(findings)
    assert to_json(read) == text


def test_arithmetics_are_whole():
    """Every field of an arithmetic comes back, for all layers and by layer."""
    units = dict.fromkeys(("requantisation", "softmax", "activations", "additions"), "unit")
    arithmetic = Arithmetic(18, 3, True, resize="unit", layer_norm="unit", **units)
    counts = LayerCounts(0, "by layer", arithmetic, Counts(), Counts(1, 1, 0, 5, 2), 3, 4)
    results = (
        Result("one", arithmetic, 0.5, (counts,)),
        Result("mixed", {"by layer": arithmetic, "other": Arithmetic()}, None, (counts,)),
        Result("none", {}, None, ()),
    )
    findings = dataclasses.replace(made_findings.bare(), results=results)
    assert from_json(to_json(findings)) == findings


@pytest.mark.parametrize("value", [math.inf, -math.inf, math.nan, 0.1 + 0.2, -0.0, 5e-324, 1e308])
def test_every_float_comes_back(value):
    """Infinite ones, which JSON has not, among them; the file is valid JSON."""
    cause = Cause("quantisation", value, {"layer_0": value})
    findings = dataclasses.replace(
        made_findings.bare(), attributions=(Attribution("a", (cause,)),), seconds=value
    )
    text = to_json(findings)
    json.loads(text, parse_constant=pytest.fail)
    read = from_json(text)
    found = (read.seconds, read.attributions[0].causes[0].metric)
    assert [repr(v) for v in found] == [repr(value)] * 2
    assert repr(read.attributions[0].causes[0].signal_to_error["layer_0"]) == repr(value)


def test_scalars_of_numpy():
    """What NumPy computed is written as the numbers that it stands for."""
    findings = dataclasses.replace(
        made_findings.bare(),
        images=np.int64(7),
        seconds=np.float32(0.5),
        float_metric=np.float64(2),
    )
    read = from_json(to_json(findings))
    assert (read.images, read.seconds, read.float_metric) == (7, 0.5, 2.0)
    assert type(read.images) is int


def _changed(change):
    content = json.loads(to_json(made_findings.small()))
    change(content)
    return json.dumps(content)


CUT = to_json(made_findings.bare())

DAMAGED = {
    "nothing": ("", "Expecting value"),
    "no JSON": ("hello", "Expecting value"),
    "cut off": (CUT[: len(CUT) // 2], ""),
    "too deep": ("[" * 100_000, ""),
    "a list": ("[]", "another kind"),
    "other JSON": ('{"kind": "picture"}', "another kind"),
    "a later format": (
        _changed(lambda c: c.update(format=9, version="7.1")),
        "format is 9, of Bitfold 7.1",
    ),
    "no findings": (_changed(lambda c: c.pop("findings")), "no findings"),
    "NaN": (CUT.replace('"seconds":0.0', '"seconds":NaN'), "NaN is no number of JSON"),
    "a missing field": (
        _changed(lambda c: c["findings"]["layers"][3].pop("needed")),
        r"findings.layers\[3\] needs every field of LayerBits, got 'none of needed'",
    ),
    "a field too many": (
        _changed(lambda c: c["findings"].update(colour="red")),
        r"findings needs fields of Findings alone, got \['colour'\]",
    ),
    "a text for a number": (
        _changed(lambda c: c["findings"].update(images="many")),
        "findings.images needs a value of the type int, got 'many'",
    ),
    "a float for a whole number": (
        _changed(lambda c: c["findings"].update(images=1.5)),
        "findings.images needs a value of the type int, got 1.5",
    ),
    "a flag for a number": (
        _changed(lambda c: c["findings"].update(metric=True)),
        "findings.metric needs a number, got True",
    ),
    "an object for a list": (
        _changed(lambda c: c["findings"].update(layers={})),
        "findings.layers needs a list",
    ),
    "a list for an object": (
        _changed(lambda c: c["findings"].update(channels=[1])),
        "findings.channels needs an object",
    ),
    "a range of three": (
        _changed(lambda c: c["findings"]["layers"][0].update(data_range=[1, 2, 3])),
        "data_range needs 2 values",
    ),
    "an arithmetic that is none": (
        _changed(lambda c: c["findings"]["results"][0]["arithmetic"].update(accumulator_size=99)),
        "findings.results.0..arithmetic is no arithmetic: Need 0 <= accumulator_size <= 32",
    ),
}


@pytest.mark.parametrize("name", DAMAGED)
def test_damaged_files(name):
    """A ValueError says what is wrong and where."""
    text, reason = DAMAGED[name]
    with pytest.raises(ValueError, match=r"^Need the JSON file of a study, got") as error:
        from_json(text)
    assert error.match(reason)


def test_every_truncation_is_refused():
    """No part of a file passes for a whole one."""
    for end in range(len(CUT) - 1):
        with pytest.raises(ValueError, match="Need the JSON file of a study"):
            from_json(CUT[:end])
