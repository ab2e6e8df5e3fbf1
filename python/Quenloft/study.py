# SPDX-License-Identifier: MIT
"""`minimize_many`: many searches, on many workers."""

from __future__ import annotations

import math
import os
import pickle
from concurrent.futures import Executor, ProcessPoolExecutor, as_completed
from contextlib import ExitStack, closing
from multiprocessing import active_children
from queue import SimpleQueue
from time import perf_counter
from traceback import format_exc
from typing import Any, Callable, Iterable, Iterator, Mapping, Optional, Tuple, Union

from .plan import Plan
from .progress import Progress
from .result import OptimizeResult
from .search import minimize
from .settings import whole_number
from .study_journal import StudyJournal

_Item = Tuple[int, Mapping[str, Any]]
#: Number of the task, and its result or its exception.
_Answer = Tuple[int, Any]


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
        See `return_errors`. Ctrl-C and failures of the workers, such as a process that was killed,
        are raised at once, also with the attribute ``results``.
    """
    items: list[_Item] = [(number, {**common, **task}) for number, task in enumerate(tasks)]
    plans = [_plan(number, task) for number, task in items]
    answers: dict[int, Any] = {}
    with ExitStack() as stack:
        book = None
        if journal is not None:
            book = stack.enter_context(closing(StudyJournal(journal, plans)))
            answers.update(book.results())
        display = None
        if progress:
            display = stack.enter_context(closing(Progress(len(items), math.inf, unit="tasks")))
        start = perf_counter()
        missing = [item for item in items if item[0] not in answers]
        try:
            for number, answer in _answers(workers, missing):
                answers[number] = answer
                if book is not None and not isinstance(answer, BaseException):
                    book.record(number, answer)
                if display is not None:
                    count = len(answers)
                    is_last = count == len(items)
                    display.update(count, math.nan, perf_counter() - start, is_last)
        except BaseException as error:
            vars(error)["results"] = _results(answers, len(items))
            raise
    unanswered = [number for number, _ in items if number not in answers]
    failures = [a for _, a in sorted(answers.items()) if isinstance(a, BaseException)]
    if unanswered:
        failures.insert(0, RuntimeError(f"workers gave no result for the tasks {unanswered}"))
    if failures and (unanswered or not return_errors):
        failure = failures[0]
        vars(failure)["results"] = _results(answers, len(items))
        if failure.__traceback__ is None and hasattr(failure, "worker_traceback"):
            raise failure from _InWorker(failure.worker_traceback)
        raise failure
    return [answers[number] for number, _ in items]


class _InWorker(Exception):
    """Shows the traceback of an exception that came from another process."""

    def __str__(self) -> str:
        return f"\n{self.args[0]}"


def _plan(number: int, task: Mapping[str, Any]) -> Plan:
    try:
        return Plan(**task)
    except (TypeError, ValueError) as error:
        raise type(error)(f"task {number}: {error}") from error


def _results(answers: dict[int, Any], count: int) -> list[Optional[OptimizeResult]]:
    found = [answers.get(number) for number in range(count)]
    return [None if isinstance(answer, BaseException) else answer for answer in found]


def _solve(item: _Item) -> _Answer:
    """One task, in whatever process. An exception is an answer: others go on."""
    number, task = item
    try:
        answer: Any = minimize(**task)
    except Exception as error:
        answer = error
        # Frames do not travel, nor does every exception; text does.
        vars(error)["worker_traceback"] = format_exc()
        try:
            pickle.loads(pickle.dumps(error))
        except Exception:
            answer = RuntimeError(f"{type(error).__name__}: {error}")
            answer.worker_traceback = format_exc()
    return number, answer


def _answers(workers: Union[int, Callable[..., Any]], items: list[_Item]) -> Iterator[_Answer]:
    """Answers as they come."""
    if not callable(workers):
        count = os.cpu_count() or 1 if workers == -1 else whole_number("workers", workers, 1)
        if not items:
            return iter(())
        return map(_solve, items) if count == 1 else _from_processes(count, items)
    executor = getattr(workers, "__self__", None)
    if isinstance(executor, Executor) and getattr(workers, "__name__", "") == "map":
        # The executor's own map would hold every result back until those before it are there.
        return _from_futures([executor.submit(_solve, item) for item in items])
    answers = workers(_solve, items)
    if isinstance(answers, (list, tuple)) and all(hasattr(a, "add_done_callback") for a in answers):
        return _from_futures(answers)
    return iter(answers)


def _from_processes(count: int, items: list[_Item]) -> Iterator[_Answer]:
    others = set(active_children())
    executor = ProcessPoolExecutor(min(count, len(items)))
    try:
        for future in as_completed([executor.submit(_solve, item) for item in items]):
            yield future.result()
    except BaseException:
        # Nobody waits for the tasks under way, which may take hours.
        executor.shutdown(wait=False, cancel_futures=True)
        for process in set(active_children()) - others:
            process.terminate()
        raise
    executor.shutdown()


def _from_futures(futures: Iterable[Any]) -> Iterator[_Answer]:
    """Results of futures of any kind as they come."""
    pending = list(futures)
    done: SimpleQueue[Any] = SimpleQueue()
    for future in pending:
        future.add_done_callback(done.put)
    try:
        for _ in pending:
            yield done.get().result()
    except BaseException:
        for future in pending:
            future.cancel()
        raise
