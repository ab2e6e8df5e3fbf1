# SPDX-License-Identifier: MIT
"""Every evaluation of a search, kept in columns."""

from __future__ import annotations

import math
import os
from array import array
from collections.abc import Sequence
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any, Iterator, TextIO, Tuple, Union, overload

if TYPE_CHECKING:
    from pandas import DataFrame

    from ._variables import Variables

Row = Tuple[float, ...]


@dataclass(frozen=True)
class Trial:
    """One evaluated point.

    Attributes
    ----------
    number : int
        Position in the history, from 0.
    x : tuple of float
        The real variables, in the caller's units.
    categories : tuple
        The choices of the categorical variables; empty when there are none.
    index : int
        Number of the first violated constraint; the number of constraints when all hold. With
        ``nonfinite="infeasible"`` "the objective is finite" counts as one more constraint,
        the last.
    value : float
        Value of the violated constraint, or of the objective when all hold.
    time : float
        Seconds from the start of the run to the end of the evaluation.
    constraints : tuple of float
        Value of each constraint, NaN for those that were not evaluated.
    objective : float
        The objective, at an infeasible point too where it was evaluated there; else NaN.
    error : str
        Type and text of the exception that was caught here (`catch`); else empty.
    """

    number: int
    x: Row
    categories: tuple[Any, ...]
    index: int
    value: float
    time: float
    constraints: Row
    objective: float
    error: str = ""

    @property
    def maxcv(self) -> float:
        """The largest violation of a constraint; 0 where all hold, infinity where the evaluation
        has failed."""
        if self.index >= len(self.constraints):
            return 0.0 if math.isfinite(self.value) else math.inf
        return max([self.value, *(c for c in self.constraints if c > self.value)])


def rank(index: int, value: float) -> tuple[int, float]:
    """The order of trials, best first: higher index, then smaller value; of equals the earlier."""
    return -index, value if math.isfinite(value) else math.inf


class Table(Sequence[Row]):
    """A read-only sequence of equally long rows over one flat array.

    ``numpy.asarray`` makes an array of shape ``(rows, width)`` of it that shares its memory.
    """

    __slots__ = ("_flat", "_rows", "_width")

    def __init__(self, flat: array[Any], rows: int, width: int) -> None:
        self._flat = flat
        self._rows = rows
        self._width = width

    @property
    def shape(self) -> tuple[int, int]:
        """Number of rows, number of columns."""
        return self._rows, self._width

    def __len__(self) -> int:
        return self._rows

    @overload
    def __getitem__(self, position: int) -> Row: ...

    @overload
    def __getitem__(self, position: slice) -> list[Row]: ...

    def __getitem__(self, position: Union[int, slice]) -> Union[Row, list[Row]]:
        if isinstance(position, slice):
            return [self[i] for i in range(*position.indices(self._rows))]
        row = position + self._rows if position < 0 else position
        if not 0 <= row < self._rows:
            raise IndexError(f"row {position} of {self._rows}")
        return tuple(self._flat[row * self._width : (row + 1) * self._width])

    def __array__(self, dtype: Any = None, copy: Any = None) -> Any:
        import numpy

        matrix = numpy.asarray(memoryview(self._flat).toreadonly()).reshape(self.shape)
        if dtype is not None and matrix.dtype != dtype:
            if copy is False:
                raise ValueError(f"a column of {matrix.dtype} as {dtype} needs a copy")
            return matrix.astype(dtype)
        return matrix.copy() if copy else matrix

    def __repr__(self) -> str:
        return f"<table of {self._rows} rows x {self._width}>"


