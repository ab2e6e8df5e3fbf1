# SPDX-License-Identifier: MIT
"""The journal of a run: an SQLite file that holds every evaluation before the next one starts.

Two tables. ``header`` describes problem and settings, a JSON value for each key. ``trials`` has
one row for each evaluation in the order in which they were made: the phase, a column for each
variable (``x0``, ``x1``, ... ``category0``, ...), ``idx``, ``value`` (NULL for NaN), ``time``,
and a column for each constraint (``g0``, ...).

The file is in write-ahead mode with full synchronisation where the file system allows it: each row
is on the disk when its evaluation ends, one wait for the disk each, and others may read meanwhile.
"""

from __future__ import annotations

import json
import math
import os
import re
import sqlite3
from contextlib import closing
from dataclasses import dataclass
from hashlib import sha256
from pathlib import Path as _Path
from typing import Any, Optional, Sequence, Union

from .errors import JournalError
from .history import History
from .observation import Outcome
from .plan import Plan

Path = Union[str, "os.PathLike[str]"]

#: Marks the file as a journal ("Qlft"), so that no other database is mistaken for one.
_APPLICATION_ID = 0x516C6674
_FORMAT = 1
# A search that went on after a polish was recorded after it.
_SELECTION = "SELECT * FROM trials ORDER BY phase = 'polish', number"
# Keys of the header that may differ between the sessions of a run.
_INFORMATION = ("version",)


@dataclass(frozen=True)
class Recording:
    """What a journal holds.

    Attributes
    ----------
    header : dict
        Problem and settings: ``"objective"`` (str), ``"args"`` (str), ``"bounds"`` (list of
        ``[lower, upper]``), ``"logarithmic"`` (list of positions), ``"names"`` (list of str: the
        real variables, then the categorical ones), ``"categories"`` (list of lists of choices;
        those that JSON cannot hold as their text), ``"constraints"`` (list of str),
        ``"nonfinite"``, and the parameters of the search by their names; ``"version"`` is that
        of the package that began the journal, ``"goal"`` the `History.goal`.
    history : History
        Every evaluation recorded so far.
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
        It is no journal.
    """
    if not os.path.exists(path):
        raise FileNotFoundError(f"there is no journal {os.fspath(path)!r}")
    uri = _Path(os.path.abspath(path)).as_uri() + "?mode=ro"
    try:
        with closing(sqlite3.connect(uri, uri=True)) as database:
            return _read(database, path)
    except sqlite3.DatabaseError as error:
        raise JournalError(f"{os.fspath(path)!r} cannot be read: {error}") from error


def _read(database: sqlite3.Connection, path: Path) -> Recording:
    header = _read_header(database, path)
    choices, limits = header["categories"], header["constraints"]
    history = History(len(header["bounds"]), choices, len(limits), header["goal"])
    history.names = tuple(header["names"])
    history.bounds = tuple((lower, upper) for lower, upper in header["bounds"])
    history.logarithmic = tuple(header["logarithmic"])
    for phase, x, category, index, value, constraints, time in _rows(database, history):
        if phase == "polish" and history.polish_start is None:
            history.polish_start = len(history)
        history.append(x, category, index, value, time, constraints)
    history.finish()
    return Recording(header, history)


