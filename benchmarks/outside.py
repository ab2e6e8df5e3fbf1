# SPDX-License-Identifier: MIT
"""Measure Quenloft and other minimisers on problems of other people's making.

Classical functions in random boxes, BBOB, NIST regressions, kinetics, designs with constraints
and problems with categories, 430 in all (benchmarks/outside_problems). Every method gets 500
evaluations, which are counted in the function itself; what is random is run with five seeds. A
value is accurate to 1e-4 when it is above the minimum by at most 1e-4 of what the median of 200
random points is above it. The score is the mean over accuracies 1e-1, 1e-2, 1e-4, 1e-6 and 50,
100, 200, 500 evaluations of the share of problems solved. Designs have a table of their own.

Every finished run is written to runs.jsonl in the folder of results at once, and is done again
only when its method or its problem has changed: after work on Quenloft, the peers' runs are
taken from there. At the end the folder holds summary.json with versions, machine and all runs,
and data_profiles.png. Methods that are not installed are named and left out.

examples:
  python benchmarks/outside.py --workers 2
  python benchmarks/outside.py --methods quenloft,dlib,scipy-direct --dimensions 2,3 --half tuning
  python benchmarks/outside.py --methods quenloft:overestimation=3 --problems 'bbob-f1[5-9]-*'
  python benchmarks/outside.py --report --markdown docs/benchmarks.md
"""

from __future__ import annotations

import argparse
import fnmatch
import os
import re
import sys
from pathlib import Path
from typing import Any, Optional

# One thread a search: runs are made side by side instead. Read when the modules are loaded.
for variable in ("OMP_NUM_THREADS", "OPENBLAS_NUM_THREADS", "MKL_NUM_THREADS"):
    os.environ.setdefault(variable, "1")

import outside_problems  # noqa: E402
from outside_sweep import methods, report, runs  # noqa: E402
from sweep import command  # noqa: E402
from sweep.provenance import markdown_provenance, provenance  # noqa: E402
from sweep.tables import plain_table, replace_block  # noqa: E402

#: Left out unless asked for: a run takes many seconds.
SLOW = ("optuna-tpe", "optuna-gp")
ALL_METHODS = (*methods.OWN_METHODS, *methods.PEERS)
DEFAULT_METHODS = tuple(name for name in ALL_METHODS if name not in SLOW)
HALVES = {"all": None, "tuning": False, "held-out": True}


def method_list(text: str) -> tuple[str, ...]:
    """Identifiers separated by commas. A comma before NAME=VALUE goes on with the options."""
    try:
        return tuple(methods.check(item) for item in re.split(r"\s*,\s*(?!\w+=)", text))
    except ValueError as error:
        raise argparse.ArgumentTypeError(str(error)) from None


def instances(text: str) -> range:
    first, _, last = text.partition("-")
    return range(int(first), int(last or first) + 1)


def parse_arguments(arguments: Optional[list[str]] = None) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    add = parser.add_argument
    add(
        "--methods",
        type=method_list,
        metavar="LIST",
        help=f"of {', '.join(ALL_METHODS)} and quenloft:NAME=VALUE,... "
        f"(default: all but {', '.join(SLOW)}, which take long; with --report all)",
    )
    add(
        "--problems",
        type=command.list_of(str),
        metavar="LIST",
        help="names or patterns such as 'ackley-*' (default: all)",
    )
    add(
        "--kinds",
        type=lambda text: tuple(item.strip() for item in text.split(";")),
        metavar="LIST",
        help=f"separated by semicolons, of {'; '.join(outside_problems.ALL_KINDS)}",
    )
    add("--dimensions", type=command.list_of(int), metavar="LIST", help="(default: all)")
    add(
        "--half",
        choices=tuple(HALVES),
        default="all",
        help="tuning: odd instances, to tune on; held-out: the others",
    )
    add(
        "--bbob-instances",
        type=instances,
        metavar="FROM-TO",
        help="these instances of BBOB alone, to measure on many that nothing was chosen on",
    )
    add(
        "--seeds",
        type=int,
        default=runs.SEEDS,
        help=f"runs of what is random (default: {runs.SEEDS})",
    )
    add(
        "--budget",
        type=int,
        default=runs.BUDGET,
        help=f"evaluations (default: {runs.BUDGET}, which the score needs)",
    )
    command.add_common(parser, Path("bench-out/outside"))
    return parser.parse_args(arguments)


def chosen_problems(options: argparse.Namespace) -> list[outside_problems.Problem]:
    if options.bbob_instances is not None:
        bbob = outside_problems.bbob
        found = [
            p
            for p in bbob.problems(options.dimensions or bbob.DIMENSIONS, options.bbob_instances)
            if not options.kinds or p.kind in options.kinds
        ]
    else:
        found = outside_problems.load(options.kinds, options.dimensions, HALVES[options.half])
    if options.problems:
        found = [
            p
            for p in found
            if any(fnmatch.fnmatch(p.name, pattern) for pattern in options.problems)
        ]
    if not found:
        raise SystemExit("No such problems.")
    return found


def installed(names: tuple[str, ...]) -> list[str]:
    """Those that can be run; the others are named."""
    found = []
    for name in names:
        missing = methods.missing(name)
        if missing:
            print(f"Left out: {methods.label(name)} ({missing} is missing).", file=sys.stderr)
        else:
            found.append(name)
    return found


def write_markdown(path: Path, done: list[runs.Run], origin: dict[str, Any]) -> None:
    image = path.with_name("images") / "data_profiles.png"
    image.parent.mkdir(exist_ok=True)
    report.plot(image, done)
    made_by = f"```sh\n{origin['command']}\n```\n\n{markdown_provenance(origin)}"
    content = f"{made_by}\n\n{report.markdown(done, f'images/{image.name}')}"
    document = replace_block(path.read_text(encoding="utf-8"), "outside", content)
    path.write_text(document, encoding="utf-8")


def main(arguments: Optional[list[str]] = None) -> int:
    arguments = sys.argv[1:] if arguments is None else arguments
    options = parse_arguments(arguments)
    names = options.methods or (DEFAULT_METHODS if not options.report else ALL_METHODS)
    problems = chosen_problems(options)
    if not outside_problems.load(outside_problems.bbob.KINDS):
        print("Left out: BBOB (ioh is missing).", file=sys.stderr)
    tasks = runs.tasks_of(problems, installed(names), options.seeds, options.budget)
    done = command.runs_of(runs, tasks, options)
    if done is None:
        return command.STOPPED
    for title, (headings, rows) in report.tables(done):
        print(f"{title}\n{plain_table(headings, rows)}\n")
    for failure, count in report.failures(done).items():
        print(f"{count} runs ended by an error of {failure}", file=sys.stderr)
    for problem, accuracy in report.below_minimum(done).items():
        print(f"Lower than the known minimum of {problem}: {accuracy:.2g}", file=sys.stderr)
    packages = ("Quenloft", *methods.PACKAGES, "numpy", "ioh")
    command_line = command.command_line("outside.py", arguments)
    origin = {"command": command_line, **provenance(packages)}
    report.write_json(options.out / "summary.json", origin, done)
    try:
        report.plot(options.out / "data_profiles.png", done)
    except ImportError:
        print("No plot: matplotlib is not installed.", file=sys.stderr)
    if options.markdown:
        write_markdown(options.markdown, done, origin)
    return 0


if __name__ == "__main__":
    sys.exit(main())