class History:
    """The evaluations of a search in order: a sequence of `Trial`, stored in columns.

    ``numpy.asarray`` turns each column into an array without a copy, and the history as a
    whole into a structured array with the columns' names as its fields. The columns of a history
    that is still growing (as a callback sees it) are copies.

    Parameters
    ----------
    dimension : int
        Number of real variables.
    choices : sequence of sequences
        The choices of each categorical variable.
    constraint_count : int
        Number of the caller's constraints.
    goal : int
        The `index` of a trial at which everything holds.
    """

    def __init__(
        self,
        dimension: int,
        choices: Sequence[Sequence[Any]] = (),
        constraint_count: int = 0,
        goal: int = 0,
    ) -> None:
        self.dimension = dimension
        self.choices = tuple(tuple(variable) for variable in choices)
        self.constraint_count = constraint_count
        self.goal = goal
        #: How the search had its variables declared: names, the categorical ones last; (lower,
        #: upper) of each number; positions of the logarithmic and of the whole ones. For plots and
        #: tables.
        self.names: tuple[str, ...] = ()
        self.bounds: tuple[tuple[float, float], ...] = ()
        self.logarithmic: tuple[int, ...] = ()
        self.integers: tuple[int, ...] = ()
        #: Exceptions that were caught, in words, by the positions of their trials.
        self.errors: dict[int, str] = {}
        #: How many trials, the first ones, were known beforehand.
        self.known = 0
        self._growing = True
        self._x = array("d")
        self._category = array("i")
        self._index = array("i")
        self._value = array("d")
        self._time = array("d")
        self._constraints = array("d")
        # Used where there are constraints; else the values are those of the objective.
        self._objective = array("d")

    def append(
        self,
        x: Sequence[float],
        category: Sequence[int],
        index: int,
        value: float,
        time: float,
        constraints: Sequence[float] = (),
        objective: float = math.nan,
    ) -> None:
        """Add a trial; `constraints` may end after the first violated one.

        The objective matters where a constraint is violated: elsewhere it is the value.
        """
        self._x.extend(x)
        self._category.extend(category)
        self._index.append(index)
        self._value.append(value)
        if self.constraint_count:
            missing = self.constraint_count - len(constraints)
            self._constraints.extend((*constraints, *(math.nan,) * missing))
            self._objective.append(objective if index < self.constraint_count else value)
        self._time.append(time)

    @classmethod
    def of(cls, variables: Variables, constraint_count: int, goal: int) -> History:
        """An empty history of points of these variables."""
        history = cls(variables.dimension, variables.choices, constraint_count, goal)
        history.names = variables.names
        history.bounds = tuple(zip(variables.lower, variables.upper))
        history.logarithmic = tuple(i for i, log in enumerate(variables.logarithmic) if log)
        history.integers = variables.integers
        return history

    def adopt(
        self,
        x: Any,
        category: Any,
        index: Any,
        value: Any,
        time: Any,
        constraints: Any,
        objective: Any,
    ) -> None:
        """Take whole columns, flat and of the column's own number type, without a copy.

        Nothing can be appended from then on.
        """
        self._x, self._category, self._index = x, category, index
        self._value, self._time = value, time
        self._constraints, self._objective = constraints, objective
        self._growing = False

    def __getstate__(self) -> dict[str, Any]:
        return {
            name: array(field.format, field) if isinstance(field, memoryview) else field
            for name, field in vars(self).items()
        }

    def finish(self) -> None:
        """Drop a trial that an interruption left half-written, and share memory from now on."""
        count = len(self)
        del self._x[count * self.dimension :]
        del self._category[count * len(self.choices) :]
        del self._index[count:]
        del self._value[count:]
        del self._constraints[count * self.constraint_count :]
        del self._objective[count:]
        self._growing = False

    def __len__(self) -> int:
        # The time is what `append` writes last: a trial counts from then on.
        return len(self._time)

    @overload
    def __getitem__(self, position: int) -> Trial: ...

    @overload
    def __getitem__(self, position: slice) -> list[Trial]: ...

    def __getitem__(self, position: Union[int, slice]) -> Union[Trial, list[Trial]]:
        if isinstance(position, slice):
            return [self[i] for i in range(*position.indices(len(self)))]
        number = position + len(self) if position < 0 else position
        if not 0 <= number < len(self):
            raise IndexError(f"trial {position} of {len(self)}")
        n, k, m = self.dimension, len(self.choices), self.constraint_count
        x: list[float] = self._x[number * n : (number + 1) * n].tolist()
        for i in self.integers:
            x[i] = int(x[i])
        return Trial(
            number,
            tuple(x),
            self.chosen(self._category[number * k : (number + 1) * k]),
            self._index[number],
            self._value[number],
            self._time[number],
            tuple(self._constraints[number * m : (number + 1) * m]),
            self._objective[number] if m else self._value[number],
            self.errors.get(number, ""),
        )

    def __iter__(self) -> Iterator[Trial]:
        return (self[number] for number in range(len(self)))

    def chosen(self, category: Sequence[int]) -> tuple[Any, ...]:
        """The choices that a row of the column `category` stands for."""
        return tuple(variable[i] for variable, i in zip(self.choices, category))

    @property
    def x(self) -> Table:
        """Points, shape ``(len, dimension)``, in the caller's units."""
        return Table(self._stable(self._x), len(self), self.dimension)

    @property
    def category(self) -> Table:
        """Categorical variables as positions in `choices`, shape ``(len, len(choices))``."""
        return Table(self._stable(self._category), len(self), len(self.choices))

    @property
    def categories(self) -> list[tuple[Any, ...]]:
        """Categorical variables as the chosen objects."""
        return [self.chosen(row) for row in self.category]  # type: ignore[arg-type]

    @property
    def constraints(self) -> Table:
        """Constraint values, shape ``(len, constraint_count)``; NaN where not evaluated."""
        return Table(self._stable(self._constraints), len(self), self.constraint_count)

    @property
    def index(self) -> memoryview:
        """First violated constraint of each trial; `goal` where everything holds."""
        return memoryview(self._stable(self._index)).toreadonly()

    @property
    def value(self) -> memoryview:
        """Value of the violated constraint, or of the objective where everything holds."""
        return memoryview(self._stable(self._value)).toreadonly()

    @property
    def objective(self) -> memoryview:
        """The objective, at infeasible points too where it was evaluated there; else NaN."""
        column = self._objective if self.constraint_count else self._value
        return memoryview(self._stable(column)).toreadonly()

    @property
    def time(self) -> memoryview:
        """Seconds from the start of the run to the end of each evaluation."""
        return memoryview(self._stable(self._time)).toreadonly()

    def running_best(self) -> array[float]:
        """The best objective value up to each trial; NaN before the first feasible one."""
        best = math.nan
        trace = array("d")
        for index, value in zip(self._index, self._value):
            if index == self.goal and not best <= value:
                best = value
            trace.append(best)
        return trace

    def best(self) -> int:
        """Position of the best trial: higher `index` first, then smaller `value`, then earlier.

        Raises
        ------
        ValueError
            The history is empty.
        """
        return min(range(len(self)), key=lambda i: rank(self._index[i], self._value[i]))

    def labels(self) -> tuple[str, ...]:
        """Names of all variables, the usual ones for those that were given none."""
        usual = [f"x[{i}]" for i in range(self.dimension)]
        usual += [f"categories[{i}]" for i in range(len(self.choices))]
        return (*self.names, *usual[len(self.names) :])

    def to_csv(
        self, target: Union[str, os.PathLike[str], TextIO, None] = None, start: int = 0
    ) -> Union[str, None]:
        """Write the trials as comma-separated values, a line each, numbers in full precision.

        The columns: ``trial`` (from 1), each variable by its name, ``feasible`` (1 or 0),
        ``value``, ``time``; with constraints ``constraint[0]`` and so on, and ``objective``, empty
        where not evaluated; if exceptions were caught, ``error``.

        Parameters
        ----------
        target : path or text file, optional
            Where to; a string is returned by default.
        start : int
            Position of the first trial that is written.
        """
        import csv
        import io

        if isinstance(target, (str, os.PathLike)):
            with open(target, "w", newline="", encoding="utf-8") as opened:
                return self.to_csv(opened, start)
        file = io.StringIO() if target is None else target
        writer = csv.writer(file, lineterminator="\n")
        limits = [f"constraint[{i}]" for i in range(self.constraint_count)]
        limits += ["objective"] if limits else []
        last = ["error"] if self.errors else []
        writer.writerow(["trial", *self.labels(), "feasible", "value", "time", *limits, *last])
        for number in range(start, len(self)):
            t = self[number]
            known = (*t.constraints, t.objective) if limits else ()
            shown = ("" if math.isnan(value) else value for value in known)
            feasible = int(t.index == self.goal)
            row = [number + 1, *t.x, *t.categories, feasible, t.value, t.time, *shown]
            writer.writerow([*row, t.error] if last else row)
        return file.getvalue() if isinstance(file, io.StringIO) and target is None else None

    def to_pandas(self) -> DataFrame:
        """The trials as a table of pandas, with the columns of `to_csv` and the index ``trial``.

        ``feasible`` holds truth values, ``time`` seconds, and what was not evaluated is NaN.
        """
        from pandas import DataFrame, RangeIndex

        numbers: dict[str, Any] = {}
        labels = self.labels()
        for i in range(self.dimension):
            column = list(self._x[i :: self.dimension])[: len(self)]
            numbers[labels[i]] = [int(v) for v in column] if i in self.integers else column
        chosen = list(zip(*self.categories)) or [()] * len(self.choices)
        table = {**numbers, **dict(zip(labels[self.dimension :], chosen))}
        table["feasible"] = [index == self.goal for index in self.index]
        table.update(value=list(self.value), time=list(self.time))
        for i in range(self.constraint_count):
            table[f"constraint[{i}]"] = [row[i] for row in self.constraints]
        if self.constraint_count:
            table["objective"] = list(self.objective)
        if self.errors:
            table["error"] = [self.errors.get(i, "") for i in range(len(self))]
        return DataFrame(table, index=RangeIndex(1, len(self) + 1, name="trial"))

    def __array__(self, dtype: Any = None, copy: Any = None) -> Any:
        import numpy

        if copy is False:
            raise ValueError("a history as one array needs a copy; its columns do not")
        fields: list[tuple[Any, ...]] = [
            ("x", "f8", (self.dimension,)),
            ("category", "i4", (len(self.choices),)),
            ("index", "i4"),
            ("value", "f8"),
            ("time", "f8"),
            ("constraints", "f8", (self.constraint_count,)),
            ("objective", "f8"),
        ]
        table = numpy.empty(len(self), dtype=fields)
        for name, *_ in fields:
            table[name] = numpy.asarray(getattr(self, name))
        return table if dtype is None else table.astype(dtype)

    @classmethod
    def restored(cls, state: dict[str, Any]) -> History:
        """A finished history from its attributes, columns as any sequences.

        Raises
        ------
        TypeError, ValueError, LookupError
            They are not those of a history.
        """
        history = cls(state["dimension"])
        for name, value in state.items():
            column = vars(history)[name]
            is_column = isinstance(column, array)
            setattr(history, name, array(column.typecode, value) if is_column else value)
        history.errors = {int(position): text for position, text in history.errors.items()}
        history.finish()
        return history

    def __repr__(self) -> str:
        return f"<history of {len(self)} trials>"

    def _stable(self, column: array[Any]) -> array[Any]:
        # An array whose memory is shared cannot grow: the next trial would fail.
        return column[:] if self._growing else column
