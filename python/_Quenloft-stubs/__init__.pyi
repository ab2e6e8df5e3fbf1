# SPDX-License-Identifier: MIT
"""What the native module offers, with its contract: oddities included."""

from typing import Any, Callable, NoReturn, Sequence, Tuple, Union, final

_Coordinates = Tuple[float, ...]
_Categories = Tuple[int, ...]

# Called with the coordinates alone, or with the categorical values as well where the problem has
# categorical variables. Both tuples are refilled in place before the next call: keeping one ends
# the search.
_Callable = Union[Callable[[_Coordinates], float], Callable[[_Coordinates, _Categories], float]]

@final
class Test:
    """A trial of a search. Made by `Problem.Minimize` only."""

    # Number of the first violated constraint, or the number of constraints.
    @property
    def index(self) -> int: ...
    # What the function at that index answered.
    @property
    def value(self) -> float: ...
    @property
    def coordinate(self) -> _Coordinates: ...
    # AttributeError where the problem has no categorical variables.
    @property
    def categorical(self) -> _Categories: ...
    # Distance to the farthest neighbour, in the unit box.
    @property
    def radius(self) -> float: ...

@final
class Result:
    """What a search found. Made by `Problem.Minimize` only."""

    # Whole seconds of the calendar clock.
    @property
    def seconds(self) -> int: ...
    @property
    def tests(self) -> int: ...
    # AttributeError where there is no trial: the first evaluation failed.
    @property
    def minimum(self) -> Test: ...
    # At most ten, ascending by value.
    @property
    def locals(self) -> Tuple[Test, ...]: ...

@final
class Problem:
    """A function to be minimised over a box, with categorical variables and constraints.

    `bounds` holds the lower and upper bound of each variable in turn, from 1 to 32 variables;
    `categorical` the number of values, at least 2, of each categorical variable; a constraint holds
    where it answers 0 or less. `bounds` and `target` are needed. A `TypeError` says what is wrong;
    for the target it is the cause of a `SystemError`.
    """

    # Keywords only.
    def __init__(
        self,
        *none: NoReturn,
        bounds: Sequence[float] = ...,
        categorical: Sequence[int] = ...,
        constraints: Sequence[_Callable] = ...,
        target: _Callable = ...,
    ) -> None: ...
    bounds: Sequence[float]
    # Cannot be changed: an assignment ends in a SystemError, or does nothing.
    @property
    def constraints(self) -> Sequence[_Callable]: ...
    target: _Callable
    def Minimize(
        self,
        *,
        overestimation: float = 2.0,
        overestimation_local: float = 1.1,
        local_vs_global: float = 0.1,
        spread: float = 12.0,
        cross: float = 0.99,
        fit: int = 0,
        stop_seconds: int = 2147483647,
        stop_tests: int = 2147483647,
        stop_radius: float = ...,
        stop_value: float = ...,
    ) -> Result:
        """Searches from scratch until a stop condition holds; at least one must be given.

        Integers wrap modulo 2**32. A callable that answers NaN or an infinity ends the search,
        with the trials before it as the result. One that raises ends it with a `SystemError` whose
        cause is the interpreter's `TypeError`. `stop_value` by itself never ends a search.
        """

@final
class TestFunction:
    """Grishagin's function `number`, from 1 to 100; any other number stands for 1."""

    def __init__(self, number: int, /, **ignored: Any) -> None: ...
    def __call__(self, point: Sequence[float], /, **ignored: Any) -> float: ...
    # The known global minimizer.
    @property
    def argmin(self) -> Tuple[float, float]: ...

@final
class TestFunction2:
    """A GKLS function on the box [-1, 1]**dimension; only dimensions 2 to 6 can be called.

    `minima_count` is at least 2, `global_distance` from 0 to 1, `global_radius` up to half of that,
    `function_number` from 1 to 100; `TypeError` where the generator refuses.
    """

    def __init__(
        self,
        dimension: int,
        minima_count: int,
        global_distance: float,
        global_radius: float,
        function_number: int,
        /,
        **ignored: Any,
    ) -> None: ...
    def __call__(self, point: Sequence[float], /, **ignored: Any) -> float: ...
    # The known global minimizer.
    @property
    def argmin(self) -> Tuple[float, ...]: ...
