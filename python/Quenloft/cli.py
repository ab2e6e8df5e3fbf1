# SPDX-License-Identifier: MIT
"""The command line: ``quenloft minimize``, ``history`` and ``demo``.

``python -m Quenloft`` is the same program.

Exit codes: see `ExitCode`. Results go to standard output; progress and errors, in one line each,
to standard error.
"""

from __future__ import annotations

import argparse
import ast
import builtins
import importlib
import importlib.util
import json
import math
import os
import re
import sys
import sysconfig
import traceback
from enum import IntEnum
from pathlib import Path
from types import ModuleType
from typing import Any, Callable, Iterable, NoReturn, Optional, Sequence

from . import demo
from ._command import FAILURES, Command
from ._errors import JournalError, NonFiniteError
from ._history import History, Trial
from ._journal import Recording, read_journal
from ._minimize import minimize
from ._result import OptimizeResult, Status
from ._variables import coordinates

PROGRAM = "quenloft" if Path(sys.argv[0]).stem == "quenloft" else "python -m Quenloft"


class ExitCode(IntEnum):
    """What the program ends with."""

    SUCCESS = 0  #: a feasible point was found, and the search ended by one of its stops
    FAILURE = 1  #: the function or a constraint failed; or `demo` missed the published figure
    USAGE = 2  #: wrong arguments, an unknown function, a journal that does not fit; nothing was run
    INFEASIBLE = 3  #: the search ended by one of its stops without a feasible point
    INTERRUPTED = 130  #: Ctrl-C; what was found so far was shown


class UsageError(Exception):
    """The user's mistake, in one line."""


def main(arguments: Optional[Sequence[str]] = None) -> int:
    """Run the program and return its exit code."""
    words = list(sys.argv[1:] if arguments is None else arguments)
    # A bound such as -1:2 is a value, though it begins like an option.
    parser = _parser()
    options = parser.parse_args([f" {w}" if re.match(r"-(\d|\.|inf|nan)", w) else w for w in words])
    try:
        code = int(options.run(options))
        sys.stdout.flush()  # so that a closed pipe is noticed here
        return code
    except KeyboardInterrupt:
        print("interrupted", file=sys.stderr)
        return ExitCode.INTERRUPTED
    except BrokenPipeError:  # the reader of a pipe, such as head, has seen enough
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return ExitCode.SUCCESS
    except (UsageError, JournalError, OSError) as error:
        return _report(error, str(error), options, ExitCode.USAGE)


class _Parser(argparse.ArgumentParser):
    def error(self, message: str) -> NoReturn:
        self.exit(ExitCode.USAGE, f"{self.prog}: error: {message} (--help shows the options)\n")


def _parser() -> argparse.ArgumentParser:
    from . import __version__

    parser = _Parser(
        prog=PROGRAM,
        description="Global minimisation of expensive black-box functions over boxes.",
        epilog="Exit codes: 0 a feasible minimum; 1 the function failed; 2 wrong usage; "
        "3 no feasible point; 130 interrupted.",
    )
    parser.add_argument("--version", action="version", version=f"Quenloft {__version__}")
    commands = parser.add_subparsers(metavar="command", required=True)
    common = argparse.ArgumentParser(add_help=False)
    common.add_argument("--json", action="store_true", help="write one JSON object")
    common.add_argument("--plot", metavar="FILE", help="write a picture (png, pdf or svg)")
    common.add_argument(
        "--traceback", action="store_true", help="show the traceback of an error, too"
    )
    _add_minimize(commands, common)
    _add_history(commands, common)
    _add_demo(commands, common)
    return parser


