# SPDX-License-Identifier: MIT
"""Global minimisation of expensive black-box functions over boxes.

`minimize` is the way in; `minimize_many` runs many searches on many workers; `Search` is asked for
points and told their values; `scipy_method` makes it a method of `scipy.optimize.minimize`; `Command`
makes an objective of a program. `Problem` and its companions are the native module's own types.
"""

from importlib import import_module
from typing import TYPE_CHECKING, Any

from _Quenloft import Problem, Result, Test, TestFunction, TestFunction2

from ._errors import EvaluationTimeout, JournalError, NonFiniteError, WorkerError
from ._history import History, Trial
from ._minimize import minimize
from ._result import LocalMinimum, OptimizeResult, Status
from ._search import Outcome, Point, Search, Trials

if TYPE_CHECKING:
    from . import cli as cli, demo as demo, plots as plots
    from ._command import Command, CommandError
    from ._journal import Recording, read_journal
    from ._scipy_adapter import scipy_method
    from ._study import minimize_many
    from ._version import __version__ as __version__

# What not every program needs, and the modules that have it: they are imported when it is used.
_LATER = {
    "Command": "_command",
    "CommandError": "_command",
    "Recording": "_journal",
    "__version__": "_version",
    "minimize_many": "_study",
    "read_journal": "_journal",
    "scipy_method": "_scipy_adapter",
}

__all__ = [
    "Command",
    "CommandError",
    "EvaluationTimeout",
    "History",
    "JournalError",
    "LocalMinimum",
    "NonFiniteError",
    "OptimizeResult",
    "Outcome",
    "Point",
    "Problem",
    "Recording",
    "Result",
    "Search",
    "Status",
    "Test",
    "TestFunction",
    "TestFunction2",
    "Trial",
    "Trials",
    "WorkerError",
    "minimize",
    "minimize_many",
    "read_journal",
    "scipy_method",
]


_MODULES = ("cli", "demo", "plots")


if not TYPE_CHECKING:  # a type checker must not take any name for one

    def __getattr__(name: str) -> Any:
        if name in _MODULES:
            return import_module(f"{__name__}.{name}")
        if name not in _LATER:
            raise AttributeError(f"module {__name__!r} has no attribute {name!r}")
        value = globals()[name] = getattr(import_module(f"{__name__}.{_LATER[name]}"), name)
        return value


def __dir__() -> list[str]:
    return sorted([*__all__, "__version__", *_MODULES])
