# SPDX-License-Identifier: MIT
"""`Search`: a search that is asked for points and told their values."""

from __future__ import annotations

import math
import operator
from array import array
from typing import Any, Iterable, NamedTuple, Optional, Sequence, Union

from . import _variables as variable_forms
from ._binding import NO_LIMIT, Search as Core
from ._history import History
from ._known import Known, known_points, wanted_points
from ._observation import as_number, as_violation
from ._result import OptimizeResult, Status, best_fields, exhaustion, minima_fields
from ._settings import Settings, whole_number
from ._variables import Variables

_NONE: tuple[Any, ...] = ()


class Point(NamedTuple):
    """A point to evaluate, as `Search.ask` hands it out.

    It may be pickled, sent elsewhere, and told to a copy of the search.
    """

    #: The numbers, in the caller's units; whole ones are int.
    x: tuple[float, ...]
    #: The choices of the categorical variables.
    categories: tuple[Any, ...]
    #: Their positions among the choices.
    category: tuple[int, ...]
    #: Counts the points of a search, in the order in which they were first handed out.
    id: int


class Outcome(NamedTuple):
    """What a point's evaluation gave."""

    #: Number of the first violated constraint; the number of constraints when all hold.
    index: int  # type: ignore[assignment]
    #: That constraint's value, or the objective's; not finite where the evaluation failed.
    value: float
    #: The value of each constraint; NaN where it is not known.
    constraints: tuple[float, ...]
    #: The objective, at an infeasible point too where it was told; NaN where it is not known.
    objective: float


class Trials(NamedTuple):
    """The columns of a search's trials: read-only views of its memory, one row per trial.

    ``numpy.asarray`` makes arrays of them without a copy. They show the trials made when they were
    asked for, and stay valid whatever happens to the search.
    """

    #: Points in the caller's units, shape ``(len, dimension)``.
    x: memoryview
    #: Positions of the choices, shape ``(len, len(choices))``.
    category: memoryview
    #: Number of the first violated constraint.
    index: memoryview  # type: ignore[assignment]
    #: Its value, or the objective's where all hold; as it was told.
    value: memoryview
    #: Shape ``(len, constraints)``; NaN where not known.
    constraints: memoryview
    #: The objective, at infeasible points too where it was told; NaN where not known.
    objective: memoryview
    #: The `Point.id` of each trial.
    id: memoryview
    #: 2: by a local step; 64: inserted, as `known` and `x0` are; else 0.
    kind: memoryview


