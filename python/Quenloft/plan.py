# SPDX-License-Identifier: MIT
"""The arguments of a minimisation, checked: what is wrong is said before anything is evaluated."""

from __future__ import annotations

import os
from dataclasses import dataclass, field
from typing import Any, Callable, Optional, Sequence, Union

from . import constraints as constraint_forms
from . import variables as variable_forms
from .constraints import Constraint
from .history import History
from .observation import Form, Observe, observer, point_form
from .polish import is_cobyla_installed
from .result import OptimizeResult
from .settings import Budget, Settings, budget, one_of
from .variables import Variables


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
    point: str = "tuple"
    nonfinite: str = "raise"
    maxfun: Optional[float] = None
    maxtime: Optional[float] = None
    f_min: Optional[float] = None
    min_radius: Optional[float] = None
    callback: Optional[Callable[[OptimizeResult], Any]] = None
    on_interrupt: str = "raise"
    progress: bool = False
    polish: Union[bool, str] = False
    journal: Optional[Union[str, os.PathLike[str]]] = None
    overestimation: float = 2.0
    overestimation_local: float = 1.1
    local_vs_global: float = 0.1
    spread: float = 12.0
    cross: float = 0.99
    fit: int = 0

    variables: Variables = field(init=False)
    form: Form = field(init=False)
    limits: tuple[Constraint, ...] = field(init=False)
    settings: Settings = field(init=False)
    budget: Budget = field(init=False)

    def __post_init__(self) -> None:
        one_of("point", self.point, ("tuple", "list", "array"))
        one_of("nonfinite", self.nonfinite, ("raise", "infeasible"))
        one_of("on_interrupt", self.on_interrupt, ("raise", "return"))
        one_of("polish", self.polish, (False, True, "cobyla", "pattern"))
        if not callable(self.fun):
            raise TypeError(f"fun must be callable, not {self.fun!r}")
        if self.callback is not None and not callable(self.callback):
            raise TypeError(f"callback must be callable, not {self.callback!r}")
        if self.polish == "cobyla" and not is_cobyla_installed():
            raise ValueError("polish='cobyla' needs SciPy, which is not installed")
        # As in SciPy, anything but a tuple is one argument.
        self.args = self.args if isinstance(self.args, tuple) else (self.args,)
        self.variables = variable_forms.declare(
            self.bounds, self.logarithmic, self.categories, self.names
        )
        dimension, choices = self.variables.dimension, self.variables.choices
        self.form = point_form(self.point)
        self.limits = constraint_forms.declare(
            self.constraints, self.form, dimension, bool(choices)
        )
        self.settings = Settings(
            self.overestimation,
            self.overestimation_local,
            self.local_vs_global,
            self.spread,
            self.cross,
            self.fit,
        )
        self.budget = budget(self.maxfun, self.maxtime, self.f_min, self.min_radius, dimension)

    @property
    def is_hidden(self) -> bool:
        """Whether points at which a function is not finite are infeasible."""
        return self.nonfinite == "infeasible"

    @property
    def goal(self) -> int:
        """The index of a trial at which everything holds."""
        return len(self.limits) + self.is_hidden

    def new_history(self) -> History:
        """An empty history of the problem."""
        variables = self.variables
        history = History(variables.dimension, variables.choices, len(self.limits), self.goal)
        history.names = variables.names
        history.bounds = tuple(zip(variables.lower, variables.upper))
        history.logarithmic = tuple(i for i, log in enumerate(variables.logarithmic) if log)
        return history

    def observer(self) -> Observe:
        """The function that evaluates the problem."""
        return observer(
            self.fun,
            self.args,
            self.variables.choices,
            self.limits,
            self.form,
            self.is_hidden,
        )
