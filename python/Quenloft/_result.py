# SPDX-License-Identifier: MIT
"""What a minimisation returns."""

from __future__ import annotations

import math
import os
from dataclasses import dataclass
from enum import IntEnum
from typing import TYPE_CHECKING, Any, Callable, Dict, Iterable, Optional, Tuple, Union

from ._history import History, Trial

# The form of saved results that this version writes and reads.
_FORMAT = 1
_SEQUENCES = ("locals", "xl", "funl")

_MOST_LOCALS = 10
# Above any distance in the unit box of 32 dimensions.
_LARGEST_RADIUS = 6.0

#: A point and the chosen objects in the form that the caller wants.
Present = Callable[[Tuple[float, ...], Tuple[Any, ...]], Any]


class Status(IntEnum):
    """Why a minimisation stopped; ``OptimizeResult.status``."""

    RUNNING = 0  #: it goes on (what a callback sees)
    MAXFUN = 1  #: the number of evaluations
    MAXTIME = 2  #: the seconds
    F_MIN = 3  #: the objective reached `f_min`
    MIN_RADIUS = 4  #: the neighbourhood of the best trial is smaller than `min_radius`
    CALLBACK = 5  #: the callback returned True or raised StopIteration
    EXHAUSTED = 6  #: every point of the lattice is evaluated, or nothing is left to split
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
        Distance to the farthest of its neighbours, in the unit box; infinity where the search ended before it looked for neighbours.
    """

    x: Any
    fun: float
    categories: tuple[Any, ...]
    radius: float


class OptimizeResult(Dict[str, Any]):
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
        Calls of the objective, those replayed from a journal and those that were not needed
        (`surplus`) included.
    nit : int
        Trials: points at which the objective, or a violated constraint before it, was evaluated.
        `maxfun` limits these.
    maxcv : float
        Largest known constraint violation at `x`, 0.0 when every constraint holds, infinity when
        every evaluation failed.
    constraints : tuple of float
        Value of each constraint at `x`, NaN for those that were not evaluated.
    locals : list of LocalMinimum
        Up to ten distinct local minima, best first. The first is `x`.
    xl, funl : list
        The points of `locals`, and their values.
    history : History
        Every trial.
    surplus : History
        Evaluations ahead that the search did not come to need, in the order in which they ended;
        empty with one worker. A journal keeps them for a search that goes on further.
    replayed : int
        Trials that came from the journal.
    elapsed_seconds : float
        Duration, that of the sessions recorded in the journal included.
    """

    x: Any
    categories: tuple[Any, ...]
    fun: float
    success: bool
    status: Status
    message: str
    nfev: int
    nit: int
    maxcv: float
    constraints: tuple[float, ...]
    locals: list[LocalMinimum]
    xl: list[Any]
    funl: list[float]
    history: History
    surplus: History
    replayed: int
    elapsed_seconds: float
    #: The trial just made; only in what a callback is given.
    trial: Trial

    if not TYPE_CHECKING:  # which would take any name for a field

        def __getattr__(self, name: str) -> Any:
            try:
                return self[name]
            except KeyError:
                raise AttributeError(f"the result has no field {name!r}") from None

        __setattr__ = dict.__setitem__
        __delattr__ = dict.__delitem__

    def save(self, path: Union[str, os.PathLike[str]]) -> None:
        """Write everything to a JSON file, the history included; `load` reads it.

        Choices that JSON cannot hold are written as their text; NaN and infinities as the strings
        ``"NaN"``, ``"Infinity"`` and ``"-Infinity"``.
        """
        import json

        text = json.dumps({"format": _FORMAT, "result": _plain(self)}, allow_nan=False, indent=1)
        with open(path, "w", encoding="utf-8") as file:
            file.write(text + "\n")

    @classmethod
    def load(cls, path: Union[str, os.PathLike[str]]) -> OptimizeResult:
        """Read what `save` wrote. Points are tuples, or mappings where they were.

        Raises
        ------
        ValueError
            The file holds no saved result.
        """
        import json

        with open(path, encoding="utf-8") as file:
            try:
                saved = json.load(file)
                if saved["format"] != _FORMAT:
                    raise ValueError(f"its format is {saved['format']!r}")
                fields = {name: _restored(value) for name, value in saved["result"].items()}
            except (ValueError, LookupError, TypeError) as error:
                raise ValueError(f"{os.fspath(path)!r} holds no saved result: {error}") from error
        fields["status"] = Status(fields["status"])
        for name in _SEQUENCES:  # that stay lists
            if name in fields:
                fields[name] = list(fields[name])
        return cls(fields)

    def _repr_html_(self) -> str:
        from ._notebook import result_html

        return result_html(self)

    def __dir__(self) -> list[str]:
        return sorted({*super().__dir__(), *self})

    def __repr__(self) -> str:
        width = max(map(len, self), default=0)
        lines = []
        for name, value in self.items():
            text = _shorten(value)
            lines.append(f"{name:>{width}}: " + text.replace("\n", "\n" + " " * (width + 2)))
        return "\n".join(lines) or f"{type(self).__name__}()"