def _add_minimize(commands: Any, common: argparse.ArgumentParser) -> None:
    parser = commands.add_parser(
        "minimize",
        parents=[common],
        help="minimise a Python function or the output of a program",
        description="Minimise a Python function, or what a program writes (--command).",
    )
    parser.set_defaults(run=run_minimize)
    parser.add_argument(
        "function",
        nargs="?",
        help="module:function or file.py:function, called as by Quenloft.minimize",
    )

    problem = parser.add_argument_group("problem")
    several = {"nargs": "+", "action": "extend", "default": []}
    problem.add_argument(
        "--bounds",
        metavar="LOWER:UPPER",
        type=_bounds,
        required=True,
        **several,
        help="one for each number; NAME=LOWER:UPPER names it; :log after it makes it logarithmic, "
        ":int an integer, :STEP gives it steps",
    )
    problem.add_argument(
        "--choices",
        metavar="A,B",
        type=_choices,
        **several,
        help="one for each categorical variable; NAME=A,B names it; numbers are read as numbers",
    )
    problem.add_argument(
        "--constraint",
        metavar="FUNCTION",
        **several,
        help="feasible when <= 0; in this order. The last may be a number: of the constraint values "
        "that the function returns beside its own. With --command a pattern or key as for "
        "--objective, with '<= LIMIT' or '>= LIMIT' after it",
    )
    problem.add_argument(
        "--x0",
        metavar="POINT",
        type=_point,
        **several,
        help="points to evaluate first: A,B,... in the order of the variables, or NAME=A,NAME=B,...",
    )
    problem.add_argument(
        "--known", metavar="FILE", help="journal or CSV file of points whose values are known"
    )
    problem.add_argument(
        "--args", metavar="VALUE", type=_literal, **several, help="further arguments of function"
    )
    problem.add_argument(
        "--point",
        choices=("tuple", "list", "array", "mapping"),
        default="tuple",
        help="the form of the point that functions are given (%(default)s)",
    )
    problem.add_argument(
        "--nonfinite",
        choices=("raise", "infeasible"),
        help="what NaN or infinity means: an error (the default, unless --tolerate is given), or "
        "an infeasible point",
    )
    problem.add_argument(
        "--catch",
        metavar="EXCEPTION",
        **several,
        help="exceptions that make an infeasible point instead of an error: of Python, or "
        "module:Exception",
    )
    _add_program(parser, several)

    stops = parser.add_argument_group("stops")
    stops.add_argument("--maxfun", type=float, metavar="N", help="budget of trials, never exceeded")
    stops.add_argument("--maxtime", type=float, metavar="SECONDS", help="budget of time")
    stops.add_argument("--f-min", type=float, metavar="VALUE", help="value that is good enough")
    stops.add_argument(
        "--min-radius", type=float, metavar="R", help="radius of the best trial, in the unit box"
    )

    known = minimize.__kwdefaults__ or {}
    settings = parser.add_argument_group("settings of the search")
    for name, default in _settings().items():
        settings.add_argument(
            "--" + name.replace("_", "-"),
            type=int if name == "batch" else float,
            default=default,
            metavar="N" if name == "batch" else "X",
            help=_SETTINGS[name] + ("" if default is None else " (%(default)s)"),
        )
    settings.add_argument(
        "--no-local-models",
        dest="local_models",
        action="store_false",
        help="the search alone, without quadratic models around the best minima",
    )

    output = parser.add_argument_group("run")
    output.add_argument(
        "--journal", metavar="FILE", help="record every evaluation; go on from there if it exists"
    )
    if "workers" in known:
        output.add_argument(
            "--workers", type=int, metavar="N", help="evaluate at N points at a time"
        )
    output.add_argument(
        "--timeout", type=float, metavar="SECONDS", help="that one evaluation may take"
    )
    output.add_argument("--quiet", action="store_true", help="no progress, no summary")


def _add_program(parser: argparse.ArgumentParser, several: dict[str, Any]) -> None:
    program = parser.add_argument_group("program")
    program.add_argument(
        "--command",
        metavar="TEXT",
        help="program to run for each point, {NAME} stands for a value; not run by a shell",
    )
    program.add_argument(
        "--objective",
        metavar="PATTERN",
        help="regular expression with one group, or the key in a JSON file; by default the last "
        "number of the output",
    )
    program.add_argument(
        "--output",
        metavar="FILE",
        help="file that the program writes, read instead of standard output; JSON if it ends so",
    )
    program.add_argument(
        "--template",
        metavar="SOURCE:TARGET",
        type=_template,
        **several,
        help="write TARGET with the placeholders of SOURCE filled in",
    )
    program.add_argument(
        "--file", metavar="PATH", **several, help="link this into each working directory"
    )
    program.add_argument(
        "--tolerate",
        choices=FAILURES,
        **several,
        help="failures that make an infeasible point instead of an error",
    )
    program.add_argument("--directory", metavar="PATH", help="where working directories are made")
    program.add_argument(
        "--keep",
        choices=("never", "failed", "always"),
        default="never",
        help="which working directories are left (%(default)s)",
    )


