# SPDX-License-Identifier: MIT
"""What callers do to a search from inside and outside; none of it may end the interpreter."""

import gc
import signal
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor

import pytest

from _Quenloft import Problem, TestFunction as Grishagin

RUNNING = "Minimize is already running on this problem."
STOP = {"stop_tests": 60}


# What earlier tests imported takes the collector a tenth of a second each time: it is put out of
# its sight here.
@pytest.fixture(autouse=True)
def only_new_objects_are_collected():
    gc.freeze()
    yield
    gc.unfreeze()


def bowl(x, categories=()):
    return sum((v - 0.3) ** 2 for v in x) + sum(categories)


def trials(meddle=lambda: None, **changed):
    """Points of a search whose target calls `meddle` before it answers."""
    points = []

    def target(x, categories=()):
        points.append((tuple(list(x)), tuple(list(categories))))
        meddle()
        return bowl(x, categories)

    subject = Problem(**{"bounds": [0, 1, 0, 1], "target": target, **changed})
    return subject, points, lambda: subject.Minimize(**STOP).tests


def undisturbed(**changed):
    _, points, run = trials(**changed)
    run()
    return points


def fails(*_):
    raise KeyError("lost")


class Items(list):
    """A list that can lie about its length and its items."""

    length = list.__len__
    item = list.__getitem__

    def __len__(self):
        return self.length()

    def __getitem__(self, position):
        return self.item(position)


@pytest.mark.parametrize("bounds", [[], [0, 1] * 33, Items([0, 1] * 500)])
def test_number_of_variables_is_checked_by_the_search(bounds):
    subject = Problem(bounds=bounds, target=bowl)
    with pytest.raises(TypeError) as failure:
        subject.Minimize(**STOP)
    assert str(failure.value) == "Bounds must hold from 1 to 32 variables."


@pytest.mark.parametrize("field", ["bounds", "categorical", "constraints"])
@pytest.mark.parametrize(
    "length, error",
    [
        (fails, KeyError),
        (lambda: 10**12, (TypeError, RuntimeError)),
    ],
)
def test_length_that_lies_when_the_search_starts(field, length, error):
    items = Items({"bounds": [0, 1], "categorical": [2], "constraints": [bowl]}[field])
    subject = Problem(**{"bounds": [0, 1], "target": bowl, field: items})
    items.length = length
    with pytest.raises(error):
        subject.Minimize(**STOP)
    items.length = lambda: 2 if field == "bounds" else 1
    assert subject.Minimize(**STOP).tests == 60


class Number:
    """A number whose conversion does something first."""

    def __init__(self, value, action=lambda: None):
        self.value, self.action = value, action

    def __float__(self):
        self.action()
        return float(self.value)

    def __index__(self):
        self.action()
        return self.value


@pytest.mark.parametrize("field", ["bounds", "categorical"])
def test_conversion_that_raises_fails_the_first_evaluation(field):
    number = Number(2)
    items = [0, number, 0, 1] if field == "bounds" else [2, number]
    subject, points, run = trials(**{field: items})
    number.action = fails
    with pytest.raises(SystemError) as failure:
        run()
    assert repr(failure.value.__cause__) == "KeyError('lost')"
    assert len(points) == 1
    number.action = lambda: None
    assert run() == 60


def test_conversion_that_changes_the_problem():
    bounds = [0, Number(1), 0, 1, 0, 1]
    subject = Problem(bounds=bounds, target=bowl)

    def meddle():
        bounds.clear()
        subject.__init__(bounds=[0, 5], target=fails)
        refused(lambda: subject.Minimize(**STOP))

    bounds[1].action = meddle
    with pytest.raises(SystemError) as failure:
        subject.Minimize(**STOP)
    assert type(failure.value.__cause__) is TypeError


@pytest.mark.parametrize(
    "change, message",
    [
        (lambda sizes: sizes.append(0), "Categorical must be a sequence integers > 1."),
        (lambda sizes: sizes.extend([65536, 32768]), "Categorical has too many combinations."),
    ],
)
def test_categorical_sizes_that_no_search_can_use(change, message):
    sizes = [2]
    subject = Problem(bounds=[0, 1], categorical=sizes, target=bowl)
    change(sizes)
    with pytest.raises(TypeError) as failure:
        subject.Minimize(**STOP)
    assert str(failure.value) == message


@pytest.mark.parametrize("length, error", [(2, SystemError), (3, IndexError)])
def test_constraints_that_changed_since_they_were_checked(length, error):
    constraints = Items([lambda x: -1.0])
    subject, points, run = trials(constraints=constraints)
    constraints.append(3)
    constraints.length = lambda: length
    with pytest.raises(error):
        run()
    assert points == []


# An error that is kept would keep the frame of the target, and with it the tuple.
def refused(action, message=RUNNING):
    try:
        action()
    except TypeError as error:
        assert message in str(error)
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
    "clear the bounds": lambda s: s.bounds.clear() if isinstance(s.bounds, list) else None,
    "initialise anew": lambda s: s.__init__(bounds=[5, 6], target=fails),
    # Tuples that wait for their first use hold no null.
    "look at every tuple": lambda s: [list(o) for o in gc.get_objects() if type(o) is tuple],
    "search another": lambda s: Problem(
        bounds=[0, 1], categorical=[2, 2, 3], target=bowl
    ).Minimize(stop_tests=30),
}


@pytest.mark.parametrize("name", MEDDLING)
def test_running_search_is_not_disturbed_by(name):
    given = {"categorical": [3, 2], "constraints": [lambda x, c: -1.0]}
    subject, points, run = trials(lambda: MEDDLING[name](subject), **given)
    # The problem is also meddled with between a constraint and the target that follows it.
    subject.__init__(
        bounds=subject.bounds,
        categorical=given["categorical"],
        constraints=[lambda x, c: (MEDDLING[name](subject), -1.0)[1]],
        target=subject.target,
    )
    assert run() == 60
    assert points == undisturbed(categorical=[3, 2])


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
        inner = Problem(bounds=[0, 1], target=target)
        return inner.Minimize(stop_tests=1).minimum.value

    with pytest.raises(SystemError) as failure:
        target(())
    assert len(depths) > 10
    assert type(failure.value.__cause__) is TypeError
    assert Problem(bounds=[0, 1], target=bowl).Minimize(**STOP).tests == 60


# A callable in Python runs the handler itself, and its error is converted like any other.
def test_signal_handler_that_raises_ends_a_search_of_native_callables():
    def handler(*_):
        raise TimeoutError("late")

    old = signal.signal(signal.SIGALRM, handler)
    try:
        signal.setitimer(signal.ITIMER_REAL, 0.1)
        with pytest.raises(TimeoutError):
            Problem(bounds=[0, 1] * 2, target=Grishagin(1)).Minimize(stop_tests=10**8)
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
def target(x, sleep=time.sleep):
    sleep(0.001)
    return x[0]
search = Problem(bounds=[0, 1], target=target).Minimize
threading.Thread(target=search, kwargs={"stop_tests": 10**8}, daemon=True).start()
time.sleep(0.1)
"""
    ended = subprocess.run([sys.executable, "-c", program], capture_output=True, timeout=60)
    assert (ended.returncode, ended.stderr) == (0, b"")
