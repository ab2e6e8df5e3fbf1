# SPDX-License-Identifier: MIT
"""Tables, plots and files made from finished runs."""

from __future__ import annotations

import json
from dataclasses import asdict
from pathlib import Path
from typing import Any, Callable, Iterable, Optional, Sequence

from outside_problems import ALL_KINDS, DESIGNS, Problem, by_name
from sweep.tables import markdown_table

from .methods import OWN, is_own, label
from .recorder import ACCURACIES, BUDGETS
from .runs import Run
from .scoring import mean, score_by_problem

#: Groups of dimensions that are shown together: name and largest dimension.
DIMENSION_GROUPS = (("N = 1, 2", 2), ("N = 3, 4", 4), ("N = 5 to 8", 8), ("N = 10", 32))

Table = tuple[tuple[str, ...], Sequence[tuple[str, ...]]]


def dimension_group(problem: Problem) -> str:
    return next(name for name, most in DIMENSION_GROUPS if problem.dimension <= most)


class Scores:
    """The score of every method on every problem without constraints that it finished."""

    def __init__(self, runs: Iterable[Run]) -> None:
        by_method: dict[str, list[Run]] = {}
        for run in runs:
            if run.task.problem not in DESIGNS:
                by_method.setdefault(run.task.method, []).append(run)
        self.of = {method: score_by_problem(group) for method, group in by_method.items()}
        names = dict.fromkeys(name for scores in self.of.values() for name in scores)
        self.problems = {name: by_name(name) for name in names}

    def mean(
        self, method: str, where: Callable[[Problem], bool], like: Optional[str] = None
    ) -> Optional[float]:
        """The mean over some problems; with `like`, those of them that this method finished."""
        among = self.of.get(like or method, {})
        scores = [
            score
            for name, score in self.of.get(method, {}).items()
            if name in among and where(self.problems[name])
        ]
        return mean(scores) if scores else None

    def count(self, method: str) -> int:
        return len(self.of[method])


def _score(value: Optional[float]) -> str:
    return "" if value is None else f"{value:.1f}"


def _columns(group: Callable[[Problem], str], names: Iterable[str], scores: Scores) -> list[str]:
    there = {group(problem) for problem in scores.problems.values()}
    return [name for name in names if name in there]


def _best_first(scores: Scores) -> list[str]:
    """The methods by score, those that lack some problems at the end."""

    def key(method: str) -> tuple[bool, float]:
        return scores.count(method) < len(scores.problems), -(scores.mean(method, _any) or 0.0)

    return sorted(scores.of, key=key)


def _any(problem: Problem) -> bool:
    return True


def overall(scores: Scores) -> Table:
    """All methods, best first, with what Quenloft has on the same problems."""
    rows = []
    for method in _best_first(scores):
        cells = [
            str(scores.count(method)),
            _score(scores.mean(method, _any)),
            _score(scores.mean(OWN, _any, like=method)),
            _score(scores.mean(method, lambda p: p.dimension <= 8)),
            _score(scores.mean(method, lambda p: p.dimension <= 4)),
            _score(scores.mean(method, lambda p: p.is_held_out)),
        ]
        rows.append((label(method), *cells))
    headings = ("method", "problems", "score", "Quenloft there", "N <= 8", "N <= 4", "held out")
    return headings, rows


def by_group(scores: Scores, group: Callable[[Problem], str], names: Iterable[str]) -> Table:
    """Scores by groups of problems; the methods in the order of `overall`."""
    columns = _columns(group, names, scores)

    def score(method: str, column: str) -> str:
        return _score(scores.mean(method, lambda p: group(p) == column))

    rows = [(label(m), *(score(m, column) for column in columns)) for m in _best_first(scores)]
    counts = [
        str(sum(group(problem) == column for problem in scores.problems.values()))
        for column in columns
    ]
    return ("method", *columns), [("problems", *counts), *rows]


def peers_ahead(scores: Scores) -> Table:
    """Groups of problems in which a peer has a better score than Quenloft at its defaults.

    The best such peer, and how many more there are, each on the problems that it finished.
    """
    peers = [method for method in scores.of if not is_own(method)]
    rows = []
    for kind in ALL_KINDS:
        for name, _ in DIMENSION_GROUPS:

            def where(p: Problem, kind: str = kind, name: str = name) -> bool:
                return p.kind == kind and dimension_group(p) == name

            ahead = []
            for method in peers:
                theirs = scores.mean(method, where)
                ours = scores.mean(OWN, where, like=method)
                if theirs is not None and ours is not None and theirs > ours:
                    ahead.append((theirs, ours, label(method)))
            if ahead:
                theirs, ours, best = max(ahead)
                more = str(len(ahead) - 1)
                rows.append((kind, name, best, f"{theirs:.1f}", f"{ours:.1f}", more))
    return ("kind", "variables", "best peer", "score", "Quenloft", "more peers ahead"), rows


def designs(runs: Iterable[Run]) -> Table:
    """Evaluations to a feasible design within 1e-4 of the best known, and the error within 200.

    Medians over the seeds of what is random; a dash where no feasible design was found.
    """
    groups: dict[str, dict[str, list[Run]]] = {}
    for run in runs:
        if run.task.problem in DESIGNS:
            by_design = groups.setdefault(run.task.method, {})
            by_design.setdefault(run.task.problem, []).append(run)
    never = float("inf")
    rows = []
    for method, by_design in groups.items():
        cells = []
        for name in DESIGNS:
            done = by_design.get(name, [])
            counts = [never if k is None else k for k in (_reached(run, 1e-4) for run in done)]
            within = [run.accuracy_within[BUDGETS.index(200)] for run in done]
            errors = [never if error is None else error for error in within]
            if not done:
                cells += ["", ""]
                continue
            count, error = _median(counts), _median(errors)
            cells.append(f"> {done[0].task.budget}" if count == never else f"{count:.0f}")
            cells.append("-" if error == never else "< 1e-6" if error < 1e-6 else f"{error:.0e}")
        rows.append((label(method), *cells))
    headings = (f"{name}, {what}" for name in DESIGNS for what in ("1e-4 at", "error"))
    return ("method", *headings), rows


