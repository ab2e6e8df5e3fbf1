# SPDX-License-Identifier: MIT
"""One evaluation of a problem at one point, in the caller's terms."""

from __future__ import annotations

import math
from typing import Any, Callable, NamedTuple, Sequence, Tuple

from ._constraints import Constraint, declare
from ._errors import NonFiniteError

#: Makes the point that the caller's functions are given; a tuple needs no copy, nobody changes it.
Form = Callable[[Tuple[float, ...]], Any]


#: What an evaluation gave: the first violated constraint, or the goal when all hold; the value
#: there; the values of the constraints up to the last that was evaluated; the objective, NaN where
#: it was not evaluated.
Outcome = Tuple[int, float, Sequence[float], float]
Observe = Callable[[Tuple[float, ...], Tuple[int, ...]], Outcome]


class Entry(NamedTuple):
    """An evaluation that was made; `phase` is "search", or "ahead" where no one waited for it."""

    phase: str
    x: tuple[float, ...]
    category: tuple[int, ...]
    outcome: Outcome
    time: float


def point_form(name: str) -> Form:
    """The constructor of the points that the caller asked for."""
    if name == "tuple":
        return tuple
    if name == "list":
        return list
    import numpy

    return numpy.array


class Evaluation:
    """The problem as what is called at a point; it can be sent to other processes.

    ``evaluation(x, category)`` evaluates constraints and objective in order, up to a constraint that
    guards the others and is violated, and returns an `Outcome`. With `is_hidden`, points at which a
    function is not finite are infeasible: "the objective is finite" is one more constraint after
    the caller's. What is not finite behind a violated constraint does not matter.
    """

    def __init__(
        self,
        fun: Callable[..., Any],
        args: tuple[Any, ...],
        choices: tuple[tuple[Any, ...], ...],
        constraints: tuple[Any, ...],
        point: str,
        is_hidden: bool,
        dimension: int,
    ) -> None:
        self._arguments = fun, args, choices, constraints, point, is_hidden, dimension
        form = point_form(point)
        limits = declare(constraints, form, dimension, bool(choices))
        self.observe: Observe = _observer(fun, args, choices, limits, form, is_hidden)

    def __call__(self, x: tuple[float, ...], category: tuple[int, ...]) -> Outcome:
        return self.observe(x, category)

    def __reduce__(self) -> Any:
        return type(self), self._arguments


def _observer(
    fun: Callable[..., Any],
    args: tuple[Any, ...],
    choices: tuple[tuple[Any, ...], ...],
    constraints: tuple[Constraint, ...],
    form: Form,
    is_hidden: bool,
) -> Observe:
    goal = len(constraints) + is_hidden
    own = [constraint for constraint in constraints if constraint.evaluate is not None]
    together = len(constraints) - len(own)
    isfinite = math.isfinite

    def objective(x: tuple[float, ...], chosen: tuple[Any, ...]) -> tuple[float, list[float]]:
        value = fun(form(x), chosen, *args) if choices else fun(form(x), *args)
        if together:
            return _split(value, together, x, chosen, is_hidden)
        return value if type(value) is float else as_number("fun", value, x, chosen), []

    def observe(x: tuple[float, ...], category: tuple[int, ...]) -> Outcome:
        chosen = tuple([c[i] for c, i in zip(choices, category)]) if choices else ()
        values: list[float] = []
        fun_value = math.nan
        for constraint in own:
            value = constraint.evaluate(x, chosen)  # type: ignore[misc]
            if type(value) is not float:
                value = as_number(constraint.name, value, x, chosen)
            values.append(value)
            if constraint.guards and not value <= 0.0:
                break
        else:
            fun_value, more = objective(x, chosen)
            values += more
        for number, value in enumerate(values):
            # Minus infinity holds: the logarithm of a slack of zero, for one.
            if not value <= 0.0:
                if not (isfinite(value) or is_hidden):
                    raise NonFiniteError(constraints[number].name, value, x, chosen)
                return number, value, values, fun_value
        if isfinite(fun_value):
            return goal, fun_value, values, fun_value
        if not is_hidden:
            raise NonFiniteError("fun", fun_value, x, chosen)
        return goal - 1, fun_value, values, fun_value

    def observe_objective(x: tuple[float, ...], category: tuple[int, ...]) -> Outcome:
        # The same for the commonest case, without its preparations.
        value = fun(form(x), *args)
        if type(value) is not float:
            value = as_number("fun", value, x, ())
        if isfinite(value):
            return 0, value, (), value
        raise NonFiniteError("fun", value, x)

    return observe if constraints or choices or is_hidden else observe_objective


def _split(
    answer: Any, count: int, x: tuple[float, ...], chosen: tuple[Any, ...], is_hidden: bool
) -> tuple[float, list[float]]:
    """Objective and constraints, which `fun` returned together."""
    if isinstance(answer, float) and not math.isfinite(answer):
        # What has failed as a whole.
        if not is_hidden:
            raise NonFiniteError("fun", answer, x, chosen)
        return math.nan, [math.nan] * count
    try:
        value, limits = answer
        limits = list(limits)
    except (TypeError, ValueError):
        limits = []
    if len(limits) != count:
        raise TypeError(
            f"fun must return (value, constraints) with {count} constraint values, not "
            f"{_shown(answer)} at {_place(x, chosen)}"
        )
    names = (f"constraint {i} of fun" for i in range(count))
    return as_number("fun", value, x, chosen), [
        as_number(name, limit, x, chosen) for name, limit in zip(names, limits)
    ]


def as_number(source: str, value: Any, x: Sequence[float], chosen: Sequence[Any]) -> float:
    """The number that a function returned: a float, or an array of one element.

    Raises
    ------
    TypeError
        With the function and the point.
    """
    number = value.item() if getattr(value, "size", None) == 1 else value
    try:
        if not isinstance(number, (str, bytes, bytearray)):
            return float(number)
    except (TypeError, ValueError):
        pass
    except OverflowError:
        return math.inf if number > 0 else -math.inf
    raise TypeError(f"{source} must return a number, not {_shown(value)} at {_place(x, chosen)}")


def _shown(value: Any) -> str:
    shown = repr(value)
    return shown if len(shown) <= 60 else shown[:57] + "..."


def _place(x: Sequence[float], chosen: Sequence[Any]) -> str:
    return f"x = {tuple(x)}" + (f", categories = {tuple(chosen)}" if chosen else "")
