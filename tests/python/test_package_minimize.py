# SPDX-License-Identifier: MIT
"""Budgets, stops, exceptions and the result of `minimize`."""

import gc
import math
import os
import pickle
import re
import signal
import time
import traceback
import weakref

import numpy
import pytest

import Quenloft
from Quenloft import Status

BOX = [(-1.0, 2.0), (0.5, 4.0)]


def parabola(x, *rest):
    return (x[0] - 0.5) ** 2 + (x[1] - 1.0) ** 2


@pytest.mark.parametrize("options", [{}, {"local_models": False}])
@pytest.mark.parametrize("maxfun", [1, 2, 4, 5, 6, 7, 30, 101])
def test_never_one_evaluation_more_than_maxfun(maxfun, options):
    calls = []
    result = Quenloft.minimize(
        lambda x: calls.append(x) or parabola(x), BOX, maxfun=maxfun, **options
    )
    assert len(calls) == result.nfev == result.nit == len(result.history) == maxfun
    assert f"{maxfun} trials of {maxfun}" in result.message
    assert result.success and result.fun == min(map(parabola, calls)) == parabola(result.x)


def test_the_search_is_the_native_one():
    def noting(x, category):
        points.append(((*x,), (*category,)))
        return x[0] + 0.1 * category[0]

    points = []
    settings = {"spread": 9.0, "overestimation": 1.7, "local_vs_global": 1.5, "cross": 0.5}
    problem = Quenloft.Problem(
        bounds=[-1, 2, 0.5, 4], categorical=[2], constraints=[noting], target=parabola
    )
    native = problem.Minimize(stop_tests=80, **settings)
    result = Quenloft.minimize(
        parabola, BOX, categories=[(0, 1)], constraints=lambda x, c: x[0] + 0.1 * c[0], maxfun=80,
        local_models=False, **settings,
    )  # fmt: skip
    assert list(zip(result.history.x, result.history.category)) == points
    tests = [(test.coordinate, test.value, test.radius) for test in native.locals]
    assert [(m.x, m.fun, m.radius) for m in result.locals] == tests


def test_violated_constraints_count_as_trials_and_not_as_calls_of_fun():
    calls = []
    limits = [lambda x: 0.3 - x[0], lambda x: 1.5 - x[1]]
    result = Quenloft.minimize(
        lambda x: calls.append(x) or x[0], BOX, constraints=limits, maxfun=60
    )
    assert result.nit == 60 and len(calls) == result.nfev < 60
    for trial in result.history:
        values = [limit(trial.x) for limit in limits]
        index = next((i for i, value in enumerate(values) if value > 0), 2)
        assert (trial.index, trial.value) == (index, [*values, trial.x[0]][index])
        known = values[: index + 1]
        assert trial.constraints[: len(known)] == tuple(known)
        assert all(map(math.isnan, trial.constraints[len(known) :]))


# fmt: off
STOPS = [
    ({"f_min": 0.05}, Status.F_MIN, "<= 0.05"),
    ({"min_radius": 0.1}, Status.MIN_RADIUS, "< 0.1"),
    ({"maxtime": 0.15, "maxfun": math.inf}, Status.MAXTIME, "s of 0.15 s"),
    ({"callback": lambda r: numpy.int64(r.nit) == 7}, Status.CALLBACK, "by the callback: 7 trials"),
    ({}, Status.MAXFUN, "2000 trials of 2000"),
]
# fmt: on


@pytest.mark.parametrize("options, status, message", STOPS)
def test_every_stop_says_which_it_was(options, status, message):
    start = time.perf_counter()
    result = Quenloft.minimize(parabola, BOX, **options)
    elapsed = time.perf_counter() - start
    assert (result.status, result.success) == (status, True) and message in result.message
    assert options.get("maxtime", 0.0) < result.elapsed_seconds <= elapsed < 5
    if status is Status.F_MIN:
        values = list(result.history.value)
        assert values[-1] == result.fun <= 0.05 < min(values[:-1])


def test_a_callback_sees_each_trial_and_may_stop_by_an_exception():
    seen = []

    def callback(r):
        seen.append(r)
        r.kept = numpy.asarray(r.history.x)  # must not keep the history from growing
        assert r.kept.shape == (r.nit, 2) and r.nit == len(seen)
        assert r.status is Status.RUNNING and repr(r.trial) == repr(r.history[-1])
        if r.nit == 25:
            raise StopIteration
        return 1  # no truth value

    result = Quenloft.minimize(parabola, BOX, constraints=lambda x: x[0], callback=callback)
    assert result.status is Status.CALLBACK and result.nit == 25
    for field in ("x", "fun", "nfev", "maxcv"):
        assert seen[-1][field] == result[field]
    funs = [r.fun for r in seen]
    assert funs == sorted(funs, reverse=True) and funs[0] == math.inf


class Refusal(Exception):
    def __setattr__(self, name, value):
        raise AttributeError(name)


ERRORS = [MemoryError("mine"), Refusal(), SystemExit(3), StopIteration()]
# Raised by the callback, StopIteration is a stop.
FAILURES = [(source, e) for source in ("fun", "constraints") for e in ERRORS]
FAILURES += [("callback", e) for e in ERRORS[:-1]]


