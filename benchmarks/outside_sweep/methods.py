# SPDX-License-Identifier: MIT
"""The methods that are compared, each known by an identifier.

``quenloft`` is `Quenloft.minimize` as it is, ``quenloft-plain`` without its local models;
``quenloft:overestimation=3,batch=8`` passes options on. The peers are used as their manuals
recommend, with a fine tolerance, and started again from another random point when they end before
the budget. Methods of the box alone get a category as one more variable that is rounded down.
"""

from __future__ import annotations

import ast
import hashlib
import importlib
import inspect
import random
import warnings
from dataclasses import dataclass
from functools import cache
from pathlib import Path
from typing import Any, Callable

from outside_problems import Problem
from sweep import provenance
from sweep.nlopt_import import import_nlopt

from .recorder import BudgetUsed, Recorder

OWN = "quenloft"
Options = dict[str, Any]

# ---- Our own


def options_of(method: str) -> Options:
    """The keywords of `Quenloft.minimize` in an identifier of our own method."""
    name, _, text = method.partition(":")
    options: Options = {}
    if name == "quenloft-plain" and "local_models" in _own_parameters():
        options["local_models"] = False
    for item in filter(None, text.split(",")):
        key, equals, value = item.partition("=")
        if not equals:
            raise ValueError(f"{item!r} in {method!r} is not of the form name=value")
        options[key.strip()] = ast.literal_eval(value.strip())
    return options


@cache
def _own_parameters() -> frozenset[str]:
    import Quenloft

    return frozenset(inspect.signature(Quenloft.minimize).parameters)


@cache
def _own_version() -> str:
    """The version and a digest of what is installed, as work on it does not change the first."""
    import _Quenloft
    import Quenloft

    package = Path(Quenloft.__file__).parent
    files = [
        Path(_Quenloft.__file__),
        *(p for p in package.rglob("*") if p.suffix in (".py", ".so")),
    ]
    digest = hashlib.sha256()
    for file in sorted(files):
        digest.update(file.read_bytes())
    return f"{provenance.version('Quenloft')}+{digest.hexdigest()[:8]}"


def _quenloft(recorder: Recorder, seed: int, method: str) -> None:
    import Quenloft

    problem = recorder.problem
    options = options_of(method)
    if problem.categories:
        options["categories"] = problem.categories
    function: Callable[..., Any] = recorder
    if problem.constraints is not None:
        # One evaluation gives the objective and all of them.
        function = recorder.evaluate
        options["constraints"] = len(problem.constraints(problem.minimizer))
    Quenloft.minimize(function, problem.bounds, maxfun=recorder.budget, **options)


# ---- The box that the peers see


class Box:
    """The problem with its categories as further variables, for methods that know none.

    Called with an array of values of all variables.
    """

    def __init__(self, recorder: Recorder) -> None:
        problem = recorder.problem
        self.recorder = recorder
        self.reals = problem.dimension
        self.bounds = [*problem.bounds, *((0.0, float(len(c))) for c in problem.categories)]
        self.lower = [lower for lower, _ in self.bounds]
        self.upper = [upper for _, upper in self.bounds]
        self.dimension = len(self.bounds)

    def __call__(self, x: Any) -> float:
        values = x.tolist() if hasattr(x, "tolist") else list(x)
        categories = self.recorder.problem.categories
        if not categories:
            return self.recorder(values)
        choices = tuple(
            names[min(max(int(v), 0), len(names) - 1)]
            for names, v in zip(categories, values[self.reals :])
        )
        return self.recorder(values[: self.reals], choices)

    def centre(self) -> list[float]:
        return [0.5 * (lower + upper) for lower, upper in self.bounds]

    def random_point(self, generator: random.Random) -> list[float]:
        return [generator.uniform(lower, upper) for lower, upper in self.bounds]


