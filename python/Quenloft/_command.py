# SPDX-License-Identifier: MIT
"""Objectives that are programs: a command, run once for each point."""

from __future__ import annotations

import json
import math
import os
import re
import shlex
import shutil
import signal
import subprocess
import tempfile
import threading
from collections.abc import Mapping
from contextlib import contextmanager, suppress
from hashlib import sha256
from pathlib import Path
from typing import Any, Iterable, Iterator, Literal, NamedTuple, Optional, Sequence, Union

from ._log import log
from ._settings import one_of

PathLike = Union[str, "os.PathLike[str]"]

#: What may go wrong with a command: it ends with an exit code that is not 0 (or by a signal), it
#: takes longer than it may, or the numbers are not in what it wrote.
Failure = Literal["exit", "timeout", "output"]
FAILURES: tuple[Failure, ...] = ("exit", "timeout", "output")

# A number as programs of all kinds write it, Fortran's exponents included. NaN and infinities count:
# else an earlier number would be taken in their place.
_NUMBER = re.compile(
    r"(?<![\w.])[-+]?(?:(?:\d+\.?\d*|\.\d+)(?:[eEdD][-+]?\d+)?|nan\b|inf(?:inity)?\b)",
    re.IGNORECASE,
)
_LIMIT = re.compile(r"^(.*?)\s*(<=|>=)\s*([^<>=]+)$", re.DOTALL)
_ANY_PLACEHOLDER = re.compile(r"\{([^{}\s:]+)(?::[^{}]*)?\}")
# Seconds between asking a program to end and making it.
_GRACE = 2.0
# Runs a program in this shell's process group, and kills the group when the pipe from the searching
# process ends: it is no more. The working directory, where the first argument names it, goes with it.
# Asked to end, the shell waits until the program has.
_GUARD = """
trap : TERM
folder=$1
shift
exec 3<&0
"$@" 3<&- &
program=$!
(read -r word || {
  kill -s KILL $program
  [ -z "$folder" ] || rm -rf -- "$folder"
  kill -s KILL 0
}) <&3 3<&- &
wait $program
code=$?
while kill -0 $program 2>/dev/null; do
  wait $program
  code=$?
done
exit $code
"""


class CommandError(RuntimeError):
    """A command gave no result.

    Attributes
    ----------
    kind : {"exit", "timeout", "output", "start"}
        It ended with another exit code than 0 or by a signal; it took longer than `timeout`; what
        it wrote does not hold the numbers; or it could not be run at all, which is never tolerated.
    command : str
        As it was run, the values filled in.
    directory : str or None
        Its working directory, None where that was removed.
    """

    def __init__(
        self, kind: str, message: str, command: str = "", directory: Optional[str] = None
    ) -> None:
        kept = f" (its files are in {directory})" if directory else ""
        super().__init__(message + kept)
        self.kind = kind
        self.command = command
        self.directory = directory
        self._arguments = (kind, message, command, directory)

    def __reduce__(self) -> Any:
        return type(self), self._arguments, self.__dict__


class Outputs(NamedTuple):
    """What one run of a command gave: the objective, and each constraint (feasible when <= 0)."""

    objective: float
    constraints: tuple[float, ...]


