# SPDX-License-Identifier: MIT
"""Global minimisation of expensive black-box functions over boxes.

`minimize` is the way in; `minimize_many` runs many searches on many workers; `scipy_method` makes
it a method of `scipy.optimize.minimize`. `Problem` and its companions are the native module's own
types, on which everything else is built.
"""

from importlib.metadata import PackageNotFoundError, version

from _Quenloft import Problem, Result, Test, TestFunction, TestFunction2

from .errors import JournalError, NonFiniteError
from .history import History, Trial
from .journal import Recording, read_journal
from .result import LocalMinimum, OptimizeResult, Status
from .scipy_adapter import scipy_method
from .search import minimize
from .study import minimize_many

try:
    __version__ = version("Quenloft")
except PackageNotFoundError:  # imported from a source tree
    __version__ = "0"

__all__ = [
    "History",
    "JournalError",
    "LocalMinimum",
    "NonFiniteError",
    "OptimizeResult",
    "Problem",
    "Recording",
    "Result",
    "Status",
    "Test",
    "TestFunction",
    "TestFunction2",
    "Trial",
    "minimize",
    "minimize_many",
    "read_journal",
    "scipy_method",
]