class UnitBox(Box):
    """The same on the unit cube, for methods whose steps are absolute."""

    def __init__(self, recorder: Recorder) -> None:
        super().__init__(recorder)
        self._bounds = self.bounds
        self.bounds = [(0.0, 1.0)] * self.dimension

    def point(self, x: Any) -> list[float]:
        return [lo + t * (up - lo) for t, (lo, up) in zip(x, self._bounds)]

    def __call__(self, x: Any) -> float:
        return super().__call__(self.point(x))


def _generator(recorder: Recorder, seed: int) -> random.Random:
    return random.Random(f"{recorder.problem.name}/{seed}")


# ---- SciPy


def _scipy_direct(recorder: Recorder, seed: int, locally_biased: bool) -> None:
    from scipy.optimize import direct

    box = Box(recorder)

    def objective(x: Any) -> float:
        # An exception does not end it. Reaching the minimum that it is told does, after the
        # iteration under way.
        try:
            return box(x)
        except BudgetUsed:
            return -1e300

    direct(
        objective,
        box.bounds,
        locally_biased=locally_biased,
        maxfun=10 * recorder.budget,
        maxiter=10 * recorder.budget,
        vol_tol=0.0,
        len_tol=0.0,
        f_min=-1e300,
        f_min_rtol=0.0,
    )


def _scipy_dual_annealing(recorder: Recorder, seed: int, _: object) -> None:
    from scipy.optimize import dual_annealing

    box, generator = Box(recorder), _generator(recorder, seed)
    while True:
        dual_annealing(box, box.bounds, seed=generator.getrandbits(32), maxfun=10**9)


def _scipy_differential_evolution(recorder: Recorder, seed: int, _: object) -> None:
    from scipy.optimize import NonlinearConstraint, differential_evolution

    box, generator = Box(recorder), _generator(recorder, seed)
    options: Options = {}
    if recorder.problem.categories:
        # Its integers include both bounds.
        count = len(recorder.problem.categories)
        options["integrality"] = [False] * box.reals + [True] * count
        box.bounds[box.reals :] = [(0.0, up - 1.0) for up in box.upper[box.reals :]]
    if recorder.problem.constraints is not None:
        options["constraints"] = NonlinearConstraint(
            lambda x: recorder.violations(x.tolist()), -float("inf"), 0.0
        )
    while True:
        differential_evolution(box, box.bounds, seed=generator.getrandbits(32), **options)


def _scipy_shgo(recorder: Recorder, seed: int, _: object) -> None:
    from scipy.optimize import shgo

    box = Box(recorder)
    options: Options = {}
    if recorder.problem.constraints is not None:
        options["constraints"] = {"type": "ineq", "fun": _at_least_zero(recorder)}
    # Of 1, 8 and 32 new points a turn 8 did best on classical functions.
    points = 8
    # Each turn adds points and searches from the new minima among them. Sobol points would have
    # to be triangulated, which takes hours in ten dimensions.
    shgo(box, box.bounds, n=points, iters=10**6, sampling_method="simplicial", **options)


def _at_least_zero(recorder: Recorder) -> Callable[[Any], Any]:
    import numpy

    return lambda x: -numpy.array(recorder.violations(x.tolist()))


def _scipy_local(recorder: Recorder, seed: int, method: str) -> None:
    """Multistart of a local method for constraints, on the unit cube."""
    import numpy
    from scipy.optimize import minimize

    box, generator = UnitBox(recorder), _generator(recorder, seed)

    def margins(x: Any) -> Any:
        return -numpy.array(recorder.violations(box.point(x)))

    constraint = {"type": "ineq", "fun": margins}
    while recorder.count < recorder.budget:
        # COBYLA is given what is left: it complains aloud when an exception ends it.
        options: Options = {"ftol": 1e-12, "maxiter": 10**6}
        if method == "COBYLA":
            options = {"rhobeg": 0.2, "tol": 1e-9, "maxiter": recorder.budget - recorder.count}
        minimize(
            box,
            box.random_point(generator),
            method=method,
            bounds=box.bounds,
            constraints=constraint,
            options=options,
        )


