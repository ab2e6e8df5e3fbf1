# SPDX-License-Identifier: MIT
"""The runs of methods on functions of the classes."""

from __future__ import annotations

from dataclasses import dataclass
from pathlib import Path
from time import thread_time
from typing import Optional, Sequence

from sweep import runs
from sweep.provenance import provenance
from sweep.runs import Workers

from .functions import CLASSES
from .methods import minimise, prepare


@dataclass(frozen=True)
class Task:
    """One method on one function."""

    class_name: str
    method: str
    number: int
    budget: int


@dataclass(frozen=True)
class Run:
    """What came of a task."""

    task: Task
    #: The trial that solved the function, from 1; None if none did within the budget.
    solved_at: Optional[int]
    #: Trials done.
    evaluations: int
    #: CPU time of the whole search, and the part of it spent in the objective. It is the calling
    #: thread's, so neither other runs nor other programs on the machine disturb it.
    seconds: float
    objective_seconds: float


def execute(task: Task) -> Run:
    """Do one run. Depends on nothing but the task, wherever it is executed."""
    prepare(task.method)
    start = thread_time()
    objective = minimise(task.method, CLASSES[task.class_name], task.number, task.budget)
    seconds = thread_time() - start
    return Run(task, objective.solved_at, objective.count, seconds, objective.seconds)


KIND = runs.Kind(Task, Run, execute, provenance)


def run_all(
    tasks: Sequence[Task], workers: Workers = 1, *, path: Path, progress: bool = False
) -> list[Run]:
    """`sweep.runs.run_all` for these runs."""
    return runs.run_all(KIND, tasks, workers, path=path, progress=progress)


def finished(tasks: Sequence[Task], path: Path) -> list[Run]:
    """The runs of those methods and classes of which every task is in the file at `path`."""
    done: list[Run] = runs.finished(KIND, tasks, path)
    missing = {(t.class_name, t.method) for t in set(tasks).difference(run.task for run in done)}
    return [run for run in done if (run.task.class_name, run.task.method) not in missing]
