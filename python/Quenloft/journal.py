# SPDX-License-Identifier: MIT
"""The journal of a run: an SQLite file that holds every evaluation before the next one starts."""

from __future__ import annotations

import os
from dataclasses import dataclass
from typing import Any, Union

from .history import History

Path = Union[str, "os.PathLike[str]"]


@dataclass(frozen=True)
class Recording:
    """What a journal holds.

    Attributes
    ----------
    header : dict
        Problem and settings: ``"objective"`` (str), ``"args"`` (str), ``"bounds"`` (list of
        ``[lower, upper]``), ``"logarithmic"`` (list of positions), ``"names"`` (list of str: the
        real variables, then the categorical ones), ``"categories"`` (list of lists of choices;
        those that JSON cannot hold as their text), ``"constraints"`` (list of str),
        ``"nonfinite"``, and the parameters of the search by their names; ``"version"`` is that
        of the package that began the journal.
    history : History
        Every evaluation recorded so far.
    """

    header: dict[str, Any]
    history: History


def read_journal(path: Path) -> Recording:
    """Read a journal, of a run that is still going on too.

    Raises
    ------
    FileNotFoundError
        There is no such file.
    JournalError
        It is no journal.
    """
    raise NotImplementedError
