# SPDX-License-Identifier: MIT
"""Time per evaluation that `Quenloft.minimize` adds to the native `Problem.Minimize`.

Both make the same search on the same objective, in turn; the difference of the least processor
times is divided by the number of trials. The limit, 3 microseconds, is for runs without journal
and callback. The journal's row is in elapsed time: it waits for the disk.

    python benchmarks/overhead.py [--trials 3000] [--repeats 9]
"""

from __future__ import annotations

import argparse
import os
import platform
import sys
import tempfile
from time import perf_counter, process_time
from typing import Any, Callable

# One thread: what a team adds to the processor time would drown the difference.
os.environ["OMP_NUM_THREADS"] = "1"

import Quenloft

LIMIT = 3e-6


def objective(x: tuple[float, ...], *rest: Any) -> float:
    """A cheap one: its time cancels out."""
    return (x[0] - 0.3) * (x[0] - 0.3)


def constraint(x: tuple[float, ...], *rest: Any) -> float:
    """Holds nearly everywhere, so that both functions are called."""
    return x[0] - 0.99


#: Case, number of variables, further arguments of `Problem` and of `minimize`.
CASES: list[tuple[str, int, dict[str, Any], dict[str, Any]]] = [
    ("plain", 1, {}, {}),
    ("plain", 2, {}, {}),
    ("plain", 3, {}, {}),
    ("list", 2, {}, {"point": "list"}),
    ("logarithmic", 2, {}, {"logarithmic": [0]}),
    ("hidden", 2, {"constraints": [lambda x: 0.0]}, {"nonfinite": "infeasible"}),
    ("constraint", 2, {"constraints": [constraint]}, {"constraints": constraint}),
    ("categories", 2, {"categorical": [3]}, {"categories": [("a", "b", "c")]}),
    ("callback", 2, {}, {"callback": lambda result: None}),
    ("journal", 2, {}, {"journal": ""}),
]
UNLIMITED = ("callback", "journal")


def least_times(
    runs: list[Callable[[], Any]], repeats: int, clock: Callable[[], float]
) -> list[float]:
    """Seconds of the fastest of several calls of each, made in turn."""
    least = [float("inf")] * len(runs)
    for _ in range(repeats):
        for i, run in enumerate(runs):
            start = clock()
            run()
            least[i] = min(least[i], clock() - start)
    return least


def measure(
    dimension: int,
    native_options: dict[str, Any],
    options: dict[str, Any],
    trials: int,
    repeats: int,
) -> tuple[float, float]:
    """Seconds per trial of the native search and of the package's."""
    bounds = [(0.1, 1.0)] * dimension
    flat = [limit for pair in bounds for limit in pair]
    problem = Quenloft.Problem(bounds=flat, target=objective, **native_options)

    def package() -> Any:
        if "journal" not in options:
            return Quenloft.minimize(objective, bounds, maxfun=trials, **options)
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "run.db")
            return Quenloft.minimize(objective, bounds, maxfun=trials, journal=path)

    clock = perf_counter if "journal" in options else process_time
    runs = [lambda: problem.Minimize(stop_tests=trials), package]
    native, total = least_times(runs, repeats, clock)
    return native / trials, total / trials


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--trials", type=int, default=3000)
    parser.add_argument("--repeats", type=int, default=9)
    arguments = parser.parse_args()
    print(f"CPython {platform.python_version()}, least of {arguments.repeats} runs")
    print(
        f"{'case':12} {'N':>2} {'trials':>7} {'native us':>10} {'minimize us':>12} {'added us':>9}"
    )
    worst = 0.0
    for name, dimension, native_options, options in CASES:
        trials = 200 if "journal" in options else arguments.trials
        native, total = measure(dimension, native_options, options, trials, arguments.repeats)
        if name not in UNLIMITED:
            worst = max(worst, total - native)
        print(
            f"{name:12} {dimension:2} {trials:7} {native * 1e6:10.2f} "
            f"{total * 1e6:12.2f} {(total - native) * 1e6:9.2f}"
        )
    is_within = worst < LIMIT
    print(f"{'within' if is_within else 'NOT within'} {LIMIT * 1e6:g} us: {worst * 1e6:.2f} us")
    return 0 if is_within else 1


if __name__ == "__main__":
    sys.exit(main())
