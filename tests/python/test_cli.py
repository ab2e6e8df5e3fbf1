# SPDX-License-Identifier: MIT
"""The command line as a shell sees it: output, errors in one line, exit codes."""

import csv
import io
import json
import os
import subprocess
import sys

import pytest

import Quenloft
from Quenloft import cli

MODEL = """
import math, os, signal

def bowl(x, *scale):
    return sum((v - 0.3) ** 2 for v in x) * (scale[0] if scale else 1.0)

def kernel(x, choices):
    return bowl(x) + {"rbf": 0.0, "linear": 0.5}[choices[0]] + choices[1]

def both(x): return bowl(x), [0.6 - x[0], x[1] - 1]

def never(x): return 1.0

def left(x, *choices): return x[0] - 0.2

def fails(x):
    if x[0] > 0.9:
        raise ZeroDivisionError("two\\nlines")
    return bowl(x)

def undefined(x): return math.nan if x[0] > 0.9 else bowl(x)

def leaves(x): raise SystemExit(0)

def interrupted(x):
    if x[0] > 0.9:
        os.kill(os.getpid(), signal.SIGINT)
    return bowl(x)
"""

BOX = ["--bounds", "0:1", "0:1", "--maxfun", "40"]


@pytest.fixture
def folder(tmp_path, monkeypatch):
    (tmp_path / "climodel.py").write_text(MODEL)
    (tmp_path / "faulty.py").write_text("x = = 1")
    monkeypatch.chdir(tmp_path)
    monkeypatch.syspath_prepend(str(tmp_path))
    yield tmp_path
    sys.modules.pop("climodel", None)


@pytest.fixture
def run(folder, capsys):
    def call(*words):
        try:
            code = cli.main([str(word) for word in words])
        except SystemExit as end:  # argparse
            code = end.code
        output = capsys.readouterr()
        return code, output.out, output.err

    return call


def test_a_search_begins_with_the_points_given(run, folder):
    box = ["--bounds", "a=0:1", "b=0:1", "--maxfun", 9]
    assert run("minimize", "climodel:bowl", *box, "--journal", "run.db", "--quiet")[0] == 0
    known = ["--known", "run.db", "--x0", "b=0.3,a=0.25", "0.5,1", "--timeout", 60]
    code, out, err = run("minimize", "climodel:bowl", *box, *known, "--json")
    found = json.loads(out)
    assert (code, err, found["nit"]) == (0, "", 9) and found["fun"] <= 0.0025
    for wrong in ("a=1,2", "3,4", "0.5"):
        assert run("minimize", "climodel:bowl", *box, "--x0", wrong)[0] == 2


def test_search_is_the_one_that_minimize_makes(run):
    bounds = ["rate=1e-3:10:log", "-1:2"]
    code, out, err = run(
        "minimize", "climodel:kernel", "--bounds", *bounds, "--choices", "kernel=linear,rbf", "0.5,2",
        "--maxfun", 90, "--spread", 9, "--local-vs-global", "0.5", "--json",
    )  # fmt: skip
    assert (code, err) == (0, "")
    import climodel

    options = {"maxfun": 90, "spread": 9.0, "local_vs_global": 0.5}
    box, categories = [(1e-3, 10.0, "log"), (-1.0, 2.0)], [("linear", "rbf"), (0.5, 2)]
    expected = Quenloft.minimize(climodel.kernel, box, categories=categories, **options)
    found = json.loads(out)
    assert found["names"] == ["rate", "x[1]", "kernel", "categories[1]"]
    assert found["x"] == list(expected.x) and found["categories"] == ["rbf", 0.5]
    assert (found["fun"], found["nfev"], found["status"]) == (expected.fun, 90, "MAXFUN")


