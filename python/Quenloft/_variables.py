# SPDX-License-Identifier: MIT
"""The variables of a problem, as the caller declares and names them."""

from __future__ import annotations

import math
from collections.abc import Mapping
from dataclasses import dataclass
from functools import cached_property
from typing import Any, Callable, Iterable, Optional, Sequence

#: Most variables with a range that the engine takes.
MAX_DIMENSION = 32
#: Most combinations of categorical choices: the engine keeps about 100 kB for each.
MAX_COMBINATIONS = 10_000
#: Most values of an integer variable searched in its logarithm, whose lattice is kept as a list.
MAX_LOGARITHMIC_LATTICE = 1_000_000
#: Whole numbers beyond this have no neighbours among the floats.
_MAX_WHOLE = 2**53


@dataclass(frozen=True)
class Number:
    """A variable that is a number.

    Attributes
    ----------
    lower, upper : float
        Its bounds; equal for a fixed variable.
    is_logarithmic : bool
        It is searched evenly in its logarithm.
    is_integer : bool
        Its values are whole numbers, of the type int.
    count : int
        Number of its values, evenly from `lower` to `upper`; 0 for a continuous variable.
    """

    lower: float
    upper: float
    is_logarithmic: bool = False
    is_integer: bool = False
    count: int = 0

    @property
    def is_fixed(self) -> bool:
        """Whether there is nothing to search for."""
        return self.lower == self.upper

    def nearest(self, value: float) -> float:
        """The nearest of its values."""
        if not self.count:
            return value
        last = self.count - 1
        position = round((value - self.lower) / (self.upper - self.lower) * last)
        if self.is_integer:
            lower, upper = int(self.lower), int(self.upper)
            return lower + position * ((upper - lower) // last)
        # A weighted mean and not a sum of steps: 0.3 of 0, 0.1, ... 1 is 0.3.
        return ((last - position) * self.lower + position * self.upper) / last

    def contains(self, value: float) -> bool:
        """Whether a value is one of this variable's."""
        if not self.lower <= value <= self.upper:
            return False
        step = (self.upper - self.lower) / max(self.count - 1, 1)
        return math.isclose(self.nearest(value), value, abs_tol=1e-9 * step)

    def __str__(self) -> str:
        if self.is_fixed:
            return f"{self.lower:g}, fixed"
        notes = [", logarithmic"] * self.is_logarithmic + [", integer"] * self.is_integer
        step = (self.upper - self.lower) / (self.count - 1) if self.count else 0.0
        if self.count and not (self.is_integer and step == 1.0):
            notes.append(f", in steps of {step:g}")
        return f"[{self.lower:g}, {self.upper:g}]" + "".join(notes)


@dataclass(frozen=True)
class Variables:
    """The declared variables: numbers, and then choices.

    A point is a tuple of the values of all numbers, fixed ones included. The search has a
    coordinate for each number that is not fixed (`searched`), and a position for each categorical
    variable that leaves a choice (`free`).
    """

    numbers: tuple[Number, ...]
    choices: tuple[tuple[Any, ...], ...]
    names: tuple[str, ...]

    @property
    def dimension(self) -> int:
        """How many variables are numbers."""
        return len(self.numbers)

    @cached_property
    def lower(self) -> tuple[float, ...]:
        """The lower bound of each number."""
        return tuple(number.lower for number in self.numbers)

    @cached_property
    def upper(self) -> tuple[float, ...]:
        """The upper bound of each number."""
        return tuple(number.upper for number in self.numbers)

    @cached_property
    def logarithmic(self) -> tuple[bool, ...]:
        """Whether each number is searched in its logarithm."""
        return tuple(number.is_logarithmic for number in self.numbers)

    @cached_property
    def integers(self) -> tuple[int, ...]:
        """Positions of the numbers that are whole."""
        return tuple(i for i, number in enumerate(self.numbers) if number.is_integer)

    @cached_property
    def searched(self) -> tuple[int, ...]:
        """Positions of the numbers that are not fixed: the search's coordinates."""
        return tuple(i for i, number in enumerate(self.numbers) if not number.is_fixed)

    @cached_property
    def free(self) -> tuple[int, ...]:
        """Positions of the categorical variables that leave a choice: the search's."""
        return tuple(i for i, choices in enumerate(self.choices) if len(choices) > 1)

    @property
    def point_count(self) -> float:
        """How many points there are; infinity with a continuous variable."""
        counts = [self.numbers[i].count or math.inf for i in self.searched]
        return math.prod([*counts, *map(len, self.choices)])

    def chosen(self, category: Sequence[int]) -> tuple[Any, ...]:
        """The objects at positions in all `choices`."""
        return tuple([variable[i] for variable, i in zip(self.choices, category)])

    def point(self, given: Any, label: str = "x0") -> tuple[tuple[float, ...], tuple[int, ...]]:
        """A point that the caller names: its numbers, and positions in `choices`.

        Parameters
        ----------
        given : mapping or sequence
            Values by name, or the numbers and then the choices. Variables that leave no choice
            may be missing in a mapping.
        label : str
            What messages call it.

        Raises
        ------
        TypeError, ValueError
            With the name of the variable at fault.
        """
        dimension = self.dimension
        if isinstance(given, Mapping):
            unknown = [name for name in given if name not in self.names]
            if unknown:
                raise ValueError(f"{label} names {unknown[0]!r}; there are {', '.join(self.names)}")
            only = [number.lower if number.is_fixed else None for number in self.numbers]
            only += [variable[0] if len(variable) == 1 else None for variable in self.choices]
            missing = [
                name
                for i, (name, value) in enumerate(zip(self.names, only))
                if name not in given
                and value is None
                and (i < dimension or i - dimension in self.free)
            ]
            if missing:
                raise ValueError(f"{label} has no value for {', '.join(missing)}")
            values = [given.get(name, value) for name, value in zip(self.names, only)]
        elif is_sequence(given):
            values = list(given)
        else:
            raise TypeError(f"{label} must be a sequence or a mapping of values, not {given!r}")
        if len(values) != len(self.names):
            raise ValueError(f"{label} must hold {len(self.names)} values, not {len(values)}")
        x = tuple(map(_within, self.numbers, self.names, values, [label] * dimension))
        category = []
        for name, choices, value in zip(self.names[dimension:], self.choices, values[dimension:]):
            # The object itself first: what compares equal may be another choice (1 and True).
            found = [i for i, choice in enumerate(choices) if choice is value]
            found = found or [i for i, choice in enumerate(choices) if _equal(choice, value)]
            if not found:
                raise ValueError(f"{name} of {label} is no choice: {value!r}")
            category.append(found[0])
        return x, tuple(category)

    def place(self, x: Sequence[float], chosen: Sequence[Any]) -> str:
        """A point as messages show it."""
        if self.names[0] == "x[0]":
            return f"x = {tuple(x)}" + (f", categories = {tuple(chosen)}" if chosen else "")
        return ", ".join(f"{n} = {value!r}" for n, value in zip(self.names, (*x, *chosen)))

    def presenter(self, form: str) -> Callable[[tuple[float, ...], tuple[Any, ...]], Any]:
        """A function of a point and the chosen objects that gives the point in the caller's form.

        Parameters
        ----------
        form : {"tuple", "list", "array", "mapping"}
            A mapping has the numbers and the choices by their names.
        """
        if form == "mapping":
            names = self.names
            return lambda x, chosen: dict(zip(names, (*x, *chosen)))
        if form == "list":
            return lambda x, chosen: list(x)
        if form == "array":
            from numpy import array

            return lambda x, chosen: array(x, dtype=float)
        return lambda x, chosen: x

    def arguments(
        self, form: str
    ) -> Callable[[tuple[float, ...], tuple[Any, ...]], tuple[Any, ...]]:
        """The same as the positional arguments of the caller's functions: the point, and the tuple
        of choices after it unless it holds them or there are none."""
        present = self.presenter(form)
        if self.choices and form != "mapping":
            return lambda x, chosen: (present(x, chosen), chosen)
        return lambda x, chosen: (present(x, chosen),)


def declare(
    bounds: Any,
    logarithmic: Iterable[int],
    categories: Iterable[Iterable[Any]],
    names: Any,
) -> Variables:
    """Check the declaration of the variables as `minimize` takes it.

    Raises
    ------
    TypeError, ValueError
        With the name of the variable at fault.
    """
    if isinstance(bounds, Mapping):
        others = {"names": names, "categories": categories, "logarithmic": logarithmic}
        for name, given in others.items():
            if given is not None and len(list(given)):
                raise TypeError(f"bounds by name hold all variables: leave {name} out")
        categorical = {_name(name): side for name, side in bounds.items() if isinstance(side, list)}
        numeric = {_name(name): side for name, side in bounds.items() if name not in categorical}
        names = [*numeric, *categorical]
        categories = list(categorical.values())
        pairs = [_sides(name, side) for name, side in numeric.items()]
    else:
        pairs = _pairs(bounds)
        categorical = {}
    if not pairs:
        if categorical:
            raise ValueError(
                "bounds hold choices only, which are lists: give a range, a tuple (lower, upper)"
            )
        raise ValueError(f"bounds must hold from 1 to {MAX_DIMENSION} variables, not 0")
    choices = _choices(categories, list(categorical))
    labels = _names(names, len(pairs), len(choices))
    declared = _positions(logarithmic, len(pairs))
    numbers = tuple(
        _number(label, pair, i in declared) for i, (label, pair) in enumerate(zip(labels, pairs))
    )
    searched = sum(not number.is_fixed for number in numbers)
    if not searched:
        raise ValueError("every variable of bounds is fixed: there is nothing to search")
    if searched > MAX_DIMENSION:
        raise ValueError(f"bounds must hold from 1 to {MAX_DIMENSION} variables, not {searched}")
    return Variables(numbers, choices, labels)


def coordinates(point: Any, dimension: int) -> tuple[float, ...]:
    """The numbers of a point in whatever form the caller has it."""
    values = point.values() if isinstance(point, Mapping) else point
    return tuple(values)[:dimension]


def _equal(one: Any, other: Any) -> bool:
    try:
        return bool(one == other)
    except Exception:  # arrays, or what a caller's class makes of it
        return False


def _within(number: Number, name: str, value: Any, label: str) -> float:
    try:
        given = float(value)
    except (TypeError, ValueError, OverflowError):
        raise TypeError(f"{name} of {label} must be a number, not {value!r}") from None
    if not number.contains(given):
        raise ValueError(f"{name} of {label} is {value!r}, not in {number}")
    return round(given) if number.is_integer else number.nearest(given)


def _name(name: Any) -> str:
    if not isinstance(name, str):
        raise TypeError(f"names of variables must be strings, not {name!r}")
    return name


def _sides(name: str, side: Any) -> tuple[Any, ...]:
    if not is_sequence(side):
        raise TypeError(
            f"bounds of {name} must be a tuple (lower, upper) or a list of choices, not {side!r}"
        )
    sides = tuple(side)
    if sides and all(isinstance(value, str) for value in sides):
        raise TypeError(f"bounds of {name} must be numbers; choices are a list: {list(sides)}")
    return sides


def _pairs(bounds: Any) -> list[tuple[Any, ...]]:
    if hasattr(bounds, "lb") and hasattr(bounds, "ub"):
        return _from_sides(bounds.lb, bounds.ub)
    if isinstance(bounds, (str, bytes)):
        raise TypeError(f"bounds must be a sequence of pairs, not {bounds!r}")
    try:
        items = list(bounds)
    except TypeError:
        raise TypeError(
            f"bounds must be a sequence of pairs, not {type(bounds).__name__}"
        ) from None
    if items and not any(is_sequence(item) for item in items):
        if len(items) % 2:
            raise ValueError(
                "flat bounds must be lower, upper, lower, upper, ...: "
                f"an even number of values, not {len(items)}"
            )
        return list(zip(items[::2], items[1::2]))
    for i, item in enumerate(items):
        if not is_sequence(item):
            raise TypeError(f"bounds of x[{i}] must be a pair (lower, upper), not {item!r}")
    return [tuple(item) for item in items]


def _from_sides(lb: Any, ub: Any) -> list[tuple[Any, ...]]:
    lower, upper = (list(side) if is_sequence(side) else [side] for side in (lb, ub))
    count = max(len(lower), len(upper))
    lower, upper = (side * count if len(side) == 1 else side for side in (lower, upper))
    if len(lower) != len(upper):
        raise ValueError(f"bounds have {len(lower)} lower and {len(upper)} upper limits")
    return list(zip(lower, upper))


def is_sequence(item: Any) -> bool:
    # An array of no dimension has the method and refuses the call.
    try:
        iter(item)
    except TypeError:
        return False
    return not isinstance(item, (str, bytes))


def _number(label: str, pair: tuple[Any, ...], is_logarithmic: bool) -> Number:
    """One variable, from ``(lower, upper, ...)`` with "log", "int" or a step after the bounds."""
    if len(pair) < 2:
        raise ValueError(f"bounds of {label} must be a pair (lower, upper), not {len(pair)} items")
    lower, upper = _limits(label, pair)
    is_integer, step = False, None
    for extra in pair[2:]:
        if isinstance(extra, str) and extra in ("log", "int"):
            is_logarithmic |= extra == "log"
            is_integer |= extra == "int"
        elif isinstance(extra, str) or step is not None:
            raise ValueError(
                f"bounds of {label}: after the two bounds may stand 'log', 'int' or a step, "
                f"not {extra!r}"
            )
        else:
            step = _step(label, extra)
    if is_logarithmic and lower <= 0:
        raise ValueError(f"{label} is logarithmic: its lower bound must be above 0, not {lower!r}")
    if is_integer:
        for bound in (lower, upper):
            if bound != math.floor(bound) or abs(bound) > _MAX_WHOLE:
                raise ValueError(
                    f"{label} is an integer: its bounds must be whole numbers, not {bound!r}"
                )
    if lower == upper:
        return Number(lower, upper, is_logarithmic, is_integer)
    count = _lattice_size(label, lower, upper, is_logarithmic, is_integer, step)
    return Number(lower, upper, is_logarithmic, is_integer, count)


def _limits(label: str, pair: tuple[Any, ...]) -> tuple[float, float]:
    limits = []
    for side, value in zip(("lower", "upper"), pair):
        try:
            limit = float(value)
        except (TypeError, ValueError):
            raise TypeError(
                f"the {side} bound of {label} must be a number, not {value!r}"
            ) from None
        except OverflowError:
            raise ValueError(f"the {side} bound of {label} must be finite") from None
        if not math.isfinite(limit):
            raise ValueError(f"the {side} bound of {label} must be finite, not {limit!r}")
        limits.append(limit)
    lower, upper = limits
    if lower > upper:
        raise ValueError(
            f"the lower bound of {label} must not be above the upper: {lower!r} > {upper!r}"
        )
    if not math.isfinite(upper - lower):
        raise ValueError(f"the range of {label} is too wide: {lower!r} to {upper!r}")
    return lower, upper


def _step(label: str, extra: Any) -> float:
    try:
        step = float(extra)
    except (TypeError, ValueError, OverflowError):
        step = math.nan
    if isinstance(extra, bool) or not 0.0 < step < math.inf:
        raise ValueError(f"the step of {label} must be a number above 0, not {extra!r}")
    return step


def _lattice_size(
    label: str,
    lower: float,
    upper: float,
    is_logarithmic: bool,
    is_integer: bool,
    step: Optional[float],
) -> int:
    """Number of values of a variable, 0 for a continuous one."""
    if step is None and not is_integer:
        return 0
    if step is not None and is_logarithmic:
        raise ValueError(f"{label} is logarithmic: it cannot have a step")
    if is_integer and step is not None and step != math.floor(step):
        raise ValueError(f"{label} is an integer: its step must be a whole number, not {step!r}")
    steps = (upper - lower) / (step or 1.0)
    if steps > _MAX_WHOLE or not math.isfinite(steps * max(abs(lower), abs(upper))):
        raise ValueError(f"the step of {label} is too small for its range")
    if not math.isclose(steps, round(steps), rel_tol=1e-9) or round(steps) < 1:
        raise ValueError(
            f"the range of {label}, {lower:g} to {upper:g}, must be a whole number of steps "
            f"of {step:g}"
        )
    count = round(steps) + 1
    if is_logarithmic and count > MAX_LOGARITHMIC_LATTICE:
        raise ValueError(
            f"{label} has {count} values; with 'log' at most {MAX_LOGARITHMIC_LATTICE} are "
            "possible: leave 'int' out and round"
        )
    return count


def _choices(
    categories: Iterable[Iterable[Any]], names: Sequence[str] = ()
) -> tuple[tuple[Any, ...], ...]:
    if not is_sequence(categories):
        raise TypeError(
            f"categories must be a sequence of sequences of choices, not {categories!r}"
        )
    choices = []
    for i, variable in enumerate(categories):
        label = names[i] if names else f"categories[{i}]"
        if not is_sequence(variable):
            raise TypeError(f"{label} must be a sequence of choices, not {variable!r}")
        choices.append(tuple(variable))
        if not choices[-1]:
            raise ValueError(f"{label} must hold at least one choice")
    combinations = math.prod(map(len, choices))
    if combinations > MAX_COMBINATIONS:
        raise ValueError(
            f"categories have {combinations} combinations; at most {MAX_COMBINATIONS} are possible"
        )
    return tuple(choices)


def _names(names: Any, dimension: int, categorical: int) -> tuple[str, ...]:
    default = [f"x[{i}]" for i in range(dimension)]
    default += [f"categories[{i}]" for i in range(categorical)]
    if names is None:
        return tuple(default)
    if isinstance(names, str):
        raise TypeError(f"names must be a sequence of strings, not {names!r}")
    given = [str(name) for name in names]
    if len(given) not in (dimension, dimension + categorical):
        counts = f"{dimension}" + (f" or {dimension + categorical}" if categorical else "")
        raise ValueError(f"names must hold {counts} names, not {len(given)}")
    if len(set(given)) < len(given):
        raise ValueError(f"names must differ: {given}")
    return tuple(given + default[len(given) :])


def _positions(logarithmic: Iterable[int], dimension: int) -> set[int]:
    positions = set()
    for position in logarithmic:
        # Truth values look like a mask, and would pass as the positions 0 and 1.
        if isinstance(position, bool) or not hasattr(position, "__index__"):
            raise TypeError(f"logarithmic must hold positions of variables, not {position!r}")
        place = position.__index__()
        if not 0 <= place < dimension:
            raise ValueError(f"logarithmic names variable {place}; there are {dimension}, from 0")
        positions.add(place)
    return positions
