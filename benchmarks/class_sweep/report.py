# SPDX-License-Identifier: MIT
"""Tables, plots and files made from finished runs."""

from __future__ import annotations

import json
import math
from dataclasses import asdict, dataclass
from pathlib import Path
from typing import Any, Iterable, Optional, Sequence

from sweep.tables import markdown_table, plain_table

from .functions import CLASSES
from .methods import OWN, PLAIN, label
from .runs import Run

# Mean trials reported for the classes (Sergeyev and Kvasov 2006), where all 100 functions were
# solved. DIRECT did not solve all of the classes that are missing within 1,000,000 trials.
PUBLISHED: dict[str, dict[str, int]] = {
    "Adaptive diagonal curves (published)": {
        "2D simple": 176,
        "2D hard": 676,
        "3D simple": 736,
        "3D hard": 2007,
        "4D simple": 5014,
        "4D hard": 16473,
        "5D simple": 5130,
        "5D hard": 30472,
    },
    "DIRECT (published)": {"2D simple": 199, "2D hard": 1064, "3D simple": 1118},
}


@dataclass(frozen=True)
class Summary:
    """A method on a class. Unsolved functions count with the budget."""

    class_name: str
    method: str
    budget: int
    functions: int
    solved: int
    mean: float
    #: Trials within which half and 90 % of the functions, and all of them, are solved; None
    #: where fewer are.
    median: Optional[int]
    percentile_90: Optional[int]
    maximum: Optional[int]
    #: CPU seconds per 1,000 trials spent outside the objective.
    overhead: float

    @property
    def all_solved(self) -> bool:
        return self.solved == self.functions


