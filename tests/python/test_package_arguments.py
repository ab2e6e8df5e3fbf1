# SPDX-License-Identifier: MIT
"""What `minimize` takes, and what it says about what it does not take."""

import math

import numpy
import pytest
from scipy.optimize import Bounds, LinearConstraint, NonlinearConstraint

import Quenloft

BOX = [(-1.0, 2.0), (0.5, 4.0)]


def parabola(x):
    return (x[0] - 0.5) ** 2 + (x[1] - 1.0) ** 2


@pytest.mark.parametrize(
    "bounds",
    [
        pytest.param(BOX, id="pairs"),
        pytest.param([-1, 2, 0.5, 4], id="flat"),
        pytest.param(numpy.array(BOX), id="array of pairs"),
        pytest.param(numpy.array(BOX).ravel(), id="flat array"),
        pytest.param(Bounds([-1, 0.5], [2, 4]), id="SciPy's Bounds"),
        pytest.param((pair for pair in BOX), id="generator"),
        pytest.param([(-1, 2), (numpy.float32(0.5), numpy.int64(4), "log")], id="log triple"),
    ],
)
def test_every_form_of_bounds_declares_the_same_box(bounds):
    result = Quenloft.minimize(parabola, bounds, maxfun=30)
    assert result.history.bounds == tuple(BOX)
    x = numpy.asarray(result.history.x)
    assert (x >= [-1, 0.5]).all() and (x <= [2, 4]).all()


def test_scalar_limits_of_scipy_bounds_are_spread():
    result = Quenloft.minimize(parabola, Bounds(0, [1, 2]), maxfun=10)
    assert result.history.bounds == ((0.0, 1.0), (0.0, 2.0))


