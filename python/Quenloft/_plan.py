# SPDX-License-Identifier: MIT
"""The arguments of a minimisation, checked: what is wrong is said before anything is evaluated."""

from __future__ import annotations

import os
import sys
from dataclasses import dataclass, field, fields
from typing import Any, Callable, Mapping, Optional, Sequence, Union

from . import _constraints as constraint_forms, _variables as variable_forms
from ._constraints import Constraint
from ._history import History
from ._known import Known, known_points, wanted_points
from ._observation import Evaluation
from ._result import OptimizeResult
from ._settings import Budget, Settings, budget, one_of
from ._variables import Variables
from ._workers import WorkersArgument, check as check_workers


@dataclass
class Plan:
    """The arguments of `minimize`, and what they are made into.

    Raises
    ------
    TypeError, ValueError
        An argument is wrong.
    """

    fun: Callable[..., Any]
    bounds: Any
    args: Any = ()
    names: Optional[Sequence[str]] = None
    logarithmic: Sequence[int] = ()
    categories: Sequence[Sequence[Any]] = ()
    constraints: Any = ()
    x0: Any = None
    known: Any = ()
    point: str = "tuple"
    nonfinite: str = "raise"
    catch: Any = ()
    maxfun: Optional[float] = None
    maxtime: Optional[float] = None
    f_min: Optional[float] = None
    min_radius: Optional[float] = None
    callback: Optional[Callable[[OptimizeResult], Any]] = None
    on_interrupt: str = "raise"
    progress: bool = False
    journal: Optional[Union[str, os.PathLike[str]]] = None
    verify: bool = True
    workers: WorkersArgument = 1
    timeout: Optional[float] = None
    local_models: bool = True
    batch: int = 1
    overestimation: Optional[float] = None
    overestimation_local: float = Settings.overestimation_local
    local_vs_global: float = Settings.local_vs_global
    spread: float = Settings.spread
    cross: float = Settings.cross

    variables: Variables = field(init=False)
    present: Callable[[tuple[float, ...], tuple[Any, ...]], Any] = field(init=False)
    limits: tuple[Constraint, ...] = field(init=False)
    settings: Settings = field(init=False)
    budget: Budget = field(init=False)
    wanted: Sequence[Any] = field(init=False)
    known_points: Sequence[Known] = field(init=False)

    def __post_init__(self) -> None:
        one_of("point", self.point, ("tuple", "list", "array", "mapping"))
        one_of("nonfinite", self.nonfinite, ("raise", "infeasible"))
        one_of("on_interrupt", self.on_interrupt, ("raise", "return"))
        one_of("verify", self.verify, (False, True))
        check_workers(self.workers, self.timeout)
        if not callable(self.fun):
            raise TypeError(f"fun must be callable, not {self.fun!r}")
        if self.callback is not None and not callable(self.callback):
            raise TypeError(f"callback must be callable, not {self.callback!r}")
        self.catch = _exceptions(self.catch)
        # As in SciPy, anything but a tuple is one argument.
        self.args = self.args if isinstance(self.args, tuple) else (self.args,)
        self.variables = variable_forms.declare(
            self.bounds, self.logarithmic, self.categories, self.names
        )
        dimension = self.variables.dimension
        self.present = self.variables.presenter(self.point)
        self._name_command()
        self.limits = constraint_forms.declare(
            self.constraints, self.variables.arguments(self.point), dimension
        )
        self.settings = Settings.of(vars(self))
        self.budget = budget(self.maxfun, self.maxtime, self.f_min, self.min_radius, dimension)
        self.wanted = wanted_points(self.variables, self.x0)
        self.known_points = known_points(
            self.variables, len(self.limits), self.may_fail, self.known
        )

    @property
    def is_hidden(self) -> bool:
        """Whether points at which a function is not finite are infeasible."""
        return self.nonfinite == "infeasible"

    @property
    def may_fail(self) -> bool:
        """Whether evaluations may fail: that they do not is then one more constraint."""
        return self.is_hidden or bool(self.catch)

    @property
    def goal(self) -> int:
        """The index of a trial at which everything holds."""
        return len(self.limits) + self.may_fail

    def _name_command(self) -> None:
        """Let a command that has no names have those of the variables, with its constraints."""
        command = self.fun
        if not (isinstance(command, _command_type()) and command.names is None):
            return
        named = self.fun = command.named(self.variables.names)
        if isinstance(self.constraints, (list, tuple)):
            self.constraints = [
                named.constraints[item.number]
                if getattr(item, "command", None) is command
                else item
                for item in self.constraints
            ]

    def summary(self) -> str:
        """The problem and its budget in a line."""
        variables = self.variables
        shown = [f"{name} in {number}" for name, number in zip(variables.names, variables.numbers)]
        shown += [f"{len(choices)} choices" for choices in variables.choices]
        stops = f"maxfun = {self.budget.maxfun:.0f}, maxtime = {self.budget.maxtime:g} s"
        return f"{', '.join(shown)}; {len(self.limits)} constraints; {stops}"

    def new_history(self) -> History:
        """An empty history of the problem."""
        history = History.of(self.variables, len(self.limits), self.goal)
        history.known = len(self.known_points)
        return history

    def evaluation(self) -> Evaluation:
        """What is called at each point."""
        return Evaluation(
            self.fun,
            self.args,
            self.variables,
            tuple(limit.source for limit in self.limits),
            self.point,
            self.is_hidden,
            self.catch,
        )


def require_arguments(
    given: Mapping[str, Any], whose: str = "minimize", kind: str = "argument"
) -> None:
    """Raise TypeError unless these, by name, can be the arguments of `minimize`."""
    known = [item.name for item in fields(Plan) if item.init]
    for name in given:
        if name not in known:
            from difflib import get_close_matches  # which is needed here alone

            close = get_close_matches(str(name), known, 1)
            hint = f"; did you mean {close[0]!r}?" if close else ""
            raise TypeError(f"{whose} has no {kind} {name!r}{hint}")
    missing = [name for name in ("fun", "bounds") if name not in given]
    if missing:
        raise TypeError(f"the argument {missing[0]!r} of minimize is missing")


def _exceptions(catch: Any) -> tuple[type[Exception], ...]:
    types = catch if isinstance(catch, (tuple, list)) else (catch,)
    for item in types:
        if not (isinstance(item, type) and issubclass(item, Exception)):
            raise TypeError(f"catch must be an exception type or a tuple of them, not {item!r}")
    return tuple(types)


def _command_type() -> Any:
    # Whoever has a command has imported this, which brings much with it.
    module = sys.modules.get("Quenloft._command")
    return module.Command if module is not None else ()


def name_of(function: Any) -> str:
    """The name of a callable, without its module: a script is ``__main__`` or itself."""
    while hasattr(function, "func"):  # functools.partial
        function = function.func
    return str(getattr(function, "__qualname__", type(function).__qualname__))
