# SPDX-License-Identifier: MIT
"""The 24 noiseless functions of BBOB (Hansen, Finck, Ros and Auger 2009), from the package ioh."""

from __future__ import annotations

import re
from functools import cache
from typing import Any, Sequence

from .problem import Point, Problem

DIMENSIONS = (2, 3, 5, 10)
INSTANCES = (1, 2)

#: The groups of the collection: numbers of their last functions, and what kind they are.
_GROUPS = (
    (5, "BBOB 1-5, separable"),
    (9, "BBOB 6-9, moderate"),
    (14, "BBOB 10-14, ill-conditioned"),
    (19, "BBOB 15-19, funnels"),
    (24, "BBOB 20-24, weak structure"),
)
KINDS = tuple(kind for _, kind in _GROUPS)


@cache
def _load(number: int, instance: int, dimension: int) -> Any:
    import ioh

    return ioh.get_problem(number, instance, dimension, ioh.ProblemClass.BBOB)


class _Function:
    """One function; loaded at first use, so that it can be sent to another process."""

    def __init__(self, *key: int) -> None:
        self.key = key

    def __call__(self, point: Point) -> float:
        value: float = _load(*self.key)(list(point))
        return value


def problem(number: int, dimension: int, instance: int) -> Problem:
    """One function, in its usual box. ImportError where ioh is not installed."""
    best = _load(number, instance, dimension).optimum
    return Problem(
        name=f"bbob-f{number}-{dimension}D/{instance}",
        kind=next(kind for last, kind in _GROUPS if number <= last),
        instance=instance,
        bounds=((-5.0, 5.0),) * dimension,
        objective=_Function(number, instance, dimension),
        f_star=best.y,
        minimizer=tuple(best.x),
    )


def by_name(name: str) -> Problem:
    """The function of that name, of any instance; KeyError where it is none."""
    match = re.fullmatch(r"bbob-f(\d+)-(\d+)D/(\d+)", name)
    if match is None:
        raise KeyError(name)
    return problem(*(int(number) for number in match.groups()))


def problems(
    dimensions: Sequence[int] = DIMENSIONS, instances: Sequence[int] = INSTANCES
) -> list[Problem]:
    """All functions; none where ioh is not installed."""
    try:
        import ioh  # noqa: F401
    except ImportError:
        return []
    return [
        problem(number, dimension, instance)
        for dimension in dimensions
        for number in range(1, 25)
        for instance in instances
    ]