@pytest.mark.parametrize(
    "arguments, error, message",
    [
        ({"bounds": 3}, TypeError, "bounds must be a sequence of pairs, not int"),
        ({"bounds": "01"}, TypeError, "bounds must be a sequence of pairs"),
        ({"bounds": []}, ValueError, "from 1 to 32 variables, not 0"),
        ({"bounds": [(0, 1)] * 33}, ValueError, "from 1 to 32 variables, not 33"),
        ({"bounds": [0, 1, 2]}, ValueError, "even number of values, not 3"),
        ({"bounds": [(0, 1), 5]}, TypeError, r"bounds of x\[1\] must be a pair"),
        ({"bounds": [(0, 1, 2, 3)]}, ValueError, r"x\[0\] must be a pair"),
        ({"bounds": [(0, 1), (0, "a")]}, TypeError, r"upper bound of x\[1\] must be a number"),
        ({"bounds": [(0, 1), (math.nan, 1)]}, ValueError, r"lower bound of x\[1\] .* finite"),
        ({"bounds": [(0, 10**400)]}, ValueError, r"upper bound of x\[0\] must be finite"),
        ({"bounds": [(0, math.inf)], "names": ["rate"]}, ValueError, "upper bound of rate"),
        ({"bounds": [(1, 1)]}, ValueError, r"lower bound of x\[0\] .* 1.0 >= 1.0"),
        ({"bounds": [(-1e308, 1e308)]}, ValueError, r"range of x\[0\] is too wide"),
        ({"bounds": [(0, 1, "log")]}, ValueError, r"x\[0\] is logarithmic: .* above 0"),
        ({"bounds": [(1, 2, "exp")]}, ValueError, "can only be 'log', not 'exp'"),
        ({"logarithmic": [2]}, ValueError, "names variable 2; there are 2"),
        ({"logarithmic": [True, False]}, TypeError, "positions of variables, not True"),
        ({"names": ["a"]}, ValueError, "names must hold 2 names, not 1"),
        ({"names": ["a", "a"]}, ValueError, "names must differ"),
        ({"categories": [5]}, TypeError, r"categories\[0\] must be a sequence of choices"),
        ({"categories": ["rbf"]}, TypeError, r"categories\[0\] must be a sequence of choices"),
        ({"categories": [(1,), ()]}, ValueError, r"categories\[1\] .* at least one"),
        ({"categories": [range(101)] * 2}, ValueError, "10201 combinations; at most 10000"),
        ({"constraints": 5}, TypeError, "constraints must be a callable"),
        ({"constraints": [abs, 5]}, TypeError, r"constraints\[1\] must be a callable"),
        (
            {"constraints": LinearConstraint([[1, 1]], 1, 1)},
            ValueError,
            r"constraints\[0\] is an equality",
        ),
        ({"constraints": {"type": "eq", "fun": abs}}, ValueError, "is an equality"),
        (
            {"constraints": NonlinearConstraint(abs, 2, 1)},
            ValueError,
            "lower limit above the upper",
        ),
        ({"constraints": LinearConstraint([[1]], 0, 1)}, ValueError, "for 1 variables"),
        ({"fun": None}, TypeError, "fun must be callable"),
        ({"callback": 3}, TypeError, "callback must be callable"),
        ({"point": "matrix"}, ValueError, "point must be one of 'tuple', 'list', 'array'"),
        ({"polish": 1}, ValueError, "polish must be one of"),
        ({"maxfun": 0}, ValueError, "maxfun must be from 1"),
        ({"maxfun": 2.5}, TypeError, "maxfun must be a whole number"),
        ({"maxfun": "10"}, TypeError, "maxfun must be a whole number"),
        ({"maxtime": 0}, ValueError, "maxtime must be above 0"),
        ({"f_min": math.nan}, ValueError, "f_min must be a number"),
        ({"min_radius": -1}, ValueError, "min_radius must be above 0"),
        ({"overestimation": 0.9}, ValueError, "overestimation must be at least 1"),
        ({"overestimation_local": math.inf}, ValueError, "overestimation_local must be"),
        ({"local_vs_global": -0.1}, ValueError, "local_vs_global must be at least 0"),
        ({"spread": 2}, ValueError, "spread must be above 2"),
        ({"cross": 1.1}, ValueError, "cross must be from 0 to 1"),
        ({"fit": -1}, ValueError, "fit must be from 0"),
    ],
)
def test_a_wrong_argument_is_named_before_anything_is_evaluated(arguments, error, message):
    def fun(*point):
        raise AssertionError("evaluated")

    with pytest.raises(error, match=message):
        Quenloft.minimize(**{"fun": fun, "bounds": BOX, **arguments})


@pytest.mark.parametrize("form, kind", [("tuple", tuple), ("list", list), ("array", numpy.ndarray)])
def test_each_point_is_fresh_and_of_the_kind_asked_for(form, kind):
    kept, constrained = [], []

    def fun(x, choice, power):
        assert type(x) is kind and choice[0] in ("low", None)
        kept.append(x)
        return abs(x[0]) ** power

    def constraint(x, choice):
        assert type(x) is kind
        constrained.append(x)
        if kind is list:
            x[0] = 99.0  # nobody else's
        return -1

    result = Quenloft.minimize(
        fun, BOX, (2,), categories=[("low", None)], constraints=constraint, point=form, maxfun=40
    )
    assert type(result.x) is kind and type(result.xl[0]) is kind
    assert [tuple(x) for x in kept] == list(result.history.x)
    assert len({id(x) for x in kept}) == 40


@pytest.mark.parametrize("value", [1, True, numpy.float32(1), numpy.array([1.0]), numpy.array(1)])
def test_anything_that_is_one_number_is_a_value(value):
    result = Quenloft.minimize(lambda x: value, BOX, constraints=lambda x: -value, maxfun=5)
    assert result.fun == 1.0 and type(result.fun) is float
    assert result.x == result.history.x[0]  # of equals the first


