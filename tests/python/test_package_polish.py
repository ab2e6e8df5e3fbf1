# SPDX-License-Identifier: MIT
"""The polish phase: better, and within the budget, the bounds and the constraints."""

import math
import sys
import threading

import pytest

import Quenloft
from Quenloft import Status
from Quenloft.pattern_search import minimize_by_pattern


def valley(x):
    return 100.0 * (x[1] - x[0] ** 2) ** 2 + (1.0 - x[0]) ** 2


def far_corner(x):
    return -x[0] - 2 * x[1]


def bowl(x):
    return (x[0] - 0.3) ** 2 + (math.log10(x[1]) + 2.2) ** 2


CASES = {
    "inside": (bowl, [(-1, 1), (1e-4, 1, "log")], (), 0.0, 1e-4),
    "at the edge": (far_corner, [(0, 1), (0, 1)], (), -3.0, 1e-4),
    "at a constraint": (far_corner, [(0, 1), (0, 1)], lambda x: x[0] ** 2 + x[1] ** 2 - 1,
                        -math.sqrt(5), 1e-2),
    "in a corner of constraints": (far_corner, [(0, 1), (0, 1)],
                                   [lambda x: x[0] + x[1] - 1.5, lambda x: x[1] - 0.8],
                                   -2.3, 1e-2),
}  # fmt: skip


@pytest.mark.parametrize("method", ["cobyla", "pattern"])
@pytest.mark.parametrize("case", CASES)
def test_polish_improves_within_everything(case, method):
    fun, bounds, constraints, minimum, tolerance = CASES[case]
    calls = []

    def watched(x):
        calls.append(x)
        return fun(x)

    result = Quenloft.minimize(watched, bounds, constraints=constraints, maxfun=400, polish=method)
    search, polish = result.phases["search"], result.phases["polish"]
    assert result.nit == search["nit"] + polish["nit"] <= 400 and result.nfev == len(calls)
    assert result.history.polish_start == search["nit"] < 400
    assert polish["method"] == method and polish["fun"] == result.fun == fun(result.x)
    assert polish["gain"] == search["fun"] - result.fun > 0
    assert result.fun == pytest.approx(minimum, abs=tolerance)
    assert result.locals[0].x == result.x and result.maxcv == 0.0
    points = [(t.x, t.categories) for t in result.history[search["nit"] :]]
    assert len(set(points)) == len(points)
    limits = [constraints] if callable(constraints) else constraints
    for x in calls:
        assert all(a <= v <= b for v, (a, b, *_) in zip(x, bounds))
        assert all(limit(x) <= 0 for limit in limits)
    assert "polish (" in result.message


@pytest.mark.parametrize("trial", [301, 320])
@pytest.mark.parametrize("method", ["cobyla", "pattern"])
def test_an_exception_or_a_stop_while_polishing_is_as_in_the_search(method, trial, capfd):
    count = 0

    def fun(x):
        nonlocal count
        count += 1
        if count == trial:
            raise ZeroDivisionError
        return valley(x)

    box = [(-2, 2), (-1, 3)]
    with pytest.raises(ZeroDivisionError) as caught:
        Quenloft.minimize(fun, box, maxfun=375, polish=method)
    assert count == trial and caught.value.result.nit == trial - 1
    assert caught.value.result.status is Status.ERROR
    stopped = Quenloft.minimize(
        valley, box, maxfun=375, polish=method, callback=lambda r: r.nit == trial
    )
    assert stopped.status is Status.CALLBACK and stopped.nit == trial
    timed = Quenloft.minimize(valley, box, maxtime=0.2, maxfun=math.inf, polish=method)
    assert 0.17 < timed.elapsed_seconds < 5
    assert capfd.readouterr() == ("", "")


def test_without_scipy_or_while_it_is_in_use_the_pattern_search_steps_in(monkeypatch):
    def method(**options):
        result = Quenloft.minimize(bowl, [(-1, 1), (1e-4, 1)], maxfun=100, polish=True, **options)
        return result.phases["polish"]["method"]

    assert method() == "cobyla"
    inner = []
    outer = method(callback=lambda r: inner.append(method()) if r.nit == 90 else None)
    assert (outer, inner) == ("cobyla", ["pattern"])

    def in_a_thread(r):
        if r.nit == 90:
            thread = threading.Thread(target=lambda: inner.append(method()))
            thread.start()
            thread.join(timeout=30)

    assert (method(callback=in_a_thread), inner[1:]) == ("cobyla", ["pattern"])
    monkeypatch.setitem(sys.modules, "scipy.optimize", None)
    assert method() == "pattern"
    with pytest.raises(ValueError, match="needs SciPy"):
        Quenloft.minimize(bowl, [(-1, 1), (1e-4, 1)], polish="cobyla")


@pytest.mark.parametrize("start", [(0.9, 0.9), (0.0, 1.0), (0.31, 0.7)])
def test_the_pattern_search_follows_an_oblique_constraint(start):
    # Coordinate directions alone get stuck at once on the line x + y = 1.
    def rank(x):
        violation = 1.0 - x[0] - x[1]
        return (1, violation) if violation > 1e-12 else (0, 3 * x[0] + x[1] + 4 * x[0] ** 2)

    seen = []
    best = minimize_by_pattern(lambda x: seen.append(x) or rank(x), start, 0.1, 1e-8)
    assert rank(best)[1] == pytest.approx(1.0, abs=1e-3)
    assert rank(best) == min(map(rank, seen))
    assert all(0 <= v <= 1 for x in seen for v in x)