def solved_within(trials: Sequence[Optional[int]], share: float) -> Optional[int]:
    """The fewest trials within which a share of the functions is solved."""
    needed = -(-len(trials) * share // 1)
    solved = sorted(k for k in trials if k is not None)
    return solved[int(needed) - 1] if len(solved) >= needed else None


def summarise(runs: Iterable[Run]) -> list[Summary]:
    """One summary for each class and method, in the order in which they first appear."""
    groups: dict[tuple[str, str, int], list[Run]] = {}
    for run in runs:
        key = (run.task.class_name, run.task.method, run.task.budget)
        groups.setdefault(key, []).append(run)
    summaries = []
    for (class_name, method, budget), group in groups.items():
        trials = [run.solved_at for run in group]
        overhead = sum(run.seconds - run.objective_seconds for run in group)
        summaries.append(
            Summary(
                class_name,
                method,
                budget,
                functions=len(group),
                solved=sum(k is not None for k in trials),
                mean=sum(budget if k is None else k for k in trials) / len(group),
                median=solved_within(trials, 0.5),
                percentile_90=solved_within(trials, 0.9),
                maximum=solved_within(trials, 1.0),
                overhead=1000.0 * overhead / sum(run.evaluations for run in group),
            )
        )
    return summaries


def _count(trials: Optional[float], budget: int) -> str:
    return f"> {budget:,}" if trials is None else f"{trials:,.0f}"


_HEADINGS = ("method", "solved", "mean", "median", "90 %", "maximum", "CPU s / 1,000")


def _rows(summaries: Iterable[Summary]) -> list[tuple[str, ...]]:
    return [
        (
            label(s.method),
            f"{s.solved} of {s.functions}",
            f"{s.mean:,.1f}" if s.all_solved else f">= {s.mean:,.1f}",
            *(_count(k, s.budget) for k in (s.median, s.percentile_90, s.maximum)),
            f"{s.overhead:.4f}",
        )
        for s in summaries
    ]


def _by_class(summaries: Iterable[Summary]) -> dict[str, list[Summary]]:
    groups: dict[str, list[Summary]] = {}
    for summary in summaries:
        groups.setdefault(summary.class_name, []).append(summary)
    return groups


def terminal_table(summaries: Iterable[Summary]) -> str:
    """One block for each class, for a terminal."""
    blocks = []
    for class_name, group in _by_class(summaries).items():
        title = f"{class_name} (budget {group[0].budget:,} trials)"
        blocks.append(f"{title}\n{plain_table(_HEADINGS, _rows(group))}")
    return "\n\n".join(blocks)


def markdown_means(summaries: Sequence[Summary]) -> str:
    """Means of all classes and methods side by side, the published ones below."""
    classes = _by_class(summaries)
    methods = list(dict.fromkeys(s.method for s in summaries))
    found = {(s.class_name, s.method): s for s in summaries}
    rows = []
    for method in methods:
        cells = []
        for class_name in classes:
            s = found.get((class_name, method))
            if s is None:
                cells.append("")
            elif s.all_solved:
                cells.append(f"{s.mean:,.0f}")
            else:
                cells.append(f">= {s.mean:,.0f} ({s.solved})")
        rows.append([label(method), *cells])
    for name, means in PUBLISHED.items():
        shown = (means.get(class_name) for class_name in classes)
        rows.append([name, *("" if mean is None else f"{mean:,}" for mean in shown)])
    return markdown_table(["mean trials", *classes], rows)


def markdown_classes(summaries: Iterable[Summary]) -> str:
    """A table for each class."""
    parts = []
    for class_name, group in _by_class(summaries).items():
        parts.append(f"#### {class_name}\n\nBudget: {group[0].budget:,} trials.\n")
        parts.append(markdown_table(_HEADINGS, _rows(group)) + "\n")
    return "\n".join(parts).rstrip()


def markdown_settings(summaries: Sequence[Summary]) -> str:
    """For each class the cheapest settings that solve everything, then the best for all.

    Of these the first ten, and the defaults.
    """
    rows = []
    for class_name, group in _by_class(summaries).items():
        default = next((s for s in group if s.method == PLAIN), None)
        best = best_of(group)
        rows.append(
            (
                class_name,
                "none" if best is None else label(best.method).partition(", ")[2] or "defaults",
                "" if best is None else f"{best.mean:,.0f}",
                "" if best is None else _count(best.maximum, best.budget),
                "" if default is None else f"{default.mean:,.0f} ({default.solved})",
            )
        )
    headings = ("class", "settings", "mean", "maximum", "mean at the defaults (solved)")
    ranking = [
        (
            label(method).partition(", ")[2] or "defaults",
            f"{solved:,}",
            f"{ratio:.2f}",
        )
        for place, (method, solved, ratio) in enumerate(rank_settings(summaries))
        if place < 10 or method == PLAIN
    ]
    return (
        markdown_table(headings, rows, words=2)
        + "\n\n"
        + markdown_table(("one setting for all classes", "solved", "cost"), ranking)
    )


def best_of(group: Iterable[Summary]) -> Optional[Summary]:
    """The summary with the lowest mean among those that solved every function."""
    return min((s for s in group if s.all_solved), key=lambda s: s.mean, default=None)


def rank_settings(summaries: Sequence[Summary]) -> list[tuple[str, int, float]]:
    """Methods that were run on every class, best first: (method, functions solved, cost).

    More functions solved is better, then a lower cost: the geometric mean over the classes of
    the mean divided by the lowest mean of any method there.
    """
    classes = _by_class(summaries)
    lowest = {name: min(s.mean for s in group) for name, group in classes.items()}
    ranking = []
    for method in dict.fromkeys(s.method for s in summaries):
        own = [s for s in summaries if s.method == method]
        if len(own) < len(classes):
            continue
        product = 1.0
        for s in own:
            product *= s.mean / lowest[s.class_name]
        ranking.append((method, sum(s.solved for s in own), product ** (1.0 / len(own))))
    return sorted(ranking, key=lambda entry: (-entry[1], entry[2]))


def write_json(
    path: Path, provenance: dict[str, Any], summaries: Iterable[Summary], runs: Iterable[Run]
) -> None:
    """Everything that was found, with where it comes from."""
    document = {
        "provenance": provenance,
        "classes": {name: asdict(c) for name, c in CLASSES.items()},
        "summaries": [asdict(s) for s in summaries],
        "runs": [asdict(run) for run in runs],
    }
    path.write_text(json.dumps(document, indent=1) + "\n", encoding="utf-8")


# How curves are told apart in a print without colours.
DASHES = ["--", "-.", ":", (0, (6, 2, 1, 2, 1, 2))]
MARKS = "osD^vP*X<>"


def plot(path: Path, runs: Sequence[Run]) -> None:
    """Operating characteristics: the share of functions solved within k trials.

    One panel a class, k on a logarithmic axis. Needs matplotlib.
    """
    import matplotlib

    matplotlib.use("Agg")
    from matplotlib import pyplot

    classes = list(dict.fromkeys(run.task.class_name for run in runs))
    methods = list(dict.fromkeys(run.task.method for run in runs))
    columns = min(3, len(classes))
    rows = -(-len(classes) // columns)
    figure, axes = pyplot.subplots(
        rows, columns, figsize=(4.2 * columns, 3.0 * rows + 0.9), squeeze=False
    )
    for panel, class_name in zip(axes.flat, classes):
        first = math.inf
        for i, method in enumerate(methods):
            group = [r for r in runs if (r.task.class_name, r.task.method) == (class_name, method)]
            solved = sorted(r.solved_at for r in group if r.solved_at is not None)
            if not solved:
                continue
            first = min(first, solved[0])
            trials = [solved[0], *solved, group[0].task.budget]
            shares = [k / len(group) for k in (*range(len(solved) + 1), len(solved))]
            own = method.partition(":")[0] in (OWN, PLAIN)
            # Told apart without colours: own methods are solid, each other has its dashes and mark.
            style = {"linewidth": 2.2} if own else {"linewidth": 1.1, "linestyle": DASHES[i % 4]}
            panel.step(
                trials,
                shares,
                where="post",
                color=f"C{i % 10}",
                label=label(method),
                marker=MARKS[i % len(MARKS)],
                markersize=5,
                markevery=(0.05 + 0.02 * i, 0.2),
                **style,
            )
        panel.set_xscale("log")
        panel.set_xlim(left=0.9 * first if first < math.inf else None)
        panel.set_ylim(0.0, 1.02)
        panel.set_title(class_name, fontsize=10)
        panel.grid(alpha=0.3)
    for panel in axes[-1]:
        panel.set_xlabel("trials")
    for row in axes:
        row[0].set_ylabel("share solved")
    for panel in axes.flat[len(classes) :]:
        panel.set_visible(False)
    shown: dict[str, Any] = {}
    for panel in axes.flat:
        shown.update(reversed(pair) for pair in zip(*panel.get_legend_handles_labels()))
    figure.legend(
        shown.values(), shown.keys(), loc="lower center", ncol=3, fontsize=9, frameon=False
    )
    figure.tight_layout(rect=(0.0, 0.9 / (3.0 * rows + 0.9), 1.0, 1.0))
    figure.savefig(path, dpi=110)
    pyplot.close(figure)
