# SPDX-License-Identifier: MIT
"""The journal of a run: nothing lost, nothing evaluated twice, nothing mixed up."""

import math
import os
import random
import sqlite3
import subprocess
import sys
import time

import numpy
import pytest

import Quenloft
from Quenloft import JournalError, Status

BOX = [(-1.0, 2.0), (0.5, 4.0)]
# A run of its own process: each call is noted before it is evaluated.
KILLED_RUN = """
import os, sys, time, Quenloft
notes = os.open(sys.argv[2], os.O_WRONLY | os.O_APPEND | os.O_CREAT)
def fun(x, choices):
    os.write(notes, f"{x[0].hex()} {x[1].hex()} {choices[0]}\\n".encode())
    time.sleep(0.002)
    return (x[0] - 0.5) ** 2 + x[1] + choices[0]
result = Quenloft.minimize(
    fun, [(-1, 2), (0.5, 4, "log")], categories=[(2, 1)], constraints=lambda x, c: x[1] - 3,
    maxfun=150, polish="pattern", journal=sys.argv[1],
)
print(repr([result.fun, result.x, result.nit]))
"""


def parabola(x, *rest):
    return (x[0] - 0.5) ** 2 + (x[1] - 1.0) ** 2


def columns(history):
    return [
        [*t.x, *map(str, t.categories), t.index, str(t.value), str(t.constraints)] for t in history
    ]


@pytest.mark.slow
def test_a_run_killed_at_random_moments_loses_at_most_the_evaluation_in_flight(tmp_path):
    def run(name):
        notes = tmp_path / f"{name}.txt"
        command = [sys.executable, "-c", KILLED_RUN, str(tmp_path / f"{name}.db"), str(notes)]
        return subprocess.Popen(command, stdout=subprocess.PIPE, text=True), notes

    process, notes = run("whole")
    expected, _ = process.communicate(timeout=60)
    whole = notes.read_text().splitlines()
    assert process.returncode == 0 and len(set(whole)) == len(whole)

    moments = random.Random(20)
    kills = 0
    while True:
        process, notes = run("killed")
        known = notes.read_text().count("\n") if notes.exists() else 0
        while process.poll() is None:
            if kills < 20 and notes.exists() and notes.read_text().count("\n") > known:
                time.sleep(moments.uniform(0, 0.06))
                process.kill()
                break
            time.sleep(0.001)
        output, _ = process.communicate(timeout=60)
        calls = notes.read_text().splitlines()
        recorded = Quenloft.read_journal(tmp_path / "killed.db").history
        evaluated = sum(index >= 1 for index in recorded.index)
        assert evaluated >= len(set(calls)) - 1
        if process.returncode == 0:
            break
        kills += 1
    assert kills >= 5
    assert output == expected and set(calls) == set(whole)
    assert len(calls) - len(set(calls)) <= kills


@pytest.mark.parametrize(
    "options",
    [
        {},
        {"polish": "cobyla"},
        {"polish": "pattern", "constraints": [lambda x: x[0] - 0.4, lambda x: 1.1 - x[1]]},
        {"nonfinite": "infeasible", "constraints": lambda x: math.nan if x[1] > 3.9 else -1},
        {"categories": [("a", math.nan, None)], "fit": 2},
        {"callback": lambda result: result.nit == 33},
        {"f_min": 0.01},
    ],
)
def test_a_run_taken_up_again_is_the_run_that_was_not_interrupted(options, tmp_path):
    def fun(x, *rest):
        calls.append(x)
        if len(calls) == dies_at:
            raise KeyboardInterrupt
        return math.inf if "nonfinite" in options and x[0] > 1.9 else parabola(x)

    def run(**journal):
        calls.clear()
        return Quenloft.minimize(fun, BOX, maxfun=60, **options, **journal)

    calls = []
    dies_at = None
    whole = run()
    dies_at = 20
    path = tmp_path / "run.db"
    with pytest.raises(KeyboardInterrupt) as caught:
        run(journal=path)
    dies_at = None
    first = caught.value.result
    assert columns(Quenloft.read_journal(path).history) == columns(first.history)
    second = run(journal=path)
    assert len(calls) == whole.nfev - 19 and second.replayed == first.nit
    assert columns(second.history) == columns(whole.history)
    assert list(second.history.time[: first.nit]) == list(first.history.time)
    assert second.elapsed_seconds > first.history.time[-1]
    for field in ("x", "fun", "status", "nfev", "nit", "funl", "message"):
        assert repr(second[field]) == repr(whole[field])
    # And once more: nothing is left to do.
    third = run(journal=path)
    assert calls == [] and third.replayed == third.nit == whole.nit
    assert columns(third.history) == columns(whole.history)
    recorded = Quenloft.read_journal(path).history
    assert recorded.polish_start == whole.history.polish_start
    assert recorded.names == whole.history.names and recorded.goal == whole.history.goal


def test_a_finished_run_goes_on_with_a_larger_budget(tmp_path, monkeypatch):
    path = tmp_path / "run.db"
    calls = []

    def run(**options):
        calls.clear()
        return Quenloft.minimize(lambda x: calls.append(x) or parabola(x), BOX, **options)

    run(maxfun=40, polish="pattern", journal=path)
    first = set(calls)
    monkeypatch.setattr(Quenloft, "__version__", "a later one")
    longer = run(maxfun=80, polish="pattern", journal=path)
    # The search of the first run, and what the longer polish has in common with the shorter.
    assert longer.replayed >= 30 and len(calls) == 80 - longer.replayed
    assert first.isdisjoint(calls)
    again = run(maxfun=40, polish="pattern", journal=path)
    assert calls == [] and again.nit == 40
    assert columns(longer.history) == columns(run(maxfun=80, polish="pattern").history)


