# SPDX-License-Identifier: MIT
"""What a problem of the outside benchmark is."""

from __future__ import annotations

import math
import random
import statistics
from dataclasses import dataclass
from functools import cached_property
from typing import Callable, Optional, Sequence

Point = Sequence[float]
Bounds = tuple[tuple[float, float], ...]

#: Points by which the scale of a problem's values is measured.
SAMPLE_SIZE = 200


@dataclass(frozen=True)
class Problem:
    """A function to minimise over a box, with its global minimum.

    A call takes a point, a sequence of `dimension` floats inside `bounds`, and for a problem with
    categories the tuple of choices; it gives a finite float. With constraints, a point is feasible
    when every value of ``constraints(point)`` is <= 0; each is scaled to be of the order of 1.
    """

    name: str
    #: By which results are grouped.
    kind: str
    #: Number of the random box, or of the function's own random instance; from 1.
    instance: int
    bounds: Bounds
    objective: Callable[..., float]
    f_star: float
    #: A global minimizer, where it is known.
    minimizer: Optional[tuple[float, ...]] = None
    #: The choices of that minimizer, for a problem with categories.
    best_choices: tuple[str, ...] = ()
    categories: tuple[tuple[str, ...], ...] = ()
    constraints: Optional[Callable[[Point], tuple[float, ...]]] = None

    def __call__(self, point: Point, *choices: tuple[str, ...]) -> float:
        return self.objective(point, *choices)

    @property
    def dimension(self) -> int:
        """The number of real variables."""
        return len(self.bounds)

    @property
    def is_held_out(self) -> bool:
        """True for the half that is not to be used for tuning: the even instances."""
        return self.instance % 2 == 0

    @cached_property
    def median(self) -> float:
        """The median of the values at 200 uniformly random points, the same in every run."""
        generator = random.Random(self.name)
        values = []
        for _ in range(SAMPLE_SIZE):
            point = [generator.uniform(lower, upper) for lower, upper in self.bounds]
            if self.categories:
                values.append(self(point, tuple(map(generator.choice, self.categories))))
            else:
                values.append(self(point))
        return statistics.median(values)

    @cached_property
    def scale(self) -> float:
        """What accuracies are relative to: the median above the minimum.

        With constraints the size of the minimum, as the literature of those problems has it:
        random points are rarely feasible.
        """
        return abs(self.f_star) if self.constraints else self.median - self.f_star

    def accuracy(self, value: float) -> float:
        """How far a value is above the minimum, in units of `scale`."""
        return (value - self.f_star) / self.scale


#: Fractions of a side at which a minimum would favour methods that halve or trisect.
_GRID = sorted({i / d for d in (16, 27) for i in range(d + 1)})


def crop(bounds: Bounds, minimizer: Sequence[float], seed: str, least: float = 0.35) -> Bounds:
    """A random part of a box around a point, which gets an unremarkable place in it.

    Each side keeps a random share, between `least` and all, of its distance from the point. In
    the new box the point is at least 4 % of a side away from every face, and 0.4 % from its
    middle and every other sixteenth and twenty-seventh of the side.
    """
    generator = random.Random(seed)

    def draw(lower: float, upper: float, x: float) -> tuple[float, float]:
        for _ in range(10_000):
            low = x - generator.uniform(least, 1.0) * (x - lower)
            high = x + generator.uniform(least, 1.0) * (upper - x)
            place = (x - low) / (high - low)
            if 0.04 < place < 0.96 and min(abs(place - g) for g in _GRID) > 0.004:
                return low, high
        raise ValueError(f"no box of {seed}: {x} is too near to {lower} or {upper}")

    return tuple(draw(lower, upper, x) for (lower, upper), x in zip(bounds, minimizer))


def guarded(function: Callable[[Point], float], most: float = 1e100) -> Callable[[Point], float]:
    """The function with `most` in place of values that overflow or are no numbers."""

    def values(point: Point) -> float:
        try:
            value = function(point)
        except (OverflowError, ZeroDivisionError):
            return most
        return value if math.isfinite(value) else most

    return values