def _cobyqa(recorder: Recorder, seed: int, _: object) -> None:
    from cobyqa import minimize
    from scipy.optimize import NonlinearConstraint

    box, generator = UnitBox(recorder), _generator(recorder, seed)
    constraints: tuple[Any, ...] = ()
    if recorder.problem.constraints is not None:
        constraints = (
            NonlinearConstraint(lambda x: recorder.violations(box.point(x)), -float("inf"), 0.0),
        )
    while True:
        minimize(
            box,
            box.random_point(generator),
            bounds=box.bounds,
            constraints=constraints,
            options={
                "radius_init": 0.2,
                "radius_final": 1e-8,
                "maxfev": 10**6,
                "maxiter": 10**6,
                "scale": False,
            },
        )


# ---- NLopt


def _nlopt(recorder: Recorder, seed: int, algorithm: str) -> None:
    nlopt = import_nlopt()
    # The local searches end when they move less than this in each coordinate of the unit cube.
    # Of 1e-3, 1e-4, 1e-5 and 1e-7 it gives both methods with BOBYQA their best scores.
    tolerance = 1e-4
    box, generator = UnitBox(recorder), _generator(recorder, seed)
    stopped = False
    nlopt.srand(generator.getrandbits(31))
    search = nlopt.opt(getattr(nlopt, algorithm), box.dimension)

    def guard(function: Callable[[Any], float]) -> Callable[[Any, Any], float]:
        def call(x: Any, _: Any) -> float:
            nonlocal stopped
            # Not an exception: GN_CRS2_LM calls again after one among its first points, and
            # crashes.
            try:
                return function(x.tolist())
            except BudgetUsed:
                stopped = True
                search.force_stop()
                return 0.0

        return call

    def set_up(searcher: Any) -> None:
        searcher.set_lower_bounds([0.0] * box.dimension)
        searcher.set_upper_bounds([1.0] * box.dimension)
        searcher.set_min_objective(guard(box))

    set_up(search)
    if algorithm == "G_MLSL_LDS":
        local = nlopt.opt(nlopt.LN_BOBYQA, box.dimension)
        local.set_xtol_abs(tolerance)
        search.set_local_optimizer(local)
    if algorithm == "LN_BOBYQA":
        search.set_xtol_abs(tolerance)
    constraints = recorder.problem.constraints
    if constraints is not None:
        for i in range(len(constraints(box.lower))):

            def constraint(x: Any, i: int = i) -> float:
                return recorder.violations(box.point(x))[i]

            search.add_inequality_constraint(guard(constraint), 0.0)
    if algorithm != "LN_BOBYQA":
        # More than the budget: what ends it is the recorder.
        search.set_maxeval(100 * recorder.budget)
    is_first = True
    while not stopped:
        start = box.random_point(generator)
        if is_first and algorithm != "LN_BOBYQA":
            start = box.centre()
        is_first = False
        try:
            search.optimize(start)
        except nlopt.RoundoffLimited:
            pass
        except Exception:
            # ForcedStop, or for GN_AGS an error without a name.
            if not stopped:
                raise


# ---- Others


def _dlib(recorder: Recorder, seed: int, _: object) -> None:
    import dlib

    box = Box(recorder)
    lower, upper = list(box.lower), list(box.upper)
    is_integer = [i >= box.reals for i in range(box.dimension)]
    for i in range(box.reals, box.dimension):
        upper[i] -= 1.0
    # What find_min_global runs, which takes its seed from the clock.
    search = dlib.global_function_search(dlib.function_spec(lower, upper, is_integer))
    search.set_solver_epsilon(0.0)
    search.set_seed(_generator(recorder, seed).getrandbits(31))
    while True:
        request = search.get_next_x()
        request.set(-box(request.x))  # it maximises