def _settings() -> dict[str, Any]:
    """The parameters of the search, and their defaults, as `minimize` has them."""
    defaults = minimize.__kwdefaults__ or {}
    return {name: defaults[name] for name in _SETTINGS if name in defaults}


_SETTINGS = {
    "overestimation": "larger explores more (2.5, without local models 2)",
    "overestimation_local": "the same for local steps",
    "local_vs_global": "local steps for each global one",
    "spread": "neighbours are 2 pi / X apart",
    "cross": "size of the first cross of trials, 0 for none",
    "batch": "trials of local models are made for N workers, however many there are",
}


def _add_history(commands: Any, common: argparse.ArgumentParser) -> None:
    parser = commands.add_parser(
        "history",
        parents=[common],
        help="show or export a journal",
        description="Show or export the journal of a run, of one that is still going on too.",
    )
    parser.set_defaults(run=run_history)
    parser.add_argument("journal", help="the file given to --journal")
    parser.add_argument(
        "--csv",
        nargs="?",
        const="-",
        metavar="FILE",
        help="write every trial as a line; to standard output without FILE",
    )
    parser.add_argument(
        "--last",
        type=int,
        metavar="N",
        help="trials shown or written: 10 in the table and all in --csv and --json by default",
    )


def _add_demo(commands: Any, common: argparse.ArgumentParser) -> None:
    parser = commands.add_parser(
        "demo",
        parents=[common],
        help="calibrate a model of an enzyme to published measurements",
        description="Fit rate laws of an enzyme to published measurements and compare.",
    )
    parser.set_defaults(run=run_demo)
    parser.add_argument(
        "--maxfun", type=int, default=1000, metavar="N", help="trials of each search (%(default)s)"
    )


def run_minimize(options: argparse.Namespace) -> int:
    """The command ``minimize``."""
    given = [name for name, _ in (*options.bounds, *options.choices)]
    names = _complete(given, len(options.bounds)) if any(given) else None
    function, constraints = _problem(options, names or _complete(given, len(options.bounds)))
    if options.plot:
        _check_plot(options.plot)
    further: dict[str, Any] = {
        name: getattr(options, name)
        for name in (*_settings(), "local_models", "workers")
        if getattr(options, name, None) is not None
    }
    further["nonfinite"] = options.nonfinite or ("infeasible" if options.tolerate else "raise")
    further["catch"] = tuple(map(_exception, options.catch))
    if options.command is None:  # which has its own
        further["timeout"] = options.timeout
    try:
        result = minimize(
            function,
            [bounds for _, bounds in options.bounds],
            tuple(options.args),
            names=names,
            categories=[choices for _, choices in options.choices],
            constraints=constraints,
            point=options.point,
            x0=options.x0 or None,
            known=options.known,
            maxfun=options.maxfun,
            maxtime=options.maxtime,
            f_min=options.f_min,
            min_radius=options.min_radius,
            on_interrupt="return",
            progress=not options.quiet,
            journal=options.journal,
            **further,
        )
    except JournalError:
        raise
    except (Exception, SystemExit) as error:  # a function that exits has failed, too
        so_far = getattr(error, "result", None)
        if not isinstance(so_far, OptimizeResult):  # refused before anything was evaluated
            raise UsageError(str(error)) from error
        if so_far.x is not None or options.json:
            _show(so_far, names, options)
        text = _describe(error)
        if isinstance(error, NonFiniteError):  # its advice, in the words of the command line
            text = str(error).partition(";")[0] + "; --nonfinite infeasible goes on from there"
        return _report(error, text, options, ExitCode.FAILURE)
    _show(result, names, options)
    if result.status == Status.INTERRUPTED:
        return ExitCode.INTERRUPTED
    return ExitCode.SUCCESS if result.success else ExitCode.INFEASIBLE


