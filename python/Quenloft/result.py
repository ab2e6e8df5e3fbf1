# SPDX-License-Identifier: MIT
"""What a minimisation returns."""

from __future__ import annotations

from dataclasses import dataclass
from enum import IntEnum
from typing import Any


class Status(IntEnum):
    """Why a minimisation stopped; ``OptimizeResult.status``."""

    RUNNING = 0  #: it goes on (what a callback sees)
    MAXFUN = 1  #: the number of evaluations
    MAXTIME = 2  #: the seconds
    F_MIN = 3  #: the objective reached `f_min`
    MIN_RADIUS = 4  #: the neighbourhood of the best trial is smaller than `min_radius`
    CALLBACK = 5  #: the callback returned True or raised StopIteration
    EXHAUSTED = 6  #: nothing is left to split at the resolution of the numbers
    INTERRUPTED = -1  #: Ctrl-C
    ERROR = -2  #: an exception, which carries this result


@dataclass(frozen=True)
class LocalMinimum:
    """A trial that is lower than all others around it.

    Attributes
    ----------
    x : tuple of float, list of float or numpy.ndarray
        The point, in the form in which the objective was given it.
    fun : float
        Objective value.
    categories : tuple
        Choices of the categorical variables.
    radius : float
        Distance to the farthest of its neighbours, in the unit box; 0.0 for a polished point,
        infinity where the search ended before it looked for neighbours.
    """

    x: Any
    fun: float
    categories: tuple[Any, ...]
    radius: float


class OptimizeResult(dict):  # type: ignore[type-arg]
    """A dict whose items are attributes too.

    Attributes
    ----------
    x : tuple of float, list of float, numpy.ndarray or None
        The best point, in the form in which the objective was given its points. When no point
        satisfied every constraint, the one that came closest: it satisfies the most of them in
        their order, and violates the next one least. None when nothing was evaluated.
    categories : tuple
        The choices of the categorical variables at `x`.
    fun : float
        Objective value at `x`; infinity when no point satisfied every constraint.
    success : bool
        A point that satisfies every constraint was found, and the search ended by one of the
        stops that it was given.
    status : Status
        Which stop it was.
    message : str
        The same in words, with the numbers on both sides.
    nfev : int
        Calls of the objective, those replayed from a journal included.
    nit : int
        Trials: points at which the objective, or a violated constraint before it, was evaluated.
        `maxfun` limits these.
    maxcv : float
        Largest known constraint violation at `x`, 0.0 when every constraint holds.
    constraints : tuple of float
        Value of each constraint at `x`, NaN for those after the first violated one.
    locals : list of LocalMinimum
        Up to ten distinct local minima, best first. The first is `x`.
    xl, funl : list
        The points of `locals`, and their values.
    history : History
        Every trial.
    phases : dict
        What each phase contributed: ``{"search": {"nit": ..., "fun": ...}}``, with `polish` also
        ``"polish": {"nit": ..., "fun": ..., "method": ..., "gain": ...}``.
    replayed : int
        Trials that came from the journal.
    elapsed_seconds : float
        Duration, that of the sessions recorded in the journal included.
    """

    def __getattr__(self, name: str) -> Any:
        try:
            return self[name]
        except KeyError:
            raise AttributeError(f"the result has no field {name!r}") from None

    __setattr__ = dict.__setitem__
    __delattr__ = dict.__delitem__

    def __dir__(self) -> list[str]:
        return sorted({*super().__dir__(), *self})

    def __repr__(self) -> str:
        width = max(map(len, self), default=0)
        lines = []
        for name, value in self.items():
            text = _shorten(value)
            lines.append(f"{name:>{width}}: " + text.replace("\n", "\n" + " " * (width + 2)))
        return "\n".join(lines) or f"{type(self).__name__}()"


def _shorten(value: Any) -> str:
    if isinstance(value, Status):
        return f"{int(value)} ({value.name})"
    if isinstance(value, list) and not all(isinstance(item, float) for item in value):
        shown = [_shorten(item) for item in value[:4]]
        rest = len(value) - len(shown)
        return "[" + ",\n ".join(shown) + (f",\n ... {rest} more" if rest else "") + "]"
    return str(value) if isinstance(value, (int, float, str)) else repr(value)