class Journal:
    """A journal that is being written, and replayed first if it holds trials.

    Trials of the search are replayed in their order, which is the order in which the search asks
    for them again; those of a polish, which starts elsewhere after a longer search, are found by
    their point.
    """

    def __init__(self, path: Path, header: dict[str, Any], history: History) -> None:
        self.path = os.fspath(path)
        self._searched: list[tuple[tuple[float, ...], tuple[int, ...], Outcome, float]] = []
        self._by_point: dict[Any, tuple[Outcome, float]] = {}
        #: Seconds that the sessions before this one took.
        self.elapsed = 0.0
        self._count = 0
        try:
            self._database = sqlite3.connect(path, isolation_level=None)
        except sqlite3.Error as error:
            raise JournalError(f"{self.path!r} cannot be opened: {error}") from error
        try:
            self._open(header, history)
        except sqlite3.DatabaseError as error:
            self._database.close()
            raise JournalError(f"{self.path!r} cannot be used as a journal: {error}") from error
        except BaseException:
            self._database.close()
            raise

    def __len__(self) -> int:
        return self._count

    @property
    def searched(self) -> int:
        """Recorded trials of the search phase."""
        return len(self._searched)

    def replay(
        self, number: int, x: tuple[float, ...], category: tuple[int, ...]
    ) -> Optional[tuple[Outcome, float]]:
        """The recorded outcome of trial `number` of the search, None after the last one.

        Raises
        ------
        JournalError
            The search asks for another point than it did when the journal was written.
        """
        if number >= len(self._searched):
            return None
        known_x, known_category, outcome, time = self._searched[number]
        if (known_x, known_category) != (x, category):
            raise JournalError(
                f"trial {number} of the journal {self.path!r} is at {known_x}, {known_category}; "
                f"this search asks for {x}, {category}: another version wrote the journal"
            )
        return outcome, time

    def find(
        self, number: int, x: tuple[float, ...], category: tuple[int, ...]
    ) -> Optional[tuple[Outcome, float]]:
        """The recorded outcome at a point, None where there is none."""
        return self._by_point.get((x, category))

    def record(
        self,
        phase: str,
        x: tuple[float, ...],
        category: tuple[int, ...],
        index: int,
        value: float,
        constraints: Sequence[float],
        time: float,
    ) -> None:
        """Put a trial on the disk."""
        row = (self._count, phase, *x, *category, index, value, time, *constraints)
        padding = (None,) * (self._width - len(row))
        try:
            self._database.execute(self._insertion, row + padding)
        except sqlite3.IntegrityError:
            raise JournalError(
                f"the journal {self.path!r} is being written by another run"
            ) from None
        self._count += 1

    def close(self) -> None:
        """Let go of the file, as one file that can be read and copied without its companions."""
        try:
            self._database.execute("PRAGMA busy_timeout = 0")
            self._database.execute("PRAGMA journal_mode = DELETE")
        except sqlite3.DatabaseError:
            pass  # somebody is reading it; it stays in two files until the next session
        self._database.close()

    def _open(self, header: dict[str, Any], history: History) -> None:
        database = self._database
        columns = _columns(history)
        self._width = len(columns)
        self._insertion = f"INSERT INTO trials VALUES ({', '.join('?' * self._width)})"
        if not _is_new(database):
            # Before anything is changed: it may be some other database.
            _compare(_read_header(database, self.path), header, self.path)
        database.execute("PRAGMA journal_mode = WAL")
        database.execute("PRAGMA synchronous = FULL")
        # A lock for the decision whether the journal is new; two runs may start at once.
        database.execute("BEGIN IMMEDIATE")
        if _is_new(database):
            database.execute(f"PRAGMA application_id = {_APPLICATION_ID}")
            database.execute(f"PRAGMA user_version = {_FORMAT}")
            database.execute("CREATE TABLE header (key TEXT PRIMARY KEY, value TEXT NOT NULL)")
            database.executemany(
                "INSERT INTO header VALUES (?, ?)",
                [(key, json.dumps(value)) for key, value in header.items()],
            )
            database.execute(f"CREATE TABLE trials ({', '.join(columns)})")
            database.execute("COMMIT")
            return
        database.execute("COMMIT")
        for phase, x, category, index, value, constraints, time in _rows(database, history):
            outcome = (index, value, constraints)
            if phase == "search":
                self._searched.append((x, category, outcome, time))
            self._by_point[x, category] = outcome, time
            self.elapsed = max(self.elapsed, time)
            self._count += 1


