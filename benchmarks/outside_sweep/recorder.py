# SPDX-License-Identifier: MIT
"""A problem as a method sees it: every evaluation is counted, none is allowed beyond the budget."""

from __future__ import annotations

from time import thread_time
from typing import Optional, Sequence

from outside_problems import Problem

#: What a run notes: the first evaluation that reaches each of these accuracies,
ACCURACIES = (1e-1, 1e-2, 1e-3, 1e-4, 1e-5, 1e-6, 1e-7, 1e-8)
#: and the accuracy reached within these numbers of evaluations.
BUDGETS = (50, 100, 200, 500)

#: A point may violate its constraints, which are scaled, by as much and still count: peers that
#: follow the boundary end there within rounding.
TOLERANCE = 1e-6


class BudgetUsed(BaseException):
    """Ends a method. Not an Exception, so that no method catches it as a failed evaluation."""


class Recorder:
    """Counts the evaluations of a problem and notes what they reach.

    An evaluation beyond the budget raises `BudgetUsed`. With constraints, one evaluation gives the
    objective and all of them, and asking again about a known point costs nothing: for the methods
    that ask for each by itself.
    """

    def __init__(self, problem: Problem, budget: int) -> None:
        self.problem = problem
        self.budget = budget
        self.count = 0
        #: CPU time spent in the problem's own functions.
        self.seconds = 0.0
        self.best: Optional[float] = None
        self.reached: list[Optional[int]] = [None] * len(ACCURACIES)
        self.accuracy_within: list[Optional[float]] = [None] * len(BUDGETS)
        self.known: dict[tuple[float, ...], tuple[float, tuple[float, ...]]] = {}

    def __call__(self, point: Sequence[float], *choices: tuple[str, ...]) -> float:
        """The value at a point, which is moved into the box where rounding put it outside."""
        if self.problem.constraints is not None:
            return self.evaluate(point)[0]
        inside = self._inside(point)
        start = self._begin()
        value = self.problem(inside, *choices)
        self.seconds += thread_time() - start
        self._note(value)
        return value

    def evaluate(self, point: Sequence[float]) -> tuple[float, tuple[float, ...]]:
        """Objective and constraints (<= 0 where they hold) of a problem that has them."""
        assert self.problem.constraints is not None
        inside = self._inside(point)
        found = self.known.get(inside)
        if found is None:
            start = self._begin()
            found = self.problem(inside), self.problem.constraints(inside)
            self.seconds += thread_time() - start
            self.known[inside] = found
            if max(found[1]) <= TOLERANCE:
                self._note(found[0])
        return found

    def violations(self, point: Sequence[float]) -> tuple[float, ...]:
        """The constraints alone."""
        return self.evaluate(point)[1]

    def _inside(self, point: Sequence[float]) -> tuple[float, ...]:
        return tuple(
            min(max(float(x), lower), upper)
            for x, (lower, upper) in zip(point, self.problem.bounds)
        )

    def _begin(self) -> float:
        if self.count >= self.budget:
            raise BudgetUsed
        self.count += 1
        return thread_time()

    def _note(self, value: float) -> None:
        if self.best is not None and not value < self.best:
            return
        self.best = value
        accuracy = self.problem.accuracy(value)
        for i, wanted in enumerate(ACCURACIES):
            if accuracy <= wanted and self.reached[i] is None:
                self.reached[i] = self.count
        for i, budget in enumerate(BUDGETS):
            if self.count <= budget:
                self.accuracy_within[i] = accuracy
