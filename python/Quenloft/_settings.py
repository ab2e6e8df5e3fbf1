# SPDX-License-Identifier: MIT
"""The numbers that steer and stop a search, checked."""

from __future__ import annotations

import math
from dataclasses import dataclass, fields
from typing import Any, Mapping, Optional


@dataclass(frozen=True)
class Settings:
    """What decides which trials a search makes; see `minimize` for each."""

    local_models: bool = True
    batch: int = 1
    overestimation: float = 2.0
    overestimation_local: float = 1.1
    local_vs_global: float = 0.1
    spread: float = 12.0
    cross: float = 0.99

    def __post_init__(self) -> None:
        one_of("local_models", self.local_models, (False, True))
        # Below 1 a step could leave the segment that it splits, and with it the bounds.
        _require("overestimation", self.overestimation, "at least 1", lambda v: v >= 1)
        _require("overestimation_local", self.overestimation_local, "at least 1", lambda v: v >= 1)
        _require("local_vs_global", self.local_vs_global, "at least 0", lambda v: v >= 0)
        _require("spread", self.spread, "above 2", lambda v: v > 2)
        _require("cross", self.cross, "from 0 to 1", lambda v: 0 <= v <= 1)

    @classmethod
    def of(cls, arguments: Mapping[str, Any]) -> Settings:
        """Those among a function's arguments.

        Where no overestimation is given: local models converge by themselves, and leave it to the
        steps between them to be thorough.
        """
        given = {item.name: arguments[item.name] for item in fields(cls)}
        if given["overestimation"] is None:
            given["overestimation"] = 2.5 if given["local_models"] else cls.overestimation
        given["batch"] = whole_number("batch", given["batch"], 1)
        return cls(**given)


@dataclass(frozen=True)
class Budget:
    """When a search ends; infinite or None where there is no such stop."""

    maxfun: float
    maxtime: float
    f_min: float
    min_radius: Optional[float]


def budget(
    maxfun: Optional[float],
    maxtime: Optional[float],
    f_min: Optional[float],
    min_radius: Optional[float],
    dimension: int,
) -> Budget:
    """Check the stops as `minimize` takes them."""
    if maxfun is None:
        maxfun = 1000 * dimension if maxtime is None else math.inf
    elif maxfun != math.inf:
        maxfun = whole_number("maxfun", maxfun, 1)
    # An infinite time is no stop: it lifts a limit that a wrapper has set.
    if maxtime is not None and maxtime != math.inf:
        _require("maxtime", maxtime, "above 0", lambda v: v > 0)
    if f_min is not None and f_min != -math.inf:
        _require("f_min", f_min, "a number", lambda v: True)
    if min_radius is not None:
        _require("min_radius", min_radius, "above 0", lambda v: v > 0)
    return Budget(
        maxfun,
        math.inf if maxtime is None else float(maxtime),
        -math.inf if f_min is None else float(f_min),
        None if min_radius is None else float(min_radius),
    )


def one_of(name: str, value: Any, allowed: tuple[Any, ...]) -> None:
    """Check an argument that takes one of a few values."""
    # A true 1 is not True here: `verify=1` would be read as a count.
    if not any(value is item or (isinstance(item, str) and value == item) for item in allowed):
        raise ValueError(f"{name} must be one of {', '.join(map(repr, allowed))}, not {value!r}")


def whole_number(name: str, value: Any, least: int) -> int:
    """Check a count; a float is one when it has no fraction, as in 1e4."""
    try:
        number = int(value)
        is_whole = not isinstance(value, str) and number == value
    except (TypeError, ValueError, OverflowError):
        is_whole = False
    if not is_whole:
        raise TypeError(f"{name} must be a whole number, not {value!r}")
    if not least <= number < 2**31:
        raise ValueError(f"{name} must be from {least} to {2**31 - 1}, not {number}")
    return number


def _require(name: str, value: Any, rule: str, holds: Any) -> None:
    try:
        number = float(value)
    except (TypeError, ValueError, OverflowError):
        number = math.nan
    if isinstance(value, str) or not math.isfinite(number) or not holds(number):
        raise ValueError(f"{name} must be {rule}, not {value!r}")
