# SPDX-License-Identifier: MIT
"""Doing many runs on many workers, and keeping each as soon as it is finished."""

from __future__ import annotations

import json
import multiprocessing
import os
import platform
import queue
import sys
from concurrent.futures import ProcessPoolExecutor
from contextlib import contextmanager
from dataclasses import asdict, dataclass
from importlib import metadata
from pathlib import Path
from time import monotonic, thread_time
from typing import Any, Callable, Iterable, Iterator, Optional, Sequence, Union

from .functions import CLASSES
from .methods import minimise, prepare

Workers = Union[int, Callable[[Callable[[Any], Any], Iterable[Any]], Iterable[Any]]]


@dataclass(frozen=True)
class Task:
    """One method on one function. All of it is plain text and numbers, so it can travel."""

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


def provenance() -> dict[str, Any]:
    """Versions and machine, as they are kept beside the results."""
    versions = {"Python": platform.python_version()}
    for package in ("Quenloft", "scipy", "nlopt", "numpy"):
        try:
            versions[package] = metadata.version(package)
        except metadata.PackageNotFoundError:
            versions[package] = "not installed"
    return {
        "versions": versions,
        "machine": {
            "processor": _processor(),
            "processors": os.cpu_count(),
            "system": f"{platform.system()} {platform.machine()}",
            "OMP_NUM_THREADS": os.environ.get("OMP_NUM_THREADS", "not set"),
        },
    }


def _processor() -> str:
    try:
        for line in Path("/proc/cpuinfo").read_text(encoding="utf-8").splitlines():
            if line.startswith("model name"):
                return line.partition(":")[2].strip()
    except OSError:
        pass
    return platform.processor() or platform.machine()


class RunFile:
    """The finished runs, one JSON object a line, after a first line with the provenance.

    A line is written in one piece when its run is finished. A last line that was cut off, as by
    a power cut, is dropped when the file is opened. Runs made by other versions of the programs
    are not mixed with new ones: such a file is refused.
    """

    def __init__(self, path: Path) -> None:
        self.path = path
        self.runs: dict[Task, Run] = {}
        self.provenance = provenance()
        path.parent.mkdir(parents=True, exist_ok=True)
        content = path.read_bytes() if path.exists() else b""
        whole = content[: content.rfind(b"\n") + 1]
        lines = [json.loads(line) for line in whole.decode("utf-8").splitlines()]
        if lines:
            then, now = lines[0]["provenance"]["versions"], self.provenance["versions"]
            if then != now:
                raise ValueError(f"{path} was made with {then}, not {now}: move it away")
            self.provenance = lines[0]["provenance"]
        for line in lines[1:]:
            task = Task(**line.pop("task"))
            self.runs[task] = Run(task, **line)
        if whole != content:
            with path.open("r+b") as file:
                file.truncate(len(whole))
        self._file = path.open("a", encoding="utf-8")
        if not lines:
            self._write({"provenance": self.provenance})

    def add(self, run: Run) -> None:
        self.runs[run.task] = run
        self._write(asdict(run))

    def _write(self, record: dict[str, Any]) -> None:
        self._file.write(json.dumps(record) + "\n")
        self._file.flush()

    def close(self) -> None:
        self._file.close()

    def __enter__(self) -> RunFile:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()


def as_they_finish(items: Iterable[Any]) -> Iterator[Any]:
    """The results of a map: of one that gives futures in the order in which they finish."""
    waiting = 0
    finished: queue.SimpleQueue[Any] = queue.SimpleQueue()
    for item in items:
        if hasattr(item, "add_done_callback"):
            item.add_done_callback(finished.put)
            waiting += 1
        else:
            yield item
    for _ in range(waiting):
        yield finished.get().result()


@contextmanager
def _map_of(workers: Workers) -> Iterator[Callable[..., Iterable[Any]]]:
    if callable(workers):
        yield workers
    elif workers == 1:
        yield map
    elif workers == -1 or workers > 1:
        count = os.cpu_count() if workers == -1 else workers
        # Not forked: the parent may have threads, of a plotting library or of a search.
        with ProcessPoolExecutor(count, multiprocessing.get_context("spawn")) as pool:
            try:
                yield lambda function, items: [pool.submit(function, item) for item in items]
            except BaseException:
                pool.shutdown(wait=False, cancel_futures=True)
                raise
    else:
        raise ValueError(f"workers must be -1, at least 1, or callable, not {workers}")


def run_all(
    tasks: Sequence[Task],
    workers: Workers = 1,
    *,
    path: Path,
    progress: bool = False,
) -> list[Run]:
    """Do the tasks that are not in the file at `path` yet; return the runs of all, in order.

    Parameters
    ----------
    tasks : sequence of Task
    workers : int or map-like callable
        Number of processes (-1: one per processor), or a callable that is called as
        ``workers(function, tasks)`` and returns the results, or futures of them, in order: the
        `map` of a pool, an MPI executor or a Dask client. What is found depends on the tasks
        alone; the seconds depend on who shares the machine.
    path : Path
        The file of finished runs (`RunFile`).
    progress : bool
        Show a bar with the time left on stderr.
    """
    with RunFile(path) as file, _map_of(workers) as apply:
        missing = [task for task in dict.fromkeys(tasks) if task not in file.runs]
        finished = as_they_finish(apply(execute, missing))
        for run in _with_progress(finished, len(missing), progress):
            file.add(run)
        return [file.runs[task] for task in tasks]


def finished(tasks: Sequence[Task], path: Path) -> list[Run]:
    """The runs of those methods and classes of which every task is in the file at `path`."""
    with RunFile(path) as file:
        missing = {(t.class_name, t.method) for t in tasks if t not in file.runs}
        return [file.runs[t] for t in tasks if (t.class_name, t.method) not in missing]


def _with_progress(runs: Iterable[Run], total: int, show: bool) -> Iterable[Run]:
    if not show or total == 0:
        return runs
    try:
        from tqdm import tqdm
    except ImportError:
        return _plain_progress(runs, total)
    bar: Iterable[Run] = tqdm(runs, total=total, unit="run", smoothing=0.05)
    return bar


def _plain_progress(runs: Iterable[Run], total: int) -> Iterator[Run]:
    start = monotonic()
    for done, run in enumerate(runs, 1):
        left = (monotonic() - start) / done * (total - done)
        end = "\n" if done == total else ""
        print(f"\r{done} of {total} runs, {left:.0f} s left ", end=end, file=sys.stderr, flush=True)
        yield run
