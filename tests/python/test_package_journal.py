# SPDX-License-Identifier: MIT
"""The journal of a run: nothing lost, nothing evaluated twice, nothing mixed up."""

import itertools
import math
import os
import random
import sqlite3
import subprocess
import sys
import time
from contextlib import closing

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


@pytest.fixture
def path(tmp_path):
    return tmp_path / "run.db"


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
        notes.touch()
        command = [sys.executable, "-c", KILLED_RUN, str(tmp_path / f"{name}.db"), str(notes)]
        process = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
        return process, lambda: notes.read_text().splitlines()

    process, whole = run("whole")
    expected, _ = process.communicate(timeout=60)
    assert process.returncode == 0 and len(set(whole())) == len(whole())

    moments = random.Random(20)
    for kills in itertools.count():
        process, calls = run("killed")
        known = len(calls())
        while process.poll() is None and (kills >= 20 or len(calls()) == known):
            time.sleep(0.001)
        if process.returncode is None:
            time.sleep(moments.uniform(0, 0.06))
            process.kill()
        output, _ = process.communicate(timeout=60)
        recorded = Quenloft.read_journal(tmp_path / "killed.db").history
        assert sum(index >= 1 for index in recorded.index) >= len(set(calls())) - 1
        if process.returncode == 0:
            break
    assert kills >= 5 and output == expected and set(calls()) == set(whole())
    assert len(calls()) - len(set(calls())) <= kills


# fmt: off
RUNS = [
    {},
    {"polish": "cobyla"},
    {"polish": "pattern", "constraints": [lambda x: x[0] - 0.4, lambda x: 1.1 - x[1]]},
    {"nonfinite": "infeasible", "constraints": lambda x: math.nan if x[1] > 3.9 else -1},
    {"categories": [("a", math.nan, None)], "fit": 2},
    {"callback": lambda result: result.nit == 33},
]
# fmt: on


@pytest.mark.parametrize("options", RUNS)
def test_a_run_taken_up_again_is_the_run_that_was_not_interrupted(options, path):
    def fun(x, *rest):
        calls.append(x)
        if len(calls) == dies_at:
            raise KeyboardInterrupt
        return math.inf if "nonfinite" in options and x[0] > 1.9 else parabola(x)

    def run(**journal):
        calls.clear()
        return Quenloft.minimize(fun, BOX, maxfun=60, **options, **journal)

    calls, dies_at = [], None
    whole = run()
    dies_at = 20
    with pytest.raises(KeyboardInterrupt) as caught:
        run(journal=path)
    first = caught.value.result
    assert columns(Quenloft.read_journal(path).history) == columns(first.history)
    dies_at = None
    # The second time nothing is left to do.
    for new, replayed in ((whole.nfev - 19, first.nit), (0, whole.nit)):
        result = run(journal=path)
        assert (len(calls), result.replayed) == (new, replayed)
        assert columns(result.history) == columns(whole.history)
        assert list(result.history.time[: first.nit]) == list(first.history.time)
        for field in ("x", "fun", "status", "nfev", "nit", "funl", "message"):
            assert repr(result[field]) == repr(whole[field])
    recorded = Quenloft.read_journal(path).history
    for field in ("polish_start", "names", "bounds", "goal"):
        assert getattr(recorded, field) == getattr(whole.history, field)


def test_the_time_of_earlier_sessions_counts(path, monkeypatch):
    now = 0.0

    def fun(x):
        nonlocal now
        now += 1.0
        return parabola(x)

    monkeypatch.setattr("Quenloft.run.perf_counter", lambda: now)
    for maxtime, new in ((10, 10), (10, 0), (9.5, 0), (4, 0), (15, 5)):
        now = random.Random(maxtime).random()
        result = Quenloft.minimize(fun, BOX, maxtime=maxtime, journal=path)
        assert (result.status, result.nit) == (Status.MAXTIME, math.ceil(maxtime))
        assert result.nit - result.replayed == new
        assert list(result.history.time) == pytest.approx(range(1, result.nit + 1))
        assert result.elapsed_seconds == pytest.approx(result.nit)


# fmt: off
DIFFERENCES = [
    ({"bounds": [(-1, 2), (0.5, 5)]}, r"bounds = \[.*4.0\]\], not \[.*5.0\]\]"),
    ({"args": (2,)}, "args = '1', not '2'"),
    ({"categories": [("a", "c")]}, r"categories = \[\['a', 'b'\]\], not"),
    ({"constraints": lambda x, c: -1}, r"constraints = \[\], not \['constraints\[0\] "),
    ({"spread": 9.0}, "spread = 12.0, not 9.0"),
    ({"fun": lambda x, c, a: 0.0}, "objective = 'parabola', not '<lambda>'"),
]
# fmt: on


@pytest.mark.parametrize("change, message", DIFFERENCES)
def test_a_journal_of_something_else_is_refused_with_the_difference(change, message, path):
    base = {"fun": parabola, "bounds": BOX, "args": (1,), "categories": [("a", "b")]}
    Quenloft.minimize(**base, maxfun=10, journal=path)
    before = path.read_bytes()
    with pytest.raises(JournalError, match=message):
        Quenloft.minimize(**{**base, **change}, maxfun=20, journal=path)
    assert path.read_bytes() == before


def test_arguments_are_compared_without_their_addresses(path):
    large = numpy.zeros(5000)
    for count in (5, 6):
        args = (object(), list(range(500)), large)
        result = Quenloft.minimize(parabola, BOX, args, maxfun=count, journal=path)
    assert result.replayed == 5
    large[2500] = 1  # which its text does not show
    with pytest.raises(JournalError, match="args = "):
        Quenloft.minimize(parabola, BOX, args, maxfun=9, journal=path)


def test_a_journal_whose_points_are_others_is_refused_too(path):
    Quenloft.minimize(parabola, BOX, maxfun=10, journal=path)
    with closing(sqlite3.connect(path, isolation_level=None)) as database:
        database.execute("UPDATE trials SET x1 = x1 + 1e-9 WHERE number = 4")
    with pytest.raises(JournalError, match="trial 4 of the journal .* another version"):
        Quenloft.minimize(parabola, BOX, maxfun=20, journal=path)


def make_database(path):
    with closing(sqlite3.connect(path)) as database:
        database.execute("CREATE TABLE t (a)")


@pytest.mark.parametrize("make", [make_database, lambda path: path.write_text("no database" * 99)])
def test_a_file_that_is_no_journal_is_refused_and_left_alone(make, path):
    make(path)
    before = path.read_bytes()
    for use in (Quenloft.read_journal, lambda p: Quenloft.minimize(parabola, BOX, journal=p)):
        with pytest.raises(JournalError, match="run.db' (cannot be|is not)"):
            use(path)
    assert path.read_bytes() == before


def test_a_running_journal_can_be_read_but_not_written_by_another_run(path):
    calls = []

    def fun(x):
        calls.append(x)
        if len(calls) == 8:
            assert len(Quenloft.read_journal(path).history) == 7
            Quenloft.minimize(fun, BOX, maxfun=20, journal=path)
        return parabola(x)

    with pytest.raises(JournalError, match="is being written by another run") as caught:
        Quenloft.minimize(fun, BOX, maxfun=30, journal=path)
    assert caught.value.result.nit == 8 and len(calls) == 8 + 13
    assert len(Quenloft.read_journal(path).history) == 20
    assert os.listdir(path.parent) == ["run.db"]