class Command:
    """An objective that runs a program, and constraints that come from the same run.

    Give it to `minimize` as ``fun``, and its attribute ``constraints`` as ``constraints``: they are
    told together, at infeasible points too. Each evaluation has a working directory of its own. The program is started without a shell; it and
    what it started in its process group are ended when it takes too long, when the search is
    interrupted and when the searching process dies. It can be pickled. POSIX systems only.

    Parameters
    ----------
    command : str or sequence of str
        The program and its arguments; a string is split as a shell would. ``{rate}`` stands for the
        value of the variable `rate`, ``{rate:.3f}`` for the same formatted, ``{0}`` for the value
        of the first variable. A program given by a relative path is looked for where the `Command`
        is made.
    objective : str, optional
        A regular expression with one group, which holds the number; of several matches the last
        counts. By default the last number of the output. Where `output` is a JSON file: a key,
        with dots into what is nested (``"forces.drag"``, ``"history.0"``).
    constraints : sequence of str
        The same for each constraint, with ``<= LIMIT`` or ``>= LIMIT`` after it
        (``r"stress = (\\S+) <= 250"``); ``<= 0`` when nothing is said.
    templates : mapping of path to path, or sequence of such pairs
        Input files: in the text of the first the placeholders are filled in, and the second is
        written with it, relative to the working directory. Other braces are left as they are.
    files : sequence of paths
        Files and folders that are linked into each working directory.
    output : path, optional
        The file, relative to the working directory, in which the numbers are looked for, instead of
        standard output. One whose name ends in ``.json`` is read as JSON.
    timeout : float, optional
        Seconds that one evaluation may take.
    tolerate : True, or sequence of {"exit", "timeout", "output"}
        Failures that make a failed point, whose value is NaN (to be used with
        ``nonfinite="infeasible"``), instead of a `CommandError`.
    directory : path, optional
        The folder in which working directories are made, itself made if need be; the system's for
        temporary files by default.
    keep : {"never", "failed", "always"}
        Which working directories are left. What the program wrote is in ``stdout.txt`` and
        ``stderr.txt`` there.
    names : sequence of str, optional
        Names of the variables in the order in which the search hands them over, choices last. Not
        needed for points that are mappings, nor for placeholders that are numbers.

    Raises
    ------
    TypeError, ValueError, OSError
        An argument is wrong; a template or a file is missing.

    Examples
    --------
    >>> import Quenloft
    >>> command = Quenloft.Command("echo {a} {b}", names=["a", "b"])
    >>> command((1.0, 2.5))
    2.5
    """

    def __init__(
        self,
        command: Union[str, Sequence[str]],
        *,
        objective: Optional[str] = None,
        constraints: Sequence[str] = (),
        templates: Union[Mapping[PathLike, PathLike], Iterable[tuple[PathLike, PathLike]]] = (),
        files: Iterable[PathLike] = (),
        output: Optional[PathLike] = None,
        timeout: Optional[float] = None,
        tolerate: Union[bool, Sequence[Failure]] = (),
        directory: Optional[PathLike] = None,
        keep: Literal["never", "failed", "always"] = "never",
        names: Optional[Sequence[str]] = None,
    ) -> None:
        self.words = tuple(shlex.split(command) if isinstance(command, str) else map(str, command))
        if not self.words:
            raise ValueError("the command is empty")
        if isinstance(constraints, str):
            constraints = [constraints]
        self.output = None if output is None else os.fspath(output)
        is_json = self.output is not None and self.output.lower().endswith(".json")
        self._objective = _Reading("objective", objective, is_json)
        self._limits = tuple(
            _Reading(f"constraints[{i}]", text, is_json) for i, text in enumerate(constraints)
        )
        #: Callables for `minimize`, one for each constraint, that share the run of the objective.
        self.constraints = tuple(
            _Constraint(self, i, reading.text or "") for i, reading in enumerate(self._limits)
        )
        self.templates = _read_templates(templates)
        self.files = tuple(str(Path(file).resolve(strict=True)) for file in files)
        if timeout is not None and not (isinstance(timeout, (int, float)) and timeout > 0):
            raise ValueError(f"timeout must be a number of seconds above 0, not {timeout!r}")
        self.timeout = None if timeout is None or math.isinf(timeout) else float(timeout)
        kinds: Iterable[str] = FAILURES if tolerate is True else tolerate or ()
        self.tolerate = frozenset(kinds)
        for kind in self.tolerate:
            one_of("tolerate", kind, FAILURES)
        self.directory = None if directory is None else os.path.abspath(directory)
        one_of("keep", keep, ("never", "failed", "always"))
        self.keep = keep
        self.names = None if names is None else tuple(names)
        program = Path(self.words[0])
        if os.sep in self.words[0] and "{" not in self.words[0]:
            self.words = (os.path.abspath(program), *self.words[1:])
        if self.names is not None:
            self._check_names(self.names)
        # What a journal knows it by.
        text = repr([self.words, self._objective, self._limits, self.templates, self.output])
        self.__qualname__ = f"{program.name} {sha256(text.encode()).hexdigest()[:16]}"
        self._latest = threading.local()

    def __call__(self, point: Any, choices: Sequence[Any] = ()) -> float:
        """The objective at a point: a mapping, or a sequence with the choices beside it."""
        return self.evaluate(point, choices).objective

    def evaluate(self, point: Any, choices: Sequence[Any] = ()) -> Outputs:
        """Objective and constraints at a point, from one run; the latest is remembered.

        Raises
        ------
        CommandError
            It failed, in a way that is not tolerated.
        """
        values = self._values(point, choices)
        key = [*values.items()]
        known = getattr(self._latest, "run", None)
        if known is None or known[0] != key:
            known = key, self._run(values)
            self._latest.run = known
        return known[1]

    def named(self, names: Sequence[str]) -> Command:
        """The same command for variables of these names."""
        twin = type(self).__new__(type(self))
        twin.__setstate__({**self.__getstate__(), "names": tuple(names)})
        twin.constraints = tuple(_Constraint(twin, c.number, c.__name__) for c in self.constraints)
        twin._check_names(twin.names or ())
        return twin

    def __repr__(self) -> str:
        return f"<command {shlex.join(self.words)}>"

    def __getstate__(self) -> dict[str, Any]:
        return {name: value for name, value in vars(self).items() if name != "_latest"}

    def __setstate__(self, state: dict[str, Any]) -> None:
        vars(self).update(state, _latest=threading.local())

    def _check_names(self, names: Sequence[str]) -> None:
        """Every placeholder is a variable's, and every variable has one."""
        used = set()
        for word in self.words:
            for name in _ANY_PLACEHOLDER.findall(word):
                if name not in names and not (name.isdigit() and int(name) < len(names)):
                    raise ValueError(f"the command has {{{name}}}; there are {', '.join(names)}")
                used.add(name)
        for target, text in self.templates:
            found = {match[1] for match in _placeholders(names).finditer(text)}
            if not found:
                raise ValueError(f"the template of {target} has no placeholder of a variable")
            used |= found
        unused = [name for i, name in enumerate(names) if name not in used and str(i) not in used]
        if unused:
            raise ValueError(f"{unused[0]} is neither in the command nor in a template")

    def _values(self, point: Any, choices: Sequence[Any]) -> dict[str, Any]:
        if isinstance(point, Mapping):
            return dict(point)
        values = [value.item() if hasattr(value, "item") else value for value in (*point, *choices)]
        names = self.names or [str(i) for i in range(len(values))]
        if len(names) != len(values):
            raise ValueError(f"{len(values)} values for the variables {', '.join(names)}")
        return dict(zip(names, values))

    def _run(self, values: dict[str, Any]) -> Outputs:
        words = [_fill(word, values) for word in self.words]
        left = [word for word in words if _ANY_PLACEHOLDER.search(word)]
        if left and self.names is None:
            raise ValueError(
                f"{left[0]!r} is no value: give the command names=, or minimize point='mapping'"
            )
        failure: Optional[CommandError] = None
        with self._workplace() as (folder, settle):
            try:
                goes = self.keep == "never"
                _run_in(folder, goes, words, self._inputs(values), self.files, self.timeout)
                outputs = self._read(folder)
            except CommandError as error:
                failure = error
                outputs = Outputs(math.nan, (math.nan,) * len(self._limits))
            settle(failure is not None)
        if failure is None or failure.kind in self.tolerate:
            if failure is None:
                log("debug", "%s: %s", shlex.join(words), outputs)
            else:
                log("warning", "failed point: %s", failure)
            return outputs
        kept = None if self.keep == "never" else folder
        raise CommandError(failure.kind, str(failure), shlex.join(words), kept)

    def _inputs(self, values: dict[str, Any]) -> Iterator[tuple[str, str]]:
        return ((target, _fill(text, values)) for target, text in self.templates)

    @contextmanager
    def _workplace(self) -> Iterator[Any]:
        """A new working directory, which goes afterwards unless it is to be kept."""
        if self.directory is not None:
            os.makedirs(self.directory, exist_ok=True)
        folder = tempfile.mkdtemp(prefix="evaluation-", dir=self.directory)
        is_kept = self.keep == "always"

        def settle(has_failed: bool) -> None:
            nonlocal is_kept
            is_kept = is_kept or (has_failed and self.keep == "failed")

        try:
            yield folder, settle
        finally:
            if not is_kept:
                shutil.rmtree(folder, ignore_errors=True)

    def _read(self, folder: str) -> Outputs:
        path = os.path.join(folder, self.output or "stdout.txt")
        try:
            with open(path, encoding="utf-8", errors="replace") as file:
                text = file.read()
        except OSError as error:
            raise CommandError("output", f"it wrote no {self.output}: {error.strerror}") from error
        if self._objective.is_json:
            try:
                text = json.loads(text)
            except ValueError as error:
                raise CommandError("output", f"{self.output} is no JSON: {error}") from error
        return Outputs(
            self._objective.find(text), tuple(limit.excess(text) for limit in self._limits)
        )


