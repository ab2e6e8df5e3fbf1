# SPDX-License-Identifier: MIT
"""`minimize_many`: many searches, on many workers."""

from __future__ import annotations

import os
from typing import Any, Callable, Iterable, Mapping, Optional, Union

from .result import OptimizeResult


def minimize_many(
    tasks: Iterable[Mapping[str, Any]],
    workers: Union[int, Callable[..., Any]] = 1,
    *,
    journal: Optional[Union[str, os.PathLike[str]]] = None,
    return_errors: bool = False,
    progress: bool = False,
    **common: Any,
) -> list[Any]:
    """Run many minimisations; results in the order of the tasks.

    Parameters
    ----------
    tasks : iterable of mappings
        The arguments of `minimize` for each, by name: ``{"fun": f, "bounds": b, "args": (1,)}``.
    workers : int or map-like callable
        Number of processes (-1: one per processor), or a callable that is called as
        ``workers(function, items)`` and returns the results, or futures of them, in order: the
        `map` of a pool, an executor or a Dask client. Functions and results are pickled on the
        way to other processes.
    journal : path, optional
        SQLite file that keeps each result as it comes. If it exists, only the tasks that are
        missing in it are run; a journal of other tasks is refused.
    return_errors : bool
        Put the exception of a failed task in the place of its result. Otherwise the first one in
        task order is raised when all tasks are done, with the list of results (None for failed
        tasks) as its attribute ``results``.
    progress : bool
        Show the number of finished tasks on stderr while it is a terminal.
    **common
        Arguments of `minimize` for every task that does not set them itself.

    Returns
    -------
    list of OptimizeResult
        And exceptions, with `return_errors`.
    """
    raise NotImplementedError