def best_fields(history: History, best: Optional[int], present: Present) -> dict[str, Any]:
    """The fields of a result about its best trial, of which the position is given."""
    if best is None:
        return {
            "fun": math.inf, "x": None, "categories": (), "maxcv": math.inf, "constraints": ()
        }  # fmt: skip
    trial = history[best]
    return {
        "fun": trial.value if trial.index == history.goal else math.inf,
        "x": present(trial.x, trial.categories),
        "categories": trial.categories,
        "maxcv": trial.maxcv,
        "constraints": trial.constraints,
    }


def minima_fields(
    history: History, minima: Iterable[tuple[int, float]], present: Present
) -> dict[str, Any]:
    """The fields about local minima, of which positions and radii are given, the best one first.

    Those that are not feasible are left out, and so is the best where it comes again.
    """
    radii: dict[int, float] = {}
    for position, radius in minima:
        if history.index[position] == history.goal:
            # Where the search ended before it looked for neighbours there is none.
            radii.setdefault(position, radius if radius <= _LARGEST_RADIUS else math.inf)
    found = []
    for position in [*radii][:_MOST_LOCALS]:
        trial = history[position]
        x = present(trial.x, trial.categories)
        found.append(LocalMinimum(x, trial.value, trial.categories, radii[position]))
    return {"locals": found, "xl": [m.x for m in found], "funl": [m.fun for m in found]}


def exhaustion(history: History, point_count: float) -> str:
    """What it means that nothing is left to do, among so many points."""
    if math.isfinite(point_count):
        return f"all {len(history)} points evaluated, the best is proven"
    return "nothing left to split at the resolution of the numbers"


def _shorten(value: Any) -> str:
    if isinstance(value, Status):
        return f"{int(value)} ({value.name})"
    if isinstance(value, list) and not all(isinstance(item, float) for item in value):
        shown = [_shorten(item) for item in value[:4]]
        rest = len(value) - len(shown)
        return "[" + ",\n ".join(shown) + (f",\n ... {rest} more" if rest else "") + "]"
    return str(value) if isinstance(value, (int, float, str)) else repr(value)


def _plain(value: Any) -> Any:
    """The value as JSON has it."""
    if isinstance(value, History):
        return {"history": {name: _plain(part) for name, part in vars(value).items()}}
    if isinstance(value, LocalMinimum):
        return {"local": {name: _plain(part) for name, part in vars(value).items()}}
    if isinstance(value, dict):
        return {str(name): _plain(part) for name, part in value.items()}
    if isinstance(value, (list, tuple)) or hasattr(value, "tolist"):
        parts = value.tolist() if hasattr(value, "tolist") else value
        return [_plain(part) for part in parts] if isinstance(parts, (list, tuple)) else parts
    if isinstance(value, float):
        if math.isfinite(value):
            return value
        return "NaN" if math.isnan(value) else "Infinity" if value > 0 else "-Infinity"
    return value if value is None or isinstance(value, (bool, int, str)) else str(value)


def _restored(value: Any) -> Any:
    if isinstance(value, dict):
        fields = {name: _restored(part) for name, part in value.items()}
        if [*fields] == ["history"]:
            return History.restored(fields["history"])
        return LocalMinimum(**fields["local"]) if [*fields] == ["local"] else fields
    if isinstance(value, list):
        return tuple(_restored(part) for part in value)
    return float(value) if value in ("NaN", "Infinity", "-Infinity") else value
