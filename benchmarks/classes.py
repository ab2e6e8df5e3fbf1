# SPDX-License-Identifier: MIT
"""Measure Quenloft and other global minimisers on classes of test functions.

A function counts as solved at the first trial close enough to its global minimizer in every
coordinate; a search ends there, or when its budget of trials is used up. Shown for each class:
functions solved, trials (mean with an unsolved function counted at the budget, median, 90 %,
maximum) and CPU seconds per 1,000 trials that the method takes beside the objective's own.

Every finished run is written to runs.jsonl in the folder of results at once: the same command
given again goes on where it was stopped. At the end the folder holds summary.json with versions,
machine and all runs, and operating_characteristics.png.

With --settings it searches for good settings without local models instead: every combination of
--overestimation and --local-vs-global is a method.

examples:
  python benchmarks/classes.py --classes "2D simple,Grishagin" --workers 2
  python benchmarks/classes.py --methods quenloft,quenloft:overestimation=3,scipy-direct-l
  python benchmarks/classes.py --settings --classes "2D hard" --overestimation 2,3,4
"""

from __future__ import annotations

import argparse
import os
import re
import sys
from pathlib import Path
from typing import Any, Optional

# One thread a search: runs are made side by side instead. Read when the module is loaded; the
# results are the same for any number.
os.environ.setdefault("OMP_NUM_THREADS", "1")

from class_sweep import functions, methods, report, runs
from sweep import command
from sweep.provenance import markdown_provenance, provenance
from sweep.tables import replace_block

DEFAULT_METHODS = (methods.OWN, methods.PLAIN, *methods.PEERS)
DEFAULT_OVERESTIMATION = (1.5, 2.0, 2.5, 3.0, 4.0)
DEFAULT_LOCAL_VS_GLOBAL = (0.1, 0.3, 1.0)


def method_list(text: str) -> tuple[str, ...]:
    """Identifiers separated by commas. A comma before NAME=VALUE goes on with the settings."""
    try:
        return tuple(methods.check(item) for item in re.split(r"\s*,\s*(?!\w+=)", text))
    except ValueError as error:
        raise argparse.ArgumentTypeError(str(error)) from None


def number_range(text: str) -> range:
    first, _, last = text.partition("-")
    numbers = range(int(first), int(last or first) + 1)
    if not numbers or numbers[0] < 1 or numbers[-1] > functions.FUNCTIONS_PER_CLASS:
        raise ValueError(f"numbers must be from 1 to {functions.FUNCTIONS_PER_CLASS}, not {text}")
    return numbers


def parse_arguments(arguments: Optional[list[str]] = None) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    add = parser.add_argument
    add(
        "--classes",
        type=command.list_of(lambda name: functions.CLASSES[name].name),
        default=tuple(functions.CLASSES),
        metavar="LIST",
        help=f"of {', '.join(functions.CLASSES)} (default: all)",
    )
    add(
        "--methods",
        type=method_list,
        default=DEFAULT_METHODS,
        metavar="LIST",
        help=f"of {', '.join(methods.PEERS)}, quenloft, quenloft-plain and quenloft:NAME=VALUE,... "
        f"(default: {', '.join(DEFAULT_METHODS)})",
    )
    add(
        "--functions",
        type=number_range,
        default=number_range("1-100"),
        metavar="FIRST-LAST",
        help="numbers of the functions of each class (default: 1-100)",
    )
    add("--budget", type=int, help="trials of a search (default: one for each class)")
    add("--settings", action="store_true", help="search for good settings")
    for name, values in (
        ("--overestimation", DEFAULT_OVERESTIMATION),
        ("--local-vs-global", DEFAULT_LOCAL_VS_GLOBAL),
    ):
        default = ",".join(f"{value:g}" for value in values)
        help_text = f"values to try with --settings (default: {default})"
        add(name, type=command.list_of(float), default=values, metavar="LIST", help=help_text)
    command.add_common(parser, Path("bench-out/classes"))
    return parser.parse_args(arguments)


def tasks_of(options: argparse.Namespace) -> list[runs.Task]:
    names = options.methods
    if options.settings:
        names = tuple(
            own_method(overestimation, local_vs_global)
            for overestimation in options.overestimation
            for local_vs_global in options.local_vs_global
        )
    return [
        runs.Task(name, method, number, budget_of(method, options.budget, name))
        for name in options.classes
        for method in names
        for number in options.functions
    ]


def budget_of(method: str, asked: Optional[int], class_name: str) -> int:
    budget: int = asked or functions.CLASSES[class_name].budget
    return min(budget, methods.MOST_TRIALS.get(method, budget))


def own_method(overestimation: float, local_vs_global: float) -> str:
    """The identifier with only those settings that are not the defaults."""
    changed = [("overestimation", overestimation, 2.0), ("local_vs_global", local_vs_global, 0.1)]
    text = ",".join(f"{name}={value:g}" for name, value, default in changed if value != default)
    return f"{methods.PLAIN}:{text}" if text else methods.PLAIN


def write_markdown(
    path: Path, options: argparse.Namespace, done: list[runs.Run], origin: dict[str, Any]
) -> None:
    summaries = report.summarise(done)
    document = path.read_text(encoding="utf-8")
    made_by = f"```sh\n{origin['command']}\n```\n\n{markdown_provenance(origin)}"
    if options.settings:
        content = f"{made_by}\n\n{report.markdown_settings(summaries)}"
        document = replace_block(document, "settings", content)
    else:
        image = path.with_name("images") / "operating_characteristics.png"
        image.parent.mkdir(exist_ok=True)
        report.plot(image, done)
        content = "\n\n".join(
            (
                made_by,
                report.markdown_means(summaries),
                f"![Operating characteristics](images/{image.name})",
                report.markdown_classes(summaries),
            )
        )
        document = replace_block(document, "methods", content)
    path.write_text(document, encoding="utf-8")


def main(arguments: Optional[list[str]] = None) -> int:
    arguments = sys.argv[1:] if arguments is None else arguments
    options = parse_arguments(arguments)
    tasks = tasks_of(options)
    done = command.runs_of(runs, tasks, options)
    if done is None:
        return command.STOPPED
    summaries = report.summarise(done)
    print(report.terminal_table(summaries))
    origin = {"command": command.command_line("classes.py", arguments), **provenance()}
    report.write_json(options.out / "summary.json", origin, summaries, done)
    if options.settings:
        print("\n" + report.markdown_settings(summaries))
    else:
        try:
            report.plot(options.out / "operating_characteristics.png", done)
        except ImportError:
            print("No plot: matplotlib is not installed.", file=sys.stderr)
    if options.markdown:
        write_markdown(options.markdown, options, done, origin)
    return 0


if __name__ == "__main__":
    sys.exit(main())
