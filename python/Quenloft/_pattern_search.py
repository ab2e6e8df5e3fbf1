# SPDX-License-Identifier: MIT
"""A pattern search over the unit box that needs no more than an order of the points.

It polls the coordinate directions and, each time that it has to refine its step, another orthogonal
basis. With directions that grow dense it can follow a constraint that it has run into, where the
coordinate directions alone get stuck (Abramson, Audet, Dennis, Le Digabel, "OrthoMADS", SIAM J.
Optim. 20(2), 2009). After a success it repeats the same move with twice its length (Hooke and
Jeeves, J. ACM 8(2), 1961).
"""

from __future__ import annotations

import math
from typing import Callable, Optional, Tuple

Point = Tuple[float, ...]
Rank = Tuple[int, float]


def minimize_by_pattern(
    rank: Callable[[Point], Rank], start: Point, first_step: float, last_step: float
) -> Point:
    """The best point found when the step has fallen to `last_step`.

    Parameters
    ----------
    rank : callable
        Value of a point; smaller is better. What it raises ends the search.
    start : tuple of float
        In the unit box, as all points are that `rank` is given.
    first_step, last_step : float
        Length of the steps, as a share of the box's sides.
    """
    base = start
    best = rank(base)
    dimension = len(base)
    step = first_step
    refinements = 0
    while step > last_step:
        moved = _poll(rank, base, best, step, _basis(dimension, refinements))
        if moved is None:
            step *= 0.5
            refinements += 1
            continue
        target, best = moved
        while True:
            further = tuple(min(max(2.0 * t - b, 0.0), 1.0) for t, b in zip(target, base))
            base = target
            found = rank(further) if further != target else best
            if not found < best:
                break
            target, best = further, found
    return base


def _poll(
    rank: Callable[[Point], Rank],
    base: Point,
    best: Rank,
    step: float,
    basis: list[list[float]],
) -> Optional[tuple[Point, Rank]]:
    """The first point one step from `base` that is better than `best`, and its rank."""
    for direction in basis:
        for sign in (1.0, -1.0):
            point = tuple(min(max(b + sign * step * d, 0.0), 1.0) for b, d in zip(base, direction))
            if point != base:
                found = rank(point)
                if found < best:
                    return point, found
    return None


def _basis(dimension: int, number: int) -> list[list[float]]:
    """An orthonormal basis: the coordinate axes for 0, then the columns of Householder matrices
    ``I - 2 q q^T`` whose ``q`` follow a Halton sequence."""
    axes = [[float(i == j) for j in range(dimension)] for i in range(dimension)]
    if number == 0 or dimension == 1:
        return axes
    raw = [2.0 * _halton(number, prime) - 1.0 for prime in _primes(dimension)]
    length = math.sqrt(sum(v * v for v in raw))
    if length == 0.0:
        return axes
    q = [v / length for v in raw]
    return [[axis[j] - 2.0 * q[i] * q[j] for j in range(dimension)] for i, axis in enumerate(axes)]


def _halton(number: int, base: int) -> float:
    """Element `number` of the van der Corput sequence of a base."""
    value, share = 0.0, 1.0 / base
    while number:
        number, digit = divmod(number, base)
        value += digit * share
        share /= base
    return value


def _primes(count: int) -> list[int]:
    primes: list[int] = []
    candidate = 2
    while len(primes) < count:
        if all(candidate % prime for prime in primes):
            primes.append(candidate)
        candidate += 1
    return primes