def _problem(
    options: argparse.Namespace, names: Sequence[str]
) -> tuple[Callable[..., Any], Sequence[Any]]:
    """Objective and constraints: Python functions, or those of a program."""
    if (options.function is None) == (options.command is None):
        raise UsageError("name one function, before the options, or give --command")
    if options.command is None:
        for name in ("objective", "output", "template", "file", "tolerate", "directory"):
            if getattr(options, name):
                raise UsageError(f"--{name} goes with --command")
        constraints = [int(c) if c.isdecimal() else load_function(c) for c in options.constraint]
        return load_function(options.function), constraints
    if options.args:
        raise UsageError("--args does not go with --command")
    try:
        command = Command(
            options.command,
            objective=options.objective,
            constraints=options.constraint,
            templates=options.template,
            files=options.file,
            output=options.output,
            timeout=options.timeout,
            tolerate=options.tolerate,
            directory=options.directory,
            keep=options.keep,
            names=names,
        )
    except ValueError as error:
        raise UsageError(str(error)) from error
    return command, command.constraints


def run_history(options: argparse.Namespace) -> int:
    """The command ``history``."""
    if options.json and options.csv == "-":
        raise UsageError("--json and --csv both write to standard output: name a file for --csv")
    if options.last is not None and options.last < 0:
        raise UsageError(f"--last must be 0 or more, not {options.last}")
    if options.plot:
        _check_plot(options.plot)
    recording = read_journal(options.journal)
    history = recording.history
    # The table is for the eye, the others are for programs: all trials, unless --last is given.
    last = min(10 if options.last is None else options.last, len(history))
    trials = history[len(history) - last :] if options.last is not None else history
    if options.csv == "-":
        history.to_csv(sys.stdout, len(history) - len(trials))
    elif options.csv:
        history.to_csv(options.csv, len(history) - len(trials))
    if options.json:
        _print_json(
            {"header": recording.header, "trials": [_json_trial(trial) for trial in trials]}
        )
    elif not options.csv:
        print(_describe_recording(recording, last))
    if options.plot:
        _plot(recording, recording.history, options.plot)
    return ExitCode.SUCCESS


def run_demo(options: argparse.Namespace) -> int:
    """The command ``demo``."""
    if options.plot:
        _check_plot(options.plot)
    fitted = demo.calibrate(options.maxfun)
    laws = demo.choose_law(options.maxfun)
    limited = demo.calibrate_limited(options.maxfun)
    agrees = demo.agrees(fitted)
    if options.json:
        _print_json(
            {
                "published": demo.PUBLISHED,
                "agrees": agrees,
                "calibrate": _json_result(fitted, demo.NAMES),
                "choose_law": _json_result(laws, demo.NAMES),
                "calibrate_limited": _json_result(limited, demo.NAMES),
            }
        )
    else:
        print(_describe_demo(fitted, laws, limited, agrees))
    if options.plot:
        _plot(laws, laws.history, options.plot)
    return ExitCode.SUCCESS if agrees else ExitCode.FAILURE


def load_function(name: str) -> Callable[..., Any]:
    """The function that ``module:function`` or ``path/to/file.py:function`` names.

    Raises
    ------
    UsageError
        There is none.
    """
    place, colon, attribute = name.rpartition(":")
    if not colon or not place or not attribute:
        raise UsageError(f"{name!r} is not of the form module:function or file.py:function")
    try:
        found: Any = _import_file(Path(place)) if place.endswith(".py") else _import_module(place)
    except Exception as error:
        raise UsageError(f"cannot import {place}: {_describe(error)}") from error
    for part in attribute.split("."):
        try:
            found = getattr(found, part)
        except AttributeError:
            raise UsageError(f"{place} has no {attribute}") from None
    if not callable(found):
        raise UsageError(f"{name} is not a function but of type {type(found).__name__}")
    return found  # type: ignore[no-any-return]


def _exception(name: str) -> type[Exception]:
    found = load_function(name) if ":" in name else getattr(builtins, name, None)
    if not (isinstance(found, type) and issubclass(found, Exception)):
        raise UsageError(f"--catch {name}: there is no such exception")
    return found


def _import_module(name: str) -> ModuleType:
    if os.getcwd() not in sys.path and "" not in sys.path:
        sys.path.insert(0, os.getcwd())
    return importlib.import_module(name)


