# SPDX-License-Identifier: MIT
"""`Quenloft.Search`: the trials of one worker, whoever evaluates, and nothing lost."""

import copy
import gc
import math
import pickle
import random
import signal
import threading
import time

import numpy
import pytest

from Quenloft import Search

BOX = [(-2, 3), (-1, 1.5)]
NAN = math.nan


def bowl(x, categories=()):
    return (
        (x[0] - 0.7) ** 2 + 3 * (x[1] - x[0] / 4) ** 2 + 0.3 * math.cos(9 * x[0]) + len(categories)
    )


def limit(x):
    return x[0] + x[1] - 1.5


def evaluate(search, point):
    """Tell the search the value of a point."""
    x, chosen = point.x, point.categories
    shift = 0.1 * sum(map(len, chosen))
    if search.trials.constraints.shape[1]:
        violation = limit(x) + shift
        if violation > 0 and int(8 * x[0]) % 2:  # else the objective is told all the same
            return search.tell(point, constraints=[violation])
        return search.tell(point, bowl(x) + shift, constraints=(violation,))
    return search.tell(point, bowl(x) + shift)


def run(search, workers, seed=0, trials=60):
    """Evaluate on as many workers, which finish in an order drawn from the seed."""
    draw = random.Random(seed)
    search.maxfun = trials
    busy = search.pending
    while not search.is_finished:
        if len(busy) < workers:
            busy += search.ask(draw.randint(1, workers - len(busy)))
        evaluate(search, busy.pop(draw.randrange(len(busy))))
    return search


def rows(search):
    """What the trials are, without what tells how they came about."""
    columns = search.trials._asdict()
    del columns["id"]
    return {name: numpy.asarray(column).tobytes() for name, column in columns.items()}


PLAIN = {"hidden_constraint": False, "local_models": False}


def full_search():
    """With all that a search may have at once."""
    return Search(
        {"a": (-2, 3), "b": (1, 30, "int", "log"), "c": (0.5, 0.5), "d": ["u", "vw"]},
        constraints=1,
        x0=[(0.5, 5, 0.5, "vw"), {"a": 0.0, "b": 5, "d": "u"}],
        known=[({"a": 0.5, "b": 2, "d": "u"}, 0.25, [-1.0]), ([1.0, 3, 0.5, "vw"], None, [0.5])],
        batch=3,
    )


def test_copies_and_pickles_go_on_as_the_original():
    for turns in (0, 1, 7, 30):
        search = run(full_search(), 4, trials=turns)
        search.maxfun = None
        out = sorted(search.pending + search.ask(3), key=lambda point: point.id)
        others = [copy.copy(search), copy.deepcopy(search), pickle.loads(pickle.dumps(search))]
        for other in others:
            assert other.pending == out
            assert repr(other.surplus) == repr(search.surplus)
            assert rows(run(other, 5, seed=turns)) == rows(run(copy.copy(search), 1))
        made = len(search) - search.history.known
        assert rows(search) == rows(run(full_search(), 1, trials=made)), "it went on by itself"


def test_points_are_in_the_callers_terms_and_travel():
    search = full_search()
    first, point = search.ask(2)
    assert search.tell(first, 1.0, constraints=[-1.0]) == 1
    assert [type(v) for v in point.x] == [float, int, float]
    assert point.categories == ("u",) and point.category == (0,)
    assert pickle.loads(pickle.dumps(point)) == point
    # Told by its coordinates, as a list or an array would be.
    assert search.tell(numpy.array(point.x), 1.5, constraints=[0.0], categories=["u"]) == 1
    history = run(search, 3, trials=20).history
    assert history[3].x == point.x and type(history[3].x[1]) is int
    assert history.category[3] == (0,) and history.known == 2
    assert repr(pickle.loads(pickle.dumps(history))[5]) == repr(history[5])


def test_columns_are_read_only_views_that_outlive_the_search():
    search = run(Search(BOX), 1)
    column = numpy.asarray(search.trials.value)
    assert numpy.shares_memory(column, numpy.asarray(search.trials.value))
    assert numpy.shares_memory(column, numpy.asarray(search.history.value))
    with pytest.raises((TypeError, ValueError)):
        search.trials.value[0] = 1.0
    before = column.copy()
    run(search, 1, trials=300)
    del search
    gc.collect()
    assert (column == before).all()
    empty = Search(BOX)
    assert len(empty.trials.x) == len(empty.history) == 0 and empty.best is None
    assert empty.result().x is None


def test_values_wait_and_trials_are_made_one_by_one_on_demand():
    search = Search(BOX, **PLAIN)
    points = search.ask(5)
    assert search.needed == search.pending == points
    assert [search.tell(p, 1.0) for p in points[1:]] == [0, 0, 0, 0]
    assert [point for point, _ in search.surplus] == points[1:] and search.needed == points[:1]
    assert search.tell(points[0], 1.0, advance=False) == len(search) == 0
    assert [search.advance(1), search.advance(2), search.advance()] == [1, 2, 2]
    assert search.last == (4, 0, 1.0)
    supplied = search.supply((0.123, 0.5), failed=False, value=2.0)
    assert [point for point, _ in search.surplus] == [supplied]
    lost = search.ask()[0]
    assert search.ask()[0] != lost
    search.retract(lost)
    assert search.ask() == [lost]


