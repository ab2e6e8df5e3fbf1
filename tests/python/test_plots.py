# SPDX-License-Identifier: MIT
"""The pictures show the trials that were made, and survive searches that leave little to draw."""

import math
import sys

import pytest

pytest.importorskip("matplotlib").use("Agg")

from matplotlib import pyplot  # noqa: E402

import Quenloft  # noqa: E402
from Quenloft import History, plots  # noqa: E402


@pytest.fixture(autouse=True)
def close_figures():
    yield
    pyplot.close("all")


def bowl(x):
    return sum((value - 0.3) ** 2 for value in x)


def history_of(points, outcomes, choices=(), category=()):
    """A history with one constraint; an outcome is (index, value)."""
    history = History(len(points[0]), choices, 1, 1)
    for number, (point, (index, value)) in enumerate(zip(points, outcomes)):
        history.append(point, category[number : number + 1], index, value, 0.1 * number, (-1.0,))
    history.finish()
    return history


def best_so_far(ax):
    (line,) = [line for line in ax.get_lines() if line.get_label() == "best so far"]
    return list(line.get_xdata()), list(line.get_ydata())


SQUARE = [(0.1, 0.1), (0.9, 0.1), (0.1, 0.9), (0.9, 0.9), (0.5, 0.5)]
DEGENERATE = {
    "one trial": history_of(SQUARE[:1], [(1, 2.0)]),
    "all infeasible": history_of(SQUARE, [(0, 1.0)] * 5),
    "equal values": history_of(SQUARE, [(1, 2.0)] * 5),
    "on a line": history_of([(0.1 * i, 0.1 * i) for i in range(5)], [(1, i) for i in range(5)]),
    "not finite": history_of(SQUARE, [(0, math.nan), (0, math.inf), (1, 1.0), (1, 2.0), (1, 3.0)]),
    "decades": history_of(SQUARE, [(1, 10.0 ** (5 * i)) for i in range(5)]),
    "from far above": history_of(SQUARE, [(1, 1e9), (1, -1.0), (1, -2.0), (1, -2.5), (1, -3.0)]),
    "one variable": history_of([(0.1,), (0.5,), (0.7,)], [(1, 3.0), (0, 1.0), (1, 2.0)]),
    "three variables": history_of([(0.1, 0.5, 0.7)], [(1, 3.0)]),
    "one choice each": history_of(SQUARE[:2], [(1, 2.0), (1, 1.0)], [("a", "b")], [0, 1]),
}


@pytest.mark.parametrize("name", DEGENERATE)
def test_searches_that_leave_little_are_drawn(name, tmp_path):
    plots.save_overview(DEGENERATE[name], tmp_path / "overview.png")
    assert (tmp_path / "overview.png").read_bytes().startswith(b"\x89PNG")


def test_convergence_is_the_best_value_so_far():
    history = history_of(SQUARE, [(0, 1.0), (1, 5.0), (1, 6.0), (1, 2.0), (1, 3.0)])
    trials, best = best_so_far(plots.plot_convergence(history))
    assert trials == [1, 2, 3, 4, 5]
    assert math.isnan(best[0]) and best[1:] == [5.0, 5.0, 2.0, 2.0]
    ax = plots.plot_convergence(history, minimum=1.5)
    assert best_so_far(ax)[1][1:] == [3.5, 3.5, 0.5, 0.5]
    assert ax.get_yscale() == "log"


def test_map_shows_the_trials_of_one_combination():
    outcomes = [(1, 5.0), (1, 4.0), (0, 1.0), (1, 1.0), (1, 3.0)]
    history = history_of(SQUARE, outcomes, [("a", "b")], [0, 1, 0, 0, 0])

    def shown(ax):
        points = {part.get_label(): part.get_offsets().tolist() for part in ax.collections}
        return ax.get_title(loc="left"), points.get("best"), points.get("infeasible")

    assert shown(plots.plot_trials(history)) == ("a", [[0.9, 0.9]], [[0.1, 0.9]])
    assert shown(plots.plot_trials(history, categories=("b",)))[:2] == ("b", None)
    with pytest.raises(ValueError, match="no trial has the categories"):
        plots.plot_trials(history, categories=("c",))


def test_a_search_without_a_feasible_point_shows_how_near_it_came():
    outcomes = [(0, 9.0), (1, 5.0), (1, 3.0), (0, 1.0), (1, 4.0)]
    history = History(2, [], 2, 2)
    for point, (index, value) in zip(SQUARE, outcomes):
        history.append(point, (), index, value, 0.0)
    history.finish()
    ax = plots.plot_convergence(history)
    (line,) = [line for line in ax.get_lines() if line.get_label() == "closest so far"]
    assert [*line.get_xdata()] == [2, 3, 5, 5] and [*line.get_ydata()] == [5.0, 3.0, 3.0, 3.0]
    assert ax.get_ylabel() == "violation of constraint 1"


def test_axes_of_a_result_carry_its_names_bounds_and_scales():
    bounds = {"rate": (1e-3, 10.0, "log"), "fixed": (2, 2), "offset": (0.0, 2.0)}
    ax = plots.plot_trials(Quenloft.minimize(bowl, bounds, maxfun=30))
    assert (ax.get_xlabel(), ax.get_ylabel()) == ("rate", "offset")
    assert (ax.get_xscale(), ax.get_yscale()) == ("log", "linear")
    assert ax.get_xlim() == pytest.approx((1e-3, 10.0)) and ax.get_ylim() == (0.0, 2.0)


@pytest.mark.parametrize(
    "draw, rows, columns, options",
    [
        (plots.plot_convergence, 1, 1, {}),
        (plots.plot_trials, 3, 3, {}),
        (plots.plot_trials, 1, 1, {"variables": (2, 0)}),
        (plots.plot_objective, 3, 1, {}),
    ],
)
def test_given_axes_are_drawn_into_and_returned(draw, rows, columns, options):
    result = Quenloft.minimize(bowl, [(0.0, 1.0)] * 3, maxfun=40)
    figure = pyplot.figure()
    ax = figure.subplots(rows, columns)
    assert draw(result, ax, **options) is ax
    assert pyplot.get_fignums() == [figure.number] and figure.axes[0].has_data()
    # Nothing is drawn of another variable, of another number of them or of no trial.
    with pytest.raises(ValueError, match="no variable|axes for|no trial"):
        draw(History(2), ax, **{"variables": [9]} if options else {})


def test_missing_matplotlib_is_explained(monkeypatch):
    monkeypatch.setitem(sys.modules, "matplotlib", None)
    with pytest.raises(ImportError, match=r"Quenloft\[plot\]"):
        plots.plot_convergence(DEGENERATE["equal values"])
