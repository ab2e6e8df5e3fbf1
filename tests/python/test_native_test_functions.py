# SPDX-License-Identifier: MIT
"""The two test-function types: values, calling convention, bad arguments."""

import json
import math
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


DOMAIN, CHECK, GENERATE = "domain_alloc", "parameters_check", "arg_generate"


@pytest.mark.parametrize(
    "parameters, failure",
    [
        ((1, 10, 0.9, 0.2, 1), DOMAIN),
        ((1008, 10, 0.9, 0.2, 1), None),
        ((1009, 0, math.nan, 0.2, 0), DOMAIN),
        ((2, 1, 0.9, 0.2, 0), CHECK),
        ((2, 2, 0.9, 0.2, 1), None),
        ((2, 10, 1.0 - 1e-10, 0.2, 1), CHECK),
        ((2, 10, 1e-10, 5e-11, 1), CHECK),
        ((2, 10, math.nan, 0.2, 1), CHECK),
        ((2, 10, 0.9, 0.45 + 2e-10, 1), CHECK),
        ((2, 10, 0.9, 0.45, 1), None),
        ((2, 10, 0.9, 1e-10, 1), CHECK),
        ((2, 10, 0.9, math.nan, 1), CHECK),
        ((2, 10, 0.9, 0.2, 101), GENERATE),
        ((2, 2**32 - 1, 0.9, 0.2, 1), GENERATE),
        ((2, 100_001, 0.9, 0.2, 1), GENERATE),
    ],
)
def test_gkls_is_refused_with_the_message_of_the_first_check_that_fails(parameters, failure):
    if failure is None:
        assert len(Gkls(*parameters).argmin) == parameters[0]
    else:
        error = repr(TypeError(f"GKLS_{failure} failed."))
        assert error_of(lambda: Gkls(*parameters)) == error


@pytest.mark.parametrize("side", [-1.0, 1.0])
def test_gkls_tolerates_rounding_at_the_faces_of_the_box(side):
    function = Gkls(*GKLS)
    for point in (side, 0.1), (0.1, side):
        inside, outside = ([v * (1 + e) if v == side else v for v in point] for e in (5e-11, 2e-10))
        assert function(inside) < 10.0 and function(outside) == 1e100
    assert math.isnan(function((math.nan, 0.0)))


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
