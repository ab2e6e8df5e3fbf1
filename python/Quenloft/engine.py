# SPDX-License-Identifier: MIT
"""The search phase: a run driven by the native module."""

from __future__ import annotations

import math
from typing import Any, Callable, Optional, Sequence

from _Quenloft import Problem, Result

from .result import Status
from .run import Run, trial_function
from .settings import Settings

# The largest counts that are stops: one more is the native module's "not set".
_LARGEST_COUNT = 2**31 - 2


def search(run: Run, settings: Settings, min_radius: Optional[float]) -> Optional[Result]:
    """Search until the phase of `run` ends, and leave the reason in ``run.status``.

    Returns
    -------
    Result or None
        The native result. None when an exception ended the search, which is then in ``run.error``.
    """
    variables = run.variables
    lower, upper = variables.engine_box()
    arguments: dict[str, Any] = {"bounds": [b for pair in zip(lower, upper) for b in pair]}
    if variables.free:
        arguments["categorical"] = [len(variables.choices[i]) for i in variables.free]
    functions, release = _native_functions(run)
    # The engine's index is the number of the first of these that is above 0: as many before the
    # target as a trial can violate.
    if functions[:-1]:
        arguments["constraints"] = functions[:-1]
    stops: dict[str, Any] = {"stop_tests": int(min(run.limit, _LARGEST_COUNT))}
    if min_radius is not None:
        stops["stop_radius"] = min_radius
    # The deadline is checked before each evaluation; this is for an engine that makes none.
    if run.allowed_seconds < _LARGEST_COUNT - 2:
        stops["stop_seconds"] = math.ceil(run.allowed_seconds) + 2
    limit = run.limit
    problem = result = None
    try:
        problem = Problem(target=functions[-1], **arguments)
        result = problem.Minimize(**settings.engine_arguments(), **stops)
    except SystemError as lost:
        # The trial function lets nothing out. What came out of it struck on its way in or out,
        # where only a signal can: the engine knows no more than that something did.
        run.error = run.error or _interruption(lost)
    except BaseException as error:
        run.error = run.error or error
    finally:
        release()
        # A traceback may keep this frame; the engine's room for a million trials should go.
        problem = None
    if run.error is None and run.status is None:
        assert result is not None
        run.status = _reason(run, limit, result, min_radius)
    return result


def _native_functions(run: Run) -> tuple[list[Callable[..., float]], Callable[[], None]]:
    """Constraints and target for the native module, and a function that empties them.

    The first of them makes the trial; the others answer what it found. The module keeps a
    reference to each constraint for ever, so these must not keep the run alive.
    """
    trial: Optional[Callable[..., float]] = trial_function(run)
    state: Optional[Run] = run
    goal = run.history.goal
    if goal == 0:
        assert trial is not None
        return [trial], lambda: None

    def first(coordinates: Sequence[float], selected: Sequence[int] = ()) -> float:
        coordinates, selected = [*coordinates], [*selected]  # see `trial_function`
        assert trial is not None
        return trial(coordinates, selected)

    def later(position: int) -> Callable[..., float]:
        def answer(*point: Any) -> float:
            del point
            assert state is not None
            return state.last_value if state.last_index == position else 0.0

        return answer

    def release() -> None:
        nonlocal trial, state
        trial = state = None

    return [first, *(later(position) for position in range(1, goal + 1))], release


def _reason(run: Run, limit: float, result: Result, min_radius: Optional[float]) -> Status:
    """Why the engine ended a search that no trial stopped."""
    if len(run.history) >= limit:
        return Status.MAXFUN
    if run.elapsed() >= run.allowed_seconds:
        return Status.MAXTIME
    if min_radius is not None and result.tests and result.minimum.radius < min_radius:
        return Status.MIN_RADIUS
    return Status.EXHAUSTED


def _interruption(lost: SystemError) -> BaseException:
    interruption = KeyboardInterrupt()
    interruption.__cause__ = lost
    return interruption
