# SPDX-License-Identifier: MIT
"""The variables of a problem, and the way between the caller's units and the engine's box."""

from __future__ import annotations

import math
from dataclasses import dataclass
from typing import Any, Callable, Iterable, Sequence

#: Most real variables that the engine takes.
MAX_DIMENSION = 32
#: Most combinations of categorical choices: the engine keeps about 100 kB for each.
MAX_COMBINATIONS = 10_000


@dataclass(frozen=True)
class Variables:
    """The declared variables.

    The engine's box is the caller's, with a logarithmic variable replaced by its natural logarithm.
    """

    lower: tuple[float, ...]
    upper: tuple[float, ...]
    logarithmic: tuple[bool, ...]
    choices: tuple[tuple[Any, ...], ...]
    names: tuple[str, ...]

    @property
    def dimension(self) -> int:
        return len(self.lower)

    @property
    def free(self) -> tuple[int, ...]:
        """Positions of the categorical variables that leave a choice: the engine's."""
        return tuple(i for i, choices in enumerate(self.choices) if len(choices) > 1)

    def engine_box(self) -> tuple[list[float], list[float]]:
        """Lower and upper bounds of the engine's box."""
        sides = []
        for side in (self.lower, self.upper):
            sides.append([math.log(b) if log else b for b, log in zip(side, self.logarithmic)])
        return sides[0], sides[1]

    def decoder(self) -> Callable[[Sequence[float]], tuple[float, ...]]:
        """A function from the engine's coordinates to a new tuple in the caller's units.

        It never leaves the bounds. Where no variable needs converting it only copies, which is
        what the time per evaluation allows.
        """
        # exp(log(b)) may miss b by a rounding error, and so may (b - a) + a.
        rules = [
            (i, log, a, b)
            for i, (log, a, b) in enumerate(zip(self.logarithmic, self.lower, self.upper))
            if log or (b - a) + a > b
        ]
        exp = math.exp

        def convert(coordinates: Sequence[float]) -> tuple[float, ...]:
            values = [*coordinates]
            for i, log, a, b in rules:
                value = exp(values[i]) if log else values[i]
                values[i] = value if a <= value <= b else a if value < a else b
            return tuple(values)

        return convert if rules else _copy

    def encode(self, x: Sequence[float]) -> tuple[float, ...]:
        """The engine's coordinates of a point."""
        return tuple(math.log(v) if log else v for v, log in zip(x, self.logarithmic))

    def category_decoder(self) -> Callable[[Sequence[int]], tuple[int, ...]]:
        """A function from the engine's values, which cover the free variables, to a new tuple of
        positions in all `choices`."""
        free = self.free
        count = len(self.choices)

        def fill(selected: Sequence[int]) -> tuple[int, ...]:
            positions = [0] * count
            for variable, position in zip(free, selected):
                positions[variable] = position
            return tuple(positions)

        return fill if len(free) < count else _copy


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
    pairs = _pairs(bounds)
    if not 1 <= len(pairs) <= MAX_DIMENSION:
        raise ValueError(f"bounds must hold from 1 to {MAX_DIMENSION} variables, not {len(pairs)}")
    choices = _choices(categories)
    labels = _names(names, len(pairs), len(choices))
    declared = _positions(logarithmic, len(pairs))
    lower, upper, is_log = [], [], []
    for i, (label, pair) in enumerate(zip(labels, pairs)):
        a, b, log = _interval(label, pair)
        log = log or i in declared
        if log and a <= 0:
            raise ValueError(f"{label} is logarithmic: its lower bound must be above 0, not {a!r}")
        lower.append(a)
        upper.append(b)
        is_log.append(log)
    return Variables(tuple(lower), tuple(upper), tuple(is_log), choices, labels)


def _copy(values: Any) -> tuple[Any, ...]:
    # tuple(values) would be the same object, which the engine refills.
    return (*values,)


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
    if items and not any(_is_sequence(item) for item in items):
        if len(items) % 2:
            raise ValueError(
                "flat bounds must be lower, upper, lower, upper, ...: "
                f"an even number of values, not {len(items)}"
            )
        return list(zip(items[::2], items[1::2]))
    for i, item in enumerate(items):
        if not _is_sequence(item):
            raise TypeError(f"bounds of x[{i}] must be a pair (lower, upper), not {item!r}")
    return [tuple(item) for item in items]


def _from_sides(lb: Any, ub: Any) -> list[tuple[Any, ...]]:
    lower, upper = (list(side) if _is_sequence(side) else [side] for side in (lb, ub))
    count = max(len(lower), len(upper))
    lower, upper = (side * count if len(side) == 1 else side for side in (lower, upper))
    if len(lower) != len(upper):
        raise ValueError(f"bounds have {len(lower)} lower and {len(upper)} upper limits")
    return list(zip(lower, upper))


def _is_sequence(item: Any) -> bool:
    # An array of no dimension has the method and refuses the call.
    try:
        iter(item)
    except TypeError:
        return False
    return not isinstance(item, (str, bytes))


def _interval(label: str, pair: tuple[Any, ...]) -> tuple[float, float, bool]:
    log = len(pair) == 3
    if log and pair[2] != "log":
        raise ValueError(f"bounds of {label}: the third item can only be 'log', not {pair[2]!r}")
    if len(pair) not in (2, 3):
        raise ValueError(f"bounds of {label} must be a pair (lower, upper), not {len(pair)} items")
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
    if lower >= upper:
        raise ValueError(
            f"the lower bound of {label} must be below the upper: {lower!r} >= {upper!r}"
        )
    if not math.isfinite(upper - lower):
        raise ValueError(f"the range of {label} is too wide: {lower!r} to {upper!r}")
    return lower, upper, log


def _choices(categories: Iterable[Iterable[Any]]) -> tuple[tuple[Any, ...], ...]:
    if not _is_sequence(categories):
        raise TypeError(
            f"categories must be a sequence of sequences of choices, not {categories!r}"
        )
    choices = []
    for i, variable in enumerate(categories):
        if not _is_sequence(variable):
            raise TypeError(f"categories[{i}] must be a sequence of choices, not {variable!r}")
        choices.append(tuple(variable))
        if not choices[-1]:
            raise ValueError(f"categories[{i}] must hold at least one choice")
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
