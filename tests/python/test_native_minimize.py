# SPDX-License-Identifier: MIT
"""Problem.Minimize: stop conditions, the calling convention, the result and its text."""

import gc
import math
import sys

import pytest

from _Quenloft import Problem

LOWEST = -sys.float_info.max
NO_STOP = (
    "At least one stop condition must be set. "
    "Set stop_seconds, stop_tests, stop_radius, or stop_value."
)


def bowl(x, categories=()):
    return sum((v - 0.3) ** 2 for v in x) + sum(categories)


def negative(x):
    return -1.0


def answers(count, last=math.nan):
    """A target that answers `count` times and then with `last`."""
    left = iter(range(count))
    return lambda x, categories=(): last if next(left, None) is None else bowl(x, categories)


def cause_of_failure(subject, **stops):
    with pytest.raises(SystemError) as failure:
        subject.Minimize(**(stops or {"stop_tests": 50}))
    return failure.value.__cause__


@pytest.mark.parametrize(
    "stops",
    [
        {},
        {"stop_radius": LOWEST},
        {"stop_seconds": 2147483647, "stop_tests": 2147483647 - 2**32, "stop_value": LOWEST},
        {"overestimation": 3.0},
    ],
)
def test_defaults_count_as_no_stop_condition(stops):
    for subject in Problem.__new__(Problem), Problem(bounds=[], target=bowl):
        with pytest.raises(TypeError) as failure:
            subject.Minimize(**stops)
        assert str(failure.value) == NO_STOP


# One variable: the first step places three initial trials and one more.
@pytest.mark.parametrize(
    "stops, tests",
    [
        ({"stop_seconds": 0}, 4),
        ({"stop_seconds": 2**32}, 4),
        ({"stop_tests": 0}, 4),
        ({"stop_tests": 1}, 4),
        ({"stop_tests": 9}, 9),
        ({"stop_tests": 2**32 + 9}, 9),
        ({"stop_tests": -(2**32) + 9}, 9),
        ({"stop_tests": 1, "cross": 0.0}, 2),
        ({"stop_radius": math.inf}, 4),
        # Set, and never met: the target ends the search.
        ({"stop_radius": math.nan}, 20),
        ({"stop_value": math.nan}, 20),
        ({"stop_value": 1e300}, 20),
        ({"stop_seconds": 2147483646}, 20),
        ({"stop_tests": -1}, 20),
    ],
)
def test_search_stops_at(stops, tests):
    assert Problem(bounds=[0, 1], target=answers(20)).Minimize(**stops).tests == tests


@pytest.mark.parametrize(
    "bounds, message",
    [
        (None, "Bounds are not set."),
        ([0, 1], "Target is not set."),
    ],
)
def test_unset_fields_are_named(bounds, message):
    subject = Problem.__new__(Problem)
    if bounds:
        with pytest.raises(SystemError):
            subject.__init__(bounds=bounds)
    with pytest.raises(TypeError) as failure:
        subject.Minimize(stop_tests=1)
    assert str(failure.value) == message


@pytest.mark.parametrize("arguments", [(1,), {"stop_test": 1}, {"fit": "1"}, {"spread": None}])
def test_arguments_are_numbers_given_by_keyword(arguments):
    given = arguments if isinstance(arguments, tuple) else ()
    with pytest.raises(TypeError):
        Problem(bounds=[0, 1], target=bowl).Minimize(*given, **(arguments if not given else {}))


def test_callables_get_tuples_of_plain_numbers_refilled_in_place():
    seen = {}

    def record(name, value):
        def function(*arguments):
            seen.setdefault(name, set()).add(tuple(map(id, arguments)))
            kinds = [float, float, int][: 2 * len(arguments)]
            assert [type(v) for argument in arguments for v in argument] == kinds
            return value

        return function

    for name, categorical in [("plain", {}), ("mixed", {"categorical": [2]})]:
        Problem(
            bounds=[0, 1, 0, 1],
            constraints=[record(name + " constraint", False)],
            target=record(name + " target", 1),
            **categorical,
        ).Minimize(stop_tests=20)
    assert {name: len(identities) for name, identities in seen.items()} == dict.fromkeys(seen, 1)
    assert len(set().union(*seen.values())) == len(seen) == 4


