# SPDX-License-Identifier: MIT
"""Points that a search begins with: `x0` is evaluated first, `known` is not evaluated at all."""

import math

import pytest

import Quenloft
from Quenloft import Status

BOUNDS = {"a": (-2.0, 2.0), "n": (0, 9, "int"), "kind": ["u", "v"]}


def cost(x, chosen):
    calls.append((*x, *chosen))
    return (x[0] - 0.3) ** 2 + abs(x[1] - 4) + (chosen[0] == "u")


def slack(x, chosen):
    return x[0] - 1.5


def slack_of_the_same_run(x, chosen):
    return slack(x, chosen)


slack_of_the_same_run.keep_feasible = False
calls = []


def minimize(**options):
    calls.clear()
    return Quenloft.minimize(cost, BOUNDS, **{"maxfun": 25, "constraints": slack, **options})


def points(history):
    return [(*t.x, *t.categories) for t in history]


def test_x0_is_evaluated_first_and_never_lost(tmp_path):
    best = {"a": 0.3, "n": 4, "kind": "v"}
    result = minimize(x0=[best, (1.0, 5, "u")], journal=tmp_path / "run.db")
    assert calls[:2] == [(0.3, 4, "v"), (1.0, 5, "u")] == points(result.history)[:2]
    assert result.fun == 0.0 and result.nit == 25 and len(set(calls)) == len(calls)
    assert minimize(x0=best, maxfun=1).x == (0.3, 4)
    for workers in (2, map):
        again = minimize(x0=[best, (1.0, 5, "u")], workers=workers)
        assert points(again.history) == points(result.history)
    more = minimize(x0=[best, (1.0, 5, "u")], journal=tmp_path / "run.db", maxfun=30)
    assert more.replayed == 25 and len(calls) == 6  # the best one is verified
    with pytest.raises(Quenloft.JournalError, match="x0"):
        minimize(journal=tmp_path / "run.db")


@pytest.mark.parametrize("constraint", [slack, slack_of_the_same_run])
def test_known_points_of_every_form_are_the_same_trials(constraint, tmp_path):
    options = {"constraints": constraint, "nonfinite": "infeasible"}
    first = minimize(journal=tmp_path / "first.db", **options)
    first.history.to_csv(tmp_path / "first.csv")
    pairs = [
        (p, None if math.isnan(t.objective) else t.objective, t.constraints)
        for p, t in zip(points(first.history), first.history)
    ]
    seen = set(calls)
    results = [
        minimize(known=known, journal=tmp_path / f"{number}.db", **options)
        for number, known in enumerate(
            (first.history, tmp_path / "first.csv", str(tmp_path / "first.db"), pairs)
        )
    ]
    for result in results:
        assert points(result.history) == points(results[0].history)
        assert points(result.history)[:25] == points(first.history)
        for column in ("value", "objective"):
            mine, theirs = (getattr(h, column).tolist() for h in (result.history, first.history))
            assert str(mine[:25]) == str(theirs)
        assert (result.nit, len(result.history), result.history.known) == (25, 50, 25)
        assert not seen & set(calls) and result.fun <= first.fun
    resumed = minimize(known=pairs, journal=tmp_path / "0.db", maxfun=26, **options)
    assert resumed.nit == 26 and resumed.replayed == 25
    assert minimize(known=pairs, f_min=first.fun, **options).status is Status.F_MIN
    assert not calls
    narrow = Quenloft.minimize(
        lambda x, c: 0.0, {**BOUNDS, "a": (0.0, 1.0)}, maxfun=1, constraints=slack,
        nonfinite="infeasible", known=first.history,
    )  # fmt: skip
    assert 0 < narrow.history.known < 25


@pytest.mark.parametrize(
    "options, message",
    [
        ({"x0": (0.0, 3)}, "x0 must hold 3 values"),
        ({"x0": {"a": 0.0}}, "x0 has no value for n, kind"),
        ({"x0": {"a": 0.0, "mass": 1}}, "x0 names 'mass'"),
        ({"x0": [{"a": 0.0, "n": 3.5, "kind": "u"}]}, r"n of x0\[0\] is 3.5, not in \[0, 9\], int"),
        ({"x0": 7}, "x0 must be a sequence or a mapping"),
        ({"known": [((0.0, 3, "w"), 1.0, [-1.0])]}, r"kind of known\[0\] is no choice"),
        ({"known": [((0.0, 3, "u"), 1.0)]}, r"known\[0\] has values of 0 constraints"),
        ({"known": [((0.0, 3, "u"), math.nan, [-1.0])]}, r"known\[0\] has failed"),
        ({"known": 3}, "known must be a sequence"),
        ({"known": "nowhere.csv"}, "nowhere.csv"),
    ],
)
def test_wrong_points_are_refused_before_anything_is_evaluated(options, message):
    with pytest.raises((TypeError, ValueError, OSError), match=message):
        minimize(**options)
    assert not calls
