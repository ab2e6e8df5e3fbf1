# SPDX-License-Identifier: MIT
"""Problems of other people's making, with known minima, to measure minimisers on.

    from outside_problems import load, DESIGNS      # with benchmarks/ on sys.path

    for problem in load(dimensions=[2, 3], held_out=False):
        problem.name, problem.kind, problem.dimension, problem.is_held_out
        problem.bounds                    # ((lower, upper), ...)
        problem(point)                    # a float; point: any sequence of floats
        problem(point, choices)           # with problem.categories
        problem.f_star, problem.median    # accuracy 1e-4 is reached at the first value with
        problem.accuracy(value)           # value - f_star <= 1e-4 * (median - f_star)

    spring = DESIGNS["tension-spring"]    # also welded-beam, pressure-vessel, speed-reducer
    spring.objective(x), spring.constraints(x)    # each constraint <= 0 where it holds

Half of the instances, those of odd number, are for tuning; the others are held out. The designs,
which are only four and have no random instances, belong to both halves.
"""

from __future__ import annotations

from functools import cache
from typing import Collection, Optional

from . import bbob, classical, designs, kinetics, mixed, regression
from .designs import DESIGNS
from .problem import Problem

__all__ = ["ALL_KINDS", "DESIGNS", "Problem", "by_name", "load"]

ALL_KINDS = (
    "classical",
    "classical, kinks",
    *bbob.KINDS,
    "regression",
    "kinetics",
    "design",
    "mixed",
)


@cache
def _all() -> tuple[Problem, ...]:
    return (
        *classical.problems(),
        *bbob.problems(),
        *regression.problems(),
        *kinetics.problems(),
        *designs.problems(),
        *mixed.problems(),
    )


def load(
    kinds: Optional[Collection[str]] = None,
    dimensions: Optional[Collection[int]] = None,
    held_out: Optional[bool] = None,
) -> list[Problem]:
    """The problems of some kinds (of `ALL_KINDS`), dimensions and half; by default all.

    `held_out` is False for the half that may be tuned on, True for the other; the designs are in
    both. Without the package ioh those of BBOB are missing.
    """
    return [
        p
        for p in _all()
        if (kinds is None or p.kind in kinds)
        and (dimensions is None or p.dimension in dimensions)
        and (held_out is None or p.is_held_out == held_out or p.kind == "design")
    ]


def by_name(name: str) -> Problem:
    """The problem of that name, of BBOB of any instance; KeyError if there is none."""
    return {p.name: p for p in _all()}.get(name) or bbob.by_name(name)
