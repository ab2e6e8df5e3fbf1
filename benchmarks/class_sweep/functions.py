# SPDX-License-Identifier: MIT
"""The classes of test functions, and the rule by which a function counts as solved."""

from __future__ import annotations

from dataclasses import dataclass
from time import thread_time
from typing import Any, Callable, Optional, Sequence

from _Quenloft import TestFunction, TestFunction2

FUNCTIONS_PER_CLASS = 100


@dataclass(frozen=True)
class FunctionClass:
    """A hundred functions of one kind on one box.

    A function is solved by the first trial whose every coordinate is within `tolerance` of the
    global minimizer's. For the GKLS classes that is Delta^(1/N) times the side of the box.
    """

    name: str
    dimension: int
    lower: float
    upper: float
    tolerance: float
    #: Trials given to a search by default; means count an unsolved function with them.
    budget: int
    #: Distance and radius of the global minimizer of a GKLS class.
    gkls: Optional[tuple[float, float]] = None

    @property
    def bounds(self) -> list[tuple[float, float]]:
        return [(self.lower, self.upper)] * self.dimension

    def function(self, number: int) -> Any:
        """The native function `number` (1 to 100), with its minimizer as `argmin`."""
        if self.gkls is None:
            return TestFunction(number)
        return TestFunction2(self.dimension, 10, *self.gkls, number)


def _gkls(
    name: str, dimension: int, distance: float, radius: float, delta: float, budget: int
) -> FunctionClass:
    side = 2.0
    tolerance = delta ** (1.0 / dimension) * side
    return FunctionClass(name, dimension, -1.0, 1.0, tolerance, budget, (distance, radius))


# The eight GKLS classes of the literature (Sergeyev and Kvasov 2006, Paulavicius et al. 2014)
# and the class of Grishagin with the rule that is usual for it.
CLASSES = {
    c.name: c
    for c in (
        FunctionClass("Grishagin", 2, 0.0, 1.0, 0.01, 20_000),
        _gkls("2D simple", 2, 0.90, 0.20, 1e-4, 20_000),
        _gkls("2D hard", 2, 0.90, 0.10, 1e-4, 20_000),
        _gkls("3D simple", 3, 0.66, 0.20, 1e-6, 50_000),
        _gkls("3D hard", 3, 0.90, 0.20, 1e-6, 50_000),
        _gkls("4D simple", 4, 0.66, 0.20, 1e-6, 100_000),
        _gkls("4D hard", 4, 0.90, 0.20, 1e-6, 100_000),
        _gkls("5D simple", 5, 0.66, 0.30, 1e-7, 100_000),
        _gkls("5D hard", 5, 0.66, 0.20, 1e-7, 100_000),
    )
}


class Objective:
    """One function as a method sees it: counts the trials and stops at the first good one.

    A call answers with the value until the function is solved or the budget is used up, and from
    then on with what `stop` answers, which may raise. `seconds` is the CPU time
    spent inside calls.
    """

    def __init__(
        self, function_class: FunctionClass, number: int, budget: int, stop: Callable[[], float]
    ) -> None:
        self.function = function_class.function(number)
        self.minimizer: tuple[float, ...] = self.function.argmin
        self.tolerance = function_class.tolerance
        self.budget = budget
        self.stop = stop
        self.count = 0
        self.seconds = 0.0
        self.solved_at: Optional[int] = None

    def __call__(self, point: Sequence[float]) -> float:
        start = thread_time()
        self.count += 1
        if self.solved_at is not None or self.count > self.budget:
            return self.stop()
        value: float = self.function(point)
        tolerance = self.tolerance
        for x, best in zip(point, self.minimizer):
            if abs(x - best) > tolerance:
                break
        else:
            self.solved_at = self.count
            value = self.stop()
        self.seconds += thread_time() - start
        return value
