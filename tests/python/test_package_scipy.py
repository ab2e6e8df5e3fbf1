# SPDX-License-Identifier: MIT
"""The method for `scipy.optimize.minimize`."""

import math

import numpy
import pytest
import scipy.optimize
from scipy.optimize import Bounds, LinearConstraint, OptimizeResult

import Quenloft


def sphere(x, *shift):
    return ((x - sum(shift)) ** 2).sum()


def minimize(*args, **options):
    return scipy.optimize.minimize(*args, method=Quenloft.scipy_method, **options)


@pytest.mark.parametrize("bounds", [[(-1, 2), (-1, 2)], Bounds([-1, -1], [2, 2])])
def test_it_serves_as_a_method_of_scipy(bounds, capsys):
    seen = []
    limits = [LinearConstraint([[1, 1]], 1, math.inf), {"type": "ineq", "fun": lambda x: x[1] + 1}]
    options = {"maxiter": 900, "maxfev": 1e4, "disp": True}
    result = minimize(sphere, [0, 9], args=(0.25,), bounds=bounds, constraints=limits, tol=0.05,
                      callback=seen.append, options=options)  # fmt: skip
    assert type(result) is OptimizeResult and result.success
    assert result.status == Quenloft.Status.MIN_RADIUS
    assert result.x == pytest.approx([0.5, 0.5], abs=1e-3) and type(result.x) is numpy.ndarray
    assert capsys.readouterr().out == result.message + "\n"
    assert (
        list(seen[0]) == [0.0, 2.0]
        and len(seen) == result.nit
        and numpy.array_equal(seen[-1], result.x)
    )


def test_its_callback_may_take_the_intermediate_result_and_stop():
    def callback(*, intermediate_result):
        assert type(intermediate_result) is OptimizeResult
        if intermediate_result.nit == 12:
            raise StopIteration

    result = minimize(sphere, [0.0], bounds=[(-1, 2)], callback=callback, jac=lambda x: 2 * x)
    assert result.nit == 12 and result.status == Quenloft.Status.CALLBACK


@pytest.mark.parametrize(
    "bounds, options, message",
    [
        (None, {}, "needs bounds"),
        ([(0, 1)], {}, "x0 must"),
        ([(0, 1)] * 2, {"max_fun": 3}, "no option 'max_fun'; did you mean 'maxfun'"),
    ],
)
def test_its_errors_are_plain(bounds, options, message):
    with pytest.raises((ValueError, TypeError), match=message):
        minimize(sphere, [0, 0], bounds=bounds, options=options)