def test_failed_evaluations_are_a_hidden_constraint():
    search = Search(BOX, constraints=1)
    told = [
        ({"failed": True}, (0, "nan")),
        ({"failed": True, "constraints": [math.inf]}, (0, "inf")),
        ({"failed": True, "constraints": [-1]}, (1, "nan")),
        ({"failed": True, "constraints": [-1], "value": -math.inf}, (1, "-inf")),
        ({"constraints": [-math.inf], "value": numpy.float32(2)}, (2, "2.0")),
        # Behind a violated constraint anything is taken, and kept.
        ({"constraints": [0.5], "value": 1.0}, (0, "0.5")),
        ({"constraints": [0.25], "value": NAN}, (0, "0.25")),
    ]
    waiting = search.supply((0.1, 0.2), 7, constraints=[3])
    for outcome, (index, value) in told:
        search.tell(search.ask()[0], **outcome)
        assert (search.last[1], repr(search.last[2])) == (index, value)
    result = search.result()
    assert search.best == 4 and result.fun == 2.0
    assert str(result.history.objective.tolist()) == "[nan, nan, nan, -inf, 2.0, 1.0, nan]"
    (surplus,) = result.surplus
    assert (surplus.x, surplus.value, surplus.objective) == (waiting.x, 3.0, 7.0)


WRONG = {
    "nan": ({"value": NAN}, ValueError, "nan"),
    "infinity": ({"value": math.inf}, ValueError, "inf"),
    "no value": ({}, ValueError, "value is needed"),
    "text": ({"value": "1.0"}, TypeError, "must return a number"),
    "vector": ({"value": [1.0, 2.0]}, TypeError, "must return a number"),
    "too many constraints": ({"value": 1.0, "constraints": [0.0]}, ValueError, "has 0"),
    "failed": ({"failed": True}, ValueError, "do not fail"),
    "beyond the bounds": ({"point": (7, 0), "value": 1.0}, ValueError, "x"),
    "wrong length": ({"point": (0.5,), "value": 1.0}, ValueError, "2"),
    "not asked for": ({"point": (0.1, 0.2), "value": 1.0}, ValueError, "not asked for"),
    "no point": ({"point": 7, "value": 1.0}, TypeError, "the point"),
    "text for a point": ({"point": "ab", "value": 1.0}, TypeError, "x"),
    "choice too many": ({"point": (0.5, 0.25), "value": 1.0, "categories": ["a"]}, ValueError, "2"),
}


@pytest.mark.parametrize("call, error, part", WRONG.values(), ids=WRONG)
def test_what_is_wrong_is_said_and_changes_nothing(call, error, part):
    search = Search(BOX, **PLAIN)
    point = search.ask()[0]
    before = pickle.dumps(search)
    with pytest.raises(error, match=part):
        search.tell(**{"point": point, **call})
    assert pickle.dumps(search) == before
    search.tell(point, 1)
    for _ in range(2):
        with pytest.raises(ValueError, match="told already"):
            search.tell(point, 1.0)
        with pytest.raises(ValueError, match="told already"):
            search.tell(point.x, 1.0)
        search.ask(3)


def test_a_point_of_another_search_is_refused():
    search, other = Search(BOX), Search([(0, 1), (0, 1)])
    search.ask()
    with pytest.raises(ValueError, match="another search"):
        search.tell(other.ask()[0], 1.0)


@pytest.mark.parametrize(
    "arguments, error",
    [
        ({"constraints": -1}, ValueError),
        ({"constraints": 1.5}, TypeError),
        ({"maxfun": -1}, ValueError),
        ({"known": [(1.0, 2.0)]}, TypeError),
        ({"known": [((9, 9), 2.0)]}, ValueError),
        ({"known": [((0, 0), NAN)], "hidden_constraint": False}, ValueError),
        ({"known": [((0, 0), 1.0), ((0, 0), 1.0)]}, ValueError),
        ({"bounds": []}, ValueError),
        ({"bounds": [(1, 1)]}, ValueError),
    ],
)
def test_wrong_arguments_are_refused(arguments, error):
    with pytest.raises(error):
        Search(**{"bounds": BOX, **arguments})


@pytest.mark.parametrize("n, error", [(-1, ValueError), (1.5, TypeError), (2**70, ValueError)])
def test_a_wrong_number_of_points_is_refused(n, error):
    search = Search(BOX)
    with pytest.raises(error):
        search.ask(n)
    assert search.ask(0) == search.pending == []


def test_any_thread_may_ask_and_tell():
    search = Search(BOX, maxfun=150, **PLAIN)

    def work():
        while not search.is_finished:
            for point in search.ask():
                evaluate(search, point)

    threads = [threading.Thread(target=work) for _ in range(6)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert rows(search) == rows(run(Search(BOX, **PLAIN), 1, trials=150))


def test_an_endless_look_ahead_can_be_interrupted():
    search = Search([(0, 1)] * 5)

    def interrupt():
        time.sleep(0.1)
        signal.raise_signal(signal.SIGINT)

    threading.Thread(target=interrupt).start()
    with pytest.raises(KeyboardInterrupt):
        search.ask(10**9)
    assert search.pending == []
    assert len(search.ask(3)) == 3
    assert len(Search([(0, 1)]).ask(10**9)) == 1000
