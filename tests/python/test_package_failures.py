# SPDX-License-Identifier: MIT
"""Evaluations that go wrong: points that fail and are kept, exceptions that name their point."""

import math
import os
import pickle
import sys
import time
from concurrent.futures import ThreadPoolExecutor

import numpy
import pytest

import Quenloft

# From Python 3.12 on, a fork of a process that has threads (the engine's) is warned about.
pytestmark = pytest.mark.filterwarnings("ignore:.*multi-threaded, use of fork:DeprecationWarning")

BOX = {"a": (-1.0, 1.0), "b": (0.0, 3.0), "kind": ["u", "v"]}


class Diverged(Exception):
    def __init__(self, code, text):  # which pickle cannot make again
        super().__init__(f"{text}\nafter {code} steps")


def diverges(x, chosen, way="raise"):
    a, b = x
    if a + b > 2.5:
        if way == "hang":
            time.sleep(60)
        if way == "die":
            os._exit(3)
        raise Diverged(7, "NaN in the field")
    return a * a + b + (chosen[0] == "u")


def ground(x, chosen):
    if x[0] < -0.98:
        raise ArithmeticError("no ground")
    return x[0] - 0.9


def minimize(**options):
    defaults = {"maxfun": 50, "constraints": ground, "catch": (Diverged, ArithmeticError)}
    return Quenloft.minimize(diverges, BOX, **{**defaults, **options})


def trials(history):
    return [(t.x, t.categories, t.index, repr(t.value), t.error) for t in history]


def test_points_that_fail_are_kept_with_their_errors_and_the_search_goes_on(tmp_path):
    result = minimize(journal=tmp_path / "run.db")
    assert result.success and result.nit == 50 and result.fun < 0.1
    failed = [t for t in result.history if t.error]
    assert {(t.index, t.error) for t in failed} == {
        (1, "Diverged: NaN in the field after 7 steps"),
        (0, "ArithmeticError: no ground"),
    }
    assert all(math.isnan(t.value) and t.index < result.history.goal for t in failed)
    assert not [t for t in result.history if sum(t.x) > 2.5 and t.x[0] <= 0.9 and not t.error]
    with ThreadPoolExecutor(4) as threads:
        for workers in (2, threads):
            assert trials(minimize(workers=workers).history) == trials(result.history)
    # Everything that keeps a history keeps them.
    assert trials(Quenloft.read_journal(tmp_path / "run.db").history) == trials(result.history)
    result.save(tmp_path / "result.json")
    loaded = Quenloft.OptimizeResult.load(tmp_path / "result.json").history
    for history in (loaded, pickle.loads(pickle.dumps(result.history))):
        assert trials(history) == trials(result.history)
    assert ",Diverged: NaN in the field after 7 steps\n" in result.history.to_csv()
    assert (result.history.to_pandas()["error"] != "").sum() == len(failed)
    study = {"fun": diverges, "bounds": BOX, "catch": Diverged, "maxfun": 9}
    for _ in range(2):
        (again,) = Quenloft.minimize_many([study], journal=tmp_path / "study.db")
        assert len(again.history.errors) > 0 and min(again.history.errors) < 9


def test_a_run_that_an_exception_ended_goes_on_once_it_is_caught(tmp_path):
    path = tmp_path / "run.db"
    with pytest.raises(Diverged) as caught:
        minimize(catch=ArithmeticError, journal=path)
    assert caught.value.result.nit < 50
    resumed = minimize(journal=path)
    assert resumed.replayed == caught.value.result.nit
    assert trials(resumed.history) == trials(minimize().history)
    nothing = Quenloft.minimize(lambda x: 1 / 0, [(0, 1)], catch=ArithmeticError, maxfun=3)
    assert not nothing.success and nothing.message.endswith(
        "3 of 3 evaluations failed, the last with ZeroDivisionError: division by zero"
    )
    with pytest.raises(Quenloft.JournalError, match="holds points that failed"):
        minimize(journal=path, catch=())


@pytest.mark.parametrize("way, kind", [("hang", TimeoutError), ("die", Quenloft.WorkerError)])
def test_evaluations_that_hang_or_kill_their_process_can_be_caught(way, kind):
    options = {"args": (way,), "timeout": 0.15, "workers": 2, "maxfun": 14, "constraints": ()}
    result = minimize(catch=kind, **options)
    assert result.nit == 14 and {
        type_.split(":")[0] for type_ in result.history.errors.values()
    } == {{"hang": "EvaluationTimeout", "die": "WorkerError"}[way]}
    assert trials(minimize(catch=kind, **options).history) == trials(result.history)


