# SPDX-License-Identifier: MIT
"""The measuring on problems of other people's making in benchmarks/."""

from __future__ import annotations

import json
import sys
from collections import Counter
from dataclasses import replace
from pathlib import Path

import pytest

BENCHMARKS = Path(__file__).resolve().parents[2] / "benchmarks"
sys.path.insert(0, str(BENCHMARKS))

import outside  # noqa: E402
from outside_problems import ALL_KINDS, DESIGNS, Problem, by_name, load  # noqa: E402
from outside_problems.regression import REGRESSIONS  # noqa: E402
from outside_sweep import methods, runs, scoring  # noqa: E402
from outside_sweep.recorder import BudgetUsed, Recorder  # noqa: E402

# ---- Problems


def value_at(problem, point):
    return problem(point, problem.best_choices) if problem.categories else problem(point)


@pytest.mark.parametrize("kind", ALL_KINDS)
def test_the_known_minimum_is_one_and_lies_inside(kind):
    """Nothing below it at random points, nor found by a local search that starts at it."""
    optimize = pytest.importorskip("scipy.optimize")
    problems = load([kind])
    if kind.startswith("BBOB"):
        pytest.importorskip("ioh")
    assert len(problems) >= 4
    for problem in problems:
        error = value_at(problem, problem.minimizer) - problem.f_star
        assert abs(error) <= 2e-9 * problem.scale, problem.name
        for x, (lower, upper) in zip(problem.minimizer, problem.bounds):
            assert lower <= x <= upper, problem.name
            place = (x - lower) / (upper - lower)
            if kind != "design" and not kind.startswith("BBOB"):
                assert 0.04 < place < 0.96 and abs(16 * place - round(16 * place)) > 0.06
        if problem.constraints is not None:
            continue  # random points mean nothing there, nor does a search of the objective
        assert problem.median > problem.f_star, problem.name
        if problem.instance == 1:
            options = {"xatol": 0.0, "fatol": 0.0, "maxfev": 150 * problem.dimension}
            options = {"method": "Nelder-Mead", "bounds": problem.bounds, "options": options}
            found = optimize.minimize(
                lambda x: value_at(problem, x.tolist()), problem.minimizer, **options
            )
            assert problem.accuracy(found.fun) > -1e-9, problem.name


def test_the_sums_of_squares_are_the_certified_ones():
    for data in REGRESSIONS.values():
        assert data.sum_of_squares(data.parameters) == pytest.approx(data.certified, rel=1e-9)


def test_the_best_known_designs_are_feasible_and_at_the_edge():
    published = {"tension-spring": 0.01266523, "welded-beam": 1.724852}
    published.update({"pressure-vessel": 5885.3328, "speed-reducer": 2994.4711})
    for name, design in DESIGNS.items():
        assert design(design.minimizer) == pytest.approx(published[name], rel=1e-6)
        values = design.constraints(design.minimizer)
        assert max(values) <= 1e-8 and sum(value > -1e-6 for value in values) >= 2


@pytest.mark.parametrize("trim", [0.0, 0.04, 0.12])
@pytest.mark.parametrize("name", DESIGNS)
def test_the_designs_are_solved_within_200_evaluations(name, trim):
    """Also where each side of the box is nearer to the minimum by the share `trim`."""
    design = DESIGNS[name]
    bounds = [
        tuple(side + trim * (x - side) for side in sides)
        for x, sides in zip(design.minimizer, design.bounds)
    ]
    design = replace(design, bounds=tuple(bounds))
    recorder, error = methods.minimise("quenloft", design, 200, 0)
    assert not error and recorder.count == 200
    feasible = [value for value, limits in recorder.known.values() if max(limits) <= 0]
    assert min(feasible) == pytest.approx(design.f_star, rel=1e-4)


# ---- Counting and scoring

SLOPE = Problem("slope", "classical", 1, ((0.0, 1.0),), lambda x: x[0], 0.0)


