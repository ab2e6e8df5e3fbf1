# SPDX-License-Identifier: MIT
"""`minimize_many`: many searches, on many workers."""

from __future__ import annotations

import math
from collections.abc import Mapping
from contextlib import ExitStack, closing
from time import perf_counter
from traceback import format_exception
from typing import Any, Iterable, Optional

from ._database import Path
from ._minimize import minimize
from ._plan import Plan, require_arguments
from ._progress import Progress
from ._result import OptimizeResult
from ._study_journal import StudyJournal
from ._workers import WorkersArgument, check as check_workers, opened, with_origin


def minimize_many(
    tasks: Iterable[Mapping[str, Any]],
    workers: WorkersArgument = 1,
    *,
    journal: Optional[Path] = None,
    return_errors: bool = False,
    progress: bool = False,
    **common: Any,
) -> list[Any]:
    """Run many minimisations; results in the order of the tasks.

    Parameters
    ----------
    tasks : iterable of mappings
        The arguments of `minimize` for each, by name: ``{"fun": f, "bounds": b, "args": (1,)}``.
    workers : int, Executor or map-like callable
        See `minimize`; here each call is a whole task. Functions and results are pickled on the
        way to other processes. Results may come in any order (``pool.imap_unordered``).
    journal : path, optional
        SQLite file that keeps each result as it comes. If it exists, only the tasks that are
        missing in it are run; a journal of other tasks is refused. A failed task is not kept: it
        is tried again. (A task may have a journal of its own for its trials beside this one.)
    return_errors : bool
        Put the exception of a failed task in the place of its result, with the text of its
        traceback as its attribute ``worker_traceback``. Otherwise the first one in task order is
        raised when all tasks are done, with the list of results (None for failed tasks) as its
        attribute ``results``.
    progress : bool
        Show the number of finished tasks on stderr while it is a terminal.
    **common
        Arguments of `minimize` for every task that does not set them itself.

    Returns
    -------
    list of OptimizeResult
        And exceptions, with `return_errors`.

    Raises
    ------
    TypeError, ValueError
        An argument of a task is wrong, with the number of the task; nothing was run.
    JournalError
        See `journal`.
    Exception
        See `return_errors`. Ctrl-C and failures of an executor are raised at once, also with the
        attribute ``results``; a process that was killed is a `WorkerError` of its task.
    """
    if isinstance(tasks, Mapping):
        raise TypeError(
            "tasks must be a sequence of mappings, one for each: a single one is [task]"
        )
    items = [_merged(number, common, task) for number, task in enumerate(tasks)]
    plans = [_plan(number, task) for number, task in enumerate(items)]
    check_workers(workers)
    answers: dict[int, Any] = {}
    with ExitStack() as stack:
        book = None
        if journal is not None:
            book = stack.enter_context(closing(StudyJournal(journal, plans)))
            answers.update(book.results())
        display = None
        if progress:
            display = stack.enter_context(closing(Progress(len(items), math.inf, 1, "tasks")))
        start = perf_counter()
        missing = [number for number in range(len(items)) if number not in answers]
        try:
            with opened(workers, _solve, len(missing)) as pool:
                for number in missing:
                    pool.submit(number, (items[number],))
                while pool.busy:
                    answer = pool.wait()
                    assert answer is not None
                    key, answers[key], error = answer
                    if error is not None:
                        answers[key] = error
                        text = "".join(format_exception(None, error, error.__traceback__))
                        vars(error).setdefault("worker_traceback", text)
                    elif book is not None:
                        book.record(key, answers[key])
                    if display is not None:
                        count = len(answers)
                        is_last = count == len(items)
                        seconds = perf_counter() - start
                        display.update(count, math.inf, seconds, is_last, pool.busy)
        except BaseException as error:
            vars(error)["results"] = _results(answers, len(items))
            raise
    failures = [a for _, a in sorted(answers.items()) if isinstance(a, BaseException)]
    if failures and not return_errors:
        vars(failures[0])["results"] = _results(answers, len(items))
        raise with_origin(failures[0])
    return [answers[number] for number in range(len(items))]


def _merged(number: int, common: Mapping[str, Any], task: Any) -> dict[str, Any]:
    if not isinstance(task, Mapping):
        raise TypeError(f"task {number} must be a mapping of arguments of minimize, not {task!r}")
    return {**common, **task}


def _plan(number: int, task: Mapping[str, Any]) -> Plan:
    try:
        require_arguments(task)
        return Plan(**task)
    except (TypeError, ValueError) as error:
        raise type(error)(f"task {number}: {error}") from error


def _results(answers: dict[int, Any], count: int) -> list[Optional[OptimizeResult]]:
    found = [answers.get(number) for number in range(count)]
    return [None if isinstance(answer, BaseException) else answer for answer in found]


def _solve(task: Mapping[str, Any]) -> OptimizeResult:
    """One task, in whatever process."""
    return minimize(**task)
