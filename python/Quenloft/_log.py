# SPDX-License-Identifier: MIT
"""The package's one logger, ``logging.getLogger("Quenloft")``; silent unless it is configured.

Info: a search begins, and why it ended. Warning: an evaluation failed and the search goes on. Debug:
every evaluation of a program.
"""

from __future__ import annotations

import sys
from typing import Any, Literal


def log(level: Literal["debug", "info", "warning"], message: str, *arguments: Any) -> None:
    """Log a message, its arguments filled in if anybody listens."""
    # Whoever listens has imported this, which brings much with it.
    logging = sys.modules.get("logging")
    if logging is not None:
        logger = logging.getLogger("Quenloft")
        if not logger.handlers:
            logger.addHandler(logging.NullHandler())
        getattr(logger, level)(message, *arguments)
