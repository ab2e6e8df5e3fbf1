# SPDX-License-Identifier: MIT
"""The progress display, and what happens without the packages that are optional."""

import io
import math
import subprocess
import sys

import pytest

import Quenloft
from Quenloft._progress import Progress


def show_on_terminal(monkeypatch):
    stream = io.StringIO()
    stream.isatty = lambda: True
    monkeypatch.setattr(sys, "stderr", stream)
    monkeypatch.setattr("Quenloft._progress._INTERVAL", 0.0)
    return stream


@pytest.mark.parametrize("has_tqdm", [True, False])
@pytest.mark.parametrize("options", [{"maxfun": 30}, {"maxtime": 0.1}])
def test_progress_shows_value_trials_budget_and_time_left(has_tqdm, options, monkeypatch):
    terminal = show_on_terminal(monkeypatch)
    if not has_tqdm:
        monkeypatch.setitem(sys.modules, "tqdm.auto", None)
    result = Quenloft.minimize(lambda x: x[0] ** 2, [(-1, 2)], progress=True, **options)
    shown = terminal.getvalue()
    last = shown.rstrip().split("\r")[-1]
    assert ("it/s" in shown, "%|" in last) == (False, has_tqdm and "maxfun" in options)
    assert f"best {result.fun:.6g}" in last and str(result.nit) in last
    assert ("30/30" in last) == ("maxfun" in options)
    assert "00:00 left" in shown and "left" not in last and shown.endswith("\n")


def test_time_left_is_that_of_the_tighter_limit_at_the_pace_since_the_first_update(monkeypatch):
    show_on_terminal(monkeypatch)
    progress = Progress(maxfun=100, maxtime=50.0)
    progress.update(20, math.nan, 10.0)  # twenty replayed trials say nothing about the pace
    left = [progress.seconds_left(*state) for state in ((20, 10.0), (40, 12.0), (22, 12.0))]
    assert left == pytest.approx([40.0, 6.0, 38.0])
    progress.close()


def test_the_log_says_when_a_search_begins_and_why_it_ended(caplog):
    with caplog.at_level("INFO", "Quenloft"):
        Quenloft.minimize(abs_first, {"a": (0, 3, "int"), "b": ["u", "v"]})
    begins, ends = (record.getMessage() for record in caplog.records)
    assert begins.startswith("search of abs_first begins: a in [0, 3], integer, 2 choices")
    assert ends.endswith("0.0: all 8 points evaluated, the best is proven: 8 trials of 1000")


def abs_first(x, choices):
    return float(abs(x[0]))


def test_the_package_runs_silently_on_the_standard_library_alone():
    program = """if True:
        import sys
        sys.modules.update(dict.fromkeys(["numpy", "scipy", "scipy.optimize", "tqdm.auto"]))
        import Quenloft
        result = Quenloft.minimize(lambda x: x[0] ** 2, [(-1, 2)], maxfun=60,
                                   constraints=lambda x: -1, progress=True)
        assert result.fun < 1e-6
        assert "locals" in repr(result) and Quenloft.minimize_many([], progress=True) == []
    """
    done = subprocess.run([sys.executable, "-c", program], stderr=subprocess.PIPE, text=True)
    assert (done.returncode, done.stderr) == (0, "")