def _import_file(path: Path) -> ModuleType:
    if not path.is_file():
        raise FileNotFoundError("no such file")
    known = sys.modules.get(path.stem)
    if known is not None and Path(getattr(known, "__file__", "") or "") == path.resolve():
        return known  # the same file names the function and a constraint
    spec = importlib.util.spec_from_file_location(path.stem, path.resolve())
    assert spec is not None and spec.loader is not None  # a suffix .py always has a loader
    module = importlib.util.module_from_spec(spec)
    sys.modules[path.stem] = module
    sys.path.insert(0, str(path.resolve().parent))  # as for a program that is run
    spec.loader.exec_module(module)
    return module


def _bounds(text: str) -> tuple[Optional[str], tuple[Any, ...]]:
    name, values = _named(text)
    parts = values.split(":")
    if (
        name is None
        and re.fullmatch(r"[\w./-]+:[^\W\d][\w.]*", values)
        and not _is_number(parts[1])
    ):
        raise argparse.ArgumentTypeError(
            f"{values!r} is no bound: a function is named before --bounds, not after it"
        )
    if len(parts) < 2 or not all(_is_number(p) or p in ("log", "int") for p in parts[2:]):
        raise argparse.ArgumentTypeError(
            f"{text.strip()!r} is not LOWER:UPPER, with :log, :int or :STEP after it"
        )
    if not (_is_number(parts[0]) and _is_number(parts[1])):
        raise argparse.ArgumentTypeError(f"{text.strip()!r} does not hold two numbers")
    extras = [float(part) if _is_number(part) else part for part in parts[2:]]
    return name, (float(parts[0]), float(parts[1]), *extras)


def _is_number(text: str) -> bool:
    try:
        float(text)
    except ValueError:
        return False
    return True


def _template(text: str) -> tuple[str, str]:
    source, _colon, target = text.partition(":")
    if not (source and target):
        raise argparse.ArgumentTypeError(f"{text!r} is not SOURCE:TARGET")
    return source, target


def _choices(text: str) -> tuple[Optional[str], list[Any]]:
    name, values = _named(text)
    choices = [_literal(value) for value in values.split(",")]
    if "" in choices:
        raise argparse.ArgumentTypeError(f"{text.strip()!r} holds an empty choice")
    return name, choices


def _point(text: str) -> Any:
    """A point: values in order, or by name."""
    parts = [_named(part) for part in text.split(",")]
    values = [_literal(value) for _, value in parts]
    names = [name for name, _ in parts]
    if None not in names:
        return dict(zip(names, values))
    if any(names):
        raise argparse.ArgumentTypeError(f"{text.strip()!r} names some values and others not")
    return values


def _named(text: str) -> tuple[Optional[str], str]:
    name, equals, values = text.strip().partition("=")
    return (name, values) if equals else (None, text.strip())


def _literal(text: str) -> Any:
    """A number, True, False or None as such, anything else as text."""
    text = text.strip()
    try:
        value = ast.literal_eval(text)
    except (ValueError, SyntaxError):
        return text
    return value if value is None or isinstance(value, (bool, int, float)) else text


def _complete(given: Sequence[Optional[str]], dimension: int) -> list[str]:
    """Names for all variables, with the usual ones for those that have none."""
    return [
        name or (f"x[{i}]" if i < dimension else f"categories[{i - dimension}]")
        for i, name in enumerate(given)
    ]


def _show(
    result: OptimizeResult, names: Optional[Sequence[str]], options: argparse.Namespace
) -> None:
    if names is None:
        count = result.history.dimension + len(result.history.choices)
        names = _complete([None] * count, result.history.dimension)
    if options.json:
        _print_json(_json_result(result, names))
    elif not options.quiet:
        print(_describe_result(result, names))
    if options.plot:
        _plot(result, result.history, options.plot)


