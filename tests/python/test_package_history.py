# SPDX-License-Identifier: MIT
"""The history and the result as a user handles them."""

import copy
import math
import pickle

import numpy
import pytest

import Quenloft
from Quenloft import History, OptimizeResult


@pytest.fixture(scope="module")
def result():
    return Quenloft.minimize(
        lambda x, c: x[0] ** 2 + x[1] + (c[0] == "b"), [(-1, 2), (0.5, 4)], maxfun=50,
        categories=[("a", "b")], constraints=[lambda x, c: 0.4 - x[0], lambda x, c: x[1] - 3],
    )  # fmt: skip


def test_columns_become_arrays_that_share_their_memory(result):
    history = result.history
    for name, width in {"x": 2, "constraints": 2, "index": 0, "value": 0, "time": 0}.items():
        first, second = (numpy.asarray(getattr(history, name)) for _ in range(2))
        assert first.shape == (50, width)[: 1 + bool(width)]
        assert numpy.shares_memory(first, second) and not first.flags.writeable
        rows = numpy.array([getattr(trial, name) for trial in history])
        assert numpy.array_equal(first, rows, equal_nan=True)
        assert numpy.array_equal(numpy.asarray(history)[name], rows, equal_nan=True)
    names = [history.choices[0][i] for i in numpy.asarray(history.category)[:, 0]]
    assert [(name,) for name in names] == history.categories == [t.categories for t in history]


def test_a_table_is_a_sequence_of_rows(result):
    x = result.history.x
    assert len(x) == 50 and x[-1] == x[49] == result.history[49].x == list(x)[49]
    assert x[:3] == [x[0], x[1], x[2]] and (0.5, 2.25) in x
    assert numpy.asarray(x, dtype="f4").dtype == "f4" and numpy.array(x).flags.writeable
    for sequence in (x, result.history):
        for position in (50, -51):
            with pytest.raises(IndexError):
                sequence[position]


def test_the_best_trial_satisfies_most_constraints_then_is_lowest_then_first():
    history = History(1, constraint_count=2, goal=2)
    best, trace = [], []
    for index, value in [(0, 1.0), (2, math.nan), (1, -1.0), (2, 5.0), (2, 4.0), (2, 4.0)]:
        history.append((0.0,), (), index, value, 0.0, [1.0] * (index + 1))
        best.append(history.best())
        trace.append(history.running_best()[-1])
    assert best == [0, 1, 1, 3, 4, 4]
    assert [t for t in trace if not math.isnan(t)] == [5.0, 4.0, 4.0]


@pytest.mark.parametrize("duplicate", [copy.deepcopy, lambda r: pickle.loads(pickle.dumps(r))])
def test_a_result_survives_copies_and_pickles(result, duplicate):
    twin = duplicate(result)
    assert type(twin) is OptimizeResult and repr(twin) == repr(result)
    assert [repr(trial) for trial in twin.history] == [repr(trial) for trial in result.history]


def test_a_result_is_a_dict_with_attributes_and_a_readable_text(result):
    assert result["fun"] is result.fun and "fun" in dir(result)
    with pytest.raises(AttributeError, match="no field 'nothing'"):
        _ = result.nothing
    assert "\n         status: 1 (MAXFUN)\n" in repr(result)
    assert "<history of 50 trials>" in repr(result)
    assert "... 3 more" in repr(OptimizeResult(xl=[(1.0,)] * 7))
    assert result.constraints == (0.4 - result.x[0], result.x[1] - 3) and result.maxcv == 0.0
