# SPDX-License-Identifier: MIT
"""Points that a search begins with: those to evaluate first, and those whose values are known."""

from __future__ import annotations

import math
import os
from collections.abc import Mapping
from typing import Any, Iterable, Iterator, NamedTuple, Optional, Sequence

from ._history import History
from ._observation import as_number, as_violation
from ._variables import Variables, is_sequence

_SQLITE = b"SQLite format 3\0"


class Known(NamedTuple):
    """A point with what its evaluation gave."""

    x: tuple[float, ...]
    category: tuple[int, ...]
    #: The objective's value; None or NaN where it is not known.
    value: Optional[float]
    #: Values of the constraints, of all or at least up to the first violated one.
    constraints: tuple[float, ...]
    #: An evaluation that failed, at what is not given or not finite.
    has_failed: bool


def wanted_points(variables: Variables, x0: Any) -> list[tuple[tuple[float, ...], tuple[int, ...]]]:
    """One point or several, as the caller gives them as `x0`.

    Raises
    ------
    TypeError, ValueError
        With the point and the variable at fault.
    """
    if x0 is None:
        return []
    if isinstance(x0, Mapping) or not is_sequence(x0):
        return [variables.point(x0, "x0")]
    items = list(x0)
    if items and (isinstance(items[0], Mapping) or is_sequence(items[0])):
        return [variables.point(item, f"x0[{i}]") for i, item in enumerate(items)]
    return [variables.point(items, "x0")]


def known_points(
    variables: Variables, constraint_count: int, may_fail: bool, given: Any
) -> list[Known]:
    """Points with values, as the caller gives them as `known`.

    Raises
    ------
    TypeError, ValueError, OSError, JournalError
        With the point at fault.
    """
    problem = _Problem(variables, constraint_count, may_fail)
    if given is None:
        return []
    given = getattr(given, "history", given)  # of a result, or of a journal that was read
    if isinstance(given, History):
        return problem.only_new(problem.of_history(given, "known"), must_be_new=False)
    if isinstance(given, (str, os.PathLike)):
        return problem.only_new(problem.of_file(given), must_be_new=False)
    try:
        items = enumerate(given)
    except TypeError:
        raise TypeError(
            "known must be a sequence of (point, value), a history or the path of a journal or a "
            f"CSV file, not {given!r}"
        ) from None
    return problem.only_new((problem.of_pair(i, item) for i, item in items), must_be_new=True)


class _Problem:
    """What points are made for."""

    def __init__(self, variables: Variables, constraint_count: int, may_fail: bool) -> None:
        self._variables = variables
        self._constraint_count = constraint_count
        self._may_fail = may_fail

    def only_new(self, points: Iterable[Known], must_be_new: bool) -> list[Known]:
        """The points, each the first time; what must be new is refused the second time."""
        found: dict[Any, Known] = {}
        for point in points:
            key = point.x, point.category
            if key in found and must_be_new:
                raise ValueError(f"known holds the point {(*point.x, *point.category)} twice")
            found.setdefault(key, point)
        return [*found.values()]

    def of_pair(self, number: int, item: Any) -> Known:
        label = f"known[{number}]"
        if not isinstance(item, (tuple, list)) or len(item) not in (2, 3):
            raise TypeError(f"{label} must be (point, value) or (point, value, constraints)")
        given, value, *rest = item
        x, category = self._variables.point(given, label)
        chosen = self._variables.chosen(category)
        objective = None if value is None else as_number(label, value, x, chosen)
        limits = tuple(as_violation(label, limit, x, chosen) for limit in (rest[0] if rest else ()))
        return self._point(label, x, category, objective, limits)

    def of_history(self, history: History, label: str) -> Iterator[Known]:
        names = self._variables.names
        if sorted(history.labels()) != sorted(names):
            raise ValueError(
                f"{label} is of the variables {', '.join(history.labels())}, not {', '.join(names)}"
            )
        self._require_constraints(label, history.constraint_count)
        for trial in history:
            values = dict(zip(history.labels(), (*trial.x, *trial.categories)))
            where = f"{label}[{trial.number}]"
            yield from self._within(where, values, trial.objective, trial.constraints)

    def of_file(self, path: Any) -> Iterator[Known]:
        label = repr(os.fspath(path))
        with open(path, "rb") as file:
            is_journal = file.read(len(_SQLITE)) == _SQLITE
        if is_journal:
            from ._journal import read_journal  # most searches have none

            yield from self.of_history(read_journal(path).history, label)
            return
        import csv

        with open(path, newline="", encoding="utf-8") as text:
            table = csv.DictReader(text)
            columns = table.fieldnames or ()
            missing = [name for name in (*self._variables.names, "value") if name not in columns]
            if missing:
                raise ValueError(f"{label} has no column {missing[0]!r}")
            limits = [name for name in columns if name.startswith("constraint[")]
            self._require_constraints(label, len(limits))
            for row in table:
                where = f"{label}, line {table.line_num}"
                yield from self._within(where, row, *_row_outcome(where, row, limits))

    def _require_constraints(self, label: str, count: int) -> None:
        if count != self._constraint_count:
            raise ValueError(
                f"{label} is of {count} constraints; the problem has {self._constraint_count}"
            )

    def _within(
        self,
        label: str,
        values: Mapping[str, Any],
        objective: Optional[float],
        limits: tuple[float, ...],
    ) -> Iterator[Known]:
        """A point of a file or a history, unless it lies outside the bounds of today."""
        variables = self._variables
        given = {name: values[name] for name in variables.names}
        for name, choices in zip(variables.names[variables.dimension :], variables.choices):
            # Files hold the text of a choice.
            texts = [i for i, c in enumerate(choices) if given[name] in (str(c), repr(c))]
            given[name] = choices[texts[0]] if texts else given[name]
        try:
            x, category = variables.point(given, label)
        except ValueError:
            return
        yield self._point(label, x, category, objective, limits)

    def _point(
        self,
        label: str,
        x: tuple[float, ...],
        category: tuple[int, ...],
        objective: Optional[float],
        limits: tuple[float, ...],
    ) -> Known:
        violated = [i for i, limit in enumerate(limits) if not limit <= 0.0]
        if violated:
            has_failed = not math.isfinite(limits[violated[0]])
            while len(limits) > violated[0] + 1 and math.isnan(limits[-1]):
                limits = limits[:-1]
            objective = None if objective is None or math.isnan(objective) else objective
        else:
            has_failed = objective is None or not math.isfinite(objective)
            if len(limits) < self._constraint_count and not has_failed:
                raise ValueError(
                    f"{label} has values of {len(limits)} constraints, of "
                    f"{self._constraint_count}, and none is violated"
                )
        if has_failed and not self._may_fail:
            raise ValueError(
                f"{label} has failed: pass nonfinite='infeasible' or catch to have failed points"
            )
        return Known(x, category, objective, limits, has_failed)


def _row_outcome(
    where: str, row: Mapping[str, Any], limits: Sequence[str]
) -> tuple[Optional[float], tuple[float, ...]]:
    """The objective's value in a row of `History.to_csv`, and those of the constraints."""
    try:
        texts = [row[name] for name in limits]
        reached = texts.index("") if "" in texts else len(texts)
        values = tuple(map(float, texts[:reached]))
        name = "objective" if limits and "objective" in row else "value"
        value = float(row[name]) if row[name] else math.nan
    except (TypeError, ValueError) as error:
        raise ValueError(f"{where}: {error}") from None
    # A row says whether its value is the objective's; one written by hand need not.
    if name == "value" and row.get("feasible", "1") in ("0", "False"):
        value = math.nan
    return value, values
