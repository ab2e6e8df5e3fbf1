# SPDX-License-Identifier: MIT
"""The journal of a run: nothing lost, nothing evaluated twice, nothing mixed up."""

import functools
import itertools
import math
import os
import random
import resource
import sqlite3
import struct
import subprocess
import sys
import threading
import time
from contextlib import closing

import numpy
import pytest
from scipy.optimize import NonlinearConstraint

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
def constraint(x, choices):
    return x[1] - 3
result = Quenloft.minimize(
    fun, [(-1, 2), (0.5, 4, "log")], categories=[(2, 1)], constraints=constraint,
    maxfun=150, journal=sys.argv[1], verify=False, workers=int(sys.argv[3]),
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
        [*t.x, *map(str, (*t.categories, t.index, t.value, t.constraints, t.objective))]
        for t in history
    ]


@pytest.mark.slow
@pytest.mark.parametrize("workers", [1, 3])
def test_a_run_killed_at_random_moments_loses_at_most_the_evaluations_in_flight(tmp_path, workers):
    def run(name, workers):
        notes = tmp_path / f"{name}.txt"
        notes.touch()
        journal = tmp_path / f"{name}.db"
        command = [sys.executable, "-c", KILLED_RUN, str(journal), str(notes), str(workers)]
        process = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
        return process, lambda: notes.read_text().splitlines()

    process, whole = run("whole", 1)
    expected, _ = process.communicate(timeout=60)
    assert process.returncode == 0 and len(set(whole())) == len(whole())

    moments = random.Random(20)
    for kills in itertools.count():
        process, calls = run("killed", workers)
        known = len(calls())
        while process.poll() is None and (kills >= 20 or len(calls()) == known):
            time.sleep(0.001)
        if process.returncode is None:
            time.sleep(moments.uniform(0, 0.06))
            process.kill()
        output, _ = process.communicate(timeout=60)
        if process.returncode == 0:
            break
        recorded = Quenloft.read_journal(tmp_path / "killed.db").history
        # What was lost ahead of the search is not always wanted again.
        lost = len(set(calls())) - sum(index >= 1 for index in recorded.index)
        assert lost <= (1 if workers == 1 else workers * (kills + 1))
    assert kills >= 5 and output == expected and set(calls()) >= set(whole())
    assert len(calls()) - len(set(calls())) <= kills * workers
    if workers == 1:
        assert set(calls()) == set(whole())