@pytest.mark.parametrize("workers", [1, 2])
def test_an_exception_names_its_point(workers):
    with pytest.raises(ArithmeticError) as caught:
        minimize(catch=(), workers=workers)
    error = caught.value
    assert error.point == {"a": -0.99, "b": 1.5, "kind": "u"}
    assert error.__notes__ == ["at a = -0.99, b = 1.5, kind = 'u'"]
    assert "ArithmeticError in trial 2 of 50 at a = -0.99, b = 1.5" in error.result.message
    if sys.version_info < (3, 11):  # where tracebacks do not show notes
        assert error.__cause__ is not None
    # It can be tried alone.
    with pytest.raises(ArithmeticError):
        minimize(catch=(), x0=error.point, maxfun=1)


@pytest.mark.parametrize("form", ["tuple", "list"])
def test_functions_written_for_arrays_are_told_how_to_get_them(form):
    with pytest.raises(TypeError) as caught:
        Quenloft.minimize(lambda x: numpy.sum((x - 0.3) ** 2), [(0, 1), (0, 1)], point=form)
    assert caught.value.__notes__[-1].endswith("with point='array' it is a NumPy array")
    with pytest.raises(AttributeError) as caught:
        Quenloft.minimize(lambda x: x.sum(), [(0, 1), (0, 1)], point=form)
    assert caught.value.__notes__[-1].endswith("with point='array' it is a NumPy array")
    result = Quenloft.minimize(lambda x: numpy.sum((x - 0.3) ** 2), [(0, 1)], point="array")
    assert result.x == pytest.approx([0.3], abs=1e-4)


def test_a_point_as_a_mapping_holds_all_variables_by_name(tmp_path):
    def cost(x, scale):
        assert list(x) == ["a", "b", "kind"]
        return scale * (x["a"] ** 2 + x["b"] + (x["kind"] == "u"))

    options = {"args": 2, "maxfun": 60, "constraints": lambda x: 0.5 - x["b"]}
    result = Quenloft.minimize(cost, BOX, point="mapping", **options)
    assert result.x["kind"] == "v" and result.categories == ("v",)
    assert result.x["b"] == pytest.approx(0.5, abs=0.01) and result.locals[0].x == result.x
    path = tmp_path / "study.db"
    for _ in range(2):
        (again,) = Quenloft.minimize_many(
            [{"fun": cost, "bounds": BOX, "point": "mapping", **options}], journal=path
        )
        assert again.x == result.x and again.xl == result.xl
    command = Quenloft.Command("echo {b} {a}", constraints=[r"(\S+) \S+ >= 1"])
    box = {name: BOX[name] for name in ("a", "b")}
    found = Quenloft.minimize(command, box, constraints=command.constraints, maxfun=8)
    assert found.fun == -1.0 and found.x[1] >= 1
    with pytest.raises(ValueError, match="c is neither in the command"):
        Quenloft.minimize(command, {**box, "c": (0, 1)})


def test_truth_values_and_masked_numbers_are_no_numbers():
    for value in (False, numpy.bool_(True), numpy.array([False])):
        with pytest.raises(TypeError, match=r"(?s)does not say how far .* <= 0 where .* x = \("):
            Quenloft.minimize(lambda x: 1.0, [(0, 1)], constraints=lambda x, v=value: v)
        with pytest.raises(TypeError, match="does not say how far"):
            search = Quenloft.Search([(0, 1)], constraints=1)
            search.tell(search.ask()[0], 1.0, constraints=[value])
    for value in (numpy.ma.masked, numpy.ma.array([3.0], mask=[True])):
        with pytest.raises(Quenloft.NonFiniteError, match="nan"):
            Quenloft.minimize(lambda x, v=value: v, [(0, 1)])
    assert Quenloft.minimize(lambda x: numpy.ma.array([3.0]), [(0, 1)], maxfun=2).fun == 3.0


@pytest.mark.parametrize("catch", [3, KeyboardInterrupt, (ValueError, "OSError")])
def test_what_is_no_exception_cannot_be_caught(catch):
    with pytest.raises(TypeError, match="catch must be an exception type"):
        minimize(catch=catch)
