# SPDX-License-Identifier: MIT
"""``python -m Quenloft``; see `cli`."""

import sys

from .cli import main

sys.exit(main())