# fmt: off
RUNS = [
    {},
    {"constraints": [lambda x: x[0] - 0.4, lambda x: 1.1 - x[1]]},
    {"nonfinite": "infeasible", "constraints": lambda x: math.nan if x[1] > 3.9 else -1},
    {"categories": [("a", math.nan, None)]},
    {"constraints": [lambda x: x[0] - 1.5, NonlinearConstraint(lambda x: x[1] - x[0], 1, 9)]},
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

    # Not in the closure, which decides what a function is.
    global calls, dies_at
    calls, dies_at = [], None
    whole = run()
    dies_at = 20
    with pytest.raises(KeyboardInterrupt) as caught:
        run(journal=path)
    first = caught.value.result
    assert columns(Quenloft.read_journal(path).history) == columns(first.history)
    dies_at = None
    # First the best point is evaluated once more. The second time nothing is left to do.
    again = math.isfinite(first.fun)
    for new, replayed in ((whole.nfev - first.nfev + again, first.nit), (0, whole.nit)):
        result = run(journal=path)
        assert (len(calls), result.replayed) == (new, replayed)
        assert columns(result.history) == columns(whole.history)
        assert list(result.history.time[: first.nit]) == list(first.history.time)
        for field in ("x", "fun", "status", "nfev", "nit", "funl", "message"):
            assert repr(result[field]) == repr(whole[field])
    recorded = Quenloft.read_journal(path).history
    for field in ("names", "bounds", "goal"):
        assert getattr(recorded, field) == getattr(whole.history, field)


def test_the_time_of_earlier_sessions_counts(path, monkeypatch):
    def fun(x):
        global now
        now += 1.0
        return parabola(x)

    global now
    monkeypatch.setattr("Quenloft._run.perf_counter", lambda: now)
    now = 0.0
    for maxtime, new in ((10, 10), (10, 0), (9.5, 0), (4, 0), (15, 5)):
        now = random.Random(maxtime).random()
        result = Quenloft.minimize(fun, BOX, maxtime=maxtime, journal=path, verify=False)
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
    ({"batch": 2}, "batch = 1, not 2"),
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


def test_a_journal_whose_points_are_others_is_refused_too(path, monkeypatch):
    from Quenloft import _journal

    ours = {"spread": 12.0, "overestimation": 2.0}
    described = _journal.describe
    monkeypatch.setattr(_journal, "describe", lambda plan: {**described(plan), **ours})
    Quenloft.minimize(parabola, BOX, maxfun=20, journal=path, spread=7.0, overestimation=1.2)
    with pytest.raises(JournalError, match="holds other points .* from trial .* another version"):
        Quenloft.minimize(parabola, BOX, maxfun=40, journal=path)


def shifted(x, shift=0.0):
    return parabola(x) + shift


class Model:
    def __init__(self, shift):
        self.shift = shift
        self.calls = 0

    def __getstate__(self):
        return {"shift": self.shift}

    def __call__(self, x):
        self.calls += 1
        return parabola(x) + self.shift

    def cost(self, x):
        return self(x)


def with_closure(shift):
    return lambda x: parabola(x) + float(numpy.sum(shift))


def with_helper(shift):
    names = {"__name__": __name__}
    exec(f"def helper(x): return x[0] + {shift}\ndef fun(x): return helper(x)", names)
    return names["fun"]


# fmt: off
FUNCTIONS = {
    "closure": (with_closure, "closure variable 'shift' of fun"),
    "array": (lambda v: with_closure(numpy.full(3000, v)), "closure variable 'shift' of fun"),
    "constant": (lambda v: eval(f"lambda x: x[0] + {v}"), "code of fun"),
    "default": (lambda v: eval("lambda x, a=v: x[0] + a", {"v": v}), "default values of fun"),
    "helper": (with_helper, "code of fun"),
    "partial": (lambda v: functools.partial(shifted, shift=v), "arguments of the partial fun"),
    "object": (Model, "state of fun"),
    "method": (lambda v: Model(v).cost, "object of fun"),
}
# fmt: on


@pytest.mark.parametrize("kind", FUNCTIONS)
def test_functions_of_one_name_are_told_apart_by_what_decides_their_values(kind, path):
    make, difference = FUNCTIONS[kind]
    first = Quenloft.minimize(make(1.0), BOX, maxfun=8, journal=path)
    again = Quenloft.minimize(make(1.0), BOX, maxfun=12, journal=path)
    assert again.replayed == first.nit
    with pytest.raises(JournalError, match=f"with a different {difference}"):
        Quenloft.minimize(make(2.0), BOX, maxfun=20, journal=path)
    path = path.with_suffix(".constraints")
    Quenloft.minimize(parabola, BOX, maxfun=6, journal=path, constraints=[make(-9.0)])
    with pytest.raises(JournalError, match=difference.replace("fun", r"constraints\[0\]")):
        Quenloft.minimize(parabola, BOX, maxfun=6, journal=path, constraints=[make(-8.0)])


def test_what_cannot_be_compared_is_said(path):
    lock = threading.Lock()

    def fun(x):
        with lock:
            return parabola(x)

    for count in (5, 9):
        with pytest.warns(UserWarning, match="whether closure variable 'lock' of fun is the same"):
            Quenloft.minimize(fun, BOX, maxfun=count, journal=path)


def by_a_global(x):
    return parabola(x) + now


def test_the_best_recorded_point_is_evaluated_again_before_a_run_goes_on(path):
    global now
    now = 1.0
    first = Quenloft.minimize(by_a_global, BOX, maxfun=20, journal=path)
    now += 1e-9  # as another machine may round
    Quenloft.minimize(by_a_global, BOX, maxfun=30, journal=path)
    now = 2.0
    replayed = Quenloft.minimize(by_a_global, BOX, maxfun=20, journal=path)
    assert replayed.fun == first.fun  # nothing is evaluated, so nothing can be compared
    for workers in (1, 2):
        with pytest.raises(JournalError, match="holds the value .* verify=False") as caught:
            Quenloft.minimize(by_a_global, BOX, maxfun=40, journal=path, workers=workers)
        assert caught.value.result.nit == 30
    Quenloft.minimize(by_a_global, BOX, maxfun=40, journal=path, verify=False)


def flipped(content, place):
    changed = bytearray(content)
    changed[place // 8] ^= 1 << place % 8
    return bytes(changed)


def test_a_flipped_bit_is_found_or_changes_nothing(path):
    options = {"categories": [("a", math.nan)], "constraints": lambda x, c: x[1] - 3}
    Quenloft.minimize(parabola, BOX, maxfun=30, journal=path, **options)
    study = path.with_suffix(".study")
    tasks = [{"fun": parabola, "bounds": BOX, "maxfun": 10 + i} for i in range(3)]
    whole = Quenloft.minimize_many(tasks, journal=study)

    def recorded():
        found = Quenloft.read_journal(path)
        return found.header, columns(found.history)

    def kept():
        results = Quenloft.minimize_many(tasks, lambda function, items: [], journal=study)
        return [(repr(r), columns(r.history)) for r in results]

    places = random.Random(4)
    for file, read in ((path, recorded), (study, kept)):
        content, expected = file.read_bytes(), read()
        found = 0
        for _ in range(250):
            file.write_bytes(flipped(content, places.randrange(8 * len(content))))
            try:
                assert read() == expected
            except JournalError as error:
                found += file.name in str(error)
        assert found > 25  # much of a file is empty
        # All of a value, in particular.
        value = whole[0].history.value[3] if file is study else expected[1][7][0]
        place = content.find(struct.pack("<d" if file is study else ">d", value))
        assert place > 0
        for bit in range(0, 64, 7):
            file.write_bytes(flipped(content, 8 * place + bit))
            with pytest.raises(JournalError, match="is damaged: "):
                read()
        file.write_bytes(content)


def lock(path):
    holders.append(sqlite3.connect(path, isolation_level=None))
    holders[-1].execute("BEGIN IMMEDIATE")


def fill_the_disk(path):
    size = os.path.getsize(f"{path}-wal")
    resource.setrlimit(resource.RLIMIT_FSIZE, (size, resource.getrlimit(resource.RLIMIT_FSIZE)[1]))


def replace(path):
    path.with_suffix(".new").write_bytes(path.read_bytes())
    path.with_suffix(".new").rename(path)


holders = []
ACCIDENTS = {
    "deleted": (os.remove, "run.db' was deleted while in use"),
    "cut": (lambda path: os.truncate(path, 100), "run.db' (was cut|cannot be written)"),
    "replaced": (replace, "run.db' was replaced while in use"),
    "log deleted": (lambda path: os.remove(f"{path}-wal"), "run.db-wal' was deleted"),
    "locked": (lock, "run.db' cannot be written: database is locked"),
    "full": (fill_the_disk, "run.db' cannot be written: (database or disk is full|disk I/O error)"),
}


@pytest.mark.parametrize("accident", ACCIDENTS)
def test_a_journal_that_can_no_longer_be_written_is_an_error_that_loses_no_value(
    accident, path, monkeypatch
):
    happen, message = ACCIDENTS[accident]
    connect = functools.partial(sqlite3.connect, timeout=0.05)
    monkeypatch.setattr("Quenloft._database.sqlite3.connect", connect)
    limit = resource.getrlimit(resource.RLIMIT_FSIZE)

    def fun(x):
        calls.append(x)
        if len(calls) == 12:
            happen(path)
        return parabola(x)

    global calls
    calls = []
    try:
        with pytest.raises(JournalError, match=message) as caught:
            Quenloft.minimize(fun, BOX, maxfun=40, journal=path)
    finally:
        resource.setrlimit(resource.RLIMIT_FSIZE, limit)
        while holders:
            holders.pop().close()
    result = caught.value.result
    assert result.nit == 12 and list(result.history.x) == calls


def test_every_path_is_that_of_a_file(tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    for name in (":memory:", "file:run.db?mode=memory", "file::memory:"):
        Quenloft.minimize(parabola, BOX, maxfun=5, journal=name)
        assert len(Quenloft.read_journal(name).history) == 5 and name in os.listdir()
    for name in ("", "/proc/run.db", str(tmp_path)):
        with pytest.raises(JournalError):
            Quenloft.minimize(parabola, BOX, maxfun=5, journal=name)


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
    global calls
    calls = []

    def fun(x):
        calls.append(x)
        if len(calls) == 8:
            assert len(Quenloft.read_journal(path).history) == 7
            Quenloft.minimize(fun, BOX, maxfun=20, journal=path, verify=False)
        return parabola(x)

    with pytest.raises(JournalError, match="is being written by another run") as caught:
        Quenloft.minimize(fun, BOX, maxfun=30, journal=path)
    assert caught.value.result.nit == 8 and len(calls) == 8 + 13
    assert len(Quenloft.read_journal(path).history) == 20
    assert os.listdir(path.parent) == ["run.db"]
