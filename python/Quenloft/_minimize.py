# SPDX-License-Identifier: MIT
"""`minimize`: one search, from the caller's arguments to the result."""

from __future__ import annotations

import math
import os
from contextlib import ExitStack, closing
from typing import TYPE_CHECKING, Any, Callable, Literal, Optional, Sequence, Union

from ._log import log
from ._plan import Plan, name_of
from ._progress import Progress
from ._report import Report, watcher
from ._result import OptimizeResult
from ._run import Run
from ._search import Search
from ._settings import Settings
from ._workers import WorkersArgument, opened

if TYPE_CHECKING:
    from ._journal import Journal


def minimize(
    fun: Callable[..., Any],
    bounds: Any,
    args: Any = (),
    *,
    names: Optional[Sequence[str]] = None,
    logarithmic: Sequence[int] = (),
    categories: Sequence[Sequence[Any]] = (),
    constraints: Any = (),
    x0: Any = None,
    known: Any = (),
    point: Literal["tuple", "list", "array", "mapping"] = "tuple",
    nonfinite: Literal["raise", "infeasible"] = "raise",
    catch: Union[type[Exception], tuple[type[Exception], ...]] = (),
    maxfun: Optional[float] = None,
    maxtime: Optional[float] = None,
    f_min: Optional[float] = None,
    min_radius: Optional[float] = None,
    callback: Optional[Callable[[OptimizeResult], Any]] = None,
    on_interrupt: Literal["raise", "return"] = "raise",
    progress: bool = False,
    journal: Optional[Union[str, os.PathLike[str]]] = None,
    verify: bool = True,
    workers: WorkersArgument = 1,
    timeout: Optional[float] = None,
    local_models: bool = True,
    batch: int = 1,
    overestimation: Optional[float] = None,
    overestimation_local: float = Settings.overestimation_local,
    local_vs_global: float = Settings.local_vs_global,
    spread: float = Settings.spread,
    cross: float = Settings.cross,
) -> OptimizeResult:
    """Find the global minimum of a function over a box.

    The search is deterministic and needs no derivatives: the same arguments give the same trials.

    Parameters
    ----------
    fun : callable
        ``fun(x, *args) -> float``; with categorical variables ``fun(x, choices, *args)``, where
        `choices` is a tuple of the chosen objects. It is called only at points inside the bounds,
        and that satisfy the constraints that are called before it. It may return constraint
        values, too: see `constraints`.
    bounds : sequence
        Lower and upper bound of each of the 1 to 32 real variables: a sequence of pairs
        ``(lower, upper)``, a flat sequence ``lower, upper, lower, ...``, a NumPy array of either
        shape, or a `scipy.optimize.Bounds`. A triple ``(lower, upper, "log")`` declares a
        logarithmic variable: it is searched evenly in the logarithm, ``0 < lower``.
    args : tuple, optional
        Further arguments of `fun` (not of the constraints). Anything but a tuple is one argument.
    names : sequence of str, optional
        Names of the real variables, or of these and then the categorical ones; for messages,
        journals and plots. ``x[0]``, ``x[1]``, ..., ``categories[0]``, ... by default.
    logarithmic : sequence of int, optional
        Positions of logarithmic variables, for forms of `bounds` that cannot say so.
    categories : sequence of sequences, optional
        The choices of each categorical variable: any objects, at least one each, at most 10,000
        combinations. Every combination is tried at ``2 * N + 1`` points first.
    constraints : callable, constraint object, or sequence of them, optional
        Callables ``constraint(x) -> float``, with categorical variables
        ``constraint(x, choices)``: a point is feasible when all are <= 0. They are called in
        order, and nothing after the first that is violated. The last item, or the only one, may
        be a whole number instead: `fun` returns that many constraint values beside its own, as
        ``(value, [c0, c1, ...])``.
        SciPy's `NonlinearConstraint`, `LinearConstraint` and dicts of the type ``"ineq"`` are
        understood; without ``keep_feasible=True`` they do not keep what follows them from being
        called, `fun` included, and nor does a callable whose attribute `keep_feasible` is False.
        The more is known at infeasible points the faster is the search. Equality constraints are
        refused, as no sampled point satisfies one.
    x0 : point or sequence of points, optional
        Where to begin: evaluated first, in this order, so that the result is never worse. A point
        is a mapping of values by name, or a sequence of the numbers and then the choices.
    known : sequence, OptimizeResult, History, Recording or path, optional
        Points whose values are known: trials from the start, which are not evaluated and do not
        count for `maxfun`. Pairs ``(point, value)``, or triples ``(point, value, constraints)``
        with the values of all constraints or of those up to the first violated one; a value of
        NaN or None is a failed point. Or another search's result or history, the path of its journal
        or of a CSV file with the columns of `History.to_csv` (at least the variables, ``value``
        and the constraints): of these, points outside the bounds are left out.
    point : {"tuple", "list", "array", "mapping"}
        The form of `x` for `fun`, the constraints and the result. Each call gets a fresh one,
        which may be kept. ``"array"`` needs NumPy; with functions written for arrays, such as
        ``lambda x: np.sum(x**2)``, it is what you want. ``"mapping"`` is a dict of all variables
        by name, the categorical ones included: `choices` is then no argument of its own.
    nonfinite : {"raise", "infeasible"}
        What NaN or an infinity from `fun` or a constraint means: an error (`NonFiniteError`), or
        that the point is infeasible and the search goes on elsewhere (a hidden constraint).
    catch : exception type or tuple of them
        Exceptions of `fun` and the constraints that make a failed point: it is infeasible, kept
        in the history with its ``error``, and the search goes on elsewhere. With TimeoutError
        those are included that take longer than `timeout`, with `WorkerError` processes that die.
    maxfun : int, optional
        Budget of trials, never exceeded: points at which `fun`, or a constraint that is violated,
        is evaluated. ``1000 * N`` when neither `maxfun` nor `maxtime` is given; ``math.inf``
        lifts it.
    maxtime : float, optional
        Budget in seconds, fractions included. It is checked before each evaluation.
    f_min : float, optional
        Stop at the first feasible trial with ``fun <= f_min``.
    min_radius : float, optional
        Stop when the radius of the best trial, the distance to its farthest neighbour in the unit
        box, falls below this.
    callback : callable, optional
        ``callback(intermediate_result)`` after each trial, with the fields ``x``, ``fun``,
        ``categories``, ``nfev``, ``nit``, ``maxcv``, ``elapsed_seconds``, ``status``,
        ``message``, ``success``, ``trial`` (the `Trial` just made), ``replayed`` (trials that
        come from the journal so far) and ``history``. The search stops when it returns True or
        raises StopIteration.
    on_interrupt : {"raise", "return"}
        Ctrl-C raises KeyboardInterrupt with the result so far as its attribute ``result``, or
        returns that result.
    progress : bool
        Show best value, evaluations, budget and time left on stderr while it is a terminal.
    journal : path, optional
        SQLite file that holds every evaluation before the next one starts. If it exists, the run
        goes on from there and evaluates nothing again: recorded values are replayed, callbacks
        included. Budgets are those of the run as a whole and may be changed; anything else that
        differs is refused: of functions their names, code, default values, closure variables and
        state (as pickle sees it). A warning says what cannot be compared. Code is compared between
        sessions of the same version of Python only.
    verify : bool
        Before a journal is added to, evaluate its best point again, and refuse to go on if the
        value is another one.
    workers : int, Executor, or map-like callable
        Where `fun` and the constraints are called: a number of processes of this machine (-1: one
        per processor), any `concurrent.futures.Executor` (of threads, of processes,
        ``client.get_executor()`` of a Dask cluster, an MPI pool), or a callable that is called as
        ``workers(function, items)`` and returns the results, or futures of them. The trials and
        the result are those of one worker, whatever the number: points that the search will
        probably ask for are evaluated ahead. Functions are pickled on the way to other processes.
    timeout : float, optional
        Seconds that one evaluation, constraints included, may take. It then is an
        `EvaluationTimeout`. Evaluations are made in processes, one with ``workers=1``; that which
        took too long is killed and replaced. Not with executors and map-like callables, whose
        calls cannot be ended.
    local_models : bool
        Let quadratic models around the best local minima place trials too: they converge where
        the method alone is slow. Without them the trials are those of `Problem.Minimize`.
    batch : int
        At least 1: between a local model's trial and the next in its region stand at least
        ``batch - 1`` trials that do not depend on it, so that as many workers have something to
        do meanwhile. It belongs to the problem, not to the machine: the trials are those of
        `batch` for any number of workers.
    overestimation : float, optional
        Factor >= 1 on the slope estimate of global steps: larger is more thorough and slower. By
        default 2.5 with local models, 2 without.
    overestimation_local : float
        The same for local steps, >= 1.
    local_vs_global : float
        Local steps per global step, >= 0.
    spread : float
        Number > 2 that sets how well spread the neighbours of a trial are: an angle of
        ``2 * pi / spread`` between any two.
    cross : float
        Size of the initial cross of trials around the centre, in (0, 1]; 0 for none.

    Returns
    -------
    OptimizeResult

    Raises
    ------
    TypeError, ValueError
        An argument is wrong; nothing was evaluated.
    NonFiniteError
        See `nonfinite`.
    JournalError
        See `journal`.
    EvaluationTimeout, WorkerError
        See `timeout`; a process of `workers` ended in an evaluation.
    Exception
        Whatever `fun`, a constraint or `callback` raises, unchanged and at once. It carries the
        result so far in its attribute ``result``.

    Examples
    --------
    >>> import Quenloft
    >>> result = Quenloft.minimize(lambda x: (x[0] - 1) ** 2 + x[1] ** 2, [(-2, 2), (-2, 2)],
    ...                            maxfun=100)
    >>> result.nit
    100
    """
    return execute(Plan(**locals()))


