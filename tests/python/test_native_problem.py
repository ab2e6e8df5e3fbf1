# SPDX-License-Identifier: MIT
"""Quenloft.Problem: what it takes, refuses, stores and keeps."""

import sys
import types
import weakref

import pytest

from _Quenloft import Problem
from native import Lying, error_of, fails

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
        ({"bounds": Lying(fails, lambda i: 0.0)}, BOUNDS),
        ({"bounds": Lying(lambda: 2, fails)}, BOUNDS),
        ({"bounds": Lying(lambda: 2**62, lambda i: 0.0)}, BOUNDS),
        ({"bounds": [], "categorical": 5}, CATEGORICAL),
        ({"bounds": [], "categorical": [3, 1]}, CATEGORICAL_ITEM),
        ({"bounds": [], "categorical": [2**32 + 2]}, CATEGORICAL_ITEM),
        ({"bounds": [], "constraints": sum}, CONSTRAINTS),
        ({"bounds": [], "constraints": [sum, 3]}, CONSTRAINTS),
        ({"bounds": [], "categorical": [], "constraints": [], "target": 3}, TARGET),
    ],
)
def test_first_fault_is_named(arguments, message):
    # The target's error is left pending; the interpreter finds it and chains it.
    error = error_of(lambda: Problem(**arguments), pending=message == TARGET)
    assert error == repr(TypeError(message))


def test_fields_before_the_fault_are_stored():
    subject = problem()
    for field in "categorical", "constraints", "target":
        bounds = [0, 2]
        with pytest.raises((TypeError, SystemError)):
            subject.__init__(**{"bounds": bounds, field: 5})
        assert subject.bounds is bounds and subject.target is sum


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
    # Of a long sequence, too.
    subject.bounds = Lying(lambda: 70_000, lambda i: lower)
    assert kept() == [70_003, 2, 2]


class Mortal(list):
    """A field that says when it goes: a sequence of its items, callable, and what it `holds`."""

    def __init__(self, name, gone, items=(), holds=None):
        super().__init__(items)
        self.name, self.gone, self.holds = name, gone, holds

    def __call__(self, x):
        return 0.0

    def __del__(self):
        self.gone.append(self.name)


# Whether the outer problem goes first or the inner ones, each releases bounds, categorical,
# constraints and target in that order, and what one of them led to before the next.
def test_order_of_release():
    gone = []

    def mortal(name, **holds):
        fields = {"bounds": [0, 1], "categorical": [2], "constraints": [sum], "target": []}
        made = {k: Mortal(f"{name} {k}", gone, v, holds.get(k)) for k, v in fields.items()}
        return Problem(**made)

    outer = mortal("outer", bounds=mortal("first", target=mortal("last")), target=mortal("second"))
    del outer
    names = [name.split() for name in gone]
    order = ["outer"] + ["first"] * 4 + ["last"] * 4 + ["outer"] * 3 + ["second"] * 4
    assert [name for name, _ in names] == order
    for name in {*order}:
        fields = [field for owner, field in names if owner == name]
        assert fields == ["bounds", "categorical", "constraints", "target"]


# Each problem holds the next through a bound method: no container on the way limits the depth.
def test_chain_of_problems_is_released_without_recursion():
    subject = problem(target=lambda x: 0.0)
    last = weakref.ref(subject.target)
    for _ in range(300_000):
        subject = problem(target=types.MethodType(sum, subject))
    del subject
    assert last() is None