@pytest.mark.parametrize(
    "words, code, out, err",
    [
        (["climodel.py:bowl", *BOX, "--args", "1e6"], 0, "minimum", ""),
        (["climodel:bowl", *BOX, "--constraint", "climodel:left"], 0, "x[0] = ", ""),
        (["climodel:both", *BOX, "--constraint", "2", "--batch", "3"], 0, "x[0] = 0.6", ""),
        (["climodel:bowl", *BOX, "--quiet"], 0, "", ""),
        (
            ["climodel:fails", *BOX],
            1,
            "2 trials",
            "two lines at x[0] = 0.995, x[1] = 0.5 (climodel.py",
        ),
        (["climodel:undefined", *BOX], 1, "2 trials", "nan at x = (0.995, 0.5); --nonfinite"),
        (["climodel:fails", *BOX, "--traceback"], 1, "2 trials", "in fails\n"),
        (["climodel:fails", *BOX, "--catch", "ZeroDivisionError"], 0, "minimum", ""),
        (["climodel:fails", *BOX, "--catch", "Nothing"], 2, "", "no such exception"),
        (["climodel:leaves", *BOX], 1, "", "SystemExit: 0 (climodel.py, line "),
        (["climodel:interrupted", *BOX], 130, "minimum", ""),
        (["climodel:undefined", *BOX, "--nonfinite", "infeasible"], 0, "minimum", ""),
        (["climodel:bowl", *BOX, "--constraint", "climodel:never", "--json"], 3, '"fun": null', ""),
    ],
)
def test_exit_code_tells_how_a_search_ended(run, words, code, out, err):
    ended, printed, errors = run("minimize", *words)
    assert ended == code, errors
    assert out in printed and bool(printed) == bool(out)
    assert err in errors
    if "--traceback" not in words:
        assert errors.count("\n") == bool(err)


@pytest.mark.parametrize(
    "words, message",
    [
        ([], "required: command"),
        (["minimize", "climodel:bowl"], "--bounds"),
        (["minimize", "climodel:bowl", "--bounds", "0:1:lag"], "'0:1:lag' is not LOWER:UPPER"),
        (["minimize", "--bounds", "0:1", "climodel:bowl"], "'climodel:bowl' is no bound: a funct"),
        (["minimize", *BOX, "--command", "nowhere {0} {1}", "--template", "a"], "is not SOURCE:T"),
        (["minimize", "climodel:bowl", *BOX, "--plot", "a.exe"], "cannot draw a.exe"),
        (["minimize", "climodel:nothing", *BOX], "climodel has no nothing"),
        (["minimize", "nowhere:bowl", *BOX], "No module named 'nowhere'"),
        (["minimize", "faulty:bowl", *BOX], "SyntaxError"),
        (["history", "."], "'.' cannot be"),
    ],
)
def test_wrong_usage_is_one_line_and_code_2(run, words, message):
    code, out, err = run(*words)
    assert (code, out) == (2, "")
    assert message in err and err.count("\n") == 1 and "error: " in err


def test_journal_is_continued_refused_and_shown(run):
    words = ["minimize", "climodel:kernel", "--bounds", "a=0:1", "-1:2", "--choices",
             "rbf,linear", "1,2", "--constraint", "climodel:left", "--journal", "run.db", "--maxfun"]  # fmt: skip
    assert run(*words, 50)[0] == 0
    code, out, _ = run(*words, 60)
    assert code == 0 and "60 trials" in out and "50 from the journal" in out
    code, out, err = run(*words, 70, "--spread", 10)
    assert (code, out, err.count("\n")) == (2, "", 1) and "spread" in err

    code, out, _ = run("history", "run.db", "--csv")
    rows = list(csv.DictReader(io.StringIO(out)))
    assert len(rows) == 60
    last = json.loads(run("history", "run.db", "--json", "--last", 2, "--csv", "run.csv")[1])
    assert [trial["value"] for trial in last["trials"]] == [float(r["value"]) for r in rows[58:]]
    with open("run.csv") as file:
        assert [*csv.DictReader(file)] == rows[58:]


@pytest.mark.parametrize("words", [["--csv"], ["--last", "1"]])
def test_reader_that_has_seen_enough_is_no_error(folder, words):
    Quenloft.minimize(lambda x: x[0], [(0.0, 1.0)], maxfun=300, journal=folder / "run.db")
    reading, writing = os.pipe()
    process = subprocess.Popen(
        [sys.executable, "-m", "Quenloft", "history", "run.db", *words], cwd=folder,
        stdout=writing, stderr=subprocess.PIPE, env={**os.environ, "PYTHONUNBUFFERED": ""},
    )  # fmt: skip
    os.close(writing)
    os.close(reading)
    _, err = process.communicate(timeout=60)
    assert (process.returncode, err) == (0, b"")