@pytest.mark.parametrize("value", [None, "1.5", 1j, [1.0], numpy.array([1.0, 2.0])])
@pytest.mark.parametrize("source", ["fun", "constraints[0]"])
def test_what_is_no_number_is_an_error_with_source_and_point(value, source):
    functions = {"fun": lambda x: 1.0, "constraints": lambda x: 0.0}
    functions[source.split("[")[0]] = lambda x: value
    with pytest.raises(TypeError, match="must return a number, not .* at x = ") as caught:
        Quenloft.minimize(bounds=BOX, maxfun=5, **functions)
    assert str(caught.value).startswith(source)
    assert "(0.5, 2.25)" in str(caught.value)


@pytest.mark.parametrize(
    "constraint",
    [
        pytest.param(lambda x: x[0] + x[1] - 2, id="callable"),
        pytest.param(LinearConstraint([[1, 1]], -math.inf, 2), id="linear"),
        pytest.param(LinearConstraint([[1, 1], [1, 0]], -9, [2, 9]), id="linear, two rows"),
        pytest.param(NonlinearConstraint(lambda x: [x.sum(), 0], -9, [2, 1]), id="nonlinear"),
        pytest.param(
            {"type": "ineq", "fun": lambda x, a: [9, a - x.sum()], "args": (2,)}, id="dict"
        ),
    ],
)
def test_every_form_of_constraint_makes_the_same_search(constraint):
    plain = Quenloft.minimize(
        lambda x: -x[0] * x[1], BOX, constraints=lambda x: x[0] + x[1] - 2, maxfun=60
    )
    result = Quenloft.minimize(lambda x: -x[0] * x[1], BOX, constraints=[constraint], maxfun=60)
    assert numpy.allclose(numpy.asarray(result.history.x), numpy.asarray(plain.history.x))
    assert list(result.history.index) == list(plain.history.index)
    assert result.maxcv == 0.0 and sum(result.x) <= 2 + 1e-12


def test_a_logarithmic_variable_is_searched_in_its_logarithm_within_its_bounds():
    def fun(u):
        return (u[0] - 0.7) ** 2

    lower, upper = 1e-5, 1e3
    log = Quenloft.minimize(
        lambda x: fun([math.log(x[0])]), [(lower, upper, "log")], maxfun=50, cross=1.0
    )
    plain = Quenloft.minimize(fun, [(math.log(lower), math.log(upper))], maxfun=50, cross=1.0)
    points = [x for (x,) in log.history.x]
    assert points == pytest.approx([math.exp(u) for (u,) in plain.history.x], rel=1e-9)
    assert min(points) == lower and max(points) == upper
    same = Quenloft.minimize(
        lambda x: fun([math.log(x[0])]), [(lower, upper)], logarithmic=[0], maxfun=50, cross=1.0
    )
    assert list(same.history.x) == list(log.history.x)


def test_rounding_does_not_take_a_point_out_of_its_bounds():
    # Here (upper - lower) + lower is above upper, and the cross asks for just that point.
    lower, upper = -0.3, 0.1
    assert (upper - lower) + lower > upper
    result = Quenloft.minimize(lambda x: -x[0], [(lower, upper)], maxfun=5, cross=1.0)
    assert result.x == (upper,)


def test_categories_are_handed_over_as_the_objects_themselves():
    class Kernel:  # neither hashable nor comparable
        __hash__ = None

        def __eq__(self, other):
            raise AssertionError

        def __init__(self, offset):
            self.offset = offset

    kernels = [Kernel(2), Kernel(1), Kernel(3)]
    seen = set()

    def fun(x, choices):
        kernel, only, flag = choices
        assert only == "only one"
        seen.add((kernel.offset, flag))
        return x[0] ** 2 + kernel.offset + (0.5 if flag else 0)

    result = Quenloft.minimize(
        fun, [(-1, 1)], categories=[kernels, ["only one"], (True, False)], maxfun=40
    )
    assert len(seen) == 6
    kernel, only, flag = result.categories
    assert kernel is kernels[1] and not flag
    assert result.locals[0].categories[0] is kernels[1]
    assert result.history[0].categories[0] is kernels[0]
