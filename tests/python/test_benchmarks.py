# SPDX-License-Identifier: MIT
"""The measuring of classes of functions in benchmarks/."""

from __future__ import annotations

import json
import re
import sys
from pathlib import Path

import pytest

BENCHMARKS = Path(__file__).resolve().parents[2] / "benchmarks"
sys.path.insert(0, str(BENCHMARKS))

import classes  # noqa: E402
from class_sweep import functions, methods, report, runs  # noqa: E402
from sweep import provenance  # noqa: E402

SIMPLE = functions.CLASSES["2D simple"]


def tasks(count):
    return [runs.Task(SIMPLE.name, "quenloft", number, 2000) for number in range(1, count + 1)]


def findings(done):
    return [(run.task, run.solved_at, run.evaluations) for run in done]


# ---- One run


@pytest.mark.parametrize("budget, solved_at", [(100, 3), (2, None)])
def test_a_function_is_solved_near_its_minimizer_in_every_coordinate(budget, solved_at):
    objective = functions.Objective(SIMPLE, 1, budget, lambda: 7.0)
    assert SIMPLE.tolerance == pytest.approx(0.02)
    x, y = objective.minimizer
    trials = [(x + 0.019, y + 0.021), (x - 0.021, y), (x + 0.019, y - 0.019), (x, y)]
    assert [objective(trial) == 7.0 for trial in trials] == [False, False, True, True]
    assert objective.solved_at == solved_at


@pytest.mark.parametrize("method", ["quenloft", "quenloft-plain:spread=9", *methods.PEERS])
def test_every_method_stops_when_the_function_is_solved_or_the_budget_used_up(method):
    try:
        methods.prepare(method)
    except ImportError as error:
        pytest.skip(str(error))
    for budget, solved in [(10, False), (3000, method != "nlopt-crs2-lm")]:
        objective = methods.minimise(method, SIMPLE, 1, budget)
        assert (objective.solved_at is not None) == solved
        # SciPy's iteration under way goes on, and our initial trials.
        assert objective.count <= (objective.solved_at or budget) + 60
        assert objective.seconds > 0.0


def test_the_defaults_solve_the_whole_class_in_few_trials():
    done = [runs.execute(task) for task in tasks(100)]
    (summary,) = report.summarise(done)
    assert summary.solved == 100 and 80 < summary.mean < 105 and summary.maximum < 400


# ---- Many runs


def test_a_second_call_goes_on_where_the_first_was_stopped(tmp_path, monkeypatch):
    path = tmp_path / "runs.jsonl"
    asked = []

    def stopping_after(count):
        def workers(function, items):
            for item in items:
                if len(asked) == count:
                    assert len(path.read_bytes().splitlines()) == 1 + count
                    raise KeyboardInterrupt
                asked.append(item[1][0].number)
                yield function(item)

        return workers

    with pytest.raises(KeyboardInterrupt):
        runs.run_all(tasks(5), stopping_after(3), path=path)
    # The power failed while the third line was being written.
    path.write_bytes(path.read_bytes()[:-20])
    done = runs.run_all(tasks(5), stopping_after(99), path=path)
    assert asked == [1, 2, 3, 3, 4, 5]
    assert findings(done) == findings(runs.run_all(tasks(5), stopping_after(6), path=path))
    monkeypatch.setattr(provenance.metadata, "version", lambda package: "99")
    with pytest.raises(ValueError, match="was made with"):
        runs.run_all(tasks(6), path=path)


# ---- Reports


def test_the_command_writes_table_files_and_document(tmp_path, capsys):
    pytest.importorskip("matplotlib")
    document, out = tmp_path / "guide.md", tmp_path / "out"
    document.write_text("before <!-- methods --> old <!-- /methods --> after")
    arguments = ["--classes", "2D simple,Grishagin", "--functions", "1-2", "--quiet"]
    arguments += ["--methods", "quenloft:overestimation=3,local_vs_global=1, quenloft"]
    assert classes.main([*arguments, "--out", str(out), "--markdown", str(document)]) == 0
    table = capsys.readouterr().out
    assert re.search(r"Quenloft, overestimation 3, local_vs_global 1 +2 of 2", table)
    summary = json.loads((out / "summary.json").read_text())
    assert len(summary["runs"]) == 8
    text = document.read_text()
    assert re.fullmatch("before .*### Grishagin.* after", text, re.DOTALL) and "old" not in text
    assert (out / "operating_characteristics.png").stat().st_size > 1000
