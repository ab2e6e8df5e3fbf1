# SPDX-License-Identifier: MIT
"""A run: the trials of one call of `minimize`."""

from __future__ import annotations

import math
from itertools import count
from time import perf_counter
from typing import TYPE_CHECKING, Any, Callable, NoReturn, Optional, Sequence

from ._errors import JournalError, name_point
from ._history import History, rank
from ._log import log
from ._observation import Entry, Failure, Outcome, text_of
from ._plan import Plan
from ._result import Status
from ._search import Point, Search
from ._workers import Answer, Workers, with_origin

if TYPE_CHECKING:
    from ._journal import Journal

# What a recorded value and the same one of today may differ by, of the size and spread of the
# values: other libraries and processors round differently.
_SAME = 1e-6


class Run:
    """The loop around a search, and its state.

    An outcome goes to the search, then to the journal. When its
    turn comes, it is a trial: in the history first, then shown to the watcher (the callback and the
    progress display). What happens afterwards cannot lose it.
    """

    #: Set by the driver before the first trial.
    workers: Workers

    def __init__(self, plan: Plan) -> None:
        # Fixed after construction.
        self.variables = plan.variables
        self.history = plan.new_history()
        self.surplus = plan.new_history()
        self.goal = plan.goal
        self._limit = plan.budget.maxfun
        self._allowed_seconds = plan.budget.maxtime
        self._f_min = plan.budget.f_min
        self._min_radius = plan.budget.min_radius
        self._verify = plan.verify
        self._catch = plan.catch
        self._point = plan.point
        self._known_count = len(plan.known_points)
        points = 2 * len(plan.variables.searched) + 1 if plan.settings.cross else 1
        self._initial_count = points * math.prod(map(len, plan.variables.choices))
        self._initial_count += len(plan.wanted)
        # Set by the driver, where there is one.
        self.watch: Optional[Callable[[], None]] = None
        # Written by each trial.
        self.status: Optional[Status] = None
        self.error: Optional[BaseException] = None
        #: Where that was raised, if in an evaluation.
        self.place = ""
        self.start = perf_counter()
        self.deadline = self.start + self._allowed_seconds
        #: When the last evaluation ended of which a trial was made.
        self.latest = 0.0
        self.best = -1
        self.best_rank = (1, math.inf)
        self.replayed = 0
        self._search: Optional[Search] = None
        # Outcomes of the search that are no trials yet, and exceptions instead of outcomes, by the
        # numbers of their points; in the order in which they came.
        self._known: dict[int, Entry] = {}
        self._failures: dict[int, BaseException] = {}
        self._out: dict[int, Point] = {}
        # What the sessions before this one recorded.
        self._journal: Optional[Journal] = None
        self._recorded: dict[Any, Entry] = {}
        self._is_replay = False
        self._supplied: set[int] = set()
        # Of evaluations that no search asked for.
        self._other_keys = count(-1, -1)

    @property
    def made(self) -> int:
        """How many trials were made, not known beforehand."""
        return len(self.history) - self._known_count

    def elapsed(self) -> float:
        """Seconds since the run began, in all sessions."""
        return perf_counter() - self.start

    def stop(self, status: Status) -> None:
        """Make no more trials; of several reasons the first counts."""
        self.status = self.status or status

    def is_feasible(self) -> bool:
        """Whether the best trial satisfies every constraint."""
        return self.best_rank[0] == -self.goal

    def best_objective(self) -> float:
        """The best feasible value, infinity where there is none."""
        return self.best_rank[1] if self.is_feasible() else math.inf

    def search(self, search: Search, journal: Optional[Journal]) -> None:
        """Ask, evaluate and tell until the end; the reason is in `status`."""
        self._search = search
        self._take_known(search)
        if journal is not None:
            self._journal = journal
            self._supply(journal)
        self._is_replay = bool(self._recorded)
        if self._is_replay:
            # Replaying may take longer than the time allowed: the recorded times count.
            self.deadline = math.inf
        workers = self.workers
        while True:
            while self.status is None and search.advance(1):
                self._make_trial()
            if self.status is None and search.is_finished:
                is_spent = self.made >= self._limit
                self.stop(Status.MAXFUN if is_spent else Status.EXHAUSTED)
            if self.status is not None:
                break
            self._end_replay()
            self._raise_failure()
            if perf_counter() < self.deadline:
                for point in search.ask(workers.size - workers.busy):
                    self._out[point.id] = point
                    workers.submit(point.id, (point.x, point.category))
                if not workers.busy and not search.is_finished:
                    raise RuntimeError("the search asks for nothing, and waits for nothing")
            elif not workers.busy:
                self.stop(Status.MAXTIME)
            # All answers that are there before the next points are asked for, which takes time.
            answer = workers.wait() if workers.busy else None
            while answer is not None:
                self._receive(answer)
                answer = workers.wait(0) if workers.busy else None
        if self._is_replay:
            # Nothing new was asked for: the run is as old as what it replayed.
            self._set_elapsed(self.latest)

    def end_search(self) -> None:
        """Let go of the search, whatever frame of an exception's traceback still holds it."""
        if self._search is not None:
            vars(self._search).clear()
            self._search = None

    def close(self) -> None:
        """Drop what an interruption left half-written, and count what was not needed."""
        self.history.finish()
        self.best = min(self.best, len(self.history) - 1)
        if not self.surplus:
            for entry in self._known.values():
                _append(self.surplus, entry)
        self.surplus.finish()

    def _take_known(self, search: Search) -> None:
        """The trials that the search begins with."""
        watch, self.watch = self.watch, None
        for trial, category in zip(search.history, search.history.category):
            outcome = trial.index, trial.value, trial.constraints, trial.objective
            positions = tuple(map(int, category))
            self._append(Entry("known", trial.x, positions, outcome, 0.0), is_replayed=False)
        self.watch = watch

    def _supply(self, journal: Journal) -> None:
        for entry in journal.entries:
            if self._recorded.setdefault((entry.x, entry.category), entry) is not entry:
                continue
            chosen = self.history.chosen(entry.category)
            assert self._search is not None
            point = self._search.supply(entry.x, categories=chosen, **self._told(entry))
            self._known[point.id] = entry
            self._supplied.add(point.id)

    def _told(self, entry: Entry) -> dict[str, Any]:
        """An outcome as the search is told of it."""
        _, value, constraints, objective = entry.outcome
        told: dict[str, Any] = {"value": objective, "failed": not math.isfinite(value)}
        if self.history.constraint_count:
            told["constraints"] = constraints
        return told

    def _set_elapsed(self, seconds: float) -> None:
        self.start = perf_counter() - seconds
        self.deadline = self.start + self._allowed_seconds

    def _end_replay(self) -> None:
        """Make sure that the journal is of this problem, before anything is added to it."""
        if not self._is_replay:
            return
        self._is_replay = False
        self._set_elapsed(max(entry.time for entry in self._recorded.values()))
        assert self._journal is not None
        path = self._journal.path
        if self.made > self._initial_count and any(
            entry.phase == "search" for entry in self._known.values()
        ):
            raise JournalError(
                f"the journal {path!r} holds other points than this search asks for from trial "
                f"{self.made} on: another version wrote it"
            )
        if not self._verify or not self.made:
            return
        ranks = [*map(rank, self.history.index, self.history.value)][self._known_count :]
        best = self._known_count + ranks.index(min(ranks))
        x = tuple(self.history.x[best])
        category = tuple(map(int, self.history.category[best]))
        index, value = self._recorded[x, category].outcome[:2]
        found = self._evaluate(x, category)[:2]
        distances = sorted(abs(v - value) for v in self.history.value if math.isfinite(v))
        size = abs(value) + (distances[len(distances) // 2] if distances else 0.0)
        if found[0] != index or abs(found[1] - value) > _SAME * size:
            raise JournalError(
                f"the journal {path!r} holds the value {value!r} at {x}, where it is {found[1]!r} "
                "now: another function wrote it; verify=False goes on all the same"
            )

    def _make_trial(self) -> None:
        search = self._search
        assert search is not None and search.last is not None
        number = search.last[0]
        self._append(self._known.pop(number), number in self._supplied)
        radius = self._min_radius
        if radius is not None and search.radius() < radius:
            self.stop(Status.MIN_RADIUS)

    def _append(self, entry: Entry, is_replayed: bool) -> None:
        index, value = entry.outcome[:2]
        _append(self.history, entry)
        placed = rank(index, value)
        if placed < self.best_rank:
            self.best = len(self.history) - 1
            self.best_rank = placed
        self.latest = max(self.latest, entry.time)
        if is_replayed:
            self.replayed += 1
            if entry.time >= self._allowed_seconds:
                self.stop(Status.MAXTIME)
        if index == self.goal and value <= self._f_min:
            self.stop(Status.F_MIN)
        if self.watch is not None:
            self.watch()

    def _raise_failure(self) -> None:
        """An exception counts when the search cannot go on without its point."""
        if self._failures:
            assert self._search is not None
            needed = self._search.needed
            if needed and needed[0].id in self._failures:
                point = needed[0]
                self._raise(self._failures[point.id], point.x, point.categories)

    def _raise(self, error: BaseException, x: Sequence[float], chosen: Sequence[Any]) -> NoReturn:
        """Raise an exception of an evaluation, with the point at which it happened."""
        self.place = name_point(error, self.variables, tuple(x), tuple(chosen), self._point)
        raise with_origin(error)

    def _evaluate(self, x: Sequence[float], category: Sequence[int]) -> Outcome:
        """The outcome at a point that no search asked for."""
        key = next(self._other_keys)
        self.workers.submit(key, (x, category))
        while True:
            answer = self.workers.wait()
            assert answer is not None
            if answer.key != key:
                self._receive(answer)
            elif answer.error is not None and not isinstance(answer.error, self._catch):
                self._raise(answer.error, x, self.history.chosen(category))
            else:
                return self._outcome(answer)[0]

    def _outcome(self, answer: Answer) -> tuple[Outcome, str]:
        """What came of an evaluation, and the text of an exception that was caught."""
        if answer.error is not None:  # of which no function was told: its process was ended
            return (0, math.nan, (), math.nan), text_of(answer.error)
        if isinstance(answer.value, Failure):
            return answer.value
        return answer.value, ""

    def _receive(self, answer: Answer) -> None:
        """Take what came of a point of the search."""
        key = answer.key
        point = self._out.pop(key)
        if answer.error is not None and not isinstance(answer.error, self._catch):
            self._failures[key] = answer.error
            return
        outcome, error = self._outcome(answer)
        if error:
            place = self.variables.place(point.x, point.categories)
            log("warning", "failed point at %s: %s", place, error)
        search = self._search
        # After its end a search needs nothing.
        is_needed = search is not None and (
            self.workers.size == 1 or any(other.id == key for other in search.needed)
        )
        phase = "search" if is_needed else "ahead"
        entry = Entry(phase, point.x, point.category, outcome, self.elapsed(), error)
        self._known[key] = entry
        if search is not None:
            search.tell(point, advance=False, **self._told(entry))
        try:
            self._record(entry)
        except BaseException:
            # The run ends here, and nobody is told of the trials any more that are still made.
            self.watch = None
            while search is not None and self.status is None and search.advance(1):
                self._make_trial()
            raise

    def _record(self, entry: Entry) -> None:
        if self._journal is not None:
            self._journal.record(entry)


def _append(history: History, entry: Entry) -> None:
    index, value, constraints, objective = entry.outcome
    if entry.error:
        history.errors[len(history)] = entry.error
    history.append(entry.x, entry.category, index, value, entry.time, constraints, objective)
