# SPDX-License-Identifier: MIT
"""Objective and constraints from one evaluation: what is known at infeasible points is used."""

import math

import pytest
from scipy.optimize import LinearConstraint, NonlinearConstraint

import Quenloft
from Quenloft import NonFiniteError

BOX = [(-1.0, 2.0), (0.5, 4.0)]


def cost(x, *choices):
    return (x[0] - 2) ** 2 + x[0] * x[1] + len(choices)


def first(x, *choices):
    return 1.5 - x[0] - x[1]


def second(x, *choices):
    return x[0] - 1.2


def loose(function):
    def constraint(*point):
        return function(*point)

    constraint.keep_feasible = False
    return constraint


def both(x, *choices):
    return cost(x, *choices), [first(x), second(x)]


FORMS = {
    "callables": (cost, [loose(first), loose(second)]),
    "nonlinear": (
        cost,
        [
            NonlinearConstraint(sum, 1.5, math.inf),
            NonlinearConstraint(lambda x: x[0], -math.inf, 1.2, keep_feasible=[False]),
        ],
    ),
    "others": (
        cost,
        [
            LinearConstraint([1, 1], 1.5),
            {"type": "ineq", "fun": lambda x, a: a - x[0], "args": (1.2,)},
        ],
    ),
    "behind another": (lambda x: (cost(x), (second(x),)), [loose(first), 1]),
}


@pytest.mark.parametrize("fun, constraints", FORMS.values(), ids=FORMS)
def test_whoever_gives_the_values_all_of_them_are_known_everywhere(fun, constraints):
    result = Quenloft.minimize(fun, BOX, constraints=constraints, maxfun=80)
    expected = Quenloft.minimize(both, BOX, constraints=2, maxfun=80)
    assert [t.x for t in result.history[:5]] == [t.x for t in expected.history[:5]]
    assert result.fun == pytest.approx(expected.fun, abs=1e-6) == pytest.approx(1.24, abs=1e-6)
    assert {0, 1, 2} == {*result.history.index} and result.nfev == result.nit == 80
    for t in result.history:
        assert t.constraints == pytest.approx((first(t.x), second(t.x)))
        assert t.objective == cost(t.x) and t.maxcv == max(0.0, *t.constraints)


def test_what_guards_others_is_called_before_them_and_they_not_where_it_is_violated():
    seen = []

    def fun(x, choices):
        seen.append(x)
        return cost(x, choices), (math.nan,) if second(x) > 0.5 else (second(x),)

    constraints = [loose(lambda x, choices: x[1] - 3.5), first, 1]
    with pytest.raises(NonFiniteError, match=r"constraints\[2\] of fun .*nan"):
        Quenloft.minimize(fun, BOX, constraints=constraints, categories=[["a"]], maxfun=80)
    seen.clear()
    result = Quenloft.minimize(
        fun, BOX, constraints=constraints, categories=[["a"]], maxfun=80, nonfinite="infeasible"
    )
    assert {0, 1, 2, 4} == {*result.history.index} and result.nfev == len(seen) < 80
    for t in result.history:
        is_called = first(t.x) <= 0
        assert is_called == (t.x in seen) == (t.objective == cost(t.x, "a"))
        assert math.isnan(t.constraints[2]) == (not is_called or second(t.x) > 0.5)


ANSWERS = [
    (1.0, "2 constraint values, not 1.0 at x = "),
    ((1.0, [0.0]), "2 constraint values"),
    ((1.0, 0.0, 0.0), "2 constraint values"),
    ((1.0, ["a", 0.0]), "constraint 0 of fun must return a number"),
    ((None, [0.0, 0.0]), "fun must return a number, not None"),
    (math.nan, "fun returned nan"),
]


@pytest.mark.parametrize("answer, message", ANSWERS)
def test_what_is_not_objective_and_constraints_is_an_error_that_names_the_point(answer, message):
    with pytest.raises((TypeError, NonFiniteError), match=message):
        Quenloft.minimize(lambda x: answer, BOX, constraints=2)


def test_a_simulation_may_fail_as_a_whole_and_need_no_objective_where_it_is_infeasible():
    def simulate(x):
        return math.nan if x[1] > 3.5 else both(x) if first(x) <= 0 else (math.inf, [first(x), 0])

    result = Quenloft.minimize(simulate, BOX, constraints=2, nonfinite="infeasible", maxfun=80)
    assert result.fun == pytest.approx(1.24, abs=1e-3) and result.nfev == 80
    assert all(math.isnan(t.value) == (t.x[1] > 3.5) for t in result.history)
    with pytest.raises(NonFiniteError, match="fun"):
        Quenloft.minimize(simulate, BOX, constraints=2)
