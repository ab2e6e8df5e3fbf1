# SPDX-License-Identifier: MIT
"""`minimize` as a custom method of `scipy.optimize.minimize`."""

from __future__ import annotations

from importlib import import_module
from inspect import signature
from typing import Any, Callable, Optional

from ._minimize import execute
from ._plan import Plan, require_arguments
from ._variables import declare


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

    The search is global and deterministic: `bounds` are required, and `x0`, clipped to them, is
    only the first point evaluated. ``options`` are keyword arguments of `Quenloft.minimize`; of
    SciPy's own, ``maxiter`` and ``maxfev`` are its `maxfun` (the smaller one), and ``disp`` prints
    the message. `tol` is its `min_radius`. Derivatives are ignored. Points are arrays.

    Returns
    -------
    scipy.optimize.OptimizeResult
        With all the fields of `Quenloft.OptimizeResult`.
    """
    if bounds is None:
        raise ValueError("Quenloft.scipy_method needs bounds: its search is global")
    for derivative in ("jac", "hess", "hessp"):
        options.pop(derivative, None)
    shows_message = options.pop("disp", False)
    budgets = [options.pop(name, None) for name in ("maxiter", "maxfev", "maxfun")]
    given = {
        "point": "array",
        "min_radius": tol,
        "maxfun": min((budget for budget in budgets if budget is not None), default=None),
        **options,
    }
    require_arguments({"fun": fun, "bounds": bounds, **given}, "Quenloft.scipy_method", "option")
    variables = declare(bounds, given.get("logarithmic", ()), (), None)
    numpy = import_module("numpy")
    if variables.dimension != numpy.size(x0):
        raise ValueError(f"x0 must hold {variables.dimension} values, one for each bound")
    if not any(number.count for number in variables.numbers):
        given.setdefault("x0", numpy.clip(numpy.ravel(x0), variables.lower, variables.upper))
    adapted = _adapted(callback)
    result = execute(Plan(fun, bounds, args, constraints=constraints, callback=adapted, **given))
    if shows_message:
        print(result.message)
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
