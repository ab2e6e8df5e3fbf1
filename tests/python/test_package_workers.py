# SPDX-License-Identifier: MIT
"""One search on many workers: the trials of one worker, whatever the workers and their order."""

import math
import multiprocessing
import os
import subprocess
import sys
import threading
import time
import traceback
from concurrent.futures import ProcessPoolExecutor, ThreadPoolExecutor

import pytest
from scipy.optimize import NonlinearConstraint

import Quenloft
from processes import is_running, wait_until
from Quenloft import Status

# From Python 3.12 on, a fork of a process that has threads (the engine's) is warned about.
pytestmark = pytest.mark.filterwarnings("ignore:.*multi-threaded, use of fork:DeprecationWarning")

BOX = [(-1.0, 2.0), (0.5, 4.0)]


def wavy(x, choices=(), delay=0.0):
    """Takes up to `delay` seconds, of which the point decides how many."""
    time.sleep(delay * (abs(hash(x)) % 7) / 7)
    shift = sum(choices) / 3
    return sum((v - 0.3 - shift) ** 2 + math.sin(9 * v + i) / 3 for i, v in enumerate(x))


class Slope:
    """A constraint that holds in part of the box."""

    def __init__(self, level, keep_feasible=True):
        self.level = level
        self.keep_feasible = keep_feasible

    def __call__(self, x, choices=()):
        return x[0] + 0.5 * x[-1] - self.level - sum(choices) / 5


