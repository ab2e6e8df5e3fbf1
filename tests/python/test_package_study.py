# SPDX-License-Identifier: MIT
"""`minimize_many`: the same results wherever the tasks run, and none of them lost."""

import math
import multiprocessing
import os
import signal
import time
import traceback
from concurrent.futures import ProcessPoolExecutor, ThreadPoolExecutor

import pytest

import Quenloft
from Quenloft import JournalError, minimize_many

# From Python 3.12 on, a fork of a process that has threads (the engine's) is warned about.
pytestmark = pytest.mark.filterwarnings("ignore:.*multi-threaded, use of fork:DeprecationWarning")


def shifted(x, choices, shift):
    return (x[0] - shift) ** 2 + (choices[0] != "low") * math.exp(x[1])


def tasks(count=5, **options):
    common = {"bounds": [(-1, 2), (0.5, 4, "log")], "categories": [("high", "low")], **options}
    return [{"fun": shifted, "args": (i / 10,), "maxfun": 24 + i, **common} for i in range(count)]


def essence(result):
    shown = {k: repr(v) for k, v in result.items() if k != "elapsed_seconds"}
    return shown, [(t.x, t.categories, t.value) for t in result.history]


@pytest.fixture(scope="module")
def serial():
    return [essence(Quenloft.minimize(**task)) for task in tasks()]


def within(executor, name, run):
    with executor:
        return run(getattr(executor, name))


WORKERS = {
    "one": lambda run: run(1),
    "two processes": lambda run: run(2),
    "pool": lambda run: within(multiprocessing.Pool(2), "map", run),
    "pool, unordered": lambda run: within(multiprocessing.Pool(2), "imap_unordered", run),
    "executor": lambda run: within(ProcessPoolExecutor(2), "map", run),
    "threads": lambda run: within(ThreadPoolExecutor(2), "map", run),
}


@pytest.mark.parametrize("kind", WORKERS)
def test_any_workers_give_the_results_of_single_searches_in_task_order(
    kind, serial, tmp_path, monkeypatch
):
    path = tmp_path / "study.db"
    results = WORKERS[kind](lambda workers: minimize_many(tasks(), workers, journal=path))
    assert [essence(result) for result in results] == serial
    # From the journal alone, down to the text.
    monkeypatch.setattr(Quenloft, "__version__", "a later one")
    again = minimize_many(tasks(), lambda function, items: [], journal=path)
    assert [essence(result) for result in again] == serial
    assert [repr(result) for result in again] == [repr(result) for result in results]


def failing(x, kind):
    if kind == "exit":
        os._exit(3)
    if kind == "local":
        raise type("Local", (Exception,), {})("mine")  # cannot be pickled
    if kind is not None and x[0] > 1.9:
        raise kind
    return x[0]


def kinds(*kinds):
    return [{"fun": failing, "bounds": [(-1, 2)], "args": (kind,), "maxfun": 9} for kind in kinds]


@pytest.mark.parametrize("workers", [1, 2])
def test_a_failed_task_does_not_keep_the_others_from_their_results(workers, tmp_path):
    study = kinds(None, ZeroDivisionError("first"), None, "local", None)
    path = tmp_path / "study.db"
    with pytest.raises(ZeroDivisionError, match="first") as caught:
        minimize_many(study, workers, journal=path)
    assert [r and r.nit for r in caught.value.results] == [9, None, 9, None, 9]
    answers = minimize_many(study, workers, return_errors=True, journal=path)
    kinds_found = [type(a).__name__ for a in answers[1:4:2]]
    assert kinds_found == ["ZeroDivisionError", "Local" if workers == 1 else "RuntimeError"]
    assert all("in failing" in answer.worker_traceback for answer in answers[1:4:2])
    shown = "".join(traceback.format_exception(None, caught.value, caught.value.__traceback__))
    assert "in failing" in shown
    assert "mine" in str(answers[3]) and answers[0].nit == 9


def test_the_death_of_a_worker_is_an_error_with_the_results_so_far():
    with pytest.raises(Quenloft.WorkerError, match="exit code") as caught:
        minimize_many(kinds("exit", None), 2)
    assert caught.value.results[0] is None and caught.value.results[1].nit == 9
    with pytest.raises(RuntimeError, match=r"no answer to the calls \[1\]") as caught:
        minimize_many(kinds(None, None), lambda f, items: [f(items[0])])
    assert caught.value.results[0].nit == 9


def marking(x, marker):
    marker.touch()
    return x[0]


def hanging(x, marker):
    if marker.exists():  # the other task has been under way for long enough to be done
        time.sleep(1.0)
        os.kill(os.getppid(), signal.SIGALRM)
        time.sleep(60)
    time.sleep(0.01)
    return x[0]


def test_ctrl_c_does_not_wait_for_the_tasks_under_way(tmp_path):
    before = signal.signal(signal.SIGALRM, signal.default_int_handler)
    start = time.perf_counter()
    common = {"bounds": [(0, 1)], "args": (tmp_path / "marker",)}
    study = [{"fun": marking, "maxfun": 9}, {"fun": hanging, "maxtime": 30}]
    try:
        with pytest.raises(KeyboardInterrupt) as caught:
            minimize_many(study, 2, **common)
    finally:
        signal.signal(signal.SIGALRM, before)
    while multiprocessing.active_children():  # what it started is gone as well
        assert time.perf_counter() - start < 40
        time.sleep(0.01)
    assert caught.value.results[0].nit == 9 and caught.value.results[1] is None


# fmt: off
CHANGES = [
    (lambda study: study[:4], "for 5 tasks, not 4"),
    (lambda study: [*study[:4], {**study[4], "maxfun": 99}], "task 4 .* maxfun = 28, not 99"),
]
WRONG = [
    ([{"fun": abs}], 1, "task 0: .*bounds"),
    ([*tasks(1), {**tasks(1)[0], "maxfun": 0}], 1, "task 1: maxfun"),
    (tasks(1, max_fun=3), 1, "task 0: minimize has no argument 'max_fun'; did you mean 'maxfun'"),
    (tasks(1)[0], 1, "tasks must be a sequence"),
    ([abs], 1, "task 0 must be a mapping"),
    (tasks(1), 0, "workers must be from 1"),
]
# fmt: on


@pytest.mark.parametrize("change, message", CHANGES)
def test_the_journal_of_another_study_is_refused(change, message, tmp_path):
    path, run = tmp_path / "study.db", tmp_path / "run.db"
    minimize_many(tasks(), journal=path)
    with pytest.raises(JournalError, match=message):
        minimize_many(change(tasks()), journal=path)
    Quenloft.minimize(**tasks()[0], journal=run)
    with pytest.raises(JournalError, match="not the journal of a study"):
        minimize_many(tasks(), journal=run)
    with pytest.raises(JournalError, match="not the journal of a run"):
        Quenloft.read_journal(path)


@pytest.mark.parametrize("study, workers, message", WRONG)
def test_a_wrong_task_is_named_before_anything_runs(study, workers, message):
    with pytest.raises((TypeError, ValueError), match=message):
        minimize_many(study, workers)
