# SPDX-License-Identifier: MIT
"""What a run tells its caller: the intermediate results, and the result."""

from __future__ import annotations

import math
from dataclasses import replace
from typing import Any, Callable, Optional, Sequence

from ._plan import Plan
from ._progress import Progress
from ._result import LocalMinimum, OptimizeResult, Status
from ._run import Run
from ._search import Search

_MOST_LOCALS = 10
# Above any distance in the unit box of 32 dimensions.
_LARGEST_RADIUS = 6.0


class Report:
    """Collects what the search leaves behind, and makes results of it."""

    def __init__(self, run: Run, plan: Plan) -> None:
        self._run = run
        self._stops = plan.budget
        self._present = plan.present
        self._names = [limit.name for limit in plan.limits]
        self._guards = [i for i, limit in enumerate(plan.limits) if limit.guards]
        self._locals: list[LocalMinimum] = []
        self._status: Optional[Status] = None
        self._message = ""

    def end_search(self, search: Search) -> None:
        """Take over what the search found."""
        run = self._run
        radius = search.radius() if run.history else math.nan
        self._locals = self._local_minima(search, radius)
        self._status = self._final_status()
        self._message = self._reason(self._status, radius)

    def intermediate(self, nfev: int) -> OptimizeResult:
        """What a callback sees."""
        run = self._run
        history = run.history
        trial = history[-1]
        return OptimizeResult(
            message=f"running: {run.made} trials, {trial.time:.3f} s",
            success=run.is_feasible(),
            status=Status.RUNNING,
            **self._best(),
            nfev=nfev,
            nit=run.made,
            elapsed_seconds=trial.time,
            replayed=run.replayed,
            trial=trial,
            history=history,
        )

    def result(self) -> OptimizeResult:
        """The result, once nothing more happens."""
        run = self._run
        history = run.history
        run.close()
        status = self._status
        if run.error is not None or status is None:
            status = self._final_status()
            self._message = self._reason(status, math.nan)
        message = self._message
        if len(history) and not run.is_feasible():
            message += "; " + self._shortfall()
        return OptimizeResult(
            message=message,
            success=run.is_feasible() and status > 0,
            status=status,
            **self._best(),
            nfev=self._calls(),
            nit=run.made,
            locals=self._locals,
            xl=[minimum.x for minimum in self._locals],
            funl=[minimum.fun for minimum in self._locals],
            elapsed_seconds=run.elapsed(),
            replayed=run.replayed,
            history=history,
            surplus=run.surplus,
        )

    def _calls(self) -> int:
        run = self._run
        made = run.history.constraints[run.history.known :]
        return sum(self.is_call(row) for rows in (made, run.surplus.constraints) for row in rows)

    def is_call(self, constraints: Sequence[float]) -> bool:
        """Whether the objective was called where the constraints have these values."""
        return all(constraints[i] <= 0 for i in self._guards)

    def _final_status(self) -> Status:
        error = self._run.error
        if error is not None:
            is_interrupt = isinstance(error, KeyboardInterrupt)
            return Status.INTERRUPTED if is_interrupt else Status.ERROR
        return self._run.status or Status.EXHAUSTED

    def _best(self) -> dict[str, Any]:
        run = self._run
        if run.best < 0:
            return {
                "fun": math.inf, "x": None, "categories": (), "maxcv": math.inf, "constraints": ()
            }  # fmt: skip
        trial = run.history[run.best]
        return {
            "fun": run.best_objective(),
            "x": self._present(trial.x, trial.categories),
            "categories": trial.categories,
            "maxcv": trial.maxcv,
            "constraints": trial.constraints,
        }

    def _minimum(self, number: int) -> LocalMinimum:
        trial = self._run.history[number]
        return LocalMinimum(
            self._present(trial.x, trial.categories), trial.value, trial.categories, math.inf
        )

    def _local_minima(self, search: Search, radius: float) -> list[LocalMinimum]:
        """The local minima of the search that are feasible, the best trial first.

        The best trial may be missing there: the marks are set when the initial trials are
        complete.
        """
        run = self._run
        if not run.is_feasible():
            return []
        if radius > _LARGEST_RADIUS:
            radius = math.inf  # its neighbours were never looked for
        found = [replace(self._minimum(run.best), radius=radius)]
        for position, extent in search.locals():
            is_feasible = run.history.index[position] == run.goal
            if is_feasible and position != run.best:
                found.append(replace(self._minimum(position), radius=extent))
        return found[:_MOST_LOCALS]

    def _reason(self, status: Status, radius: float) -> str:
        run = self._run
        count = run.made
        trials = f"{count} trials"
        stops = self._stops
        budget = f" of {stops.maxfun:.0f}" if math.isfinite(stops.maxfun) else ""
        if status is Status.MAXFUN:
            return f"maxfun reached: {trials}{budget}"
        if status is Status.MAXTIME:
            seconds = f"{run.elapsed():.3f} s of {stops.maxtime:g} s"
            return f"maxtime reached: {seconds}, {trials}{budget}"
        if status is Status.F_MIN:
            return f"f_min reached: {run.best_objective()!r} <= {stops.f_min!r}, {trials}{budget}"
        if status is Status.MIN_RADIUS:
            return f"min_radius reached: {radius!r} < {stops.min_radius!r}, {trials}{budget}"
        if status is Status.CALLBACK:
            return f"stopped by the callback: {trials}{budget}"
        if status is Status.EXHAUSTED:
            if math.isfinite(run.variables.point_count):
                return (
                    f"all {len(run.history)} points evaluated, the best is proven: {trials}{budget}"
                )
            return f"nothing left to split at the resolution of the numbers: {trials}{budget}"
        error = run.error
        if status is Status.INTERRUPTED:
            return f"interrupted: {trials}{budget}"
        place = f" at {run.place}" if run.place and run.place not in str(error) else ""
        return f"{type(error).__name__} in trial {count}{budget}{place}: {error}"

    def _shortfall(self) -> str:
        run = self._run
        index, value = -run.best_rank[0], run.history.value[run.best]
        if index < len(self._names):
            return f"no feasible point: {self._names[index]} is {value:.6g} > 0 at best"
        errors = run.history.errors
        if errors:
            failed = f"{len(errors)} of {len(run.history)} evaluations failed"
            return f"no feasible point: {failed}, the last with {errors[max(errors)]}"
        return "no feasible point: fun was nowhere finite"


def watcher(
    run: Run,
    report: Report,
    display: Optional[Progress],
    callback: Optional[Callable[[OptimizeResult], Any]],
) -> Optional[Callable[[], None]]:
    """What follows each trial: the progress display, then the callback. None for neither."""
    if display is None and callback is None:
        return None
    history = run.history
    nfev = 0

    def watch() -> None:
        nonlocal nfev
        nfev += report.is_call(history[-1].constraints)
        if display is not None:
            display.update(run.made, run.best_objective(), run.latest, busy=run.workers.busy)
        if callback is not None:
            try:
                answer = callback(report.intermediate(nfev))
                # A truth value only, Python's or NumPy's: a callback written as an expression may
                # return anything.
                must_stop = type(answer).__name__ in ("bool", "bool_") and bool(answer)
            except StopIteration:
                must_stop = True
            if must_stop:
                run.stop(Status.CALLBACK)

    return watch