def _describe_result(result: OptimizeResult, names: Sequence[str]) -> str:
    history = result.history
    if result.x is None:
        return f"nothing was evaluated: {result.message}"
    lines = []
    if math.isfinite(result.fun):
        lines.append(("minimum", _number(result.fun)))
    else:
        lines.append(("minimum", "none: no feasible point was found"))
        if math.isfinite(result.maxcv):
            lines.append(("violation", f"{_number(result.maxcv)} at the point that came closest"))
    values = [*map(_number, _numbers(result.x, result)), *map(str, result.categories)]
    for position, (name, value) in enumerate(zip(names, values)):
        lines.append(("" if position else "at", f"{name} = {value}"))
    for position, local in enumerate(result.locals[1:4]):
        where = ", ".join([*map(_number, _numbers(local.x, result)), *map(str, local.categories)])
        lines.append(("" if position else "others", f"{_number(local.fun)} at {where}"))
    if len(result.locals) > 4:
        lines.append(("", f"and {len(result.locals) - 4} more local minima"))
    calls = f"{result.nit} trials, {result.nfev} calls of the function"
    if result.replayed:
        calls += f", {result.replayed} from the journal"
    lines.append(("effort", f"{calls}, {result.elapsed_seconds:.2f} s"))
    lines.append(("best", f"found by trial {history.best() + 1} of {len(history)}"))
    lines.append(("stopped", result.message))
    return _aligned(lines)


def _describe_recording(recording: Recording, last: int) -> str:
    header, history = recording.header, recording.history
    names = header["names"]
    lines = [("objective", header["objective"])]
    for position, (lower, upper) in enumerate(header["bounds"]):
        scale = ", logarithmic" if position in header["logarithmic"] else ""
        lines.append(
            ("" if position else "variables", f"{names[position]} in [{lower:g}, {upper:g}]{scale}")
        )
    for name, choices in zip(names[history.dimension :], header["categories"]):
        lines.append(("", f"{name} in {{{', '.join(map(str, choices))}}}"))
    for position, constraint in enumerate(header["constraints"]):
        lines.append(("" if position else "constraints", constraint))
    feasible = sum(index == history.goal for index in history.index)
    elapsed = history.time[-1] if len(history) else 0.0
    lines.append(("trials", f"{len(history)}, {feasible} of them feasible, in {elapsed:.2f} s"))
    if not len(history):
        return _aligned(lines)
    best = history[history.best()]
    lines.append(("best", f"{_outcome(best, history)} by trial {best.number + 1}"))
    values = [*map(_number, best.x), *map(str, best.categories)]
    for position, (name, value) in enumerate(zip(names, values)):
        lines.append(("" if position else "at", f"{name} = {value}"))
    text = _aligned(lines)
    if last > 0:
        text += "\n\n" + _table(history[-last:], history, names)
    return text


def _table(trials: Iterable[Trial], history: History, names: Sequence[str]) -> str:
    rows = [["trial", *names, "objective", "seconds"]]
    for trial in trials:
        values = [*(f"{x:.6g}" for x in trial.x), *map(str, trial.categories)]
        outcome = _outcome(trial, history)
        rows.append([str(trial.number + 1), *values, outcome, f"{trial.time:.3f}"])
    widths = [max(map(len, column)) for column in zip(*rows)]
    return "\n".join(
        "  ".join(cell.rjust(width) for cell, width in zip(row, widths)) for row in rows
    )


def _outcome(trial: Trial, history: History) -> str:
    if trial.index == history.goal:
        return _number(trial.value)
    if trial.index < history.constraint_count:
        return f"constraint {trial.index} is {trial.value:.6g}"
    return "not finite"


def _describe_demo(
    fitted: OptimizeResult, laws: OptimizeResult, limited: OptimizeResult, agrees: bool
) -> str:
    published = demo.PUBLISHED
    values = {"Vmax": fitted.x[0], "Km": fitted.x[1], "sum of squares": fitted.fun}
    lines = [
        "Rates of an enzymatic reaction in Puromycin-treated cells, 12 measurements",
        "",
        f"{'Michaelis-Menten law':<24}{'found':>10}{'published':>12}",
    ]
    for name, value in values.items():
        lines.append(f"  {name:<22}{value:>10.6g}{published[name]:>12.6g}")
    verdict = "agree within 0.1 %" if agrees else "DIFFER by more than 0.1 %"
    lines += [f"  The sums of squares {verdict} ({fitted.nit} trials).", ""]
    lines.append("Four rate laws, chosen together with their parameters: lowest sums reached")
    history = laws.history
    for name in demo.RATE_LAWS:
        lowest = min(trial.value for trial in history if trial.categories == (name,))
        mark = "  <- best" if laws.categories == (name,) else ""
        lines.append(f"  {name:<22}{lowest:>10.2f}{mark}")
    lines += [
        "",
        f"Michaelis-Menten law with a slope Vmax / Km of at most {demo.SLOPE_LIMIT:g}",
        f"  Vmax {limited.x[0]:.6g}, Km {limited.x[1]:.6g}, "
        f"slope {limited.x[0] / limited.x[1]:.6g}, sum of squares {limited.fun:.6g}",
    ]
    return "\n".join(lines)