@pytest.mark.parametrize("source, error", FAILURES)
@pytest.mark.parametrize("trial", [0, 3, 40])
def test_an_exception_arrives_as_itself_with_the_result_so_far(source, error, trial):
    count = 0

    def failing(x):
        nonlocal count
        count += 1
        if count > trial:
            raise error
        return -1.0

    functions = {"fun": parabola, "constraints": lambda x: -1, source: failing}
    with pytest.raises(type(error)) as caught:
        Quenloft.minimize(bounds=BOX, maxfun=100, **functions)
    assert caught.value is error and count == trial + 1
    assert "failing" in [frame.name for frame in traceback.extract_tb(error.__traceback__)]
    result = vars(error)["result"]
    assert (result.status, result.success) == (Status.ERROR, False)
    assert result.nit == len(result.history) == trial + (source == "callback")
    assert result.fun == min(result.history.value, default=math.inf)


@pytest.mark.parametrize("value", [math.nan, math.inf, -math.inf])
def test_a_value_that_is_not_finite_is_an_error_with_the_point(value):
    with pytest.raises(Quenloft.NonFiniteError, match=rf"fun returned {value} at x = \(1\.9") as e:
        Quenloft.minimize(lambda x: value if x[0] > 1.5 else parabola(x), BOX)
    copy = pickle.loads(pickle.dumps(e.value))
    assert (copy.x, str(copy), copy.result.nit) == (e.value.x, str(e.value), 2)


NOWHERE = [
    ({"constraints": [lambda x: -1, lambda x: x[0] + 5]}, r"constraints\[1\] .* 4.* > 0"),
    ({"nonfinite": "infeasible", "fun": lambda x: math.nan}, "fun was nowhere finite"),
]


@pytest.mark.parametrize("options, message", NOWHERE)
def test_without_a_feasible_point_the_result_says_so(options, message):
    result = Quenloft.minimize(**{"fun": parabola, "bounds": BOX, "maxfun": 40, **options})
    assert not result.success and result.status is Status.MAXFUN and result.x is not None
    assert result.fun == math.inf and result.locals == result.xl == []
    nearest = min(result.history.value) if "constraints" in options else math.inf
    assert result.maxcv == nearest
    assert re.search("no feasible point: " + message, result.message)


def test_local_minima_come_best_first_without_infeasible_ones():
    def minima(**options):
        result = Quenloft.minimize(
            lambda x: min((x[0] - 0.2) ** 2, (x[0] - 0.8) ** 2 + 0.01), [(0, 1)], **options
        )
        assert result.xl[0] == result.x and result.funl == sorted(result.funl)
        return [m.x[0] for m in result.locals]

    assert minima(maxfun=60) == pytest.approx([0.2, 0.8], abs=0.02)
    assert minima(maxfun=60, constraints=lambda x: 0.5 - x[0]) == pytest.approx([0.8], abs=0.02)
    assert len(minima(maxfun=2)) == 1


def test_what_a_search_held_is_let_go():
    def search(**limits):
        payload = set()
        limits = {name: lambda x, p=payload: -1.0 for name in limits}
        Quenloft.minimize(lambda x, p=payload: x[0], [(0, 1)], maxfun=9, **limits)
        return weakref.ref(payload)

    held = [search(), search(constraints=True)]
    gc.collect()
    assert [reference() for reference in held] == [None, None]


class Timeout(Exception):
    """What a test runner's signal handler raises."""


def time_out(*_):
    raise Timeout


@pytest.mark.parametrize("options", [{}, {"constraints": lambda x: x[0] - 1}, {"callback": id}])
@pytest.mark.parametrize(
    "handler, error", [(signal.default_int_handler, KeyboardInterrupt), (time_out, Timeout)]
)
def test_what_a_signal_handler_raises_at_any_moment_arrives_with_the_result(
    handler, error, options
):
    def size():
        with open("/proc/self/statm") as pages:
            return int(pages.read().split()[0]) * os.sysconf("SC_PAGE_SIZE")

    before, least = signal.signal(signal.SIGALRM, handler), size()
    delays = iter(range(40))
    kept = []

    def fun(x):
        nonlocal calls
        calls += 1
        if calls == 5:
            signal.setitimer(signal.ITIMER_REAL, 0.005 + 0.0001 * next(delays))
        return x[0] ** 2

    try:
        for _ in range(40):
            calls = 0
            with pytest.raises(error) as caught:
                Quenloft.minimize(fun, [(-1, 1)], maxfun=math.inf, **options)
            kept.append(caught.value)
            result = caught.value.result
            history = result.history
            is_interrupt = error is KeyboardInterrupt
            assert result.status is (Status.INTERRUPTED if is_interrupt else Status.ERROR)
            assert not result.success
            assert {len(history.x), len(history.value), len(history.time)} == {result.nit}
            assert result.fun == min(t.value for t in history if t.index == history.goal)
        # Nor does the exception keep the engine, with its room for a million trials.
        assert size() - least < 2e9
    finally:
        signal.setitimer(signal.ITIMER_REAL, 0)
        signal.signal(signal.SIGALRM, before)


def test_ctrl_c_may_return_the_result_instead():
    def fun(x):
        if x[0] > 1.9:
            os.kill(os.getpid(), signal.SIGINT)
        return parabola(x)

    result = Quenloft.minimize(fun, BOX, on_interrupt="return")
    assert (result.status, result.nit) == (Status.INTERRUPTED, 2)
    assert "interrupted" in result.message