def _reached(run: Run, accuracy: float) -> Optional[int]:
    return run.reached[ACCURACIES.index(accuracy)]


def _median(values: Iterable[float]) -> float:
    ordered = sorted(values)
    return ordered[len(ordered) // 2]


def failures(runs: Iterable[Run]) -> dict[str, int]:
    """How many runs of each method ended themselves by an error, and by which."""
    counts: dict[str, int] = {}
    for run in runs:
        if run.failure:
            text = f"{label(run.task.method)}: {run.failure}"
            counts[text] = counts.get(text, 0) + 1
    return counts


def below_minimum(runs: Iterable[Run]) -> dict[str, float]:
    """Problems on which something lower than the known minimum was found, and its accuracy.

    There are none but by rounding, and within the tolerance of the constraints of a design: any
    other is a mistake in the problem.
    """
    lowest: dict[str, float] = {}
    for run in runs:
        best = run.accuracy_within[-1]
        if run.task.problem not in DESIGNS and best is not None and best < -1e-9:
            lowest[run.task.problem] = min(best, lowest.get(run.task.problem, 0.0))
    return lowest


def tables(runs: Sequence[Run]) -> list[tuple[str, Table]]:
    """Every table that has rows, with its title."""
    scores = Scores(runs)
    found = []
    if scores.of:
        names = [name for name, _ in DIMENSION_GROUPS]
        found += [
            ("All problems without constraints", overall(scores)),
            ("By number of variables", by_group(scores, dimension_group, names)),
            ("By kind", by_group(scores, lambda p: p.kind, ALL_KINDS)),
        ]
        if OWN in scores.of:
            found.append(("Where a peer is ahead", peers_ahead(scores)))
    found.append(("Designs with constraints", designs(runs)))
    return [(title, table) for title, table in found if table[1]]


def markdown(runs: Sequence[Run], image: str) -> str:
    """All tables for a document."""
    parts = []
    for title, (headings, rows) in tables(runs):
        words = 3 if "ahead" in title else 1
        parts.append(f"#### {title}\n\n{markdown_table(headings, rows, words)}")
        if len(parts) == 1:
            parts.append(f"![Data profiles]({image})")
    return "\n\n".join(parts)


def write_json(path: Path, provenance: dict[str, Any], runs: Sequence[Run]) -> None:
    """Everything that was found, with where it comes from."""
    scores = Scores(runs)
    document = {
        "provenance": provenance,
        "accuracies": ACCURACIES,
        "budgets": BUDGETS,
        "scores": scores.of,
        "runs": [asdict(run) for run in runs],
    }
    path.write_text(json.dumps(document, indent=1) + "\n", encoding="utf-8")


def plot(path: Path, runs: Sequence[Run]) -> None:
    """Data profiles: the share of runs that reached an accuracy within k evaluations.

    One panel an accuracy, problems without constraints, each with the same weight. Methods that
    did less than nine tenths of the problems are left out. Needs matplotlib.
    """
    import matplotlib

    matplotlib.use("Agg")
    from matplotlib import pyplot

    runs = [run for run in runs if run.task.problem not in DESIGNS]
    scores = Scores(runs)
    methods = [m for m in _best_first(scores) if scores.count(m) >= 0.9 * len(scores.problems)]
    figure, axes = pyplot.subplots(2, 2, figsize=(10.0, 8.4))
    for panel, accuracy in zip(axes.flat, (1e-1, 1e-2, 1e-4, 1e-6)):
        for i, method in enumerate(methods):
            group = [run for run in runs if run.task.method == method]
            seeds: dict[str, int] = {}
            for run in group:
                seeds[run.task.problem] = seeds.get(run.task.problem, 0) + 1
            steps = sorted(
                (k, 1.0 / seeds[run.task.problem] / len(seeds))
                for run in group
                for k in (_reached(run, accuracy),)
                if k is not None
            )
            trials, shares = [1], [0.0]
            for k, share in steps:
                trials.append(k)
                shares.append(shares[-1] + share)
            trials.append(max(run.task.budget for run in group))
            shares.append(shares[-1])
            style = (
                {"linewidth": 2.0, "linestyle": "-"}
                if is_own(method)
                else {"linewidth": 1.0, "linestyle": ("--", ":")[i // 10 % 2]}
            )
            panel.step(
                trials, shares, where="post", color=f"C{i % 10}", label=label(method), **style
            )
        panel.set_xscale("log")
        panel.set_ylim(0.0, 1.0)
        panel.set_title(f"accuracy {accuracy:g}", fontsize=10)
        panel.grid(alpha=0.3)
        panel.set_xlabel("evaluations")
        panel.set_ylabel("share of problems")
    handles, labels = axes.flat[0].get_legend_handles_labels()
    figure.legend(handles, labels, loc="lower center", ncol=3, fontsize=8, frameon=False)
    figure.tight_layout(rect=(0.0, 0.04 + 0.02 * -(-len(methods) // 3), 1.0, 1.0))
    figure.savefig(path, dpi=110)
    pyplot.close(figure)
