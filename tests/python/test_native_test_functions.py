# SPDX-License-Identifier: MIT
"""The two test-function types: values, calling convention, bad arguments."""

import json
import pathlib

import pytest

import _Quenloft
from native import error_of

# By other names: pytest takes what is called Test... for tests.
Grishagin = _Quenloft.TestFunction
Gkls = _Quenloft.TestFunction2

DATA = pathlib.Path(__file__).resolve().parents[1] / "data"
RECORDED = json.loads((DATA / "test_functions.json").read_text())
GKLS = (2, 10, 0.9, 0.2, 1)


def numbers(values):
    return [float.fromhex(value) for value in values]


@pytest.mark.parametrize("entry", RECORDED["grishagin"], ids=lambda entry: entry["number"])
def test_grishagin_values(entry):
    function = Grishagin(entry["number"])
    assert list(function.argmin) == entry["argmin"]
    for x, y, value in map(numbers, entry["values"]):
        assert function((x, y)) == pytest.approx(value, rel=1e-13, abs=1e-13)


@pytest.mark.parametrize("entry", RECORDED["gkls"], ids=lambda entry: str(entry["parameters"]))
def test_gkls_values(entry):
    function = Gkls(*entry["parameters"])
    assert list(function.argmin) == pytest.approx(numbers(entry["argmin"]), rel=1e-13)
    for point, value in entry["values"]:
        expected = float.fromhex(value)
        assert function(numbers(point)) == pytest.approx(expected, rel=1e-13, abs=1e-13)


@pytest.mark.parametrize("number", [0, 101, -5, 2**32 + 1])
def test_number_outside_the_class_stands_for_one(number):
    function, first = Grishagin(number), Grishagin(1)
    assert function.argmin == first.argmin == (0.603052, 0.408337)
    assert function((0.3, 0.7)) == first((0.3, 0.7))


def test_failing_generation_leaves_the_object_as_it_was():
    function = Gkls(*GKLS[:-1], 7)
    held = function.argmin, function((0.1, 0.2))
    error = error_of(lambda: function.__init__(*GKLS[:-1], 101))
    assert error == repr(TypeError("GKLS_arg_generate failed."))
    assert (function.argmin, function((0.1, 0.2))) == held


def test_object_without_a_function_says_so():
    failed = Gkls.__new__(Gkls)
    error_of(lambda: failed.__init__(2, 10, 0.9, 0.9, 1))
    for function in Grishagin.__new__(Grishagin), failed:
        assert not hasattr(function, "argmin")
        uninitialised = repr(TypeError("Test function is not initialised."))
        assert error_of(lambda: function((0.0, 0.0))) == uninitialised
    for function in Gkls.__new__(Gkls), Gkls(7, 10, 0.9, 0.2, 1):
        assert error_of(lambda: function((0.0,) * 7)).startswith("SystemError")


# The point has room for the function that was there when the call began.
def test_initialisation_during_a_call_is_refused():
    class Coordinate:
        def __float__(self):
            function.__init__(6, *GKLS[1:])
            return 0.0

    function = Gkls(*GKLS)
    with pytest.raises(TypeError, match="initialised anew"):
        function((Coordinate(), 0.0))
    assert len(function.argmin) == 6
