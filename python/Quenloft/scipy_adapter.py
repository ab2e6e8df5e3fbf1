# SPDX-License-Identifier: MIT
"""`minimize` as a custom method of `scipy.optimize.minimize`."""

from __future__ import annotations

from typing import Any, Callable, Optional, Sequence


def scipy_method(
    fun: Callable[..., Any],
    x0: Any,
    args: Sequence[Any] = (),
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
    raise NotImplementedError