def describe(plan: Plan) -> dict[str, Any]:
    """The header for a problem: what must be the same for a journal to fit."""
    from . import __version__

    variables = plan.variables
    return {
        "objective": name_of(plan.fun),
        "args": ", ".join(map(_text, plan.args)),
        "bounds": [list(pair) for pair in zip(variables.lower, variables.upper)],
        "logarithmic": [i for i, log in enumerate(variables.logarithmic) if log],
        "names": list(variables.names),
        "categories": [[_plain(choice) for choice in choices] for choices in variables.choices],
        "constraints": [limit.name for limit in plan.limits],
        "nonfinite": plan.nonfinite,
        **plan.settings.engine_arguments(),
        "goal": plan.goal,
        "version": __version__,
    }


def name_of(function: Any) -> str:
    """The name of a callable, without its module: a script is ``__main__`` or itself."""
    while hasattr(function, "func"):  # functools.partial
        function = function.func
    return str(getattr(function, "__qualname__", type(function).__qualname__))


def _text(value: Any) -> str:
    """A text that is the same in each session, and not endless."""
    text = re.sub(r" at 0x[0-9a-fA-F]+", "", repr(value))
    if hasattr(value, "tobytes"):  # an array, whose own text leaves out most of a large one
        text += f" {sha256(value.tobytes()).hexdigest()[:16]}"
    return text if len(text) <= 200 else f"{text[:100]}... {sha256(text.encode()).hexdigest()}"


def _plain(choice: Any) -> Any:
    is_plain = isinstance(choice, (str, int, type(None))) or (
        isinstance(choice, float) and math.isfinite(choice)
    )
    return choice if is_plain else _text(choice)


def _compare(recorded: dict[str, Any], header: dict[str, Any], path: Path) -> None:
    for key in [*header, *recorded]:
        ours = json.loads(json.dumps(header.get(key)))
        if key not in _INFORMATION and recorded.get(key) != ours:
            raise JournalError(
                f"the journal {os.fspath(path)!r} was written with "
                f"{key} = {recorded.get(key)!r}, not {ours!r}"
            )


def _is_new(database: sqlite3.Connection) -> bool:
    return not database.execute("SELECT count(*) FROM sqlite_master").fetchone()[0]


def _read_header(database: sqlite3.Connection, path: Path) -> dict[str, Any]:
    mark = database.execute("PRAGMA application_id").fetchone()[0]
    if mark != _APPLICATION_ID:
        raise JournalError(f"{os.fspath(path)!r} is not the journal of a run")
    version = database.execute("PRAGMA user_version").fetchone()[0]
    if version != _FORMAT:
        raise JournalError(
            f"{os.fspath(path)!r} is a journal of format {version}; this version reads {_FORMAT}"
        )
    return {key: json.loads(value) for key, value in database.execute("SELECT * FROM header")}


def _columns(history: History) -> list[str]:
    return [
        "number INTEGER PRIMARY KEY",
        "phase TEXT NOT NULL",
        *(f"x{i} REAL NOT NULL" for i in range(history.dimension)),
        *(f"category{i} INTEGER NOT NULL" for i in range(len(history.choices))),
        "idx INTEGER NOT NULL",
        "value REAL",
        "time REAL NOT NULL",
        *(f"g{i} REAL" for i in range(history.constraint_count)),
    ]


def _rows(database: sqlite3.Connection, history: History) -> Any:
    n, k = history.dimension, len(history.choices)
    for _, phase, *row in database.execute(_SELECTION):
        index, value, time = row[n + k : n + k + 3]
        constraints = row[n + k + 3 :]
        # A row ends after its first violated constraint. What else is NULL is a NaN.
        known = constraints[: index + 1] if index < len(constraints) else constraints
        yield (
            phase,
            tuple(row[:n]),
            tuple(row[n : n + k]),
            index,
            math.nan if value is None else value,
            [math.nan if g is None else g for g in known],
            time,
        )