def _aligned(lines: Sequence[tuple[str, str]]) -> str:
    width = max(len(label) for label, _ in lines)
    return "\n".join(f"{label:<{width}}  {text}" for label, text in lines)


def _number(value: float) -> str:
    return f"{value:.8g}"


def _json_result(result: OptimizeResult, names: Sequence[str]) -> dict[str, Any]:
    point = None if result.x is None else _numbers(result.x, result)
    return {
        "names": list(names),
        "x": point,
        "categories": list(result.categories),
        "fun": result.fun,
        "success": result.success,
        "status": Status(result.status).name,
        "message": result.message,
        "nfev": result.nfev,
        "nit": result.nit,
        "maxcv": result.maxcv,
        "constraints": list(result.constraints),
        "locals": [
            {
                "x": _numbers(local.x, result),
                "categories": list(local.categories),
                "fun": local.fun,
                "radius": local.radius,
            }
            for local in result.locals
        ],
        "replayed": result.replayed,
        "elapsed_seconds": result.elapsed_seconds,
    }


def _numbers(x: Any, result: OptimizeResult) -> list[float]:
    numbers = coordinates(x, result.history.dimension)
    return [value if isinstance(value, int) else float(value) for value in numbers]


def _json_trial(trial: Trial) -> dict[str, Any]:
    return {
        "x": list(trial.x),
        "categories": list(trial.categories),
        "index": trial.index,
        "value": trial.value,
        "time": trial.time,
        "constraints": list(trial.constraints),
        "objective": trial.objective,
    }


def _print_json(value: Any) -> None:
    print(json.dumps(_plain(value), indent=2, allow_nan=False))


def _plain(value: Any) -> Any:
    """The value without what JSON lacks: NaN and infinities become null, other objects text."""
    if isinstance(value, dict):
        return {str(key): _plain(item) for key, item in value.items()}
    if isinstance(value, (list, tuple)):
        return [_plain(item) for item in value]
    if isinstance(value, float):
        return float(value) if math.isfinite(value) else None
    return value if value is None or isinstance(value, (bool, int, str)) else str(value)


def _check_plot(path: str) -> None:
    """Find out before the search, not after it, that its picture cannot be drawn."""
    from . import plots

    try:
        plots.check_format(path)
    except (ImportError, ValueError) as error:
        raise UsageError(str(error)) from error
    folder = Path(path).resolve().parent
    if not folder.is_dir():
        raise UsageError(f"cannot write {path}: there is no folder {folder}")


def _plot(source: Any, history: History, path: str) -> None:
    if len(history):
        from . import plots

        plots.save_overview(source, path)


def _describe(error: BaseException) -> str:
    """An exception in one line, with the place where it was raised."""
    text = " ".join(str(error).split())
    place = ""
    frames = traceback.extract_tb(error.__traceback__)
    libraries = tuple({sysconfig.get_path(name) for name in ("stdlib", "purelib", "platlib")})
    # The user's line, not that of subprocess.py which it called.
    for frame in reversed(frames):
        path = Path(frame.filename).resolve()
        is_ours = path.parent == Path(__file__).resolve().parent
        if not (is_ours or str(path).startswith(libraries) or frame.filename.startswith("<frozen")):
            place = f" ({path.name}, line {frame.lineno})"
            break
    point = vars(error).get("point")
    if isinstance(point, dict) and " at x = " not in text:
        text += " at " + ", ".join(f"{name} = {value}" for name, value in point.items())
    return f"{type(error).__name__}{': ' if text else ''}{text}{place}"


def _report(error: BaseException, text: str, options: argparse.Namespace, code: ExitCode) -> int:
    if options.traceback:
        traceback.print_exception(type(error), error, error.__traceback__)
    print(f"{PROGRAM}: error: {' '.join(text.split())}", file=sys.stderr)
    return code
