# SPDX-License-Identifier: MIT
"""What `minimize` takes, and what it says about what it does not take."""

import math

import numpy
import pytest
from scipy.optimize import Bounds, LinearConstraint

import Quenloft

BOX = [(-1.0, 2.0), (0.5, 4.0)]
FORMS = {
    "pairs": BOX,
    "array": numpy.array(BOX),
    "SciPy": Bounds([-1, 0.5], [2, 4]),
    "generator": (pair for pair in BOX),
    "log triple": [(-1, 2), (numpy.float32(0.5), numpy.int64(4), "log")],
}


@pytest.mark.parametrize("form", FORMS)
def test_every_form_of_bounds_declares_the_same_box(form):
    result = Quenloft.minimize(lambda x: x[0] ** 2 + x[1], FORMS[form], maxfun=30)
    assert result.history.bounds == tuple(BOX)
    assert all(a <= v <= b for x in result.history.x for v, (a, b) in zip(x, BOX))


# fmt: off
ERRORS = [
    ({"bounds": "01"}, "bounds must be a sequence of pairs"),
    ({"bounds": [(0, 1)] * 33}, "from 1 to 32 variables, not 33"),
    ({"bounds": [(0, 10**400)]}, r"upper bound of x\[0\] must be finite"),
    ({"bounds": [(math.nan, 1)], "names": ["rate"]}, "lower bound of rate must be finite"),
    ({"bounds": [(2, 1)]}, r"lower bound of x\[0\] .* 2.0 > 1.0"),
    ({"bounds": [(-1e308, 1e308)]}, r"range of x\[0\] is too wide"),
    ({"bounds": [(1, 2, "exp")]}, "'log', 'int' or a step, not 'exp'"),
    ({"logarithmic": [2]}, "names variable 2; there are 2"),
    ({"categories": [(1,), ()]}, r"categories\[1\] .* at least one"),
    ({"categories": [range(101)] * 2}, "10201 combinations; at most 10000"),
    ({"constraints": [abs, True]}, r"constraints\[1\] must be a callable"),
    ({"constraints": [2, abs]}, r"constraints\[0\] must be a callable"),
    ({"constraints": 0}, "number of constraints that fun returns must be from 1"),
    ({"constraints": 10**6}, "at most 10000 constraints"),
    ({"batch": 0}, "batch must be from 1"),
    ({"constraints": LinearConstraint([[1, 1]], 1, 1)}, r"constraints\[0\] is an equality"),
    ({"point": "matrix"}, "point must be one of 'tuple', 'list', 'array'"),
    ({"maxfun": 0}, "maxfun must be from 1"),
    ({"f_min": math.nan}, "f_min must be a number"),
]
# fmt: on


@pytest.mark.parametrize("arguments, message", ERRORS)
def test_a_wrong_argument_is_named_before_anything_is_evaluated(arguments, message):
    def fun(*point):
        raise AssertionError("evaluated")

    with pytest.raises((TypeError, ValueError), match=message):
        Quenloft.minimize(**{"fun": fun, "bounds": BOX, **arguments})


@pytest.mark.parametrize("form, kind", [("tuple", tuple), ("list", list), ("array", numpy.ndarray)])
def test_each_point_is_fresh_and_of_the_kind_asked_for(form, kind):
    kept = []

    def fun(x, choice, power):
        kept.append(x)
        return abs(x[0]) ** power

    def constraint(x, choice):
        assert type(x) is kind
        if kind is list:
            x[0] = 99.0  # nobody else's
        return -1

    result = Quenloft.minimize(
        fun, BOX, (2,), categories=[("low", None)], constraints=constraint, point=form, maxfun=40
    )
    assert {type(x) for x in [*kept, result.x, result.xl[0]]} == {kind}
    assert [tuple(x) for x in kept] == list(result.history.x)
    assert len({id(x) for x in kept}) == 40


@pytest.mark.parametrize("value", [1, True, numpy.float32(1), numpy.array([1.0])])
def test_anything_that_is_one_number_is_a_value(value):
    result = Quenloft.minimize(lambda x: value, BOX, constraints=lambda x: -value, maxfun=5)
    assert result.fun == 1.0 and type(result.fun) is float
    assert result.x == result.history.x[0]  # of equals the first


@pytest.mark.parametrize("value", [None, "1.5", 1j, numpy.array([1.0, 2.0])])
@pytest.mark.parametrize("source", ["fun", "constraints"])
def test_what_is_no_number_is_an_error_with_source_and_point(value, source):
    functions = {"fun": lambda x: 1.0, "constraints": lambda x: 0.0, source: lambda x: value}
    message = source + r".* must return a number, not .* at x = \(0.5, 2.25\)"
    with pytest.raises(TypeError, match=message):
        Quenloft.minimize(bounds=BOX, maxfun=5, **functions)


def test_a_logarithmic_variable_is_searched_in_its_logarithm_within_its_bounds():
    def search(bounds, fun=lambda x: (math.log(x[0]) - 0.7) ** 2, **options):
        result = Quenloft.minimize(fun, bounds, maxfun=50, cross=1.0, **options)
        return [x for (x,) in result.history.x]

    lower, upper = 1e-5, 1e3
    plain = search([(math.log(lower), math.log(upper))], lambda u: (u[0] - 0.7) ** 2)
    log = search([(lower, upper, "log")])
    assert log == pytest.approx([math.exp(u) for u in plain], rel=1e-9)
    assert (min(log), max(log)) == (lower, upper)
    assert search([(lower, upper)], logarithmic=[0]) == log


def test_rounding_does_not_take_a_point_out_of_its_bounds():
    lower, upper = -0.3, 0.1
    assert (upper - lower) + lower > upper  # where the cross puts its outermost point
    assert Quenloft.minimize(lambda x: -x[0], [(lower, upper)], maxfun=5, cross=1.0).x == (upper,)


def test_categories_are_handed_over_as_the_objects_themselves():
    kernels = [numpy.array([2, 0]), numpy.array([1, 0])]  # neither hashable nor comparable
    result = Quenloft.minimize(
        lambda x, choices: x[0] ** 2 + choices[0][0] + bool(choices[2]),
        [(-1, 1)], categories=[kernels, ["only one"], (True, False)], maxfun=40,
    )  # fmt: skip
    assert result.categories[1:] == ("only one", False)
    assert result.categories[0] is result.locals[0].categories[0] is kernels[1]
