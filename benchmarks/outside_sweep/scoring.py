# SPDX-License-Identifier: MIT
"""How well runs did.

The score of a run is the share of sixteen goals that it met: accuracies of 1e-1, 1e-2, 1e-4 and
1e-6 within 50, 100, 200 and 500 evaluations, in per cent. That of a method is the mean over
problems of the mean over its seeds.
"""

from __future__ import annotations

from typing import Iterable, Sequence

from .recorder import ACCURACIES, BUDGETS
from .runs import Run

SCORED = (1e-1, 1e-2, 1e-4, 1e-6)


def score_of_run(run: Run) -> float:
    """The per cent of the sixteen goals that one run met."""
    met = 0
    for accuracy in SCORED:
        at = run.reached[ACCURACIES.index(accuracy)]
        met += sum(at is not None and at <= budget for budget in BUDGETS)
    return 100.0 * met / (len(SCORED) * len(BUDGETS))


def score_by_problem(runs: Iterable[Run]) -> dict[str, float]:
    """Of one method: the mean over seeds, by the problem's name."""
    groups: dict[str, list[float]] = {}
    for run in runs:
        groups.setdefault(run.task.problem, []).append(score_of_run(run))
    return {name: mean(scores) for name, scores in groups.items()}


def mean(values: Sequence[float]) -> float:
    return sum(values) / len(values)