def _cma(recorder: Recorder, seed: int, _: object) -> None:
    import cma

    box, generator = UnitBox(recorder), _generator(recorder, seed)
    population = None
    while True:
        options = {"bounds": [0.0, 1.0], "verbose": -9, "seed": generator.getrandbits(31) + 1}
        if population is not None:
            options["popsize"] = population
        search = cma.CMAEvolutionStrategy(box.random_point(generator), 0.3, options)
        # Restarts with twice the population (Auger and Hansen 2005).
        population = 2 * search.popsize
        while not search.stop():
            points = search.ask()
            search.tell(points, [box(x) for x in points])


def _optuna(recorder: Recorder, seed: int, sampler: str) -> None:
    import optuna

    optuna.logging.set_verbosity(optuna.logging.ERROR)
    problem = recorder.problem
    generator = _generator(recorder, seed)
    options: Options = {"seed": generator.getrandbits(31)}
    if problem.constraints is not None:
        options["constraints_func"] = lambda trial: trial.user_attrs["constraints"]

    def objective(trial: Any) -> float:
        point = [trial.suggest_float(f"x{i}", *pair) for i, pair in enumerate(problem.bounds)]
        if problem.constraints is not None:
            value, violations = recorder.evaluate(point)
            trial.set_user_attr("constraints", violations)
            return value
        if problem.categories:
            names = enumerate(problem.categories)
            choices = tuple(trial.suggest_categorical(f"c{i}", c) for i, c in names)
            return recorder(point, choices)
        return recorder(point)

    study = optuna.create_study(sampler=getattr(optuna.samplers, sampler)(**options))
    study.optimize(objective, n_trials=recorder.budget)


# ---- The table


@dataclass(frozen=True)
class Peer:
    label: str
    package: str
    search: Callable[..., None]
    #: The last argument of `search`.
    argument: object = None
    is_random: bool = False
    constraints: bool = False
    #: Meant for problems with constraints only.
    only_constraints: bool = False
    #: Fewest and most variables that it can be used with, categories included.
    dimensions: tuple[int, int] = (1, 1000)


_PEERS = {
    "scipy-direct": Peer("SciPy direct", "scipy", _scipy_direct, False),
    "scipy-direct-l": Peer("SciPy direct, locally biased", "scipy", _scipy_direct, True),
    "scipy-dual-annealing": Peer(
        "SciPy dual_annealing, restarted", "scipy", _scipy_dual_annealing, is_random=True
    ),
    "scipy-de": Peer(
        "SciPy differential_evolution, restarted",
        "scipy",
        _scipy_differential_evolution,
        is_random=True,
        constraints=True,
    ),
    "scipy-shgo": Peer("SciPy shgo", "scipy", _scipy_shgo, constraints=True),
    "scipy-cobyla": Peer(
        "SciPy COBYLA, multistart",
        "scipy",
        _scipy_local,
        "COBYLA",
        is_random=True,
        constraints=True,
        only_constraints=True,
    ),
    "scipy-slsqp": Peer(
        "SciPy SLSQP, multistart",
        "scipy",
        _scipy_local,
        "SLSQP",
        is_random=True,
        constraints=True,
        only_constraints=True,
    ),
    "cobyqa": Peer("COBYQA, multistart", "cobyqa", _cobyqa, is_random=True, constraints=True),
    "nlopt-direct-l": Peer("NLopt GN_DIRECT_L", "nlopt", _nlopt, "GN_DIRECT_L"),
    "nlopt-mlsl": Peer("NLopt G_MLSL_LDS + LN_BOBYQA", "nlopt", _nlopt, "G_MLSL_LDS"),
    "nlopt-bobyqa": Peer("NLopt LN_BOBYQA, multistart", "nlopt", _nlopt, "LN_BOBYQA", True),
    "nlopt-crs2": Peer("NLopt GN_CRS2_LM", "nlopt", _nlopt, "GN_CRS2_LM", True),
    "nlopt-ags": Peer(
        "NLopt GN_AGS", "nlopt", _nlopt, "GN_AGS", constraints=True, dimensions=(1, 5)
    ),
    "dlib": Peer("dlib find_min_global", "dlib", _dlib, is_random=True),
    "cma": Peer("cma, restarted", "cma", _cma, is_random=True, dimensions=(2, 1000)),
    "optuna-tpe": Peer(
        "Optuna TPE", "optuna", _optuna, "TPESampler", is_random=True, constraints=True
    ),
    "optuna-gp": Peer("Optuna GP", "optuna", _optuna, "GPSampler", is_random=True),
}
PEERS = tuple(_PEERS)
PACKAGES = tuple(dict.fromkeys(peer.package for peer in _PEERS.values()))
_OWN_LABELS = {
    "quenloft": "Quenloft",
    "quenloft-plain": "Quenloft, plain",
}
OWN_METHODS = tuple(_OWN_LABELS)


