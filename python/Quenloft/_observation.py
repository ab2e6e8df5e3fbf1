# SPDX-License-Identifier: MIT
"""One evaluation of a problem at one point, in the caller's terms."""

from __future__ import annotations

import math
from typing import Any, Callable, NamedTuple, Sequence, Tuple, Union

from ._constraints import Constraint, declare
from ._errors import NonFiniteError
from ._variables import Variables

#: The positional arguments of the caller's functions, for a point and the chosen objects.
Arguments = Callable[[Tuple[float, ...], Tuple[Any, ...]], Tuple[Any, ...]]

#: What an evaluation gave: the first violated constraint, or the goal when all hold; the value
#: there; the values of the constraints up to the last that was evaluated; the objective, NaN where
#: it was not evaluated.
Outcome = Tuple[int, float, Sequence[float], float]
Observe = Callable[[Tuple[float, ...], Tuple[int, ...]], Union[Outcome, "Failure"]]


class Entry(NamedTuple):
    """An evaluation that was made; `phase` is "search", or "ahead" where no one waited for it."""

    phase: str
    x: tuple[float, ...]
    category: tuple[int, ...]
    outcome: Outcome
    time: float
    #: Text of the exception that was caught, if one was.
    error: str = ""


class Failure(NamedTuple):
    """An evaluation that raised an exception which the caller wants caught."""

    outcome: Outcome
    error: str


class Evaluation:
    """The problem as what is called at a point; it can be sent to other processes.

    ``evaluation(x, category)`` evaluates constraints and objective in order, up to a constraint that
    guards the others and is violated, and returns an `Outcome`. With `is_hidden` points at which a
    function is not finite are infeasible: "the objective is finite" is one more constraint after
    the caller's. What is not finite behind a violated constraint does not matter. Where a function
    raises one of the exceptions `catch` it is the first constraint not known to hold that is
    violated, by NaN, and the outcome comes in a `Failure`.
    """

    def __init__(
        self,
        fun: Callable[..., Any],
        args: tuple[Any, ...],
        variables: Variables,
        constraints: tuple[Any, ...],
        point: str,
        is_hidden: bool,
        catch: tuple[type[BaseException], ...] = (),
    ) -> None:
        self._arguments = fun, args, variables, constraints, point, is_hidden, catch
        arguments = variables.arguments(point)
        limits = declare(constraints, arguments, variables.dimension)
        if limits or variables.choices or is_hidden or catch or point != "tuple":
            self.observe: Observe = _observer(
                fun, args, variables, limits, arguments, is_hidden, catch
            )
        else:
            self.observe = _simple_observer(fun, args)

    def __call__(self, x: tuple[float, ...], category: tuple[int, ...]) -> Union[Outcome, Failure]:
        return self.observe(x, category)

    def __reduce__(self) -> Any:
        return type(self), self._arguments


def _observer(
    fun: Callable[..., Any],
    args: tuple[Any, ...],
    variables: Variables,
    constraints: tuple[Constraint, ...],
    arguments: Arguments,
    is_hidden: bool,
    catch: tuple[type[BaseException], ...],
) -> Observe:
    goal = len(constraints) + (is_hidden or bool(catch))
    own = [constraint for constraint in constraints if constraint.evaluate is not None]
    together = len(constraints) - len(own)
    chosen_at = variables.chosen
    isfinite = math.isfinite

    def read(answer: Any, x: tuple[float, ...], chosen: tuple[Any, ...]) -> Any:
        if together:
            return _split(answer, together, x, chosen, is_hidden)
        return answer if type(answer) is float else as_number("fun", answer, x, chosen), []

    def observe(x: tuple[float, ...], category: tuple[int, ...]) -> Union[Outcome, Failure]:
        chosen = chosen_at(category) if category else ()
        values: list[float] = []
        fun_value = math.nan
        failure = ""
        for constraint in own:
            try:
                value = constraint.evaluate(x, chosen)  # type: ignore[misc]
            except catch as error:
                failure = text_of(error)
                break
            if type(value) is not float:
                value = as_violation(constraint.name, value, x, chosen)
            values.append(value)
            if constraint.guards and not value <= 0.0:
                break
        else:
            try:
                answer = fun(*arguments(x, chosen), *args)
            except catch as error:
                failure = text_of(error)
            else:
                fun_value, more = read(answer, x, chosen)
                values += more
        for number, value in enumerate(values):
            # Minus infinity holds: the logarithm of a slack of zero, for one.
            if not value <= 0.0:
                if not (isfinite(value) or is_hidden):
                    raise NonFiniteError(constraints[number].name, value, x, chosen)
                return _with(failure, (number, value, values, fun_value))
        if isfinite(fun_value):
            return goal, fun_value, values, fun_value
        if failure:
            return _with(failure, (min(len(values), goal - 1), math.nan, values, math.nan))
        if not is_hidden:
            raise NonFiniteError("fun", fun_value, x, chosen)
        return goal - 1, fun_value, values, fun_value

    return observe


def _simple_observer(fun: Callable[..., Any], args: tuple[Any, ...]) -> Observe:
    """The same for the commonest case, without its preparations."""
    isfinite = math.isfinite

    def observe(x: tuple[float, ...], category: tuple[int, ...]) -> Outcome:
        value = fun(x, *args)
        if type(value) is not float:
            value = as_number("fun", value, x, ())
        if isfinite(value):
            return 0, value, (), value
        raise NonFiniteError("fun", value, x)

    return observe


def _with(failure: str, outcome: Outcome) -> Union[Outcome, Failure]:
    return Failure(outcome, failure) if failure else outcome


def text_of(error: BaseException) -> str:
    """An exception in one line."""
    return " ".join(f"{type(error).__name__}: {error}".split())


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
        as_violation(name, limit, x, chosen) for name, limit in zip(names, limits)
    ]


def as_violation(source: str, value: Any, x: Sequence[float], chosen: Sequence[Any]) -> float:
    """The number that a constraint returned; `as_number` for others.

    Raises
    ------
    TypeError
        With the constraint and the point. A truth value is none: False would be 0, which holds.
    """
    number = value.item() if getattr(value, "size", None) == 1 else value
    if not isinstance(number, bool):
        return as_number(source, value, x, chosen)
    raise TypeError(
        f"{source} returned {number}, which does not say how far the point is from satisfying it: "
        f"return a number that is <= 0 where it holds (x[0] - 1 for x[0] <= 1), at "
        f"{_place(x, chosen)}"
    )


def as_number(source: str, value: Any, x: Sequence[float], chosen: Sequence[Any]) -> float:
    """The number that a function returned: a float, or an array of one element.

    Raises
    ------
    TypeError
        With the function and the point.
    """
    number = value.item() if getattr(value, "size", None) == 1 else value
    if type(value).__module__.startswith("numpy.ma") and number is not value and value.mask:
        return math.nan  # whatever lies under the mask
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
