# SPDX-License-Identifier: MIT
"""A run: the trials of one call of `minimize`, whatever phase asks for them.

The engine ends its loop when a callable answers NaN. Everything that must stop a search goes that
way: budgets, stops on a value, exceptions (kept aside here, so that they reach the caller as they
are), Ctrl-C.
"""

from __future__ import annotations

import math
from time import perf_counter
from typing import TYPE_CHECKING, Any, Callable, Optional, Sequence

from .history import History
from .observation import Observe, Outcome
from .result import Status
from .variables import Variables

if TYPE_CHECKING:
    from .journal import Journal


class Run:
    """The state that the phases of a run share.

    A trial goes to the history first, then to the journal, then to the watcher (the callback and
    the progress display). What happens to a trial after it is in the history cannot lose it.
    """

    def __init__(self, variables: Variables, history: History, observe: Observe) -> None:
        # Fixed after construction.
        self.variables = variables
        self.history = history
        self.observe = observe
        # Set by the driver before the first trial.
        self.f_min = -math.inf
        self.recall: Optional[Callable[[int, Any, Any], Optional[tuple[Outcome, float]]]] = None
        self.record: Optional[Callable[..., None]] = None
        self.watch: Optional[Callable[[], None]] = None
        # Set by the driver for each phase.
        self.limit = math.inf
        self.allowed_seconds = math.inf
        self.phase = "search"
        # Written by each trial.
        self.status: Optional[Status] = None
        self.error: Optional[BaseException] = None
        self.start = perf_counter()
        self.deadline = math.inf
        self.best = -1
        self.best_index = -1
        self.best_value = math.inf
        self.last_index = -1
        self.last_value = math.nan
        self.replayed = 0
        self._worst: dict[int, float] = {}

    def begin_phase(self, phase: str, limit: float, seconds: float) -> None:
        """Set what the phase may use of the budget, as totals of the run."""
        self.phase = phase
        self.limit = limit
        self.allowed_seconds = seconds
        self.deadline = self.start + seconds
        self.status = None

    def replay_from(self, journal: Journal) -> None:
        """Take the first trials of the search from a journal, and its time from there on."""

        def recall(number: int, x: Any, category: Any) -> Optional[tuple[Outcome, float]]:
            known = journal.replay(number, x, category)
            assert known is not None
            if number + 1 == journal.searched:
                self.recall = None
                self.set_elapsed(journal.elapsed)
            if known[1] >= self.allowed_seconds:
                self.stop(Status.MAXTIME)
            return known

        # Replaying may take longer than the time allowed: the recorded times count.
        self.recall = recall
        self.deadline = math.inf

    def set_elapsed(self, seconds: float) -> None:
        """Say how long the run has lasted, in the sessions before this one."""
        self.start = perf_counter() - seconds
        self.deadline = self.start + self.allowed_seconds

    def elapsed(self) -> float:
        """Seconds since the run began."""
        return perf_counter() - self.start

    def stop(self, status: Status) -> None:
        """Make no more trials in this phase; of several reasons the first counts."""
        self.status = self.status or status
        self.limit = 0

    def is_feasible(self) -> bool:
        """Whether the best trial satisfies every constraint."""
        return self.best_index == self.history.goal

    def best_objective(self) -> float:
        """The best feasible value, NaN where there is none."""
        return self.best_value if self.is_feasible() else math.nan

    def engine_value(self, index: int, value: float) -> float:
        """The violation, or for one that is not finite the worst of its constraint so far."""
        if math.isfinite(value):
            self._worst[index] = max(self._worst.get(index, value), value)
            return value
        return self._worst.get(index, 1.0)


def trial_function(run: Run) -> Callable[..., float]:
    """A function ``trial(coordinates, selected=())`` that makes one trial of `run`.

    It takes a point of the engine's box and answers the value of the engine's first function, or
    NaN when the phase has to end. The index and the value of the trial are in ``run.last_index``
    and ``run.last_value``. It never raises.

    This is the code between the engine and the objective, run for every evaluation; hence the
    local names, and the columns of the history filled here.
    """
    history = run.history
    goal = history.goal
    decode = run.variables.decoder()
    category_of = run.variables.category_decoder()
    add_point = history._x.extend
    add_category = history._category.extend
    add_index = history._index.append
    add_value = history._value.append
    add_constraints = history._constraints.extend
    add_time = history._time.append
    constraint_count = history.constraint_count
    blank = (math.nan,) * constraint_count
    is_categorical = bool(history.choices)
    times = history._time
    observe = run.observe
    clock = perf_counter
    nan, inf = math.nan, math.inf
    f_min = run.f_min

    def trial(coordinates: Sequence[float], selected: Sequence[int] = ()) -> float:
        try:
            # Whoever keeps this frame, as profilers do, shall not keep the engine's tuples with it.
            coordinates, selected = [*coordinates], [*selected]
            number = len(times)
            if number >= run.limit:
                return nan
            if clock() >= run.deadline:
                run.stop(Status.MAXTIME)
                return nan
            x = decode(coordinates)
            category = category_of(selected) if is_categorical else ()
            known = None if run.recall is None else run.recall(number, x, category)
            if known is None:
                index, value, constraints = observe(x, category)
                time = clock() - run.start
            else:
                (index, value, constraints), time = known
                run.replayed += 1
            add_point(x)
            if is_categorical:
                add_category(category)
            add_index(index)
            add_value(value)
            if constraint_count:
                add_constraints(constraints)
                add_constraints(blank[len(constraints) :])
            add_time(time)
            ranked = value
            if index != goal:
                value = run.engine_value(index, value)
                if value is not ranked:
                    ranked = inf
            if index > run.best_index or (ranked < run.best_value and index == run.best_index):
                run.best = number
                run.best_index = index
                run.best_value = ranked
            run.last_index = index
            run.last_value = value
            if known is None and run.record is not None:
                run.record(run.phase, x, category, index, history._value[-1], constraints, time)
            if value <= f_min and index == goal:
                run.stop(Status.F_MIN)
            if run.watch is not None:
                run.watch()
            return value if index == 0 else 0.0
        except BaseException as error:
            run.error = error
            run.limit = 0
            return nan

    return trial
