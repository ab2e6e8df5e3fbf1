# SPDX-License-Identifier: MIT
"""The runs of methods on the problems."""

from __future__ import annotations

import hashlib
from dataclasses import dataclass
from pathlib import Path
from time import thread_time
from typing import Any, Optional, Sequence

from outside_problems import Problem, by_name
from sweep import runs
from sweep.provenance import provenance
from sweep.runs import Workers

from . import methods

BUDGET = 500
SEEDS = 5


@dataclass(frozen=True)
class Task:
    """One method on one problem with one seed.

    The versions of both are part of it: a run is done again when its method or its problem has
    changed, and only then.
    """

    problem: str
    digest: str
    method: str
    version: str
    seed: int
    budget: int


@dataclass(frozen=True)
class Run:
    """What came of a task."""

    task: Task
    #: The first evaluations, from 1, to reach each of `recorder.ACCURACIES`.
    reached: tuple[Optional[int], ...]
    #: The accuracy reached within each of `recorder.BUDGETS`; None without a feasible point.
    accuracy_within: tuple[Optional[float], ...]
    evaluations: int
    #: CPU time of the whole search, and the part of it spent in the problem.
    seconds: float
    objective_seconds: float
    #: What ended a method before it had used its budget; empty if nothing did.
    failure: str = ""


def digest(problem: Problem) -> str:
    """Changes when the problem does."""
    centre = [0.5 * (lower + upper) for lower, upper in problem.bounds]
    choices = tuple(c[0] for c in problem.categories)
    value = problem(centre, choices) if choices else problem(centre)
    text = repr((problem.bounds, problem.f_star, problem.categories, value))
    return hashlib.sha256(text.encode()).hexdigest()[:8]


def tasks_of(
    problems: Sequence[Problem], names: Sequence[str], seeds: int = SEEDS, budget: int = BUDGET
) -> list[Task]:
    """Every method on every problem that it can be used on; what is random with every seed."""
    digests = {problem.name: digest(problem) for problem in problems}
    return [
        Task(problem.name, digests[problem.name], name, methods.version(name), seed, budget)
        for name in names
        for problem in problems
        if methods.applies(name, problem)
        for seed in range(seeds if methods.is_random(name) else 1)
    ]


def execute(task: Task) -> Run:
    """Do one run. Depends on nothing but the task, wherever it is executed."""
    problem = by_name(task.problem)
    methods.prepare(task.method)
    problem.accuracy(0.0)  # the sample behind it is not the method's time
    start = thread_time()
    recorder, failure = methods.minimise(task.method, problem, task.budget, task.seed)
    return Run(
        task,
        tuple(recorder.reached),
        tuple(recorder.accuracy_within),
        recorder.count,
        thread_time() - start,
        recorder.seconds,
        failure,
    )


def _run(task: Task, reached: Sequence[Any], accuracy_within: Sequence[Any], **rest: Any) -> Run:
    """From JSON, which has lists for tuples."""
    return Run(task, tuple(reached), tuple(accuracy_within), **rest)


def _provenance() -> dict[str, Any]:
    return provenance(("Quenloft", *methods.PACKAGES, "numpy", "ioh"))


KIND = runs.Kind(Task, _run, execute, _provenance, mixes_versions=True)


def run_all(
    tasks: Sequence[Task], workers: Workers = 1, *, path: Path, progress: bool = False
) -> list[Run]:
    """`sweep.runs.run_all` for these runs."""
    return runs.run_all(KIND, tasks, workers, path=path, progress=progress)


def finished(tasks: Sequence[Task], path: Path) -> list[Run]:
    """The runs of those tasks that are in the file at `path`."""
    return runs.finished(KIND, tasks, path)
