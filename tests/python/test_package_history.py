# SPDX-License-Identifier: MIT
"""The history and the result as a user handles them."""

import copy
import io
import math
import pickle
import xml.etree.ElementTree

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


def test_a_saved_copied_or_pickled_result_is_the_same(result, tmp_path):
    nothing = Quenloft.minimize(lambda x: 1.0, [(0, 1)], constraints=lambda x: x[0] + 1, maxfun=5)
    for saved in (result, nothing):
        saved.save(tmp_path / "result.json")
        loaded = OptimizeResult.load(tmp_path / "result.json")
        for twin in (loaded, copy.deepcopy(saved), pickle.loads(pickle.dumps(saved))):
            assert repr(twin) == repr(saved) and type(twin.status) is type(saved.status)
            assert list(map(repr, twin.history)) == list(map(repr, saved.history))
        assert vars(loaded.history).keys() == vars(saved.history).keys()
        assert loaded.history.names == saved.history.names
    for text in ("{}", "[]", "x = 1", '{"format": 2, "result": {}}'):
        (tmp_path / "other.json").write_text(text)
        with pytest.raises(ValueError, match="other.json' holds no saved result"):
            OptimizeResult.load(tmp_path / "other.json")


def test_tables_have_the_names_and_types_of_the_variables(result):
    pandas = pytest.importorskip("pandas")
    result.history.integers = (1,)
    table = result.history.to_pandas()
    names = "x[0] x[1] categories[0] feasible value time constraint[0] constraint[1] objective"
    assert list(table.columns) == names.split()
    kinds = ["float64", "int64", ("object", "str"), "bool", "float64"]  # str from pandas 3 on
    assert all(str(kind) in expected for kind, expected in zip(table.dtypes, kinds))
    assert table.loc[table.feasible, "value"].min() == result.fun and table.index[0] == 1
    text = io.StringIO(result.history.to_csv())
    exact = {"float_precision": "round_trip"} if pandas.__version__ < "3" else {}  # the default
    read = pandas.read_csv(text, index_col="trial", **exact)
    read["feasible"] = read["feasible"].astype(bool)
    pandas.testing.assert_frame_equal(read, table, check_exact=True)
    assert History(2).to_pandas().empty
    result.history.integers = ()


@pytest.mark.parametrize(
    "values, shown",
    [
        ([5.0, 2.0, 3.0], "3 trials</text>"),
        ([1e6, 2.0], "2 trials, logarithmic"),
        ([5.0, 5.0], "<svg"),
        ([], "&lt;nothing&gt;"),
    ],
)
def test_a_notebook_shows_best_point_and_convergence(values, shown):
    history = History(1, [("<a>", "b")], 0, 0)
    for value in values:
        history.append((value,), (0,), 0, value, 0.0)
    history.finish()
    fun = min(values, default=math.inf)
    result = OptimizeResult(x=(fun,), fun=fun, maxcv=0.0, message="<nothing>", history=history)
    html = result._repr_html_()
    assert xml.etree.ElementTree.fromstring(html) is not None  # well-formed
    assert shown in html and "<a>" not in html