def test_a_recorder_counts_and_notes_what_is_reached_within_the_budget():
    recorder = Recorder(SLOPE, 4)
    assert 0.4 < SLOPE.median < 0.6
    for x in (0.9, 0.04 * SLOPE.median, 0.3, -1.0):
        recorder([x])
    with pytest.raises(BudgetUsed):
        recorder([0.0])
    # Below the box counts as its edge.
    assert recorder.count == 4
    assert recorder.reached == [2] + [4] * 7
    assert recorder.accuracy_within == [0.0] * 4


def test_scores_count_goals_and_failed_constraints_hold_a_value_back():
    barred = replace(SLOPE, f_star=-1.0, constraints=lambda x: (0.5 - x[0],))
    recorder = Recorder(barred, 3)
    for x in (0.1, 0.9, 0.1, 0.6):  # what is known already costs nothing
        recorder([x])
    assert recorder.count == 3 and recorder.best == 0.6
    task = runs.Task("branin/1", "", "quenloft", "", 0, 500)
    # 1e-1 within all four budgets, 1e-2 within the last two, 1e-4 too late, 1e-6 never.
    run = runs.Run(task, (50, 101, None, 501, None, None, None, None), (None,) * 4, 500, 0.0, 0.0)
    assert scoring.score_of_run(run) == 100 * 6 / 16


def test_bbob_has_more_instances_than_the_set(tmp_path, capsys):
    pytest.importorskip("ioh")
    arguments = ["--methods", "quenloft", "--quiet", "--out", str(tmp_path), "--budget", "20"]
    arguments += ["--bbob-instances", "71-72", "--dimensions", "2", "--kinds", "BBOB 6-9, moderate"]
    assert outside.main(arguments) == 0
    assert by_name("bbob-f9-2D/72").instance == 72
    assert "8" in capsys.readouterr().out.splitlines()[2].split()


# ---- Methods


@pytest.mark.parametrize("method", [*methods.OWN_METHODS, *methods.PEERS])
def test_every_method_uses_its_budget_and_no_more(method, capfd):
    if methods.missing(method):
        pytest.skip(f"{methods.missing(method)} is not installed")
    for name in ("branin/1", "reactor/1", "tension-spring"):
        problem = by_name(name)
        if not methods.applies(method, problem):
            continue
        recorder, failure = methods.minimise(method, problem, 60, seed=1)
        assert not failure
        assert recorder.count == 60
        again, _ = methods.minimise(method, problem, 60, seed=1)
        assert again.reached == recorder.reached
    assert capfd.readouterr() == ("", "")


# ---- The command


def test_only_runs_whose_method_changed_are_done_again(tmp_path, capsys, monkeypatch):
    monkeypatch.setattr(methods, "missing", lambda name: "torch" if name == "optuna-gp" else "")
    out = tmp_path / "out"
    arguments = ["--methods", "quenloft,scipy-direct,optuna-gp", "--quiet", "--out", str(out)]
    arguments += ["--problems", "branin/*,forrester/1,tension-spring"]

    def run(*more):
        assert outside.main([*arguments, *more]) == 0
        lines = (out / "runs.jsonl").read_text().splitlines()[1:]
        return Counter(json.loads(line)["task"]["method"] for line in lines)

    assert run() == {"quenloft": 4, "scipy-direct": 3}
    said = capsys.readouterr()
    assert "Left out: Optuna GP (torch is missing)" in said.err and "Designs" in said.out
    first = json.loads((out / "summary.json").read_text())["scores"]
    assert run() == {"quenloft": 4, "scipy-direct": 3}
    own, version = methods.is_own, methods.version
    monkeypatch.setattr(methods, "version", lambda name: version(name) + "new" * own(name))
    pytest.importorskip("matplotlib")
    (tmp_path / "guide.md").write_text("<!-- outside --> old <!-- /outside -->")
    assert run("--markdown", str(tmp_path / "guide.md")) == {"quenloft": 8, "scipy-direct": 3}
    assert json.loads((out / "summary.json").read_text())["scores"] == first
    assert "| SciPy direct | 3 |" in (tmp_path / "guide.md").read_text()
    assert (tmp_path / "images" / "data_profiles.png").stat().st_size > 1000
