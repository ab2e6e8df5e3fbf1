# SPDX-License-Identifier: MIT
"""What a run tells its caller: the intermediate results, and the result."""

from __future__ import annotations

import math
from dataclasses import replace
from typing import Any, Callable, Optional, Sequence

from _Quenloft import Result

from .observation import Form
from .progress import Progress
from .result import LocalMinimum, OptimizeResult, Status
from .run import Run
from .settings import Budget

_MOST_LOCALS = 10
# Above any distance in the unit box of 32 dimensions.
_LARGEST_RADIUS = 6.0


class Report:
    """Collects what the phases leave behind, and makes results of it."""

    def __init__(
        self, run: Run, stops: Budget, form: Form, constraint_names: Sequence[str]
    ) -> None:
        self._run = run
        self._stops = stops
        self._form = form
        self._names = constraint_names
        self._locals: list[LocalMinimum] = []
        self._phases: dict[str, dict[str, Any]] = {}
        self._status: Optional[Status] = None
        self._message = ""

    def end_search(self, native: Optional[Result]) -> None:
        """Take over what the native module found."""
        run = self._run
        found = native if native is not None and native.tests else None
        self._locals = self._native_locals(found)
        self._phases["search"] = {"nit": len(run.history), "fun": self._best_fun()}
        radius = math.nan if found is None else found.minimum.radius
        self._status = self._final_status()
        self._message = self._reason(self._status, radius)

    def end_polish(self, method: str) -> None:
        """Take over what the polish found."""
        run = self._run
        before = self._phases["search"]
        fun = self._best_fun()
        trials = len(run.history) - before["nit"]
        gain = before["fun"] - fun
        if gain > 0:
            polished = replace(self._minimum(run.best), radius=0.0)
            self._locals = [polished, *self._locals[1:]]
        self._phases["polish"] = {"nit": trials, "fun": fun, "method": method, "gain": gain}
        if run.status is not None or run.error is not None:
            self._status = self._final_status()
            self._message = self._reason(self._status, math.nan)
        elif len(run.history) >= run.limit:
            self._status = Status.MAXFUN
            self._message = self._reason(self._status, math.nan)
        self._message += f"; polish ({method}): {trials} trials, gain {gain:.6g}"

    def intermediate(self, nfev: int) -> OptimizeResult:
        """What a callback sees."""
        run = self._run
        history = run.history
        trial = history[-1]
        return OptimizeResult(
            message=f"running: {len(history)} trials, {trial.time:.3f} s",
            success=run.is_feasible(),
            status=Status.RUNNING,
            **self._best(),
            nfev=nfev,
            nit=len(history),
            elapsed_seconds=trial.time,
            replayed=run.replayed,
            trial=trial,
            history=history,
        )

    def result(self) -> OptimizeResult:
        """The result, once nothing more happens."""
        run = self._run
        history = run.history
        history.finish()
        run.best = min(run.best, len(history) - 1)
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
            nit=len(history),
            locals=self._locals,
            xl=[minimum.x for minimum in self._locals],
            funl=[minimum.fun for minimum in self._locals],
            phases=self._phases,
            elapsed_seconds=run.elapsed(),
            replayed=run.replayed,
            history=history,
        )

    def _calls(self) -> int:
        history = self._run.history
        count = history.constraint_count
        return sum(index >= count for index in history.index) if count else len(history)

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
            "fun": self._best_fun(),
            "x": self._form(trial.x),
            "categories": trial.categories,
            "maxcv": trial.value if trial.index < run.history.constraint_count else 0.0,
            "constraints": trial.constraints,
        }

    def _best_fun(self) -> float:
        return self._run.best_value if self._run.is_feasible() else math.inf

    def _minimum(self, number: int) -> LocalMinimum:
        trial = self._run.history[number]
        return LocalMinimum(self._form(trial.x), trial.value, trial.categories, math.inf)

    def _native_locals(self, native: Optional[Result]) -> list[LocalMinimum]:
        """The native module's local minima that are feasible, the best trial first.

        The best trial may be missing there: the marks are set when the initial trials are
        complete.
        """
        run = self._run
        if not run.is_feasible():
            return []
        history = run.history
        best = history[run.best]
        radius = math.inf if native is None else native.minimum.radius
        if radius > _LARGEST_RADIUS:
            radius = math.inf  # its neighbours were never looked for
        found = [replace(self._minimum(run.best), radius=radius)]
        decode = run.variables.decoder()
        decode_category = run.variables.category_decoder()
        for test in native.locals if native is not None else ():
            x = decode(test.coordinate)
            chosen: tuple[Any, ...] = ()
            if history.choices:
                selected = test.categorical if run.variables.free else ()
                chosen = history.chosen(decode_category(selected))
            if test.index == history.goal and test.value != best.value:
                found.append(LocalMinimum(self._form(x), test.value, chosen, test.radius))
        return found[:_MOST_LOCALS]

    def _reason(self, status: Status, radius: float) -> str:
        run = self._run
        count = len(run.history)
        trials = f"{count} trials"
        stops = self._stops
        budget = f" of {stops.maxfun:.0f}" if math.isfinite(stops.maxfun) else ""
        if status is Status.MAXFUN:
            held_back = stops.maxfun - run.limit if run.phase == "search" else 0
            note = f" ({held_back:.0f} of {stops.maxfun:.0f} for polish)" if held_back else ""
            return f"maxfun reached: {count} trials of {run.limit:.0f}{note}"
        if status is Status.MAXTIME:
            seconds = f"{run.elapsed():.3f} s of {run.allowed_seconds:g} s"
            return f"maxtime reached: {seconds}, {trials}{budget}"
        if status is Status.F_MIN:
            return f"f_min reached: {run.best_value!r} <= {stops.f_min!r}, {trials}{budget}"
        if status is Status.MIN_RADIUS:
            return f"min_radius reached: {radius!r} < {stops.min_radius!r}, {trials}{budget}"
        if status is Status.CALLBACK:
            return f"stopped by the callback: {trials}{budget}"
        if status is Status.EXHAUSTED:
            return f"nothing left to split at the resolution of the numbers: {trials}{budget}"
        error = run.error
        if status is Status.INTERRUPTED:
            return f"interrupted: {trials}{budget}"
        return f"{type(error).__name__} in trial {count}{budget}: {error}"

    def _shortfall(self) -> str:
        run = self._run
        index, value = run.best_index, run.history.value[run.best]
        if index < len(self._names):
            return f"no feasible point: {self._names[index]} is {value:.6g} > 0 at best"
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
        nfev += run.last_index >= history.constraint_count
        if display is not None:
            display.update(len(history), run.best_objective(), history[-1].time)
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
