# SPDX-License-Identifier: MIT
"""Nanoseconds that the native module takes to call a Python callable once.

    python benchmarks/call_overhead.py

A search with 10,000 constraints spends its time in calling them; the time of the same search with
one constraint is taken off. Processor time, the best of five runs. The first row is the same
callable called from a loop in Python.
"""

import time

from _Quenloft import Problem

CONSTRAINTS = 10000
STEPS = 30


def holds(x, categories=()):
    return -1.0


def seconds(dimension, categorical, constraint_count):
    given = {"categorical": categorical} if categorical else {}
    problem = Problem(
        bounds=[0.0, 1.0] * dimension,
        constraints=[holds] * constraint_count,
        target=lambda x, categories=(): x[0],
        **given,
    )
    start = time.process_time()
    trials = problem.Minimize(stop_tests=STEPS, cross=0, local_vs_global=0).tests
    return (time.process_time() - start) / trials


def nanoseconds_per_call(dimension, categorical=()):
    def once():
        many = seconds(dimension, categorical, CONSTRAINTS + 1)
        return (many - seconds(dimension, categorical, 1)) / CONSTRAINTS

    return 1e9 * min(once() for _ in range(5))


def nanoseconds_in_a_loop(calls=1_000_000):
    point = (0.5, 0.5)
    start = time.process_time()
    for _ in range(calls):
        holds(point)
    return 1e9 * (time.process_time() - start) / calls


if __name__ == "__main__":
    print(f"in a Python loop            {min(nanoseconds_in_a_loop() for _ in range(5)):5.0f} ns")
    for dimension in 1, 2, 5, 12:
        print(f"{dimension:2} real variables           {nanoseconds_per_call(dimension):5.0f} ns")
    print(f" 2 real, 2 categorical      {nanoseconds_per_call(2, (2, 2)):5.0f} ns")
