# SPDX-License-Identifier: MIT
"""`minimize` as a custom method of `scipy.optimize.minimize`."""

from __future__ import annotations

from importlib import import_module
from inspect import signature
from typing import Any, Callable, Optional

from ._minimize import execute
from ._plan import Plan


def scipy_method(
    fun: Callable[..., Any],
    x0: Any,
    args: Any = (),
    *,
    bounds: Any = None,
    constraints: Any = (),
    callback: Optional[Callable[[Any], Any]] = None,
    tol: Optional[float] = None,
    **options: Any,
) -> Any:
    """For ``scipy.optimize.minimize(fun, x0, bounds=..., method=Quenloft.scipy_method)``.

    The search is global and deterministic: `bounds` are required, and of `x0` only the length
    matters. ``options`` are keyword arguments of `Quenloft.minimize`; `tol` is its `min_radius`.
    Derivatives are ignored. Points are arrays.

    Returns
    -------
    scipy.optimize.OptimizeResult
        With all the fields of `Quenloft.OptimizeResult`.
    """
    if bounds is None:
        raise ValueError("Quenloft.scipy_method needs bounds: its search is global")
    for derivative in ("jac", "hess", "hessp"):
        options.pop(derivative, None)
    options.setdefault("point", "array")
    if tol is not None:
        options.setdefault("min_radius", tol)
    plan = Plan(fun, bounds, args, constraints=constraints, callback=_adapted(callback), **options)
    if plan.variables.dimension != import_module("numpy").size(x0):
        raise ValueError(f"x0 must hold {plan.variables.dimension} values, one for each bound")
    result = execute(plan)
    return import_module("scipy.optimize").OptimizeResult(result)


def _adapted(callback: Optional[Callable[..., Any]]) -> Optional[Callable[..., Any]]:
    """SciPy's two kinds of callback: one that names its parameter so, and one of the point."""
    if callback is None:
        return None
    call = callback
    try:
        is_new = set(signature(call).parameters) == {"intermediate_result"}
    except (TypeError, ValueError):
        is_new = False
    scipy_result = import_module("scipy.optimize").OptimizeResult
    if is_new:
        return lambda result: call(intermediate_result=scipy_result(result))
    return lambda result: call(result.x)
