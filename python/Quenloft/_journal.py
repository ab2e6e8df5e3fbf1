# SPDX-License-Identifier: MIT
"""The journal of a run: a file that holds every evaluation before the next one starts.

The header describes problem and settings. A row is one evaluation, in the order in which they
ended: the phase, a column for each variable (``x0``, ``x1``, ... ``category0``, ...), ``idx``,
``value``, ``time``, ``error`` (text of an exception that was caught), and where there are constraints
a column for each (``g0``, ...) and ``objective``. NULL is NaN: not known. ``idx`` counts "nothing
failed" as one more constraint after the caller's, whether or not failures were allowed: that may
change from session to session. `_database` says how rows are kept.
"""

from __future__ import annotations

import math
import os
import re
import sys
import warnings
from dataclasses import asdict, dataclass
from typing import Any, Optional, Sequence

from . import _version
from ._database import Database, Kind, Path, read
from ._digest import Unknown, digest, digests
from ._errors import JournalError
from ._history import History
from ._known import Known
from ._observation import Entry
from ._plan import Plan, name_of

_RUN = Kind("run", 0x516C6674, 3)  # "Qlft"
# Keys of the header that may differ between the sessions of a run: the digest stands for the
# arguments, whose text may change with the order of a set.
_INFORMATION = ("version", "interpreter", "args", "nonfinite")


@dataclass(frozen=True)
class Recording:
    """What a journal holds.

    Attributes
    ----------
    header : dict
        Problem and settings: ``"objective"`` (str), ``"args"`` (str), ``"bounds"`` (list of
        ``[lower, upper]``), ``"logarithmic"`` and ``"integers"`` (lists of positions), ``"numbers"``
        (list of str: each numerical variable in words), ``"names"`` (list of str: the
        numerical variables, then the categorical ones), ``"categories"`` (list of lists of choices;
        those that JSON cannot hold as their text), ``"constraints"`` (list of str), ``"guards"``
        (list of bool: nothing was called after this constraint where it is violated),
        ``"nonfinite"``, and the parameters of the search by their names; ``"version"`` is that
        of the package that began the journal, ``"digests"`` says which functions they are.
    history : History
        Every evaluation recorded so far, in the order in which they ended.
    """

    header: dict[str, Any]
    history: History


def read_journal(path: Path) -> Recording:
    """Read a journal, of a run that is still going on too.

    Raises
    ------
    FileNotFoundError
        There is no such file.
    JournalError
        It is damaged, or no journal.
    """
    header, rows = read(path, _RUN)
    choices, limits = header["categories"], header["constraints"]
    place = 1 + len(header["bounds"]) + len(choices)
    may_fail = header["nonfinite"] != "raise" or any(row[place] == len(limits) for row in rows)
    history = History(len(header["bounds"]), choices, len(limits), len(limits) + may_fail)
    history.names = tuple(header["names"])
    history.bounds = tuple((lower, upper) for lower, upper in header["bounds"])
    history.logarithmic = tuple(header["logarithmic"])
    history.integers = tuple(header["integers"])
    for row in rows:
        _, x, category, (index, value, constraints, objective), time, error = _entry(row, history)
        if error:
            history.errors[len(history)] = error
        history.append(x, category, index, value, time, constraints, objective)
    history.finish()
    return Recording(header, history)


class Journal:
    """A journal that is being written."""

    def __init__(self, path: Path, plan: Plan, history: History) -> None:
        header = describe(plan)
        self._limits, self._goal = history.constraint_count, history.goal
        self._database = Database(
            path,
            _RUN,
            header,
            _columns(history),
            lambda recorded: require_same(path, recorded, header),
        )
        self.path = self._database.path
        #: What the sessions before this one recorded.
        self.entries = [_entry(row, history) for row in self._database.rows]
        self.close = self._database.close
        if not plan.may_fail and any(not math.isfinite(e.outcome[1]) for e in self.entries):
            self.close()
            raise JournalError(
                f"the journal {self.path!r} holds points that failed: pass nonfinite='infeasible' or "
                "catch"
            )

    def record(self, entry: Entry) -> None:
        """Put an evaluation on the disk."""
        phase, x, category, (index, value, constraints, objective), time, error = entry
        stored = self._limits + 1 if index == self._goal else index
        row = (phase, *map(float, x), *category, stored, value, time, error or None)
        missing = (math.nan,) * (self._limits - len(constraints))
        known = (*constraints, *missing, objective) if self._limits else ()
        self._database.append(*row, *known)


