# SPDX-License-Identifier: MIT
"""Constraints in all the forms that `minimize` takes, made one: feasible when <= 0."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any, Callable


@dataclass(frozen=True)
class Constraint:
    """A constraint under the name that messages use.

    ``evaluate(x, chosen)`` takes the point as a tuple and the chosen objects; what it returns has
    still to be checked. `source` is what the caller gave.
    """

    name: str
    source: Any
    evaluate: Callable[[tuple[float, ...], tuple[Any, ...]], Any]


def declare(
    constraints: Any, form: Callable[[tuple[float, ...]], Any], dimension: int, categorical: bool
) -> tuple[Constraint, ...]:
    """Check the caller's constraints.

    Parameters
    ----------
    constraints : callable, object, or sequence
        See `minimize`.
    form : callable
        Makes the point that plain callables are given.
    dimension : int
        Number of real variables.
    categorical : bool
        Whether plain callables are given the choices too.

    Raises
    ------
    TypeError, ValueError
        With the position of the constraint at fault.
    """
    if constraints is None:
        return ()
    if callable(constraints) or isinstance(constraints, dict) or _has_limits(constraints):
        constraints = [constraints]
    try:
        items = list(constraints)
    except TypeError:
        raise TypeError(
            f"constraints must be a callable or a sequence of them, not {constraints!r}"
        ) from None
    return tuple(
        _constraint(f"constraints[{i}]", item, form, dimension, categorical)
        for i, item in enumerate(items)
    )


def _has_limits(item: Any) -> bool:
    return hasattr(item, "lb") and hasattr(item, "ub")


def _constraint(
    label: str,
    item: Any,
    form: Callable[[tuple[float, ...]], Any],
    dimension: int,
    categorical: bool,
) -> Constraint:
    if isinstance(item, dict):
        return _from_dict(label, item)
    if _has_limits(item):
        return _from_limits(label, item, dimension)
    if not callable(item):
        raise TypeError(f"{label} must be a callable, a constraint object or a dict, not {item!r}")
    name = f"{label} ({getattr(item, '__name__', type(item).__name__)})"
    if categorical:
        return Constraint(name, item, lambda x, chosen: item(form(x), chosen))
    return Constraint(name, item, lambda x, chosen: item(form(x)))


def _from_dict(label: str, item: dict[str, Any]) -> Constraint:
    kind = item.get("type")
    if kind != "ineq":
        raise ValueError(_equality(label) if kind == "eq" else f"{label} has the type {kind!r}")
    fun = item.get("fun")
    if not callable(fun):
        raise TypeError(f"{label}['fun'] must be a callable, not {fun!r}")
    args = item.get("args", ())
    import numpy

    # This form is feasible where fun >= 0, in every component.
    return Constraint(label, item, lambda x, chosen: -numpy.min(fun(numpy.array(x), *args)))


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

    return Constraint(label, item, violation)


def _equality(label: str) -> str:
    return (
        f"{label} is an equality, which no sampled point satisfies exactly; "
        "give it two limits, or eliminate a variable"
    )
