# SPDX-License-Identifier: MIT
"""NLopt, whose import needs care."""

from __future__ import annotations

import ctypes
import importlib
import sys
import warnings
from functools import cache
from typing import Any


@cache
def import_nlopt() -> Any:
    """NLopt, imported so that it survives Python being told to turn warnings into errors.

    Its wrapper (NLopt 2.9.1) makes types that Python warns of, and crashes when that fails: at
    first use, and while the interpreter ends, when it makes one more to destroy the others. So
    warnings are ignored here, and the others get a reference too many.
    """
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        nlopt = importlib.import_module("nlopt")
        nlopt.opt(nlopt.LN_BOBYQA, 1)
    for name, module in list(sys.modules.items()):
        if name.startswith("swig_runtime_data"):
            for value in vars(module).values():
                ctypes.pythonapi.Py_IncRef(ctypes.py_object(value))
    return nlopt
