# SPDX-License-Identifier: MIT
"""Pictures of a search: its convergence, its trials, its objective along each variable.

They need matplotlib (``pip install "Quenloft[plot]"``), which is imported only when a picture is
drawn. Each function draws a search that ended (an `OptimizeResult`), one that is recorded
(`Recording`, from `read_journal`) or a bare `History`, takes the axes to draw into and returns
them.
"""

from __future__ import annotations

import math
import os
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any, Callable, Optional, Sequence, Union

from ._history import History
from ._journal import Recording
from ._result import OptimizeResult
from ._variables import coordinates

if TYPE_CHECKING:
    from matplotlib.axes import Axes
    from matplotlib.figure import Figure

Source = Union[OptimizeResult, Recording, History]

# More variables than these make the panels of a matrix too small to read.
MOST_PROJECTED = 6

_ORDER = "viridis"  # colours of the order of trials
_INFEASIBLE = "#b0413e"
_BEST = "#e8590c"


def plot_convergence(
    source: Union[Source, Sequence[Source]],
    ax: Optional[Axes] = None,
    *,
    minimum: Optional[float] = None,
    labels: Optional[Sequence[str]] = None,
) -> Axes:
    """Best objective value against the number of trials.

    A single search is drawn with its trials: dots for feasible ones, a rug below for infeasible
    ones. Several are drawn as one line each. Of a search that found no feasible point the
    violations are drawn: of the constraint that was the last to be reached in the given order.

    Parameters
    ----------
    source : OptimizeResult, Recording or History, or a sequence of them
        What to draw.
    ax : matplotlib.axes.Axes, optional
        Where; a new figure by default.
    minimum : float, optional
        The known minimum: the difference to it is drawn, on a logarithmic axis.
    labels : sequence of str, optional
        Names of the searches, for the legend.

    Returns
    -------
    matplotlib.axes.Axes

    Raises
    ------
    ValueError
        There is no trial to draw, or not one label for each search.
    """
    sources = [source] if isinstance(source, (OptimizeResult, Recording, History)) else source
    single = sources is not source
    views = [_view(item) for item in sources]
    if not views:
        raise ValueError("no search to draw")
    if labels is not None and len(labels) != len(views):
        raise ValueError(f"{len(labels)} labels for {len(views)} searches")
    ax = _axes(ax)
    shown: list[float] = []  # every value drawn, for the choice of the scale
    if single and not views[0].is_feasible:
        return _draw_violations(ax, views[0])
    for position, view in enumerate(views):
        history = view.history
        offset = minimum or 0.0
        best = [value - offset for value in history.running_best()]
        numbers = range(1, len(best) + 1)
        if single:
            feasible = [i for i in range(len(history)) if history.index[i] == history.goal]
            values = [history.value[i] - offset for i in feasible]
            ax.plot(
                [i + 1 for i in feasible],
                values,
                ".",
                color="0.6",
                markersize=4,
                label="trials",
                zorder=1,
            )
            shown += values
            _draw_infeasible_rug(ax, view)
        (line,) = ax.step(
            numbers,
            best,
            where="post",
            linewidth=1.8,
            zorder=3,
            label=labels[position]
            if labels
            else "best so far"
            if single
            else f"search {position + 1}",
        )
        last = best[-1]
        if not math.isnan(last):
            ax.plot(len(best), last, "o", color=line.get_color(), markersize=5, zorder=4)
        shown += [value for value in best if not math.isnan(value)]
    _scale_values(ax, shown, minimum)
    ax.set_xlabel("trials")
    ax.set_ylabel("objective" if minimum is None else f"objective above {minimum:g}")
    ax.margins(x=0.02)
    if single or len(views) > 1 or labels:
        ax.legend(loc="upper right", fontsize="small", framealpha=0.9)
    return ax


