# SPDX-License-Identifier: MIT
"""Problem.Minimize: stop conditions, the calling convention, the result and its text."""

import contextlib
import gc
import math
import sys

import pytest

from _Quenloft import Problem
from native import bowl, error_of, fails

LOWEST = -sys.float_info.max
NO_STOP = (
    "At least one stop condition must be set. "
    "Set stop_seconds, stop_tests, stop_radius, or stop_value."
)


def answers(count, last=math.nan):
    """A target that answers `count` times and then with `last`."""
    left = iter(range(count))
    return lambda x, categories=(): last if next(left, None) is None else bowl(x, categories)


def test_defaults_count_as_no_stop_condition():
    defaults = {"stop_seconds": 2**31 - 1, "stop_tests": -(2**31) - 1, "stop_value": LOWEST}
    for subject in Problem.__new__(Problem), Problem(bounds=[], target=bowl):
        for stops in {}, {**defaults, "stop_radius": LOWEST}:
            assert error_of(lambda: subject.Minimize(**stops)) == repr(TypeError(NO_STOP))


# One variable: the first step places three initial trials and one more.
@pytest.mark.parametrize(
    "stops, tests",
    [
        ({"stop_seconds": 0}, 4),
        ({"stop_tests": 9}, 9),
        ({"stop_tests": -(2**32) + 9}, 9),
        ({"stop_tests": 1, "cross": 0.0}, 2),
        ({"stop_radius": math.inf}, 4),
        # Set, and never met: the target ends the search.
        ({"stop_radius": math.nan}, 20),
        ({"stop_value": 1e300}, 20),
    ],
)
def test_search_stops_at(stops, tests):
    assert Problem(bounds=[0, 1], target=answers(20)).Minimize(**stops).tests == tests


def test_result_and_its_text():
    subject = Problem(bounds=[0, 1, 0, 1], target=bowl, categorical=[2, 3])
    result = subject.Minimize(stop_tests=200)
    best = result.minimum
    assert (result.tests, best.index, best.categorical) == (200, 0, (0, 0))
    assert best.value == bowl(best.coordinate) == result.locals[0].value < 1e-3
    assert isinstance(result.seconds, int)
    text = (
        f"Index: 0\nValue: {best.value}\nCoordinate: {best.coordinate}\n"
        f"Categorical: (0, 0)\nRadius: {best.radius}\n"
    )
    assert str(best) == text
    plain = Problem(bounds=[0, 1], target=bowl).Minimize(stop_tests=5).minimum
    assert not hasattr(plain, "categorical")
    assert "\nCategorical: <NULL>\n" in str(plain)
    assert str(result) == f"Seconds: {result.seconds}\nTests: 200\n\nGLOBAL MINIMUM:\n{text}\n"


@pytest.mark.parametrize("value", [math.nan, -math.inf])
def test_value_that_is_not_finite_ends_the_search_with_the_trials_so_far(value):
    assert Problem(bounds=[0, 1], target=answers(9, value)).Minimize(stop_tests=50).tests == 9
    result = Problem(bounds=[0, 1], target=answers(0, value)).Minimize(stop_tests=50)
    assert (result.tests, result.locals, hasattr(result, "minimum")) == (0, (), False)
    assert str(result).endswith("GLOBAL MINIMUM:\n<NULL>\n")


def test_every_search_starts_anew_from_the_problem_as_it_is():
    subject = Problem(bounds=[0, 1], target=bowl, categorical=[2])
    first = str(subject.Minimize(stop_tests=30).minimum)
    assert str(subject.Minimize(stop_tests=30).minimum) == first
    subject.bounds = [0, 1, 0, 1]
    subject.target = lambda x, categories: -bowl(x, categories)
    assert subject.Minimize(stop_tests=30).minimum.coordinate[1] > 0.9
    # Sizes stay when a later initialisation gives none.
    subject.__init__(bounds=[0, 1], target=bowl)
    assert str(subject.Minimize(stop_tests=30).minimum) == first


@pytest.mark.parametrize(
    "answer, cause",
    [
        (fails, "TypeError('bad argument type for built-in operation')"),
        (lambda: None, "TypeError('must be real number, not NoneType')"),
        (type("Unconvertible", (), {"__float__": fails}), "KeyError('lost')"),
    ],
)
def test_failing_callable_ends_the_search_with_its_error_chained(answer, cause):
    values = iter([lambda: 0.5] * 6 + [answer])
    subject = Problem(bounds=[0, 1], target=lambda x: next(values)())
    assert error_of(lambda: subject.Minimize(stop_tests=50), pending=True) == cause
    assert list(values) == []


@pytest.mark.parametrize("kept", [0, 1])
def test_keeping_an_argument_tuple_fails_the_next_evaluation(kept):
    calls, others = [], []

    def target(*arguments):
        calls.append(arguments[kept])
        others.append(list(arguments[1 - kept]))
        return 0.0

    subject = Problem(bounds=[0, 1], categorical=[2], target=target)
    error = error_of(lambda: subject.Minimize(stop_tests=50), pending=True)
    assert error.startswith("SystemError(") and "bad argument to internal function" in error
    # The second call got the tuple with its old contents, and the other one refilled.
    assert calls == [[(0.5,)], [(0,)]][kept] * 2
    assert others == [[[0], [1]], [[0.5], [0.5]]][kept]


# Each search leaves behind one tuple of two floats for the constraint, and one for the target.
@pytest.mark.parametrize("target", [lambda x: bowl(x), lambda x: 1 / 0])
def test_searches_leave_nothing_but_the_adapters_tuples(target):
    constraints = [lambda x: -1.0]

    def run():
        subject = Problem(bounds=[0.0, 1.0] * 2, constraints=constraints, target=target)
        with contextlib.suppress(SystemError):
            subject.Minimize(stop_tests=20)

    run()
    gc.collect()
    references, blocks = sys.getrefcount(target), sys.getallocatedblocks()
    for _ in range(200):
        run()
    assert sys.getrefcount(target) == references
    assert sys.getallocatedblocks() - blocks <= 200 * 6 + 50