class Problem:
    """Of thirty problems over 1, 2, 3 or 5 variables."""

    def __init__(self, number, delay=0.0):
        dimension = (1, 2, 3, 5)[number % 4]
        self.bounds = [(-1.0 - i / 10, 1.5 + number / 30) for i in range(dimension)]
        self.constraints = [Slope(level, number % 5 > 1) for level in (0.6, 0.3)[: number % 3]]
        self.categories = [(), [(0, 1)], [(0, 1, 2), (5,)]][number // 4 % 3]
        self.settings = {"spread": 9.0 + number % 5}
        self.maxfun = 90 if self.categories else 45
        self.delay = delay

    def fun(self, x, choices=()):
        return wavy(x, choices, self.delay)

    def minimize(self, **options):
        return Quenloft.minimize(
            self.fun, self.bounds, constraints=self.constraints, categories=self.categories,
            maxfun=self.maxfun, local_models=False, **self.settings, **options,
        )  # fmt: skip


def essence(result):
    """All of a result that must not depend on the workers."""
    left_out = ("elapsed_seconds", "nfev", "surplus", "history", "replayed")
    shown = {key: repr(value) for key, value in result.items() if key not in left_out}
    return shown, [
        (t.x, t.categories, t.index, repr((t.constraints, t.value, t.objective)))
        for t in result.history
    ]


@pytest.fixture(scope="module")
def executors():
    with ThreadPoolExecutor(8) as threads, ProcessPoolExecutor(2) as processes:
        with multiprocessing.Pool(4) as pool:
            yield {"threads": threads, "processes": processes, "pool": pool.imap_unordered}


@pytest.mark.parametrize("number", range(30))
def test_the_trials_are_those_of_one_worker_on_workers_of_every_kind(number, executors):
    problem = Problem(number)
    expected = essence(problem.minimize())
    slow = Problem(number, 0.002)
    assert essence(slow.minimize(workers=executors["threads"])) == expected
    kind = ("processes", "pool")[number % 2]
    assert essence(problem.minimize(workers=executors[kind])) == expected
    if number % 10 == 0:
        for workers in (2, 4, 8):
            assert essence(problem.minimize(workers=workers)) == expected
    if number % 10 == 5:
        for workers in (map, executors["threads"].map):
            assert essence(problem.minimize(workers=workers)) == expected


@pytest.mark.parametrize(
    "options",
    [
        {"local_models": False},
        {"f_min": -0.3},
        {"min_radius": 0.2},
        {"callback": lambda result: result.nit == 37},
        {"constraints": lambda x: math.nan if x[1] > 3.5 else -1, "nonfinite": "infeasible"},
        {"batch": 4, "constraints": NonlinearConstraint(lambda x: x[0] - x[1], -9, -1)},
    ],
    ids=lambda options: next(iter(options)),
)
def test_a_stop_comes_at_the_trial_at_which_it_comes_with_one_worker(options, executors):
    expected = Quenloft.minimize(wavy, BOX, maxfun=120, **options)
    args = ((), 0.003)
    result = Quenloft.minimize(
        lambda x: wavy(x, *args), BOX, maxfun=120, workers=executors["threads"], **options
    )
    assert essence(result)[1] == essence(expected)[1]
    assert essence(result)[0] == essence(expected)[0]


calls = []


def noting(x):
    calls.append(x)
    return wavy(x, delay=0.004)


def test_what_was_not_needed_is_counted_listed_kept_and_used(tmp_path):
    def run(workers, maxfun, **options):
        calls.clear()
        result = Quenloft.minimize(
            noting, BOX, maxfun=maxfun, workers=workers, journal=tmp_path / "run.db", **options
        )
        assert result.nit == maxfun and result.nfev == maxfun + len(result.surplus)
        return result

    with ThreadPoolExecutor(6) as threads:
        # What still runs when the last trial is made is neither waited for nor counted.
        first = run(threads, 60)
        assert len(first.surplus) > 0 and {t.x for t in first.surplus} <= set(calls)
    recorded = Quenloft.read_journal(tmp_path / "run.db").history
    assert sorted(t.x for t in recorded) == sorted(t.x for t in [*first.history, *first.surplus])
    known = {t.x for t in recorded}
    more = run(1, 90, verify=False)
    assert essence(more)[1] == essence(Quenloft.minimize(wavy, BOX, maxfun=90))[1]
    assert not known & set(calls) and len(calls) == len({t.x for t in more.history} - known)


def fails_elsewhere(x, asked):
    if x not in asked:
        raise ZeroDivisionError("nobody asked")
    return wavy(x, delay=0.002)


def fails_at(x, place):
    if x == place:
        raise ArithmeticError("mine")
    return wavy(x, delay=0.002)


@pytest.mark.parametrize("trial", [2, 30])
def test_an_exception_counts_if_the_search_asks_for_its_point(trial, executors):
    whole = Quenloft.minimize(wavy, BOX, maxfun=60)
    asked = {t.x for t in whole.history}
    for workers in (executors["threads"], executors["processes"]):
        result = Quenloft.minimize(fails_elsewhere, BOX, (asked,), maxfun=60, workers=workers)
        assert essence(result)[1] == essence(whole)[1]
        with pytest.raises(ArithmeticError, match="mine") as caught:
            place = whole.history[trial].x
            Quenloft.minimize(fails_at, BOX, (place,), maxfun=60, workers=workers)
        assert caught.value.result.nit == trial and caught.value.result.status is Status.ERROR
        # Where it was raised is to be seen, wherever that was.
        error = caught.value
        shown = traceback.format_exception(type(error), error, error.__traceback__)
        assert "in fails_at" in "".join(shown)


# fmt: off
REFUSED = [
    ({"fun": lambda x: 0.0}, TypeError, "cannot be sent .*lambda.* top level of a module, or pass"),
    ({"constraints": lambda x: 0.0}, TypeError, "cannot be sent"),
    ({"args": (threading.Lock(),)}, TypeError, "cannot be sent"),
    ({"workers": 0}, ValueError, "workers must be from 1"),
    ({"workers": True}, TypeError, "workers must be a whole number"),
    ({"timeout": 0}, ValueError, "timeout must be a number of seconds"),
    ({"timeout": 1, "workers": map}, ValueError, "not an executor or a map"),
    ({"workers": "two"}, TypeError, "workers must be a whole number"),
]
# fmt: on


@pytest.mark.parametrize("change, error, message", REFUSED)
def test_what_cannot_work_is_said_before_anything_starts(change, error, message, tmp_path):
    path = tmp_path / "run.db"
    arguments = {"fun": wavy, "workers": 2, "journal": path, **change}
    with pytest.raises(error, match=message) as caught:
        Quenloft.minimize(bounds=BOX, **arguments)
    assert "\n" not in str(caught.value) and not path.exists()


def test_the_time_ends_a_search_on_workers(executors):
    start = time.perf_counter()
    result = Quenloft.minimize(
        lambda x: wavy(x, delay=0.05), BOX, maxtime=0.4, workers=executors["threads"]
    )
    assert result.status is Status.MAXTIME and 0.4 <= time.perf_counter() - start < 3
    # The evaluations that were under way then are waited for.
    assert result.nfev == result.nit + len(result.surplus)


def hangs(x, limit):
    while x[0] > limit:
        pass
    return wavy(x)


@pytest.mark.parametrize("workers", [1, 3])
def test_an_evaluation_that_takes_too_long_is_ended(workers):
    others = set(multiprocessing.active_children())
    options = {"workers": workers, "timeout": 0.2, "maxfun": 40}
    with pytest.raises(Quenloft.EvaluationTimeout, match="longer than 0.2 s") as caught:
        Quenloft.minimize(hangs, BOX, (1.5,), **options)
    assert isinstance(caught.value, TimeoutError) and caught.value.result.nit == 2
    assert set(multiprocessing.active_children()) <= others
    expected = essence(Quenloft.minimize(wavy, BOX, maxfun=40))
    assert essence(Quenloft.minimize(hangs, BOX, (9,), **options)) == expected


ORPHANED = """
import os, time, Quenloft, sys
def fun(x):
    with open(os.path.join(sys.argv[1], str(os.getpid())), "w"):
        pass
    time.sleep(60)
    return x[0]
Quenloft.minimize(fun, [(0, 1), (0, 1)], workers=3)
"""


def test_workers_end_when_their_parent_is_killed(tmp_path):
    parent = subprocess.Popen([sys.executable, "-c", ORPHANED, str(tmp_path)])
    wait_until(lambda: len(os.listdir(tmp_path)) == 3)
    parent.kill()
    parent.wait()
    wait_until(lambda: not any(map(is_running, os.listdir(tmp_path))))