def test_the_time_of_earlier_sessions_counts(tmp_path, monkeypatch):
    path = tmp_path / "run.db"
    now = 0.0

    def fun(x):
        nonlocal now
        now += 1.0
        return parabola(x)

    def run(maxtime):
        nonlocal now
        now = random.Random(maxtime).random()
        return Quenloft.minimize(fun, BOX, maxtime=maxtime, journal=path)

    monkeypatch.setattr("Quenloft.run.perf_counter", lambda: now)
    for maxtime, new in ((10, 10), (10, 0), (9.5, 0), (4, 0), (15, 5)):
        result = run(maxtime)
        assert result.status is Status.MAXTIME
        assert result.nit == math.ceil(maxtime) and result.nit - result.replayed == new
        assert list(result.history.time) == pytest.approx(range(1, result.nit + 1))
        assert result.elapsed_seconds == pytest.approx(result.nit)


BASE = {"fun": parabola, "bounds": BOX, "args": (1,), "categories": [("a", "b")]}


@pytest.mark.parametrize(
    "change, message",
    [
        ({"bounds": [(-1, 2), (0.5, 5)]}, r"bounds = \[.*4.0\]\], not \[.*5.0\]\]"),
        ({"logarithmic": [1]}, r"logarithmic = \[\], not \[1\]"),
        ({"args": (2,)}, "args = '1', not '2'"),
        ({"categories": [("a", "c")]}, r"categories = \[\['a', 'b'\]\], not"),
        ({"constraints": lambda x, c: -1}, r"constraints = \[\], not \['constraints\[0\] "),
        ({"nonfinite": "infeasible"}, "nonfinite = 'raise', not 'infeasible'"),
        ({"spread": 9.0}, "spread = 12.0, not 9.0"),
        ({"fun": lambda x, c, a: 0.0}, "objective = 'parabola', not '<lambda>'"),
        ({"names": ["a", "b"]}, "names = "),
    ],
)
def test_a_journal_of_something_else_is_refused_with_the_difference(change, message, tmp_path):
    path = tmp_path / "run.db"
    Quenloft.minimize(**BASE, maxfun=10, journal=path)
    before = path.read_bytes()
    with pytest.raises(JournalError, match=message):
        Quenloft.minimize(**{**BASE, **change}, maxfun=20, journal=path)
    assert path.read_bytes() == before
    assert Quenloft.minimize(**BASE, maxfun=12, journal=path).replayed == 10


def test_arguments_are_compared_without_their_addresses(tmp_path):
    path = tmp_path / "run.db"
    large = numpy.zeros(5000)
    for count in (5, 6):
        args = (object(), list(range(500)), large)
        result = Quenloft.minimize(parabola, BOX, args, maxfun=count, journal=path)
    assert result.replayed == 5
    large[2500] = 1  # which its text does not show
    with pytest.raises(JournalError, match="args = "):
        Quenloft.minimize(parabola, BOX, args, maxfun=9, journal=path)


@pytest.mark.parametrize(
    "prepare, message",
    [
        (lambda path: path.write_text("no database, and long enough to be none" * 99), "not a"),
        (
            lambda path: sqlite3.connect(path).execute("CREATE TABLE t (a)").connection.close(),
            "not",
        ),
        (lambda path: path.mkdir(), "cannot be"),
    ],
)
def test_a_file_that_is_no_journal_is_refused_and_left_alone(prepare, message, tmp_path):
    path = tmp_path / "other.db"
    prepare(path)
    before = path.is_file() and path.read_bytes()
    for use in (
        lambda: Quenloft.minimize(parabola, BOX, maxfun=5, journal=path),
        lambda: Quenloft.read_journal(path),
    ):
        with pytest.raises(JournalError, match=message):
            use()
    assert before == (path.is_file() and path.read_bytes())
    with pytest.raises(FileNotFoundError):
        Quenloft.read_journal(tmp_path / "none.db")


def test_a_journal_that_asks_for_other_points_is_of_another_version(tmp_path):
    path = tmp_path / "run.db"
    Quenloft.minimize(parabola, BOX, maxfun=10, journal=path)
    with sqlite3.connect(path) as database:
        database.execute("UPDATE trials SET x1 = x1 + 1e-9 WHERE number = 4")
    database.close()
    with pytest.raises(JournalError, match="trial 4 of the journal .* another version"):
        Quenloft.minimize(parabola, BOX, maxfun=20, journal=path)


def test_a_running_journal_can_be_read_but_not_written_by_another_run(tmp_path):
    path = tmp_path / "run.db"

    def fun(x):
        if len(Quenloft.read_journal(path).history) == 7:
            Quenloft.minimize(parabola_again, BOX, maxfun=20, journal=path)
        return parabola(x)

    def parabola_again(x):
        return parabola(x)

    fun.__qualname__ = parabola_again.__qualname__
    with pytest.raises(JournalError, match="is being written by another run") as caught:
        Quenloft.minimize(fun, BOX, maxfun=30, journal=path)
    # The intruder wrote thirteen trials; this run ended on its first one after that.
    assert caught.value.result.nit == 8
    assert len(Quenloft.read_journal(path).history) == 20
    assert os.listdir(tmp_path) == ["run.db"]