class _Constraint:
    """One constraint of a command, for `minimize`."""

    #: The run that gave it has given the others and the objective, too.
    keep_feasible = False

    def __init__(self, command: Command, number: int, name: str) -> None:
        self.command = command
        self.number = number
        self.__name__ = name

    def __call__(self, point: Any, choices: Sequence[Any] = ()) -> float:
        return self.command.evaluate(point, choices).constraints[self.number]


class _Reading:
    """How one number is found in what a program wrote."""

    def __init__(self, label: str, text: Optional[str], is_json: bool) -> None:
        self.label = label
        self.text = text
        self.is_json = is_json
        self.sign, self.limit = 1.0, 0.0
        source = text
        limit = _LIMIT.match(text) if text is not None and label != "objective" else None
        if limit and not limit[3].endswith(")"):  # or a part of the expression, as in (?<=a)
            source = limit[1]
            self.sign = 1.0 if limit[2] == "<=" else -1.0
            try:
                self.limit = float(limit[3])
            except ValueError:
                raise ValueError(f"{label}: {limit[3]!r} is no number, in {text!r}") from None
        elif label != "objective" and re.search(r"\s[<>]\s*[-+.\d]+$", text or ""):
            raise ValueError(f"{label}: a limit follows <= or >=, in {text!r}")
        self.source = source
        if is_json:
            if not source:
                raise ValueError(f"{label} needs the key of a value in the JSON file")
        elif source is not None:
            try:
                groups = re.compile(source, re.MULTILINE).groups
            except re.error as error:
                raise ValueError(f"{label} is no regular expression: {error}") from None
            if groups != 1:
                raise ValueError(
                    f"{label} must hold one group in parentheses, the number, not {groups}: "
                    f"{source!r}"
                )

    def __repr__(self) -> str:
        return f"{self.text!r}"

    def find(self, written: Any) -> float:
        """The number in a text, or in what a JSON file held."""
        found: Any = None
        if self.is_json:
            found = written
            for key in str(self.source).split("."):
                try:
                    found = found[int(key) if isinstance(found, list) else key]
                except (LookupError, TypeError, ValueError):
                    raise CommandError("output", f"it wrote no {self.source}") from None
        elif self.source is None:
            numbers = _NUMBER.findall(written)
            if not numbers:
                raise CommandError("output", f"no number in {_shown(written)}")
            found = numbers[-1]
        else:
            matches = re.findall(self.source, written, re.MULTILINE)
            if not matches:
                raise CommandError("output", f"no match of {self.source!r} in {_shown(written)}")
            found = matches[-1]
        try:
            return float(re.sub("[dD]", "e", found) if isinstance(found, str) else found)
        except (TypeError, ValueError, OverflowError):
            raise CommandError("output", f"{self.label}: {found!r} is no number") from None

    def excess(self, written: Any) -> float:
        """How far the number is beyond its limit."""
        return self.sign * (self.find(written) - self.limit)


