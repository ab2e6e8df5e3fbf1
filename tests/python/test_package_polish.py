# SPDX-License-Identifier: MIT
"""The polish phase: better, and within the budget, the bounds and the constraints."""

import math
import sys
import threading

import pytest

import Quenloft
from Quenloft import Status
from Quenloft._pattern_search import minimize_by_pattern

UNIT = [(0, 1), (0, 1)]
BOWL = [(-1, 1), (1e-4, 1, "log")]


def far_corner(x):
    return -x[0] - 2 * x[1]


# Not quadratic: what the search models exactly leaves nothing to polish.
def bowl(x):
    return abs(x[0] - 0.3) ** 1.5 + abs(math.log10(x[1]) + 2.2) ** 1.5


# fmt: off
CASES = {
    "inside": (bowl, BOWL, [], 0.0, 1e-4),
    "at the edge": (lambda x: bowl(x) - x[2], [*BOWL, (0, 1)], [], -1.0, 1e-4),
    "at a constraint": (far_corner, UNIT, [lambda x: x[0]**2 + x[1]**2 - 1], -math.sqrt(5), 1e-2),
    "in a corner": (far_corner, UNIT, [lambda x: sum(x) - 1.5, lambda x: x[1] - 0.8], -2.3, 1e-2),
}
# fmt: on


@pytest.mark.parametrize("method", ["cobyla", "pattern"])
@pytest.mark.parametrize("case", CASES)
def test_polish_improves_within_everything(case, method):
    fun, bounds, limits, minimum, tolerance = CASES[case]
    calls = []
    result = Quenloft.minimize(
        lambda x: calls.append(x) or fun(x),
        bounds,
        constraints=limits,
        maxfun=400,
        local_models=False,
        polish=method,
    )
    search, polish = result.phases["search"], result.phases["polish"]
    assert result.nit == search["nit"] + polish["nit"] <= 400 and result.nfev == len(calls)
    assert result.history.polish_start == search["nit"] < 400
    assert polish["method"] == method and polish["fun"] == result.fun == fun(result.x)
    assert polish["gain"] == search["fun"] - result.fun > 0
    assert result.fun == pytest.approx(minimum, abs=tolerance)
    assert result.locals[0].x == result.x and "polish (" in result.message
    points = list(result.history.x)[search["nit"] :]
    assert len(set(points)) == len(points)
    for x in calls:
        assert all(a <= v <= b for v, (a, b, *_) in zip(x, bounds))
        assert all(limit(x) <= 0 for limit in limits)


@pytest.mark.parametrize("method", ["cobyla", "pattern"])
def test_an_exception_or_a_stop_while_polishing_is_as_in_the_search(method, capfd):
    count = 0

    def fun(x):
        nonlocal count
        count += 1
        return bowl(x) / (count != 320)

    with pytest.raises(ZeroDivisionError) as caught:
        Quenloft.minimize(fun, BOWL, maxfun=375, polish=method)
    assert count == 320 and caught.value.result.nit == 319
    assert caught.value.result.status is Status.ERROR
    stops = {"callback": lambda r: r.nit == 320, "maxfun": 375, "polish": method}
    stopped = Quenloft.minimize(bowl, BOWL, **stops)
    assert stopped.status is Status.CALLBACK and stopped.nit == 320
    timed = Quenloft.minimize(bowl, BOWL, maxtime=0.1, maxfun=math.inf, polish=method)
    assert timed.status is Status.MAXTIME and "polish" in timed.phases
    assert capfd.readouterr() == ("", "")


def test_without_scipy_or_while_it_is_in_use_the_pattern_search_steps_in(monkeypatch):
    def method(callback=None):
        result = Quenloft.minimize(bowl, BOWL, maxfun=100, polish=True, callback=callback)
        return result.phases["polish"]["method"]

    inner = []

    def nested(r):
        if r.nit == 90:
            inner.append(method())
            thread = threading.Thread(target=lambda: inner.append(method()))
            thread.start()
            thread.join(timeout=30)

    assert (method(nested), inner) == ("cobyla", ["pattern", "pattern"])
    monkeypatch.setitem(sys.modules, "scipy.optimize", None)
    assert method() == "pattern"
    with pytest.raises(ValueError, match="needs SciPy"):
        Quenloft.minimize(bowl, BOWL, polish="cobyla")


def test_the_pattern_search_follows_an_oblique_constraint():
    # Coordinate directions alone get stuck at once on the line x + y = 1.
    def rank(x):
        violation = 1.0 - x[0] - x[1]
        return (1, violation) if violation > 1e-12 else (0, 3 * x[0] + x[1] + 4 * x[0] ** 2)

    for start in (0.9, 0.9), (0.0, 1.0), (0.31, 0.7):
        best = minimize_by_pattern(rank, start, 0.1, 1e-8)
        assert rank(best) == (0, pytest.approx(1.0, abs=1e-3))
