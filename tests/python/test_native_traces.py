# SPDX-License-Identifier: MIT
"""Recorded searches, played back: every call in order, and the result, to the bit."""

import json
import pathlib

import pytest

from _Quenloft import Problem

DATA = pathlib.Path(__file__).resolve().parents[1] / "data"
TRACES = sorted(path.stem for path in DATA.glob("*.json") if path.stem != "test_functions")


def hexadecimal(values):
    return [value.hex() for value in values]


def as_recorded(test):
    return {
        "index": test.index,
        "value": test.value.hex(),
        "coordinate": hexadecimal(test.coordinate),
        "categorical": list(getattr(test, "categorical", ())),
        "radius": test.radius.hex(),
    }


@pytest.mark.parametrize("name", TRACES)
def test_search_repeats_the_recorded_one(name):
    trace = json.loads((DATA / f"{name}.json").read_text())
    recorded = iter(trace["calls"])
    differences = []

    def function(number):
        def answer(x, categories=()):
            *expected, value = next(recorded)
            call = [number, hexadecimal(x), list(categories)]
            if call != expected:
                differences.append((call, expected))
                return float("nan")
            return float.fromhex(value)

        return answer

    categorical = {"categorical": trace["categorical"]} if trace["categorical"] else {}
    problem = Problem(
        bounds=trace["bounds"],
        constraints=[function(i) for i in range(trace["constraint_count"])],
        target=function(trace["constraint_count"]),
        **categorical,
    )
    result = problem.Minimize(**trace["parameters"])
    assert differences == []
    assert next(recorded, None) is None
    assert result.tests == trace["tests"]
    assert as_recorded(result.minimum) == trace["minimum"]
    assert [as_recorded(test) for test in result.locals] == trace["locals"]
