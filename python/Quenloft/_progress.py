# SPDX-License-Identifier: MIT
"""The progress display: best value, trials, budget and time left, on stderr."""

from __future__ import annotations

import math
import sys
from importlib import import_module
from time import perf_counter
from typing import Any, Optional, Protocol

# Seconds between two refreshes: what the eye takes, and no measurable cost.
_INTERVAL = 0.1


class Display(Protocol):
    """Something that shows the state of a run."""

    def update(self, count: int, note: str) -> None: ...

    def close(self) -> None: ...


class Progress:
    """The display of one run; does nothing where stderr is neither a terminal nor a notebook."""

    def __init__(
        self, maxfun: float, maxtime: float, workers: int = 1, unit: str = "trials"
    ) -> None:
        self._workers = workers
        self._maxfun = maxfun
        self._maxtime = maxtime
        self._next = 0.0
        self._first: Optional[tuple[float, int]] = None
        self._display = _display(maxfun, unit)

    def update(
        self, count: int, best: float, elapsed: float, is_last: bool = False, busy: int = 0
    ) -> None:
        """Show the state, unless the last time was a moment ago."""
        now = perf_counter()
        if self._display is None or (now < self._next and not is_last):
            return
        self._next = now + _INTERVAL
        if self._first is None:
            # What a journal replays takes no time, so the pace is that since the first update.
            self._first = (elapsed, count)
        notes = [f"best {best:.6g}"] if math.isfinite(best) else []
        if self._workers > 1 and not is_last:
            notes.append(f"{busy} of {self._workers} workers busy")
        left = self.seconds_left(count, elapsed)
        if math.isfinite(left) and not is_last:
            notes.append(f"{_clock(left)} left")
        self._display.update(count, ", ".join(notes))

    def seconds_left(self, count: int, elapsed: float) -> float:
        """Estimated time to the end of the budget, infinite where nothing limits it."""
        left = self._maxtime - elapsed
        if self._first is not None and count > self._first[1]:
            pace = (elapsed - self._first[0]) / (count - self._first[1])
            left = min(left, (self._maxfun - count) * pace)
        return max(left, 0.0)

    def close(self) -> None:
        """Leave the last state on the screen."""
        if self._display is not None:
            self._display.close()


def _clock(seconds: float) -> str:
    minutes, rest = divmod(round(seconds), 60)
    hours, minutes = divmod(minutes, 60)
    return f"{hours}:{minutes:02}:{rest:02}" if hours else f"{minutes:02}:{rest:02}"


def _display(total: float, unit: str) -> Optional[Display]:
    stream = sys.stderr
    is_terminal = stream is not None and stream.isatty()
    if not is_terminal and "ipykernel" not in sys.modules:
        return None
    try:
        # Not an import statement: it brings no types, and may be missing.
        tqdm = import_module("tqdm.auto").tqdm
    except ImportError:
        return _Line(total, unit, stream) if is_terminal else None
    return _Bar(tqdm, total, unit)


class _Bar:
    """tqdm's bar, without its own estimate: it does not know of the limit in seconds."""

    def __init__(self, tqdm: Any, total: float, unit: str) -> None:
        is_limited = math.isfinite(total)
        shape = "{l_bar}{bar}| " if is_limited else ""
        count = "{n_fmt}/{total_fmt}" if is_limited else "{n_fmt}"
        self._bar = tqdm(
            total=total if is_limited else None,
            unit=unit,
            bar_format=shape + count + " {unit} [{elapsed}{postfix}]",
        )

    def update(self, count: int, note: str) -> None:
        self._bar.set_postfix_str(note, refresh=False)
        self._bar.n = count
        self._bar.refresh()

    def close(self) -> None:
        self._bar.close()


class _Line:
    """One line that is written over."""

    def __init__(self, total: float, unit: str, stream: Any) -> None:
        self._total = f"/{total:.0f}" if math.isfinite(total) else ""
        self._unit = unit
        self._stream = stream
        self._width = 0

    def update(self, count: int, note: str) -> None:
        text = f"{count}{self._total} {self._unit}" + (f", {note}" if note else "")
        self._stream.write("\r" + text.ljust(self._width))
        self._stream.flush()
        self._width = len(text)

    def close(self) -> None:
        if self._width:
            self._stream.write("\n")
            self._stream.flush()
