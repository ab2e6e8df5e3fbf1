# SPDX-License-Identifier: MIT
"""What callers do to a search from inside and outside; none of it may end the interpreter."""

import gc
import os
import signal
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor

import pytest

from _Quenloft import Problem, TestFunction as Grishagin
from native import Lying, bowl, error_of, fails

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
        points.append(((*x,), (*categories,)))  # copies: the tuples are used again
        meddle()
        return bowl(x, categories)

    subject = Problem(**{"bounds": [0, 1, 0, 1], "target": target, **changed})
    return subject, points, lambda: subject.Minimize(**STOP).tests


def run(program):
    """Runs `program` in an interpreter of its own, which must end well and say nothing."""
    preamble = """
import resource, sys
from contextlib import suppress
from _Quenloft import Problem
def limit_memory(room):
    with open("/proc/self/statm") as sizes:
        used = int(sizes.read().split()[0]) * resource.getpagesize()
    resource.setrlimit(resource.RLIMIT_AS, (used + room, used + room))
"""
    command = [sys.executable, "-c", preamble + program]
    ended = subprocess.run(command, capture_output=True, text=True, timeout=60)
    assert (ended.returncode, ended.stderr) == (0, "")


# They take terabytes of addresses for themselves.
without_sanitizers = pytest.mark.skipif(
    "libasan" in os.environ.get("LD_PRELOAD", ""), reason="no limit can be set on the memory"
)


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
        ("bounds", lambda: 10**12, [], "Bounds must hold from 1 to 32 variables."),
        ("bounds", lambda: 2, [0, Number(fails)], "KeyError('lost')"),
        ("categorical", lambda: 1, [Number(fails)], "KeyError('lost')"),
        ("categorical", lambda: 1, [0], "Categorical must be a sequence integers > 1."),
        ("categorical", lambda: 2, [65536, 65536], "Categorical has too many combinations."),
        ("categorical", lambda: 3, [2**31 - 1] * 3, "Categorical has too many combinations."),
        ("categorical", lambda: 10**12, [2] * 99, "Categorical has too many combinations."),
        ("constraints", lambda: 10**12, [], "Too many constraints."),
        ("constraints", lambda: 1, [3], "TypeError("),
        ("constraints", lambda: 3, ACCEPTED["constraints"], "IndexError("),
    ],
)
def test_sequence_that_lies_when_the_search_starts(field, length, items, error):
    accepted = ACCEPTED[field]
    sequence = Lying(lambda: len(accepted), accepted.__getitem__)
    _, points, run = trials(**{"bounds": [0, 1], field: sequence})
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
        refused(subject)

    bounds[1].action = meddle
    assert error_of(lambda: subject.Minimize(**STOP), pending=True).startswith("TypeError")


# An error that is kept would keep the frame of the target, and with it the tuple.
def refused(subject):
    try:
        subject.Minimize(**STOP)
    except TypeError as error:
        assert str(error) == "Minimize is already running on this problem."
    else:
        raise AssertionError("not refused")


MEDDLING = {
    "search again": refused,
    "search again in a thread": lambda s: ThreadPoolExecutor(1).submit(refused, s).result(),
    "replace the target": lambda s: setattr(s, "target", fails),
    "clear the bounds": lambda s: s.bounds.clear(),
    "initialise anew": lambda s: s.__init__(bounds=[5, 6], target=fails),
    # Tuples that wait for their first use hold no null.
    "look at every tuple": lambda s: [list(o) for o in gc.get_objects() if type(o) is tuple],
    "search another": lambda s: Problem(bounds=[0, 1], categorical=[2, 2, 3], target=bowl).Minimize(
        stop_tests=30
    ),
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
    held = [Problem(bounds=[0, 1], target=lambda x: held.clear() or bowl(x)).Minimize]
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


# More classes (combinations times functions) than 32 bits can count.
def test_too_many_classes_are_refused():
    subject, calls, _ = trials(categorical=[65536], constraints=[fails] * 65535)
    error = repr(TypeError("Categorical has too many combinations."))
    assert error_of(lambda: subject.Minimize(stop_tests=1)) == error
    assert calls == []


# A combination takes some 90 kB: 7,000 of them do not fit into the room left here.
@without_sanitizers
def test_combinations_that_memory_cannot_hold_are_refused():
    run(
        """
limit_memory(1 << 29)
def search(*categorical, cross):
    subject = Problem(bounds=[0, 1], categorical=categorical, target=lambda x, c: 0.0)
    return subject.Minimize(stop_tests=1, cross=cross)
assert search(500, 2, cross=0.5).tests == 3001
for categorical in (700, 10), (700, 65536):
    with suppress(TypeError):
        search(*categorical, cross=0.0)
        raise AssertionError(categorical)
"""
    )


# What is left of the memory is taken in ever smaller pieces, down to those that one object needs.
@without_sanitizers
def test_problem_that_finds_no_memory_is_an_error():
    run(
        """
limit_memory(1 << 22)
hoard, made = [None] * 100_000, [None] * 10_000
taken = 0
for size in 1 << 20, 1 << 16, 1 << 12, 1 << 10, 513:
    with suppress(MemoryError):
        while True:
            hoard[taken] = bytes(size)
            taken += 1
with suppress(MemoryError):
    for i in range(len(made)):
        made[i] = Problem.__new__(Problem)
assert made[0] is not None
"""
    )


# With values this large one fit takes hours, all of them in a single step.
def test_ctrl_c_ends_a_fit():
    run(
        """
import signal
subject = Problem(bounds=[0, 1] * 5, target=lambda x: 1e14 * sum(x))
signal.signal(signal.SIGALRM, signal.default_int_handler)
signal.setitimer(signal.ITIMER_REAL, 0.5)
try:
    subject.Minimize(stop_tests=10**8, fit=1)
except KeyboardInterrupt:
    assert subject.Minimize(stop_tests=100).tests == 100
else:
    raise AssertionError("not interrupted")
"""
    )


# The interpreter unwinds a daemon thread that asks for its lock while the end is under way, which
# the last object takes its time for.
@pytest.mark.parametrize(
    "work",
    [
        "Problem(bounds=[0, 1], target=lambda x: sleep(0.001) or x[0]).Minimize(stop_tests=10**8)",
        "Problem(bounds=[0, 1], target=lambda x: Slow()).Minimize(stop_tests=10**8)",
        "Problem(bounds=[0, 1], target=Slow())",
    ],
)
def test_interpreter_ends_while_a_daemon_thread_is_at(work):
    run(
        f"""
import threading
from time import sleep
class Slow:
    seconds = 0.2
    def __call__(self, x):
        return 0.0
    def __float__(self):
        return 0.0
    def __del__(self, sleep=sleep):
        sleep(self.seconds)
sys.last = Slow()
sys.last.seconds = 0.4
def work(Problem=Problem, Slow=Slow, sleep=sleep):
    {work}
threading.Thread(target=work, daemon=True).start()
sleep(0.1)
"""
    )
