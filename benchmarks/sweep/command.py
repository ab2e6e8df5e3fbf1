# SPDX-License-Identifier: MIT
"""The parts that the benchmarks' command lines have in common."""

from __future__ import annotations

import argparse
import importlib
import shlex
import sys
from pathlib import Path
from typing import Any, Callable, Optional, Sequence, TypeVar

from .runs import Workers

T = TypeVar("T")


def list_of(convert: Callable[[str], T]) -> Callable[[str], tuple[T, ...]]:
    """A converter of comma-separated values."""

    def parse(text: str) -> tuple[T, ...]:
        try:
            return tuple(convert(item.strip()) for item in text.split(","))
        except (KeyError, ValueError) as error:
            raise argparse.ArgumentTypeError(str(error)) from None

    return parse


def workers_of(text: str) -> Workers:
    """A number, or the import path ``module:name`` of a map-like callable."""
    module, colon, name = text.partition(":")
    if not colon:
        return int(text)
    workers: Workers = getattr(importlib.import_module(module), name)
    return workers


def add_common(parser: argparse.ArgumentParser, out: Path) -> None:
    """Add --workers, --out, --markdown, --report and --quiet; `out` is the default folder."""
    add = parser.add_argument
    add(
        "--workers",
        type=workers_of,
        default=1,
        metavar="N",
        help="processes, -1 for one a processor, or module:name of a map-like callable",
    )
    add(
        "--out",
        type=Path,
        default=out,
        metavar="FOLDER",
        help=f"folder of results (default: {out})",
    )
    add(
        "--markdown",
        type=Path,
        metavar="FILE",
        help="write the tables into the marked blocks of this document, and the plots beside it",
    )
    add("--report", action="store_true", help="run nothing; report what is finished")
    add("--quiet", action="store_true", help="no progress bar")


def command_line(script: str, arguments: list[str]) -> str:
    return shlex.join(["python", f"benchmarks/{script}", *arguments])


#: The exit code of a benchmark that Ctrl-C ended.
STOPPED = 130


def runs_of(kind: Any, tasks: Sequence[Any], options: argparse.Namespace) -> Optional[list[Any]]:
    """The runs of the tasks, done now or, with --report, before; None after Ctrl-C.

    `kind` has the functions `run_all` and `finished` for its kind of run.
    """
    path = options.out / "runs.jsonl"
    if options.report:
        return list(kind.finished(tasks, path))
    try:
        return list(kind.run_all(tasks, options.workers, path=path, progress=not options.quiet))
    except KeyboardInterrupt:
        print(f"Stopped; the same command goes on from {path}.", file=sys.stderr)
        return None