def execute(plan: Plan) -> OptimizeResult:
    """Carry out a plan; see `minimize`."""
    log("info", "search of %s begins: %s", name_of(plan.fun), plan.summary())
    run = Run(plan)
    report = Report(run, plan)
    try:
        with ExitStack() as stack:
            run.workers = stack.enter_context(
                opened(plan.workers, plan.evaluation(), timeout=plan.timeout)
            )
            book = None
            if plan.journal is not None:
                from ._journal import Journal as Opened  # most runs have none

                book = stack.enter_context(closing(Opened(plan.journal, plan, run.history)))
            display = None
            if plan.progress:
                limits = plan.budget.maxfun, plan.budget.maxtime
                display = stack.enter_context(closing(Progress(*limits, run.workers.size)))
            run.watch = watcher(run, report, display, plan.callback)
            try:
                _search(run, report, plan, book)
            except BaseException as stray:
                run.error = run.error or stray
            if display is not None:
                display.update(run.made, run.best_objective(), run.elapsed(), is_last=True)
    except BaseException as stray:  # of an argument or a file, or from a signal in between
        run.error = run.error or stray
    result = _result(run, report)
    log(
        "info", "search of %s ends with fun = %r: %s", name_of(plan.fun), result.fun, result.message
    )
    error = run.error
    if error is None or (isinstance(error, KeyboardInterrupt) and plan.on_interrupt == "return"):
        return result
    # Past any __slots__ or __setattr__: every exception has this dict.
    vars(error)["result"] = result
    try:
        raise error
    finally:
        # The traceback holds this frame and the run's, which must not hold the exception.
        run.error = None
        del error


def _result(run: Run, report: Report) -> OptimizeResult:
    for _ in range(3):
        try:
            return report.result()
        except BaseException as error:  # from a signal, which shall have a result too
            run.error = run.error or error
    return report.result()


def _search(run: Run, report: Report, plan: Plan, book: Optional[Journal]) -> None:
    limit = plan.budget.maxfun
    search = Search.from_variables(
        plan.variables,
        plan.settings,
        constraints=len(plan.limits),
        hidden_constraint=plan.may_fail,
        known=plan.known_points,
        wanted=plan.wanted,
        maxfun=None if limit == math.inf else int(limit),
    )
    try:
        run.search(search, book)
    except BaseException as error:
        run.error = error
    report.end_search(search)
    run.end_search()