def _read_templates(templates: Any) -> tuple[tuple[str, str], ...]:
    pairs = templates.items() if isinstance(templates, Mapping) else templates
    found = []
    for source, target in pairs:
        if os.path.isabs(target) or ".." in Path(target).parts:
            raise ValueError(f"{os.fspath(target)} must be a path in the working directory")
        found.append((os.fspath(target), Path(source).read_text(encoding="utf-8")))
    return tuple(found)


def _placeholders(names: Iterable[str]) -> re.Pattern[str]:
    known = "|".join(re.escape(name) for name in sorted(names, key=len, reverse=True))
    return re.compile(r"\{(" + known + r"|\d+)(?::([^{}\n]*))?\}")


def _fill(text: str, values: dict[str, Any]) -> str:
    ordered = list(values.values())

    def replace(match: re.Match[str]) -> str:
        name, form = match[1], match[2]
        if name in values:
            value = values[name]
        elif int(name) < len(ordered):
            value = ordered[int(name)]
        else:
            return match[0]
        # repr of a float is the shortest text that reads back as the same number.
        return format(value, form) if form else str(value)

    return _placeholders(values).sub(replace, text)


def _run_in(
    folder: str,
    goes_with_us: bool,
    words: Sequence[str],
    inputs: Iterable[tuple[str, str]],
    files: Iterable[str],
    timeout: Optional[float],
) -> None:
    """Run a program to its end, in a folder that is made ready for it."""
    if shutil.which(words[0]) is None:
        raise CommandError("start", f"{words[0]} cannot be run: there is no such program")
    label = _shown(shlex.join([os.path.basename(words[0]), *words[1:]]))
    for target, text in inputs:
        path = Path(folder, target)
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")
    for file in files:
        os.symlink(file, os.path.join(folder, os.path.basename(file)))
    with (
        open(os.path.join(folder, "stdout.txt"), "wb") as out,
        open(os.path.join(folder, "stderr.txt"), "wb") as err,
    ):
        process = subprocess.Popen(
            ["/bin/sh", "-c", _GUARD, "guard", folder if goes_with_us else "", *words],
            cwd=folder,
            stdin=subprocess.PIPE,
            stdout=out,
            stderr=err,
            start_new_session=True,
        )
        try:
            code = process.wait(timeout)
        except subprocess.TimeoutExpired:
            raise CommandError("timeout", f"{label} took longer than {timeout:g} s") from None
        finally:  # of an interruption, too
            _end(process)
    if code:
        # A shell's way to say that a signal ended the program.
        is_signal = code - 128 in {*signal.Signals}
        ended = f"signal {signal.Signals(code - 128).name}" if is_signal else f"exit code {code}"
        said = _shown(Path(folder, "stderr.txt").read_text(encoding="utf-8", errors="replace"))
        raise CommandError("exit", f"{label} ended with {ended}: {said}")


def _end(process: subprocess.Popen[bytes]) -> None:
    """End a process group, whatever of it is still there."""
    if process.poll() is None:
        os.killpg(process.pid, signal.SIGTERM)
        with suppress(subprocess.TimeoutExpired):
            process.wait(_GRACE)
    with suppress(ProcessLookupError):
        os.killpg(process.pid, signal.SIGKILL)
    process.wait()
    assert process.stdin is not None
    process.stdin.close()


def _shown(text: str) -> str:
    """The last line of a text, and not too much of it."""
    lines = text.strip().splitlines()
    line = lines[-1].strip() if lines else "nothing"
    return line if len(line) <= 120 else line[:117] + "..."
