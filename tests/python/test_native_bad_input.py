# SPDX-License-Identifier: MIT
"""What callers do to a search from inside and outside; none of it may end the interpreter."""

import gc
import signal
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor

import pytest
from native import Lying, bowl, error_of, fails

from _Quenloft import Problem, TestFunction as Grishagin

STOP = {"stop_tests": 60}


# What earlier tests imported takes the collector a tenth of a second each time: it is put out of
# its sight here.
@pytest.fixture(autouse=True)
def only_new_objects_are_collected():
    gc.freeze()
    yield
    gc.unfreeze()


def trials(meddle=lambda: None, **changed):
    """Points of a search whose target calls `meddle` before it answers."""
    points = []

    def target(x, categories=()):
        points.append((tuple(list(x)), tuple(list(categories))))
        meddle()
        return bowl(x, categories)

    subject = Problem(**{"bounds": [0, 1, 0, 1], "target": target, **changed})
    return subject, points, lambda: subject.Minimize(**STOP).tests


class Number:
    """Two, when its conversion has done something else."""

    def __init__(self, action):
        self.action = action

    def __index__(self):
        self.action()
        return 2

    def __float__(self):
        return float(self.__index__())


ACCEPTED = {"bounds": [0, 1], "categorical": [2], "constraints": [lambda x, *_: -1.0]}


@pytest.mark.parametrize(
    "field, length, items, error",
    [
        *[(field, fails, [], "KeyError('lost')") for field in ACCEPTED],
        ("bounds", lambda: 0, [], "Bounds must hold from 1 to 32 variables."),
        ("bounds", lambda: 66, [0, 1] * 33, "Bounds must hold from 1 to 32 variables."),
        ("bounds", lambda: 10**12, [], "Bounds must hold from 1 to 32 variables."),
        ("bounds", lambda: 2, [0, Number(fails)], "KeyError('lost')"),
        ("categorical", lambda: 1, [Number(fails)], "KeyError('lost')"),
        ("categorical", lambda: 1, [0], "Categorical must be a sequence integers > 1."),
        ("categorical", lambda: 2, [65536, 65536], "Categorical has too many combinations."),
        ("categorical", lambda: 10**12, [2] * 99, "Categorical has too many combinations."),
        ("constraints", lambda: 10**12, [], "Too many constraints."),
        ("constraints", lambda: 1, [3], "TypeError("),
        ("constraints", lambda: 3, ACCEPTED["constraints"], "IndexError("),
    ],
)
def test_sequence_that_lies_when_the_search_starts(field, length, items, error):
    accepted = ACCEPTED[field]
    sequence = Lying(lambda: len(accepted), accepted.__getitem__)
    subject, points, run = trials(**{"bounds": [0, 1], field: sequence})
    sequence.length, sequence.item = length, items.__getitem__
    with pytest.raises(Exception) as failure:
        run()
    # The error of an item that was fetched and not converted ends the first evaluation.
    assert error in repr(failure.value) + repr(failure.value.__cause__)
    assert len(points) <= 1
    sequence.length, sequence.item = lambda: len(accepted), accepted.__getitem__
    assert run() == 60


def test_conversion_that_changes_the_problem():
    bounds = [0, Number(lambda: None), 0, 1, 0, 1]
    subject = Problem(bounds=bounds, target=bowl)

    def meddle():
        bounds.clear()
        subject.__init__(bounds=[0, 5], target=fails)
        refused(lambda: subject.Minimize(**STOP))

    bounds[1].action = meddle
    assert error_of(lambda: subject.Minimize(**STOP), pending=True).startswith("TypeError")


# An error that is kept would keep the frame of the target, and with it the tuple.
def refused(action):
    try:
        action()
    except TypeError as error:
        assert str(error) == "Minimize is already running on this problem."
    else:
        raise AssertionError("not refused")


def in_a_thread(action):
    with ThreadPoolExecutor(1) as pool:
        pool.submit(action).result()


MEDDLING = {
    "search again": lambda s: refused(lambda: s.Minimize(**STOP)),
    "search again in a thread": lambda s: in_a_thread(lambda: refused(lambda: s.Minimize(**STOP))),
    "replace the target": lambda s: setattr(s, "target", fails),
    "change the bounds": lambda s: setattr(s, "bounds", [5, 6]),
    "clear the bounds": lambda s: s.bounds.clear(),
    "initialise anew": lambda s: s.__init__(bounds=[5, 6], target=fails),
    # Tuples that wait for their first use hold no null.
    "look at every tuple": lambda s: [list(o) for o in gc.get_objects() if type(o) is tuple],
    "search another": lambda s: Problem(
        bounds=[0, 1], categorical=[2, 2, 3], target=bowl
    ).Minimize(stop_tests=30),
}


@pytest.mark.parametrize("name", MEDDLING)
def test_running_search_is_not_disturbed_by(name):
    def meddle(*_):
        MEDDLING[name](subject)
        return -1.0

    _, undisturbed, run = trials(categorical=[3, 2])
    run()
    # The problem is also meddled with between a constraint and the target that follows it.
    subject, points, run = trials(meddle, categorical=[3, 2], constraints=[meddle])
    assert run() == 60
    assert points == undisturbed


def test_last_reference_to_the_problem_goes_during_the_search():
    held = []

    def target(x):
        held.clear()
        return bowl(x)

    held.append(Problem(bounds=[0, 1], target=target).Minimize)
    assert held[0](**STOP).tests == 60


@pytest.mark.slow
def test_search_inside_a_search_inside_a_search():
    depths = []

    def target(x):
        depths.append(len(depths))
        return Problem(bounds=[0, 1], target=target).Minimize(stop_tests=1).minimum.value

    assert error_of(lambda: target(()), pending=True).startswith("TypeError")
    assert len(depths) > 10
    assert Problem(bounds=[0, 1], target=bowl).Minimize(**STOP).tests == 60


# A callable in Python runs the handler itself, and its error is converted like any other.
def test_signal_handler_that_raises_ends_a_search_of_native_callables():
    subject = Problem(bounds=[0, 1] * 2, target=Grishagin(1))
    old = signal.signal(signal.SIGALRM, fails)
    try:
        signal.setitimer(signal.ITIMER_REAL, 0.1)
        assert error_of(lambda: subject.Minimize(stop_tests=10**8)) == "KeyError('lost')"
    finally:
        signal.setitimer(signal.ITIMER_REAL, 0)
        signal.signal(signal.SIGALRM, old)


# The interpreter unwinds a daemon thread that asks for its lock while the end is under way, which
# the last object takes its time for.
def test_interpreter_ends_while_a_daemon_thread_searches():
    program = """
import sys, threading, time
from _Quenloft import Problem
class Last:
    def __del__(self, sleep=time.sleep):
        sleep(0.3)
sys.last = Last()
search = Problem(bounds=[0, 1], target=lambda x, sleep=time.sleep: sleep(0.001) or x[0]).Minimize
threading.Thread(target=search, kwargs={"stop_tests": 10**8}, daemon=True).start()
time.sleep(0.1)
"""
    ended = subprocess.run([sys.executable, "-c", program], capture_output=True, timeout=60)
    assert (ended.returncode, ended.stderr) == (0, b"")