def label(method: str) -> str:
    """The method's name in tables and plots."""
    if method in _PEERS:
        return _PEERS[method].label
    name, _, text = method.partition(":")
    return _OWN_LABELS[name] + "".join(
        f", {item.replace('=', ' ')}" for item in filter(None, text.split(","))
    )


def check(method: str) -> str:
    """The identifier itself, if there is such a method; else raises ValueError."""
    if method not in _PEERS:
        if method.partition(":")[0] not in _OWN_LABELS:
            known = ", ".join((*_OWN_LABELS, *PEERS))
            raise ValueError(f"no method {method!r}; there are {known}")
        if missing(method):
            raise ValueError(f"Quenloft.minimize lacks {missing(method)}")
    return method


def is_own(method: str) -> bool:
    return method not in _PEERS


def is_random(method: str) -> bool:
    """Whether its result depends on a seed."""
    return method in _PEERS and _PEERS[method].is_random


def missing(method: str) -> str:
    """What it needs and is not there; empty if nothing is missing."""
    if method not in _PEERS:
        unknown = [name for name in options_of(method) if name not in _own_parameters()]
        return f"the option {unknown[0]}" if unknown else ""
    try:
        prepare(method)
    except ImportError as error:
        return error.name or _PEERS[method].package
    return ""


def applies(method: str, problem: Problem) -> bool:
    """Whether it can be used on a problem."""
    if method not in _PEERS:
        return True
    peer = _PEERS[method]
    fewest, most = peer.dimensions
    if not fewest <= problem.dimension + len(problem.categories) <= most:
        return False
    if problem.constraints is not None:
        return peer.constraints
    return not peer.only_constraints


def version(method: str) -> str:
    """What a kept result depends on beside its task: the package, and how it is used here."""
    if method not in _PEERS:
        return _own_version()
    peer = _PEERS[method]
    use = hashlib.sha256(inspect.getsource(peer.search).encode()).hexdigest()[:8]
    return f"{peer.package} {provenance.version(peer.package)}, used as {use}"


def prepare(method: str) -> None:
    """Import what the method needs, which is not to be counted as its time."""
    if method not in _PEERS:
        importlib.import_module("Quenloft")
    elif _PEERS[method].package == "nlopt":
        getattr(import_nlopt(), str(_PEERS[method].argument))
    elif _PEERS[method].package == "scipy":
        importlib.import_module("scipy.optimize")
    else:
        importlib.import_module(_PEERS[method].package)
        if _PEERS[method].argument == "GPSampler":
            importlib.import_module("torch")


def minimise(method: str, problem: Problem, budget: int, seed: int) -> tuple[Recorder, str]:
    """Run a method until the budget is used up.

    Returns what was recorded, and the error by which a method ended itself; empty for none.
    """
    recorder = Recorder(problem, budget)
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        try:
            if method in _PEERS:
                _PEERS[method].search(recorder, seed, _PEERS[method].argument)
            else:
                _quenloft(recorder, seed, method)
        except BudgetUsed:
            pass
        except Exception as error:
            # A method that fails keeps what it had found.
            return recorder, f"{type(error).__name__}: {error}"
    return recorder, ""