def describe(plan: Plan) -> dict[str, Any]:
    """The header for a problem: what must be the same for a journal to fit."""
    variables = plan.variables
    found = {"args": digest(plan.args, plan.fun), **digests("fun", plan.fun)}
    for limit in filter(lambda limit: limit.evaluate, plan.limits):
        found.update(digests(limit.name, limit.source))
    for part, value in found.items():
        if isinstance(value, Unknown):
            warnings.warn(
                f"a later session of the journal cannot tell whether {part} is the same: {value}",
                stacklevel=2,
            )
    return {
        "objective": name_of(plan.fun),
        "args": ", ".join(map(_text, plan.args)),
        "bounds": [list(pair) for pair in zip(variables.lower, variables.upper)],
        "logarithmic": [i for i, log in enumerate(variables.logarithmic) if log],
        "integers": list(variables.integers),
        "numbers": [str(number) for number in variables.numbers],
        "names": list(variables.names),
        "categories": [[_plain(choice) for choice in choices] for choices in variables.choices],
        "constraints": [limit.name for limit in plan.limits],
        "nonfinite": plan.nonfinite,
        "guards": [limit.guards for limit in plan.limits],
        "x0": [[*x, *category] for x, category in plan.wanted],
        "known": _summary(plan.known_points),
        **asdict(plan.settings),
        "version": _version.__version__,
        "interpreter": sys.implementation.cache_tag,
        "digests": {k: v for k, v in found.items() if not isinstance(v, Unknown)},
    }


def require_same(
    path: Path, recorded: dict[str, Any], header: dict[str, Any], where: str = "the journal"
) -> None:
    """Raise a JournalError that names the first difference, if there is one."""
    wrote = f"{where} {os.fspath(path)!r} was written with"
    for key in [*header, *recorded]:
        theirs, ours = recorded.get(key), header.get(key)
        if key in _INFORMATION or key == "digests" or theirs == ours:
            continue
        raise JournalError(f"{wrote} {key} = {theirs!r}, not {ours!r}")
    if recorded["interpreter"] != header["interpreter"]:
        return  # code looks different in each version of Python
    theirs, ours = recorded["digests"], header["digests"]
    for part in [*ours, *theirs]:
        if theirs.get(part) != ours.get(part):
            if part == "args":
                raise JournalError(f"{wrote} args = {recorded['args']!r}, not {header['args']!r}")
            raise JournalError(f"{wrote} a different {part}")


def _text(value: Any) -> str:
    """A text of bounded length for people."""
    text = re.sub(r" at 0x[0-9a-fA-F]+", "", repr(value))
    return text if len(text) <= 200 else f"{text[:150]}..."


def _summary(known: Sequence[Known]) -> str:
    return f"{len(known)} points ({digest(list(known), None)})" if known else ""


def _plain(choice: Any) -> Any:
    is_plain = isinstance(choice, (str, int, type(None))) or (
        isinstance(choice, float) and math.isfinite(choice)
    )
    return choice if is_plain else _text(choice)


def _columns(history: History) -> list[str]:
    return [
        "phase TEXT NOT NULL",
        *(f"x{i} REAL NOT NULL" for i in range(history.dimension)),
        *(f"category{i} INTEGER NOT NULL" for i in range(len(history.choices))),
        "idx INTEGER NOT NULL",
        "value REAL",
        "time REAL NOT NULL",
        "error TEXT",
        *(f"g{i} REAL" for i in range(history.constraint_count)),
        *(["objective REAL"] if history.constraint_count else []),
    ]


def _entry(row: Sequence[Any], history: History) -> Entry:
    n, k = history.dimension, len(history.choices)
    phase, *rest = row
    index, value, time, error, *known = rest[n + k :]
    *constraints, objective = map(_number, known or [value])
    outcome = (min(index, history.goal), _number(value), constraints, objective)
    return Entry(phase, tuple(rest[:n]), tuple(rest[n : n + k]), outcome, time, error or "")


def _number(stored: Optional[float]) -> float:
    return math.nan if stored is None else stored
