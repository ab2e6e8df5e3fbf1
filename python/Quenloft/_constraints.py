# SPDX-License-Identifier: MIT
"""Constraints in all the forms that `minimize` takes, made one: feasible when <= 0."""

from __future__ import annotations

from dataclasses import dataclass
from numbers import Integral
from typing import Any, Callable, Optional

from ._settings import whole_number

# Each has a copy of the engine's lists, for each combination of categories.
_MOST_TOGETHER = 10_000


@dataclass(frozen=True)
class Constraint:
    """A constraint under the name that messages use.

    ``evaluate(x, chosen)`` takes the point as a tuple and the chosen objects; what it returns has
    still to be checked. None where the objective returns the value beside its own. `source` is what
    the caller gave; where it `guards`, nothing after it is called at a point that violates it.
    """

    name: str
    source: Any
    evaluate: Optional[Callable[[tuple[float, ...], tuple[Any, ...]], Any]]
    guards: bool


def declare(
    constraints: Any,
    arguments: Callable[[tuple[float, ...], tuple[Any, ...]], tuple[Any, ...]],
    dimension: int,
) -> tuple[Constraint, ...]:
    """Check the caller's constraints.

    Parameters
    ----------
    constraints : callable, object, or sequence
        See `minimize`.
    arguments : callable
        Makes what plain callables are given, of a point and the chosen objects.
    dimension : int
        Number of real variables.

    Raises
    ------
    TypeError, ValueError
        With the position of the constraint at fault.
    """
    if constraints is None:
        return ()
    is_one = callable(constraints) or isinstance(constraints, (dict, Integral))
    if is_one or _has_limits(constraints):
        constraints = [constraints]
    try:
        items = list(constraints)
    except TypeError:
        raise TypeError(
            f"constraints must be a callable or a sequence of them, not {constraints!r}"
        ) from None
    count = 0
    while items and isinstance(items[-1], Integral) and not isinstance(items[-1], bool):
        count += whole_number("the number of constraints that fun returns", items.pop(), 1)
    if count > _MOST_TOGETHER:
        raise ValueError(f"fun may return at most {_MOST_TOGETHER} constraints, not {count}")
    own = [
        _constraint(f"constraints[{i}]", item, arguments, dimension) for i, item in enumerate(items)
    ]
    together = range(len(own), len(own) + count)
    return (*own, *(Constraint(f"constraints[{i}] of fun", 1, None, False) for i in together))


def _has_limits(item: Any) -> bool:
    return hasattr(item, "lb") and hasattr(item, "ub")


def _constraint(
    label: str,
    item: Any,
    arguments: Callable[[tuple[float, ...], tuple[Any, ...]], tuple[Any, ...]],
    dimension: int,
) -> Constraint:
    if isinstance(item, dict):
        return _from_dict(label, item)
    if _has_limits(item):
        return _from_limits(label, item, dimension)
    if not callable(item):
        rule = "a callable, a constraint object or a dict; the last, how many fun returns"
        raise TypeError(f"{label} must be {rule}; not {item!r}")
    name = f"{label} ({getattr(item, '__name__', type(item).__name__)})"
    guards = getattr(item, "keep_feasible", True) is not False
    return Constraint(name, item, lambda x, chosen: item(*arguments(x, chosen)), guards)


def _from_dict(label: str, item: dict[str, Any]) -> Constraint:
    kind = item.get("type")
    if kind != "ineq":
        raise ValueError(_equality(label) if kind == "eq" else f"{label} has the type {kind!r}")
    fun = item.get("fun")
    if not callable(fun):
        raise TypeError(f"{label}['fun'] must be a callable, not {fun!r}")
    args = item.get("args", ())
    import numpy

    # This form is feasible where fun >= 0, in every component, and guards nothing.
    return Constraint(label, item, lambda x, chosen: -numpy.min(fun(numpy.array(x), *args)), False)


def _from_limits(label: str, item: Any, dimension: int) -> Constraint:
    import numpy

    lower = numpy.asarray(item.lb, dtype=float)
    upper = numpy.asarray(item.ub, dtype=float)
    if numpy.any(lower > upper):
        raise ValueError(f"{label} has a lower limit above the upper one")
    if numpy.any(lower == upper):
        raise ValueError(_equality(label))
    if hasattr(item, "A"):
        matrix = item.A if hasattr(item.A, "dot") else numpy.atleast_2d(item.A)
        if matrix.shape[-1] != dimension:
            raise ValueError(
                f"{label} is for {matrix.shape[-1]} variables; the problem has {dimension}"
            )
        function = matrix.dot
    elif callable(getattr(item, "fun", None)):
        function = item.fun
    else:
        raise TypeError(f"{label} has limits, but neither a matrix A nor a callable fun")

    def violation(x: tuple[float, ...], chosen: tuple[Any, ...]) -> Any:
        values = function(numpy.array(x))
        return numpy.max(numpy.maximum(lower - values, values - upper))

    guards = bool(numpy.any(getattr(item, "keep_feasible", False)))
    return Constraint(label, item, violation, guards)


def _equality(label: str) -> str:
    return (
        f"{label} is an equality, which no sampled point satisfies exactly; "
        "give it two limits, or eliminate a variable"
    )