def test_numbers_of_a_point_may_be_kept():
    kept, texts = [], []

    def target(x):
        kept.extend(x)
        texts.extend(map(repr, x))
        return bowl(x)

    Problem(bounds=[0, 1, 0, 1], target=target).Minimize(stop_tests=30)
    assert list(map(repr, kept)) == texts
    assert len(set(texts)) > 20


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
    assert str(result) == f"Seconds: {result.seconds}\nTests: 200\n\nGLOBAL MINIMUM:\n{text}\n"


def test_without_categorical_variables_the_member_is_missing():
    best = Problem(bounds=[0, 1], target=bowl).Minimize(stop_tests=5).minimum
    with pytest.raises(AttributeError):
        best.categorical
    assert "\nCategorical: <NULL>\n" in str(best)


@pytest.mark.parametrize("count, value", [(0, math.nan), (0, -math.inf), (2, math.inf), (9, 1e999)])
def test_value_that_is_not_finite_ends_the_search_with_the_trials_so_far(count, value):
    result = Problem(bounds=[0, 1], target=answers(count, value)).Minimize(stop_tests=50)
    assert result.tests == count
    if count:
        assert result.minimum.coordinate == (0.5,) if count == 2 else result.locals
    else:
        assert not hasattr(result, "minimum")
        assert result.locals == ()
        assert str(result).endswith("GLOBAL MINIMUM:\n<NULL>\n")


def test_violated_constraint_is_the_outcome():
    calls = []
    best = Problem(
        bounds=[0, 1],
        constraints=[lambda x: 0.0, lambda x: 1.5, calls.append],
        target=calls.append,
    ).Minimize(stop_tests=5).minimum
    assert (best.index, best.value, calls) == (1, 1.5, [])


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


class Unconvertible:
    def __float__(self):
        raise ValueError("no number")


@pytest.mark.parametrize(
    "answer, cause",
    [
        (lambda: 1 / 0, "TypeError('bad argument type for built-in operation')"),
        (lambda: sys.exit(3), "TypeError('bad argument type for built-in operation')"),
        (lambda: None, "TypeError('must be real number, not NoneType')"),
        (lambda: "1", "TypeError('must be real number, not str')"),
        (lambda: 1j, None),
        (lambda: 10**400, "OverflowError('int too large to convert to float')"),
        (Unconvertible, "ValueError('no number')"),
    ],
)
def test_failing_callable_ends_the_search_with_its_error_chained(answer, cause):
    calls = []

    def target(x):
        calls.append(x[0])
        return answer() if len(calls) == 7 else bowl(x)

    error = cause_of_failure(Problem(bounds=[0, 1], target=target))
    assert cause is None or repr(error) == cause
    assert len(calls) == 7


@pytest.mark.parametrize("kept", [0, 1])
def test_keeping_an_argument_tuple_fails_the_next_evaluation(kept):
    calls = []

    def target(*arguments):
        calls.append(arguments[kept])
        return 0.0

    error = cause_of_failure(Problem(bounds=[0, 1], categorical=[2], target=target))
    assert type(error) is SystemError
    assert "bad argument to internal function" in str(error)
    # The second call got the tuple with its old contents.
    assert calls == [[(0.5,)], [(0,)]][kept] * 2


# Each search leaves behind one tuple of two floats for the constraint, and one for the target.
@pytest.mark.parametrize("target", [lambda x: bowl(x), lambda x: 1 / 0, lambda x: None])
def test_searches_leave_nothing_but_the_adapters_tuples(target):
    def run():
        subject = Problem(bounds=[0.0, 1.0] * 2, constraints=[negative], target=target)
        try:
            subject.Minimize(stop_tests=20)
        except SystemError:
            pass

    run()
    gc.collect()
    references, blocks = sys.getrefcount(target), sys.getallocatedblocks()
    for _ in range(200):
        run()
    assert sys.getrefcount(target) == references
    assert sys.getallocatedblocks() - blocks <= 200 * 6 + 50
