# SPDX-License-Identifier: MIT
"""The journal of a study: a file that keeps the result of each task as it comes.

Results are stored as JSON and raw columns, not as pickles: opening a file runs nothing.
"""

from __future__ import annotations

import json
from dataclasses import asdict
from typing import Any, Optional, Sequence

from ._database import Database, Kind, Path
from ._errors import JournalError
from ._history import History
from ._journal import describe, require_same
from ._plan import Plan
from ._result import LocalMinimum, OptimizeResult, Status
from ._variables import coordinates

_STUDY = Kind("study", 0x516C7374, 2)  # "Qlst"
_HISTORY = ("_x", "_category", "_index", "_value", "_time", "_constraints")
# The trials, then the evaluations that were not needed.
_COLUMNS = [f"{prefix}{name} BLOB" for prefix in ("trial", "surplus") for name in _HISTORY]


class StudyJournal:
    """Results by task number.

    Raises
    ------
    JournalError
        The file belongs to other tasks (the message names the first difference), is damaged or no
        such journal.
    """

    def __init__(self, path: Path, plans: list[Plan]) -> None:
        self._plans = plans
        tasks = json.loads(json.dumps([_description(plan) for plan in plans]))

        def check(recorded: dict[str, Any]) -> None:
            count = len(recorded["tasks"])
            if count != len(tasks):
                raise JournalError(
                    f"the journal {str(path)!r} was written for {count} tasks, not {len(tasks)}"
                )
            for number, (theirs, ours) in enumerate(zip(recorded["tasks"], tasks)):
                require_same(path, theirs, ours, f"task {number} of the journal")

        columns = ["task INTEGER NOT NULL UNIQUE", "result TEXT NOT NULL", *_COLUMNS]
        self._database = Database(path, _STUDY, {"tasks": tasks}, columns, check)
        self.close = self._database.close

    def results(self) -> dict[int, OptimizeResult]:
        """What is there already."""
        return {
            number: _unpack(self._plans[number], json.loads(text), columns)
            for number, text, *columns in self._database.rows
        }

    def record(self, number: int, result: OptimizeResult) -> None:
        """Put the result of a task on the disk."""
        columns = [
            getattr(history, name).tobytes()
            for history in (result.history, result.surplus)
            for name in _HISTORY
        ]
        self._database.append(number, json.dumps(_pack(result)), *columns)


def _description(plan: Plan) -> dict[str, Any]:
    """What decides the result of a task."""
    return {**describe(plan), **asdict(plan.budget), "point": plan.point}


def _pack(result: OptimizeResult) -> dict[str, Any]:
    """The result without its history, as JSON takes it."""
    choices = result.history.choices
    # What is kept elsewhere holds its place: the order of the fields is part of the text.
    packed = {**result, "xl": None, "funl": None, "history": None, "surplus": None}
    packed["errors"] = [result.history.errors, result.surplus.errors]
    packed["x"] = _numbers(result.x, result)
    packed["categories"] = _positions(choices, result.categories)
    packed["locals"] = [
        [_numbers(m.x, result), m.fun, _positions(choices, m.categories), m.radius]
        for m in result.locals
    ]
    return packed


def _numbers(x: Any, result: OptimizeResult) -> Optional[list[float]]:
    return None if x is None else [float(v) for v in coordinates(x, result.history.dimension)]


def _positions(choices: Any, chosen: tuple[Any, ...]) -> list[int]:
    # By identity: equality may mean anything for the caller's objects.
    return [
        next(i for i, choice in enumerate(variable) if choice is item)
        for variable, item in zip(choices, chosen)
    ]


def _history(plan: Plan, columns: Sequence[bytes], errors: dict[str, str]) -> History:
    history = plan.new_history()
    history.errors = {int(position): text for position, text in errors.items()}
    for name, content in zip(_HISTORY, columns):
        getattr(history, name).frombytes(content)
    history.finish()
    return history


def _unpack(plan: Plan, packed: dict[str, Any], columns: list[bytes]) -> OptimizeResult:
    errors = packed.pop("errors")
    history = _history(plan, columns[: len(_HISTORY)], errors[0])
    x = packed["x"]
    minima = [
        LocalMinimum(
            plan.present(tuple(x), history.chosen(category)), fun, history.chosen(category), radius
        )
        for x, fun, category, radius in packed["locals"]
    ]
    return OptimizeResult(
        {
            **packed,
            "status": Status(packed["status"]),
            "x": None
            if x is None
            else plan.present(tuple(x), history.chosen(packed["categories"])),
            "categories": history.chosen(packed["categories"]),
            "constraints": tuple(packed["constraints"]),
            "locals": minima,
            "xl": [minimum.x for minimum in minima],
            "funl": [minimum.fun for minimum in minima],
            "history": history,
            "surplus": _history(plan, columns[len(_HISTORY) :], errors[1]),
        }
    )
