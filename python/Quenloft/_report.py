# SPDX-License-Identifier: MIT
"""What a run tells its caller: the intermediate results, and the result."""

from __future__ import annotations

import math
from typing import Any, Callable, Optional, Sequence

from ._plan import Plan
from ._progress import Progress
from ._result import OptimizeResult, Status, best_fields, exhaustion, minima_fields
from ._run import Run
from ._search import Search


class Report:
    """Collects what the search leaves behind, and makes results of it."""

    def __init__(self, run: Run, plan: Plan) -> None:
        self._run = run
        self._stops = plan.budget
        self._present = plan.present
        self._names = [limit.name for limit in plan.limits]
        self._guards = [i for i, limit in enumerate(plan.limits) if limit.guards]
        self._minima = minima_fields(run.history, (), plan.present)
        self._status: Optional[Status] = None
        self._message = ""

    def end_search(self, search: Search) -> None:
        """Take over what the search found."""
        run = self._run
        radius = math.nan
        if run.history:
            radius = search.radius()
            # The best trial may not be marked yet: that is done when the initial ones are complete.
            minima = [(run.best, radius), *search.locals()] if run.is_feasible() else []
            self._minima = minima_fields(run.history, minima, self._present)
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
            **self._minima,
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
        return best_fields(run.history, run.best if run.best >= 0 else None, self._present)

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
            what = exhaustion(run.history, run.variables.point_count)
            return f"{what}: {trials}{budget}"
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