def plot_trials(
    source: Source,
    ax: Any = None,
    *,
    variables: Optional[Sequence[Union[int, str]]] = None,
    categories: Optional[Sequence[Any]] = None,
    names: Optional[Sequence[str]] = None,
    logarithmic: Optional[Sequence[int]] = None,
) -> Any:
    """Where the trials lie, in the order in which they were made.

    Of two variables the picture is a map: contours of the objective through the feasible trials,
    the trials coloured by their order, the best one and the other local minima marked with their
    values. Of more it is a matrix: each pair of variables in projection below the diagonal, on the
    diagonal how many trials lie where. Of one it is the objective itself. Where no trial is
    feasible, the violation takes the place of the objective, and the star marks the closest one.

    Parameters
    ----------
    source : OptimizeResult, Recording or History
        What to draw.
    ax : matplotlib.axes.Axes, or array of them, optional
        Where: for one or two variables one, for n an array of shape (n, n), of which those above
        the diagonal are hidden. A new figure by default.
    variables : sequence of int or str, optional
        Which variables, by position or name: all by default, of more than six the six that tell
        most: with good trials in few parts of their range only.
    categories : sequence, optional
        The choices of the categorical variables whose trials are drawn; those of the best
        trial by default.
    names, logarithmic : sequence, optional
        Names of the variables, positions of those with a logarithmic axis; as the search had
        them by default.

    Returns
    -------
    matplotlib.axes.Axes, or array of them
        `ax`, or the new axes.

    Raises
    ------
    ValueError
        There is no trial to draw, or no such variable.
    """
    view = _view(source, names, logarithmic)
    axes = view.positions(variables)
    subset = view.of_categories(categories)
    if len(axes) == 1:
        ax = _axes(ax)
        _draw_along(ax, view, subset, axes[0])
        if not view.is_feasible:
            ax.set_title("no feasible point", loc="left", fontsize="medium")
        if axes == view.varying():
            _write_values(ax, view, subset, lambda x, value: (x[axes[0]], value))
            for x, _, value in view.minima[1:]:
                ax.plot(x[axes[0]], value, "D", color=_BEST, fillstyle="none", zorder=4)
    elif len(axes) == 2 and axes == view.varying():
        ax = _axes(ax)
        _draw_map(ax, view, subset, axes[0], axes[1])
    elif len(axes) == 2:
        ax = _axes(ax)
        points = _draw_projection(ax, view, subset, axes[0], axes[1])
        ax.figure.colorbar(points, ax=ax, label="trial")
    else:
        ax = _draw_matrix(ax, view, subset, axes)
    return ax


