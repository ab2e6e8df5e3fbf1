# SPDX-License-Identifier: MIT
"""The progress display, and what happens without the packages that are optional."""

import builtins
import importlib
import io
import math
import sys
import time

import pytest

import Quenloft
from Quenloft.progress import Progress


class Terminal(io.StringIO):
    def isatty(self):
        return True


def show_on_terminal(monkeypatch):
    stream = Terminal()
    monkeypatch.setattr(sys, "stderr", stream)
    monkeypatch.setattr("Quenloft.progress._INTERVAL", 0.0)
    return stream


def slow_sphere(x):
    time.sleep(0.002)
    return x[0] ** 2


@pytest.mark.parametrize("has_tqdm", [True, False])
@pytest.mark.parametrize("options", [{"maxfun": 30}, {"maxtime": 0.2}])
def test_progress_shows_value_trials_budget_and_time_left(has_tqdm, options, monkeypatch):
    terminal = show_on_terminal(monkeypatch)
    if not has_tqdm:
        monkeypatch.setitem(sys.modules, "tqdm.auto", None)
    result = Quenloft.minimize(slow_sphere, [(-1, 2)], progress=True, **options)
    shown = terminal.getvalue()
    last = shown.rstrip().split("\r")[-1]
    assert ("it/s" in shown, "%|" in last) == (False, has_tqdm and "maxfun" in options)
    assert f"best {result.fun:.6g}" in last and str(result.nit) in last
    assert ("30/30" in last) == ("maxfun" in options)
    assert "00:00 left" in shown and "left" not in last
    assert shown.endswith("\n")


@pytest.mark.parametrize("stream", [io.StringIO(), None])
def test_progress_is_silent_where_there_is_no_terminal(stream, monkeypatch):
    monkeypatch.setattr(sys, "stderr", stream)
    Quenloft.minimize(slow_sphere, [(-1, 2)], progress=True, maxfun=5)
    assert stream is None or stream.getvalue() == ""


def test_time_left_is_that_of_the_tighter_limit_at_the_pace_since_the_first_update(monkeypatch):
    show_on_terminal(monkeypatch)
    progress = Progress(maxfun=100, maxtime=50.0)
    assert progress.seconds_left(0, 10.0) == 40.0
    progress.update(20, math.nan, 10.0)  # twenty replayed trials say nothing about the pace
    assert progress.seconds_left(40, 12.0) == pytest.approx(6.0)
    assert progress.seconds_left(22, 12.0) == pytest.approx(38.0)
    assert progress.seconds_left(100, 60.0) == 0.0
    progress.close()


def test_the_package_runs_on_the_standard_library_alone(monkeypatch):
    loaded = {name for name in sys.modules if name.split(".")[0] == "Quenloft"}
    real = builtins.__import__

    def refuse(name, *rest):
        if name.split(".")[0] in ("numpy", "scipy", "tqdm", "matplotlib", "dask"):
            raise ImportError(name)
        return real(name, *rest)

    modules = {name: sys.modules.pop(name) for name in loaded}
    monkeypatch.setattr(builtins, "__import__", refuse)
    for name in ("numpy", "scipy.optimize", "tqdm.auto"):
        monkeypatch.setitem(sys.modules, name, None)
    try:
        fresh = importlib.import_module("Quenloft")
        result = fresh.minimize(
            lambda x: x[0] ** 2, [(-1, 2)], maxfun=60, polish=True, constraints=lambda x: -1
        )
        assert result.phases["polish"]["method"] == "pattern" and result.fun < 1e-6
        assert "locals" in repr(result) and fresh.minimize_many([]) == []
    finally:
        sys.modules.update(modules)
