# SPDX-License-Identifier: MIT
"""The methods that are compared, each known by an identifier.

``quenloft`` is the search at its defaults, ``quenloft-plain`` the search without local models, and
``quenloft:overestimation=3,local_vs_global=1`` the search with settings. The peers are used as
their manuals recommend, with every rule that could stop them before the budget is used up turned
off. Each is stopped at a solved function in the way that it allows.
"""

from __future__ import annotations

import contextlib
import importlib
from typing import Any, Callable

import Quenloft
from sweep.nlopt_import import import_nlopt

from .functions import FunctionClass, Objective

OWN = "quenloft"
PLAIN = "quenloft-plain"
_OWN_LABELS = {OWN: "Quenloft", PLAIN: "Quenloft without local models"}
Settings = dict[str, Any]


def settings_of(method: str) -> Settings:
    """The keywords of `Quenloft.Search` in an identifier of our own method."""
    name, _, text = method.partition(":")
    settings: Settings = {"local_models": False} if name == PLAIN else {}
    for item in filter(None, text.split(",")):
        name, equals, value = item.partition("=")
        if not equals:
            raise ValueError(f"{item!r} in {method!r} is not of the form name=value")
        settings[name.strip()] = float(value)
    return settings


def _quenloft(
    function_class: FunctionClass, number: int, budget: int, settings: Settings
) -> Objective:
    objective = Objective(function_class, number, budget, lambda: 0.0)
    search = Quenloft.Search(function_class.bounds, **settings)
    while objective.solved_at is None and objective.count < budget:
        (point,) = search.ask()
        search.tell(point, objective(point.x))
    return objective


def _scipy_direct(
    function_class: FunctionClass, number: int, budget: int, locally_biased: bool
) -> Objective:
    from scipy.optimize import direct

    # An exception does not end it. Reaching the minimum that it is told does, after the
    # iteration under way.
    told_minimum = -1e100
    objective = Objective(function_class, number, budget, lambda: told_minimum)
    direct(
        lambda x: objective(x.tolist()),
        function_class.bounds,
        locally_biased=locally_biased,
        maxfun=budget,
        maxiter=budget,
        vol_tol=0.0,
        len_tol=0.0,
        f_min=told_minimum,
        f_min_rtol=0.0,
    )
    return objective


def _nlopt(function_class: FunctionClass, number: int, budget: int, algorithm: str) -> Objective:
    import nlopt

    dimension = function_class.dimension
    nlopt.srand(number)
    search = nlopt.opt(getattr(nlopt, algorithm), dimension)

    def stop() -> float:
        # Not an exception: GN_CRS2_LM calls again after one among its first points, and crashes.
        search.force_stop()
        return 0.0

    objective = Objective(function_class, number, budget, stop)
    bounds = function_class.bounds
    if algorithm == "G_MLSL_LDS":
        local = nlopt.opt(nlopt.LN_BOBYQA, dimension)
        local.set_xtol_abs(MLSL_LOCAL_TOLERANCE)
        search.set_local_optimizer(local)
    search.set_lower_bounds([lower for lower, _ in bounds])
    search.set_upper_bounds([upper for _, upper in bounds])
    search.set_maxeval(budget)
    search.set_min_objective(lambda x, gradient: objective(x.tolist()))
    with contextlib.suppress(nlopt.ForcedStop):
        search.optimize([0.5 * (lower + upper) for lower, upper in bounds])
    return objective


# The local searches of MLSL end when they move less than this in each coordinate. Of 1e-2, 1e-3
# and 1e-4 it needed the fewest trials on most of the classes.
MLSL_LOCAL_TOLERANCE = 1e-3

# Trials that a method is given at most, whatever the class's budget. The time that MLSL takes for
# a trial grows with their number: 20,000 trials take it seconds, 100,000 many minutes.
MOST_TRIALS = {"nlopt-mlsl-lds": 25_000}

# Identifier: name, function, its last argument.
_PEERS: dict[str, tuple[str, Callable[..., Objective], object]] = {
    "scipy-direct": ("SciPy direct", _scipy_direct, False),
    "scipy-direct-l": ("SciPy direct, locally biased", _scipy_direct, True),
    "nlopt-direct-l": ("NLopt GN_DIRECT_L", _nlopt, "GN_DIRECT_L"),
    "nlopt-crs2-lm": ("NLopt GN_CRS2_LM", _nlopt, "GN_CRS2_LM"),
    "nlopt-mlsl-lds": ("NLopt G_MLSL_LDS + LN_BOBYQA", _nlopt, "G_MLSL_LDS"),
}
PEERS = tuple(_PEERS)


def label(method: str) -> str:
    """The method's name in tables and plots."""
    if method in _PEERS:
        return _PEERS[method][0]
    settings = settings_of(method)
    settings.pop("local_models", None)
    return _OWN_LABELS[method.partition(":")[0]] + "".join(
        f", {name} {value:g}" for name, value in settings.items()
    )


def check(method: str) -> str:
    """The identifier itself, if there is such a method; else raises ValueError."""
    if method not in _PEERS:
        if method.partition(":")[0] not in _OWN_LABELS:
            known = ", ".join((*_OWN_LABELS, *PEERS))
            raise ValueError(f"no method {method!r}; there are {known}")
        settings_of(method)
    return method


def prepare(method: str) -> None:
    """Import what the method needs, which is not to be counted as its time."""
    if method.startswith("scipy"):
        importlib.import_module("scipy.optimize")
    elif method.startswith("nlopt"):
        import_nlopt()


def minimise(method: str, function_class: FunctionClass, number: int, budget: int) -> Objective:
    """Run a method until the function is solved or the budget used up.

    The functions' numbers seed the random methods.
    """
    if method not in _PEERS:
        return _quenloft(function_class, number, budget, settings_of(method))
    _, search, argument = _PEERS[method]
    return search(function_class, number, budget, argument)
