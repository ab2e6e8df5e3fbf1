# SPDX-License-Identifier: MIT
"""Doing many runs on many workers, and keeping each as soon as it is finished.

A task says what is to be run, a run what came of it. Both are frozen dataclasses of plain text
and numbers, so that they can travel and be written as JSON; a run has its task as the field
`task`.
"""

from __future__ import annotations

import json
import sys
from dataclasses import asdict, dataclass
from pathlib import Path
from time import monotonic
from typing import Any, Callable, Iterable, Iterator, Sequence

from Quenloft._workers import WorkersArgument as Workers, check, opened, with_origin


@dataclass(frozen=True)
class Kind:
    """The runs of one benchmark: their types and what makes them."""

    task: Callable[..., Any]
    run: Callable[..., Any]
    #: Does one task; depends on nothing but the task, wherever it is executed.
    execute: Callable[[Any], Any]
    #: Versions and machine, as they are kept beside the results.
    provenance: Callable[[], dict[str, Any]]
    #: Whether runs made by other versions may stand in the same file, because their tasks differ.
    mixes_versions: bool = False


class RunFile:
    """The finished runs, one JSON object a line, after a first line with the provenance.

    A line is written in one piece when its run is finished. A last line that was cut off, as by
    a power cut, is dropped when the file is opened. Runs made by other versions of the programs
    are not mixed with new ones unless the kind allows it: such a file is refused.
    """

    def __init__(self, path: Path, kind: Kind) -> None:
        self.path = path
        self.runs: dict[Any, Any] = {}
        self.provenance = kind.provenance()
        path.parent.mkdir(parents=True, exist_ok=True)
        content = path.read_bytes() if path.exists() else b""
        whole = content[: content.rfind(b"\n") + 1]
        lines = [json.loads(line) for line in whole.decode("utf-8").splitlines()]
        if lines:
            then, now = lines[0]["provenance"]["versions"], self.provenance["versions"]
            if then != now and not kind.mixes_versions:
                raise ValueError(f"{path} was made with {then}, not {now}: move it away")
            if not kind.mixes_versions:
                self.provenance = lines[0]["provenance"]
        for line in lines[1:]:
            task = kind.task(**line.pop("task"))
            self.runs[task] = kind.run(task=task, **line)
        if whole != content:
            with path.open("r+b") as file:
                file.truncate(len(whole))
        self._file = path.open("a", encoding="utf-8")
        if not lines:
            self._write({"provenance": self.provenance})

    def add(self, run: Any) -> None:
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


def run_all(
    kind: Kind,
    tasks: Sequence[Any],
    workers: Workers = 1,
    *,
    path: Path,
    progress: bool = False,
) -> list[Any]:
    """Do the tasks that are not in the file at `path` yet; return the runs of all, in order.

    Parameters
    ----------
    kind : Kind
    tasks : sequence of tasks
    workers : int, Executor or map-like callable
        As `Quenloft.minimize` takes them. What is found depends on the tasks alone; the seconds
        depend on who shares the machine.
    path : Path
        The file of finished runs (`RunFile`).
    progress : bool
        Show a bar with the time left on stderr.
    """
    check(workers)
    with RunFile(path, kind) as file:
        missing = [task for task in dict.fromkeys(tasks) if task not in file.runs]
        with opened(workers, kind.execute, len(missing)) as pool:
            for number, task in enumerate(missing):
                pool.submit(number, (task,))
            for run in _with_progress(_answers(pool), len(missing), progress):
                file.add(run)
        return [file.runs[task] for task in tasks]


def _answers(pool: Any) -> Iterator[Any]:
    while pool.busy:
        answer = pool.wait()
        if answer.error is not None:
            raise with_origin(answer.error)
        yield answer.value


def finished(kind: Kind, tasks: Sequence[Any], path: Path) -> list[Any]:
    """The runs of those tasks that are in the file at `path`."""
    with RunFile(path, kind) as file:
        return [file.runs[task] for task in tasks if task in file.runs]


def _with_progress(runs: Iterable[Any], total: int, show: bool) -> Iterable[Any]:
    if not show or total == 0:
        return runs
    try:
        from tqdm import tqdm
    except ImportError:
        return _plain_progress(runs, total)
    bar: Iterable[Any] = tqdm(runs, total=total, unit="run", smoothing=0.05)
    return bar


def _plain_progress(runs: Iterable[Any], total: int) -> Iterator[Any]:
    start = monotonic()
    for done, run in enumerate(runs, 1):
        left = (monotonic() - start) / done * (total - done)
        end = "\n" if done == total else ""
        print(f"\r{done} of {total} runs, {left:.0f} s left ", end=end, file=sys.stderr, flush=True)
        yield run
