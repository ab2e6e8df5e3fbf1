# SPDX-License-Identifier: MIT
"""The search, with positions of choices instead of choices, and without defaults."""

from typing import Optional, Sequence, TypedDict, final

_X = tuple[float, ...]
_Category = tuple[int, ...]
# Coordinates, positions of the choices, id.
_Point = tuple[_X, _Category, int]
# Index, value, constraints, objective.
_Outcome = tuple[int, float, tuple[float, ...], float]
_OpenPoint = tuple[_Point, bool, Optional[_Outcome]]

class _Columns(TypedDict):
    x: memoryview
    category: memoryview
    index: memoryview
    value: memoryview
    constraints: memoryview
    objective: memoryview
    id: memoryview
    kind: memoryview

NO_LIMIT: int

@final
class Search:
    def __init__(
        self,
        # Lower and upper bound, whether logarithmic and integer, the number of values or 0.
        variables: Sequence[tuple[float, float, bool, bool, int]],
        category_sizes: Sequence[int],
        constraint_count: int,
        has_hidden_constraint: bool,
        has_local_models: bool,
        batch: int,
        parameters: tuple[float, float, float, float, float],
        # Coordinates, positions of the choices, value, constraints, whether it failed.
        known: Sequence[
            tuple[Sequence[float], Sequence[int], Optional[float], Sequence[float], bool]
        ],
        # Coordinates, positions of the choices.
        wanted: Sequence[tuple[Sequence[float], Sequence[int]]],
    ) -> None: ...
    def ask(self, count: int) -> list[_Point]: ...
    def tell(
        self,
        id: int,
        x: _X,
        value: Optional[float],
        constraints: Sequence[float],
        has_failed: bool,
        advances: bool,
    ) -> int: ...
    def supply(
        self,
        x: Sequence[float],
        categories: Sequence[int],
        value: Optional[float],
        constraints: Sequence[float],
        has_failed: bool,
    ) -> _Point: ...
    def find(self, x: Sequence[float], categories: Sequence[int]) -> _Point: ...
    def retract(self, id: int, x: _X) -> None: ...
    def advance(self, limit: int) -> int: ...
    @property
    def limit(self) -> int: ...
    @limit.setter
    def limit(self, value: int) -> None: ...
    def __len__(self) -> int: ...
    def trials(self) -> _Columns: ...
    # Id, index and value of the newest trial.
    def last(self) -> Optional[tuple[int, int, float]]: ...
    def best(self) -> Optional[int]: ...
    def locals(self, most: int) -> list[int]: ...
    def radius(self, position: int) -> float: ...
    def best_radius(self) -> float: ...
    def is_exhausted(self) -> bool: ...
    def is_finished(self) -> bool: ...
    def open(self) -> list[_OpenPoint]: ...
    def needed(self) -> list[_Point]: ...
    def copy(self) -> Search: ...
    # The number of ids, the limit, the trials and the open points.
    def save(self) -> tuple[int, int, list[tuple[_Point, _Outcome]], list[_OpenPoint]]: ...
    def restore(
        self, saved: tuple[int, int, list[tuple[_Point, _Outcome]], list[_OpenPoint]]
    ) -> None: ...
