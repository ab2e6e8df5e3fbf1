# SPDX-License-Identifier: MIT
"""The journal of a study: an SQLite file that keeps the result of each task as it comes.

Results are stored as JSON and raw columns, not as pickles: opening a file runs nothing.
"""

from __future__ import annotations

import json
import os
import sqlite3
from dataclasses import asdict
from typing import Any, Optional, Union

from .errors import JournalError
from .journal import describe
from .plan import Plan
from .result import LocalMinimum, OptimizeResult, Status

#: Marks the file as the journal of a study ("Qlst").
_APPLICATION_ID = 0x516C7374
_COLUMNS = ("_x", "_category", "_index", "_value", "_time", "_constraints")


class StudyJournal:
    """Results by task number.

    Raises
    ------
    JournalError
        The file belongs to other tasks (the message names the first difference) or is no such
        journal.
    """

    def __init__(self, path: Union[str, os.PathLike[str]], plans: list[Plan]) -> None:
        self.path = os.fspath(path)
        self._plans = plans
        try:
            self._database = sqlite3.connect(path, isolation_level=None)
        except sqlite3.Error as error:
            raise JournalError(f"{self.path!r} cannot be opened: {error}") from error
        try:
            self._open()
        except sqlite3.DatabaseError as error:
            self.close()
            raise JournalError(f"{self.path!r} cannot be used as a journal: {error}") from error
        except BaseException:
            self.close()
            raise

    def _open(self) -> None:
        database = self._database
        database.execute("PRAGMA synchronous = FULL")
        database.execute("BEGIN IMMEDIATE")
        if not database.execute("SELECT count(*) FROM sqlite_master").fetchone()[0]:
            database.execute(f"PRAGMA application_id = {_APPLICATION_ID}")
            database.execute("CREATE TABLE tasks (number INTEGER PRIMARY KEY, description TEXT)")
            database.execute(
                "CREATE TABLE results (number INTEGER PRIMARY KEY, result TEXT NOT NULL, "
                "x BLOB, category BLOB, idx BLOB, value BLOB, time BLOB, constraints BLOB)"
            )
            database.executemany(
                "INSERT INTO tasks VALUES (?, ?)",
                [(i, json.dumps(_description(plan))) for i, plan in enumerate(self._plans)],
            )
        database.execute("COMMIT")
        if database.execute("PRAGMA application_id").fetchone()[0] != _APPLICATION_ID:
            raise JournalError(f"{self.path!r} is not the journal of a study")
        self._compare()

    def _compare(self) -> None:
        rows = self._database.execute("SELECT description FROM tasks ORDER BY number")
        recorded = [json.loads(text) for (text,) in rows]
        if len(recorded) != len(self._plans):
            raise JournalError(
                f"the journal {self.path!r} was written for {len(recorded)} tasks, "
                f"not {len(self._plans)}"
            )
        for number, (theirs, plan) in enumerate(zip(recorded, self._plans)):
            ours = json.loads(json.dumps(_description(plan)))
            for key in ours:
                if theirs.get(key) != ours[key]:
                    raise JournalError(
                        f"task {number} of the journal {self.path!r} was written with "
                        f"{key} = {theirs.get(key)!r}, not {ours[key]!r}"
                    )

    def results(self) -> dict[int, OptimizeResult]:
        """What is there already."""
        rows = self._database.execute("SELECT * FROM results ORDER BY number").fetchall()
        return {
            number: _unpack(self._plans[number], json.loads(text), columns)
            for number, text, *columns in rows
        }

    def record(self, number: int, result: OptimizeResult) -> None:
        """Put the result of a task on the disk."""
        history = result.history
        columns = [getattr(history, name).tobytes() for name in _COLUMNS]
        try:
            self._database.execute(
                "INSERT INTO results VALUES (?, ?, ?, ?, ?, ?, ?, ?)",
                (number, json.dumps(_pack(result)), *columns),
            )
        except sqlite3.IntegrityError:
            raise JournalError(
                f"the journal {self.path!r} is being written by another study"
            ) from None

    def close(self) -> None:
        """Let go of the file. What is in it stays."""
        self._database.close()


def _description(plan: Plan) -> dict[str, Any]:
    """What decides the result of a task."""
    description = describe(plan)
    # Another version may make other trials, and a study is worth finishing all the same.
    del description["version"]
    return {**description, **asdict(plan.budget), "polish": plan.polish, "point": plan.point}


def _pack(result: OptimizeResult) -> dict[str, Any]:
    """The result without its history, as JSON takes it."""
    choices = result.history.choices
    # What is kept elsewhere holds its place: the order of the fields is part of the text.
    packed = {**result, "xl": None, "funl": None, "history": None}
    packed["x"] = _numbers(result.x)
    packed["categories"] = _positions(choices, result.categories)
    packed["locals"] = [
        [_numbers(m.x), m.fun, _positions(choices, m.categories), m.radius] for m in result.locals
    ]
    packed["polish_start"] = result.history.polish_start
    return packed


def _numbers(x: Any) -> Optional[list[float]]:
    return None if x is None else [float(v) for v in x]


def _positions(choices: Any, chosen: tuple[Any, ...]) -> list[int]:
    # By identity: equality may mean anything for the caller's objects.
    return [
        next(i for i, choice in enumerate(variable) if choice is item)
        for variable, item in zip(choices, chosen)
    ]


def _unpack(plan: Plan, packed: dict[str, Any], columns: list[bytes]) -> OptimizeResult:
    history = plan.new_history()
    for name, content in zip(_COLUMNS, columns):
        getattr(history, name).frombytes(content)
    history.polish_start = packed.pop("polish_start")
    history.finish()
    x = packed["x"]
    minima = [
        LocalMinimum(plan.form(tuple(x)), fun, history.chosen(category), radius)
        for x, fun, category, radius in packed["locals"]
    ]
    return OptimizeResult(
        {
            **packed,
            "status": Status(packed["status"]),
            "x": None if x is None else plan.form(tuple(x)),
            "categories": history.chosen(packed["categories"]),
            "constraints": tuple(packed["constraints"]),
            "locals": minima,
            "xl": [minimum.x for minimum in minima],
            "funl": [minimum.fun for minimum in minima],
            "history": history,
        }
    )
