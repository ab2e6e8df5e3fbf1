# SPDX-License-Identifier: MIT
"""Quenloft.Problem: what it takes, refuses, stores and keeps."""

import sys
import types
import weakref

import pytest
from native import Lying, error_of, fails

from _Quenloft import Problem

BOUNDS = "Bounds must be even size a sequence of floats."
CATEGORICAL = "Categorical must be a sequence of integers > 1."
CATEGORICAL_ITEM = "Categorical must be a sequence integers > 1."
CONSTRAINTS = "Constraints must be a sequence of callables."
TARGET = "Target must be a callable."


def problem(**changed):
    return Problem(**{"bounds": [0, 1], "target": sum, **changed})


@pytest.mark.parametrize(
    "arguments, message",
    [
        ({}, BOUNDS),
        ({"bounds": {0: 0.0, 1: 1.0}}, BOUNDS),
        ({"bounds": [0, 1, 0]}, BOUNDS),
        ({"bounds": [0, None]}, BOUNDS),
        ({"bounds": Lying(fails, lambda i: 0.0)}, BOUNDS),
        ({"bounds": Lying(lambda: 2, fails)}, BOUNDS),
        ({"bounds": Lying(lambda: 2**62, lambda i: 0.0)}, BOUNDS),
        ({"bounds": [], "categorical": 5}, CATEGORICAL),
        ({"bounds": [], "categorical": [3, 1]}, CATEGORICAL_ITEM),
        ({"bounds": [], "categorical": [2**32 + 2]}, CATEGORICAL_ITEM),
        ({"bounds": [], "categorical": Lying(lambda: 2, fails)}, CATEGORICAL_ITEM),
        ({"bounds": [], "constraints": sum}, CONSTRAINTS),
        ({"bounds": [], "constraints": [sum, 3]}, CONSTRAINTS),
        ({"bounds": [], "constraints": Lying(lambda: 1, fails)}, CONSTRAINTS),
        ({"bounds": [], "categorical": [], "constraints": [], "target": 3}, TARGET),
    ],
)
def test_first_fault_is_named(arguments, message):
    # The target's error is left pending; the interpreter finds it and chains it.
    error = error_of(lambda: Problem(**arguments), pending=message == TARGET)
    assert error == repr(TypeError(message))


def test_fields_before_the_fault_are_stored():
    subject = problem()
    for changed in {"categorical": 5}, {"constraints": 5}, {"target": 5}:
        bounds = [0, 2]
        with pytest.raises((TypeError, SystemError)):
            subject.__init__(**{"bounds": bounds, **changed})
        assert subject.bounds is bounds
        assert subject.target is sum


def test_empty_fields_are_an_error_return_without_an_exception():
    subject = Problem.__new__(Problem)
    for read in (lambda: subject.bounds, lambda: subject.target, lambda: problem().constraints):
        assert error_of(read).startswith("SystemError")
    assert not hasattr(subject, "categorical")


def test_bounds_are_checked_on_assignment():
    subject = problem()
    old = subject.bounds
    for change in (lambda: setattr(subject, "bounds", [0]), lambda: delattr(subject, "bounds")):
        assert error_of(change) == repr(TypeError(BOUNDS))
        assert subject.bounds is old
    subject.bounds = new = (0, 2)
    assert subject.bounds is new


# Each of the two is called once only: a call that the interpreter has specialised does not look
# for errors that were left pending.
def test_bad_target_stays_out_and_the_error_pending():
    subject = problem()
    for change in (lambda: setattr(subject, "target", 3), lambda: delattr(subject, "target")):
        assert error_of(change, pending=True) == repr(TypeError(TARGET))
        assert subject.target is sum
    subject.target = max
    assert subject.target is max


def test_constraints_cannot_be_assigned():
    constraints = [sum]
    subject = problem(constraints=constraints)
    count = sys.getrefcount(constraints)
    with pytest.raises(SystemError):
        subject.constraints = []
    assert subject.constraints is constraints
    assert sys.getrefcount(constraints) == count + 1
    empty = problem()
    empty.constraints = [sum]
    assert error_of(lambda: empty.constraints).startswith("SystemError")


def test_every_fetched_item_keeps_a_reference():
    items = lower, size, constraint = 0.25, 300, lambda x, c: -1.0
    before = [0, 0, 0]

    def kept():
        return [sys.getrefcount(item) - count for item, count in zip(items, before)]

    before = kept()
    subject = problem(
        bounds=Lying(lambda: 2, lambda i: lower if i == 0 else 1.0),
        categorical=Lying(lambda: 1, lambda i: size),
        constraints=Lying(lambda: 1, lambda i: constraint),
        target=lambda x, c: 0.0,
    )
    assert kept() == [1, 1, 1]
    subject.bounds = subject.bounds
    assert kept() == [2, 1, 1]
    # The search fetches them anew; the adapters' tuples hold other numbers.
    subject.Minimize(stop_tests=1, cross=0)
    assert kept() == [3, 2, 2]


# Each problem holds the next through a bound method: no container on the way limits the depth.
def test_chain_of_problems_is_released_without_recursion():
    subject = problem(target=lambda x: 0.0)
    last = weakref.ref(subject.target)
    for _ in range(300_000):
        subject = problem(target=types.MethodType(sum, subject))
    del subject
    assert last() is None