def plot_objective(
    source: Source,
    ax: Any = None,
    *,
    variables: Optional[Sequence[Union[int, str]]] = None,
    names: Optional[Sequence[str]] = None,
    logarithmic: Optional[Sequence[int]] = None,
) -> Any:
    """The objective along each variable: what the feasible trials say about it.

    One panel for each variable, the categorical ones last. Each shows the value of every
    feasible trial, with a bar at the lowest in each part of the range: how the best value found
    depends on the variable. Bars at one height mean that the variable hardly matters.

    Parameters
    ----------
    source : OptimizeResult, Recording or History
        What to draw.
    ax : matplotlib.axes.Axes or a sequence of them, optional
        One for each variable drawn. A new figure by default.
    variables : sequence of int or str, optional
        Which variables, by position or name: all by default. Categorical variables are numbered
        after the real ones.
    names, logarithmic : sequence, optional
        Names of the variables, positions of those with a logarithmic axis; as the search had
        them by default.

    Returns
    -------
    matplotlib.axes.Axes or array of them
        `ax`, or the new axes: one alone for a single variable.

    Raises
    ------
    ValueError
        There is no trial to draw, no such variable, or not one of `ax` for each variable.
    """
    view = _view(source, names, logarithmic)
    chosen = view.positions(variables, categorical=True)
    if ax is None:
        columns = min(3, len(chosen))
        rows = -(-len(chosen) // columns)
        figure = _pyplot().figure(
            figsize=(3.6 * columns + 0.6, 2.9 * rows + 0.3), layout="constrained"
        )
        ax = _panels(figure, len(chosen), columns)
        ax = ax[0] if len(chosen) == 1 else ax
    panels = [ax] if not hasattr(ax, "__len__") else list(_flatten(ax))
    if len(panels) != len(chosen):
        raise ValueError(f"{len(panels)} axes for {len(chosen)} variables")
    trials = range(len(view.history))
    for panel, variable in zip(panels, chosen):
        if variable < view.history.dimension:
            _draw_along(panel, view, trials, variable)
        else:
            _draw_choices(panel, view, variable)
    return ax


def plot_overview(source: Source, figure: Optional[Figure] = None) -> Figure:
    """Convergence and, below it, trials or objective: what ``--plot`` of the command line draws.

    Parameters
    ----------
    source : OptimizeResult, Recording or History
        What to draw.
    figure : matplotlib.figure.Figure, optional
        Where; by default a new one that belongs to no window.

    Returns
    -------
    matplotlib.figure.Figure
    """
    view = _view(source)
    history = view.history
    panel_count = len(view.varying()) + len(history.choices)
    columns = min(3, panel_count)
    rows = -(-panel_count // columns)
    with_map = len(view.varying()) == 2
    if figure is None:
        matplotlib = _matplotlib()
        height = 3.4 + 2.8 * rows + (5.4 if with_map else 0.0)
        figure = matplotlib.figure.Figure(
            figsize=(max(7.0, 3.5 * columns), height), layout="constrained"
        )
    ratios = [3.4, *([5.4] if with_map else []), 2.8 * rows]
    parts = figure.subfigures(len(ratios), 1, squeeze=False, height_ratios=ratios).ravel()
    plot_convergence(source, parts[0].subplots())
    if with_map:
        plot_trials(source, parts[1].subplots())
    panels = _panels(parts[-1], panel_count, columns)
    plot_objective(source, panels)
    return figure


def save_overview(source: Source, path: Union[str, os.PathLike[str]]) -> None:
    """Write `plot_overview` to a file, whose suffix sets the format (png, pdf, svg).

    Raises
    ------
    ImportError
        matplotlib is not installed.
    ValueError
        There is no trial to draw, or the format is unknown.
    OSError
        The file cannot be written.
    """
    plot_overview(source).savefig(os.fspath(path), dpi=120)


def check_format(path: Union[str, os.PathLike[str]]) -> None:
    """Raise what `save_overview` would for the format of this file.

    Raises
    ------
    ImportError
        matplotlib is not installed.
    ValueError
        The suffix names no format that it can write.
    """
    known = _matplotlib().figure.Figure().canvas.get_supported_filetypes()
    suffix = os.path.splitext(os.fspath(path))[1].lstrip(".").lower()
    if suffix not in known:
        raise ValueError(f"cannot draw {os.fspath(path)}: name a .png, .pdf or .svg file")


@dataclass
class _View:
    """What all pictures read of a search."""

    history: History
    names: tuple[str, ...]  # the real variables, then the categorical ones
    logarithmic: frozenset[int]
    bounds: Sequence[tuple[float, float]]  # empty when unknown
    minima: Sequence[tuple[Sequence[float], tuple[Any, ...], float]]  # best first
    shown: int  # the index of the trials whose values are drawn: feasible ones if there are any

    @property
    def is_feasible(self) -> bool:
        """Whether there is a feasible trial."""
        return self.shown == self.history.goal

    @property
    def measure(self) -> str:
        """What the values drawn are."""
        if self.is_feasible:
            return "objective"
        if self.shown >= self.history.constraint_count:
            return "objective, not finite"
        return f"violation of constraint {self.shown}"

    @property
    def best_label(self) -> str:
        """What the best trial is."""
        return "best" if self.is_feasible else "closest"

    def positions(
        self, variables: Optional[Sequence[Union[int, str]]], categorical: bool = False
    ) -> list[int]:
        dimension = self.history.dimension
        count = dimension + (len(self.history.choices) if categorical else 0)
        if variables is None:
            varying = self.varying() + list(range(dimension, count))
            if categorical or len(varying) <= MOST_PROJECTED:
                return varying
            return sorted(sorted(varying, key=self.rank_along, reverse=True)[:MOST_PROJECTED])
        known = self.names[:count]
        found = []
        for variable in [variables] if isinstance(variables, (int, str)) else variables:
            if isinstance(variable, str) and variable in known:
                found.append(known.index(variable))
            elif isinstance(variable, int) and 0 <= variable < count:
                found.append(variable)
            else:
                raise ValueError(f"no variable {variable!r}; there are {', '.join(known)}")
        if not found:
            raise ValueError("no variable to draw")
        return found

    def varying(self) -> list[int]:
        """Positions of the numbers that are not fixed."""
        dimension = self.history.dimension
        return [i for i in range(dimension) if not self.bounds or len({*self.bounds[i]}) > 1]

    def of_categories(self, categories: Optional[Sequence[Any]]) -> list[int]:
        """Positions of the trials with these choices."""
        history = self.history
        if not history.choices:
            return list(range(len(history)))
        wanted = self.minima[0][1] if categories is None else tuple(categories)
        found = [i for i in range(len(history)) if self.chosen(i) == wanted]
        if not found:
            raise ValueError(f"no trial has the categories {wanted}")
        return found

    def chosen(self, trial: int) -> tuple[Any, ...]:
        """The choices of the categorical variables of a trial."""
        return self.history[trial].categories

    def rank_along(self, variable: int) -> float:
        """Mean rank of the lowest trial in each part of a variable's range: high where good values
        are found in few parts only, so that the value depends on this variable."""
        history = self.history
        trials = range(len(history))
        order = sorted(trials, key=lambda i: (-history.index[i], history.value[i], i))
        unit = _unit(self, variable, trials)
        lowest: dict[int, int] = {}
        for rank, trial in enumerate(order):
            lowest.setdefault(min(int(8 * unit[trial]), 7), rank)
        return sum(lowest.values()) / len(lowest)

    def drawn(self, trials: Sequence[int]) -> list[int]:
        """Those whose values are drawn: the feasible ones, or those nearest to being so."""
        index, value = self.history.index, self.history.value
        return [i for i in trials if index[i] == self.shown and math.isfinite(value[i])]

    def column(self, variable: int, trials: Sequence[int]) -> list[float]:
        table = self.history.x
        return [table[i][variable] for i in trials]

    def range(self, variable: int) -> tuple[float, float]:
        """The bounds of a variable, or where its trials lie if those are not known."""
        if self.bounds and self.bounds[variable][0] < self.bounds[variable][1]:
            return self.bounds[variable]
        column = self.column(variable, range(len(self.history)))
        return min(column), max(column)

    def values(self, trials: Sequence[int]) -> list[float]:
        column = self.history.value
        return [column[i] for i in trials]

    def prepare_axis(self, axis: Any, variable: int) -> None:
        """Label, scale and limits of a matplotlib axis for a real variable."""
        horizontal = axis.axis_name == "x"
        ax = axis.axes
        (ax.set_xlabel if horizontal else ax.set_ylabel)(self.names[variable])
        if variable in self.logarithmic:
            (ax.set_xscale if horizontal else ax.set_yscale)("log")
        lower, upper = self.bounds[variable] if self.bounds else (0.0, 0.0)
        if lower < upper:
            (ax.set_xlim if horizontal else ax.set_ylim)(lower, upper)
        if variable in self.logarithmic:
            _label_decades(axis)


def _label_decades(axis: Any) -> None:
    """Tick labels of a logarithmic axis that do not overlap, and some on less than a decade."""
    from matplotlib import ticker

    lower, upper = axis.get_view_interval()
    if upper <= 100.0 * lower:
        axis.set_major_locator(ticker.LogLocator(subs=(1.0, 2.0, 5.0)))
        axis.set_major_formatter(ticker.FuncFormatter(lambda value, _: f"{value:g}"))
    axis.set_minor_formatter(ticker.NullFormatter())


def _view(
    source: Source,
    names: Optional[Sequence[str]] = None,
    logarithmic: Optional[Sequence[int]] = None,
) -> _View:
    history = getattr(source, "history", source)
    if not isinstance(history, History):
        raise TypeError(f"cannot draw {source!r}: not a result, a recording or a history")
    if not len(history):
        raise ValueError("there is no trial to draw")
    known = list(names or history.names)
    known += [f"x[{i}]" for i in range(len(known), history.dimension)]
    known += [
        f"categories[{i}]" for i in range(len(known) - history.dimension, len(history.choices))
    ]
    best = history[history.best()]
    minima = [(best.x, best.categories, best.value)]
    if isinstance(source, OptimizeResult):
        found = [
            (coordinates(m.x, history.dimension), m.categories, m.fun)
            for m in source.get("locals", ())
        ]
        minima = found or minima
    return _View(
        history,
        tuple(known),
        frozenset(history.logarithmic if logarithmic is None else logarithmic),
        history.bounds,
        minima,
        best.index,
    )


def _matplotlib() -> Any:
    try:
        import matplotlib
        import matplotlib.figure
    except ImportError as error:
        raise ImportError(
            'plots need matplotlib: pip install matplotlib, or "Quenloft[plot]"'
        ) from error
    return matplotlib


def _pyplot() -> Any:
    _matplotlib()
    import matplotlib.pyplot

    return matplotlib.pyplot


def _axes(ax: Any) -> Any:
    return _pyplot().subplots(layout="constrained")[1] if ax is None else ax


def _panels(figure: Any, count: int, columns: int) -> Any:
    """The first `count` axes of a grid, in reading order, as a flat array."""
    rows = -(-count // columns)
    grid = figure.subplots(rows, columns, squeeze=False).ravel()
    for unused in grid[count:]:
        unused.remove()
    return grid[:count]


def _flatten(axes: Any) -> list[Any]:
    if hasattr(axes, "__len__"):
        return [panel for part in axes for panel in _flatten(part)]
    return [axes]


def _scale_values(
    ax: Any,
    values: Sequence[float],
    minimum: Optional[float] = None,
    cut: float = 3.0,
) -> None:
    """A logarithmic axis for values that span decades, else one on which the best part is seen.

    The first trials of a search are often far above everything that matters later: on a linear
    axis that shows them all, the rest is a straight line at the bottom. What is cut off is more
    than `cut` times as high as three quarters of the values.
    """
    finite = sorted(value for value in values if math.isfinite(value))
    if not finite:
        return
    positive = [value for value in finite if value > 0.0]
    if (minimum is not None and positive) or (finite[0] > 0.0 and finite[-1] > 100.0 * finite[0]):
        # One value of next to nothing, at a minimum of zero, must not press the rest together.
        least = 1e-3 * finite[len(finite) // 10]
        if minimum is None and finite[0] < least:
            ax.set_yscale("symlog", linthresh=least)
            ax.set_ylim(bottom=-0.5 * least)
        else:
            ax.set_yscale("log")
    else:
        middle = finite[int(0.75 * (len(finite) - 1))]
        reach = middle - finite[0]
        if reach > 0.0 and finite[-1] - finite[0] > cut * reach:
            ax.set_ylim(finite[0] - 0.1 * reach, finite[0] + 1.5 * reach)


def _draw_violations(ax: Axes, view: _View) -> Axes:
    """The convergence of a search without a feasible trial: how near it came."""
    history = view.history
    drawn = view.drawn(range(len(history)))
    values = view.values(drawn)
    ax.plot([i + 1 for i in drawn], values, ".", color=_INFEASIBLE, markersize=4, label="trials")
    lowest: list[float] = []
    for value in values:
        lowest.append(min([value, *lowest[-1:]]))
    ax.step(
        [i + 1 for i in drawn] + [len(history)] * bool(drawn),
        lowest + lowest[-1:],
        where="post",
        linewidth=1.8,
        label="closest so far",
    )
    _scale_values(ax, values, cut=math.inf)
    ax.set_xlabel("trials")
    ax.set_ylabel(view.measure)
    ax.set_title("no feasible point", loc="left", fontsize="medium")
    ax.margins(x=0.02)
    ax.legend(loc="upper right", fontsize="small", framealpha=0.9)
    return ax


def _draw_infeasible_rug(ax: Any, view: _View) -> None:
    history = view.history
    infeasible = [i + 1 for i in range(len(history)) if history.index[i] != history.goal]
    if infeasible:
        ax.plot(
            infeasible,
            [0.02] * len(infeasible),
            "|",
            color=_INFEASIBLE,
            markersize=6,
            transform=ax.get_xaxis_transform(),
            label="infeasible",
            zorder=1,
        )


def _draw_map(ax: Any, view: _View, trials: Sequence[int], first: int, second: int) -> None:
    shades = _draw_contours(ax, view, trials, first, second)
    points = _draw_projection(ax, view, trials, first, second)
    ax.figure.colorbar(points, ax=ax, label="trial")
    if shades is not None:
        # As many digits as tell the levels apart, however far from zero all of them lie.
        digits = next(
            n
            for n in range(4, 18)
            if len({f"{v:.{n}g}" for v in shades.levels}) == len(shades.levels)
        )
        scale = ax.figure.colorbar(
            shades, ax=ax, label=view.measure, format=lambda v, _: f"{v:.{digits}g}", pad=0.02
        )
        scale.ax.tick_params(labelsize="small")
    _write_values(ax, view, trials, lambda x, _: (x[first], x[second]))
    handles, labels = ax.get_legend_handles_labels()
    if labels:
        ax.legend(
            handles,
            labels,
            loc="lower right",
            bbox_to_anchor=(1.0, 1.0),
            ncol=3,
            fontsize="small",
            frameon=False,
            borderaxespad=0.2,
            handletextpad=0.2,
        )
    title = [", ".join(map(str, view.chosen(trials[0])))]
    title += [] if view.is_feasible else ["no feasible point"]
    ax.set_title("; ".join(filter(None, title)), loc="left", fontsize="medium")


def _short(value: float) -> str:
    return f"{value:.4g}"


def _write_values(
    ax: Any,
    view: _View,
    trials: Sequence[int],
    place: Callable[[Sequence[float], float], tuple[float, float]],
) -> None:
    """The value beside each minimum, which is drawn at `place(x, value)`."""
    shown = view.chosen(trials[0])
    for x, chosen, value in view.minima:
        if chosen == shown:
            inwards = [-1 if part > 0.8 else 1 for part in _fractions(ax, *place(x, value))]
            ax.annotate(
                _short(value),
                place(x, value),
                xytext=(7 * inwards[0], 6 * inwards[1]),
                textcoords="offset points",
                ha="left" if inwards[0] > 0 else "right",
                va="bottom" if inwards[1] > 0 else "top",
                fontsize="x-small",
                zorder=6,
                bbox={"boxstyle": "round,pad=0.15", "fc": "white", "ec": "none", "alpha": 0.75},
            )


def _fractions(ax: Any, x: float, y: float) -> Any:
    """Where a point lies in its axes, from (0, 0) to (1, 1)."""
    return ax.transAxes.inverted().transform(ax.transData.transform((x, y)))


def _draw_contours(ax: Any, view: _View, trials: Sequence[int], first: int, second: int) -> Any:
    """Filled contours over a triangulation of the trials; none where a corner has no value.

    The triangulation is made in the box of the search, where both variables have the same
    range: in the caller's units its triangles would be slivers.
    """
    _matplotlib()
    from matplotlib.tri import Triangulation

    drawn = set(view.drawn(trials))
    unit = [_unit(view, variable, trials) for variable in (first, second)]
    if len(drawn) < 3:
        return None
    try:
        triangles = Triangulation(unit[0], unit[1]).triangles
    except (RuntimeError, ValueError):  # fewer than three trials, or all on one line
        return None
    values = [v if math.isfinite(v) else 0.0 for v in view.values(trials)]
    levels = _quantiles(view.values(sorted(drawn)), 14)
    if len(levels) < 2:
        return None
    mask = [any(trials[corner] not in drawn for corner in triangle) for triangle in triangles]
    if all(mask):
        return None
    mesh = Triangulation(
        view.column(first, trials), view.column(second, trials), triangles, mask=mask
    )
    # Darker is lower. One shade for each level: the levels are quantiles, and with shades by
    # value all but a few would look alike.
    shades = [str(0.55 + 0.42 * i / (len(levels) - 1)) for i in range(len(levels) - 1)]
    filled = ax.tricontourf(mesh, values, levels=levels, colors=shades, zorder=0)
    ax.tricontour(
        mesh, values, levels=levels, colors="0.5", linewidths=0.5, linestyles="solid", zorder=1
    )
    return filled


def _unit(view: _View, variable: int, trials: Sequence[int]) -> list[float]:
    scale = math.log if variable in view.logarithmic else float
    column = [scale(value) for value in view.column(variable, trials)]
    lower, upper = min(column), max(column)
    return [(value - lower) / ((upper - lower) or 1.0) for value in column]


def _quantiles(values: Sequence[float], count: int) -> list[float]:
    """Levels with about equally many values between them, ends included, and none so close to
    another that both read alike where many trials have settled in a minimum."""
    ordered = sorted(values)
    apart = 1e-3 * (ordered[len(ordered) // 2] - ordered[0])
    levels = ordered[:1]
    for i in range(1, count + 1):
        level = ordered[round(i * (len(ordered) - 1) / count)]
        if level - levels[-1] > apart:
            levels.append(level)
    if len(levels) > 1:
        levels[-1] = ordered[-1]
    return levels


def _draw_projection(
    ax: Any, view: _View, trials: Sequence[int], first: int, second: int, size: float = 14.0
) -> Any:
    drawn = view.drawn(trials)
    inside = set(drawn)
    infeasible = [i for i in trials if i not in inside]
    if infeasible:
        ax.scatter(
            view.column(first, infeasible),
            view.column(second, infeasible),
            marker="x",
            s=0.8 * size,
            linewidths=0.7,
            color=_INFEASIBLE,
            alpha=0.4,
            zorder=2,
            label="infeasible",
        )
    points = ax.scatter(
        view.column(first, drawn),
        view.column(second, drawn),
        c=[i + 1 for i in drawn],
        cmap=_ORDER,
        s=size,
        zorder=3,
        vmin=1,
        vmax=len(view.history),
        **({"linewidths": 0.2, "edgecolors": "white"} if view.is_feasible else {"marker": "x"}),
    )
    _mark_minima(ax, view, trials, first, second, size)
    view.prepare_axis(ax.xaxis, first)
    view.prepare_axis(ax.yaxis, second)
    return points


def _mark_minima(
    ax: Any, view: _View, trials: Sequence[int], first: int, second: int, size: float
) -> None:
    shown = view.chosen(trials[0])
    minima = [(x, rank) for rank, (x, chosen, _) in enumerate(view.minima) if chosen == shown]
    others = [x for x, rank in minima if rank]
    if others:
        ax.scatter(
            [x[first] for x in others],
            [x[second] for x in others],
            marker="D",
            s=2.5 * size,
            facecolors="none",
            edgecolors=_BEST,
            linewidths=1.2,
            zorder=4,
            label="local minima",
        )
    best = [x for x, rank in minima if not rank]
    if best:
        ax.scatter(
            [best[0][first]],
            [best[0][second]],
            marker="*",
            s=12.0 * size,
            color=_BEST,
            edgecolors="white",
            linewidths=0.8,
            zorder=5,
            label=view.best_label,
        )


def _draw_matrix(ax: Any, view: _View, trials: Sequence[int], variables: Sequence[int]) -> Any:
    count = len(variables)
    created = ax is None
    if created:
        side = max(6.0, 1.9 * count)
        _, ax = _pyplot().subplots(
            count, count, figsize=(side + 0.6, side), squeeze=False, layout="constrained"
        )
    panels = _flatten(ax)
    if len(panels) != count * count:
        raise ValueError(f"{len(panels)} axes for a matrix of {count} x {count}")
    points = None
    for row in range(count):
        for column in range(count):
            panel = panels[row * count + column]
            if column > row:
                panel.set_visible(False)
                continue
            if column == row:
                _draw_histogram(panel, view, trials, variables[row])
            else:
                points = _draw_projection(
                    panel, view, trials, variables[column], variables[row], size=8.0
                )
            if row < count - 1:
                panel.set_xlabel("")
                panel.tick_params(labelbottom=False)
            if 0 < column < row:
                panel.set_ylabel("")
                panel.tick_params(labelleft=False)
            panel.tick_params(labelsize="small")
    if created and points is not None:
        figure = panels[0].figure
        figure.colorbar(points, ax=panels, label="trial", shrink=0.6, location="right")
        handles, labels = panels[count].get_legend_handles_labels()
        figure.legend(handles, labels, loc="upper right", frameon=False)
        if not view.is_feasible:
            figure.suptitle("no feasible point", x=0.5, fontsize="medium")
    return ax


def _draw_histogram(ax: Any, view: _View, trials: Sequence[int], variable: int) -> None:
    column = view.column(variable, trials)
    lower, upper = view.range(variable)
    if variable in view.logarithmic:
        edges = [lower * (upper / lower) ** (i / 20) for i in range(21)]
    else:
        edges = [lower + (upper - lower) * i / 20 for i in range(21)]
    edges[-1] = max(edges[-1], max(column))  # rounding must not lose a trial at the bound
    ax.hist(column, bins=edges, color="0.7")
    view.prepare_axis(ax.xaxis, variable)
    ax.set_yticks([])
    ax.set_ylabel("trials", fontsize="small")


def _draw_along(ax: Any, view: _View, trials: Sequence[int], variable: int) -> None:
    drawn = view.drawn(trials)
    x, values = view.column(variable, drawn), view.values(drawn)
    _scatter_in_order(ax, view, x, values, drawn)
    if len(view.varying()) > 1 or view.history.choices:
        for left, right, value in _lowest(view, variable, drawn):
            ax.plot([left, right], [value, value], color="0.3", zorder=3)
    else:
        below = sorted(zip(x, values))
        ax.plot([point[0] for point in below], [point[1] for point in below], color="0.3", zorder=3)
    inside = set(drawn)
    infeasible = [i for i in trials if i not in inside]
    if infeasible:
        ax.plot(
            view.column(variable, infeasible),
            [0.02] * len(infeasible),
            "|",
            color=_INFEASIBLE,
            markersize=5,
            transform=ax.get_xaxis_transform(),
            zorder=1,
        )
    # The whole curve of a single variable is worth seeing.
    whole = len(view.varying()) == 1 or not view.is_feasible
    _scale_values(ax, values, cut=30.0 if whole else 3.0)
    best, _, value = view.minima[0]
    if drawn:
        ax.plot(
            best[variable],
            value,
            "*",
            color=_BEST,
            markersize=13,
            markeredgecolor="white",
            zorder=4,
        )
    view.prepare_axis(ax.xaxis, variable)
    ax.set_ylabel(view.measure)


def _lowest(
    view: _View, variable: int, trials: Sequence[int], bins: int = 25
) -> list[tuple[float, float, float]]:
    """The lowest value in each of equal parts of the range that has one: left, right, value."""
    lower, upper = view.range(variable)
    is_log = variable in view.logarithmic
    low, high = (math.log(lower), math.log(upper)) if is_log else (lower, upper)
    lowest: dict[int, float] = {}
    for x, value in zip(view.column(variable, trials), view.values(trials)):
        share = ((math.log(x) if is_log else x) - low) / ((high - low) or 1.0)
        part = min(max(int(share * bins), 0), bins - 1)
        lowest[part] = min(value, lowest.get(part, value))
    edges = [low + (high - low) * i / bins for i in range(bins + 1)]
    ends = [math.exp(edge) for edge in edges] if is_log else edges
    return [(ends[part], ends[part + 1], lowest[part]) for part in sorted(lowest)]


def _scatter_in_order(
    ax: Any, view: _View, x: Sequence[float], y: Sequence[float], trials: Sequence[int]
) -> None:
    """Dots coloured by when the trials were made."""
    order = [i + 1 for i in trials]
    last = len(view.history)
    ax.scatter(x, y, c=order, cmap=_ORDER, s=10.0, linewidths=0, vmin=1, vmax=last, zorder=2)


def _draw_choices(ax: Any, view: _View, variable: int) -> None:
    """One column for each choice: its trials, spread by their order, and the lowest."""
    history = view.history
    which = variable - history.dimension
    choices = history.choices[which]
    columns = history.category
    drawn = view.drawn(range(len(history)))
    values = view.values(drawn)
    chosen = [columns[i][which] for i in drawn]
    spread = [0.5 * i / max(1, len(history) - 1) - 0.25 for i in drawn]
    x = [choice + offset for choice, offset in zip(chosen, spread)]
    _scatter_in_order(ax, view, x, values, drawn)
    for choice in sorted(set(chosen)):
        lowest = min(value for value, other in zip(values, chosen) if other == choice)
        ax.plot([choice - 0.35, choice + 0.35], [lowest] * 2, color="0.3", zorder=3)
    _scale_values(ax, values)
    if drawn:
        best, value = history.best(), view.minima[0][2]
        ax.plot(
            columns[best][which],
            value,
            "*",
            color=_BEST,
            markersize=13,
            markeredgecolor="white",
            zorder=4,
        )
    labels = [str(choice) for choice in choices]
    crowded = sum(map(len, labels)) > 30
    ax.set_xticks(
        range(len(labels)),
        labels,
        rotation=20 if crowded else 0,
        ha="right" if crowded else "center",
        fontsize="small",
    )
    ax.set_xlim(-0.6, len(labels) - 0.4)
    ax.set_xlabel(view.names[variable])
    ax.set_ylabel(view.measure)
