#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""What asking and telling costs beside the engine, in microseconds for each evaluation.

One worker asks for a point, is given a value computed beforehand, and tells it. From the
processor time of that loop the time of the same engine steps by themselves is taken, which the
native module's search takes for the same values less a call of an empty target.
"""

from __future__ import annotations

import argparse
import time

from Quenloft import Problem, Search

DIMENSIONS = (2, 4)


def bowl(x: tuple[float, ...]) -> float:
    return sum((v - 0.3) ** 2 for v in x)


def seconds_of(call, repetitions: int) -> float:  # type: ignore[no-untyped-def]
    """The least processor time of some calls."""
    best = float("inf")
    for _ in range(repetitions):
        start = time.process_time()
        call()
        best = min(best, time.process_time() - start)
    return best


def measure(dimension: int, trials: int, repetitions: int) -> tuple[float, float]:
    """Microseconds for each evaluation: of the loop, and of the engine in it."""
    box = [(-1, 1)] * dimension
    options = {"local_models": False, "hidden_constraint": False}
    values = []
    search = Search(box, **options)
    for _ in range(trials):
        (point,) = search.ask()
        values.append(bowl(point.x))
        search.tell(point, values[-1])

    def loop() -> None:
        search = Search(box, **options)
        ask, tell = search.ask, search.tell
        for value in values:
            (point,) = ask()
            tell(point, value)

    def native() -> None:
        answers = iter(values)
        problem = Problem(bounds=[-1, 1] * dimension, target=lambda x: next(answers))
        problem.Minimize(stop_tests=trials)

    def empty_target() -> None:
        answers = iter(values)
        target = lambda x: next(answers)  # noqa: E731
        x = (0.0,) * dimension
        for _ in range(trials):
            target(x)

    loop_time = seconds_of(loop, repetitions)
    engine = seconds_of(native, repetitions) - seconds_of(empty_target, repetitions)
    return loop_time / trials * 1e6, engine / trials * 1e6


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--trials", type=int, default=20_000)
    parser.add_argument("--repetitions", type=int, default=5)
    arguments = parser.parse_args()
    print("variables   loop  engine  difference  (microseconds an evaluation)")
    for dimension in DIMENSIONS:
        loop, engine = measure(dimension, arguments.trials, arguments.repetitions)
        print(f"{dimension:9}  {loop:5.2f}   {engine:5.2f}       {loop - engine:5.2f}")


if __name__ == "__main__":
    main()