class Search:
    """A search for the global minimum that is asked for points and told values.

    The caller evaluates, in whatever way and order: on one worker or on many. The trials are
    those of a search with one worker, which asks for one point after the other: they depend on
    the arguments and on the values alone. Points handed out before it is known whether the search
    wants them wait with their values, and are surplus if it never does.

    Everything may be called from any thread. An error leaves the search as it was.

    Parameters
    ----------
    bounds, names, logarithmic, categories
        See `minimize`.
    constraints : int
        How many constraints there are. A point is feasible when all are <= 0.
    hidden_constraint : bool
        Whether evaluations may fail: that they do not is one more constraint, the last.
    x0, known
        See `minimize`. Points of `x0` are handed out first.
    maxfun : int, optional
        Most trials; nothing is asked for beyond them. No limit by default.
    local_models, batch, overestimation, overestimation_local, local_vs_global, spread, cross
        See `minimize`.

    Raises
    ------
    TypeError, ValueError
        An argument is wrong.

    Examples
    --------
    >>> import Quenloft
    >>> search = Quenloft.Search([(-2, 2), (-2, 2)])
    >>> while len(search) < 100:
    ...     for point in search.ask(4):
    ...         made = search.tell(point, (point.x[0] - 1) ** 2 + point.x[1] ** 2)
    >>> search.result().fun < 1e-3
    True
    """

    def __init__(
        self,
        bounds: Any,
        *,
        categories: Sequence[Sequence[Any]] = (),
        constraints: int = 0,
        names: Optional[Sequence[str]] = None,
        logarithmic: Sequence[int] = (),
        hidden_constraint: bool = True,
        x0: Any = None,
        known: Any = (),
        maxfun: Optional[float] = None,
        local_models: bool = True,
        batch: int = 1,
        overestimation: Optional[float] = None,
        overestimation_local: float = Settings.overestimation_local,
        local_vs_global: float = Settings.local_vs_global,
        spread: float = Settings.spread,
        cross: float = Settings.cross,
    ) -> None:
        settings = Settings.of(locals())
        variables = variable_forms.declare(bounds, logarithmic, categories, names)
        self._set_up(
            variables,
            settings,
            whole_number("constraints", constraints, 0),
            bool(hidden_constraint),
            known_points(variables, constraints, bool(hidden_constraint), known),
            wanted_points(variables, x0),
        )
        self.maxfun = maxfun

    @classmethod
    def from_variables(
        cls,
        variables: Variables,
        settings: Settings,
        *,
        constraints: int = 0,
        hidden_constraint: bool = True,
        known: Sequence[Known] = (),
        wanted: Sequence[Any] = (),
        maxfun: Optional[float] = None,
    ) -> Search:
        """A search over variables, with settings and from points that are checked already."""
        search = cls.__new__(cls)
        search._set_up(variables, settings, constraints, hidden_constraint, known, wanted)
        search.maxfun = maxfun
        return search

    def _set_up(
        self,
        variables: Variables,
        settings: Settings,
        constraints: int,
        hidden_constraint: bool,
        known: Sequence[Known],
        wanted: Sequence[Any],
        core: Optional[Core] = None,
    ) -> None:
        self._variables = variables
        self._settings = settings
        self._constraints = constraints
        self._hidden_constraint = hidden_constraint
        self._known = known
        self._wanted = wanted
        self._choices = variables.choices
        # A search without trials has the length 0, and counts as false.
        self._core = (
            core
            if core is not None
            else Core(
                [
                    (n.lower, n.upper, n.is_logarithmic, n.is_integer, n.count)
                    for n in variables.numbers
                ],
                [len(choices) for choices in variables.choices],
                constraints,
                hidden_constraint,
                settings.local_models,
                settings.batch,
                (
                    settings.overestimation,
                    settings.overestimation_local,
                    settings.local_vs_global,
                    settings.spread,
                    settings.cross,
                ),
                known,
                wanted,
            )
        )

    # -- the loop

    def ask(self, n: int = 1) -> list[Point]:
        """Up to `n` points to evaluate now, none of which is out already.

        Those come first that the search cannot go on without, then those that it will probably
        want next. Fewer come when it is finished, or has to see values first, and never more than
        1,000 at once.
        """
        count = _count("n", n)
        if self._choices:
            return [self._point(raw) for raw in self._core.ask(count)]
        return [Point(x, _NONE, _NONE, id) for x, _, id in self._core.ask(count)]

    def tell(
        self,
        point: Union[Point, Sequence[float]],
        value: Any = None,
        *,
        constraints: Optional[Iterable[Any]] = None,
        failed: bool = False,
        categories: Sequence[Any] = (),
        advance: bool = True,
    ) -> int:
        """Take the value of a point that was handed out.

        Parameters
        ----------
        point : Point or sequence of float
            The point, or its coordinates, with its `categories` where there are any.
        value : float, optional
            The objective; needed where all constraints hold.
        constraints : sequence of float, optional
            The values of the constraints in their order: of all, or up to one that is violated.
            What is known beyond a violated one, `value` included, serves the local models: give
            it where it is there. NaN or an infinity there means that it is not.
        failed : bool
            The evaluation failed. What was computed nevertheless, NaN and infinities included, may
            be given. What failed is the first of the constraints that is violated or not given,
            or else the objective.
        advance : bool
            Make trials of all values that are there; else `advance` or the next `ask` does.

        Returns
        -------
        int
            How many trials were made: none where the search is not yet at this point.

        Raises
        ------
        ValueError
            The point was told already, was not asked for or does not exist; a value is missing,
            too much, or not finite although nothing failed.
        TypeError
            A value is no number.
        """
        if type(point) is not Point:
            point = self._find(point, categories)
        if value is not None and type(value) is not float:
            value = as_number("the value told", value, point.x, point.categories)
        limits = _NONE if constraints is None else self._limits(constraints, point)
        return self._core.tell(point.id, point.x, value, limits, failed, advance)

    def advance(self, limit: Optional[int] = None) -> int:
        """Make trials of values that are there, at most `limit`; how many were made."""
        return self._core.advance(NO_LIMIT if limit is None else _count("limit", limit))

    def supply(
        self,
        x: Sequence[float],
        value: Any = None,
        *,
        constraints: Optional[Iterable[Any]] = None,
        failed: bool = False,
        categories: Sequence[Any] = (),
    ) -> Point:
        """Take a value from elsewhere, of a point that need not have been asked for.

        It is used if the search asks for exactly this point, and surplus otherwise. Arguments and
        errors are those of `tell`. No trial is made before the next `advance`, `tell` or `ask`.
        """
        point = self._unasked((*x, *categories))
        if value is not None:
            value = as_number("the value told", value, point.x, point.categories)
        limits = _NONE if constraints is None else self._limits(constraints, point)
        return self._point(self._core.supply(point.x, point.category, value, limits, failed))

    def retract(self, point: Union[Point, Sequence[float]], categories: Sequence[Any] = ()) -> None:
        """Say that the value of a point that was handed out will not come: `ask` may give it
        again."""
        if type(point) is not Point:
            point = self._find(point, categories)
        self._core.retract(point.id, point.x)

    # -- reading

    def __len__(self) -> int:
        return len(self._core)

    @property
    def maxfun(self) -> Optional[int]:
        """Most trials; None for no limit. May be set."""
        limit = self._core.limit
        return None if limit == NO_LIMIT else limit

    @maxfun.setter
    def maxfun(self, value: Optional[float]) -> None:
        is_unlimited = value is None or value == math.inf
        self._core.limit = NO_LIMIT if is_unlimited else whole_number("maxfun", value, 0)

    @property
    def is_exhausted(self) -> bool:
        """Whether nothing is left to split; on a lattice, every point of it is a trial."""
        return self._core.is_exhausted()

    @property
    def is_finished(self) -> bool:
        """Whether no trial is to come: exhausted, or at `maxfun`."""
        return self._core.is_finished()

    @property
    def variables(self) -> Variables:
        """The variables as declared."""
        return self._variables

    @property
    def goal(self) -> int:
        """The index of a trial at which everything holds."""
        return self._constraints + self._hidden_constraint

    @property
    def best(self) -> Optional[int]:
        """Position of the best trial; None before there is one.

        It satisfies the most constraints in their order; of several it has the least value, of
        these it is the first.
        """
        return self._core.best()

    @property
    def last(self) -> Optional[tuple[int, int, float]]:
        """`Point.id`, index and value of the newest trial; None before there is one."""
        return self._core.last()

    @property
    def pending(self) -> list[Point]:
        """Points that are handed out and not told."""
        return [self._point(raw) for raw, is_pending, _ in self._core.open() if is_pending]

    @property
    def needed(self) -> list[Point]:
        """Of these, the ones that the search cannot go on without."""
        return [self._point(raw) for raw in self._core.needed()]

    @property
    def surplus(self) -> list[tuple[Point, Outcome]]:
        """Points whose values are there, and that are no trials, at least not yet."""
        return [
            (self._point(raw), Outcome(*outcome))
            for raw, _, outcome in self._core.open()
            if outcome is not None
        ]

    @property
    def trials(self) -> Trials:
        """The columns of the trials."""
        return Trials(**self._core.trials())

    @property
    def history(self) -> History:
        """The trials as `minimize` gives them; their times are not known.

        Its columns share the memory of the search.
        """
        history = History.of(self._variables, self._constraints, self.goal)
        trials = self.trials
        history.known = len(self._known)
        history.adopt(
            _flat(trials.x),
            _flat(trials.category),
            _flat(trials.index),
            _flat(trials.value),
            array("d", [math.nan]) * len(trials.index),
            _flat(trials.constraints),
            _flat(trials.objective),
        )
        return history

    def locals(self, most: int = 10) -> list[tuple[int, float]]:
        """Position and radius of the trials that are local minima, best first: the lowest that
        local models refined, and elsewhere those that the engine marks, one for each value."""
        return [(i, self._core.radius(i)) for i in self._core.locals(_count("most", most))]

    def radius(self, position: Optional[int] = None) -> float:
        """Distance of a trial, the best one by default, to its farthest neighbour in the unit
        box."""
        if position is None:
            return self._core.best_radius()
        return self._core.radius(range(len(self))[position])

    def result(self) -> OptimizeResult:
        """What is known now, as `minimize` returns it."""
        history = self.history
        surplus = History.of(self._variables, self._constraints, self.goal)
        for point, outcome in self.surplus:
            surplus.append(
                point.x,
                point.category,
                outcome.index,
                outcome.value,
                math.nan,
                outcome.constraints,
                outcome.objective,
            )
        surplus.finish()
        best = self.best
        status = (
            Status.EXHAUSTED if self.is_exhausted
            else Status.MAXFUN if self.is_finished
            else Status.RUNNING
        )  # fmt: skip
        is_feasible = best is not None and history.index[best] == history.goal
        # The best trial may not be marked yet.
        minima = [] if best is None else [(best, self.radius(best)), *self.locals()]
        present = self._variables.presenter("tuple")
        said = {
            Status.EXHAUSTED: exhaustion(history, self._variables.point_count),
            Status.MAXFUN: f"{len(history)} trials made, maxfun = {self.maxfun}",
            Status.RUNNING: f"running: {len(history)} trials",
        }
        return OptimizeResult(
            message=said[status],
            success=is_feasible and status > 0,
            status=status,
            **best_fields(history, best, present),
            nfev=len(history) + len(surplus) - len(self._known),
            nit=len(history) - history.known,
            **minima_fields(history, minima, present),
            surplus=surplus,
            history=history,
        )

    # -- copies

    def copy(self) -> Search:
        """A search that goes on exactly as this one, pending points and values that wait
        included."""
        return self._made_of(self._core.copy())

    __copy__ = copy

    def __deepcopy__(self, memo: Any) -> Search:
        return self.copy()

    def _definition(self) -> tuple[Variables, Settings, int, bool, Sequence[Known], Sequence[Any]]:
        """What `_set_up` takes but for the core."""
        return (
            self._variables,
            self._settings,
            self._constraints,
            self._hidden_constraint,
            self._known,
            self._wanted,
        )

    def __getstate__(self) -> dict[str, Any]:
        return {"definition": self._definition(), "saved": self._core.save()}

    def __setstate__(self, state: dict[str, Any]) -> None:
        self._set_up(*state["definition"])
        self._core.restore(state["saved"])

    def __repr__(self) -> str:
        return f"<search over {self._variables.dimension} variables, {len(self)} trials>"

    def _made_of(self, core: Core) -> Search:
        other = type(self).__new__(type(self))
        other._set_up(*self._definition(), core)
        return other

    def _point(self, raw: tuple[tuple[float, ...], tuple[int, ...], int]) -> Point:
        x, category, id = raw
        chosen = tuple([c[i] for c, i in zip(self._choices, category)])
        return Point(x, chosen, category, id)

    def _find(self, point: Any, categories: Sequence[Any]) -> Point:
        try:
            values = (*point, *categories)
        except TypeError:
            raise TypeError(
                f"the point must be one of `ask`, or a sequence of coordinates, not {point!r}"
            ) from None
        unasked = self._unasked(values)
        return self._point(self._core.find(unasked.x, unasked.category))

    def _unasked(self, values: Sequence[Any]) -> Point:
        x, category = self._variables.point(values, "the point")
        return Point(x, self._variables.chosen(category), category, -1)

    def _limits(self, constraints: Iterable[Any], point: Point) -> list[float]:
        return [
            limit
            if type(limit) is float
            else as_violation(f"constraint {i}", limit, point.x, point.categories)
            for i, limit in enumerate(constraints)
        ]


def _count(name: str, value: int) -> int:
    count = operator.index(value)
    if not 0 <= count < 2**31:
        raise ValueError(f"{name} must be from 0 to {2**31 - 1}, not {count}")
    return count


def _flat(column: memoryview) -> Any:
    # A view of no items cannot be cast.
    view: Any = column
    return view.cast("B").cast(column.format) if column.nbytes else array(column.format)
