# SPDX-License-Identifier: MIT
"""The exceptions of the package.

An exception that leaves `minimize` carries the result so far in its attribute ``result``,
whoever raised it: the package, the objective, a constraint, the callback or Ctrl-C.
"""

from __future__ import annotations

import sys
from typing import TYPE_CHECKING, Any, Sequence

if TYPE_CHECKING:
    from ._variables import Variables


class NonFiniteError(ValueError):
    """The objective or a constraint returned NaN or an infinity.

    Attributes
    ----------
    x : tuple of float
        The point at which it happened.
    categories : tuple
        The choices of the categorical variables there.
    value : float
        What was returned.
    """

    def __init__(
        self, source: str, value: float, x: Sequence[float], categories: Sequence[Any] = ()
    ) -> None:
        where = f"x = {tuple(x)}" + (f", categories = {tuple(categories)}" if categories else "")
        super().__init__(
            f"{source} returned {value} at {where}; "
            "pass nonfinite='infeasible' to go on from such points"
        )
        self.x = tuple(x)
        self.categories = tuple(categories)
        self.value = value
        self._arguments = (source, value, self.x, self.categories)

    def __reduce__(self) -> Any:
        return type(self), self._arguments, self.__dict__


class EvaluationTimeout(TimeoutError):
    """An evaluation took longer than `timeout` seconds; its process was ended and replaced."""

    def __init__(self, seconds: float) -> None:
        super().__init__(f"an evaluation took longer than {seconds:g} s")
        self.seconds = seconds

    def __reduce__(self) -> Any:
        return type(self), (self.seconds,), self.__dict__


class WorkerError(RuntimeError):
    """A process of `workers` ended in an evaluation: it was killed, as where memory runs out, or
    crashed."""


class JournalError(RuntimeError):
    """A journal cannot be used: it belongs to another problem or other settings (the message
    names the difference), is in use by another process, or is no journal at all."""


class _Note(Exception):
    """Shows the notes of an exception where tracebacks do not."""


def name_point(
    error: BaseException, variables: Variables, x: tuple[float, ...], chosen: Any, form: str
) -> str:
    """Say at which point an exception was raised: in its attribute ``point``, a mapping of values by
    name, and in a note. The point as text is returned."""
    place = variables.place(x, chosen)
    attributes = vars(error)  # past any __slots__ or __setattr__: every exception has this dict
    if "point" not in attributes and not hasattr(type(error), "point"):
        attributes["point"] = dict(zip(variables.names, (*x, *chosen)))
    notes = [] if place in str(error) else [f"at {place}"]
    if isinstance(error, (TypeError, AttributeError)) and form in ("tuple", "list"):
        if f"{form} indices must be" in str(error):
            notes.append(f"the point is a {form}; with point='mapping' it has values by name")
        elif "numpy" in sys.modules and f"'{form}'" in str(error):
            notes.append(f"the point is a {form}; with point='array' it is a NumPy array")
    if notes:
        attributes["__notes__"] = [*attributes.get("__notes__", ()), *notes]
        if sys.version_info < (3, 11) and error.__cause__ is None:
            # As of the class: the exception may refuse to have attributes set.
            vars(BaseException)["__cause__"].__set__(error, _Note("\n".join(notes)))
    return place
