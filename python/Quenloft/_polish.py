# SPDX-License-Identifier: MIT
"""The polish phase: a local derivative-free search from the best trial of the search phase.

Two methods, both in the unit box of the search (with logarithmic variables as logarithms), both
keeping the categorical choices of the best trial.

COBYLA (Powell, 1994, in SciPy) models objective and constraints by linear functions. It asks for
their values at infeasible points too, where this package evaluates nothing after the first violated
constraint; what is missing is extrapolated linearly from the nearest points at which it is known.

The pattern search (`pattern_search`) takes infeasible points as simply worse (an extreme barrier),
ranked among themselves as the search ranks them.
"""

from __future__ import annotations

import math
import threading
from typing import Any, Callable, Sequence

from ._history import rank
from ._pattern_search import minimize_by_pattern
from ._plan import scipy_minimize
from ._run import Run

#: First step and last one, as shares of the box's sides.
FIRST_STEP = 0.02
LAST_STEP = 1e-7

# A bound on steps that repeat points, which cost no trial.
_MOST_STEPS = 10_000

# SciPy's COBYLA waits for a lock that covers the process while the objective runs: a search inside
# the objective, in another thread, could wait for ever.
_cobyla_in_use = threading.Lock()


class _Ended(Exception):
    """The budget is spent, or an exception is kept aside."""


class _Sampler:
    """Trials at points of the unit box, each point once."""

    def __init__(self, run: Run) -> None:
        variables = run.variables
        lower, upper = variables.engine_box()
        self._lower = lower
        self._width = [b - a for a, b in zip(lower, upper)]
        self._run = run
        best = run.history[run.best]
        category = run.history.category[run.best]
        self._selected = tuple(int(category[i]) for i in variables.free)
        self.start = tuple(
            min(max((u - a) / w, 0.0), 1.0)
            for u, a, w in zip(variables.encode(best.x), lower, self._width)
        )
        self.best = self.start
        self.goal = run.goal
        self._known: dict[tuple[float, ...], tuple[int, float, Sequence[float]]] = {
            self.start: (best.index, best.value, best.constraints)
        }

    def __call__(self, u: Sequence[float]) -> tuple[int, float, Sequence[float]]:
        """Index, value and constraint values at a point, which is moved into the box.

        Raises
        ------
        _Ended
            No more trials are allowed.
        """
        inside = tuple(min(max(float(v), 0.0), 1.0) for v in u)
        outcome = self._known.get(inside)
        if outcome is None:
            run = self._run
            coordinates = [a + w * v for a, w, v in zip(self._lower, self._width, inside)]
            if not run.trial(coordinates, self._selected):
                raise _Ended
            trial = run.history[-1]
            outcome = trial.index, trial.value, trial.constraints
            self._known[inside] = outcome
            if run.best == len(run.history) - 1:
                self.best = inside
            if run.status is not None or run.error is not None:
                raise _Ended
        return outcome

    def rank(self, u: Sequence[float]) -> tuple[int, float]:
        """Smaller is better."""
        index, value, _ = self(u)
        return rank(index, value)

    def known(self, function: int) -> list[tuple[tuple[float, ...], float]]:
        """Points at which a function is known, with its values; `goal` is the objective."""
        points = []
        for u, (index, value, constraints) in self._known.items():
            if function == self.goal:
                if index == self.goal:
                    points.append((u, value))
            elif function < len(constraints) and not math.isnan(constraints[function]):
                points.append((u, constraints[function]))
        return points


def polish(run: Run, method: str) -> str:
    """Refine the best trial of `run` within what its phase allows.

    Parameters
    ----------
    run : Run
        With at least one trial.
    method : {"auto", "cobyla", "pattern"}
        ``"auto"`` takes COBYLA if it can.

    Returns
    -------
    str
        The method that was used.
    """
    sampler = _Sampler(run)
    minimizer = scipy_minimize() if method != "pattern" else None
    used = "pattern"
    try:
        if minimizer is not None and _cobyla_in_use.acquire(blocking=False):
            used = "cobyla"
            try:
                _cobyla(sampler, run, minimizer)
            finally:
                _cobyla_in_use.release()
        else:
            minimize_by_pattern(sampler.rank, sampler.start, FIRST_STEP, LAST_STEP)
    except _Ended:
        pass
    except BaseException as error:
        # From between two trials: Ctrl-C, or the method itself.
        run.error = run.error or error
    return used


def _cobyla(sampler: _Sampler, run: Run, minimizer: Callable[..., Any]) -> None:
    import numpy

    count = run.history.constraint_count
    # A violation of the hidden constraint has no value of its own to follow: the objective is
    # extrapolated there, and the point is never better than what is known.
    has_ended = False

    def value_of(function: int, u: Any) -> float:
        nonlocal has_ended
        if not has_ended:
            try:
                index, value, constraints = sampler(u)
            except _Ended:
                has_ended = True
        if has_ended:
            # Not every version of SciPy lets an exception through quietly. Where nothing changes
            # any more the method converges at once, and costs no trial.
            return 0.0
        if function == sampler.goal:
            known = value if index == sampler.goal else math.nan
        else:
            known = constraints[function]
        return known if math.isfinite(known) else _extrapolate(numpy, sampler.known(function), u)

    # Points outside the box count as their nearest point inside: the sides are constraints too, so
    # that the method comes back.
    sides = [
        {"type": "ineq", "fun": lambda u: numpy.concatenate((u, 1.0 - u))},
    ]
    inequalities = [{"type": "ineq", "fun": lambda u, k=k: -value_of(k, u)} for k in range(count)]
    # What was extrapolated may have misled it, so it starts again, with smaller steps, until that
    # gains nothing twice.
    step = FIRST_STEP
    useless = 0
    while not has_ended and useless < (2 if sampler.goal else 1) and step > LAST_STEP:
        reached = run.best_rank[1]
        minimizer(
            lambda u: value_of(sampler.goal, u),
            numpy.array(sampler.best),
            method="COBYLA",
            constraints=sides + inequalities,
            options={"rhobeg": step, "tol": LAST_STEP, "maxiter": _MOST_STEPS},
        )
        useless = 0 if sampler.goal and run.best_rank[1] < reached else useless + 1
        step *= 0.1


def _extrapolate(numpy: Any, known: list[tuple[tuple[float, ...], float]], u: Any) -> float:
    """Value at `u` of the linear function that fits the nearest known points best."""
    if not known:
        return 0.0
    position = numpy.asarray(u, dtype=float)
    points = numpy.array([point for point, _ in known]) - position
    values = numpy.array([value for _, value in known])
    nearest = numpy.argsort((points**2).sum(axis=1), kind="stable")[: 2 * len(position) + 1]
    anchor = nearest[0]
    steps = points[nearest] - points[anchor]
    slope = numpy.linalg.lstsq(steps, values[nearest] - values[anchor], rcond=1e-6)[0]
    return float(values[anchor] - slope @ points[anchor])
