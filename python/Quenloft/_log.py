# SPDX-License-Identifier: MIT
"""The package's one logger, ``logging.getLogger("Quenloft")``; silent unless it is configured.

Info: a search begins, and why it ended. Warning: an evaluation failed and the search goes on. Debug:
every evaluation of a program.
"""

import logging

logger = logging.getLogger("Quenloft")
logger.addHandler(logging.NullHandler())
